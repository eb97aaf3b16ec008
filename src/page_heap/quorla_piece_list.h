// The list rules of every group of pieces: a thread heap's page group, the per-CPU page
// supplies, the small-block groups and the metadata pools. A group keeps its pieces in two
// unordered vectors, vt_normal (searched; not empty while the group serves) and vt_full (set
// aside), and keeps vt_normal[0] in a first pointer as well, for the hot path. Each piece
// knows its index in uint_offset_normal or uint_offset_full, and k_not_listed stands in the
// other. Removal swaps with the last entry. The groups differ only in when they call these,
// and in one rule of the page groups: a region on a huge page takes the lead (see
// move_full_to_normal_huge_page_lead).
//
// A Group has vt_normal and vt_full (vectors of owning entries, with .ptr_t and the type
// Piece_entry), append_vt_normal(), move_normal_piece_to_vt_full(offset) for the take
// loops, and a first pointer reached through First_normal<Group>: ptr_first_normal, unless
// the group's header says otherwise. No locks: the caller owns the group or holds its mutex.
#pragma once

#include "foundation/quorla_base.h"

namespace quorla {
namespace piece_list {

constexpr unsigned int k_not_listed = 0xFFFFFFFF;

template <class Group>
struct First_normal {
  static QUORLA_INLINE auto& of(Group& group) { return group.ptr_first_normal; }
};

template <class Group>
QUORLA_INLINE auto& first_normal(Group& group) {
  return First_normal<Group>::of(group);
}

// Sets aside vt_normal[offset]. The list must not end at the caller's position: a new piece
// is appended whenever the piece set aside stood last, even if other pieces remain below it.
template <class Group>
void move_normal_to_full(Group& group, unsigned int offset) {
  using Entry = typename Group::Piece_entry;
  group.vt_full.push_back(static_cast<Entry&&>(group.vt_normal[offset]));
  group.vt_normal.erase_fast(offset);
  auto* moved = group.vt_full[group.vt_full.size() - 1].ptr_t;
  moved->uint_offset_normal = k_not_listed;
  moved->uint_offset_full = group.vt_full.size() - 1;
  if (offset >= group.vt_normal.size()) {
    group.append_vt_normal();
    return;
  }
  auto* filler = group.vt_normal[offset].ptr_t;
  filler->uint_offset_normal = offset;
  if (offset == 0) first_normal(group) = filler;
}

// Brings a piece of vt_full back to the end of vt_normal.
template <class Group, class Piece>
void move_full_to_normal(Group& group, Piece* piece) {
  using Entry = typename Group::Piece_entry;
  unsigned int full_offset = piece->uint_offset_full;
  group.vt_normal.push_back(static_cast<Entry&&>(group.vt_full[full_offset]));
  group.vt_full.erase_fast(full_offset);
  unsigned int normal_offset = group.vt_normal.size() - 1;
  piece->uint_offset_normal = normal_offset;
  piece->uint_offset_full = k_not_listed;
  if (normal_offset == 0) first_normal(group) = piece;
  if (full_offset < group.vt_full.size()) group.vt_full[full_offset].ptr_t->uint_offset_full = full_offset;
}

// The page groups' form: as above, and a region on a huge page that comes back takes the
// lead from one of ordinary pages, so single pages come from huge pages first.
template <class Group, class Piece>
void move_full_to_normal_huge_page_lead(Group& group, Piece* piece) {
  using Entry = typename Group::Piece_entry;
  move_full_to_normal(group, piece);
  unsigned int normal_offset = piece->uint_offset_normal;
  Piece* lead = first_normal(group);
  if (normal_offset == 0 || piece->uchar_page_type <= lead->uchar_page_type) return;
  Entry entry = static_cast<Entry&&>(group.vt_normal[0]);
  group.vt_normal[0] = static_cast<Entry&&>(group.vt_normal[normal_offset]);
  group.vt_normal[normal_offset] = static_cast<Entry&&>(entry);
  lead->uint_offset_normal = normal_offset;
  piece->uint_offset_normal = 0;
  first_normal(group) = piece;
}

// Removes and destroys a piece of vt_full (its entry's destructor releases it).
template <class Group, class Piece>
void remove_full(Group& group, Piece* piece) {
  unsigned int offset = piece->uint_offset_full;
  if (offset >= group.vt_full.size()) return;
  group.vt_full.erase_fast(offset);
  if (offset < group.vt_full.size()) group.vt_full[offset].ptr_t->uint_offset_full = offset;
}

// Removes and destroys a piece of vt_normal. Nothing here keeps the list from emptying: the
// callers decide how many pieces stay.
template <class Group, class Piece>
void remove_normal(Group& group, Piece* piece) {
  unsigned int offset = piece->uint_offset_normal;
  if (offset >= group.vt_normal.size()) return;
  group.vt_normal.erase_fast(offset);
  if (offset < group.vt_normal.size()) {
    auto* filler = group.vt_normal[offset].ptr_t;
    filler->uint_offset_normal = offset;
    if (offset == 0) first_normal(group) = filler;
  }
}

// The first piece with anything free, setting aside the first one while it has nothing:
// the head of every single-unit take (a block, a page, a record). The setting aside stays
// the group's own call, out of line, so that the hot paths inline only the loop.
template <class Group>
QUORLA_INLINE auto* first_with_free(Group& group) {
  auto* piece = first_normal(group);
  while (QUORLA_UNLIKELY(piece->uint_free_bit == 0)) {
    group.move_normal_piece_to_vt_full(0);
    piece = first_normal(group);
  }
  return piece;
}

// First fit in list order with search(piece) -> block or null, for runs. A piece is set
// aside only when a search came to it (or skipped it by its bound) with 63 or fewer free; a
// new piece is empty, so the loop ends for every run a piece can hold.
template <class Group, class Search>
auto first_fit(Group& group, unsigned int bit_size, Search search) {
  unsigned int index = 0;
  auto* piece = first_normal(group);
  for (;;) {
    if (piece->uint_max_free_bit >= bit_size) {
      auto block = search(piece);
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

// The page groups' rules after pages came back to one of their pieces: an empty region goes
// (from vt_full always, from vt_normal while more than min_normal_count pieces remain), and a
// piece set aside comes back above 63 free. The calls are the group's own.
template <class Group, class Piece>
QUORLA_INLINE void after_page_release(Group& group, Piece* piece, unsigned int min_normal_count) {
  unsigned int free_bit = piece->uint_free_bit;
  if (free_bit <= 63) return;
  if (free_bit == 511) {
    if (piece->uint_offset_normal == k_not_listed) {
      group.free_vt_full_empty(piece);
    } else if (group.vt_normal.size() > min_normal_count) {
      group.free_vt_normal_empty_force(piece);
    }
    return;
  }
  if (piece->uint_offset_normal == k_not_listed) group.move_full_piece_to_vt_normal(piece);
}

}  // namespace piece_list
}  // namespace quorla
