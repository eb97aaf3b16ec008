// malloc_stats: a snapshot taken structure by structure; totals of different sections need
// not agree under load. Each section takes at most one lock, its own, and gives it up before
// the next: g_mutex_mmap for the mappings, the root pool's mutex, each per-CPU pool's and
// each page supply entry's mutex, then the registry's. Lines are built on the stack (2048
// bytes) and written to standard output with one fputs each; nothing here allocates.
//
// quorla_free_fail, the report of a release that could not be applied, lives here too.
#include "diagnostics/quorla_malloc_stats.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "quorlamalloc.h"
#include "foundation/quorla_machine.h"
#include "foundation/quorla_memory_size_out.h"
#include "foundation/quorla_stack_message.h"
#include "foundation/quorla_thread_self.h"
#include "os_memory/quorla_os_mmap.h"
#include "os_memory/quorla_wait_release_ptr_part_numa_node.h"
#include "page_heap/quorla_bitmap_page_part_cpu.h"
#include "page_heap/quorla_memory_pool_base.h"
#include "page_heap/quorla_pool_size_128_policy.h"
#include "startup/quorla_before_init.h"
#include "startup/quorla_memory_settings.h"
#include "thread_heap/quorla_thread_registry.h"

namespace quorla {

namespace {

using Stats_line = Stack_message<2048>;

void print_mapped_memory() {
  Stats_line line;
  line.text("\r\nLibquorlamalloc os_byte=");
  g_mutex_mmap.lock();
  unsigned long all_byte = g_locking_sizet_os_malloc_all_size;
  unsigned long hugepage2m_byte = static_cast<unsigned long>(g_locking_uint_os_malloc_hugepage2m_count) << 21;
  append_memory_size(line, all_byte);
  append_memory_size(line.text(", os_page_byte="), all_byte - hugepage2m_byte);
  if (g_bool_memory_use_hugepage2m) append_memory_size(line.text(", os_hugepage_2M_byte="), hugepage2m_byte);
  g_mutex_mmap.unlock();
  line.end_line().write(stdout);
}

// Amounts of the low 32 bits: the heap is one sbrk block of 32-bit size.
void print_before_init_heap() {
  unsigned int all_byte = g_memory_first_init_data.get_all_byte();
  unsigned int use_byte = static_cast<unsigned int>(g_memory_first_init_data.get_use_byte());
  unsigned int free_byte = all_byte - use_byte;
  Stats_line line;
  append_memory_size(line.text("Libquorlamalloc shared_page all_byte="), all_byte);
  append_memory_size(line.text(", use_byte="), use_byte);
  append_memory_size(line.text(", free_byte="), free_byte);
  append_free_rate_end(line, free_byte, all_byte).write(stdout);
}

void print_root_pool() {
  Memory_pool_size_128_base& pool = g_memory_pool_size_128_base;
  pool.mutex_ar_atomic.lock();
  unsigned long pieces = pool.get_piece_count();
  unsigned long all_byte = (static_cast<unsigned long>(pool.uint_block_byte) << 9) * pieces;
  unsigned long free_bit = pool.get_free_bit_count();
  pool.mutex_ar_atomic.unlock();
  if (all_byte == 0) return;
  Stats_line line;
  append_memory_size(line.text("Libquorlamalloc metadata_shared_tiny_block all_byte="), all_byte);
  append_bits_end(line, pieces << 9, free_bit).write(stdout);
}

void print_part_cpu() {
  for (Memory_pool_size_128& pool : g_ar_memory_pool_size_128) {
    pool.mutex_pool.lock();
    pool.print_use_byte("Libquorlamalloc metadata_cpu_tiny_block cpu=");
    pool.mutex_pool.unlock();
  }
  for (Memory_page_part_cpu& entry : g_ar_memory_malloc_page_part_cpu) {
    entry.mutex_group.lock();
    entry.print_use_byte("Libquorlamalloc metadata_cpu_page_block cpu=");
    entry.mutex_group.unlock();
  }
}

// Only once the background thread runs: before that the cache has nothing it tends.
void print_region_cache() {
  if (!g_bool_memory_use_thread_background) return;
  Stats_line head;
  head.text("Libquorlamalloc numa_node_count=").dec(g_uint_numa_node_count).end_line().write(stdout);
  const Memory_wait_release_ptr_part_numa_node& cache = g_memory_wait_release_ptr_part_numa_node;
  if (cache.ptr_ar_node == nullptr) return;
  unsigned long all_byte = cache.get_all_byte();
  if (all_byte == 0) return;
  Stats_line line;
  append_memory_size(line.text("Libquorlamalloc numa_node_2m_block_queue all_byte="), all_byte);
  unsigned long byte_page = cache.get_byte_page();
  unsigned long byte_hugepage2m = cache.get_byte_hugepage2m();
  if (byte_page != 0) append_memory_size(line.text(", byte_page="), byte_page);
  if (byte_hugepage2m != 0) append_memory_size(line.text(", byte_hugepage2M="), byte_hugepage2m);
  line.end_line().write(stdout);
}

// The standard error the process started with, kept apart for the report at exit: many
// programs close their standard streams in an exit handler of their own, which runs before
// this one (handlers run in reverse order of registration, and ours is registered first).
int g_int_stats_at_exit_fd = -1;

// The report at exit goes to standard error, apart from the program's own output. stdio
// needs a stream on the kept descriptor (fdopen's one allocation, served by the allocator like
// any other, before the report starts); the report itself writes to stdout, which points at
// that stream while it runs.
void malloc_stats_at_exit() {
  FILE* stream = fdopen(g_int_stats_at_exit_fd, "w");
  if (stream == nullptr) return;
  FILE* saved = stdout;
  stdout = stream;
  malloc_stats();
  stdout = saved;
  fclose(stream);
}

}  // namespace

void malloc_stats() {
  print_mapped_memory();
  print_before_init_heap();
  print_root_pool();
  print_part_cpu();
  print_region_cache();
  g_memory_thread_id_thread_local_data.print_use_byte_str();
  // The report is whole before the program writes anything else.
  fflush(stdout);
}

bool register_malloc_stats_at_exit() {
  const char* value = getenv("QUORLAMALLOC_STATS_AT_EXIT");
  if (value == nullptr || value[0] == 0 || strcmp(value, "0") == 0) return false;
  g_int_stats_at_exit_fd = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
  if (g_int_stats_at_exit_fd < 0) return false;
  return atexit(malloc_stats_at_exit) == 0;
}

}  // namespace quorla

extern "C" {

QUORLA_EXPORT void quorla_malloc_stats() noexcept { quorla::malloc_stats(); }

QUORLA_EXPORT void quorla_free_fail(void* ptr, unsigned int error_number) noexcept {
  quorla::Stack_message<128>()
      .text("Error: quorla_free() failed. error point. ptr=")
      .hex_lower(ptr)
      .text(", error_number=")
      .dec(error_number)
      .text(", thread_id_this=")
      .hex_lower(quorla::thread_self())
      .end_line()
      .write(stderr);
}

#if QUORLA_STANDARD_NAMES
QUORLA_EXPORT void malloc_stats() noexcept __attribute__((alias("quorla_malloc_stats")));
#endif

}  // extern "C"
