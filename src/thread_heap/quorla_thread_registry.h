// Memory_thread_id_thread_local_data: the table from thread identity (pthread_self()) to
// thread heap. A thread finds its heap on every malloc without a lock while another thread
// may be growing the table: the published map is replaced, never grown in place, and the
// old one stays readable until the ring of eight maps comes round to it again. A found heap
// is verified by its page group's ulong_thread_id, which protects a reader from a stale map.
//
// It also decides what becomes of a heap when its thread ends: the heap keeps its live
// blocks and waits for a new thread (last in, first out), or is destroyed when it is empty
// and enough heaps wait already.
//
// All writes happen under mutex_registry. Lock order: mutex_registry, then a heap's
// mutex_wait_release or a queue's mutex_thread. The main thread's heap is not in any map: it
// is found by comparison with g_sizet_main_thread_id and gets no exit notification.
#pragma once

#include <pthread.h>

#include <functional>

#include "foundation/quorla_hash.h"
#include "foundation/quorla_unordered_map_allocator.h"
#include "thread_heap/quorla_thread_local_data.h"

namespace quorla {

using Memory_thread_map = unordered_map_allocator<unsigned long, Memory_thread_local_data*, Hash_thread_id,
                                                  std::equal_to<unsigned long>, Memory_allocator_page_part_cpu>;
using Memory_thread_heap_vector = vector_allocator<Memory_thread_local_data*, Memory_allocator_page_part_cpu>;

class Memory_thread_id_thread_local_data {
 public:
  Memory_thread_id_thread_local_data();
  ~Memory_thread_id_thread_local_data();
  Memory_thread_id_thread_local_data(const Memory_thread_id_thread_local_data&) = delete;
  Memory_thread_id_thread_local_data& operator=(const Memory_thread_id_thread_local_data&) = delete;

  // Lock-free lookup; falls through to insert_one. Writes nothing on the found path. A
  // thread nearly always stands in its home slot, which is tried first with the map's own
  // test; any other case takes the full lookup.
  QUORLA_INLINE Memory_thread_local_data* get_memory_thread_local_data(unsigned long thread_id) {
    Memory_thread_local_data* heap = find_at_home(thread_id);
    if (QUORLA_LIKELY(heap != nullptr)) return heap;
    return find_or_insert(thread_id);
  }
  // The heap of a thread found in its home slot of the published map and owned by it, or
  // null.
  QUORLA_INLINE Memory_thread_local_data* find_at_home(unsigned long thread_id) const {
    const auto* wrap = ptr_map_current->find_at_home(thread_id, static_cast<unsigned int>(Hash_thread_id()(thread_id)));
    if (QUORLA_UNLIKELY(wrap == nullptr)) return nullptr;
    Memory_thread_local_data* heap = wrap->value;
    return QUORLA_LIKELY(heap->page_group.ulong_thread_id == thread_id) ? heap : nullptr;
  }
  // The full lookup: the published map, then insert_one.
  Memory_thread_local_data* find_or_insert(unsigned long thread_id) noexcept;
  Memory_thread_local_data* get_memory_thread_local_data();
  Memory_thread_local_data* insert_one(unsigned long thread_id);
  // On the dying thread: gives back its producer slots, trims its heap, and keeps the heap
  // for reuse or destroys it. The order of these steps keeps the map right when the system
  // hands the same pthread_t value to a new thread.
  void delete_this_thread();

  unsigned int size() const { return vt_thread_local.size(); }
  // The heap lines of the statistics, on standard output (quorla_thread_heap_report.cc).
  void print_use_byte_str() const;

  Memory_thread_map* ptr_map_current;
  unsigned int uint_map_index;
  Memory_thread_heap_vector vt_wait_reuse;
  Memory_thread_heap_vector vt_thread_local;
  mutex mutex_registry;
  Memory_thread_map ar_map[8];

 private:
  void rotate_map();
  Memory_thread_local_data* adopt_or_create_heap(unsigned long thread_id);
  void destroy_heap(Memory_thread_local_data* heap);
};

extern QUORLA_HIDDEN Memory_thread_id_thread_local_data g_memory_thread_id_thread_local_data;
extern QUORLA_HIDDEN Memory_thread_local_data* g_ptr_memory_thread_local_data_main_thread;
extern QUORLA_HIDDEN unsigned long g_sizet_main_thread_id;
extern pthread_key_t g_memory_pthread_key_thread_id;

QUORLA_INLINE Memory_thread_local_data* get_memory_thread_local_data(unsigned long thread_id) {
  return g_memory_thread_id_thread_local_data.get_memory_thread_local_data(thread_id);
}
Memory_thread_local_data* get_memory_thread_local_data();

}  // namespace quorla

// The key's destructor: hands the ending thread's heap back (nothing once exit has begun).
extern "C" void quorla_memory_notify_at_thread_exit(void* value) noexcept;
