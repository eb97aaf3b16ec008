// Memory_pool_part_cpu<A, B>: a pool shared by any thread of one CPU entry. mutex_pool
// guards every change of the pool; a release always goes through the entry's queue under
// mutex_wait_release (never mutex_pool), so a release never waits for allocations, and is
// applied at the entry's next allocation.
//
// Realloc_pool_size_128 keeps records within their 120 payload bytes.
#pragma once

#include "foundation/quorla_mutex.h"
#include "os_memory/quorla_wait_release_queue_allocator.h"
#include "page_heap/quorla_memory_pool.h"
#include "page_heap/quorla_part_cpu_release.h"

namespace quorla {

template <class A, class B>
class Memory_pool_part_cpu : public Memory_pool_without_lock<A, B> {
 public:
  using Pool = Memory_pool_without_lock<A, B>;

  // A release from any thread: queued, counted, applied by the next allocation here.
  void push_foreign_release(void* ptr) { part_cpu_release::push(*this, ptr); }

  // Applies every queued release; the caller holds mutex_pool.
  void release_wait_release() {
    part_cpu_release::drain(*this, [](void* ptr) { Pool::free(ptr); });
  }

  unsigned int uint_wait_release_count;
  mutex mutex_pool;
  mutex mutex_wait_release;
  Memory_wait_release_queue_allocator<B, 64u> queue_wait_release;
};

struct Realloc_pool_size_128 {
  // A record already has 120 payload bytes; growth beyond that is a fatal misuse.
  void* operator()(void* ptr, unsigned long old_size, unsigned long& new_size) const;
};

}  // namespace quorla
