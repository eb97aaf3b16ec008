#include "thread_heap/quorla_thread_registry.h"

#include <new>

#include "foundation/quorla_pause.h"
#include "foundation/quorla_thread_self.h"
#include "startup/quorla_memory_settings.h"
#include "startup/quorla_before_init.h"
#include "topology/quorla_cpu_bind.h"

namespace quorla {

Memory_thread_local_data* g_ptr_memory_thread_local_data_main_thread = nullptr;
unsigned long g_sizet_main_thread_id = 0;
pthread_key_t g_memory_pthread_key_thread_id;

namespace {

Memory_thread_local_data* new_thread_heap(unsigned long thread_id) {
  unsigned long size = sizeof(Memory_thread_local_data);
  void* record = Malloc_page_part_cpu()(size);
  return new (record) Memory_thread_local_data(thread_id);
}

}  // namespace

Memory_thread_id_thread_local_data::Memory_thread_id_thread_local_data()
    : ptr_map_current(&ar_map[0]), uint_map_index(0), vt_wait_reuse(), vt_thread_local(), mutex_registry(), ar_map() {
  // The next map is always ready before it is needed.
  ar_map[0].reserve(256);
  ar_map[1].reserve(2 * ar_map[0].d_uint_max_data_count);
  Memory_thread_local_data* heap = new_thread_heap(thread_self());
  vt_thread_local.push_back(heap);
  store_fence();
  g_ptr_memory_thread_local_data_main_thread = heap;
  store_fence();
}

Memory_thread_id_thread_local_data::~Memory_thread_id_thread_local_data() {
  // From here free of a region block does nothing and malloc goes to the before-init heap,
  // so allocations made during the destruction stay out of the structures being destroyed.
  g_uint_memory_magic_flag_malloc_can_use += 1;
  mutex_registry.lock();
  for (unsigned int i = 0; i < vt_thread_local.size(); ++i) destroy_heap(vt_thread_local[i]);
  vt_thread_local.resize(0);
  mutex_registry.unlock();
}

Memory_thread_local_data* Memory_thread_id_thread_local_data::get_memory_thread_local_data() {
  return get_memory_thread_local_data(thread_self());
}

Memory_thread_local_data* Memory_thread_id_thread_local_data::find_or_insert(unsigned long thread_id) noexcept {
  Memory_thread_map* map = ptr_map_current;
  unsigned int offset = map->find_with_hash(thread_id, static_cast<unsigned int>(Hash_thread_id()(thread_id)));
  if (offset != 0xFFFFFFFF) {
    Memory_thread_local_data* heap = map->slot(offset).value;
    if (heap->page_group.ulong_thread_id == thread_id) return heap;
  }
  return insert_one(thread_id);
}

void Memory_thread_id_thread_local_data::rotate_map() {
  Memory_thread_map* old_map = ptr_map_current;
  uint_map_index = (uint_map_index + 1) & 7;
  Memory_thread_map* new_map = &ar_map[uint_map_index];
  new_map->clear_count();
  new_map->reserve(2 * old_map->d_uint_max_data_count);
  for (unsigned int i = 0; i < old_map->bucket_count(); ++i) {
    auto& wrap = old_map->slot(i);
    if (wrap.bool_used) new_map->insert_return_iterator_bool(wrap.key, wrap.value);
  }
  // Published by one store after the map is filled. The old map stays as it is, so a reader
  // that still holds it reads valid, if stale, data.
  store_fence();
  ptr_map_current = new_map;
  store_fence();
  Memory_thread_map* next_map = &ar_map[(uint_map_index + 1) & 7];
  next_map->clear_count();
  next_map->reserve(2 * new_map->d_uint_max_data_count);
}

Memory_thread_local_data* Memory_thread_id_thread_local_data::adopt_or_create_heap(unsigned long thread_id) {
  unsigned int waiting = vt_wait_reuse.size();
  if (waiting == 0) {
    Memory_thread_local_data* heap = new_thread_heap(thread_id);
    vt_thread_local.push_back(heap);
    return heap;
  }
  // Last in, first out: the heap put back last, with the blocks still live in it.
  Memory_thread_local_data* heap = vt_wait_reuse[waiting - 1];
  vt_wait_reuse.resize(waiting - 1);
  Memory_bitmap_page_group& page_group = heap->page_group;
  page_group.mutex_wait_release.lock();
  page_group.ulong_thread_id = thread_id;
  if (thread_id != 0 && page_group.vt_normal.size() == 0) page_group.append_vt_normal();
  page_group.mutex_wait_release.unlock();
  return heap;
}

Memory_thread_local_data* Memory_thread_id_thread_local_data::insert_one(unsigned long thread_id) {
  mutex_registry.lock();
  unsigned int offset = ptr_map_current->find_with_hash(thread_id, static_cast<unsigned int>(Hash_thread_id()(thread_id)));
  if (offset != 0xFFFFFFFF) {
    Memory_thread_local_data* heap = ptr_map_current->slot(offset).value;
    if (heap->page_group.ulong_thread_id == thread_id) {
      mutex_registry.unlock();
      return heap;
    }
  }
  if (ptr_map_current->size() >= ptr_map_current->d_uint_max_data_count) rotate_map();
  Memory_thread_local_data* heap = adopt_or_create_heap(thread_id);
  // A stale entry of a dead thread with the same id is replaced.
  ptr_map_current->erase_key(thread_id);
  ptr_map_current->insert_return_iterator_bool(thread_id, heap);
  // Arms the exit notification; the value is never read back.
  pthread_setspecific(g_memory_pthread_key_thread_id, heap);
  if (!g_bool_memory_use_thread) {
    g_bool_memory_use_thread = true;
    if (!g_bool_memory_use_thread_background) g_bool_memory_need_enable_thread_background = true;
  }
  // Still under the lock: the sibling files are read into stack buffers, nothing allocates.
  auto_bind_new_thread();
  mutex_registry.unlock();
  return heap;
}

void Memory_thread_id_thread_local_data::destroy_heap(Memory_thread_local_data* heap) {
  heap->~Memory_thread_local_data();
  Free_page_part_cpu()(heap, sizeof(Memory_thread_local_data));
}

void Memory_thread_id_thread_local_data::delete_this_thread() {
  mutex_registry.lock();
  thread_pause_nanosecond();
  unsigned long thread_id = thread_self();
  unsigned int offset = ptr_map_current->find_with_hash(thread_id, static_cast<unsigned int>(Hash_thread_id()(thread_id)));
  if (offset == 0xFFFFFFFF) {  // the main thread, or a thread that never allocated
    mutex_registry.unlock();
    return;
  }
  Memory_thread_local_data* heap = ptr_map_current->slot(offset).value;
  ptr_map_current->erase(Memory_thread_map::iterator{ptr_map_current, offset});
  // Give back this thread's producer slot in every queue, and find its heap's index.
  unsigned int heap_index = 0xFFFFFFFF;
  for (unsigned int i = 0; i < vt_thread_local.size(); ++i) {
    Memory_thread_local_data* other = vt_thread_local[i];
    Memory_mpsc_queue_wait_release* queue = other->page_group.ptr_mpsc_queue_wait_release;
    if (queue != nullptr && queue->uint_thread_count != 0) queue->release_thread_slot(thread_id);
    if (other->page_group.ulong_thread_id == thread_id) heap_index = i;
  }
  heap->page_group.ulong_thread_id = 0;
  store_fence();
  // Applies every queued foreign free and, with the owner at 0, gives back an empty first
  // page piece.
  heap->trim();
  Memory_bitmap_page_group& page_group = heap->page_group;
  bool empty = page_group.vt_normal.size() + page_group.vt_full.size() == 0;
  if (empty && g_uint_memory_vt_thread_local_wait_reuse_limit_size <= vt_wait_reuse.size() && heap_index != 0xFFFFFFFF) {
    destroy_heap(heap);
    vt_thread_local.erase_fast(heap_index);
  } else {
    // A heap that still holds regions is kept whatever the limit.
    vt_wait_reuse.push_back(heap);
  }
  mutex_registry.unlock();
}

Memory_thread_local_data* get_memory_thread_local_data() { return g_memory_thread_id_thread_local_data.get_memory_thread_local_data(); }

}  // namespace quorla

extern "C" QUORLA_EXPORT void quorla_memory_notify_at_thread_exit(void*) noexcept {
  if (quorla::g_bool_exit) return;
  quorla::g_memory_thread_id_thread_local_data.delete_this_thread();
}
