// The allocation frame: malloc and free, exported as quorla_malloc and quorla_free and, in
// the shared library, under the standard names as aliases of the same code. Also the two
// steps that the allocating entry points take before they route a request: finding the
// calling thread's heap, and bringing home the frees that other threads queued for it.
#pragma once

#include <cstddef>

#include "foundation/quorla_base.h"
#include "foundation/quorla_thread_self.h"
#include "quorlamalloc.h"
#include "thread_heap/quorla_thread_registry.h"

namespace quorla {

// The calling thread's heap. The main thread's is found by one comparison and never
// touches the registry.
QUORLA_INLINE Memory_thread_local_data* heap_of_this_thread() {
  Memory_thread_local_data* heap = g_ptr_memory_thread_local_data_main_thread;
  unsigned long thread_id = thread_self();
  if (QUORLA_UNLIKELY(thread_id != g_sizet_main_thread_id)) heap = get_memory_thread_local_data(thread_id);
  return heap;
}

// Applies the frees that other threads queued for this heap, when any wait. malloc and the
// small aligned path are the only places where they come home; free never drains.
QUORLA_INLINE void drain_foreign_frees(Memory_thread_local_data* heap) {
  Memory_mpsc_queue_wait_release* queue = heap->page_group.ptr_mpsc_queue_wait_release;
  if (QUORLA_UNLIKELY(queue != nullptr && queue->uint_need_pop != 0)) queue->pop_batch();
}

}  // namespace quorla
