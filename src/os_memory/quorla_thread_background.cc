#include "os_memory/quorla_thread_background.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "foundation/quorla_pause.h"
#include "foundation/quorla_stack_message.h"
#include "os_memory/quorla_os_mmap.h"
#include "os_memory/quorla_wait_release_ptr_part_numa_node.h"
#include "startup/quorla_before_init.h"
#include "startup/quorla_memory_settings.h"
#include "topology/quorla_cpu_bind.h"

namespace quorla {

bool g_bool_thread_start = false;

Memory_thread_background::Memory_thread_background() : thread_id(), bool_run(false), bool_exit(false) {}

Memory_thread_background::~Memory_thread_background() { wait_background_thread_exit(); }

void Memory_thread_background::enable() {
  if (g_bool_memory_enable_thread_background) force_enable();
}

void Memory_thread_background::force_enable() {
  if (g_bool_memory_use_thread_background || g_uint_memory_magic_flag_malloc_can_use != k_memory_magic_flag) return;
  mutex_enable.lock();
  if (!g_bool_memory_use_thread_background && g_uint_memory_magic_flag_malloc_can_use == k_memory_magic_flag) {
    // Set before the thread exists: a racing caller that passes the unlocked test waits on the
    // lock and then sees it.
    g_bool_memory_use_thread_background = true;
    store_fence();
    if (pthread_create(&thread_id, nullptr, &thread_background_static_thread_run, this) != 0) {
      g_bool_memory_use_thread_background = false;
      g_bool_memory_enable_thread_background = false;
      store_fence();
      print_error("Error: Memory_thread_background::force_enable() pthread_create() failed.");
    }
  }
  mutex_enable.unlock();
}

void Memory_thread_background::wait_background_thread_exit() {
  if (!bool_run) return;
  mutex_enable.lock();
  if (bool_run) {
    bool_run = false;
    bool_exit = true;
    store_fence();
    if (pthread_join(thread_id, nullptr) != 0) {
      print_error("Error: Memory_thread_background::wait_background_thread_exit() pthread_join() failed.");
    }
  }
  mutex_enable.unlock();
}

void Memory_thread_background::thread_run() {
  bool_run = true;
  store_fence();
  // Binding is always to two CPUs here, whatever the per-thread setting says.
  if (g_bool_memory_enable_auto_bind_cpu) auto_bind_this_thread_two_cpu();
  // The first huge-page probe runs here, off every allocation path.
  if (!g_bool_memory_has_try_use_hugepage2m) {
    g_bool_memory_has_try_use_hugepage2m = true;
    if (g_bool_memory_enable_hugepage2m) memory_try_enable_hugepage2m();
  }
  while (!__atomic_load_n(&bool_exit, __ATOMIC_RELAXED)) {
    refresh_timet_millisecond_now_steady();
    store_fence();
    // The cache sets the next sleep: halved towards 50 us while demand outruns supply, the
    // default when calm.
    g_memory_wait_release_ptr_part_numa_node.background_thread_run();
    store_fence();
    usleep(g_uint_microseconds_memory_thread_background_sleep_run);
  }
  store_fence();
}

void* Memory_thread_background::thread_background_static_thread_run(void* ptr_this) {
  static_cast<Memory_thread_background*>(ptr_this)->thread_run();
  return nullptr;
}

void Memory_thread_background::print_error(const char* ptr_char_text) {
  int int_errno = errno;
  Stack_message<1024> line;
  line.text(ptr_char_text);
  if (int_errno != 0) line.text(" errno=").dec_signed(int_errno).text(", strerror=").text(strerror(int_errno));
  line.end_line().write();
}

void Memory_thread_background::forget_thread_after_fork() {
  bool_run = false;
  bool_exit = false;
  thread_id = pthread_t();
}

}  // namespace quorla
