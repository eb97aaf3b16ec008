// mallopt and malloc_trim on the whole library. Each parameter's rule is checked on the
// global it writes, read from the allocator itself; the expected values follow the rules
// (clamps, sign extension, booleans), not the code.
#include <malloc.h>
#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "library_symbol.h"
#include "quorlamalloc.h"

namespace {

// Reads a setting of 1, 4 or 8 bytes as an unsigned number.
unsigned long read_setting(const char* name, unsigned int width) {
  void* ptr = library_symbol::quorla_global(name);
  EXPECT_NE(ptr, nullptr) << name;
  if (ptr == nullptr) return ~0ul;
  if (width == 1) return *static_cast<unsigned char*>(ptr);
  if (width == 4) return *static_cast<unsigned int*>(ptr);
  return *static_cast<unsigned long*>(ptr);
}

TEST(Mallopt, EveryParameterFollowsItsRule) {
  struct Case {
    int param;
    int value;
    const char* name;
    unsigned int width;
    unsigned long expected;
  } cases[] = {
      {10000, 10, "g_uint_microseconds_memory_thread_background_sleep_default", 4, 50},
      {10000, 49, "g_uint_microseconds_memory_thread_background_sleep_default", 4, 50},
      {10000, 50, "g_uint_microseconds_memory_thread_background_sleep_default", 4, 50},
      {10000, 777, "g_uint_microseconds_memory_thread_background_sleep_default", 4, 777},
      {10001, 1234, "g_uint_memory_wait_microseconds_between_release_2m", 4, 1234},
      {10001, 0, "g_uint_memory_wait_microseconds_between_release_2m", 4, 0},
      {10002, 7, "g_bool_memory_enable_thread_background_clear_cpu_cache", 1, 1},
      {10002, 0, "g_bool_memory_enable_thread_background_clear_cpu_cache", 1, 0},
      {10003, -1, "g_bool_memory_enable_hugepage2m", 1, 1},
      {10003, 0, "g_bool_memory_enable_hugepage2m", 1, 0},
      {10004, 4096, "g_ulong_memory_size_use_thread_background_threshold", 8, 4096},
      {10004, -1, "g_ulong_memory_size_use_thread_background_threshold", 8, ~0ul},
      {10004, INT_MIN, "g_ulong_memory_size_use_thread_background_threshold", 8, 0xFFFFFFFF80000000ul},
      {10005, 0, "g_bool_memory_enable_thread_background", 1, 0},
      {10005, 2, "g_bool_memory_enable_thread_background", 1, 1},
      {10006, 0, "g_bool_memory_enable_auto_bind_cpu", 1, 0},
      {10006, 1, "g_bool_memory_enable_auto_bind_cpu", 1, 1},
      {10007, 256, "g_bool_memory_enable_numa_memory_bind", 1, 1},
      {10007, 0, "g_bool_memory_enable_numa_memory_bind", 1, 0},
      {10008, 3, "g_uint_memory_vt_thread_local_wait_reuse_limit_size", 4, 3},
      {10009, 1, "g_bool_memory_enable_page_prefault", 1, 1},
      {10009, 0, "g_bool_memory_enable_page_prefault", 1, 0},
      {10010, 1, "g_bool_memory_enable_thread_background_page_prefault", 1, 1},
      {10010, 0, "g_bool_memory_enable_thread_background_page_prefault", 1, 0},
      {10013, 0, "g_uint_memory_thread_background_div_number_calc_prepare_2m", 4, 2},
      {10013, 1, "g_uint_memory_thread_background_div_number_calc_prepare_2m", 4, 2},
      {10013, 5, "g_uint_memory_thread_background_div_number_calc_prepare_2m", 4, 5},
      {10014, 12, "g_uint_memory_thread_background_need_prepare_2m_count_limt", 4, 12},
      {10015, 0, "g_uint_microseconds_memory_thread_background_force_release_one_2m", 4, 0},
      {10015, 9000, "g_uint_microseconds_memory_thread_background_force_release_one_2m", 4, 9000},
      {10016, 1, "g_uint_memory_auto_bind_phy_cpu_count", 4, 1},
      {10016, 3, "g_uint_memory_auto_bind_phy_cpu_count", 4, 2},
      {10016, 0, "g_uint_memory_auto_bind_phy_cpu_count", 4, 2},
      {10016, -1, "g_uint_memory_auto_bind_phy_cpu_count", 4, 2},
      {10016, 2, "g_uint_memory_auto_bind_phy_cpu_count", 4, 2},
      {10017, 321, "g_uint_memory_max_wait_milliseconds_before_clear_cpu_cache", 4, 321},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(mallopt(c.param, c.value), 1) << c.param << " " << c.value;
    EXPECT_EQ(read_setting(c.name, c.width), c.expected) << c.param << " " << c.value;
  }
}

// The gate counts every call, an unknown parameter's too; outside 10000-10017 nothing is
// written and the answer is 0, whatever the number means to other allocators.
TEST(Mallopt, TheGateRunsForEveryParameterAndUnknownOnesAnswerZero) {
  auto* gate = static_cast<std::atomic<unsigned int>*>(library_symbol::quorla_global("g_atomic_uint_memory_check_program_config_count"));
  ASSERT_NE(gate, nullptr);
  const unsigned long sleep_before = read_setting("g_uint_microseconds_memory_thread_background_sleep_default", 4);
  for (int param : {1, 0, -1, M_TRIM_THRESHOLD, M_MMAP_THRESHOLD, M_ARENA_MAX, 9999, 10018, INT_MAX}) {
    const unsigned int before = gate->load();
    EXPECT_EQ(mallopt(param, 10), 0) << param;
    EXPECT_EQ(gate->load(), before + 1) << param;
  }
  const unsigned int before = gate->load();
  EXPECT_EQ(mallopt(QUORLA_MALLOPT_WAIT_MICROSECONDS_BETWEEN_RELEASE_2M, 4000), 1);
  EXPECT_EQ(gate->load(), before + 1);
  EXPECT_EQ(read_setting("g_uint_microseconds_memory_thread_background_sleep_default", 4), sleep_before);
}

TEST(MallocTrim, ReturnsZeroAndLeavesTheAllocatorServing) {
  void* blocks[64];
  for (void*& block : blocks) block = malloc(300000);
  for (void* block : blocks) free(block);
  EXPECT_EQ(malloc_trim(0), 0);
  EXPECT_EQ(malloc_trim(1 << 20), 0);
  bool* in_run = static_cast<bool*>(library_symbol::quorla_global("g_bool_memory_trim_in_run"));
  ASSERT_NE(in_run, nullptr);
  EXPECT_FALSE(*in_run) << "a finished trim clears its flag";
  void* block = malloc(300000);
  EXPECT_EQ(quorla_get_malloc_size(block), 303104u);  // 74 pages
  free(block);
}

// A trim that finds another running returns at once: it neither waits nor clears the other
// one's flag, which a trim of its own would do at its end.
TEST(MallocTrim, ASecondTrimReturnsAtOnce) {
  bool* in_run = static_cast<bool*>(library_symbol::quorla_global("g_bool_memory_trim_in_run"));
  ASSERT_NE(in_run, nullptr);
  *in_run = true;
  EXPECT_EQ(malloc_trim(0), 0);
  EXPECT_TRUE(*in_run);
  *in_run = false;
}

}  // namespace

namespace {

unsigned int thread_count() {
  unsigned int count = 0;
  FILE* status = fopen("/proc/self/status", "r");
  char line[256];
  while (status != nullptr && fgets(line, sizeof(line), status) != nullptr) {
    if (strncmp(line, "Threads:", 8) == 0) count = static_cast<unsigned int>(atoi(line + 8));
  }
  if (status != nullptr) fclose(status);
  return count;
}

// 10012 starts the background thread although the setting (10005) forbids it.
TEST(Mallopt, ForceStartsTheBackgroundThreadAgainstTheSetting) {
  bool* started = static_cast<bool*>(library_symbol::quorla_global("g_bool_memory_use_thread_background"));
  ASSERT_NE(started, nullptr);
  if (*started) GTEST_SKIP() << "the background thread already runs in this process";
  ASSERT_EQ(mallopt(QUORLA_MALLOPT_ENABLE_THREAD_BACKGROUND, 0), 1);
  const unsigned int before = thread_count();
  EXPECT_EQ(mallopt(QUORLA_MALLOPT_FORCE_ENABLE_THREAD_BACKGROUND, 0), 1);
  EXPECT_TRUE(*started);
  EXPECT_EQ(thread_count(), before + 1);
}

}  // namespace
