// The list rules shared by the two kinds of page group (a thread heap's and the per-CPU
// supply's): first-fit search over vt_normal, setting aside at 63 free or fewer, the way
// back at 64, and removal by swap with the last entry. A Group has ptr_first_normal,
// vt_normal, vt_full (vectors of owning entries with .ptr_t) and append_vt_normal();
// a piece knows its index in uint_offset_normal / uint_offset_full (0xFFFFFFFF: not there).
#pragma once

#include "foundation/quorla_base.h"

namespace quorla {
namespace page_piece_list {

constexpr unsigned int k_not_listed = 0xFFFFFFFF;

template <class Group>
void move_normal_to_full(Group& group, unsigned int offset) {
  using Entry = typename Group::Piece_entry;
  group.vt_full.push_back(static_cast<Entry&&>(group.vt_normal[offset]));
  group.vt_normal.erase_fast(offset);
  auto* moved = group.vt_full[group.vt_full.size() - 1].ptr_t;
  moved->uint_offset_normal = k_not_listed;
  moved->uint_offset_full = group.vt_full.size() - 1;
  // The list must not end at the caller's position: a new region whenever the piece set
  // aside stood last, even if other pieces remain below it.
  if (offset >= group.vt_normal.size()) {
    group.append_vt_normal();
    return;
  }
  auto* filler = group.vt_normal[offset].ptr_t;
  filler->uint_offset_normal = offset;
  if (offset == 0) group.ptr_first_normal = filler;
}

template <class Group, class Piece>
void move_full_to_normal(Group& group, Piece* piece) {
  using Entry = typename Group::Piece_entry;
  unsigned int full_offset = piece->uint_offset_full;
  group.vt_normal.push_back(static_cast<Entry&&>(group.vt_full[full_offset]));
  group.vt_full.erase_fast(full_offset);
  unsigned int normal_offset = group.vt_normal.size() - 1;
  piece->uint_offset_normal = normal_offset;
  piece->uint_offset_full = k_not_listed;
  if (normal_offset == 0) {
    group.ptr_first_normal = piece;
  } else if (piece->uchar_page_type > group.ptr_first_normal->uchar_page_type) {
    // A region on a huge page takes the lead from one of ordinary pages.
    Entry lead = static_cast<Entry&&>(group.vt_normal[0]);
    group.vt_normal[0] = static_cast<Entry&&>(group.vt_normal[normal_offset]);
    group.vt_normal[normal_offset] = static_cast<Entry&&>(lead);
    group.ptr_first_normal->uint_offset_normal = normal_offset;
    piece->uint_offset_normal = 0;
    group.ptr_first_normal = piece;
  }
  if (full_offset < group.vt_full.size()) group.vt_full[full_offset].ptr_t->uint_offset_full = full_offset;
}

// Removes and destroys a piece of vt_full (its entry's destructor releases it).
template <class Group, class Piece>
void remove_full(Group& group, Piece* piece) {
  unsigned int offset = piece->uint_offset_full;
  if (offset >= group.vt_full.size()) return;
  group.vt_full.erase_fast(offset);
  if (offset < group.vt_full.size()) group.vt_full[offset].ptr_t->uint_offset_full = offset;
}

// Removes and destroys a piece of vt_normal. Nothing here keeps the list from emptying.
template <class Group, class Piece>
void remove_normal(Group& group, Piece* piece) {
  unsigned int offset = piece->uint_offset_normal;
  if (offset >= group.vt_normal.size()) return;
  group.vt_normal.erase_fast(offset);
  if (offset < group.vt_normal.size()) {
    auto* filler = group.vt_normal[offset].ptr_t;
    filler->uint_offset_normal = offset;
    if (offset == 0) group.ptr_first_normal = filler;
  }
}

// One page from the first piece that has one.
template <class Group>
QUORLA_INLINE unsigned char* take_one_page(Group& group) {
  auto* piece = group.ptr_first_normal;
  while (QUORLA_UNLIKELY(piece->uint_free_bit == 0)) {
    move_normal_to_full(group, 0);
    piece = group.ptr_first_normal;
  }
  return piece->malloc_one_bit();
}

// First fit in list order with search(piece) -> block or null. A piece is set aside only
// when a search came to it (or skipped it by its bound) with 63 or fewer free; a new piece
// is empty, so the loop ends for every run a region can hold.
template <class Group, class Search>
unsigned char* first_fit(Group& group, unsigned int bit_size, Search search) {
  unsigned int index = 0;
  auto* piece = group.ptr_first_normal;
  for (;;) {
    if (piece->uint_max_free_bit >= bit_size) {
      unsigned char* block = search(piece);
      if (block != nullptr) return block;
    }
    if (piece->uint_free_bit <= 63) {
      move_normal_to_full(group, index);
    } else if (++index == group.vt_normal.size()) {
      group.append_vt_normal();
    }
    piece = group.vt_normal[index].ptr_t;
  }
}

}  // namespace page_piece_list
}  // namespace quorla
