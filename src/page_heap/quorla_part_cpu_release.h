// The release inbox of a per-CPU entry, a page supply or a 128-byte pool. A block given
// back from another CPU (to a pool: from any thread) is pushed under the entry's
// mutex_wait_release into its queue_wait_release and counted in uint_wait_release_count;
// the entry applies what waits at its next allocation, under its own group or pool mutex,
// so a release never waits for an allocation. An Entry has those three fields and
// release_wait_release(), which applies each address that drain() hands it.
#pragma once

#include "foundation/quorla_base.h"

namespace quorla {
namespace part_cpu_release {

template <class Entry>
void push(Entry& entry, void* ptr) {
  entry.mutex_wait_release.lock();
  entry.queue_wait_release.push(static_cast<unsigned char*>(ptr));
  entry.uint_wait_release_count += 1;
  entry.mutex_wait_release.unlock();
}

// At an allocation, with the entry's own mutex held. The count is zeroed before the drain:
// a push that raced in before is found by this drain, one that comes after raises the count
// again for the next allocation.
template <class Entry>
QUORLA_INLINE void apply_waiting(Entry& entry) {
  if (entry.uint_wait_release_count == 0) return;
  entry.uint_wait_release_count = 0;
  full_fence();
  entry.release_wait_release();
}

// Hands apply every queued address, the ring first, then the overflow vector from its end,
// until both are empty or a null address comes. Out of line, so that the allocation path
// that calls apply_waiting stays short.
template <class Entry, class Apply>
QUORLA_NOINLINE void drain(Entry& entry, Apply apply) {
  for (;;) {
    unsigned long value = entry.queue_wait_release.get_wait_release();
    if (value == 0) return;
    apply(reinterpret_cast<void*>(value));
  }
}

}  // namespace part_cpu_release
}  // namespace quorla
