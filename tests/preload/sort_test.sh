#!/usr/bin/env bash
# sort under the library on a generated file of a million lines: text, numeric, keyed,
# unique and two-thread runs with 50 MB and 8 MB buffers (the small one merges temporary files). The
# output must equal sort's output without the library.
set -euo pipefail
source "$(dirname "$0")/lib.sh"
make_scratch
lines=1000000
[ "${QUORLA_LONG_TESTS:-0}" = 1 ] && lines=10000000
awk -v n="$lines" 'BEGIN { srand(7); for (i = 1; i <= n; i++)
  printf "%d %s-%x %.3f\n", int(rand() * 1000000), substr("alphabetagammadeltaepsilon", 1 + i % 20, 1 + i % 7), i * 2654435761 % 4294967296, rand() * 1000 }' \
  >"$scratch/input"
[ "$(wc -l <"$scratch/input")" -eq "$lines" ] || fail "generated the wrong number of lines"
export LC_ALL=C TMPDIR="$scratch"
check() { # name, sort arguments...
  local name=$1; shift
  sort "$@" "$scratch/input" >"$scratch/expected"
  preloaded sort "$@" "$scratch/input" >"$scratch/actual" || fail "sort $name under the library failed"
  cmp -s "$scratch/expected" "$scratch/actual" || fail "sort $name: output differs from the run without the library"
  [ -s "$scratch/actual" ] || fail "sort $name printed nothing"
  pass "sort $name: $(wc -l <"$scratch/actual") lines as without the library"
}
check "text" 
check "numeric, two threads, 50M buffer" -n --parallel=2 -S 50M
check "by second key then reverse numeric, 8M buffer (merges temporary files)" -k2,2 -k1,1nr --parallel=2 -S 8M
check "unique on first field" -u -t' ' -k1,1n
preloaded sort -c -n <(sort -n "$scratch/input") || fail "sort -c under the library rejects sorted input"
preloaded sort /proc/self/maps | expect_mapped sort
