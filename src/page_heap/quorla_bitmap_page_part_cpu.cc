#include "page_heap/quorla_bitmap_page_part_cpu.h"

#include <cstring>

#include "os_memory/quorla_os_mmap.h"
#include "os_memory/quorla_region.h"

namespace quorla {

// g_ar_memory_malloc_page_part_cpu is defined by start-up, in the library's load order.

namespace {

Memory_page_part_cpu& entry_of_block(const void* ptr) {
  // Safe without a lock: a region with a live block keeps its piece.
  auto* piece = reinterpret_cast<Memory_page_part_cpu::Piece*>(region_slots_of(ptr)[0]);
  return *static_cast<Memory_page_part_cpu*>(piece->ptr_page_group);
}

// The first use of an entry makes its first piece; g_spin_lock_simple covers the entry's
// index and minimum count as well.
void ensure_first_piece(Memory_page_part_cpu& entry, unsigned int index) {
  if (entry.vt_normal.size() != 0) return;
  g_spin_lock_simple.lock();
  if (entry.vt_normal.size() == 0) {
    entry.uint_min_normal_count = 1;
    entry.uint_part_cpu_offset = index;
    entry.append_vt_normal();
  }
  g_spin_lock_simple.unlock();
}

}  // namespace

template <class A, class B>
unsigned char* Memory_bitmap_page_part_cpu<A, B>::malloc_pages(unsigned long size) {
  mutex_group.lock();
  part_cpu_release::apply_waiting(*this);
  unsigned char* block;
  if (size <= k_page_byte) {
    block = piece_list::first_with_free(*this)->malloc_one_bit();
  } else {
    unsigned int bit_size = page_count_of(size);
    block = piece_list::first_fit(*this, bit_size, [bit_size](Piece* piece) { return piece->malloc_bit_size(bit_size); });
  }
  mutex_group.unlock();
  return block;
}

template <class A, class B>
void Memory_bitmap_page_part_cpu<A, B>::apply_release(void* ptr) {
  unsigned long* slots = region_slots_of(ptr);
  auto* piece = reinterpret_cast<Piece*>(slots[0]);
  unsigned int page = page_index_of(ptr);
  piece->free_pages(static_cast<unsigned int>(slots[page]), page);
  piece_list::after_page_release(*this, piece, uint_min_normal_count);
}

template <class A, class B>
void Memory_bitmap_page_part_cpu<A, B>::release_wait_release() {
  part_cpu_release::drain(*this, [this](void* ptr) { apply_release(ptr); });
}

template <class A, class B>
void Memory_bitmap_page_part_cpu<A, B>::push_foreign_release(void* ptr) {
  part_cpu_release::push(*this, ptr);
}

template class Memory_bitmap_page_part_cpu<Memory_allocator_pool_size_128_base, Memory_allocator_os_mmap_page>;

void* Malloc_page_part_cpu::operator()(unsigned long& size) const {
  QUORLA_LAYER(4);
  size = round_up_page(size);
  // Beyond a region's worth the block is a private mapping that no entry knows.
  if (size > k_region_limit_byte) return os_malloc_mmap_page(size);
  unsigned int index = memory_part_cpu_entry();
  Memory_page_part_cpu& entry = g_ar_memory_malloc_page_part_cpu[index];
  ensure_first_piece(entry, index);
  return entry.malloc_pages(size);
}

void Free_page_part_cpu::operator()(void* ptr, unsigned long size) const {
  QUORLA_LAYER(4);
  unsigned int caller = memory_part_cpu_entry();
  if (size > k_region_limit_byte) {
    g_mutex_mmap.lock();
    os_free_unmap_without_lock(ptr, round_up_page(size));
    g_mutex_mmap.unlock();
    return;
  }
  // The bit size comes from the region's slot; size only tells large mappings apart.
  Memory_page_part_cpu& owner = entry_of_block(ptr);
  if (owner.uint_part_cpu_offset == caller) {
    owner.mutex_group.lock();
    owner.apply_release(ptr);
    owner.mutex_group.unlock();
  } else {
    owner.push_foreign_release(ptr);
  }
}

void* Realloc_page_part_cpu::operator()(void* ptr, unsigned long old_size, unsigned long& new_size) const {
  // No scope of its own: the two calls below are the layer's own and check themselves.
  unsigned long old_rounded = round_up_page(old_size);
  if (ptr == nullptr || old_rounded == 0) return Malloc_page_part_cpu()(new_size);
  new_size = round_up_page(new_size);
  if (new_size == old_rounded) return ptr;
  void* block = Malloc_page_part_cpu()(new_size);
  memcpy(block, ptr, new_size < old_rounded ? new_size : old_rounded);
  Free_page_part_cpu()(ptr, old_rounded);
  return block;
}

unsigned char memory_malloc_page_part_cpu_get_page_type(void* ptr) {
  return reinterpret_cast<Memory_page_part_cpu::Piece*>(region_slots_of(ptr)[0])->uchar_page_type;
}

}  // namespace quorla
