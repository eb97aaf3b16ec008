// Wait_free_mpsc_queue_simple<T, N, A>: the queue through which other threads hand a heap's
// blocks back to its owner. Stores, in order of preference for a producer:
//   ar_queue_thread[i]  one ring per producer thread slot (8), no lock
//   ar_queue_cpu[k]     rings by CPU (sched_getcpu() & 7), each under its ar_mutex_cpu entry
//   vt_overflow         under mutex_thread; sets no flag, so it waits for a drain that finds
//                       uint_need_pop_cpu set, or a forced drain
// uint_need_pop and uint_need_pop_cpu are plain words written without atomics: an update lost
// to a race only delays a drain. Only the owner of the heap consumes.
#pragma once

#include <sched.h>

#include "foundation/quorla_machine.h"
#include "foundation/quorla_mutex.h"
#include "foundation/quorla_thread_self.h"
#include "foundation/quorla_vector_allocator.h"
#include "os_memory/quorla_wait_free_spsc_queue.h"

namespace quorla {

template <class T, unsigned int N, class A>
class Wait_free_mpsc_queue_simple {
 public:
  using Ring = Wait_free_spsc_queue_simple<T, N>;
  using Run = void (*)(T*);

  Wait_free_mpsc_queue_simple()
      : uint_need_pop(0), uint_need_pop_cpu(0), uint_thread_queue_size(0), uint_thread_count(0), fn_run(nullptr) {
    uint_cpu_queue_size = g_uint_cpu_count < 8 ? g_uint_cpu_count : 8;
    if (uint_cpu_queue_size == 0) uint_cpu_queue_size = 1;
    for (unsigned long& id : ar_ulong_thread_id) id = 0;
  }

  // The consumer's callback, in the queue and in all 16 rings, each store fenced.
  void set_fn_run(Run run) {
    fn_run = run;
    store_fence();
    for (Ring& ring : ar_queue_thread) {
      ring.fn_run = run;
      store_fence();
    }
    for (Ring& ring : ar_queue_cpu) {
      ring.fn_run = run;
      store_fence();
    }
  }

  // The producer: its own ring without a lock while it has room; else a CPU ring under its
  // mutex; else the overflow vector.
  void push_foreign(const T& value) {
    unsigned long id = thread_self();
    unsigned int slot = 8;
    for (unsigned int i = 0; i < 8; ++i) {
      if (ar_ulong_thread_id[i] == id) {
        slot = i;
        break;
      }
    }
    if (slot == 8 && uint_thread_count <= 7) slot = take_thread_slot(id);
    if (slot != 8) {
      Ring& ring = ar_queue_thread[slot];
      if (!ring.is_full()) {
        ring.push(value);
        if (uint_need_pop == 0) {
          uint_need_pop = uint_need_pop + 1;
          store_fence();
        }
        return;
      }
    }
    unsigned int cpu = static_cast<unsigned int>(sched_getcpu()) & 7;
    ar_mutex_cpu[cpu].lock();
    Ring& ring = ar_queue_cpu[cpu];
    if (!ring.is_full()) {
      ring.push(value);
      if (uint_need_pop_cpu == 0) {
        uint_need_pop += 1;
        uint_need_pop_cpu += 1;
      }
      ar_mutex_cpu[cpu].unlock();
      return;
    }
    ar_mutex_cpu[cpu].unlock();
    mutex_thread.lock();
    vt_overflow.reserve(4096);
    vt_overflow.push_back(value);
    mutex_thread.unlock();
  }

  // Gives back a thread's producer slot (at its end). uint_thread_queue_size is not lowered;
  // the ring keeps its unread entries for the slot's next owner to write behind.
  void release_thread_slot(unsigned long id) {
    mutex_thread.lock();
    for (unsigned int i = 0; i < uint_thread_queue_size; ++i) {
      if (ar_ulong_thread_id[i] == id) {
        ar_ulong_thread_id[i] = 0;
        --uint_thread_count;
      }
    }
    mutex_thread.unlock();
  }

  // One pass over the thread rings; the CPU rings and the vector only when a CPU ring was
  // used since the last drain.
  void pop_batch() {
    unsigned int cpu_flag = uint_need_pop_cpu;
    uint_need_pop = 0;
    uint_need_pop_cpu = 0;
    store_fence();
    for (unsigned int i = 0; i < uint_thread_queue_size; ++i) ar_queue_thread[i].pop_run_batch();
    if (cpu_flag == 0) return;
    for (unsigned int i = 0; i < uint_cpu_queue_size; ++i) ar_queue_cpu[i].pop_run_batch();
    if (vt_overflow.size() != 0) pop_vt();
  }

  void pop_all_thread() {
    store_fence();
    for (;;) {
      unsigned int total = 0;
      for (unsigned int i = 0; i < uint_thread_queue_size; ++i) total += ar_queue_thread[i].pop_run_batch();
      if (total == 0) return;
    }
  }

  void pop_all_cpu() {
    store_fence();
    for (;;) {
      unsigned int total = 0;
      for (unsigned int i = 0; i < uint_cpu_queue_size; ++i) total += ar_queue_cpu[i].pop_run_batch();
      if (total == 0) return;
    }
  }

  void pop_all() {
    unsigned int cpu_flag = uint_need_pop_cpu;
    uint_need_pop = 0;
    uint_need_pop_cpu = 0;
    store_fence();
    pop_all_thread();
    if (cpu_flag == 0) return;
    pop_all_cpu();
    if (vt_overflow.size() != 0) pop_vt();
    pop_all_thread();
    pop_all_cpu();
  }

  void pop_vt() {
    mutex_thread.lock();
    for (unsigned int i = 0; i < vt_overflow.size(); ++i) fn_run(&vt_overflow[i]);
    vt_overflow.resize(0);
    mutex_thread.unlock();
  }

  unsigned int uint_need_pop;
  unsigned int uint_need_pop_cpu;
  unsigned int uint_thread_queue_size;
  unsigned int uint_thread_count;
  unsigned int uint_cpu_queue_size;
  Run fn_run;
  unsigned long ar_ulong_thread_id[8];
  mutex mutex_thread;
  Ring ar_queue_thread[8];
  mutex ar_mutex_cpu[8];
  Ring ar_queue_cpu[8];
  vector_allocator<T, A> vt_overflow;

 private:
  unsigned int take_thread_slot(unsigned long id) {
    unsigned int slot = 8;
    mutex_thread.lock();
    for (unsigned int i = 0; i < 8; ++i) {
      if (ar_ulong_thread_id[i] == 0) {
        ar_ulong_thread_id[i] = id;
        ++uint_thread_count;
        if (uint_thread_queue_size < i + 1) uint_thread_queue_size = i + 1;
        slot = i;
        break;
      }
    }
    mutex_thread.unlock();
    return slot;
  }
};

}  // namespace quorla
