#!/usr/bin/env bash
# The include order of src/: the tree as it stands keeps the rules of src/README.md, and the
# check does catch each kind of breach (shown on a copy of the tree with breaches put in),
# while a new file on the right floor passes without any edit of the rules.
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
check=$here/check_include_order.sh
failures=0
fail() { echo "FAIL: $1"; failures=$((failures + 1)); }

if ! out=$(bash "$check" "$root"); then
  echo "$out"
  fail "src/ breaks its own include order"
fi

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
cp -r "$root/src" "$tmp/src"
s=$tmp/src
# Breaches, one of each kind, with the line the check must print for it.
echo '#include "thread_heap/quorla_bitmap_piece.h"' >"$s/page_heap/upward.h"
echo '#include "startup/quorla_startup_order.h"' >"$s/os_memory/no_door.cc"
echo '#include "startup/quorla_before_init.h"' >"$s/topology/below_door.cc"
echo '#include "thread_heap/quorla_thread_registry.h"' >>"$s/page_heap/quorla_memory_allocator.h"
echo '// stray' >"$s/stray.cc"
rm "$s/topology/README.md"
expected=(
  "src/page_heap/upward.h includes thread_heap/quorla_bitmap_piece.h: thread_heap is above page_heap"
  "src/os_memory/no_door.cc includes startup/quorla_startup_order.h: startup is above os_memory"
  "src/topology/below_door.cc includes startup/quorla_before_init.h: startup is above topology"
  "src/page_heap/quorla_memory_allocator.h is a door open to os_memory but includes thread_heap/quorla_thread_registry.h"
  "src/stray.cc lies on no floor"
  "topology/ has no README.md"
)
# Files on their floors that reach down, or up through a door open to them: no breach.
printf '#include "os_memory/quorla_region.h"\n#include "startup/quorla_memory_settings.h"\n' >"$s/page_heap/new_floor_file.h"
printf '#include "page_heap/quorla_memory_allocator.h"\n#include "startup/quorla_before_init.h"\n' >"$s/os_memory/new_cache.cc"
printf '#include "thread_heap/quorla_thread_registry.h"\n' >"$s/diagnostics/new_statistics.cc"

out=$(bash "$check" "$tmp")
status=$?
[ "$status" -eq 1 ] || fail "the check exited $status on a tree with breaches"
for line in "${expected[@]}"; do
  grep -qF -- "$line" <<<"$out" || fail "not reported: $line"
done
grep -qF "${#expected[@]} breach(es)" <<<"$out" || fail "expected exactly ${#expected[@]} breaches, got: $out"
grep -qE 'new_floor_file|new_cache|new_statistics' <<<"$out" && fail "a file on its floor was reported: $out"

[ "$failures" -eq 0 ] || { echo "$out"; exit 1; }
echo "include order kept; each kind of breach is caught"
