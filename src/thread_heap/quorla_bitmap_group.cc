#include "thread_heap/quorla_bitmap_group.h"

#include <new>

#include "os_memory/quorla_region.h"

namespace quorla {

Memory_bitmap_group::Memory_bitmap_group() : vt_normal(), vt_full() {}

void Memory_bitmap_group::init(unsigned char block_type, unsigned int piece_byte,
                               Memory_bitmap_page_group* page_group, Memory_pool_thread_heap* pool) {
  uchar_block_type = block_type;
  uint_piece_byte = piece_byte;
  ptr_page_group = page_group;
  ptr_pool = pool;
  uint_bit_ref_byte = piece_byte >> 9;
  uint_page_bit_size = piece_byte >> k_page_shift;
  uchar_bit_ref_shift = 0;
  unsigned int shift = 0;
  for (unsigned int value = 1; value < uint_bit_ref_byte; value <<= 1) ++shift;
  if ((1u << shift) == uint_bit_ref_byte) uchar_bit_ref_shift = static_cast<unsigned char>(shift);
  append_vt_normal();
  // The first piece gives its memory straight back: ptr_piece_first is valid from the start
  // and the hot path needs no empty-list test, yet an unused class holds no memory.
  Memory_bitmap_piece* piece = ptr_piece_first;
  Memory_bitmap_piece::free_block_with_ptr(piece->ptr_block, piece->uint_page_bit_size, piece->uint_page_bit_offset);
  piece->ptr_block = nullptr;
}

void* Memory_bitmap_group::take_one_block_slow() noexcept { return piece_list::first_with_free(*this)->take_one_block(); }

void Memory_bitmap_group::append_vt_normal() {
  unsigned int count = vt_normal.size();
  void* record = ptr_pool->pool_malloc();
  auto* piece = new (record) Memory_bitmap_piece(count, this);
  if (count == 0) ptr_piece_first = piece;
  vt_normal.push_back(Piece_entry(piece, ptr_pool));
}

void Memory_bitmap_group::move_normal_piece_to_vt_full(unsigned int offset) {
  piece_list::move_normal_to_full(*this, offset);
}

// ptr_piece_first is never touched: the piece goes to the end of a list that is not empty.
void Memory_bitmap_group::move_full_piece_to_vt_normal(Memory_bitmap_piece* piece) noexcept {
  piece_list::move_full_to_normal(*this, piece);
}

void Memory_bitmap_group::free_vt_normal_empty_force(Memory_bitmap_piece* piece) {
  piece_list::remove_normal(*this, piece);  // destroys the piece, its record goes back to the pool
}

void Memory_bitmap_group::trim() {
  if (vt_full.size() == 0 && vt_full.capacity() != 0) vt_full.release();
}

void* Memory_bitmap_group::take_run(Memory_bitmap_piece* piece, unsigned int first, unsigned int bit_size) {
  piece->ptr_ulong[first >> 6] |= ar_ulong_mask[bit_size] << (first & 63);
  unsigned int free_bit = piece->uint_free_bit - bit_size;
  piece->uint_free_bit = free_bit;
  if (free_bit < piece->uint_max_free_bit) piece->uint_max_free_bit = free_bit;
  piece->ar_uchar_bit_size[first >> 1] += static_cast<unsigned char>((first & 1) ? bit_size << 4 : bit_size);
  return piece->ptr_block + static_cast<unsigned long>(first) * piece->uint_bit_ref_byte;
}

// Both run searches are first fits over the pieces (the shared rule sets a piece aside when
// a search failed on it or skipped it with fewer than 64 free); a piece that gave its
// memory back takes a new backing block when a search comes to it.
void* Memory_bitmap_group::malloc_bit_size(unsigned int bit_size) noexcept {
  const unsigned long mask = ar_ulong_mask[bit_size];
  return piece_list::first_fit(*this, bit_size, [this, bit_size, mask](Memory_bitmap_piece* piece) -> void* {
    if (piece->ptr_block == nullptr) piece->malloc_block();
    unsigned int cursor = piece->uint_next_free_bit;
    if (cursor + bit_size > 512) {
      piece->uint_max_free_bit = bit_size - 1;
      return nullptr;
    }
    unsigned int word = cursor >> 6;
    unsigned int shift = cursor & 63;
    if (bit_size + shift <= 64 && (piece->ptr_ulong[word] & (mask << shift)) == 0) {
      // First fit at the cursor.
      if (cursor == piece->uint_first_free_bit) piece->uint_first_free_bit = cursor + bit_size;
      piece->uint_next_free_bit = cursor + bit_size;
      return take_run(piece, cursor, bit_size);
    }
    if (bit_size + shift > 64) ++word;
    // Runs stay inside one word: after a clash at bit h, the next candidate lies above h, and
    // bit_size + h above 63 means that none fits in this word.
    for (; word < 8; ++word) {
      unsigned long taken = piece->ptr_ulong[word];
      while (taken != ~0ul) {
        unsigned int lowest = static_cast<unsigned int>(__builtin_ctzl(~taken));
        if (lowest + bit_size > 64) break;
        unsigned long clash = (mask << lowest) & taken;
        if (clash == 0) {
          unsigned int first = word * 64 + lowest;
          piece->uint_next_free_bit = first + bit_size;
          return take_run(piece, first, bit_size);
        }
        unsigned int highest = 63 - static_cast<unsigned int>(__builtin_clzl(clash));
        if (bit_size + highest > 63) break;
        taken |= ar_ulong_mask[highest];
      }
    }
    piece->uint_max_free_bit = bit_size - 1;
    return nullptr;
  });
}

void* Memory_bitmap_group::malloc_bit_size_alignment(unsigned int bit_size, unsigned int alignment) {
  const unsigned long mask = ar_ulong_mask[bit_size];
  const unsigned int alignment_mask = alignment - 1;
  return piece_list::first_fit(*this, bit_size, [this, bit_size, mask, alignment_mask](Memory_bitmap_piece* piece) -> void* {
    if (piece->ptr_block == nullptr) piece->malloc_block();
    unsigned int cursor = piece->uint_next_free_bit;
    if (cursor + bit_size > 512 || (cursor >> 6) > 7 || bit_size > 64) return nullptr;
    // Neither cursor moves; each word is scanned from bit 0. A failure here never lowers
    // uint_max_free_bit.
    for (unsigned int word = cursor >> 6; word < 8; ++word) {
      unsigned long taken = piece->ptr_ulong[word];
      if (taken == ~0ul) continue;
      for (unsigned int bit = 0; bit + bit_size <= 64; ++bit) {
        unsigned int byte_offset = (word * 64 + bit) * piece->uint_bit_ref_byte;
        if ((byte_offset & alignment_mask) == 0 && (taken & (mask << bit)) == 0) {
          return take_run(piece, word * 64 + bit, bit_size);
        }
      }
    }
    return nullptr;
  });
}

}  // namespace quorla
