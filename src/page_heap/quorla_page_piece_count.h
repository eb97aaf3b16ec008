// The sums of a group of page pieces (a thread heap's page group or a page supply entry)
// for the statistics: regions held by page type, their pages as bits, and the free ones. A
// listed piece without a region counts for nothing. Read without the owner's lock by the
// page group's callers, so the numbers may be a moment old.
#pragma once

#include "os_memory/quorla_region.h"

namespace quorla {

struct Page_piece_count {
  unsigned long ulong_byte_page = 0;        // regions of 4 KB pages, in bytes
  unsigned long ulong_byte_hugepage2m = 0;  // regions of one 2 MB huge page, in bytes
  unsigned long ulong_all_bit = 0;          // 512 a region
  unsigned long ulong_free_bit = 0;         // uint_free_bit summed

  template <class Vector>
  void add(const Vector& pieces) {
    for (unsigned int i = 0; i < pieces.size(); ++i) {
      const auto* piece = pieces[i].ptr_t;
      if (piece == nullptr || piece->ptr_byte_block == nullptr) continue;
      (piece->uchar_page_type == 1 ? ulong_byte_hugepage2m : ulong_byte_page) += k_region_byte;
      ulong_all_bit += 512;
      ulong_free_bit += piece->uint_free_bit;
    }
  }
};

template <class Group>
Page_piece_count count_page_pieces(const Group& group) {
  Page_piece_count count;
  count.add(group.vt_normal);
  count.add(group.vt_full);
  return count;
}

}  // namespace quorla
