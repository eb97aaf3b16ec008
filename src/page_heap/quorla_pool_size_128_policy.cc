#include "page_heap/quorla_pool_size_128_policy.h"

#include "page_heap/quorla_bitmap_page_part_cpu.h"

namespace quorla {

void* Malloc_pool_size_128::operator()(unsigned long&) const {
  QUORLA_LAYER(5);
  unsigned int index = memory_part_cpu_entry();
  Memory_pool_size_128& pool = g_ar_memory_pool_size_128[index];
  if (pool.vt_normal.size() == 0 && pool.vt_full.size() == 0) {
    pool.mutex_pool.lock();
    if (pool.vt_normal.size() == 0 && pool.vt_full.size() == 0) {
      pool.set_up(128, 1, &memory_malloc_page_part_cpu_get_page_type, index);
      store_fence();
      pool.append_vt_normal();
    }
    pool.mutex_pool.unlock();
  }
  pool.mutex_pool.lock();
  part_cpu_release::apply_waiting(pool);
  void* block = pool.pool_malloc();
  pool.mutex_pool.unlock();
  return block;
}

void Free_pool_size_128::operator()(void* ptr, unsigned long) const {
  QUORLA_LAYER(5);
  // The owner's entry, from the record's back pointer.
  Memory_pool_size_128& pool = static_cast<Memory_pool_size_128&>(*Memory_pool_size_128::pool_of_block(ptr));
  pool.push_foreign_release(ptr);
}

}  // namespace quorla
