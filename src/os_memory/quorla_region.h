// Region geometry, the one home of the numbers every floor computes with: pages of 4096
// bytes, regions of 2097152 bytes (512 pages) on 2 MB boundaries. The low 21 bits of an
// address are its offset in its region and offset >> 12 its page; page 0 is the head page,
// whose 512 words are the region's page slots (what a slot holds is the page piece's
// business). Arithmetic, and one writer of runs of slots; nothing here reads memory.
#pragma once

#include <emmintrin.h>

#include "foundation/quorla_base.h"

namespace quorla {

constexpr unsigned long k_page_byte = 4096;
constexpr unsigned int k_page_shift = 12;
constexpr unsigned long k_region_byte = 2097152;  // one region, one 2 MB huge page
constexpr unsigned long k_region_offset_mask = k_region_byte - 1;
constexpr unsigned int k_region_page_count = 512;       // head page included
constexpr unsigned long k_region_limit_byte = 2048000;  // largest request served in a region (500 pages)

static_assert(k_page_byte == 1ul << k_page_shift, "the shift matches the page");
static_assert(k_region_page_count * k_page_byte == k_region_byte, "a region is 512 pages");

QUORLA_INLINE constexpr unsigned long round_up_page(unsigned long size) {
  return (size + k_page_byte - 1) & ~(k_page_byte - 1);
}

QUORLA_INLINE constexpr unsigned long round_up_region(unsigned long size) {
  return (size + k_region_offset_mask) & ~k_region_offset_mask;
}

// Pages that hold size bytes, for sizes that fit a region (0 for 0).
QUORLA_INLINE constexpr unsigned int page_count_of(unsigned long size) {
  return static_cast<unsigned int>((size + k_page_byte - 1) >> k_page_shift);
}

// 0 only for a region-aligned pointer, which no region's page can hand out.
QUORLA_INLINE unsigned long region_offset_of(const void* ptr) {
  return reinterpret_cast<unsigned long>(ptr) & k_region_offset_mask;
}

// The page at an offset in a region, 0 to 511. Callers that tested the offset already pass
// it on, which keeps the release path to one mask.
QUORLA_INLINE unsigned int page_index_of_offset(unsigned long offset) {
  return static_cast<unsigned int>(offset >> k_page_shift);
}

QUORLA_INLINE unsigned int page_index_of(const void* ptr) { return page_index_of_offset(region_offset_of(ptr)); }

// The head page of ptr's region, seen as its 512 slots.
QUORLA_INLINE unsigned long* region_slots_of(const void* ptr) {
  return reinterpret_cast<unsigned long*>(reinterpret_cast<unsigned long>(ptr) - region_offset_of(ptr));
}

// Stores value in count consecutive slots, two to a 16-byte store and eight to a round. A
// small-block piece's backing block has up to 128 pages, all pointed at the piece when it
// takes the block and wiped when it gives it back; slot by slot, those two loops are most
// of the cost of a class that empties and is taken again. Plain stores, in address order.
QUORLA_INLINE void fill_page_slots(unsigned long* slots, unsigned int count, unsigned long value) {
  const __m128i pair = _mm_set1_epi64x(static_cast<long long>(value));
  auto* cursor = reinterpret_cast<__m128i*>(slots);
  for (; count >= 8; count -= 8, cursor += 4) {
    _mm_storeu_si128(cursor, pair);
    _mm_storeu_si128(cursor + 1, pair);
    _mm_storeu_si128(cursor + 2, pair);
    _mm_storeu_si128(cursor + 3, pair);
  }
  for (; count >= 2; count -= 2) _mm_storeu_si128(cursor++, pair);
  if (count != 0) *reinterpret_cast<unsigned long*>(cursor) = value;
}

}  // namespace quorla
