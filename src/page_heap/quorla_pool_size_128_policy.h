// The pool_size_128 allocator triple: 120-byte records from the eight per-CPU pools, whose
// areas come from the per-CPU page supply. A release always goes through the owning
// entry's queue, whichever CPU the caller is on, and is applied at that entry's next
// allocation. Realloc refuses growth beyond the 120 payload bytes.
#pragma once

#include <array>

#include "page_heap/quorla_memory_allocator.h"
#include "page_heap/quorla_memory_pool_base.h"
#include "page_heap/quorla_memory_pool_part_cpu.h"
#include "page_heap/quorla_page_part_cpu_policy.h"

namespace quorla {

struct Malloc_pool_size_128 {
  void* operator()(unsigned long& size) const;  // size is not looked at
};

struct Free_pool_size_128 {
  void operator()(void* ptr, unsigned long size) const;
};

using Memory_allocator_pool_size_128 = Memory_allocator<Malloc_pool_size_128, Realloc_pool_size_128, Free_pool_size_128>;
using Memory_pool_size_128 = Memory_pool_part_cpu<Memory_allocator_pool_size_128_base, Memory_allocator_page_part_cpu>;

extern std::array<Memory_pool_size_128, 8> g_ar_memory_pool_size_128;

}  // namespace quorla
