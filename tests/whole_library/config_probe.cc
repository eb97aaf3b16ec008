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
//
// Actions that show what the settings do (each prints its own name=value lines):
//   burst N          N page blocks (each most of a region) mapped, touched and freed
//   hold N           N page blocks mapped and kept; prints the regions then mapped
//   tasks MS         waits up to MS ms for a second task (the background thread); prints the count
//   wakeups MS       waits for the background thread, lets it settle, and counts its sleeps
//                    (voluntary context switches) over MS ms
//   released MS      resident bytes given back since the last burst, watched for MS ms
//   stock MS         waits up to MS ms for the mapped bytes to stop changing; prints the bytes
//                    mapped since the last hold
//   hugepages MS     waits up to MS ms for the background thread's huge-page probe to have run
//   fake_cpus N      shows binding a machine of N CPUs with no sibling files: the affinity
//                    calls go to the probe, which records them per thread
// Every mmap of the process that reaches the dynamic symbol (the allocator's do) is counted
// here when it asks for MAP_HUGETLB.
#include <dirent.h>
#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
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

// The id of the second thread of the action "thread", for the binding's record.
std::atomic<long> g_second_tid{0};

// With an argument, the call is the created thread's.
void* allocate_64(void* argument) {
  if (argument != nullptr) g_second_tid.store(syscall(SYS_gettid));
  void* p = malloc(64);
  static_cast<volatile char*>(p)[0] = 1;
  free(p);
  return nullptr;
}

// ---- what the settings do

std::atomic<unsigned long> g_hugetlb_mmap_calls{0};

constexpr size_t k_page_block = 1500000;  // a page block that fills most of one region

unsigned long now_ms() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<unsigned long>(ts.tv_sec) * 1000 + static_cast<unsigned long>(ts.tv_nsec) / 1000000;
}

void sleep_ms(unsigned long ms) { usleep(static_cast<useconds_t>(ms * 1000)); }

unsigned long resident_bytes() {
  FILE* file = fopen("/proc/self/statm", "r");
  unsigned long size = 0, resident = 0;
  if (file != nullptr) {
    if (fscanf(file, "%lu %lu", &size, &resident) != 2) resident = 0;
    fclose(file);
  }
  return resident * 4096;
}

// The tasks of this process other than the main one: the count, and the last id seen.
unsigned int task_count(long* ptr_other = nullptr) {
  unsigned int count = 0;
  DIR* dir = opendir("/proc/self/task");
  if (dir == nullptr) return 0;
  const long self = getpid();
  while (dirent* entry = readdir(dir)) {
    if (entry->d_name[0] == '.') continue;
    ++count;
    long id = atol(entry->d_name);
    if (id != self && ptr_other != nullptr) *ptr_other = id;
  }
  closedir(dir);
  return count;
}

bool wait_for_second_task(unsigned long ms, long* ptr_other = nullptr) {
  const unsigned long end = now_ms() + ms;
  while (task_count(ptr_other) < 2) {
    if (now_ms() >= end) return false;
    sleep_ms(2);
  }
  return true;
}

unsigned long voluntary_switches(long tid) {
  char path[64];
  snprintf(path, sizeof(path), "/proc/self/task/%ld/status", tid);
  FILE* file = fopen(path, "r");
  if (file == nullptr) return 0;
  char line[256];
  unsigned long count = 0;
  while (fgets(line, sizeof(line), file) != nullptr) {
    if (sscanf(line, "voluntary_ctxt_switches: %lu", &count) == 1) break;
  }
  fclose(file);
  return count;
}

size_t mapped_bytes() { return read_global<size_t>("g_locking_sizet_os_malloc_all_size"); }

unsigned long g_resident_after_burst = 0;
size_t g_mapped_after_hold = 0;

void burst(unsigned int n) {
  if (n > 256) _exit(4);
  static unsigned char* blocks[256];
  for (unsigned int i = 0; i < n; ++i) {
    blocks[i] = static_cast<unsigned char*>(malloc(k_page_block));
    memset(blocks[i], static_cast<int>(i + 1), k_page_block);
  }
  for (unsigned int i = 0; i < n; ++i) free(blocks[i]);
  g_resident_after_burst = resident_bytes();
  print_value("burst_resident_after_free", g_resident_after_burst);
}

void hold(unsigned int n) {
  for (unsigned int i = 0; i < n; ++i) static_cast<volatile char*>(malloc(k_page_block))[0] = 1;
  g_mapped_after_hold = mapped_bytes();
  print_value("hold_mapped_regions", g_mapped_after_hold >> 21);
}

void released(unsigned long ms) {
  sleep_ms(ms);
  const unsigned long now = resident_bytes();
  print_value("released_bytes", g_resident_after_burst > now ? g_resident_after_burst - now : 0);
}

void stock(unsigned long ms) {
  // Settled: no change of the mapped bytes for 300 ms.
  const unsigned long end = now_ms() + ms;
  size_t last = mapped_bytes();
  unsigned long since = now_ms();
  while (now_ms() < end && now_ms() - since < 300) {
    sleep_ms(5);
    size_t now = mapped_bytes();
    if (now != last) {
      last = now;
      since = now_ms();
    }
  }
  print_value("stock_settled", now_ms() - since >= 300 ? 1 : 0);
  print_value("stock_bytes", last > g_mapped_after_hold ? last - g_mapped_after_hold : 0);
}

void wakeups(unsigned long ms) {
  long tid = 0;
  if (!wait_for_second_task(2000, &tid)) {
    print_value("wakeups_thread", 0);
    return;
  }
  print_value("wakeups_thread", 1);
  sleep_ms(100);  // past the first rounds, which prepare the first region
  const unsigned long before = voluntary_switches(tid);
  sleep_ms(ms);
  print_value("background_wakeups", voluntary_switches(tid) - before);
}

void hugepages(unsigned long ms) {
  // The probe flag is set just before the probe would run; the first round comes after it.
  const unsigned long end = now_ms() + ms;
  while (!read_global<bool>("g_bool_memory_has_try_use_hugepage2m") && now_ms() < end) sleep_ms(2);
  sleep_ms(200);
  print_value("hugepage_probe_run", read_global<bool>("g_bool_memory_has_try_use_hugepage2m"));
  print_value("hugetlb_mmap_calls", g_hugetlb_mmap_calls.load());
  print_value("use_hugepage2m", read_global<bool>("g_bool_memory_use_hugepage2m"));
  print_value("hugepage2m_count", read_global<unsigned int>("g_locking_uint_os_malloc_hugepage2m_count"));
}

// The binding's view of the machine, as the library declares it.
struct Cpu_bind_system {
  int (*get_affinity)(cpu_set_t*);
  int (*set_affinity)(const cpu_set_t*);
  const char* ptr_char_cpu_root;
};
unsigned int g_fake_cpus = 0;
std::atomic<unsigned long> g_bind_calls_second{0}, g_bind_cpus_second{0};
std::atomic<unsigned long> g_bind_calls_other{0}, g_bind_cpus_other{0};

long this_tid() { return syscall(SYS_gettid); }

int fake_get_affinity(cpu_set_t* set) {
  CPU_ZERO(set);
  for (unsigned int cpu = 0; cpu < g_fake_cpus; ++cpu) CPU_SET(cpu, set);
  return 0;
}

int fake_set_affinity(const cpu_set_t* set) {
  const unsigned long cpus = static_cast<unsigned long>(CPU_COUNT(set));
  if (this_tid() == g_second_tid.load()) {
    g_bind_calls_second.fetch_add(1);
    g_bind_cpus_second.store(cpus);
  } else {
    g_bind_calls_other.fetch_add(1);
    g_bind_cpus_other.store(cpus);
  }
  return 0;
}

void fake_cpus(unsigned int n) {
  if (n < 3 || n > 64) _exit(4);
  g_fake_cpus = n;
  *static_cast<unsigned int*>(library_symbol::quorla_global("g_uint_hardware_concurrency")) = n;
  auto* system = static_cast<Cpu_bind_system*>(library_symbol::quorla_global("g_cpu_bind_system"));
  if (system == nullptr) _exit(2);
  *system = Cpu_bind_system{&fake_get_affinity, &fake_set_affinity, "/nonexistent/quorla_cpu_root"};
}

void print_binding() {
  if (g_fake_cpus == 0) return;
  print_value("bind_calls_second_thread", g_bind_calls_second.load());
  print_value("bind_cpus_second_thread", g_bind_cpus_second.load());
  print_value("bind_calls_other", g_bind_calls_other.load());
  print_value("bind_cpus_other", g_bind_cpus_other.load());
}

}  // namespace

// Counts the huge-page requests of the allocator and maps as libc would.
extern "C" void* mmap(void* addr, size_t length, int prot, int flags, int fd, off_t offset) noexcept {
  if ((flags & MAP_HUGETLB) != 0) g_hugetlb_mmap_calls.fetch_add(1);
  return reinterpret_cast<void*>(syscall(SYS_mmap, addr, length, prot, flags, fd, offset));
}

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
      pthread_create(&thread, nullptr, allocate_64, &thread);
      pthread_join(thread, nullptr);
      allocate_64(nullptr);
    } else if ((strcmp(action, "race") == 0 || strcmp(action, "race128") == 0) && i + 1 < argc) {
      race(static_cast<unsigned>(atoi(argv[i + 1])), action[4] == 0 ? k_large : 128);
      ++i;
    } else if (i + 1 < argc && strcmp(action, "burst") == 0) {
      burst(static_cast<unsigned>(atoi(argv[++i])));
    } else if (i + 1 < argc && strcmp(action, "hold") == 0) {
      hold(static_cast<unsigned>(atoi(argv[++i])));
    } else if (i + 1 < argc && strcmp(action, "tasks") == 0) {
      wait_for_second_task(static_cast<unsigned long>(atol(argv[++i])));
      print_value("tasks", task_count());
    } else if (i + 1 < argc && strcmp(action, "wakeups") == 0) {
      wakeups(static_cast<unsigned long>(atol(argv[++i])));
    } else if (i + 1 < argc && strcmp(action, "released") == 0) {
      released(static_cast<unsigned long>(atol(argv[++i])));
    } else if (i + 1 < argc && strcmp(action, "stock") == 0) {
      stock(static_cast<unsigned long>(atol(argv[++i])));
    } else if (i + 1 < argc && strcmp(action, "hugepages") == 0) {
      hugepages(static_cast<unsigned long>(atol(argv[++i])));
    } else if (i + 1 < argc && strcmp(action, "fake_cpus") == 0) {
      fake_cpus(static_cast<unsigned>(atoi(argv[++i])));
    } else {
      print_line("unknown action\n");
      return 1;
    }
  }
  print_binding();
  for (const Global& global : k_globals) print_value(global.key, read_kind(global));
  return 0;
}
