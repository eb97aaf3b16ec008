#!/usr/bin/env bash
# Small programs and one single-threaded program that allocates far more than the start-up
# heap holds, every size below the large-allocation limit: the output under the library is
# the output without it.
set -euo pipefail
source "$(dirname "$0")/lib.sh"
LD_PRELOAD="$QUORLA_LIBRARY" /bin/true || fail "/bin/true"
pass "/bin/true"
expected=$(ls -la /usr/lib)
actual=$(LD_PRELOAD="$QUORLA_LIBRARY" ls -la /usr/lib) || fail "ls exited with $?"
[ "$actual" = "$expected" ] || fail "ls -la /usr/lib printed something else"
pass "ls -la /usr/lib lists the same entries"
program="$QUORLA_BUILD_DIR/tests/preload_single_thread_growth"
expected=$("$program" 20000)
actual=$(LD_PRELOAD="$QUORLA_LIBRARY" "$program" 20000) || fail "growth program exited with $?"
[ "$actual" = "$expected" ] || fail "growth program: '$actual', expected '$expected'"
pass "growth program: $actual"
