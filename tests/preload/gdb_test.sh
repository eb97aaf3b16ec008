#!/usr/bin/env bash
# gdb under the library, its output on a pseudo-terminal (as a user at a terminal sees it:
# styling and the terminal's width are looked up): it stops a small program in a function and
# prints the backtrace, and the library is in gdb's own memory map.
set -euo pipefail
source "$(dirname "$0")/lib.sh"
make_scratch
command -v gdb >/dev/null || fail "gdb is missing (package gdb)"
command -v script >/dev/null || fail "script is missing (package bsdutils)"
cd "$scratch"
cat >frames.c <<'C'
#include <stdio.h>
int add_one(int x) { return x + 1; }
int main(void) {
  printf("%d\n", add_one(41));
  return 0;
}
C
gcc -g -O0 -o frames frames.c || fail "gcc could not build the program"
# gdb runs the shell command with itself as the parent: $PPID is gdb.
status=0
script -qec "env LD_PRELOAD='$QUORLA_LIBRARY' gdb --batch -ex 'break add_one' -ex run -ex bt \
  -ex 'shell cat /proc/\$PPID/maps > gdb.map' ./frames" gdb.log >/dev/null </dev/null || status=$?
# The terminal's text: colours and carriage returns removed.
sed 's/\x1b\[[0-9;]*m//g; s/\r$//' gdb.log >gdb.txt
[ "$status" -eq 0 ] || fail "gdb under the library on a terminal exited with $status: $(tail -5 gdb.txt)"
grep -qE '^#0 +add_one \(x=41\) at frames\.c:2' gdb.txt || fail "no frame of add_one in gdb's output: $(tail -8 gdb.txt)"
grep -qE '^#1 +0x[0-9a-f]+ in main \(\) at frames\.c:4' gdb.txt || fail "no frame of main in gdb's output: $(tail -8 gdb.txt)"
expect_mapped gdb <gdb.map
pass "gdb on a terminal under the library stopped in add_one (x=41) called from main"
