#!/usr/bin/env bash
# The standard names and their quorla_ twins are exported, each pair at one address.
set -euo pipefail
source "$(dirname "$0")/lib.sh"
symbols=$(nm -D --defined-only "$QUORLA_LIBRARY")
address_of() { awk -v name="$1" '$3 == name { print $1 }' <<<"$symbols"; }
for pair in malloc:quorla_malloc free:quorla_free; do
  standard=${pair%%:*}; twin=${pair##*:}
  a=$(address_of "$standard"); b=$(address_of "$twin")
  [ -n "$a" ] || fail "$standard is not exported"
  [ -n "$b" ] || fail "$twin is not exported"
  [ "$a" = "$b" ] || fail "$standard at $a but $twin at $b"
  grep -qE "^$a T $standard\$" <<<"$symbols" || fail "$standard is not a global text symbol"
  pass "$standard and $twin at $a"
done
hidden=$(awk '$3 ~ /^_ZN6quorla/' <<<"$symbols" | head -3)
[ -z "$hidden" ] || fail "internal symbols leak into the dynamic table: $hidden"
pass "no internal symbol is exported"
