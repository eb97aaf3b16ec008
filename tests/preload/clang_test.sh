#!/usr/bin/env bash
# clang under the library compiles a real C file (its libraries allocate about 720 KB in their
# constructors, more than the before-init heap holds): the object file is byte for byte the
# one clang makes without the library, and the program it links prints the right totals.
set -euo pipefail
source "$(dirname "$0")/lib.sh"
make_scratch
command -v clang >/dev/null || fail "clang is missing (package clang)"
cd "$scratch"
cat >primes.c <<'C'
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* Counts the primes below n with a sieve and sums them. */
int main(int argc, char** argv) {
  long n = argc > 1 ? atol(argv[1]) : 100000;
  char* composite = calloc(n, 1);
  long count = 0, sum = 0;
  for (long i = 2; i < n; ++i) {
    if (composite[i]) continue;
    ++count;
    sum += i;
    for (long j = i * i; j < n; j += i) composite[j] = 1;
  }
  printf("%ld primes below %ld, sum %ld\n", count, n, sum);
  free(composite);
  return 0;
}
C
clang -O2 -x c -c -o plain.o - <primes.c || fail "clang without the library failed"
preloaded_with_held_input clang.map primes.c clang -O2 -x c -c -o under.o - 2>clang.err ||
  fail "clang under the library failed: $(tail -5 clang.err)"
expect_mapped clang <clang.map
cmp plain.o under.o || fail "the object file made under the library differs from the one made without it"
pass "clang under the library made the same object file"
preloaded clang -o primes under.o || fail "linking with clang under the library failed"
expected=$(awk 'BEGIN { n = 100000; for (i = 2; i < n; i++) if (!c[i]) { k++; s += i; for (j = i * i; j < n; j += i) c[j] = 1 }
  printf "%d primes below %d, sum %d\n", k, n, s }')
actual=$(preloaded ./primes 100000) || fail "the program failed under the library"
[ "$actual" = "$expected" ] || fail "the program printed '$actual', expected '$expected'"
pass "the program clang built prints $actual"
