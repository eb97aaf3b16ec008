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

#include <cstring>

#include "foundation/quorla_base.h"
#include "foundation/quorla_bit_array.h"
#include "foundation/quorla_pause.h"
#include "os_memory/quorla_os_mmap.h"
#include "os_memory/quorla_region.h"
#include "os_memory/quorla_region_tag.h"
#include "os_memory/quorla_wait_release_ptr_part_numa_node.h"
#include "page_heap/quorla_piece_list.h"

namespace quorla {

class Memory_bitmap_page_group;

// The page piece's fields and searches, shared by the two owners of regions: a thread heap's
// page group (Memory_bitmap_page_piece) and the per-CPU page supply. k_reset_head_page: an
// emptying release of 256 pages or more also clears the head page (the supply's pieces keep
// only bit sizes in their slots, and skip that write).
template <class Group, bool k_reset_head_page>
class Bitmap_page_piece {
 public:
  unsigned int uint_free_bit;        // pages free now; 511 means empty
  unsigned int uint_max_free_bit;    // bound on the longest run worth searching for; not exact
  unsigned int uint_first_free_bit;  // no free bit lies below it
  unsigned int uint_next_free_bit;   // next-fit cursor of the multi-page search
  unsigned int uint_top_bit;         // one past the highest bit handed out unaligned
  unsigned int uint_offset_normal;   // index in the group's vt_normal, or piece_list::k_not_listed
  unsigned int uint_offset_full;     // index in the group's vt_full, or piece_list::k_not_listed
  unsigned char uchar_page_type;     // 0: 4 KB pages, 1: one 2 MB huge page
  unsigned short ushort_numa_node;   // wait-release node the region returns to
  Group* ptr_page_group;  // owner, not owning
  unsigned char* ptr_byte_block;     // the region, 2 MB aligned
  unsigned long long ptr_ulong[8];   // bit p in word p >> 6; 1 means in use

  Bitmap_page_piece(unsigned int offset_normal, Group* group);
  ~Bitmap_page_piece();
  Bitmap_page_piece(const Bitmap_page_piece&) = delete;
  Bitmap_page_piece& operator=(const Bitmap_page_piece&) = delete;

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
    return ptr_byte_block + static_cast<unsigned long>(bit) * k_page_byte;
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

  // The release of the page block at bit whose slot holds bit_size: inline for one page,
  // the run release otherwise (which, for a slot of 0, clears nothing).
  QUORLA_INLINE void free_pages(unsigned int bit_size, unsigned int bit) {
    if (bit_size == 1) {
      free_one_bit(bit);
    } else {
      free_with_bit_size(bit_size, bit);
    }
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
  // The search of malloc_bit_size_below_64 from word on, when the cursor did not serve.
  QUORLA_NOINLINE unsigned char* search_below_64(unsigned int bit_size, unsigned int word, bool advance);
  // The out-of-line parts of free_with_bit_size: a run that spans words, and the release
  // that empties the region.
  QUORLA_NOINLINE void clear_run_across_words(unsigned int bit_size, unsigned int bit_offset);
  QUORLA_NOINLINE void reset_empty();
  unsigned char* malloc_bit_size_from_64(unsigned int bit_size);
  void take_region();
};

class Memory_bitmap_page_piece final : public Bitmap_page_piece<Memory_bitmap_page_group, true> {
 public:
  Memory_bitmap_page_piece(unsigned int offset_normal, Memory_bitmap_page_group* group)
      : Bitmap_page_piece<Memory_bitmap_page_group, true>(offset_normal, group) {}

  // Reports on standard error; they take no lock and return (quorla_bitmap_page_piece.cc).
  void print() const;
  void check_memory_leak() const;
};

static_assert(sizeof(Memory_bitmap_page_piece) <= 112,
              "a page piece must fit the 112-byte payload of a metadata pool block");

// ---- definitions ----


namespace page_piece_detail {

constexpr unsigned long long k_ulong_all_ones = ~0ULL;

QUORLA_INLINE unsigned int lowest_clear_bit(unsigned long long word) {
  return static_cast<unsigned int>(__builtin_ctzll(~word));
}

QUORLA_INLINE unsigned int highest_set_bit(unsigned long long word) {
  return 63u - static_cast<unsigned int>(__builtin_clzll(word));
}

}  // namespace page_piece_detail

using page_piece_detail::highest_set_bit;
using page_piece_detail::k_ulong_all_ones;
using page_piece_detail::lowest_clear_bit;

template <class Group, bool k_reset_head_page>
Bitmap_page_piece<Group, k_reset_head_page>::Bitmap_page_piece(unsigned int offset_normal, Group* group)
    : uint_free_bit(511),
      uint_max_free_bit(511),
      uint_first_free_bit(1),
      uint_next_free_bit(1),
      uint_top_bit(1),
      uint_offset_normal(offset_normal),
      uint_offset_full(piece_list::k_not_listed),
      uchar_page_type(0),
      ushort_numa_node(0),
      ptr_page_group(group),
      ptr_byte_block(nullptr),
      ptr_ulong{1, 0, 0, 0, 0, 0, 0, 0} {
  take_region();
  ptr_ulong[0] = 1;
  for (unsigned int i = 1; i < 8; ++i) ptr_ulong[i] = 0;
  store_fence();
}

template <class Group, bool k_reset_head_page>
void Bitmap_page_piece<Group, k_reset_head_page>::take_region() {
  // The cache's first node, whatever node this thread runs on; on a miss, the mapping layer.
  unsigned char* region = memory_wait_release_malloc_region();

  Region_tag* tag = region_tag_of(region);
  if (ptr_byte_block != nullptr) {
    // A region is already held: the new one goes back, tagged as clean.
    tag->uint_top_bit = 0;
    os_free_map_size_2m(region);
    return;
  }
  ptr_byte_block = region;
  uint_top_bit = 1;
  uchar_page_type = tag->uchar_page_type;
  ushort_numa_node = tag->ushort_numa_node;
  // Back pointer first and fenced: a reader of slot 0 never meets the tag in its place.
  unsigned long* slot = ar_ulong_page_slot();
  slot[0] = reinterpret_cast<unsigned long>(this);
  store_fence();
  memset(slot + 1, 0, k_page_byte - sizeof(unsigned long));
}

template <class Group, bool k_reset_head_page>
Bitmap_page_piece<Group, k_reset_head_page>::~Bitmap_page_piece() {
  if (uint_free_bit < 511) {
    // Live blocks remain: the region is abandoned as it is, neither unmapped nor cached.
    store_fence();
    return;
  }
  // Tagged and handed to the cache of the node that the tag names, never straight to munmap.
  memory_wait_release_free_region(ptr_byte_block, uchar_page_type, ushort_numa_node, uint_top_bit);
  store_fence();
}

template <class Group, bool k_reset_head_page>
unsigned char* Bitmap_page_piece<Group, k_reset_head_page>::malloc_bit_size(unsigned int bit_size) {
  if (bit_size < 64) return malloc_bit_size_below_64(bit_size);
  return malloc_bit_size_from_64(bit_size);
}

// A run below 64 pages never crosses a word. It is tried at the cursor first, then at the
// lowest clear bit of each later word. `advance` tells whether the cursor may move past the
// run found: not when a word left behind still has a tail of 7 or more clear top bits.
template <class Group, bool k_reset_head_page>
unsigned char* Bitmap_page_piece<Group, k_reset_head_page>::malloc_bit_size_below_64(unsigned int bit_size) {
  const unsigned int cursor = uint_next_free_bit;
  const unsigned int cursor_end = cursor + bit_size;
  if (cursor_end > k_region_page_count) {
    uint_max_free_bit = bit_size - 1;
    return nullptr;
  }
  const unsigned long long mask = ar_ulong_mask[bit_size];
  const unsigned int offset = cursor & 63;
  unsigned int word = cursor >> 6;

  bool advance;
  if (bit_size + offset <= 64) {
    const unsigned long long run = mask << offset;
    if ((ptr_ulong[word] & run) == 0) {
      ptr_ulong[word] |= run;
      take_bits(cursor, bit_size);
      if (cursor == uint_first_free_bit) uint_first_free_bit = cursor_end;
      uint_next_free_bit = cursor_end;
      if (cursor_end > uint_top_bit) uint_top_bit = cursor_end;
      return ptr_byte_block + static_cast<unsigned long>(cursor) * k_page_byte;
    }
    advance = true;  // collided: search this word again from its lowest clear bit
  } else {
    advance = offset >= 58;
    ++word;
  }
  // The search is out of line, so that a take at the cursor saves no register.
  return search_below_64(bit_size, word, advance);
}

template <class Group, bool k_reset_head_page>
unsigned char* Bitmap_page_piece<Group, k_reset_head_page>::search_below_64(unsigned int bit_size, unsigned int word,
                                                                           bool advance) {
  const unsigned long long mask = ar_ulong_mask[bit_size];
  for (; word < 8; ++word) {
    unsigned long long scratch = ptr_ulong[word];
    if (scratch == k_ulong_all_ones) continue;
    for (;;) {
      const unsigned int low = lowest_clear_bit(scratch);
      if (bit_size + low > 64) {
        if (low <= 57) advance = false;
        break;
      }
      const unsigned long long collide = (mask << low) & scratch;
      if (collide == 0) {
        const unsigned int bit = (word << 6) + low;
        const unsigned int bit_end = bit + bit_size;
        ptr_ulong[word] |= mask << low;
        take_bits(bit, bit_size);
        if (advance) uint_next_free_bit = bit_end;
        if (bit_end > uint_top_bit) uint_top_bit = bit_end;
        return ptr_byte_block + static_cast<unsigned long>(bit) * k_page_byte;
      }
      const unsigned int high = highest_set_bit(collide);
      if (bit_size + high > 63) {
        advance = false;
        break;
      }
      scratch |= ar_ulong_mask[high];  // next lowest clear bit lies above `high`
      if (scratch == k_ulong_all_ones) break;
    }
  }
  uint_max_free_bit = bit_size - 1;
  return nullptr;
}

// A run of 64 pages or more: in each word from the cursor's, the one candidate is the bit
// just above the word's highest set bit (bit 1 of an all-clear word).
template <class Group, bool k_reset_head_page>
unsigned char* Bitmap_page_piece<Group, k_reset_head_page>::malloc_bit_size_from_64(unsigned int bit_size) {
  if (uint_free_bit > 510) {
    // Empty piece: the run goes to bit 1 without a search. uint_top_bit is lowered to
    // the run's end if it stood higher.
    uint_free_bit = 511 - bit_size;
    uint_max_free_bit = uint_free_bit;
    uint_first_free_bit = bit_size + 1;
    uint_next_free_bit = bit_size + 1;
    uint_top_bit = bit_size + 1;
    make_ulongs_compare_offset_zero(bit_size + 1, ptr_ulong);
    ar_ulong_page_slot()[1] = bit_size;
    return ptr_byte_block + k_page_byte;
  }
  const unsigned int cursor = uint_next_free_bit;
  if (cursor + bit_size > k_region_page_count || (cursor >> 6) > 7) {
    uint_max_free_bit = bit_size - 1;
    return nullptr;
  }
  unsigned long long masks[9];
  for (unsigned int word = cursor >> 6; word < 8; ++word) {
    const unsigned long long value = ptr_ulong[word];
    if (value == k_ulong_all_ones || (value >> 63) != 0) continue;
    const unsigned int start = value == 0 ? 1 : highest_set_bit(value) + 1;
    const unsigned int bit = (word << 6) + start;
    const unsigned int bit_end = bit + bit_size;
    if (bit_end > k_region_page_count) break;
    const unsigned int count = make_ulongs_compare(start, bit_size, masks);
    if (!compare_ulongs_and_is_zero(ptr_ulong + word, masks, count)) continue;
    set_ulongs_or_equal_compare(ptr_ulong + word, masks, count);
    take_bits(bit, bit_size);
    if (bit == uint_first_free_bit) uint_first_free_bit = bit_end;
    if (bit == cursor) uint_next_free_bit = bit_end;
    if (bit_end > uint_top_bit) uint_top_bit = bit_end;
    return ptr_byte_block + static_cast<unsigned long>(bit) * k_page_byte;
  }
  uint_max_free_bit = bit_size - 1;
  return nullptr;
}

template <class Group, bool k_reset_head_page>
unsigned char* Bitmap_page_piece<Group, k_reset_head_page>::malloc_bit_size_align(unsigned int bit_size,
                                                               unsigned int bit_align) {
  if (bit_size < 64) {
    // Placed at in-word multiples of bit_align, never at bit 0 of a word; the cursor is
    // only where the search starts, and neither cursor nor top bit records the run.
    const unsigned int cursor = uint_next_free_bit;
    if (cursor + bit_size > k_region_page_count || (cursor >> 6) > 7) return nullptr;
    if (bit_size + bit_align > 64) return nullptr;  // no word can hold the run
    const unsigned long long mask = ar_ulong_mask[bit_size];
    for (unsigned int word = cursor >> 6; word < 8; ++word) {
      const unsigned long long value = ptr_ulong[word];
      if (value == k_ulong_all_ones) continue;
      for (unsigned int offset = bit_align; bit_size + offset <= 64; offset += bit_align) {
        const unsigned long long run = mask << offset;
        if ((value & run) != 0) continue;
        ptr_ulong[word] = value | run;
        const unsigned int bit = (word << 6) + offset;
        take_bits(bit, bit_size);
        return ptr_byte_block + static_cast<unsigned long>(bit) * k_page_byte;
      }
    }
    return nullptr;
  }

  // 64 pages or more: runs start at a word boundary, at words step, 2 x step, ... With a
  // step of 0 (bit_align below 64) word 0 is tested forever, since its bit 0 is always set:
  // that shape does not return, and callers never form it.
  if (uint_next_free_bit + bit_size > k_region_page_count) return nullptr;
  const unsigned int step = bit_align >> 6;
  if (step > 7) return nullptr;
  unsigned long long masks[9];
  for (unsigned int word = step; word <= 7; word += step) {
    if (ptr_ulong[word] != 0) continue;
    const unsigned int bit = word << 6;
    if (bit + bit_size > k_region_page_count) return nullptr;
    const unsigned int count = make_ulongs_compare(0, bit_size, masks);
    if (!compare_ulongs_and_is_zero(ptr_ulong + word, masks, count)) continue;
    set_ulongs_or_equal_compare(ptr_ulong + word, masks, count);
    take_bits(bit, bit_size);
    return ptr_byte_block + static_cast<unsigned long>(bit) * k_page_byte;
  }
  return nullptr;
}

template <class Group, bool k_reset_head_page>
void Bitmap_page_piece<Group, k_reset_head_page>::free_with_bit_size(unsigned int bit_size, unsigned int bit_offset) {
  const unsigned int free_after = uint_free_bit + bit_size;
  // The region has just become empty: reset bitmap and head page in one stroke.
  if (bit_size >= 256 && free_after == 511) return reset_empty();
  // Any release lifts the bound to the number of free pages, however scattered.
  uint_free_bit = free_after;
  uint_max_free_bit = free_after;
  if (bit_offset < uint_first_free_bit) uint_first_free_bit = bit_offset;
  if (bit_offset < uint_next_free_bit) uint_next_free_bit = bit_offset;

  const unsigned int offset = bit_offset & 63;
  const unsigned int word = bit_offset >> 6;
  // A run across words is cleared out of line, so that the common release saves no register.
  if (bit_size >= 64 || offset + bit_size > 64) return clear_run_across_words(bit_size, bit_offset);
  ptr_ulong[word] &= ~(ar_ulong_mask[bit_size] << offset);
  ar_ulong_page_slot()[bit_offset] = 0;
}

template <class Group, bool k_reset_head_page>
void Bitmap_page_piece<Group, k_reset_head_page>::clear_run_across_words(unsigned int bit_size, unsigned int bit_offset) {
  unsigned long long masks[9];
  const unsigned int count = make_ulongs_compare(bit_offset & 63, bit_size, masks);
  set_ulongs_and_equal_compare_complement(ptr_ulong + (bit_offset >> 6), masks, count);
  ar_ulong_page_slot()[bit_offset] = 0;
}

// The high-water mark uint_top_bit is kept for the region's later return.
template <class Group, bool k_reset_head_page>
void Bitmap_page_piece<Group, k_reset_head_page>::reset_empty() {
  uint_free_bit = 511;
  uint_max_free_bit = 511;
  uint_first_free_bit = 1;
  uint_next_free_bit = 1;
  ptr_ulong[0] = 1;
  for (unsigned int i = 1; i < 8; ++i) ptr_ulong[i] = 0;
  if (k_reset_head_page) {
    unsigned long* slot = ar_ulong_page_slot();
    memset(slot, 0, k_page_byte);
    slot[0] = reinterpret_cast<unsigned long>(this);
  }
}


}  // namespace quorla
