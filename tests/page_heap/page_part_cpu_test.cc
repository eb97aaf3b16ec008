// The per-CPU page supply: a process with one thread stays on entry 0; a release from
// another CPU than the block's entry waits in that entry's queue and is applied, exactly
// once, at the entry's next allocation.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>

#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include "page_heap/quorla_bitmap_page_part_cpu.h"
#include "quorlamalloc.h"

namespace quorla {
namespace {

struct Entry_state {
  unsigned int pieces = 0;
  unsigned long free_pages = 0;
  bool operator==(const Entry_state& other) const { return pieces == other.pieces && free_pages == other.free_pages; }
};

Entry_state state_of(Memory_page_part_cpu& entry) {
  Entry_state state;
  entry.mutex_group.lock();
  for (unsigned int i = 0; i < entry.vt_normal.size(); ++i) state.free_pages += entry.vt_normal[i].ptr_t->uint_free_bit;
  for (unsigned int i = 0; i < entry.vt_full.size(); ++i) state.free_pages += entry.vt_full[i].ptr_t->uint_free_bit;
  state.pieces = entry.vt_normal.size() + entry.vt_full.size();
  entry.mutex_group.unlock();
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
    if (pthread_setaffinity_np(pthread_self(), sizeof(set), &set) != 0) return;
    if (sched_getcpu() != cpu) return;
    bound = true;
    fn();
  }).join();
  return bound;
}

TEST(PagePartCpuDeathTest, AOneThreadProcessUsesEntryZeroOnly) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a fresh process: no thread has a heap yet
  EXPECT_EXIT(
      {
        bool ok = !g_bool_memory_use_thread;
        std::vector<void*> blocks;
        // Page runs and many small classes: the heap's metadata grows from the supply.
        for (int i = 0; i < 4000; ++i) blocks.push_back(quorla_malloc(static_cast<size_t>(16 + (i % 97) * 4000)));
        for (int i = 0; i < 50; ++i) {
          unsigned long size = 4096ul * (1 + i % 40);
          blocks.push_back(Malloc_page_part_cpu()(size));
        }
        ok = ok && !g_bool_memory_use_thread && g_ar_memory_malloc_page_part_cpu[0].vt_normal.size() != 0;
        for (unsigned int entry = 1; entry < 8; ++entry) {
          ok = ok && g_ar_memory_malloc_page_part_cpu[entry].vt_normal.size() == 0 &&
               g_ar_memory_malloc_page_part_cpu[entry].vt_full.size() == 0;
        }
        _exit(ok ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

struct Page_block {
  void* ptr;
  unsigned long size;
};

std::vector<Page_block> take_blocks(unsigned seed, int count) {
  std::mt19937 random(seed);
  std::vector<Page_block> blocks;
  for (int i = 0; i < count; ++i) {
    unsigned long size = 4096ul * (1 + random() % 12);
    void* ptr = Malloc_page_part_cpu()(size);
    memset(ptr, 0x5A, size);
    blocks.push_back({ptr, size});
  }
  return blocks;
}

TEST(PagePartCpu, ReleasesFromAnotherCpuWaitInTheQueueAndAreAppliedOnce) {
  if (std::thread::hardware_concurrency() < 2) GTEST_SKIP() << "needs two CPUs to bind threads to";
  // A second thread with a heap switches entry choice from 0 to the CPU.
  std::thread([] { quorla_free(quorla_malloc(32)); }).join();
  ASSERT_TRUE(g_bool_memory_use_thread);
  for (int owner_cpu = 0; owner_cpu < 2; ++owner_cpu) {
    int other_cpu = 1 - owner_cpu;
    SCOPED_TRACE("blocks of entry " + std::to_string(owner_cpu));
    Memory_page_part_cpu& entry = g_ar_memory_malloc_page_part_cpu[owner_cpu];
    Entry_state before;
    std::vector<Page_block> blocks;
    ASSERT_TRUE(run_on_cpu(owner_cpu, [&] {
      unsigned long size = 4096;
      Free_page_part_cpu()(Malloc_page_part_cpu()(size), size);  // the entry exists
      before = state_of(entry);
      blocks = take_blocks(owner_cpu + 7, 60);
    })) << "could not bind to CPU " << owner_cpu;
    Entry_state taken = state_of(entry);
    ASSERT_TRUE(run_on_cpu(other_cpu, [&] {
      for (const Page_block& block : blocks) Free_page_part_cpu()(block.ptr, block.size);
    }));
    EXPECT_EQ(entry.uint_wait_release_count, blocks.size());
    EXPECT_TRUE(state_of(entry) == taken) << "nothing applied before the entry's next allocation";
    ASSERT_TRUE(run_on_cpu(owner_cpu, [&] {
      unsigned long size = 4096;
      void* trigger = Malloc_page_part_cpu()(size);  // applies the queue first
      Free_page_part_cpu()(trigger, size);
    }));
    EXPECT_EQ(entry.uint_wait_release_count, 0u);
    Entry_state after = state_of(entry);
    EXPECT_EQ(after.free_pages, before.free_pages) << "each release applied exactly once";
    EXPECT_EQ(after.pieces, before.pieces);
  }
}

}  // namespace
}  // namespace quorla
