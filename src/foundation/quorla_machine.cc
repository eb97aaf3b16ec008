#include "foundation/quorla_machine.h"

#include <pthread.h>

#include "foundation/quorla_stack_message.h"
#include "foundation/quorla_thread_self.h"

namespace quorla {

bool g_bool_big_endian = false;
unsigned int g_uint_cpu_count = 1;
unsigned int g_uint_hardware_concurrency = 1;
unsigned int g_uint_numa_max_node = 0;
unsigned int g_uint_numa_node_count = 1;
unsigned char g_ar_uchar_numa_node_offset_cpu[k_max_cpu_count] = {};
unsigned char g_ar_uchar_numa_node_memory_offset_cpu[k_max_cpu_count] = {};
unsigned int g_uint_mutex_wait_step = 65;

void verify_thread_self() {
  unsigned long fast = thread_self();
  unsigned long real = static_cast<unsigned long>(pthread_self());
  if (fast != real) {
    Stack_message<1024>()
        .text("Error: verify_thread_self() thread identity mismatch. thread_self=")
        .hex_lower(fast)
        .text(", pthread_self=")
        .hex_lower(real)
        .source(__FILE__, __LINE__, __func__)
        .write_and_abort();
  }
}

}  // namespace quorla
