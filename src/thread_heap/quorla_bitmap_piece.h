// Memory_bitmap_piece: one backing block of pages seen as exactly 512 equal blocks. A bit
// per block says taken (1) or free; a nibble per block holds the length, in blocks, of the
// allocation that starts there (0 everywhere else), so no block carries a header and a run
// may be up to 15 blocks. While the piece has a backing block, every page slot of it in the
// region's head page holds this piece's address, which is how a pointer finds its piece.
//
// Invariants: block n is at ptr_block + n * uint_bit_ref_byte; 512 * uint_bit_ref_byte ==
// uint_page_bit_size * 4096; ptr_block null implies uint_free_bit == 512; a run never crosses
// a 64-bit word of ptr_ulong; uint_first_free_bit is at or below the lowest clear bit.
//
// No lock: only the heap's owner writes here. malloc_size reads uint_bit_ref_byte,
// ptr_block, uchar_bit_ref_shift and a nibble from any thread.
#pragma once

#include "foundation/quorla_base.h"
#include "foundation/quorla_bit_array.h"

namespace quorla {

class Memory_bitmap_group;

// distance / block_byte for the block sizes that are not powers of two (multiples of 16,
// 48 to 208): a multiply by the reciprocal 2^32 / block_byte rounded up, instead of a div.
// With e = reciprocal * block_byte - 2^32 < block_byte, the product is off by less than
// distance * e / 2^32 of a block, which cannot reach the next whole block while distance *
// e < 2^32: true for every distance inside a backing block (below 512 * 208). A test checks
// every such distance of every class.
namespace piece_detail {
struct Block_reciprocals {
  unsigned int value[14];  // by block_byte >> 4
};
constexpr Block_reciprocals make_block_reciprocals() {
  Block_reciprocals table{};
  for (unsigned int i = 1; i < 14; ++i) table.value[i] = static_cast<unsigned int>(((1ul << 32) + 16 * i - 1) / (16 * i));
  return table;
}
inline constexpr Block_reciprocals k_block_reciprocals = make_block_reciprocals();
}  // namespace piece_detail

QUORLA_INLINE unsigned int divide_by_block_byte(unsigned int distance, unsigned int block_byte) {
  const unsigned long reciprocal = piece_detail::k_block_reciprocals.value[block_byte >> 4];
  return static_cast<unsigned int>((distance * reciprocal) >> 32);
}

class Memory_bitmap_piece {
 public:
  Memory_bitmap_piece(unsigned int offset_normal, Memory_bitmap_group* group);
  ~Memory_bitmap_piece();
  Memory_bitmap_piece(const Memory_bitmap_piece&) = delete;
  Memory_bitmap_piece& operator=(const Memory_bitmap_piece&) = delete;

  // Gives the piece its backing block (taken from the heap's page group).
  void malloc_block();
  // Gives a backing block back to the page tier; reads no field of a piece.
  static void free_block_with_ptr(unsigned char* ptr, unsigned int page_bit_size, unsigned int page_bit_offset);
  // Clears a run of more than one block.
  void inner_free_with_bit_size(unsigned int bit_size, unsigned int bit_offset);
  // The run length recorded for the block that ptr falls into; 0 for inner or free blocks.
  unsigned int get_bit_size_from_ptr(const void* ptr) const {
    unsigned int block = block_number(ptr);
    unsigned char pair = ar_uchar_bit_size[block >> 1];
    return (block & 1) ? (pair >> 4) : (pair & 15);
  }

  QUORLA_INLINE unsigned int block_number(const void* ptr) const {
    unsigned int distance = static_cast<unsigned int>(static_cast<const unsigned char*>(ptr) - ptr_block);
    return uchar_bit_ref_shift != 0 ? distance >> uchar_bit_ref_shift : divide_by_block_byte(distance, uint_bit_ref_byte);
  }

  // One block from this piece, which has a free one: the lowest clear bit from
  // uint_first_free_bit, with its nibble set to 1. A piece without memory takes it first.
  QUORLA_INLINE void* take_one_block() {
    if (QUORLA_UNLIKELY(ptr_block == nullptr)) malloc_block();
    return take_one_block_backed();
  }

  // The same for a piece that holds its backing block.
  QUORLA_INLINE void* take_one_block_backed() {
    unsigned int free_bit = --uint_free_bit;
    if (free_bit < uint_max_free_bit) uint_max_free_bit = free_bit;
    unsigned int block = uint_first_free_bit;
    uint_first_free_bit = block + 1;
    if (block + 1 > uint_next_free_bit) uint_next_free_bit = block + 1;
    unsigned long word = block >> 6;
    unsigned long mask = 1ul << (block & 63);
    if (QUORLA_LIKELY((ptr_ulong[word] & mask) == 0)) {
      ptr_ulong[word] |= mask;
    } else {
      // The free count guarantees a word that is not all ones; the whole word is looked at.
      while (ptr_ulong[word] == ~0ul) ++word;
      unsigned long bits = ptr_ulong[word];
      ptr_ulong[word] = bits | (bits + 1);
      block = static_cast<unsigned int>(word * 64) + static_cast<unsigned int>(__builtin_ctzl(~bits));
      uint_first_free_bit = block + 1;
      if (block + 1 > uint_next_free_bit) uint_next_free_bit = block + 1;
    }
    // The nibble was 0 and now reads 1: add 1 for an even block, 16 for an odd one.
    ar_uchar_bit_size[block >> 1] += static_cast<unsigned char>(1u << ((block & 1) << 2));
    return ptr_block + static_cast<unsigned long>(block) * uint_bit_ref_byte;
  }

  // Releases the block or run that starts at ptr, then applies the group's rules: an empty
  // piece gives its memory back at once (and leaves the group unless it is the only
  // searched piece); a piece set aside comes back at 64 free. Inner pointers of a run and
  // double releases find a nibble of 0 and change nothing. Everything beyond a single block
  // of a piece that stays below 64 free is out of line, reached by tail calls, so that free
  // itself saves no register.
  QUORLA_INLINE void release_block(const void* ptr);
  // The release of a run of bit_size blocks at block, then the group's rules.
  QUORLA_NOINLINE void release_run(unsigned int bit_size, unsigned int block) noexcept;
  // The group's rules after a release brought uint_free_bit above 63.
  QUORLA_NOINLINE void after_release() noexcept;
  // An empty piece gives its backing block back, and leaves the group unless it is the only
  // searched piece.
  QUORLA_NOINLINE void release_backing_block() noexcept;

  // Reports on standard error; they take no lock and return (quorla_thread_heap_report.cc).
  void print() const;
  void check_memory_leak();
  void free_fail(void* ptr, unsigned int bit_offset, unsigned int bit_size);

  unsigned int uint_free_bit;        // 512: empty
  unsigned int uint_max_free_bit;    // upper bound of the longest free run (15 at most to start)
  unsigned int uint_first_free_bit;  // no clear bit below it
  unsigned int uint_next_free_bit;   // cursor of the run search
  unsigned int uint_offset_normal;   // index in the group's vt_normal, or 0xFFFFFFFF
  unsigned int uint_offset_full;     // index in the group's vt_full, or 0xFFFFFFFF
  unsigned int uint_bit_ref_byte;    // bytes per block
  unsigned int uint_page_bit_size;   // pages of the backing block
  unsigned int uint_page_bit_offset; // page number of the backing block in its region
  unsigned char uchar_block_type;
  unsigned char uchar_bit_ref_shift; // log2 of the block size when a power of two, else 0
  Memory_bitmap_group* ptr_group;
  unsigned char* ptr_block;          // null while the piece holds no memory
  unsigned long ptr_ulong[8];
  unsigned char ar_uchar_bit_size[256];
};

}  // namespace quorla
