// A program on libquorlamalloc.so for the configuration tests: it makes the allocations that
// its arguments name, in order, and then prints the sixteen settings as the allocator holds
// them, with the message level, the gate's count and the first-128-byte flag, one
// "name=value" line each on standard output. The allocations between the actions and the
// printing are only those the actions name: the printing itself uses the stack.
//
//   config_probe [small] [128] [large] [region] [thread] [race N] [race128 N]
//
//   small    malloc(64), free           (no trigger)
//   128      malloc(128), free          (the first 128-byte request)
//   errno128 malloc(128) with errno set to EDOM before: prints errno after it; free
//   large    malloc(3 MB): prints how many of its pages are resident before any touch; free
//   region   malloc(2 MB): prints whether the background thread was started or requested; free
//   thread   a second thread allocates 64 bytes, then the main thread allocates 64 bytes
//   race N   N threads wait at one barrier, then each makes one large allocation
//   race128 N  the same with one 128-byte allocation each
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "library_symbol.h"

namespace {

constexpr size_t k_large = 3u << 20;
constexpr size_t k_region = 2097152;

void print_line(const char* text) {
  if (write(1, text, strlen(text)) < 0) _exit(3);
}

template <class T>
T read_global(const char* name) {
  void* address = library_symbol::quorla_global(name);
  if (address == nullptr) {
    char line[256];
    snprintf(line, sizeof(line), "missing symbol %s\n", name);
    if (write(2, line, strlen(line)) < 0) _exit(3);
    _exit(2);
  }
  T value;
  memcpy(&value, address, sizeof(T));
  return value;
}

void print_value(const char* key, unsigned long value) {
  char line[256];
  snprintf(line, sizeof(line), "%s=%lu\n", key, value);
  print_line(line);
}

enum Kind { k_bool, k_uchar, k_uint, k_ulong };
struct Global {
  const char* key;   // the key of the file, or the probe's own name
  const char* name;  // the global in namespace quorla
  Kind kind;
};

const Global k_globals[] = {
    {"uint_microseconds_thread_background_sleep", "g_uint_microseconds_memory_thread_background_sleep_default", k_uint},
    {"ulong_size_use_thread_background_threshold", "g_ulong_memory_size_use_thread_background_threshold", k_ulong},
    {"bool_enable_thread_background", "g_bool_memory_enable_thread_background", k_bool},
    {"bool_enable_thread_background_use_page_prefault", "g_bool_memory_enable_thread_background_page_prefault", k_bool},
    {"uint_thread_background_div_number_calc_prepare_2m", "g_uint_memory_thread_background_div_number_calc_prepare_2m", k_uint},
    {"uint_thread_background_need_prepare_2m_count_limt", "g_uint_memory_thread_background_need_prepare_2m_count_limt", k_uint},
    {"uint_microseconds_thread_background_force_release_one_2m",
     "g_uint_microseconds_memory_thread_background_force_release_one_2m", k_uint},
    {"uint_vt_thread_local_wait_reuse_limit_size", "g_uint_memory_vt_thread_local_wait_reuse_limit_size", k_uint},
    {"uint_wait_microseconds_between_release_2m", "g_uint_memory_wait_microseconds_between_release_2m", k_uint},
    {"bool_enable_numa_memory_bind", "g_bool_memory_enable_numa_memory_bind", k_bool},
    {"uint_auto_bind_phy_cpu_count", "g_uint_memory_auto_bind_phy_cpu_count", k_uint},
    {"bool_enable_auto_bind_cpu", "g_bool_memory_enable_auto_bind_cpu", k_bool},
    {"bool_enable_hugepage2m", "g_bool_memory_enable_hugepage2m", k_bool},
    {"bool_enable_page_prefault", "g_bool_memory_enable_page_prefault", k_bool},
    {"bool_enable_thread_background_clear_cpu_cache", "g_bool_memory_enable_thread_background_clear_cpu_cache", k_bool},
    {"uint_max_wait_milliseconds_before_clear_cpu_cache", "g_uint_memory_max_wait_milliseconds_before_clear_cpu_cache", k_uint},
    {"message_level", "g_uchar_message_out_level", k_uchar},
    {"gate_count", "g_atomic_uint_memory_check_program_config_count", k_uint},
    {"first_128", "g_uint_memory_malloc_128byte_count", k_uint},
};

unsigned long read_kind(const Global& global) {
  switch (global.kind) {
    case k_bool:
      return read_global<bool>(global.name) ? 1 : 0;
    case k_uchar:
      return read_global<unsigned char>(global.name);
    case k_uint:
      return read_global<unsigned int>(global.name);
    case k_ulong:
      return read_global<unsigned long>(global.name);
  }
  return 0;
}

// The pages of [p, p + size) that are resident, by mincore; the vector lives on the stack.
unsigned long resident_pages(void* p, size_t size) {
  static unsigned char vec[k_large / 4096];
  if (mincore(p, size, vec) != 0) return ~0UL;
  unsigned long count = 0;
  for (size_t i = 0; i < size / 4096; ++i) count += vec[i] & 1;
  return count;
}

pthread_barrier_t g_barrier;
size_t g_race_size = 0;

void* race_one(void*) {
  pthread_barrier_wait(&g_barrier);
  void* p = malloc(g_race_size);
  static_cast<volatile char*>(p)[0] = 1;
  free(p);
  return nullptr;
}

void race(unsigned n, size_t size) {
  if (n == 0 || n > 64) _exit(4);
  g_race_size = size;
  pthread_barrier_init(&g_barrier, nullptr, n);
  pthread_t threads[64];
  for (unsigned i = 0; i < n; ++i) pthread_create(&threads[i], nullptr, race_one, nullptr);
  for (unsigned i = 0; i < n; ++i) pthread_join(threads[i], nullptr);
  pthread_barrier_destroy(&g_barrier);
}

void* allocate_64(void*) {
  void* p = malloc(64);
  static_cast<volatile char*>(p)[0] = 1;
  free(p);
  return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const char* action = argv[i];
    if (strcmp(action, "small") == 0 || strcmp(action, "128") == 0) {
      void* p = malloc(action[0] == 's' ? 64 : 128);
      static_cast<volatile char*>(p)[0] = 1;
      free(p);
    } else if (strcmp(action, "errno128") == 0) {
      errno = EDOM;
      void* p = malloc(128);
      int after = errno;
      print_value("errno_after_128", static_cast<unsigned long>(after));
      free(p);
    } else if (strcmp(action, "large") == 0) {
      void* p = malloc(k_large);
      print_value("large_resident_pages", resident_pages(p, k_large));
      free(p);
    } else if (strcmp(action, "region") == 0) {
      void* p = malloc(k_region);
      // The large path starts the thread itself when it can, or leaves the request to malloc.
      print_value("background_after_region", read_global<bool>("g_bool_memory_need_enable_thread_background") ||
                                                 read_global<bool>("g_bool_memory_use_thread_background"));
      free(p);
    } else if (strcmp(action, "thread") == 0) {
      pthread_t thread;
      pthread_create(&thread, nullptr, allocate_64, nullptr);
      pthread_join(thread, nullptr);
      allocate_64(nullptr);
    } else if ((strcmp(action, "race") == 0 || strcmp(action, "race128") == 0) && i + 1 < argc) {
      race(static_cast<unsigned>(atoi(argv[i + 1])), action[4] == 0 ? k_large : 128);
      ++i;
    } else {
      print_line("unknown action\n");
      return 1;
    }
  }
  for (const Global& global : k_globals) print_value(global.key, read_kind(global));
  return 0;
}
