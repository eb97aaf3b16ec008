#!/usr/bin/env bash
# Start-up and shut-down order in a real process: a library that allocates in its
# initialiser (marked to run first, so before the allocator starts) and resizes, frees and
# allocates in its finaliser (after the allocator has shut down).
set -euo pipefail
source "$(dirname "$0")/lib.sh"
program="$QUORLA_BUILD_DIR/tests/preload_startup_order"
expected="early blocks from the start-up heap: yes
real block outside the start-up heap: yes
early blocks intact: yes
late realloc keeps the contents
late malloc from the start-up heap
finaliser done"
actual=$(LD_PRELOAD="$QUORLA_LIBRARY" "$program") || fail "exited with $?: $actual"
[ "$actual" = "$expected" ] || fail "printed:
$actual"
pass "early blocks valid, real tiers used, the finaliser after shut-down resizes and allocates"
