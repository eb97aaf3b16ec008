#include "page_heap/quorla_bitmap_page_group.h"

#include <new>

#include "foundation/quorla_machine.h"
#include "foundation/quorla_pause.h"
#include "foundation/quorla_stack_message.h"
#include "os_memory/quorla_region.h"
#include "page_heap/quorla_page_piece_count.h"

// The drain of the foreign-free queue runs the release of the allocation frame on every
// pointer it pops; the queue is given that function's address.
extern "C" void quorla_free_local_thread_use_ref(void** ptr_ref) noexcept;

namespace quorla {

Memory_bitmap_page_group::Memory_bitmap_page_group()
    : ptr_pool(nullptr), ulong_thread_id(0), vt_normal(), vt_full(), ptr_mpsc_queue_wait_release(nullptr) {}

Memory_bitmap_page_group::Memory_bitmap_page_group(unsigned long thread_id, Memory_pool_thread_heap* pool)
    : ptr_first_normal(nullptr),
      ptr_pool(pool),
      ulong_thread_id(thread_id),
      vt_normal(),
      vt_full(),
      ptr_mpsc_queue_wait_release(nullptr) {
  append_vt_normal();
}

void Memory_bitmap_page_group::init(unsigned long thread_id, Memory_pool_thread_heap* pool) {
  ulong_thread_id = thread_id;
  ptr_pool = pool;
  append_vt_normal();
}

unsigned char* Memory_bitmap_page_group::malloc_bit_size(unsigned int bit_size) noexcept {
  return piece_list::first_fit(*this, bit_size, [bit_size](Memory_bitmap_page_piece* piece) {
    return piece->malloc_bit_size(bit_size);
  });
}

unsigned char* Memory_bitmap_page_group::malloc_bit_size_align(unsigned int bit_size, unsigned int bit_align) {
  if (bit_size == 1 && bit_align == 1) return take_one_page();
  // No stop for a request that no aligned search can serve even in an empty piece: the
  // callers round the size up to a multiple of the alignment so that it does not arise.
  return piece_list::first_fit(*this, bit_size, [bit_size, bit_align](Memory_bitmap_page_piece* piece) {
    return piece->malloc_bit_size_align(bit_size, bit_align);
  });
}

unsigned char* Memory_bitmap_page_group::take_one_page_slow() noexcept {
  return piece_list::first_with_free(*this)->malloc_one_bit();
}

void Memory_bitmap_page_group::release_page_run(Memory_bitmap_page_piece* piece, unsigned int bit_size,
                                                unsigned int bit) noexcept {
  piece->free_with_bit_size(bit_size, bit);
  piece_list::after_page_release(*piece->ptr_page_group, piece, 1);
}

void Memory_bitmap_page_group::append_vt_normal() {
  unsigned int count = vt_normal.size();
  void* record = ptr_pool->pool_malloc();
  // The piece obtains its region in its constructor.
  auto* piece = new (record) Memory_bitmap_page_piece(count, this);
  if (count == 0) ptr_first_normal = piece;
  vt_normal.push_back(Piece_entry(piece, ptr_pool));
}

void Memory_bitmap_page_group::move_normal_piece_to_vt_full(unsigned int offset) {
  piece_list::move_normal_to_full(*this, offset);
}

void Memory_bitmap_page_group::move_full_piece_to_vt_normal(Memory_bitmap_page_piece* piece) noexcept {
  piece_list::move_full_to_normal_huge_page_lead(*this, piece);
}

void Memory_bitmap_page_group::free_vt_full_empty(Memory_bitmap_page_piece* piece) noexcept {
  piece_list::remove_full(*this, piece);
}

void Memory_bitmap_page_group::free_vt_normal_empty_force(Memory_bitmap_page_piece* piece) noexcept {
  piece_list::remove_normal(*this, piece);
}

void Memory_bitmap_page_group::trim() {
  release_wait_release_force();
  if (vt_full.size() == 0 && vt_full.capacity() != 0) vt_full.release();
  // A living thread keeps its last piece, even empty.
  if (ulong_thread_id != 0) return;
  if (vt_normal.size() != 0 && ptr_first_normal->uint_free_bit > 510) free_vt_normal_empty_force(ptr_first_normal);
}

void Memory_bitmap_page_group::init_ptr_mpsc_queue_wait_release() {
  mutex_wait_release.lock();
  if (ptr_mpsc_queue_wait_release != nullptr) {
    mutex_wait_release.unlock();
    return;
  }
  unsigned long size = sizeof(Memory_mpsc_queue_wait_release);
  void* memory = Malloc_page_part_cpu()(size);
  auto* queue = new (memory) Memory_mpsc_queue_wait_release();
  queue->set_fn_run(&quorla_free_local_thread_use_ref);
  // Every field and ring is visible before another thread can see the pointer.
  thread_pause_nanosecond();
  ptr_mpsc_queue_wait_release = queue;
  store_fence();
  mutex_wait_release.unlock();
}

void Memory_bitmap_page_group::release_wait_release_force() {
  Memory_mpsc_queue_wait_release* queue = ptr_mpsc_queue_wait_release;
  if (queue == nullptr) return;
  queue->uint_need_pop_cpu += 1;
  queue->pop_all();
}

Memory_bitmap_page_group::~Memory_bitmap_page_group() {
  mutex_wait_release.lock();
  Memory_mpsc_queue_wait_release* queue = ptr_mpsc_queue_wait_release;
  if (queue != nullptr) {
    ptr_mpsc_queue_wait_release = nullptr;
    store_fence();
    queue->uint_need_pop_cpu += 1;
    queue->pop_all();
    queue->~Memory_mpsc_queue_wait_release();
    Free_page_part_cpu()(queue, sizeof(Memory_mpsc_queue_wait_release));
  }
  mutex_wait_release.unlock();
  // Members go in reverse order: the mutex, then vt_full, then vt_normal. Empty pieces give
  // their regions back; pieces with live blocks keep them.
}

unsigned long Memory_bitmap_page_group::get_byte_page() const { return count_page_pieces(*this).ulong_byte_page; }
unsigned long Memory_bitmap_page_group::get_byte_hugepage2m() const {
  return count_page_pieces(*this).ulong_byte_hugepage2m;
}
unsigned long Memory_bitmap_page_group::get_all_bit_count() const { return count_page_pieces(*this).ulong_all_bit; }
unsigned long Memory_bitmap_page_group::get_free_bit_count() const { return count_page_pieces(*this).ulong_free_bit; }

void Memory_bitmap_page_group::print() const {
  Stack_message<512>()
      .text("Log: Memory_bitmap_page_group::print() vt_normal_size=")
      .dec(vt_normal.size())
      .text(", vt_full_size=")
      .dec(vt_full.size())
      .text(", thread_id=")
      .hex_lower(ulong_thread_id)
      .end_line()
      .write(stderr);
}

}  // namespace quorla
