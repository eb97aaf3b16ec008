// The allocator's lock: a recursive wrapper round std::mutex that remembers the CPU and the
// steady-clock moment of its last release, and holds a thread back for a few nanoseconds
// before it takes a lock just released on another CPU of the same node. That keeps the
// protected cache lines from bouncing while the releasing CPU's stores drain. It is not a spin
// lock: every pause is bounded and the real blocking is the operating system's.
//
// Invariants: uint_lock_count is the recursion depth (0: free); sizet_thread_id and its copy
// sizet_thread_id_check hold the owner's pthread_self() while held and 0 otherwise. The fields
// other than mutex_os are read outside the lock on purpose, with fences and without
// read-modify-write instructions; a stale view costs at most one pause. A thread can find its
// own id in both owner words only if it wrote them itself, which is what makes the lock-free
// recursion test safe. Every object fills its own 128-byte line, in arrays too.
//
// unlock() does not check that the caller owns the lock. Lock order is the callers' business.
#pragma once

#include <mutex>

#include "foundation/quorla_base.h"

namespace quorla {

// True when the threads library is present in the process (the standard library's own test).
// Without it the std::mutex inside a lock is never touched and only the counters move.
QUORLA_INLINE bool threads_active() { return __gthread_active_p() != 0; }

class alignas(128) mutex {
 public:
  mutex();
  ~mutex();
  mutex(const mutex&) = delete;
  mutex& operator=(const mutex&) = delete;

  void lock();
  bool try_lock();
  void unlock();
  // The type has no shared mode; the name exists so that templates over lock types compile.
  [[noreturn]] void unlock_shared() const;

  bool is_lock() const { return __atomic_load_n(&uint_lock_count, __ATOMIC_RELAXED) != 0; }
  bool is_this_thread_lock() const;

  unsigned int lock_count() const { return __atomic_load_n(&uint_lock_count, __ATOMIC_RELAXED); }

 private:
  // Pause of a thread that has just taken the lock after another CPU held it, then the
  // owner's fields (steps shared by lock and try_lock).
  void after_acquire(unsigned long id);
  bool is_owner(unsigned long id) const;

  unsigned int uint_lock_count;
  unsigned int uint_last_cpu;
  unsigned long long ulong_unlock_steady_nanosecond;  // 0 while held
  size_t sizet_thread_id;
  std::mutex mutex_os;
  size_t sizet_thread_id_check;  // stands on the far side of mutex_os on purpose
};

static_assert(sizeof(mutex) == 128, "a mutex fills exactly one 128-byte line");

// Scoped lock. The std::mutex form locks and unlocks only when threads are active; for the
// library's own mutex, which makes that test inside, it always calls through.
template <typename M>
class lock_guard {
 public:
  explicit lock_guard(M& m) : d_mutex(m) { d_mutex.lock(); }
  ~lock_guard() { d_mutex.unlock(); }
  lock_guard(const lock_guard&) = delete;
  lock_guard& operator=(const lock_guard&) = delete;

 private:
  M& d_mutex;
};

template <>
class lock_guard<std::mutex> {
 public:
  explicit lock_guard(std::mutex& m) : d_mutex(m) {
    if (threads_active()) d_mutex.lock();
  }
  ~lock_guard() {
    if (threads_active()) d_mutex.unlock();
  }
  lock_guard(const lock_guard&) = delete;
  lock_guard& operator=(const lock_guard&) = delete;

 private:
  std::mutex& d_mutex;
};

// One ordinary mutex despite its name; it guards the first piece of the per-CPU page supplies.
extern mutex g_spin_lock_simple;

}  // namespace quorla
