// Memory_bitmap_page_group: the page heap of one thread heap. It owns that thread's page
// pieces (one 2 MB region each) in two unordered vectors: vt_normal, searched first-fit
// from index 0, and vt_full, set aside until a release lifts a piece above 63 free pages.
// It also owns the queue through which other threads hand back blocks of this heap.
//
// Invariants: vt_normal is not empty while the group serves allocations, and
// ptr_first_normal is vt_normal[0]; each piece's uint_offset_normal or uint_offset_full is
// its index in the vector holding it, the other 0xFFFFFFFF (the list rules are
// page_heap/quorla_piece_list.h).
//
// Only the owner thread (ulong_thread_id) allocates and releases here, without locks. Other
// threads read ptr_mpsc_queue_wait_release, create the queue under mutex_wait_release and
// push into it.
#pragma once

#include "foundation/quorla_mutex.h"
#include "foundation/quorla_unique_ptr.h"
#include "foundation/quorla_vector_allocator.h"
#include "os_memory/quorla_wait_free_mpsc_queue.h"
#include "page_heap/quorla_bitmap_page_piece.h"
#include "page_heap/quorla_memory_pool.h"
#include "page_heap/quorla_page_part_cpu_policy.h"
#include "page_heap/quorla_piece_list.h"
#include "page_heap/quorla_pool_size_128_policy.h"

namespace quorla {

// The pools inside a thread heap: records from the per-CPU 128-byte pools, areas and
// vectors from the per-CPU page supply.
using Memory_pool_thread_heap = Memory_pool_without_lock<Memory_allocator_pool_size_128, Memory_allocator_page_part_cpu>;
using Memory_mpsc_queue_wait_release = Wait_free_mpsc_queue_simple<void*, 512u, Memory_allocator_page_part_cpu>;

class Memory_bitmap_page_group {
 public:
  using Piece_entry = unique_ptr_include_alloc<Memory_bitmap_page_piece, Memory_pool_thread_heap>;
  using Piece_vector = vector_allocator<Piece_entry, Memory_allocator_page_part_cpu>;

  Memory_bitmap_page_group();
  Memory_bitmap_page_group(unsigned long thread_id, Memory_pool_thread_heap* pool);
  ~Memory_bitmap_page_group();
  Memory_bitmap_page_group(const Memory_bitmap_page_group&) = delete;
  Memory_bitmap_page_group& operator=(const Memory_bitmap_page_group&) = delete;

  void init(unsigned long thread_id, Memory_pool_thread_heap* pool);

  // A run of bit_size pages (1 to 511); never null: a new region is taken when needed.
  unsigned char* malloc_bit_size(unsigned int bit_size) noexcept;
  // The same with the first page at a multiple of bit_align pages in its region.
  unsigned char* malloc_bit_size_align(unsigned int bit_size, unsigned int bit_align);

  // One page: set aside the first piece while it is full, then take its lowest free page.
  // Setting aside goes out of line, with the take, by a tail call.
  QUORLA_INLINE unsigned char* take_one_page() {
    if (QUORLA_UNLIKELY(ptr_first_normal->uint_free_bit == 0)) return take_one_page_slow();
    return ptr_first_normal->malloc_one_bit();
  }
  QUORLA_NOINLINE unsigned char* take_one_page_slow() noexcept;

  // page_count pages (0 counts as 1): the single-page take, or the run search.
  QUORLA_INLINE unsigned char* take_pages(unsigned int page_count) {
    return page_count <= 1 ? take_one_page() : malloc_bit_size(page_count);
  }

  // The release of a page block of a page group's piece (bit_size from its slot), then that
  // group's rules: an empty region goes back unless it is the only searched piece, and a
  // piece above 63 free returns to vt_normal. The group is read from the piece after the
  // release, which keeps free's path short. A run's release is out of line, reached by a
  // tail call, so that free saves no register for it.
  static QUORLA_INLINE void release_pages(Memory_bitmap_page_piece* piece, unsigned int bit_size, unsigned int bit) {
    if (bit_size != 1) return release_page_run(piece, bit_size, bit);
    piece->free_one_bit(bit);
    piece_list::after_page_release(*piece->ptr_page_group, piece, 1);
  }
  static QUORLA_NOINLINE void release_page_run(Memory_bitmap_page_piece* piece, unsigned int bit_size, unsigned int bit) noexcept;

  void append_vt_normal();
  void move_normal_piece_to_vt_full(unsigned int offset);
  void move_full_piece_to_vt_normal(Memory_bitmap_page_piece* piece) noexcept;
  void free_vt_full_empty(Memory_bitmap_page_piece* piece) noexcept;
  void free_vt_normal_empty_force(Memory_bitmap_page_piece* piece) noexcept;

  void trim();
  void init_ptr_mpsc_queue_wait_release();
  void release_wait_release_force();

  // Read from any thread without a lock: approximate while the owner runs.
  unsigned long get_byte_page() const;
  unsigned long get_byte_hugepage2m() const;
  unsigned long get_all_bit_count() const;
  unsigned long get_free_bit_count() const;
  // One line on standard error: list sizes and owner.
  void print() const;

  Memory_bitmap_page_piece* ptr_first_normal;
  Memory_pool_thread_heap* ptr_pool;
  unsigned long ulong_thread_id;
  Piece_vector vt_normal;
  Piece_vector vt_full;
  Memory_mpsc_queue_wait_release* ptr_mpsc_queue_wait_release;
  mutex mutex_wait_release;
};

}  // namespace quorla
