#include "startup/quorla_fork.h"

#include <pthread.h>

#include "foundation/quorla_pause.h"
#include "os_memory/quorla_os_mmap.h"
#include "os_memory/quorla_os_umap_ptr_size.h"
#include "os_memory/quorla_thread_background.h"
#include "os_memory/quorla_wait_release_ptr_part_numa_node.h"
#include "page_heap/quorla_bitmap_page_part_cpu.h"
#include "page_heap/quorla_memory_pool_base.h"
#include "page_heap/quorla_pool_size_128_policy.h"
#include "startup/quorla_memory_settings.h"
#include "thread_heap/quorla_thread_registry.h"

namespace quorla {

namespace {

template <class Queue>
void lock_inbox(Queue& queue) {
  queue.mutex_push.lock();
  queue.mutex_vt.lock();
}

template <class Queue>
void unlock_inbox(Queue& queue) {
  queue.mutex_vt.unlock();
  queue.mutex_push.unlock();
}

// The heaps' own locks, with mutex_registry held so that the list stands still.
void lock_heaps() {
  Memory_thread_heap_vector& heaps = g_memory_thread_id_thread_local_data.vt_thread_local;
  for (unsigned int i = 0; i < heaps.size(); ++i) heaps[i]->page_group.mutex_wait_release.lock();
  for (unsigned int i = 0; i < heaps.size(); ++i) {
    Memory_mpsc_queue_wait_release* queue = heaps[i]->page_group.ptr_mpsc_queue_wait_release;
    if (queue == nullptr) continue;
    queue->mutex_thread.lock();
    for (mutex& cpu_lock : queue->ar_mutex_cpu) cpu_lock.lock();
  }
}

void unlock_heaps() {
  Memory_thread_heap_vector& heaps = g_memory_thread_id_thread_local_data.vt_thread_local;
  for (unsigned int i = 0; i < heaps.size(); ++i) {
    Memory_mpsc_queue_wait_release* queue = heaps[i]->page_group.ptr_mpsc_queue_wait_release;
    if (queue == nullptr) continue;
    for (mutex& cpu_lock : queue->ar_mutex_cpu) cpu_lock.unlock();
    queue->mutex_thread.unlock();
  }
  for (unsigned int i = 0; i < heaps.size(); ++i) heaps[i]->page_group.mutex_wait_release.unlock();
}

void unlock_all() {
  g_mutex_mmap.unlock();
  unlock_inbox(g_memory_wait_release_ptr_part_numa_node.queue_wait_release);
  g_memory_wait_release_ptr_part_numa_node.mutex_push.unlock();
  g_memory_pool_size_128_base.mutex_ar_atomic.unlock();
  for (Memory_page_part_cpu& supply : g_ar_memory_malloc_page_part_cpu) {
    unlock_inbox(supply.queue_wait_release);
    supply.mutex_wait_release.unlock();
    supply.mutex_group.unlock();
  }
  for (Memory_pool_size_128& pool : g_ar_memory_pool_size_128) {
    unlock_inbox(pool.queue_wait_release);
    pool.mutex_wait_release.unlock();
    pool.mutex_pool.unlock();
  }
  unlock_heaps();
  g_memory_os_umap_ptr_size.mutex_umap.unlock();
  g_memory_thread_id_thread_local_data.mutex_registry.unlock();
  g_memory_thread_background.mutex_enable.unlock();
}

}  // namespace

void memory_fork_prepare() {
  g_memory_thread_background.mutex_enable.lock();
  g_memory_thread_id_thread_local_data.mutex_registry.lock();
  g_memory_os_umap_ptr_size.mutex_umap.lock();
  lock_heaps();
  for (Memory_pool_size_128& pool : g_ar_memory_pool_size_128) {
    pool.mutex_pool.lock();
    pool.mutex_wait_release.lock();
    lock_inbox(pool.queue_wait_release);
  }
  for (Memory_page_part_cpu& supply : g_ar_memory_malloc_page_part_cpu) {
    supply.mutex_group.lock();
    supply.mutex_wait_release.lock();
    lock_inbox(supply.queue_wait_release);
  }
  g_memory_pool_size_128_base.mutex_ar_atomic.lock();
  g_memory_wait_release_ptr_part_numa_node.mutex_push.lock();
  lock_inbox(g_memory_wait_release_ptr_part_numa_node.queue_wait_release);
  g_mutex_mmap.lock();
}

void memory_fork_parent() { unlock_all(); }

void memory_fork_child() {
  // Still holding mutex_enable: no start can interleave (the child has one thread anyway).
  bool bool_had_thread = g_memory_thread_background.bool_run;
  g_memory_thread_background.forget_thread_after_fork();
  if (g_bool_memory_use_thread_background) {
    g_bool_memory_use_thread_background = false;
    // A thread that failed to start is not asked for again; a stopped one neither.
    if (bool_had_thread && g_bool_memory_enable_thread_background) g_bool_memory_need_enable_thread_background = true;
  }
  store_fence();
  unlock_all();
}

void memory_fork_register() { pthread_atfork(&memory_fork_prepare, &memory_fork_parent, &memory_fork_child); }

}  // namespace quorla
