// The recursive lock's acquire and release paths, its misuse messages, and g_spin_lock_simple.
// Fence placement follows x86 ordering: a store fence before publishing, a load fence before
// trusting what another CPU wrote.
#include "foundation/quorla_mutex.h"

#include <sched.h>
#include <unistd.h>

#include "foundation/quorla_machine.h"
#include "foundation/quorla_pause.h"
#include "foundation/quorla_stack_message.h"
#include "foundation/quorla_thread_self.h"

namespace quorla {

namespace {

// Plain loads and stores of the fields that other threads read without the lock. They compile
// to ordinary moves; the builtins only keep the compiler from tearing or caching them.
template <typename T>
QUORLA_INLINE T load_word(const T& word) {
  return __atomic_load_n(&word, __ATOMIC_RELAXED);
}
template <typename T>
QUORLA_INLINE void store_word(T& word, T value) {
  __atomic_store_n(&word, value, __ATOMIC_RELAXED);
}

QUORLA_INLINE unsigned int current_cpu() { return static_cast<unsigned int>(sched_getcpu()); }

// Whether two CPUs sit on different nodes of a machine that has more than one.
QUORLA_INLINE bool on_other_node(unsigned int cpu_a, unsigned int cpu_b) {
  return g_uint_numa_max_node != 0 &&
         g_ar_uchar_numa_node_offset_cpu[cpu_a % k_max_cpu_count] !=
             g_ar_uchar_numa_node_offset_cpu[cpu_b % k_max_cpu_count];
}

}  // namespace

// g_spin_lock_simple is defined by start-up, in the library's load order.

mutex::mutex()
    : uint_lock_count(0),
      uint_last_cpu(0),
      ulong_unlock_steady_nanosecond(get_steady_nanosecond()),
      sizet_thread_id(0),
      mutex_os(),
      sizet_thread_id_check(0) {
  store_fence();
}

mutex::~mutex() {
  load_fence();
  if (load_word(uint_lock_count) == 0) return;
  usleep(10);
  load_fence();
  unsigned int count = load_word(uint_lock_count);
  if (count == 0) return;
  // A lock destroyed while held is reported and otherwise left alone: aborting in a destructor
  // at exit would hide the program's real outcome.
  Stack_message<1024>()
      .text("Error: mutex::~mutex() find locked. lock_count=")
      .dec(count)
      .text(", unlock_thread_id=")
      .hex_upper(load_word(sizet_thread_id))
      .text(", this_thread_id=")
      .hex_upper(thread_self())
      .text(", this=")
      .hex_upper(reinterpret_cast<unsigned long>(this))
      .end_line()
      .write();
}

bool mutex::is_owner(unsigned long id) const {
  if (load_word(sizet_thread_id) != id) return false;
  load_fence();
  return load_word(sizet_thread_id_check) == id;
}

bool mutex::is_this_thread_lock() const {
  load_fence();
  return load_word(sizet_thread_id) == thread_self();
}

void mutex::after_acquire(unsigned long id) {
  unsigned int cpu = current_cpu();
  unsigned int last_cpu = load_word(uint_last_cpu);
  if (cpu != last_cpu) {
    // The protected data was last written on another CPU: give its stores time to drain
    // before this thread reads them.
    if (on_other_node(cpu, last_cpu)) {
      thread_pause_nanosecond();
    } else {
      unsigned long long t = load_word(ulong_unlock_steady_nanosecond);
      if (t != 0) {
        thread_pause_until_steady_nanosecond_limit(t + k_uint_pause_nanosecond);
      } else {
        thread_pause_nanosecond();
      }
    }
    store_word(uint_last_cpu, cpu);
  }
  store_word(ulong_unlock_steady_nanosecond, 0ULL);
  store_word(sizet_thread_id, static_cast<size_t>(id));
  store_word(sizet_thread_id_check, static_cast<size_t>(id));
  store_fence();
  load_fence();
}

void mutex::lock() {
  unsigned long id = thread_self();
  unsigned int cpu = current_cpu();
  store_fence();
  load_fence();
  unsigned int count = load_word(uint_lock_count);
  if (count != 0) {
    if (is_owner(id)) {
      // Recursive entry: only the owner writes the count while the lock is held.
      store_word(uint_lock_count, count + 1);
      return;
    }
    thread_pause_nanosecond();
  }
  if (load_word(uint_lock_count) == 0) {
    // The lock looks free. Waiters on the releasing CPU go at once; waiters on other nodes go at
    // once and pay after the acquisition; waiters elsewhere on the node take turns by CPU
    // number over about 128 ns after the release, lower numbers first.
    unsigned int last_cpu = load_word(uint_last_cpu);
    if (cpu != last_cpu && !on_other_node(cpu, last_cpu)) {
      unsigned long long t = load_word(ulong_unlock_steady_nanosecond);
      if (t != 0) {
        thread_pause_until_steady_nanosecond_limit(t + static_cast<unsigned long long>(cpu + 1) *
                                                           g_uint_mutex_wait_step);
      } else {
        // Somebody has just taken it.
        thread_pause_nanosecond();
      }
    }
  }
  if (threads_active()) mutex_os.lock();  // throws std::system_error on failure
  store_word(uint_lock_count, load_word(uint_lock_count) + 1);
  after_acquire(id);
}

bool mutex::try_lock() {
  unsigned long id = thread_self();
  store_fence();
  load_fence();
  unsigned int count = load_word(uint_lock_count);
  if (count != 0) {
    if (is_owner(id)) {
      store_word(uint_lock_count, count + 1);
      return true;
    }
    thread_pause_nanosecond();
  }
  if (threads_active() && !mutex_os.try_lock()) return false;
  store_word(uint_lock_count, load_word(uint_lock_count) + 1);
  after_acquire(id);
  return true;
}

void mutex::unlock() {
  store_fence();
  // Taken at every level, the inner ones included: cheaper than a branch on the count here.
  store_word(ulong_unlock_steady_nanosecond, get_steady_nanosecond());
  unsigned int cpu = current_cpu();
  if (load_word(uint_last_cpu) != cpu) store_word(uint_last_cpu, cpu);
  unsigned int count = load_word(uint_lock_count) - 1;
  store_word(uint_lock_count, count);
  if (count != 0) return;
  store_word(sizet_thread_id, static_cast<size_t>(0));
  store_word(sizet_thread_id_check, static_cast<size_t>(0));
  if (threads_active()) mutex_os.unlock();
  store_fence();
}

void mutex::unlock_shared() const {
  write_and_abort("Error: mutex::unlock_shared() should not run unlock_shared().\r\n");
}

}  // namespace quorla
