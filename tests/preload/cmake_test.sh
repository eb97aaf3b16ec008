#!/usr/bin/env bash
# cmake under the library configures a small project (probing the compiler as it does) and
# builds it; the program prints what it should, and cmake's own memory map, written at
# configure time, holds the library.
set -euo pipefail
source "$(dirname "$0")/lib.sh"
make_scratch
command -v cmake >/dev/null || fail "cmake is missing (package cmake)"
cd "$scratch"
mkdir project
cat >project/CMakeLists.txt <<'CMAKE'
cmake_minimum_required(VERSION 3.13)
project(words C)
file(READ /proc/self/maps cmake_map)
file(WRITE ${CMAKE_BINARY_DIR}/cmake.map "${cmake_map}")
add_executable(words words.c)
CMAKE
cat >project/words.c <<'C'
#include <stdio.h>
#include <string.h>
/* Counts the words of its arguments' text and the longest one. */
int main(int argc, char** argv) {
  int words = 0;
  size_t longest = 0;
  for (int i = 1; i < argc; ++i) {
    ++words;
    if (strlen(argv[i]) > longest) longest = strlen(argv[i]);
  }
  printf("%d words, longest %zu\n", words, longest);
  return 0;
}
C
preloaded cmake -S project -B build >configure.log || fail "cmake under the library could not configure: $(tail -5 configure.log)"
grep -q "Build files have been written" configure.log || fail "cmake did not finish configuring: $(tail -3 configure.log)"
expect_mapped cmake <build/cmake.map
preloaded cmake --build build >build.log || fail "cmake --build under the library failed: $(tail -5 build.log)"
actual=$(preloaded ./build/words alpha beta gamma-delta) || fail "the program cmake built failed"
[ "$actual" = "3 words, longest 11" ] || fail "the program printed '$actual'"
pass "cmake configured and built the project under the library: $actual"
