#!/usr/bin/env bash
# Fails when libtarn.so exports a symbol outside the namespaces Tarn and Pt,
# or exports none of the API at all. Internal classes must stay hidden.
set -euo pipefail
lib="$1"
symbols=$(nm -D --defined-only -C "$lib" | awk '{ $1=""; $2=""; sub(/^  /, ""); print }')
for api in Tarn::CreateCacheFile Tarn::CompactCacheFile Tarn::Cache::clear; do
  if ! grep -q "^$api" <<<"$symbols"; then
    echo "libtarn.so does not export $api"; exit 1
  fi
done
# Allowed: the Tarn API, the platform types it exposes, and the typeinfo and
# vtables of exported classes. Anything else is a leak of an internal name.
leaks=$(grep -v -E '^(Tarn::|Pt::|typeinfo (name )?for (Tarn|Pt)::|vtable for (Tarn|Pt)::|_init$|_fini$)' <<<"$symbols" || true)
if [ -n "$leaks" ]; then
  echo "libtarn.so exports names outside the API:"; echo "$leaks"; exit 1
fi
internal=$(grep -E '^(Tarn::(FileManager|CacheManager|WorkManager|detail)|Pt::(UringEngine|ThreadPoolEngine|RequestSequencer))' <<<"$symbols" || true)
if [ -n "$internal" ]; then
  echo "libtarn.so exports internal classes:"; echo "$internal"; exit 1
fi
echo "1 passed, 0 failed"
