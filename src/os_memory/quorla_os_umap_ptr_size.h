// Large allocations: a request above 2048000 bytes gets a mapping of its own, 2 MB aligned,
// and one table for the process remembers its size, page type and node. The user owns the
// block's first byte, so a region-aligned pointer is the only sign of such a block.
//
// The table stands on the per-CPU page supply, so a large request needs nothing from the
// layers above it. mutex_umap guards the table only: it is never held during a mapping
// call, an unmapping or a copy.
#pragma once

#include <functional>

#include "foundation/quorla_hash.h"
#include "foundation/quorla_mutex.h"
#include "foundation/quorla_unordered_map_allocator.h"
#include "page_heap/quorla_page_part_cpu_policy.h"

namespace quorla {

struct Struct_memory_os_umap_data {
  Struct_memory_os_umap_data() : ulong_size(0), uchar_page_type(0), ushort_numa_node(0) {}
  Struct_memory_os_umap_data(unsigned long size, unsigned char page_type, unsigned short numa_node)
      : ulong_size(size), uchar_page_type(page_type), ushort_numa_node(numa_node) {}
  unsigned long ulong_size;  // mapped bytes, a multiple of 2097152
  unsigned char uchar_page_type;
  unsigned short ushort_numa_node;
};

class Memory_os_umap_ptr_size {
 public:
  using Map = unordered_map_allocator<unsigned long, Struct_memory_os_umap_data, hash_crc32c<unsigned long>,
                                      std::equal_to<unsigned long>, Memory_allocator_page_part_cpu>;

  void* malloc_and_insert_into_umap(unsigned long size);
  void free_and_erase_from_umap(void* ptr);
  void* realloc_and_update_umap(void* ptr, unsigned long size);
  unsigned long get_malloc_size(void* ptr);

  // The caller holds mutex_umap.
  void insert_umap_without_lock(void* ptr, unsigned long size, unsigned char page_type, unsigned short numa_node);
  void erase_umap_without_lock(void* ptr);
  unsigned long get_size_without_lock(void* ptr);
  bool erase_from_umap_with_lock(void* ptr, unsigned long& size, unsigned char& page_type, unsigned short& numa_node);
  // One line on standard error for each block still recorded, in slot order; for tear-down,
  // when no other thread uses the table (quorla_os_memory_report.cc).
  void check_memory_leak();

  Map umap_ptr_size;
  mutex mutex_umap;
};

extern Memory_os_umap_ptr_size g_memory_os_umap_ptr_size;

}  // namespace quorla

extern "C" {
void* quorla_os_malloc(size_t size) noexcept;
void quorla_os_free(void* ptr) noexcept;
void* quorla_os_realloc(void* ptr, size_t size) noexcept;
size_t quorla_os_get_malloc_size(void* ptr) noexcept;
}
