#!/usr/bin/env bash
# LLVM's opt under the library optimises a module read from its standard input: the text it
# writes is the text it writes without the library, and the optimisation happened (the loop
# that sums 1..100 folds to the constant 5050).
set -euo pipefail
source "$(dirname "$0")/lib.sh"
make_scratch
command -v opt >/dev/null || fail "opt is missing (package llvm)"
command -v clang >/dev/null || fail "clang is missing (package clang)"
cd "$scratch"
cat >sum.c <<'C'
int sum_to_hundred(void) {
  int sum = 0;
  for (int i = 1; i <= 100; ++i) sum += i;
  return sum;
}
C
clang -O0 -Xclang -disable-O0-optnone -S -emit-llvm -o sum.ll sum.c || fail "clang could not make the module"
passes='sroa,instcombine,loop-rotate,indvars,simplifycfg'
opt -S -passes="$passes" -o plain.ll - <sum.ll || fail "opt without the library failed"
preloaded_with_held_input opt.map sum.ll opt -S -passes="$passes" -o under.ll - 2>opt.err ||
  fail "opt under the library failed: $(tail -5 opt.err)"
expect_mapped opt <opt.map
cmp plain.ll under.ll || fail "opt wrote a different module under the library"
grep -q 'ret i32 5050' under.ll || fail "opt under the library did not fold the loop: $(grep ret under.ll)"
pass "opt under the library folded the loop to 'ret i32 5050', as without it"
