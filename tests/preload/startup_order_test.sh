#!/usr/bin/env bash
# Start-up and shut-down order in a real process: a library that allocates in its
# initialiser (before the allocator starts) and in its finaliser (after it has shut down).
set -euo pipefail
source "$(dirname "$0")/lib.sh"
program="$QUORLA_BUILD_DIR/tests/preload_startup_order"
expected="early blocks from the start-up heap: yes
real block outside the start-up heap: yes
early blocks intact: yes
late malloc from the start-up heap
finaliser done"
actual=$(LD_PRELOAD="$QUORLA_LIBRARY" "$program") || fail "exited with $?: $actual"
[ "$actual" = "$expected" ] || fail "printed:
$actual"
pass "early blocks valid, real tiers used, the finaliser after shut-down works"
