#!/usr/bin/env bash
# The before-init phase pushed to its limit: a program whose library allocates about 2 MB in
# its constructor, starting a thread and forking a child on the way, runs under the library,
# preloaded and linked. Without the library's start-up coming first it would stop with
# "Memory_before_init_data::add_use_byte() over size".
set -euo pipefail
source "$(dirname "$0")/lib.sh"
make_scratch
expected="constructor's thread and child: ok
constructor's blocks in the start-up heap: 0
constructor's blocks intact: yes
blocks after the frees: 4000"
# Without the library the program does the same work (the C library's malloc serves its small
# blocks from the break area, so that line is left out of the comparison).
plain=$("$QUORLA_BUILD_DIR/tests/preload_heavy_constructor") || fail "the program fails without the library"
[ "$(grep -v 'start-up heap' <<<"$plain")" = "$(grep -v 'start-up heap' <<<"$expected")" ] ||
  fail "without the library the program printed:
$plain"
actual=$(preloaded "$QUORLA_BUILD_DIR/tests/preload_heavy_constructor" "$scratch/preloaded.map") ||
  fail "preloaded: exited with $?"
[ "$actual" = "$expected" ] || fail "preloaded, the program printed:
$actual"
expect_mapped "the preloaded program" <"$scratch/preloaded.map"
pass "preloaded: the constructor's 2 MB, its thread and its child were served by the real tiers"
# The linked form is built against the default library.
library_path="$(readlink -f "$QUORLA_BUILD_DIR/libquorlamalloc.so")"
actual=$("$QUORLA_BUILD_DIR/tests/preload_heavy_constructor_linked" "$scratch/linked.map") ||
  fail "linked: exited with $?"
[ "$actual" = "$expected" ] || fail "linked, the program printed:
$actual"
expect_mapped "the linked program" <"$scratch/linked.map"
pass "linked: the same"
