#!/usr/bin/env bash
# The library's dynamic symbol table against the exported interface, name by name: every
# name of the tables is defined, nothing else is, the names that are one function share one
# address, and the hook words are pointer-sized data.
set -euo pipefail
source "$(dirname "$0")/lib.sh"
symbols=$(nm -D --defined-only -S "$QUORLA_LIBRARY" | awk 'NF == 4 { print $4, $3, $1, $2 } NF == 3 { print $3, $2, $1, "" }')
# "name type address size", one a line.

# The table of standard names and library names; names on one line are one function.
same_function=(
  "malloc quorla_malloc" "free quorla_free" "cfree quorla_cfree" "realloc quorla_realloc"
  "reallocarray quorla_realloc_array" "calloc quorla_calloc"
  "memalign aligned_alloc quorla_aligned_alloc" "posix_memalign quorla_posix_memalign"
  "valloc quorla_valloc" "pvalloc quorla_pvalloc" "malloc_size quorla_get_malloc_size"
  "malloc_usable_size quorla_malloc_usable_size" "malloc_trim quorla_malloc_trim"
  "mallopt quorla_mallopt" "malloc_stats quorla_malloc_stats" "malloc_version quorla_malloc_version"
  # glibc's internal names (our choice beyond the table): the same functions again.
  "__libc_malloc quorla_malloc" "__libc_free quorla_free" "__libc_realloc quorla_realloc"
  "__libc_calloc quorla_calloc" "__libc_memalign quorla_aligned_alloc"
  "__libc_valloc quorla_valloc" "__libc_pvalloc quorla_pvalloc"
  # The operators under their library names.
  "_Znwm quorla_new" "_Znam quorla_new_array" "_ZnwmRKSt9nothrow_t quorla_new_nothrow"
  "_ZnamRKSt9nothrow_t quorla_new_array_nothrow" "_ZnwmSt11align_val_t quorla_new_align"
  "_ZnamSt11align_val_t quorla_new_array_align"
  "_ZnwmSt11align_val_tRKSt9nothrow_t quorla_new_align_nothrow"
  "_ZnamSt11align_val_tRKSt9nothrow_t quorla_new_array_align_nothrow"
  "_ZdlPv quorla_delete" "_ZdaPv quorla_delete_array" "_ZdlPvm quorla_delete_with_size"
  "_ZdaPvm quorla_delete_array_with_size" "_ZdlPvRKSt9nothrow_t quorla_delete_nothrow"
  "_ZdaPvRKSt9nothrow_t quorla_delete_array_nothrow" "_ZdlPvSt11align_val_t quorla_delete_align"
  "_ZdaPvSt11align_val_t quorla_delete_array_align"
  "_ZdlPvSt11align_val_tRKSt9nothrow_t quorla_delete_align_nothrow"
  "_ZdaPvSt11align_val_tRKSt9nothrow_t quorla_delete_array_align_nothrow"
  "_ZdlPvmSt11align_val_t quorla_delete_with_size_align"
  "_ZdaPvmSt11align_val_t quorla_delete_array_with_size_align"
)
# Library names with no standard twin.
library_only=(
  quorla_memalign quorla_malloc_align quorla_free_align quorla_malloc_small_align
  quorla_malloc_page_align quorla_malloc_4k_to_2m_align quorla_os_malloc quorla_os_free
  quorla_os_realloc quorla_os_get_malloc_size quorla_free_fail quorla_aligned_alloc_fail
  quorla_memory_notify_at_thread_exit quorla_malloc_with_caller quorla_free_with_caller
  quorla_realloc_with_caller quorla_memalign_with_caller
  # The drain's release functions, declared in the public header before this interface
  # was complete: kept so that no program that links them breaks.
  quorla_free_local_thread quorla_free_local_thread_use_ref
)
hook_words=(__malloc_hook __free_hook __realloc_hook __memalign_hook)

field() { awk -v name="$1" -v n="$2" '$1 == name { print $n }' <<<"$symbols"; }

expected=()
for line in "${same_function[@]}"; do
  read -ra names <<<"$line"
  first=""
  for name in "${names[@]}"; do
    expected+=("$name")
    type=$(field "$name" 2)
    [ -n "$type" ] || fail "$name is not exported"
    [ "$type" = T ] || fail "$name is a symbol of type $type, not a global function"
    at=$(field "$name" 3)
    [ -z "$first" ] && first=$at
    [ "$at" = "$first" ] || fail "${names[0]} at $first but $name at $at"
  done
done
pass "${#same_function[@]} functions under all their names, each at one address"
for name in "${library_only[@]}"; do
  expected+=("$name")
  [ "$(field "$name" 2)" = T ] || fail "$name is not exported as a function"
done
pass "${#library_only[@]} library names without a standard twin"
for name in "${hook_words[@]}"; do
  expected+=("$name")
  type=$(field "$name" 2)
  [[ "$type" =~ ^[DB]$ ]] || fail "$name is not an exported data object (type '$type')"
  [ "$((16#$(field "$name" 4)))" -eq 8 ] || fail "$name is not 8 bytes"
done
pass "the four hook words are 8-byte data objects"

# Nothing beyond the interface: no internal symbol, no type information of a library
# compiled in.
extra=$(awk '$2 != "A" { print $1 }' <<<"$symbols" | grep -vxF -f <(printf '%s\n' "${expected[@]}") | head -5 || true)
[ -z "$extra" ] || fail "exported beyond the interface: $extra"
pass "nothing beyond the interface is exported (${#expected[@]} names)"
