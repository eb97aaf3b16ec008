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

// uint_piece_byte of ar_group[0..15]: 512 blocks of 16, 32, ... 208, 256, 512, 1024 bytes.
constexpr unsigned int k_ar_group_piece_byte[16] = {8192,  16384, 24576, 32768, 40960,  49152,  57344,  65536,
                                                    73728, 81920, 90112, 98304, 106496, 131072, 262144, 524288};
constexpr unsigned int k_group_8byte_piece_byte = 4096;
constexpr unsigned char k_group_8byte_block_type = 16;

}  // namespace quorla
