#!/usr/bin/env bash
# Small programs run on the start-up heap alone; one that outgrows it ends with the
# heap's own message.
set -euo pipefail
source "$(dirname "$0")/lib.sh"
LD_PRELOAD="$QUORLA_LIBRARY" /bin/true || fail "/bin/true"
pass "/bin/true"
expected=$(ls /)
actual=$(LD_PRELOAD="$QUORLA_LIBRARY" ls /) || fail "ls / exited with $?"
[ "$actual" = "$expected" ] || fail "ls / printed something else"
pass "ls / lists the same entries"
program="$QUORLA_BUILD_DIR/tests/preload_over_startup_heap"
out=$(LD_PRELOAD="$QUORLA_LIBRARY" "$program" 20) || fail "20 blocks of 4000 bytes"
[ "$out" = "allocated 20 blocks" ] || fail "unexpected output: $out"
pass "20 blocks of 4000 bytes fit"
set +e
err=$(LD_PRELOAD="$QUORLA_LIBRARY" "$program" 200 2>&1 >/dev/null)
status=$?
set -e
[ "$status" -ne 0 ] || fail "200 blocks of 4000 bytes should not fit"
[ "$err" = $'Error: Memory_before_init_data::add_use_byte() over size.\r' ] || fail "message was: $err"
pass "outgrowing the start-up heap aborts with its message (status $status)"
