#include "page_heap/quorla_memory_pool_base.h"

#include "foundation/quorla_stack_message.h"
#include "page_heap/quorla_memory_pool_part_cpu.h"

namespace quorla {

namespace {

// The misuse line of both 128-byte realloc policies.
void* refuse_growth(void* ptr, unsigned long old_size, unsigned long new_size) {
  if (new_size <= 120) return ptr;
  Stack_message<1024>()
      .text("Error: Realloc_pool_size_128::operator() Not support realloc. ptr_void_in=")
      .hex_lower(ptr)
      .text(", old_size=")
      .dec(old_size)
      .text(", new_size=")
      .dec(new_size)
      .end_line()
      .write_and_abort();
}

// A slot's compare-and-exchange with the retry rhythm of the library: four pauses, then
// the same slot again while it still holds what is wanted.
QUORLA_INLINE bool claim(std::atomic<unsigned long>& slot, unsigned long& expected, unsigned long desired) {
  return slot.compare_exchange_strong(expected, desired, std::memory_order_seq_cst, std::memory_order_seq_cst);
}

constexpr unsigned int k_spins_before_lock = 4096;

}  // namespace

void* Realloc_pool_size_128::operator()(void* ptr, unsigned long old_size, unsigned long& new_size) const {
  QUORLA_LAYER(5);
  return refuse_growth(ptr, old_size, new_size);
}

void* Realloc_pool_size_128_base::operator()(void* ptr, unsigned long old_size, unsigned long& new_size) const {
  QUORLA_LAYER(2);
  return refuse_growth(ptr, old_size, new_size);
}

template <class A, class B, unsigned int k_slot_count>
void* Memory_pool_with_ar_atomic<A, B, k_slot_count>::malloc_block() {
  unsigned int index = uint_ar_malloc_offset;
  while (index < k_malloc_slot_count) {
    store_fence();
    unsigned long payload = ar_atomic_ptr[index].load(std::memory_order_relaxed);
    if (payload == 0) {
      ++index;
      continue;
    }
    if (claim(ar_atomic_ptr[index], payload, 0)) {
      store_fence();
      uint_ar_malloc_offset = index + 1;
      return reinterpret_cast<void*>(payload);
    }
    cpu_pause_four();
  }
  mutex_ar_atomic.lock();
  release_ar_atomic();
  if (uint_ar_malloc_offset != 0) prepare_ar_atomic();
  void* block = this->pool_malloc();
  mutex_ar_atomic.unlock();
  return block;
}

template <class A, class B, unsigned int k_slot_count>
void Memory_pool_with_ar_atomic<A, B, k_slot_count>::free_block(void* ptr) {
  unsigned int count = uint_ar_free_count;
  unsigned int index = count + k_malloc_slot_count;
  if (index > k_slot_count - 1) {
    mutex_ar_atomic.lock();
    release_ar_atomic();
    Pool::free(ptr);
    mutex_ar_atomic.unlock();
    return;
  }
  uint_ar_free_count = count + 1;
  store_fence();
  unsigned int spins = 0;
  for (;;) {
    unsigned long expected = ar_atomic_ptr[index].load(std::memory_order_relaxed);
    if (expected != 0) {
      // Another thread raced to the same slot. Waiting for it to empty could wait forever
      // when nothing else runs, so after a while the pool behind the lock takes the block.
      if (++spins == k_spins_before_lock) {
        mutex_ar_atomic.lock();
        Pool::free(ptr);
        mutex_ar_atomic.unlock();
        return;
      }
      uint_ar_free_count = count + 1;
      cpu_pause();
      continue;
    }
    if (claim(ar_atomic_ptr[index], expected, reinterpret_cast<unsigned long>(ptr))) break;
    cpu_pause_four();
  }
  store_fence();
}

template <class A, class B, unsigned int k_slot_count>
void Memory_pool_with_ar_atomic<A, B, k_slot_count>::prepare_ar_atomic() {
  uint_ar_malloc_offset = 0;
  for (unsigned int index = 0; index < k_malloc_slot_count; ++index) {
    if (ar_atomic_ptr[index].load(std::memory_order_relaxed) != 0) continue;
    void* block = this->pool_malloc();
    unsigned long expected = 0;
    if (!claim(ar_atomic_ptr[index], expected, reinterpret_cast<unsigned long>(block))) Pool::free(block);
  }
}

template <class A, class B, unsigned int k_slot_count>
void Memory_pool_with_ar_atomic<A, B, k_slot_count>::release_ar_atomic() {
  unsigned int count = uint_ar_free_count;
  if (count == 0) return;
  uint_ar_free_count = 0;
  unsigned int end = count + k_malloc_slot_count < k_slot_count ? count + k_malloc_slot_count : k_slot_count;
  for (unsigned int index = k_malloc_slot_count; index < end; ++index) {
    unsigned long payload = ar_atomic_ptr[index].load(std::memory_order_relaxed);
    while (payload != 0 && !claim(ar_atomic_ptr[index], payload, 0)) cpu_pause_four();
    if (payload == 0) break;
    Pool::free(reinterpret_cast<void*>(payload));
  }
}

template class Memory_pool_with_ar_atomic<Memory_allocator_before_init, Memory_allocator_os_mmap_page, 62u>;

}  // namespace quorla
