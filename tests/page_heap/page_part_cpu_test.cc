// The per-CPU page supply: a process with one thread stays on entry 0; a release from
// another CPU than the block's entry waits in that entry's queue and is applied, exactly
// once, at the entry's next allocation.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>

#include <cstring>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "page_heap/quorla_bitmap_page_part_cpu.h"
#include "quorlamalloc.h"

namespace quorla {
namespace {

// The pieces an entry holds and their free pages, read under the entry's lock.
std::pair<unsigned int, unsigned long> state_of(Memory_page_part_cpu& entry) {
  std::lock_guard<decltype(entry.mutex_group)> lock(entry.mutex_group);
  std::pair<unsigned int, unsigned long> state(entry.vt_normal.size() + entry.vt_full.size(), 0);
  for (unsigned int i = 0; i < entry.vt_normal.size(); ++i) state.second += entry.vt_normal[i].ptr_t->uint_free_bit;
  for (unsigned int i = 0; i < entry.vt_full.size(); ++i) state.second += entry.vt_full[i].ptr_t->uint_free_bit;
  return state;
}

// Runs fn on a thread bound to one CPU; false if the binding is refused.
template <class F>
bool run_on_cpu(int cpu, F fn) {
  bool bound = false;
  std::thread([&] {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    if (pthread_setaffinity_np(pthread_self(), sizeof(set), &set) != 0 || sched_getcpu() != cpu) return;
    bound = true;
    fn();
  }).join();
  return bound;
}

// One page taken and given back: the entry exists, and its queue is applied first.
void touch_entry() {
  unsigned long size = 4096;
  Free_page_part_cpu()(Malloc_page_part_cpu()(size), size);
}

TEST(PagePartCpuDeathTest, AOneThreadProcessUsesEntryZeroOnly) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a fresh process: no thread has a heap yet
  EXPECT_EXIT(
      {
        bool ok = !g_bool_memory_use_thread;
        // Page runs and many small classes: the heap's metadata grows from the supply.
        for (int i = 0; i < 4000; ++i) quorla_malloc(static_cast<size_t>(16 + (i % 97) * 4000));
        unsigned long size = 0;
        for (int i = 0; i < 50; ++i) Malloc_page_part_cpu()(size = 4096ul * (1 + i % 40));
        ok = ok && !g_bool_memory_use_thread && g_ar_memory_malloc_page_part_cpu[0].vt_normal.size() != 0;
        for (unsigned int entry = 1; entry < 8; ++entry)
          ok = ok && state_of(g_ar_memory_malloc_page_part_cpu[entry]).first == 0;
        _exit(ok ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST(PagePartCpu, ReleasesFromAnotherCpuWaitInTheQueueAndAreAppliedOnce) {
  if (std::thread::hardware_concurrency() < 2) GTEST_SKIP() << "needs two CPUs to bind threads to";
  // A second thread with a heap switches entry choice from 0 to the CPU.
  std::thread([] { quorla_free(quorla_malloc(32)); }).join();
  ASSERT_TRUE(g_bool_memory_use_thread);
  for (int owner_cpu = 0; owner_cpu < 2; ++owner_cpu) {
    SCOPED_TRACE("blocks of entry " + std::to_string(owner_cpu));
    Memory_page_part_cpu& entry = g_ar_memory_malloc_page_part_cpu[owner_cpu];
    std::pair<unsigned int, unsigned long> before;
    std::vector<std::pair<void*, unsigned long>> blocks;
    ASSERT_TRUE(run_on_cpu(owner_cpu, [&] {
      touch_entry();
      before = state_of(entry);
      for (int i = 0; i < 60; ++i) {
        unsigned long size = 4096ul * (1 + (i * 7 + owner_cpu) % 12);
        void* ptr = Malloc_page_part_cpu()(size);
        memset(ptr, 0x5A, size);
        blocks.emplace_back(ptr, size);
      }
    })) << "could not bind to CPU " << owner_cpu;
    const auto taken = state_of(entry);
    ASSERT_TRUE(run_on_cpu(1 - owner_cpu, [&] {
      for (const auto& block : blocks) Free_page_part_cpu()(block.first, block.second);
    }));
    EXPECT_EQ(entry.uint_wait_release_count, blocks.size());
    EXPECT_EQ(state_of(entry), taken) << "nothing applied before the entry's next allocation";
    ASSERT_TRUE(run_on_cpu(owner_cpu, touch_entry));
    EXPECT_EQ(entry.uint_wait_release_count, 0u);
    EXPECT_EQ(state_of(entry), before) << "each release applied exactly once";
  }
}

}  // namespace
}  // namespace quorla
