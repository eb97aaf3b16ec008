#include "thread_heap/quorla_thread_local_data.h"

namespace quorla {

namespace {

// A thread heap's pool: its record pitch, a minimum of one piece, and the page-type probe
// that spares it the first-touch care on huge pages; then its first piece.
Memory_pool_thread_heap& set_up_thread_pool(Memory_pool_thread_heap& pool, unsigned int pitch) {
  pool.set_up(pitch, 1, &memory_malloc_page_part_cpu_get_page_type, 0);
  store_fence();
  pool.append_vt_normal();
  return pool;
}

}  // namespace

Memory_thread_local_data::Memory_thread_local_data(unsigned long thread_id)
    : pool_page_piece(),
      // The page group takes its first region at construction: a heap holds a region from
      // its first moment.
      page_group(thread_id, &set_up_thread_pool(pool_page_piece, 120)),
      pool_piece(),
      group_8byte(),
      ar_group() {
  set_up_thread_pool(pool_piece, 512);
  // Each group's first piece takes its backing block from page_group and at once returns it.
  group_8byte.init(k_group_8byte_block_type, k_group_8byte_block_byte << 9, &page_group, &pool_piece);
  for (unsigned int g = 0; g < 16; ++g) {
    ar_group[g].init(static_cast<unsigned char>(g), k_ar_group_block_byte[g] << 9, &page_group, &pool_piece);
  }
  store_fence();
}

Memory_thread_local_data::~Memory_thread_local_data() {
  page_group.release_wait_release_force();
  store_fence();
  // Members go in reverse order: ar_group[15] .. ar_group[0], group_8byte, the vectors of
  // pool_piece (vt_full first), page_group, the vectors of pool_page_piece.
}

void Memory_thread_local_data::trim() {
  page_group.trim();
  group_8byte.trim();
  for (Memory_bitmap_group& group : ar_group) group.trim();
  pool_piece.trim_vt_full();
  pool_page_piece.trim_vt_full();
}

}  // namespace quorla
