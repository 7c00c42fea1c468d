#!/usr/bin/env bash
# Installs a built tree with prefix /usr into a scratch DESTDIR, as a Debian
# package build does, then checks what an application gets from it:
#   - exactly the public headers, and every function they declare exported;
#   - a pkg-config file whose paths resolve and that forces no -std;
#   - tarn-inspect and its manual page;
#   - every program in examples/ built three ways (CMake package, pkg-config,
#     the compiler alone with -std=c++17) and run;
#   - when the tree built libtarn-memcached.so: its header, exports,
#     tarn-memcached.pc and CMake component, with a small program built
#     through each and run.
#
# usage: tests/consumer/check.sh [BUILD_DIR]   (default build/default, built)
# TARN_PREFIX=/opt/tarn installs under another prefix instead of /usr.
set -euo pipefail
source_dir=$(cd "$(dirname "$0")/../.." && pwd)
build=$(cd "${1:-$source_dir/build/default}" && pwd)
scratch=$(mktemp -d "${TMPDIR:-/tmp}/tarn-consumer.XXXXXX")
trap 'rm -rf "$scratch"' EXIT
dest=$scratch/root
prefix=${TARN_PREFIX:-/usr}
failures=0

step() { printf '== %s\n' "$*"; }
fail() {
  printf 'FAIL: %s\n' "$*" >&2
  failures=$((failures + 1))
}

step "install $build with prefix $prefix into a DESTDIR"
memcached=no
if [ -f "$build/memcached-public-headers.txt" ]; then memcached=yes; fi
targets=(tarn tarn-inspect)
[ "$memcached" = yes ] && targets+=(tarn-memcached)
cmake --build "$build" --target "${targets[@]}" >/dev/null
DESTDIR=$dest cmake --install "$build" --prefix "$prefix" >/dev/null
pc=$(find "$dest$prefix" -name tarn.pc)
libdir=$(dirname "$(dirname "$pc")")
[ -n "$pc" ] || { echo "FAIL: no tarn.pc installed" >&2; exit 1; }

step "headers: exactly the public ones"
header_lists=("$build/public-headers.txt")
[ "$memcached" = yes ] && header_lists+=("$build/memcached-public-headers.txt")
expected=$(cat "${header_lists[@]}" | sed "s|^$source_dir/include/||" | sort)
installed=$(cd "$dest$prefix/include" && find . -type f | sed 's|^\./||' | sort)
if [ "$expected" != "$installed" ]; then
  fail "installed headers differ from the public set"
  diff <(echo "$expected") <(echo "$installed") >&2 || true
fi
tarn_headers=$(sed "s|^$source_dir/include/|$dest$prefix/include/|" "$build/public-headers.txt")
# shellcheck disable=SC2086  # one path a word
"$source_dir/tests/check_exports.sh" "$libdir/libtarn.so" $tarn_headers ||
  fail "a declared function is not exported"

step "pkg-config"
export PKG_CONFIG_SYSROOT_DIR=$dest PKG_CONFIG_LIBDIR=$libdir/pkgconfig
cflags=$(pkg-config --cflags tarn)
libs=$(pkg-config --libs tarn)
echo "cflags: $cflags"
echo "libs:   $libs"
case " $cflags " in *" -std="*) fail "pkg-config Cflags force a language standard" ;; esac
include=${cflags#-I}
include=${include%% *}
[ -f "$include/tarn/tarn.h" ] || fail "pkg-config include path has no tarn/tarn.h"
grep -qx "prefix=$prefix" "$pc" || fail "tarn.pc does not name prefix $prefix"

step "tarn-inspect and its manual page"
"$dest$prefix/bin/tarn-inspect" --help | head -1
[ -f "$dest$prefix/share/man/man1/tarn-inspect.1" ] || fail "no tarn-inspect.1"

examples=("$source_dir"/examples/*.cpp)
run() {  # run PROGRAM: runs it against the installed library, in a scratch folder
  mkdir -p "$scratch/cwd"
  local status=0
  (cd "$scratch/cwd" && TMPDIR=$scratch/cwd LD_LIBRARY_PATH=$libdir "$1") >"$1.out" 2>&1 || status=$?
  if [ "$status" -eq 0 ]; then
    echo "ran $(basename "$1"): ok"
  else
    cat "$1.out" >&2
    fail "$(basename "$1") exited with status $status"
  fi
}

step "CMake: find_package(Tarn) from CMAKE_PREFIX_PATH=\$DESTDIR$prefix"
if cmake -S "$source_dir/tests/consumer" -B "$scratch/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$dest$prefix" \
  -DEXAMPLES_DIR="$source_dir/examples" >"$scratch/cmake.log" 2>&1 &&
  cmake --build "$scratch/cmake" >>"$scratch/cmake.log" 2>&1; then
  for source in "${examples[@]}"; do run "$scratch/cmake/$(basename "${source%.cpp}")"; done
else
  cat "$scratch/cmake.log" >&2
  fail "the CMake consumer did not build"
fi

step "pkg-config: g++ \$(pkg-config --cflags --libs tarn)"
for source in "${examples[@]}"; do
  out=$scratch/pc-$(basename "${source%.cpp}")
  # shellcheck disable=SC2086  # the flags are words
  if g++ -std=c++17 -Wall -Wextra $cflags "$source" -o "$out" $libs; then run "$out"; else
    fail "$source did not build with pkg-config"
  fi
done

step "plain compiler: g++ -std=c++17 -I -L -ltarn"
for source in "${examples[@]}"; do
  out=$scratch/plain-$(basename "${source%.cpp}")
  if g++ -std=c++17 -Wall -Wextra -I"$dest$prefix/include" "$source" -o "$out" -L"$libdir" -ltarn; then
    run "$out"
  else
    fail "$source did not build with the compiler alone"
  fi
done

if [ "$memcached" = yes ]; then
  step "libtarn-memcached: exports, pkg-config tarn-memcached, find_package(Tarn COMPONENTS memcached)"
  "$source_dir/tests/check_exports.sh" "$libdir/libtarn-memcached.so" "$dest$prefix/include/tarn/MemcachedTier.h" ||
    fail "a function MemcachedTier.h declares is not exported"
  # A tier on a port nobody serves: built, asked, answered, destroyed.
  cat >"$scratch/tier.cpp" <<'PROGRAM'
#include <tarn/MemcachedTier.h>

#include <cstdio>
#include <stdexcept>

struct Receiver : Tarn::TierLookupReceiver {
  int calls = 0;
  void tierLookupDone(Tarn::TierLookupStatus, std::string_view) noexcept override { ++calls; }
};

int main() {
  Tarn::MemcachedTierConfig config;
  try {
    Tarn::MakeMemcachedTier(config);
    return 1;
  } catch (const std::invalid_argument&) {
  }
  config.servers = {"127.0.0.1:1"};
  Receiver receiver;
  {
    auto tier = Tarn::MakeMemcachedTier(config);
    tier->lookup("key", std::chrono::steady_clock::now() + std::chrono::seconds(1), receiver);
  }
  std::printf("answered %d time(s)\n", receiver.calls);
  return receiver.calls == 1 ? 0 : 1;
}
PROGRAM
  mcflags=$(pkg-config --cflags --libs tarn-memcached)
  echo "tarn-memcached: $mcflags"
  # shellcheck disable=SC2086
  if g++ -std=c++17 -Wall -Wextra "$scratch/tier.cpp" -o "$scratch/pc-tier" $mcflags; then
    run "$scratch/pc-tier"
  else
    fail "the tier program did not build with pkg-config"
  fi
  mkdir -p "$scratch/tier-cmake"
  cat >"$scratch/tier-cmake/CMakeLists.txt" <<CMAKE
cmake_minimum_required(VERSION 3.25)
project(TierConsumer CXX)
find_package(Tarn REQUIRED COMPONENTS memcached)
add_executable(tier $scratch/tier.cpp)
target_link_libraries(tier PRIVATE Tarn::tarn-memcached)
CMAKE
  if cmake -S "$scratch/tier-cmake" -B "$scratch/tier-cmake/build" -G Ninja -DCMAKE_PREFIX_PATH="$dest$prefix" \
    >"$scratch/tier-cmake.log" 2>&1 && cmake --build "$scratch/tier-cmake/build" >>"$scratch/tier-cmake.log" 2>&1; then
    run "$scratch/tier-cmake/build/tier"
  else
    cat "$scratch/tier-cmake.log" >&2
    fail "the tier program did not build with find_package(Tarn COMPONENTS memcached)"
  fi
fi

if [ "$failures" -ne 0 ]; then
  echo "$failures check(s) failed"
  exit 1
fi
echo "consumer checks passed"
