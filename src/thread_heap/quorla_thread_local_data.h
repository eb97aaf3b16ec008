// Memory_thread_local_data: everything one thread allocates from -- two metadata pools, the
// page group and the 17 small-block groups. It is bound to a thread only through
// page_group.ulong_thread_id and outlives its thread while blocks in it are live.
//
// The record is one block of the per-CPU page supply, not of any heap. Only the owner
// allocates and frees here; other threads reach it only through the page group's queue.
#pragma once

#include "page_heap/quorla_bitmap_page_group.h"
#include "thread_heap/quorla_bitmap_group.h"

namespace quorla {

class Memory_thread_local_data {
 public:
  explicit Memory_thread_local_data(unsigned long thread_id);
  ~Memory_thread_local_data();
  Memory_thread_local_data(const Memory_thread_local_data&) = delete;
  Memory_thread_local_data& operator=(const Memory_thread_local_data&) = delete;

  // Drains the foreign frees and gives back list storage that nothing uses; touches no
  // block and no listed piece. Only on the owner, or on a heap whose owner is dying.
  void trim();

  Memory_pool_thread_heap pool_page_piece;  // records of the page pieces (120-byte pitch)
  Memory_bitmap_page_group page_group;
  Memory_pool_thread_heap pool_piece;       // records of the small-block pieces (512-byte pitch)
  Memory_bitmap_group group_8byte;
  Memory_bitmap_group ar_group[16];
};

// The small-block classes: block bytes of ar_group[0..15] (the route table of malloc names
// groups by these indexes), and group_8byte, class 16. A piece holds 512 blocks, so a
// group's uint_piece_byte is its block size << 9.
constexpr unsigned int k_ar_group_block_byte[16] = {16,  32,  48,  64,  80,  96,  112, 128,
                                                    144, 160, 176, 192, 208, 256, 512, 1024};
constexpr unsigned int k_group_8byte_block_byte = 8;
constexpr unsigned char k_group_8byte_block_type = 16;

}  // namespace quorla
