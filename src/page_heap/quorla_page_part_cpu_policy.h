// The page_part_cpu allocator triple: whole pages for the library's own records (vectors,
// hash tables, queues, thread heaps), served by the eight per-CPU page supplies. Declared
// apart from the supplies so that the containers that name the triple need not see them.
#pragma once

#include "page_heap/quorla_memory_allocator.h"

namespace quorla {

struct Malloc_page_part_cpu {
  // Rounds size up to a multiple of 4096 and writes it back. Never null.
  void* operator()(unsigned long& size) const;
};

struct Realloc_page_part_cpu {
  void* operator()(void* ptr, unsigned long old_size, unsigned long& new_size) const;
};

struct Free_page_part_cpu {
  void operator()(void* ptr, unsigned long size) const;
};

using Memory_allocator_page_part_cpu = Memory_allocator<Malloc_page_part_cpu, Realloc_page_part_cpu, Free_page_part_cpu>;

// Non-zero when ptr lies in a region on a 2 MB huge page (such memory is resident at once).
unsigned char memory_malloc_page_part_cpu_get_page_type(void* ptr);

}  // namespace quorla
