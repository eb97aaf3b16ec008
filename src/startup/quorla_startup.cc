// The library's one static initialiser. Every global that needs construction is defined in
// this file, so that the language's in-order initialisation of one translation unit gives
// the start-up order, and exit runs the destructors in reverse:
//
//   machine facts  ->  constant strings  ->  topology, epoch and clocks  ->  g_spin_lock_simple  ->  g_crc32c  ->  g_mutex_mmap
//   ->  the binding counter  ->  g_memory_pool_size_128_base  ->  the region cache  ->  the eight page supplies  ->  the eight 128-byte pools
//   ->  the thread registry (the main thread's heap)  ->  the crash-log names  ->  the background thread
//   ->  the fork handlers  ->  g_program_config
//   ->  the large-allocation table
//   ->  g_quorla_memory_malloc_guard (the magic: the real allocator is on)  ->  traits
//
// Each step uses only those before it. Until the guard, malloc is served by the before-init
// heap; after the registry's destructor has run, again.
#include <pthread.h>
#include <unistd.h>

#include <thread>

#include "diagnostics/quorla_error_message.h"
#include "diagnostics/quorla_malloc_stats.h"
#include "foundation/quorla_crc32c.h"
#include "foundation/quorla_machine.h"
#include "foundation/quorla_mutex.h"
#include "foundation/quorla_pause.h"
#include "foundation/quorla_string_constant.h"
#include "foundation/quorla_thread_self.h"
#include "foundation/quorla_time_string.h"
#include "startup/quorla_memory_settings.h"
#include "os_memory/quorla_os_mmap.h"
#include "page_heap/quorla_bitmap_page_part_cpu.h"
#include "page_heap/quorla_memory_pool_base.h"
#include "os_memory/quorla_os_umap_ptr_size.h"
#include "os_memory/quorla_thread_background.h"
#include "os_memory/quorla_wait_release_ptr_part_numa_node.h"
#include "page_heap/quorla_pool_size_128_policy.h"
#include "startup/quorla_before_init.h"
#include "startup/quorla_fork.h"
#include "startup/quorla_program_config.h"
#include "thread_heap/quorla_thread_registry.h"
#include "topology/quorla_cpu_bind.h"
#include "topology/quorla_numa.h"

extern "C" QUORLA_EXPORT void* quorla_malloc(size_t size) noexcept;
extern "C" QUORLA_EXPORT void quorla_free(void* ptr) noexcept;

namespace quorla {

namespace {

struct Startup_machine {
  Startup_machine() {
    g_bool_big_endian = false;
    g_uint_cpu_count = static_cast<unsigned int>(sysconf(_SC_NPROCESSORS_ONLN));
  }
} g_startup_machine;

}  // namespace

// Built on the start-up heap: the magic is not set yet.
string g_str_empty("");
string g_str_blank(" ");
string g_str_ampersand("&");
string g_str_equal("=");
string g_str_colon(":");
string g_str_minus("-");
string g_str_comma(",");
string g_str_zero("0");
string g_str_blank_zero(" 0");
string g_str_blank_zero_blank(" 0 ");
string g_str_zero_blank("0 ");
string g_str_crlf("\r\n");
string g_str_crlf_crlf("\r\n\r\n");
string g_str_crlf_end_crlf("\r\nEND\r\n");
string g_str_end_crlf("END\r\n");
string g_str_close("close");
string g_str_txt(".txt");
string g_str_double_blank("  ");

namespace {

struct Startup_topology_and_clocks {
  Startup_topology_and_clocks() {
    g_uint_numa_max_node = numa_data_init();
    g_uint_numa_node_count = g_uint_numa_max_node + 1;
    // The epoch constant, both clocks read once (the local read loads the zone, on the
    // start-up heap), the zone offset, and the start and now times.
    time_string_init();
    g_uint_hardware_concurrency = std::thread::hardware_concurrency();
    if (g_uint_hardware_concurrency == 0) g_uint_hardware_concurrency = 1;
    verify_thread_self();
    g_sizet_main_thread_id = thread_self();
    g_uint_mutex_wait_step = 128 / (g_uint_hardware_concurrency + 1) + 1;
  }
} g_startup_topology_and_clocks;

}  // namespace

mutex g_spin_lock_simple;
Crc32c g_crc32c;
namespace {
struct Startup_crc {
  Startup_crc() { Crc32c::d_bool_has_sse4_2 = Crc32c::is_cpu_support_sse4_2(); }
} g_startup_crc;
}  // namespace
mutex g_mutex_mmap;
namespace {
// The first placement avoids the CPU of the loading thread.
struct Startup_bind_cpu_offset {
  Startup_bind_cpu_offset() {
    int int_cpu = sched_getcpu();
    unsigned int uint_cpu = int_cpu < 0 ? 0u : static_cast<unsigned int>(int_cpu);
    g_atomic_uint_memory_bind_cpu_offset.store((uint_cpu + 1) % g_uint_hardware_concurrency);
  }
} g_startup_bind_cpu_offset;
}  // namespace
Memory_pool_size_128_base g_memory_pool_size_128_base;
// After the root pool, before the page supplies: their empty pieces hand regions back to it
// until its destructor, which runs after theirs.
Memory_wait_release_ptr_part_numa_node g_memory_wait_release_ptr_part_numa_node;
std::array<Memory_page_part_cpu, 8> g_ar_memory_malloc_page_part_cpu;
std::array<Memory_pool_size_128, 8> g_ar_memory_pool_size_128;
Memory_thread_id_thread_local_data g_memory_thread_id_thread_local_data;
string g_str_crash_log_path("/tmp");
string g_str_crash_log_file("crash.log");
string g_str_crash_path_file_name("crash.log");
// Not started here: the first request to start it comes from a second thread, enough mapped
// memory or mallopt. Destroyed after the guard, whose destructor has already joined it.
Memory_thread_background g_memory_thread_background;
namespace {
struct Startup_fork {
  Startup_fork() { memory_fork_register(); }
} g_startup_fork;
}  // namespace
// The "=" form of lines; the file is read later, at the first trigger of the settings gate.
Program_config g_program_config(true);
Memory_os_umap_ptr_size g_memory_os_umap_ptr_size;

// The switch. Its constructor turns the real allocator on and takes the first real block,
// which drives the chain through the main thread's heap down to the page supply; its
// destructor begins the end.
class Quorla_memory_malloc_guard {
 public:
  Quorla_memory_malloc_guard() {
    // Everything built above is visible to anyone who sees the magic.
    store_fence();
    g_uint_memory_magic_flag_malloc_can_use = k_memory_magic_flag;
    pthread_key_create(&g_memory_pthread_key_thread_id, quorla_memory_notify_at_thread_exit);
    ptr_first_malloc = quorla_malloc(1);
    register_malloc_stats_at_exit();
    thread_pause_nanosecond();
  }
  ~Quorla_memory_malloc_guard() {
    g_bool_exit = true;
    quorla_free(ptr_first_malloc);
    thread_pause_nanosecond();
    pthread_key_delete(g_memory_pthread_key_thread_id);
    // At most one sleep and one round; the cache it works on is destroyed later.
    if (g_bool_memory_use_thread_background) g_memory_thread_background.wait_background_thread_exit();
  }
  void* ptr_first_malloc;
};

Quorla_memory_malloc_guard g_quorla_memory_malloc_guard;

}  // namespace quorla
