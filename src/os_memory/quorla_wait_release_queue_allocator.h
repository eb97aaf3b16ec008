// Memory_wait_release_queue_allocator<A, N>: a ring made single-producer by mutex_push,
// with an overflow vector behind it for what the ring has no room for. Any thread pushes;
// one consumer drains (the ring first, then the vector from its end). Order is not kept
// across the ring and the vector.
#pragma once

#include "foundation/quorla_mutex.h"
#include "foundation/quorla_vector_allocator.h"
#include "os_memory/quorla_wait_free_spsc_queue.h"

namespace quorla {

template <class A, unsigned int N>
class Memory_wait_release_queue_allocator {
 public:
  void push(unsigned char* ptr) {
    mutex_push.lock();
    if (queue.is_full()) {
      mutex_push.unlock();
      mutex_vt.lock();
      vt_overflow.reserve(N * 8);
      vt_overflow.push_back(ptr);
      mutex_vt.unlock();
      return;
    }
    queue.push(reinterpret_cast<unsigned long>(ptr));
    mutex_push.unlock();
  }

  // The next address, or 0 when the ring and the vector are empty.
  unsigned long get_wait_release() {
    if (queue.is_empty()) {
      if (vt_overflow.size() == 0) return 0;
      return take_from_overflow();
    }
    unsigned long value = 0;
    queue.pop_t(value);
    return value;
  }

  // The vector's last entry under mutex_vt, or 0.
  unsigned long take_from_overflow() {
    mutex_vt.lock();
    unsigned long value = 0;
    unsigned int count = vt_overflow.size();
    if (count != 0) {
      value = reinterpret_cast<unsigned long>(vt_overflow[count - 1]);
      vt_overflow.resize(count - 1);
    }
    mutex_vt.unlock();
    return value;
  }

  mutex mutex_push;
  mutex mutex_vt;
  vector_allocator<unsigned char*, A> vt_overflow;
  Wait_free_spsc_queue_simple<unsigned long, N> queue;
};

}  // namespace quorla
