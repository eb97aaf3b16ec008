// Memory_bitmap_group: every small-block piece of one block size in one thread heap, in two
// unordered lists: vt_normal (pieces that may serve) and vt_full (set aside until enough is
// released). It decides when a piece moves between the lists, when a new one is made and
// when an empty one is dropped, and it owns the search for runs of several blocks.
//
// Rules: into vt_full on the single-block path when the first piece has 0 free; on the run
// path when a search failed on (or skipped) a piece with fewer than 64 free. Back to vt_normal
// on a release that brings a piece to 64 free. Out of the group when a release empties a
// piece and vt_normal holds more than one piece; the last one stays, without memory.
//
// vt_normal is never empty after init; ptr_piece_first is vt_normal[0]. Owner thread only.
#pragma once

#include "page_heap/quorla_bitmap_page_group.h"
#include "page_heap/quorla_piece_list.h"
#include "thread_heap/quorla_bitmap_piece.h"

namespace quorla {

class Memory_bitmap_group {
 public:
  using Piece_entry = unique_ptr_include_alloc<Memory_bitmap_piece, Memory_pool_thread_heap>;
  using Piece_vector = vector_allocator<Piece_entry, Memory_allocator_page_part_cpu>;

  Memory_bitmap_group();
  ~Memory_bitmap_group() = default;  // vt_full, then vt_normal: each element destroys its piece
  Memory_bitmap_group(const Memory_bitmap_group&) = delete;
  Memory_bitmap_group& operator=(const Memory_bitmap_group&) = delete;

  void init(unsigned char block_type, unsigned int piece_byte, Memory_bitmap_page_group* page_group,
            Memory_pool_thread_heap* pool);

  // One block (Take one block): the first piece with a free block serves it. When the
  // first piece is full or holds no memory, the whole take goes out of line by a tail call.
  QUORLA_INLINE void* take_one_block();
  QUORLA_NOINLINE void* take_one_block_slow() noexcept;

  // A run of bit_size blocks (2 to 15), first fit over the pieces in list order.
  void* malloc_bit_size(unsigned int bit_size) noexcept;
  // The same with the run's byte offset in its backing block a multiple of alignment.
  void* malloc_bit_size_alignment(unsigned int bit_size, unsigned int alignment);

  void append_vt_normal();
  void move_normal_piece_to_vt_full(unsigned int offset);
  void move_full_piece_to_vt_normal(Memory_bitmap_piece* piece) noexcept;
  void free_vt_normal_empty_force(Memory_bitmap_piece* piece);
  void trim();
  // One line on standard error with the group's counts; nothing while it holds no memory.
  void print() const;

  Memory_bitmap_piece* ptr_piece_first;
  Memory_pool_thread_heap* ptr_pool;
  Memory_bitmap_page_group* ptr_page_group;
  unsigned int uint_piece_byte;
  unsigned int uint_bit_ref_byte;
  unsigned int uint_page_bit_size;
  unsigned char uchar_block_type;
  unsigned char uchar_bit_ref_shift;
  Piece_vector vt_normal;
  Piece_vector vt_full;

 private:
  // Sets the bits of a run at block `first` and records it; returns its address.
  void* take_run(Memory_bitmap_piece* piece, unsigned int first, unsigned int bit_size);
};

// The list rules are the shared ones (page_heap/quorla_piece_list.h); this group's first
// pointer is ptr_piece_first.
template <>
struct piece_list::First_normal<Memory_bitmap_group> {
  static QUORLA_INLINE Memory_bitmap_piece*& of(Memory_bitmap_group& group) { return group.ptr_piece_first; }
};

QUORLA_INLINE void* Memory_bitmap_group::take_one_block() {
  Memory_bitmap_piece* piece = ptr_piece_first;
  if (QUORLA_UNLIKELY(piece->uint_free_bit == 0 || piece->ptr_block == nullptr)) return take_one_block_slow();
  return piece->take_one_block_backed();
}

QUORLA_INLINE void Memory_bitmap_piece::release_block(const void* ptr) {
  unsigned int block = block_number(ptr);
  unsigned char& pair = ar_uchar_bit_size[block >> 1];
  // Odd blocks keep their length in the high nibble; shifts instead of a branch on the
  // parity, which is random in a random release order.
  const unsigned int shift = (block & 1) << 2;
  const unsigned int pair_value = pair;
  const unsigned int bits = (pair_value >> shift) & 15;
  pair = static_cast<unsigned char>(pair_value & (0xF0u >> shift));
  unsigned int free_bit = uint_free_bit;
  if (QUORLA_LIKELY(bits == 1)) {
    free_bit += 1;
    uint_free_bit = free_bit;
    // Kept as branches: a conditional move here would chain each release's store to the
    // next take's load of the same hint, which costs a malloc/free pair more than the
    // mispredictions it saves under random release orders.
    if (uint_first_free_bit > block) uint_first_free_bit = block;
    if (uint_next_free_bit > block) uint_next_free_bit = block;
    ptr_ulong[block >> 6] &= ~(1ul << (block & 63));
    uint_max_free_bit = free_bit;
  } else if (bits != 0) {
    return release_run(bits, block);
  }
  // The group's rules, tested here; only what they do is out of line.
  if (QUORLA_LIKELY(free_bit <= 63)) return;
  if (QUORLA_UNLIKELY(free_bit == 512)) return release_backing_block();
  if (QUORLA_UNLIKELY(uint_offset_normal == piece_list::k_not_listed)) return ptr_group->move_full_piece_to_vt_normal(this);
}

}  // namespace quorla
