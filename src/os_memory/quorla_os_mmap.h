// The mapping layer: the only code of the allocator that calls mmap and munmap. It maps
// anonymous memory in three shapes (page-rounded, 2 MB aligned ordinary pages, 2 MB huge
// pages), writes bytes 0 to 3 of the region tag into what it maps, optionally touches the
// pages at once, keeps the two mapping counters and runs the huge-page probe.
//
// Invariants: g_mutex_mmap guards every mmap and munmap and both g_locking_ counters; it is
// the last lock in the lock order and is held across the kernel call, the prefault loops,
// the copy of a realloc and a new-handler call. Readers of the counters outside the lock
// accept a stale value. Sizes passed by reference are rounded up and written back.
// Nothing here allocates: the failure lines are built on the stack.
//
// Callers: every layer that needs memory from the kernel, through these functions only.
#pragma once

#include <sys/types.h>

#include <cstddef>

#include "foundation/quorla_mutex.h"
#include "os_memory/quorla_region.h"

namespace quorla {

constexpr int k_int_map_hugetlb = 0x40000;  // MAP_HUGETLB, default huge-page size

extern mutex g_mutex_mmap;
extern size_t g_locking_sizet_os_malloc_all_size;              // bytes mapped and not unmapped
extern unsigned int g_locking_uint_os_malloc_hugepage2m_count;  // 2 MB huge pages mapped

extern bool g_bool_memory_use_hugepage2m;          // the probe succeeded: region requests try MAP_HUGETLB
extern bool g_bool_memory_use_hugepage;            // set with the previous one, never cleared, read by nothing
extern bool g_bool_memory_has_try_use_hugepage2m;  // the probe has been run or forced

// One zero byte stored per 4096 (or 2097152) bytes of [start, start + size).
void memory_prefault_page(void* ptr_void_start, unsigned long ulong_size);
void memory_prefault_hugepage2m(void* ptr_void_start, unsigned long ulong_size);

// Caller holds g_mutex_mmap. flag is 0 or MAP_HUGETLB. Null only when flag is not 0; with
// flag 0 a failure ends in std::terminate after at most 8 mmap calls.
void* os_malloc_mmap_with_flag(unsigned long ulong_size, int int_flag);
// Caller holds g_mutex_mmap and adjusts the huge-page count in the same critical section.
void os_free_unmap_without_lock(void* ptr_void_in, unsigned long ulong_size);

void* os_malloc_mmap_page(unsigned long& ulong_size);
void* os_realloc_mmap_page(void* ptr_void_old, unsigned long ulong_old_size, unsigned long& ulong_new_size);
void* os_malloc_mmap_page_align(unsigned long ulong_size, unsigned long ulong_alignment);
// The same with one mmap call and no message: null when the kernel refuses (the hardened
// build's large allocations), errno as it was.
void* os_try_malloc_mmap_page_align(unsigned long ulong_size, unsigned long ulong_alignment);
void* os_malloc_mmap_page_2m_align(unsigned int uint_numa_node);
void* os_malloc_hugepage2m(unsigned long& ulong_size);
void* os_malloc_hugepage2m_size_2m(unsigned int uint_numa_node);
void* os_malloc_map_align_2m_size_2m();
void os_free_map_size_2m(unsigned char* ptr_byte_region);

bool is_support_hugepage2m();
void memory_try_enable_hugepage2m();
void memory_force_enable_hugepage2m();

// Tests only: the kernel's choice of address cannot be forced, so a test may replace the
// raw mmap call made by os_malloc_mmap_with_flag. Null restores the real mmap. Returns the
// function in use before the call. Not for library code.
using Os_mmap_function = void* (*)(void* addr, size_t length, int prot, int flags, int fd, off_t offset);
Os_mmap_function set_os_mmap_function_for_test(Os_mmap_function function);

}  // namespace quorla
