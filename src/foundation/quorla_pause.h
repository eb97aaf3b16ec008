// Clocks and short pauses of the foundation. The steady clock is CLOCK_MONOTONIC read through
// clock_gettime, which the vDSO serves without entering the kernel; the lock reads it at every
// unlock, so it must stay that cheap. A pause spins on that clock with pause instructions and
// never blocks: no call waits much more than 128 nanoseconds, whatever its argument says.
// g_timet_millisecond_now_steady is a coarse clock shared as a plain word: writers store the
// steady clock in milliseconds when they pass by, readers accept any thread's last value.
// Safe from any thread, at any point of start-up or shut-down.
#pragma once

#include <time.h>

#include "foundation/quorla_base.h"

namespace quorla {

// The default pause, and the window over which waiters of a just-released lock are spread.
constexpr unsigned int k_uint_pause_nanosecond = 128;

extern time_t g_timet_millisecond_now_steady;

QUORLA_INLINE unsigned long long get_steady_nanosecond() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<unsigned long long>(ts.tv_sec) * 1000000000ULL +
         static_cast<unsigned long long>(ts.tv_nsec);
}

QUORLA_INLINE unsigned long long get_steady_millisecond() { return get_steady_nanosecond() / 1000000ULL; }

// Reads the steady clock in milliseconds, publishes it in the coarse word and returns it.
QUORLA_INLINE time_t refresh_timet_millisecond_now_steady() {
  time_t now = static_cast<time_t>(get_steady_millisecond());
  g_timet_millisecond_now_steady = now;
  return now;
}

// The wall clock (CLOCK_REALTIME) in nanoseconds since 1970.
QUORLA_INLINE unsigned long long get_system_nanosecond() {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<unsigned long long>(ts.tv_sec) * 1000000000ULL +
         static_cast<unsigned long long>(ts.tv_nsec);
}

// True when the wall clock, in nanoseconds, is at or past t.
QUORLA_INLINE bool now_is_over_nanoseconds(unsigned long long t) { return get_system_nanosecond() >= t; }

// Load fence, then rdtsc: the time-stamp counter is not read ahead of earlier loads.
QUORLA_INLINE unsigned long long get_tsc() {
  unsigned int low;
  unsigned int high;
  load_fence();
  asm volatile("rdtsc" : "=a"(low), "=d"(high));
  return (static_cast<unsigned long long>(high) << 32) | low;
}

QUORLA_INLINE unsigned int get_tsc_uint() {
  unsigned int low;
  unsigned int high;
  load_fence();
  asm volatile("rdtsc" : "=a"(low), "=d"(high));
  return low;
}

// Spins until the steady clock reaches end: three pause instructions between two reads of the
// clock. The caller owns the fences around it.
QUORLA_INLINE void spin_until_steady_nanosecond(unsigned long long end) {
  do {
    cpu_pause();
    cpu_pause();
    cpu_pause();
  } while (get_steady_nanosecond() < end);
}

// Pauses n nanoseconds. The store fence in front lets this thread's stores drain while it
// waits; the load fence behind keeps later loads from being served before the wait is over.
QUORLA_INLINE void thread_pause_nanosecond(unsigned int n) {
  store_fence();
  spin_until_steady_nanosecond(get_steady_nanosecond() + n);
  load_fence();
}

// Pauses 128 nanoseconds: the time given to another CPU's stores to become visible.
QUORLA_INLINE void thread_pause_nanosecond() { thread_pause_nanosecond(k_uint_pause_nanosecond); }

// Pauses until the steady clock reaches limit, but never longer than 128 nanoseconds. A limit
// already reached returns at once, without a fence.
void thread_pause_until_steady_nanosecond_limit(unsigned long long limit);

}  // namespace quorla
