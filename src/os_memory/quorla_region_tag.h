// The region tag: the first 16 bytes of a 2 MB region that no page piece owns, either
// fresh from the mapping layer or lying in the wait-release cache. While a piece owns the
// region the same bytes hold the piece's address instead, so the tag must be written back
// before the region leaves the piece. The mapping layer writes bytes 0 to 3 of a fresh
// region; the piece's destructor writes all four fields; the cache reads them.
#pragma once

#include <cstddef>

namespace quorla {

struct Region_tag {
  unsigned char uchar_page_type;              // 0: ordinary 4 KB pages, 1: one 2 MB huge page
  unsigned char uchar_unused;                 // not used
  unsigned short ushort_numa_node;            // wait-release node to which the region returns
  unsigned int uint_top_bit;                  // the piece's top bit at release: pages that may be dirty
  unsigned long ulong_millisecond_release;    // steady-clock milliseconds at release
};

constexpr unsigned char k_uchar_page_type_normal = 0;
constexpr unsigned char k_uchar_page_type_hugepage2m = 1;

// The layout is shared by three layers and read through plain byte offsets as well.
static_assert(sizeof(Region_tag) == 16, "region tag is 16 bytes");
static_assert(offsetof(Region_tag, uchar_page_type) == 0, "page type at byte 0");
static_assert(offsetof(Region_tag, uchar_unused) == 1, "byte 1 unused");
static_assert(offsetof(Region_tag, ushort_numa_node) == 2, "node at bytes 2-3");
static_assert(offsetof(Region_tag, uint_top_bit) == 4, "top bit at bytes 4-7");
static_assert(offsetof(Region_tag, ulong_millisecond_release) == 8, "release time at bytes 8-15");

// The tag at the start of a region (the head page's first bytes).
inline Region_tag* region_tag_of(void* region) { return static_cast<Region_tag*>(region); }

}  // namespace quorla
