// Placement of threads on CPUs: every thread that gets a heap of its own, and the background
// thread, is bound round-robin either to all logical CPUs of one physical core or to two CPUs
// of one node. A thread whose affinity is already narrower than the machine (by the user,
// taskset, a cgroup cpuset, or an earlier binding) is left alone, so binding never widens a
// thread and never moves it outside the CPUs it was allowed.
//
// Invariants: nothing here allocates (it runs while the registry sets up the calling thread,
// under its lock); texts are read into stack buffers. Each function affects only the calling
// thread. CPU sets are 1024 bits; numbers from 1024 up are dropped. A failed affinity change
// writes one line and leaves the thread as it was. Binding runs once per thread, never on an
// allocation path after that thread's first.
#pragma once

#include <sched.h>

#include <atomic>

#include "foundation/quorla_base.h"

namespace quorla {

constexpr const char* k_cpu_root = "/sys/devices/system/cpu";

// Round-robin counter of placements; the static initialiser starts it on the CPU after the
// loading thread's own. It only grows and wraps at 32 bits.
extern std::atomic<unsigned int> g_atomic_uint_memory_bind_cpu_offset;

// How binding sees the machine: the calling thread's affinity and the directory of the
// per-CPU topology files. Written only by tests, which show the library another machine.
struct Cpu_bind_system {
  int (*get_affinity)(cpu_set_t* ptr_set);        // 0 on success, as pthread_getaffinity_np
  int (*set_affinity)(const cpu_set_t* ptr_set);  // 0 on success, as pthread_setaffinity_np
  const char* ptr_char_cpu_root;
};
extern Cpu_bind_system g_cpu_bind_system;
// The real calls on pthread_self() and k_cpu_root.
Cpu_bind_system cpu_bind_system_of_this_machine();

// CPUs below g_uint_hardware_concurrency the calling thread may run on; when the affinity
// cannot be read, g_uint_hardware_concurrency (reads as unrestricted).
unsigned int get_this_thread_cpu_affinity_bind_count();
// Logical CPUs of cpu's physical core, from its thread_siblings_list; 1 without the file.
// Only commas separate entries: a range "0-1" counts as its first number.
unsigned int get_logic_cpu_count_of_phy_cpu(unsigned int uint_cpu);
// Binds the calling thread to cpu and its siblings; returns how many CPUs the set holds.
unsigned int set_this_thread_bind_one_phy_cpu(unsigned int uint_cpu);
// Binds the calling thread to at most uint_most CPUs of first's node, walking upward from
// first and wrapping to CPU 0.
void numa_this_thread_bind_cpu_node(unsigned int uint_first, unsigned int uint_most);

// The automatic placements. Each does nothing on a machine of 2 CPUs or fewer, or for a
// thread already narrowed; otherwise it takes the next CPU of the round-robin counter.
unsigned int this_thread_auto_bind_one_phy_cpu();  // exported for programs; 0 when it did nothing
void auto_bind_this_thread_two_cpu();   // the core of the CPU if it has siblings, else two CPUs of its node
void auto_bind_this_thread_one_cpu();   // the core of the CPU
// The step of a newly registered thread: the placement the settings ask for, if binding is on.
void auto_bind_new_thread();

}  // namespace quorla
