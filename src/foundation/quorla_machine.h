// Facts about the machine, written once by the static initialiser and the topology scan
// and read without locks afterwards. They live here, at the bottom, because the lock of
// the foundation and the rings of the queues read them.
#pragma once

#include <sched.h>

#include "foundation/quorla_base.h"

namespace quorla {

constexpr unsigned int k_max_cpu_count = 136;

extern bool g_bool_big_endian;
extern unsigned int g_uint_cpu_count;              // sysconf(_SC_NPROCESSORS_ONLN)
extern unsigned int g_uint_hardware_concurrency;   // std::thread::hardware_concurrency()
extern unsigned int g_uint_numa_max_node;          // 0: one node; hot code then skips sched_getcpu()
extern unsigned int g_uint_numa_node_count;
extern unsigned char g_ar_uchar_numa_node_offset_cpu[k_max_cpu_count];         // CPU -> node
extern unsigned char g_ar_uchar_numa_node_memory_offset_cpu[k_max_cpu_count];  // CPU -> memory node
extern unsigned int g_uint_mutex_wait_step;        // 128 / (hardware_concurrency + 1) + 1

// The node of the calling thread's CPU, without sched_getcpu() on a one-node machine.
QUORLA_INLINE unsigned int current_numa_node() {
  if (g_uint_numa_max_node == 0) return 0;
  return g_ar_uchar_numa_node_offset_cpu[static_cast<unsigned int>(sched_getcpu()) % k_max_cpu_count];
}

}  // namespace quorla
