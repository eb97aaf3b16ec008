#include "topology/quorla_cpu_bind.h"

#include <pthread.h>

#include <cstring>

#include "foundation/quorla_conversion.h"
#include "foundation/quorla_machine.h"
#include "foundation/quorla_memory_util.h"
#include "foundation/quorla_pause.h"
#include "foundation/quorla_stack_message.h"
#include "startup/quorla_memory_settings.h"

namespace quorla {

std::atomic<unsigned int> g_atomic_uint_memory_bind_cpu_offset{0};

namespace {

constexpr unsigned int k_uint_cpu_set_bit = 1024;      // sizeof(cpu_set_t) * 8
constexpr unsigned long k_ulong_sibling_buffer = 1023;  // at most 1022 bytes are read

static_assert(sizeof(cpu_set_t) * 8 == k_uint_cpu_set_bit, "CPU sets are 128 bytes");

int get_affinity_of_this_thread(cpu_set_t* ptr_set) {
  return pthread_getaffinity_np(pthread_self(), sizeof(cpu_set_t), ptr_set);
}

int set_affinity_of_this_thread(const cpu_set_t* ptr_set) {
  return pthread_setaffinity_np(pthread_self(), sizeof(cpu_set_t), ptr_set);
}

QUORLA_INLINE void set_cpu_bit(cpu_set_t* ptr_set, unsigned int uint_cpu) {
  if (uint_cpu < k_uint_cpu_set_bit) CPU_SET(uint_cpu, ptr_set);
}

// Walks thread_siblings_list of CPU c: every number that parses without overflow and differs
// from c counts one more CPU, and its bit is set when a set is given. Returns the count,
// which starts at 1 for c itself; without the file it is 1.
unsigned int walk_sibling_list(unsigned int uint_c, cpu_set_t* ptr_set) {
  Stack_message<512> path;
  path.text(g_cpu_bind_system.ptr_char_cpu_root).text("/cpu").dec(uint_c).text("/topology/thread_siblings_list");
  char ar_char_text[k_ulong_sibling_buffer + 1] = {};
  if (!file_to_chars(path.c_str(), k_ulong_sibling_buffer, ar_char_text)) return 1;
  unsigned int uint_count = 1;
  const char* ptr_char = ar_char_text;
  for (;;) {
    bool bool_overflow = false;
    unsigned int uint_cpu = chars_to_uint(ptr_char, strlen(ptr_char), bool_overflow);
    if (!bool_overflow && uint_cpu != uint_c) {
      ++uint_count;
      if (ptr_set != nullptr) set_cpu_bit(ptr_set, uint_cpu);
    }
    const char* ptr_char_comma = strchr(ptr_char, ',');
    if (ptr_char_comma == nullptr) break;
    ptr_char = ptr_char_comma + 1;
  }
  return uint_count;
}

// The pauses stand on both sides of the change; the second one also after a failure.
QUORLA_INLINE bool apply_affinity(const cpu_set_t* ptr_set) {
  thread_pause_nanosecond();
  int int_result = g_cpu_bind_system.set_affinity(ptr_set);
  thread_pause_nanosecond();
  return int_result == 0;
}

// The common start of the automatic placements: on a machine of more than 2 CPUs, for a thread
// that may still run everywhere, the next CPU of the counter; otherwise false.
bool take_next_cpu(unsigned int& uint_cpu) {
  unsigned int uint_concurrency = g_uint_hardware_concurrency;
  if (uint_concurrency <= 2) return false;
  if (get_this_thread_cpu_affinity_bind_count() < uint_concurrency) return false;
  uint_cpu = g_atomic_uint_memory_bind_cpu_offset.fetch_add(1) % uint_concurrency;
  return true;
}

}  // namespace

Cpu_bind_system cpu_bind_system_of_this_machine() {
  return Cpu_bind_system{&get_affinity_of_this_thread, &set_affinity_of_this_thread, k_cpu_root};
}

Cpu_bind_system g_cpu_bind_system = cpu_bind_system_of_this_machine();

unsigned int get_this_thread_cpu_affinity_bind_count() {
  cpu_set_t set;
  CPU_ZERO(&set);
  thread_pause_nanosecond();
  unsigned int uint_concurrency = g_uint_hardware_concurrency;
  if (g_cpu_bind_system.get_affinity(&set) != 0) return uint_concurrency;
  unsigned int uint_count = 0;
  for (unsigned int i = 0; i < uint_concurrency && i < k_uint_cpu_set_bit; ++i) {
    if (CPU_ISSET(i, &set)) ++uint_count;
  }
  return uint_count;
}

unsigned int get_logic_cpu_count_of_phy_cpu(unsigned int uint_cpu) {
  return walk_sibling_list(uint_cpu % g_uint_hardware_concurrency, nullptr);
}

unsigned int set_this_thread_bind_one_phy_cpu(unsigned int uint_cpu) {
  unsigned int uint_c = uint_cpu % g_uint_hardware_concurrency;
  cpu_set_t set;
  CPU_ZERO(&set);
  set_cpu_bit(&set, uint_c);
  unsigned int uint_count = walk_sibling_list(uint_c, &set);
  if (!apply_affinity(&set)) {
    Stack_message<1024>()
        .text("Error: set_this_thread_bind_one_phy_cpu() failed. cpu_in=").dec(uint_c)
        .text(", bind_cpu_count=").dec(uint_count).end_line().write();
  }
  return uint_count;
}

void numa_this_thread_bind_cpu_node(unsigned int uint_first, unsigned int uint_most) {
  const unsigned int uint_concurrency = g_uint_hardware_concurrency;
  const unsigned char uchar_node = g_ar_uchar_numa_node_offset_cpu[uint_first % k_max_cpu_count];
  const unsigned char uchar_node0 = g_ar_uchar_numa_node_offset_cpu[0];
  cpu_set_t set;
  CPU_ZERO(&set);
  unsigned int i = uint_first;
  unsigned int uint_visited = 0;
  unsigned int uint_bound = 0;
  while (uint_visited <= uint_concurrency) {
    if (i < uint_concurrency) {
      if (g_ar_uchar_numa_node_offset_cpu[i % k_max_cpu_count] == uchar_node) {
        set_cpu_bit(&set, i);
        if (++uint_bound >= uint_most) break;
      }
      ++i;
      ++uint_visited;
    } else {
      // Wrap: CPU 0 is taken care of here and not visited again.
      if (uchar_node0 == uchar_node) {
        set_cpu_bit(&set, 0);
        if (++uint_bound >= uint_most) break;
      }
      i = 1;
      ++uint_visited;
    }
  }
  if (!apply_affinity(&set)) {
    Stack_message<1024>()
        .text("Error: numa_this_thread_bind_cpu_node() failed. cpu_offset_begin=").dec(uint_first)
        .text(", cpu_max_bind_count=").dec(uint_most).text(", numa_node=").dec(uchar_node)
        .end_line().write();
  }
}

unsigned int this_thread_auto_bind_one_phy_cpu() {
  unsigned int uint_cpu;
  if (!take_next_cpu(uint_cpu)) return 0;
  return set_this_thread_bind_one_phy_cpu(uint_cpu);
}

void auto_bind_this_thread_one_cpu() {
  unsigned int uint_cpu;
  if (take_next_cpu(uint_cpu)) set_this_thread_bind_one_phy_cpu(uint_cpu);
}

void auto_bind_this_thread_two_cpu() {
  unsigned int uint_cpu;
  if (!take_next_cpu(uint_cpu)) return;
  if (get_logic_cpu_count_of_phy_cpu(uint_cpu) >= 2) {
    set_this_thread_bind_one_phy_cpu(uint_cpu);
  } else {
    numa_this_thread_bind_cpu_node(uint_cpu, 2);
  }
}

void auto_bind_new_thread() {
  if (!g_bool_memory_enable_auto_bind_cpu) return;
  if (g_uint_memory_auto_bind_phy_cpu_count == 2) {
    auto_bind_this_thread_two_cpu();
  } else {
    auto_bind_this_thread_one_cpu();
  }
}

}  // namespace quorla
