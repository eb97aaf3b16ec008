// The per-CPU page supply: eight page heaps from which the allocator's own records get
// whole pages (pool areas, vectors, hash tables, queues, thread heaps). Each entry is the
// page heap of a thread rebuilt for shared use: a mutex guards its group and pieces, and a
// release from another CPU than the entry's goes through the entry's queue and is applied
// at that entry's next allocation.
//
// Entry choice: 0 until a second thread has a heap (g_bool_memory_use_thread), then
// sched_getcpu() & 7, with no regard to nodes. Lock order inside an entry:
// mutex_wait_release, then the queue's mutex_push (given up before its mutex_vt);
// mutex_group is never held with mutex_wait_release on the foreign path.
#pragma once

#include <array>
#include <new>

#include "foundation/quorla_memory_size_out.h"
#include "foundation/quorla_mutex.h"
#include "foundation/quorla_unique_ptr.h"
#include "foundation/quorla_vector_allocator.h"
#include "page_heap/quorla_memory_allocator.h"
#include "os_memory/quorla_wait_release_queue_allocator.h"
#include "page_heap/quorla_memory_pool_base.h"
#include "page_heap/quorla_bitmap_page_piece.h"
#include "page_heap/quorla_page_part_cpu_policy.h"
#include "page_heap/quorla_page_piece_count.h"
#include "page_heap/quorla_part_cpu_release.h"
#include "page_heap/quorla_piece_list.h"
#include "startup/quorla_memory_settings.h"

namespace quorla {

template <class A, class B>
class Memory_bitmap_page_without_lock_group;

// A page piece of the supply: the region layout and searches of a thread heap's page piece,
// but only bit sizes stand in the page slots, and an emptying release of 256 pages or more
// resets the counters and the bitmap without writing the head page (the block's slot keeps
// its old value until the next block starts on that page).
template <class A, class B>
class Memory_bitmap_page_without_lock_piece final
    : public Bitmap_page_piece<Memory_bitmap_page_without_lock_group<A, B>, false> {
 public:
  Memory_bitmap_page_without_lock_piece(unsigned int offset_normal, Memory_bitmap_page_without_lock_group<A, B>* group)
      : Bitmap_page_piece<Memory_bitmap_page_without_lock_group<A, B>, false>(offset_normal, group) {}
};

template <class A, class B>
class Memory_bitmap_page_without_lock_group {
 public:
  using Piece = Memory_bitmap_page_without_lock_piece<A, B>;
  using Piece_entry = unique_ptr_allocator<Piece, A>;
  using Piece_vector = vector_allocator<Piece_entry, B>;

  void append_vt_normal() {
    unsigned int count = vt_normal.size();
    unsigned long size = sizeof(Piece);
    void* record = A().malloc(size);
    auto* piece = new (record) Piece(count, this);
    if (count == 0) ptr_first_normal = piece;
    vt_normal.push_back(Piece_entry(piece));
  }
  // The list calls of a page group, on the shared list rules.
  void move_normal_piece_to_vt_full(unsigned int offset) { piece_list::move_normal_to_full(*this, offset); }
  void move_full_piece_to_vt_normal(Piece* piece) { piece_list::move_full_to_normal_huge_page_lead(*this, piece); }
  void free_vt_full_empty(Piece* piece) { piece_list::remove_full(*this, piece); }
  void free_vt_normal_empty_force(Piece* piece) { piece_list::remove_normal(*this, piece); }

  Piece* ptr_first_normal;
  Piece_vector vt_normal;
  Piece_vector vt_full;
};

template <class A, class B>
class Memory_bitmap_page_part_cpu : public Memory_bitmap_page_without_lock_group<A, B> {
 public:
  using Group = Memory_bitmap_page_without_lock_group<A, B>;
  using Piece = typename Group::Piece;

  // A page block of this entry's (size rounded to pages, 500 pages at most). Holds
  // mutex_group inside.
  unsigned char* malloc_pages(unsigned long size);
  // Applies one release; the caller holds mutex_group.
  void apply_release(void* ptr);
  // Applies every queued release; the caller holds mutex_group.
  void release_wait_release();
  // Pushes a release from another CPU; applied at this entry's next allocation.
  void push_foreign_release(void* ptr);
  // One line on standard output: prefix, entry number, the regions held by page type, and
  // their pages as bits; nothing while the entry holds no region. The caller holds mutex_group.
  void print_use_byte(const char* prefix) const {
    Page_piece_count count = count_page_pieces(*this);
    unsigned long all_byte = count.ulong_byte_page + count.ulong_byte_hugepage2m;
    if (all_byte == 0) return;
    Stack_message<1024> line;
    line.text(prefix).dec(uint_part_cpu_offset).text(", all_byte=");
    append_memory_size(line, all_byte);
    if (count.ulong_byte_page != 0) append_memory_size(line.text(", byte_page="), count.ulong_byte_page);
    if (count.ulong_byte_hugepage2m != 0) append_memory_size(line.text(", byte_hugepage2M="), count.ulong_byte_hugepage2m);
    if (count.ulong_all_bit != 0) {
      append_bits_end(line, count.ulong_all_bit, count.ulong_free_bit);
    } else {
      line.end_line();
    }
    line.write(stdout);
  }

  unsigned int uint_part_cpu_offset;
  unsigned int uint_min_normal_count;
  unsigned int uint_wait_release_count;
  mutex mutex_group;
  mutex mutex_wait_release;
  Memory_wait_release_queue_allocator<Memory_allocator_os_mmap_page, 64u> queue_wait_release;
};

using Memory_page_part_cpu = Memory_bitmap_page_part_cpu<Memory_allocator_pool_size_128_base, Memory_allocator_os_mmap_page>;

extern std::array<Memory_page_part_cpu, 8> g_ar_memory_malloc_page_part_cpu;

// The entry of the calling thread: 0 until a second thread has a heap, then its CPU & 7.
QUORLA_INLINE unsigned int memory_part_cpu_entry() {
  return g_bool_memory_use_thread ? static_cast<unsigned int>(sched_getcpu()) & 7 : 0;
}

}  // namespace quorla
