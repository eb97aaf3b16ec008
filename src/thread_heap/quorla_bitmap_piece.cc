#include "thread_heap/quorla_bitmap_piece.h"

#include <cstring>

#include "os_memory/quorla_region.h"
#include "thread_heap/quorla_bitmap_group.h"

namespace quorla {

Memory_bitmap_piece::Memory_bitmap_piece(unsigned int offset_normal, Memory_bitmap_group* group)
    : uint_free_bit(512),
      uint_max_free_bit(15),
      uint_first_free_bit(0),
      uint_next_free_bit(0),
      uint_offset_normal(offset_normal),
      uint_offset_full(piece_list::k_not_listed),
      uint_bit_ref_byte(group->uint_bit_ref_byte),
      uint_page_bit_size(group->uint_page_bit_size),
      uint_page_bit_offset(0),
      uchar_block_type(group->uchar_block_type),
      uchar_bit_ref_shift(group->uchar_bit_ref_shift),
      ptr_group(group),
      ptr_block(nullptr) {
  malloc_block();
  // Nothing reads the bitmap between the acquisition above and this clearing.
  memset(ptr_ulong, 0, sizeof(ptr_ulong));
  memset(ar_uchar_bit_size, 0, sizeof(ar_uchar_bit_size));
  store_fence();
}

Memory_bitmap_piece::~Memory_bitmap_piece() {
  // A piece with live blocks does not take them down with it.
  if (uint_free_bit == 512 && ptr_block != nullptr) {
    free_block_with_ptr(ptr_block, uint_page_bit_size, uint_page_bit_offset);
    ptr_block = nullptr;
  }
  store_fence();
}

void Memory_bitmap_piece::malloc_block() {
  unsigned int page_count = uint_page_bit_size;
  Memory_bitmap_page_group* page_group = ptr_group->ptr_page_group;
  unsigned char* address = page_group->take_pages(page_count);
  unsigned int page = page_index_of(address);
  if (ptr_block != nullptr) {
    free_block_with_ptr(address, page_count, page);
    return;
  }
  ptr_block = address;
  uint_page_bit_offset = page;
  // Every page of the backing block points at this piece: a slot above 511 is a piece.
  fill_page_slots(region_slots_of(address) + page, page_count, reinterpret_cast<unsigned long>(this));
}

void Memory_bitmap_piece::free_block_with_ptr(unsigned char* ptr, unsigned int page_bit_size,
                                              unsigned int page_bit_offset) {
  unsigned long* slots = region_slots_of(ptr);
  auto* page_piece = reinterpret_cast<Memory_bitmap_page_piece*>(slots[0]);
  // Wipe the piece addresses, so that a later free of a stale pointer sees a slot of 0.
  fill_page_slots(slots + page_bit_offset, page_bit_size, 0);
  Memory_bitmap_page_group::release_pages(page_piece, page_bit_size, page_bit_offset);
}

void Memory_bitmap_piece::release_run(unsigned int bit_size, unsigned int block) noexcept {
  inner_free_with_bit_size(bit_size, block);
  if (uint_free_bit <= 63) return;
  after_release();
}

void Memory_bitmap_piece::after_release() noexcept {
  if (uint_free_bit == 512) return release_backing_block();
  if (uint_offset_normal == piece_list::k_not_listed) ptr_group->move_full_piece_to_vt_normal(this);
}

void Memory_bitmap_piece::release_backing_block() noexcept {
  Memory_bitmap_group* group = ptr_group;
  free_block_with_ptr(ptr_block, uint_page_bit_size, uint_page_bit_offset);
  ptr_block = nullptr;
  if (group->vt_normal.size() > 1) group->free_vt_normal_empty_force(this);
}

void Memory_bitmap_piece::inner_free_with_bit_size(unsigned int bit_size, unsigned int bit_offset) {
  uint_free_bit += bit_size;
  uint_max_free_bit = uint_free_bit;
  if (uint_first_free_bit > bit_offset) uint_first_free_bit = bit_offset;
  if (uint_next_free_bit > bit_offset) uint_next_free_bit = bit_offset;
  // The bitmap is the only record of free space: nothing to coalesce.
  ptr_ulong[bit_offset >> 6] &= ~(ar_ulong_mask[bit_size] << (bit_offset & 63));
}

}  // namespace quorla
