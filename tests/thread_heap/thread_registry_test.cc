// The registry of thread heaps under real threads: what a thread leaves behind when it
// ends, last-in-first-out reuse with the blocks still in the heap, the reuse limit, and the
// ring of maps rotating while other threads look themselves up.
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <thread>
#include <vector>

#include "quorlamalloc.h"
#include "thread_heap/quorla_thread_registry.h"


namespace quorla {
namespace {

Memory_thread_id_thread_local_data& registry() { return g_memory_thread_id_thread_local_data; }

// The counts are read while no other thread of the test runs.
unsigned int waiting_heaps() { return registry().vt_wait_reuse.size(); }

unsigned int empty_waiting_heaps() {
  unsigned int count = 0;
  for (unsigned int i = 0; i < waiting_heaps(); ++i) {
    const Memory_bitmap_page_group& group = registry().vt_wait_reuse[i]->page_group;
    count += group.vt_normal.size() + group.vt_full.size() == 0;
  }
  return count;
}

// Threads that all hold a heap at the same moment, then free everything and end.
void run_threads_ending_empty(int count) {
  std::atomic<int> arrived{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i) {
    threads.emplace_back([&] {
      void* block = quorla_malloc(100);
      arrived.fetch_add(1);
      while (arrived.load() < count) std::this_thread::yield();
      quorla_free(block);
    });
  }
  for (auto& thread : threads) thread.join();
}

struct Reuse_limit {
  unsigned int saved = g_uint_memory_vt_thread_local_wait_reuse_limit_size;
  explicit Reuse_limit(unsigned int limit) { g_uint_memory_vt_thread_local_wait_reuse_limit_size = limit; }
  ~Reuse_limit() { g_uint_memory_vt_thread_local_wait_reuse_limit_size = saved; }
};

TEST(ThreadRegistry, EmptyHeapsWaitUpToTheLimitAndTheRestAreDestroyed) {
  unsigned int heaps = registry().size();
  const unsigned int waiting = waiting_heaps();
  std::thread([] {}).join();  // the harness allocates with libc; this thread never calls us
  EXPECT_EQ(registry().size(), heaps) << "a thread that never allocates has no heap";
  EXPECT_EQ(waiting_heaps(), waiting);
  {
    Reuse_limit limit(16);
    run_threads_ending_empty(17);
    EXPECT_EQ(waiting_heaps(), 16u) << "sixteen wait; the seventeenth was destroyed";
    heaps = registry().size();
    // The next seventeen take the sixteen waiting heaps and make one: the count of heaps that
    // exist is the same after them.
    run_threads_ending_empty(17);
    EXPECT_EQ(waiting_heaps(), 16u);
    EXPECT_EQ(registry().size(), heaps);
  }
  Reuse_limit limit(0);
  const unsigned int empty_waiting = empty_waiting_heaps();
  // Enough threads to adopt every waiting heap and to make five new ones.
  run_threads_ending_empty(static_cast<int>(waiting_heaps()) + 5);
  EXPECT_EQ(empty_waiting_heaps(), 0u) << "with a limit of zero every empty heap is destroyed";
  // A waiting heap whose blocks were freed meanwhile empties at its adopter's drain and is
  // destroyed too, so at least the empty ones are gone.
  EXPECT_LE(registry().size(), heaps - empty_waiting);
  EXPECT_EQ(registry().size(), 1 + waiting_heaps()) << "with no thread running: the main heap and the waiting ones";
}

TEST(ThreadRegistry, AHeapWithLiveBlocksWaitsWhateverTheLimitAndIsTakenLastInFirstOut) {
  Reuse_limit limit(0);
  // Two threads hold heaps at once and end in turn (the second only after the first has
  // ended), each leaving a live block behind. The pin keeps the piece backed when the
  // other block goes.
  Memory_thread_local_data* heaps[2] = {};
  void* left[2] = {};
  void* pins[2] = {};
  std::atomic<int> step{0};
  auto hold = [&](int i) {
    while (step.load() != i) std::this_thread::yield();
    left[i] = quorla_malloc(300);
    pins[i] = quorla_malloc(300);
    heaps[i] = get_memory_thread_local_data();
    step.store(i + 1);
    while (step.load() != i + 2) std::this_thread::yield();
  };
  std::thread first(hold, 0), second(hold, 1);
  first.join();
  step.store(3);
  second.join();
  ASSERT_NE(heaps[0], heaps[1]);
  ASSERT_GE(waiting_heaps(), 2u);
  EXPECT_EQ(heaps[0]->page_group.ulong_thread_id, 0u) << "a waiting heap has no owner";
  EXPECT_EQ(registry().vt_wait_reuse[waiting_heaps() - 1], heaps[1]) << "the heap put back last";
  // Freed by the main thread, which owns neither heap: queued, not applied.
  quorla_free(left[1]);
  EXPECT_EQ(quorla_get_malloc_size(left[1]), 320u);
  Memory_thread_local_data* adopted = nullptr;
  size_t after_first_malloc = 1;
  std::thread([&] {
    void* block = quorla_malloc(16);  // adopts the heap put back last and drains its queue
    adopted = get_memory_thread_local_data();
    after_first_malloc = quorla_get_malloc_size(left[1]);
    quorla_free(block);
  }).join();
  EXPECT_EQ(adopted, heaps[1]);
  EXPECT_EQ(after_first_malloc, 0u) << "the adopter's first malloc applies the queued free";
  bool listed = false;
  for (unsigned int i = 0; i < registry().vt_thread_local.size(); ++i) listed |= registry().vt_thread_local[i] == heaps[0];
  EXPECT_TRUE(listed) << "still holding live blocks, it waits";
  for (void* block : {left[0], pins[0], pins[1]}) quorla_free(block);
}

TEST(ThreadRegistry, TheRingOfMapsRotatesAndLookupsStayRightUnderGrowth) {
  // Enough threads at once to fill the published map past its entry limit (179 in the first
  // map of 256 buckets: the 180th registration rotates).
  Memory_thread_map* const map_before = registry().ptr_map_current;
  const unsigned int index_before = registry().uint_map_index;
  const int k_threads = static_cast<int>(map_before->d_uint_max_data_count - map_before->size()) + 21;
  if (k_threads > 1000) GTEST_SKIP() << "the published map already holds room for " << k_threads << " threads";
  std::atomic<int> arrived{0};
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < k_threads; ++i) {
    threads.emplace_back([&] {
      void* block = quorla_malloc(64);
      Memory_thread_local_data* mine = get_memory_thread_local_data();
      arrived.fetch_add(1);
      // Look up again and again while the others register and the maps rotate.
      while (arrived.load() < k_threads) {
        wrong.fetch_add(get_memory_thread_local_data() != mine);
        std::this_thread::yield();
      }
      wrong.fetch_add(get_memory_thread_local_data() != mine);
      wrong.fetch_add(mine->page_group.ulong_thread_id != pthread_self());
      // No thread ends, and so leaves the map, before every thread has looked itself up.
      arrived.fetch_add(1);
      while (arrived.load() < 2 * k_threads) std::this_thread::yield();
      quorla_free(block);
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_NE(registry().ptr_map_current, map_before);
  EXPECT_NE(registry().uint_map_index, index_before);
  EXPECT_GE(registry().ptr_map_current->d_uint_max_data_count, 358u) << "the next map holds twice the entries";
}

}  // namespace
}  // namespace quorla
