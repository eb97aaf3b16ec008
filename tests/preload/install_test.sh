#!/usr/bin/env bash
# cmake --install into a temporary prefix (never a system directory), then a C program
# built with pkg-config and a C++ program built with find_package against what was
# installed: both run on the installed library, found through its soname, and their
# allocations are the allocator's.
set -euo pipefail
source "$(dirname "$0")/lib.sh"
make_scratch
prefix="$scratch/prefix"
cmake --install "$QUORLA_BUILD_DIR" --prefix "$prefix" >/dev/null
here="$(cd "$(dirname "$0")" && pwd)"
library=$(ls "$prefix"/lib*/libquorlamalloc.so.1.07 2>/dev/null | head -1)
[ -n "$library" ] || fail "no libquorlamalloc.so.1.07 installed under $prefix"
libdir=$(dirname "$library")
[ -f "$prefix/include/quorlamalloc.h" ] || fail "the header is not installed"
soname=$(readelf -d "$library" | sed -n 's/.*Library soname: \[\(.*\)\]/\1/p')
[ "$soname" = libquorlamalloc.so.1 ] || fail "soname is '$soname'"
[ "$(readlink "$libdir/libquorlamalloc.so.1")" = libquorlamalloc.so.1.07 ] || fail "libquorlamalloc.so.1 does not name the library"
pass "library $library, soname $soname, header installed"

# Run a program with the installed directory as its only source of the library, and check
# that the process mapped that file.
runs_on_installed() {
  local out
  out=$(LD_LIBRARY_PATH="$libdir" "$1") || fail "$1 failed: $out"
  [ "$out" = ours ] || fail "$1 says: $out"
  local linked
  linked=$(LD_LIBRARY_PATH="$libdir" ldd "$1")
  grep -qF "libquorlamalloc.so.1 => $libdir/libquorlamalloc.so.1 " <<<"$linked" || fail "$1 is not linked to the installed library"
  pass "$(basename "$1") runs on the installed library and its allocations are the allocator's"
}

export PKG_CONFIG_PATH="$libdir/pkgconfig"
[ "$(pkg-config --modversion quorlamalloc)" = 1.07 ] || fail "pkg-config gives version $(pkg-config --modversion quorlamalloc)"
# shellcheck disable=SC2046
gcc -std=c99 -Wall -Werror -fno-builtin -o "$scratch/consumer_c" "$here/consumer/consumer.c" $(pkg-config --cflags --libs quorlamalloc)
runs_on_installed "$scratch/consumer_c"

cmake -S "$here/consumer" -B "$scratch/cxx" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$scratch/cxx" -j 1 >/dev/null
runs_on_installed "$scratch/cxx/consumer_cxx"
