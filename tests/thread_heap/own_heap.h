// A thread heap made by a test for itself, its record from the per-CPU page supply as the
// registry makes them, destroyed with the test.
#pragma once

#include <new>

#include "page_heap/quorla_page_part_cpu_policy.h"
#include "thread_heap/quorla_thread_local_data.h"

namespace quorla {

struct Own_heap {
  explicit Own_heap(unsigned long thread_id) {
    unsigned long size = sizeof(Memory_thread_local_data);
    memory = Malloc_page_part_cpu()(size);
    bytes = size;
    heap = new (memory) Memory_thread_local_data(thread_id);
  }
  ~Own_heap() {
    heap->~Memory_thread_local_data();
    Free_page_part_cpu()(memory, bytes);
  }
  Own_heap(const Own_heap&) = delete;
  Own_heap& operator=(const Own_heap&) = delete;

  void* memory;
  unsigned long bytes;
  Memory_thread_local_data* heap;
};

}  // namespace quorla
