// Memory_bitmap_page_piece: owner of one 2 MB region, handed out in pages. Page 0 is the
// head page (512 slots of 64 bits, `ar_ulong_page_slot`): slot 0 holds the owning piece,
// slot i holds 0 (no block starts on page i), a run length 1..511 (a page block starts
// there), or above 511 the small-block piece that owns the page. Pages 1..511 are found by
// searching an eight-word bitmap; bit 0 (the head page) is always set.
//
// Invariants: uint_free_bit == number of clear bits; uint_first_free_bit is never above the
// lowest clear bit; every live block's first slot holds its length (or its small-block piece).
// Only the owning thread of the group calls any member; other threads only read the head
// page, which is why slot 0 is published (and fenced) before the rest is cleared.
#pragma once

#include "foundation/quorla_base.h"
#include "foundation/quorla_bit_array.h"

namespace quorla {

class Memory_bitmap_page_group;

class Memory_bitmap_page_piece {
 public:
  static constexpr unsigned int uint_page_size = 4096;
  static constexpr unsigned long ulong_region_size = 2097152;
  static constexpr unsigned long ulong_region_mask = ulong_region_size - 1;
  static constexpr unsigned int uint_bit_count = 512;  // pages per region, head page included
  static constexpr unsigned int uint_offset_none = 0xFFFFFFFFu;

  unsigned int uint_free_bit;        // pages free now; 511 means empty
  unsigned int uint_max_free_bit;    // bound on the longest run worth searching for; not exact
  unsigned int uint_first_free_bit;  // no free bit lies below it
  unsigned int uint_next_free_bit;   // next-fit cursor of the multi-page search
  unsigned int uint_top_bit;         // one past the highest bit handed out unaligned
  unsigned int uint_offset_normal;   // index in the group's vt_normal, or uint_offset_none
  unsigned int uint_offset_full;     // index in the group's vt_full, or uint_offset_none
  unsigned char uchar_page_type;     // 0: 4 KB pages, 1: one 2 MB huge page
  unsigned short ushort_numa_node;   // wait-release node the region returns to
  Memory_bitmap_page_group* ptr_page_group;  // owner, not owning
  unsigned char* ptr_byte_block;     // the region, 2 MB aligned
  unsigned long long ptr_ulong[8];   // bit p in word p >> 6; 1 means in use

  Memory_bitmap_page_piece(unsigned int offset_normal, Memory_bitmap_page_group* group);
  ~Memory_bitmap_page_piece();
  Memory_bitmap_page_piece(const Memory_bitmap_page_piece&) = delete;
  Memory_bitmap_page_piece& operator=(const Memory_bitmap_page_piece&) = delete;

  // The head page seen as its 512 slots.
  QUORLA_INLINE unsigned long* ar_ulong_page_slot() const {
    return reinterpret_cast<unsigned long*>(ptr_byte_block);
  }

  // A run of bit_size (1..511) pages, or null; on null uint_max_free_bit becomes
  // bit_size - 1. Next fit from uint_next_free_bit; the search never wraps.
  unsigned char* malloc_bit_size(unsigned int bit_size);

  // The same with the run's first page at a multiple of bit_align pages; null on failure.
  // Short runs are placed at in-word multiples of bit_align (never at bit 0 of a word), which
  // are multiples from the region base when bit_align divides 64, as the power-of-two
  // alignments of the callers do. Shapes that return: bit_size below 64 with bit_align of at
  // least 1, or bit_size of 64 and more with bit_align a multiple of 64. A bit_size of 64 or
  // more with a bit_align below 64 tests word 0 forever and never returns: callers round
  // their requests so that this shape does not arise. No cursor records an aligned run.
  unsigned char* malloc_bit_size_align(unsigned int bit_size, unsigned int bit_align);

  // Releases the run of bit_size pages that starts at bit bit_offset. A release of 256
  // pages or more that empties the piece resets the whole head page and bitmap.
  void free_with_bit_size(unsigned int bit_size, unsigned int bit_offset);

  // The single-page take. Precondition: uint_free_bit is not 0.
  QUORLA_INLINE unsigned char* malloc_one_bit() {
    --uint_free_bit;
    if (uint_free_bit < uint_max_free_bit) uint_max_free_bit = uint_free_bit;
    unsigned int bit = uint_first_free_bit;
    unsigned long long& word_first = ptr_ulong[bit >> 6];
    const unsigned long long bit_mask = ar_ulong_bit[bit & 63];
    if ((word_first & bit_mask) == 0) {
      word_first |= bit_mask;
    } else {
      // A clear bit exists (precondition), at or above uint_first_free_bit's word.
      unsigned int word = bit >> 6;
      while (ptr_ulong[word] == ~0ULL) ++word;
      const unsigned long long value = ptr_ulong[word];
      ptr_ulong[word] = value | (value + 1);  // sets the lowest clear bit
      bit = (word << 6) + static_cast<unsigned int>(__builtin_ctzll(~value));
    }
    ar_ulong_page_slot()[bit] = 1;
    const unsigned int bit_end = bit + 1;
    uint_first_free_bit = bit_end;
    if (bit_end > uint_next_free_bit) uint_next_free_bit = bit_end;
    if (bit_end > uint_top_bit) uint_top_bit = bit_end;
    return ptr_byte_block + static_cast<unsigned long>(bit) * uint_page_size;
  }

  // The single-page release, for a slot that holds 1.
  QUORLA_INLINE void free_one_bit(unsigned int bit) {
    ++uint_free_bit;
    uint_max_free_bit = uint_free_bit;
    if (bit < uint_first_free_bit) uint_first_free_bit = bit;
    if (bit < uint_next_free_bit) uint_next_free_bit = bit;
    ptr_ulong[bit >> 6] &= ~ar_ulong_bit[bit & 63];
    ar_ulong_page_slot()[bit] = 0;
  }

 private:
  // Books a run found by a search: free count, bound and start slot. The bits are set by
  // the caller.
  QUORLA_INLINE void take_bits(unsigned int bit, unsigned int bit_size) {
    ar_ulong_page_slot()[bit] = bit_size;
    uint_free_bit -= bit_size;
    if (uint_free_bit < uint_max_free_bit) uint_max_free_bit = uint_free_bit;
  }
  unsigned char* malloc_bit_size_below_64(unsigned int bit_size);
  unsigned char* malloc_bit_size_from_64(unsigned int bit_size);
  void take_region();
};

static_assert(sizeof(Memory_bitmap_page_piece) <= 112,
              "a page piece must fit the 112-byte payload of a metadata pool block");

}  // namespace quorla
