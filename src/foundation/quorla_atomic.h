// The library's own read-modify-write on a 32-bit counter: store fence, a compare-and-swap
// loop with four pause instructions before each retry, store fence. Returns the old value.
// Used only off the owner's hot paths (the configuration gate, cache counters).
#pragma once

#include <atomic>

#include "foundation/quorla_base.h"

namespace quorla {

template <typename T>
inline T atomic_fetch_add(std::atomic<T>& value, T add) {
  store_fence();
  T old_value = value.load(std::memory_order_relaxed);
  while (!value.compare_exchange_weak(old_value, old_value + add, std::memory_order_seq_cst,
                                      std::memory_order_relaxed)) {
    cpu_pause_four();
  }
  store_fence();
  return old_value;
}

template <typename T>
inline T atomic_fetch_sub(std::atomic<T>& value, T sub) {
  store_fence();
  T old_value = value.load(std::memory_order_relaxed);
  while (!value.compare_exchange_weak(old_value, old_value - sub, std::memory_order_seq_cst,
                                      std::memory_order_relaxed)) {
    cpu_pause_four();
  }
  store_fence();
  return old_value;
}

}  // namespace quorla
