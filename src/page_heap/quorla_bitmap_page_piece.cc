// Memory_bitmap_page_piece: region take-over and return, and the multi-page searches.
// Searches use lowest-clear-bit / highest-set-bit steps on whole words, never loops over
// single bits. A failed search changes nothing but uint_max_free_bit (unaligned paths).
// Only the thread that owns the piece's group comes here.
#include "page_heap/quorla_bitmap_page_piece.h"

#include <chrono>
#include <cstring>

#include "foundation/quorla_pause.h"
#include "os_memory/quorla_memory_settings.h"
#include "os_memory/quorla_os_mmap.h"
#include "os_memory/quorla_region_tag.h"

namespace quorla {

namespace {

constexpr unsigned long long k_ulong_all_ones = ~0ULL;

QUORLA_INLINE unsigned int lowest_clear_bit(unsigned long long word) {
  return static_cast<unsigned int>(__builtin_ctzll(~word));
}

QUORLA_INLINE unsigned int highest_set_bit(unsigned long long word) {
  return 63u - static_cast<unsigned int>(__builtin_clzll(word));
}

}  // namespace

Memory_bitmap_page_piece::Memory_bitmap_page_piece(unsigned int offset_normal,
                                                   Memory_bitmap_page_group* group)
    : uint_free_bit(511),
      uint_max_free_bit(511),
      uint_first_free_bit(1),
      uint_next_free_bit(1),
      uint_top_bit(1),
      uint_offset_normal(offset_normal),
      uint_offset_full(uint_offset_none),
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

void Memory_bitmap_page_piece::take_region() {
  // The region cache does not exist yet, so every region comes from the mapping layer;
  // the cache is to be asked first once it exists, and the test below is then its miss.
  if (!g_bool_memory_use_thread_background &&
      g_locking_sizet_os_malloc_all_size >= g_ulong_memory_size_use_thread_background_threshold &&
      g_bool_memory_enable_thread_background) {
    g_bool_memory_need_enable_thread_background = true;
  }
  // Never null: exhaustion is made fatal in the mapping layer.
  unsigned char* region = static_cast<unsigned char*>(os_malloc_map_align_2m_size_2m());

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
  memset(slot + 1, 0, uint_page_size - sizeof(unsigned long));
}

Memory_bitmap_page_piece::~Memory_bitmap_page_piece() {
  if (uint_free_bit < 511) {
    // Live blocks remain: the region is abandoned as it is, neither unmapped nor cached.
    store_fence();
    return;
  }
  Region_tag* tag = region_tag_of(ptr_byte_block);
  tag->uchar_page_type = uchar_page_type;
  tag->ushort_numa_node = ushort_numa_node;
  tag->uint_top_bit = uint_top_bit;
  const unsigned long millisecond = static_cast<unsigned long>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(
          std::chrono::steady_clock::now().time_since_epoch()).count()) / 1000000ul;
  tag->ulong_millisecond_release = millisecond;
  g_timet_millisecond_now_steady = static_cast<time_t>(millisecond);
  // The region cache takes the region here once it exists; until then it goes straight
  // back to the mapping layer, which reads the page type just written to byte 0.
  os_free_map_size_2m(ptr_byte_block);
  store_fence();
}

unsigned char* Memory_bitmap_page_piece::malloc_bit_size(unsigned int bit_size) {
  if (bit_size < 64) return malloc_bit_size_below_64(bit_size);
  return malloc_bit_size_from_64(bit_size);
}

// A run below 64 pages never crosses a word. It is tried at the cursor first, then at the
// lowest clear bit of each later word. `advance` tells whether the cursor may move past the
// run found: not when a word left behind still has a tail of 7 or more clear top bits.
unsigned char* Memory_bitmap_page_piece::malloc_bit_size_below_64(unsigned int bit_size) {
  const unsigned int cursor = uint_next_free_bit;
  const unsigned int cursor_end = cursor + bit_size;
  if (cursor_end > uint_bit_count) {
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
      return ptr_byte_block + static_cast<unsigned long>(cursor) * uint_page_size;
    }
    advance = true;  // collided: search this word again from its lowest clear bit
  } else {
    advance = offset >= 58;
    ++word;
  }

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
        return ptr_byte_block + static_cast<unsigned long>(bit) * uint_page_size;
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
unsigned char* Memory_bitmap_page_piece::malloc_bit_size_from_64(unsigned int bit_size) {
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
    return ptr_byte_block + uint_page_size;
  }
  const unsigned int cursor = uint_next_free_bit;
  if (cursor + bit_size > uint_bit_count || (cursor >> 6) > 7) {
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
    if (bit_end > uint_bit_count) break;
    const unsigned int count = make_ulongs_compare(start, bit_size, masks);
    if (!compare_ulongs_and_is_zero(ptr_ulong + word, masks, count)) continue;
    set_ulongs_or_equal_compare(ptr_ulong + word, masks, count);
    take_bits(bit, bit_size);
    if (bit == uint_first_free_bit) uint_first_free_bit = bit_end;
    if (bit == cursor) uint_next_free_bit = bit_end;
    if (bit_end > uint_top_bit) uint_top_bit = bit_end;
    return ptr_byte_block + static_cast<unsigned long>(bit) * uint_page_size;
  }
  uint_max_free_bit = bit_size - 1;
  return nullptr;
}

unsigned char* Memory_bitmap_page_piece::malloc_bit_size_align(unsigned int bit_size,
                                                               unsigned int bit_align) {
  if (bit_size < 64) {
    // Placed at in-word multiples of bit_align, never at bit 0 of a word; the cursor is
    // only where the search starts, and neither cursor nor top bit records the run.
    const unsigned int cursor = uint_next_free_bit;
    if (cursor + bit_size > uint_bit_count || (cursor >> 6) > 7) return nullptr;
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
        return ptr_byte_block + static_cast<unsigned long>(bit) * uint_page_size;
      }
    }
    return nullptr;
  }

  // 64 pages or more: runs start at a word boundary, at words step, 2 x step, ... With a
  // step of 0 (bit_align below 64) word 0 is tested forever, since its bit 0 is always set:
  // that shape does not return, and callers never form it.
  if (uint_next_free_bit + bit_size > uint_bit_count) return nullptr;
  const unsigned int step = bit_align >> 6;
  if (step > 7) return nullptr;
  unsigned long long masks[9];
  for (unsigned int word = step; word <= 7; word += step) {
    if (ptr_ulong[word] != 0) continue;
    const unsigned int bit = word << 6;
    if (bit + bit_size > uint_bit_count) return nullptr;
    const unsigned int count = make_ulongs_compare(0, bit_size, masks);
    if (!compare_ulongs_and_is_zero(ptr_ulong + word, masks, count)) continue;
    set_ulongs_or_equal_compare(ptr_ulong + word, masks, count);
    take_bits(bit, bit_size);
    return ptr_byte_block + static_cast<unsigned long>(bit) * uint_page_size;
  }
  return nullptr;
}

void Memory_bitmap_page_piece::free_with_bit_size(unsigned int bit_size, unsigned int bit_offset) {
  const unsigned int free_after = uint_free_bit + bit_size;
  if (bit_size >= 256 && free_after == 511) {
    // The region has just become empty: reset bitmap and head page in one stroke. The
    // high-water mark uint_top_bit is kept for the region's later return.
    uint_free_bit = 511;
    uint_max_free_bit = 511;
    uint_first_free_bit = 1;
    uint_next_free_bit = 1;
    ptr_ulong[0] = 1;
    for (unsigned int i = 1; i < 8; ++i) ptr_ulong[i] = 0;
    unsigned long* slot = ar_ulong_page_slot();
    memset(slot, 0, uint_page_size);
    slot[0] = reinterpret_cast<unsigned long>(this);
    return;
  }
  // Any release lifts the bound to the number of free pages, however scattered.
  uint_free_bit = free_after;
  uint_max_free_bit = free_after;
  if (bit_offset < uint_first_free_bit) uint_first_free_bit = bit_offset;
  if (bit_offset < uint_next_free_bit) uint_next_free_bit = bit_offset;

  const unsigned int offset = bit_offset & 63;
  const unsigned int word = bit_offset >> 6;
  if (bit_size < 64 && offset + bit_size <= 64) {
    ptr_ulong[word] &= ~(ar_ulong_mask[bit_size] << offset);
  } else {
    unsigned long long masks[9];
    const unsigned int count = make_ulongs_compare(offset, bit_size, masks);
    set_ulongs_and_equal_compare_complement(ptr_ulong + word, masks, count);
  }
  ar_ulong_page_slot()[bit_offset] = 0;
}

}  // namespace quorla
