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
# Only the allocation interface (its full list: surface_test.sh): no internal symbol, and no type
# information of a library compiled in, may reach the dynamic table.
allowed='^(malloc|free|cfree|realloc|calloc|reallocarray|memalign|aligned_alloc|posix_memalign|valloc|pvalloc|malloc_size|malloc_usable_size|malloc_trim|mallopt|malloc_stats|malloc_version|__libc_[a-z]+|__(malloc|free|realloc|memalign)_hook|quorla_[a-z0-9_]+|_Zn[wa].*|_Zd[la].*)$'
leaked=$(awk '$2 != "A" { print $3 }' <<<"$symbols" | grep -vE "$allowed" | head -3 || true)
[ -z "$leaked" ] || fail "symbols outside the allocation interface are exported: $leaked"
pass "nothing outside the allocation interface is exported"
