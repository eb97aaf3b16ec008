#!/usr/bin/env bash
# gzip and xz (single-threaded and with two threads) under the library: compress and
# decompress a generated file of some tens of MB; the round trip must give back the same
# bytes, and a stream made under the library must decompress without it, and the reverse.
set -euo pipefail
source "$(dirname "$0")/lib.sh"
make_scratch
for tool in gzip xz; do command -v $tool >/dev/null || fail "$tool is missing (packages gzip, xz-utils)"; done
megabytes=16
[ "${QUORLA_LONG_TESTS:-0}" = 1 ] && megabytes=200
# Three quarters compressible text, a quarter random bytes.
perl -e 'for my $i (1 .. $ARGV[0] * 1024 * 1024 * 3 / 4 / 40) { printf "line %010d value %015d x\n", $i, $i * 7919 }' \
  "$megabytes" >"$scratch/input"
head -c $((megabytes * 1024 * 1024 / 4)) /dev/urandom >>"$scratch/input"
size=$(stat -c %s "$scratch/input")
[ "$size" -gt $((megabytes * 1024 * 1024 * 9 / 10)) ] || fail "generated only $size bytes"

round_trip() { # name, compress command..., then --, decompress command...
  local name=$1; shift
  local pack=() unpack=()
  while [ "$1" != -- ]; do pack+=("$1"); shift; done; shift; unpack=("$@")
  preloaded "${pack[@]}" "$scratch/input" >"$scratch/packed" || fail "$name: compression failed"
  preloaded "${unpack[@]}" "$scratch/packed" >"$scratch/unpacked" || fail "$name: decompression failed"
  cmp "$scratch/input" "$scratch/unpacked" || fail "$name: round trip under the library changed the data"
  "${unpack[@]}" "$scratch/packed" | cmp - "$scratch/input" ||
    fail "$name: stream made under the library decompresses to other data without it"
  "${pack[@]}" "$scratch/input" >"$scratch/plain"
  preloaded "${unpack[@]}" "$scratch/plain" | cmp - "$scratch/input" ||
    fail "$name: stream made without the library decompresses to other data under it"
  pass "$name: $size bytes to $(stat -c %s "$scratch/packed") and back"
}
round_trip "gzip -6" gzip -6 -c -- gzip -d -c
round_trip "xz -1" xz -1 -c -- xz -d -c
round_trip "xz -T2" xz -T2 -2 --block-size=1MiB -c -- xz -T2 -d -c
# Each process compresses its own memory map; decompressed without the library, it names it.
# gzip warns (status 2) when the map changes while it reads it, as its own allocations may do.
{ LD_PRELOAD="$QUORLA_LIBRARY" gzip -qc /proc/self/maps 2>/dev/null || [ $? -eq 2 ]; } | gzip -dc | expect_mapped gzip
preloaded xz -T2 -c /proc/self/maps | xz -dc | expect_mapped "xz -T2"
