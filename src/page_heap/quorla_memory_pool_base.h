// The root pool g_memory_pool_size_128_base: 128-byte blocks for the records that the
// per-CPU page supply and the per-CPU pools need before anything can be fed by them. Its
// piece records live in the before-init heap for the whole process and its areas come
// straight from mmap, so it ends the chain of layers. It never gives a piece back.
//
// 62 lock-free slots stand in front of it: 0..30 hold ready payloads (the malloc side),
// 31..61 take released ones (the free side). A take or a give is one compare-and-exchange
// in the common case; the pool behind the slots is guarded by mutex_ar_atomic.
// uint_ar_malloc_offset and uint_ar_free_count are plain hints: the slots decide.
#pragma once

#include <atomic>

#include "foundation/quorla_mutex.h"
#include "foundation/quorla_pause.h"
#include "page_heap/quorla_memory_allocator.h"
#include "page_heap/quorla_memory_pool.h"

namespace quorla {

template <class A, class B, unsigned int k_slot_count>
class Memory_pool_with_ar_atomic : public Memory_pool_without_lock<A, B> {
 public:
  using Pool = Memory_pool_without_lock<A, B>;
  static constexpr unsigned int k_malloc_slot_count = k_slot_count / 2;  // 31

  Memory_pool_with_ar_atomic() {
    this->set_up(128, 0xFFFFFFFF, nullptr, 0);
    this->append_vt_normal();
    for (auto& slot : ar_atomic_ptr) slot.store(0, std::memory_order_relaxed);
    uint_ar_malloc_offset = k_malloc_slot_count;
    uint_ar_free_count = 0;
    thread_pause_nanosecond();
    // mutex_ar_atomic is built by now (members before the body): fill the malloc side.
    mutex_ar_atomic.lock();
    prepare_ar_atomic();
    mutex_ar_atomic.unlock();
  }
  ~Memory_pool_with_ar_atomic() {
    mutex_ar_atomic.lock();
    uint_ar_malloc_offset = k_malloc_slot_count;
    uint_ar_free_count = 0;
    for (auto& slot : ar_atomic_ptr) {
      unsigned long payload = slot.exchange(0);
      if (payload != 0) Pool::free(reinterpret_cast<void*>(payload));
    }
    mutex_ar_atomic.unlock();
  }

  void* malloc_block();
  void free_block(void* ptr);

  // Fills the empty slots of the malloc side; the caller holds mutex_ar_atomic.
  void prepare_ar_atomic();
  // Empties the free side into the pool; the caller holds mutex_ar_atomic.
  void release_ar_atomic();

  std::atomic<unsigned long> ar_atomic_ptr[k_slot_count];
  unsigned int uint_ar_malloc_offset;
  unsigned int uint_ar_free_count;
  mutex mutex_ar_atomic;
};

using Memory_pool_size_128_base =
    Memory_pool_with_ar_atomic<Memory_allocator_before_init, Memory_allocator_os_mmap_page, 62u>;

extern Memory_pool_size_128_base g_memory_pool_size_128_base;

struct Malloc_pool_size_128_base {
  void* operator()(unsigned long&) const {
    QUORLA_LAYER(2);
    return g_memory_pool_size_128_base.malloc_block();
  }
};
struct Realloc_pool_size_128_base {
  // No caller grows a root-pool record; as with the per-CPU pools, growth beyond the
  // payload is refused.
  void* operator()(void* ptr, unsigned long old_size, unsigned long& new_size) const;
};
struct Free_pool_size_128_base {
  void operator()(void* ptr, unsigned long) const {
    QUORLA_LAYER(2);
    g_memory_pool_size_128_base.free_block(ptr);
  }
};
using Memory_allocator_pool_size_128_base =
    Memory_allocator<Malloc_pool_size_128_base, Realloc_pool_size_128_base, Free_pool_size_128_base>;

}  // namespace quorla
