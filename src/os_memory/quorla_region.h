// Region geometry, the one home of the numbers every floor computes with: pages of 4096
// bytes, regions of 2097152 bytes (512 pages) on 2 MB boundaries. The low 21 bits of an
// address are its offset in its region and offset >> 12 its page; page 0 is the head page,
// whose 512 words are the region's page slots (what a slot holds is the page piece's
// business). Pure arithmetic: nothing here reads memory, the callers do.
#pragma once

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

}  // namespace quorla
