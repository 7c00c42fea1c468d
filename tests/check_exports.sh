#!/usr/bin/env bash
# What libtarn.so or libtarn-memcached.so exports, against what it must and
# must not.
#
# usage: check_exports.sh LIBRARY [HEADER...]
#
# Always: the library exports its API and no internal class (those must stay
# hidden); libtarn.so nothing outside the namespaces Tarn and Pt,
# libtarn-memcached.so nothing but MemcachedTier and MakeMemcachedTier.
#
# With headers (the installed ones): every function they declare without
# defining is exported, or an application that calls it fails to link. The
# declarations come from Universal Ctags (prototypes with their scope and
# properties). Deleted, defaulted and pure virtual functions, functions defined
# in a header and members of class templates need no symbol. For every other
# qualified name, the library must export at least as many distinct overloads
# as the headers declare; the names are compared against `nm -D --demangle`.
set -euo pipefail

if [ $# -lt 1 ]; then
  echo "usage: $0 LIBRARY [HEADER...]" >&2
  exit 2
fi
library=$1
shift

symbols=$(nm -D --defined-only -C "$library" | awk '{ $1=""; $2=""; sub(/^  /, ""); print }')
name=$(basename "$library")
# What each library must export, what it may export at all, and which of its
# internal names must stay hidden.
case "$name" in
  libtarn-memcached.so*)
    required="Tarn::MakeMemcachedTier Tarn::MemcachedTier::~MemcachedTier"
    allowed='^(Tarn::(MemcachedTier::|MakeMemcachedTier\()|(typeinfo (name )?for|vtable for) Tarn::MemcachedTier$|_init$|_fini$)'
    hidden='^(Tarn::Memcached::|memcached_)'
    ;;
  *)
    required="Tarn::CreateCacheFile Tarn::CompactCacheFile Tarn::Cache::clear"
    allowed='^(Tarn::|Pt::|typeinfo (name )?for (Tarn|Pt)::|vtable for (Tarn|Pt)::|_init$|_fini$)'
    hidden='^(Tarn::(FileManager|CacheManager|WorkManager|detail|Memcached)|Pt::(UringEngine|ThreadPoolEngine|RequestSequencer))'
    ;;
esac
for api in $required; do
  if ! grep -q "^$api" <<<"$symbols"; then
    echo "$name does not export $api"; exit 1
  fi
done
# Anything outside the allowed names is a leak of an internal name.
leaks=$(grep -v -E "$allowed" <<<"$symbols" || true)
if [ -n "$leaks" ]; then
  echo "$name exports names outside the API:"; echo "$leaks"; exit 1
fi
internal=$(grep -E "$hidden" <<<"$symbols" || true)
if [ -n "$internal" ]; then
  echo "$name exports internal classes:"; echo "$internal"; exit 1
fi
if [ $# -eq 0 ]; then
  echo "1 passed, 0 failed"
  exit 0
fi

for tool in ctags nm; do
  command -v "$tool" >/dev/null || { echo "$0: $tool is missing (universal-ctags, binutils)" >&2; exit 2; }
done
ctags --version | grep -q 'Universal Ctags' || { echo "$0: needs Universal Ctags" >&2; exit 2; }

# One line per tag: kind, qualified name, signature, properties, template.
tags() {
  ctags -o - --language-force=c++ --kinds-c++=+p --fields=+KZS \
    --fields-c++=+{properties}{template} --extras=-F "$@" |
    awk -F'\t' '{
      kind = ""; scope = ""; signature = ""; properties = ""; template = ""
      for (i = 4; i <= NF; i++) {
        if ($i !~ /:/) kind = $i
        else if ($i ~ /^scope:/) { scope = $i; sub(/^scope:[^:]*:/, "", scope) }
        else if ($i ~ /^signature:/) { signature = substr($i, 11); gsub(/ /, "", signature) }
        else if ($i ~ /^properties:/) properties = substr($i, 12)
        else if ($i ~ /^template:/) template = "yes"
      }
      name = $1; gsub(/ /, "", name)
      print kind "\t" (scope == "" ? name : scope "::" name) "\t" signature "\t" properties "\t" template
    }'
}

declared=$(mktemp)
exported=$(mktemp)
trap 'rm -f "$declared" "$exported"' EXIT

# The qualified names and signatures that need a symbol.
tags "$@" | awk -F'\t' '
  { rows[NR] = $0 }
  ($1 == "class" || $1 == "struct") && $5 == "yes" { templated[$2] = 1 }
  $1 == "function" { defined[$2 "\t" $3] = 1 }
  END {
    for (r = 1; r <= NR; r++) {
      split(rows[r], f, "\t")
      if (f[1] != "prototype" || f[5] == "yes") continue
      if (f[4] ~ /(^|,)(delete|default|pure)(,|$)/) continue
      if ((f[2] "\t" f[3]) in defined) continue
      scope = f[2]; sub(/::[^:]*$/, "", scope)
      if (scope in templated) continue
      print f[2] "\t" f[3]
    }
  }' | sort -u >"$declared"

# The exported functions as "qualified-name(parameters)".
nm -D --defined-only --demangle "$library" | awk '$2 ~ /^[TtWiu]$/ { $1 = ""; $2 = ""; line = $0; gsub(/ /, "", line); print line }' |
  sort -u >"$exported"

count=$(wc -l <"$declared")
if [ "$count" -eq 0 ]; then
  echo "$0: no declarations found in $*" >&2
  exit 1
fi

missing=0
while IFS= read -r name; do
  wanted=$(awk -F'\t' -v n="$name" '$1 == n' "$declared" | wc -l)
  have=$(awk -v n="$name(" 'index($0, n) == 1' "$exported" | wc -l)
  if [ "$have" -lt "$wanted" ]; then
    echo "not exported: $name (declared $wanted overload(s), $(basename "$library") exports $have)"
    awk -F'\t' -v n="$name" '$1 == n { print "    declared " $1 $2 }' "$declared"
    missing=$((missing + 1))
  fi
done < <(cut -f1 "$declared" | sort -u)

if [ "$missing" -ne 0 ]; then
  echo "$missing declared name(s) have no symbol in $library"
  exit 1
fi
echo "all $count functions declared in $# headers are exported by $(basename "$library")"
