// The background thread seen from outside, every allocation of the process on the library:
// when it starts (counted in /proc/self/task), how the memory of a burst of regions goes back
// (/proc/self/statm and the mapped-bytes counter, generous bounds on direction and end
// state only), and fork from a parent whose threads allocate hard while it releases.
#include <dirent.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "library_symbol.h"

namespace {

using library_symbol::quorla_global;

unsigned int task_count() {
  unsigned int count = 0;
  DIR* dir = opendir("/proc/self/task");
  if (dir == nullptr) return 0;
  while (dirent* entry = readdir(dir)) {
    if (entry->d_name[0] != '.') ++count;
  }
  closedir(dir);
  return count;
}

unsigned long resident_bytes() {
  FILE* file = fopen("/proc/self/statm", "r");
  unsigned long size = 0;
  unsigned long resident = 0;
  if (file != nullptr) {
    if (fscanf(file, "%lu %lu", &size, &resident) != 2) resident = 0;
    fclose(file);
  }
  return resident * 4096;
}

template <class T>
T& global(const char* name) {
  void* p = quorla_global(name);
  EXPECT_NE(p, nullptr) << name;
  return *static_cast<T*>(p);
}

// Waits up to seconds for pred, polling; true if it came true.
template <class Pred>
bool eventually(Pred pred, double seconds) {
  auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (std::chrono::steady_clock::now() < end) {
    if (pred()) return true;
    usleep(2000);
  }
  return pred();
}

constexpr size_t k_region = 2097152;
constexpr size_t k_page_block = 1500000;  // a page block that fills most of a region

TEST(BackgroundThread, OneThreadBelowTheThresholdNeverStartsIt) {
  for (int round = 0; round < 2000; ++round) {
    void* p = malloc(64 + round % 3000);
    free(p);
  }
  void* q = malloc(k_page_block);
  free(q);
  usleep(20000);
  EXPECT_EQ(task_count(), 1u);
  EXPECT_FALSE(global<bool>("g_bool_memory_use_thread_background"));
}

TEST(BackgroundThread, ASecondThreadStartsExactlyOneEvenWhenManyRace) {
  constexpr int k_threads = 8;
  std::atomic<int> ready{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < k_threads; ++i) {
    threads.emplace_back([&ready] {
      ready.fetch_add(1);
      while (ready.load() < k_threads) {
      }
      // Each new thread's first malloc registers it; the request is acted on by a malloc.
      for (int j = 0; j < 100; ++j) free(malloc(48));
    });
  }
  for (std::thread& t : threads) t.join();
  free(malloc(48));
  EXPECT_TRUE(eventually([] { return task_count() == 2; }, 10)) << task_count() << " tasks";
  EXPECT_TRUE(global<bool>("g_bool_memory_use_thread_background"));
  usleep(20000);
  EXPECT_EQ(task_count(), 2u) << "one background thread, and only one";
}

TEST(BackgroundThread, ABurstAboveTheThresholdStartsIt) {
  const unsigned long threshold = global<unsigned long>("g_ulong_memory_size_use_thread_background_threshold");
  std::vector<void*> blocks;
  for (unsigned long mapped = 0; mapped <= threshold + k_region; mapped += k_region) blocks.push_back(malloc(k_page_block));
  free(malloc(64));
  EXPECT_TRUE(eventually([] { return task_count() == 2; }, 10)) << task_count() << " tasks";
  for (void* p : blocks) free(p);
  EXPECT_EQ(task_count(), 2u);
}

// A burst of regions, touched and freed: the regions wait in the cache and the background
// thread gives them back at its pace, all of them once the forced release begins.
class PacedRelease : public ::testing::Test {
 protected:
  void SetUp() override {
    // A large request runs the configuration gate, so that the settings written below stay.
    free(malloc(3u << 20));
    between_ = &global<unsigned int>("g_uint_memory_wait_microseconds_between_release_2m");
    force_ = &global<unsigned int>("g_uint_microseconds_memory_thread_background_force_release_one_2m");
    mapped_ = &global<size_t>("g_locking_sizet_os_malloc_all_size");
    *between_ = 30000;
  }
  // Maps, touches and frees n regions' worth of page blocks; returns resident bytes after the free.
  unsigned long burst(unsigned int n) {
    std::vector<unsigned char*> blocks;
    for (unsigned int i = 0; i < n; ++i) {
      auto* p = static_cast<unsigned char*>(malloc(k_page_block));
      memset(p, static_cast<int>(i + 1), k_page_block);
      blocks.push_back(p);
    }
    peak_mapped_ = *mapped_;
    for (unsigned char* p : blocks) free(p);
    return resident_bytes();
  }
  unsigned int* between_ = nullptr;
  unsigned int* force_ = nullptr;
  size_t* mapped_ = nullptr;
  size_t peak_mapped_ = 0;
};

TEST_F(PacedRelease, ResidentMemoryFallsBackStepByStepAfterTheForcedDelay) {
  *force_ = 100000;
  constexpr unsigned int k_regions = 24;
  const unsigned long before = resident_bytes();
  const size_t mapped_before = *mapped_;
  const unsigned long after_free = burst(k_regions);
  EXPECT_GT(after_free, before + (k_regions / 2) * k_page_block) << "the freed regions wait in the cache, still resident";
  // Watch the fall: never upward by more than noise, in more than one step, down to near the start.
  std::vector<unsigned long> levels{after_free};
  bool bool_back = eventually([&] {
    unsigned long now = resident_bytes();
    if (now != levels.back()) levels.push_back(now);
    return now <= before + 3 * k_region;
  }, 60);
  EXPECT_TRUE(bool_back) << "resident " << resident_bytes() << " before " << before;
  unsigned int drops = 0;
  for (size_t i = 1; i < levels.size(); ++i) {
    EXPECT_LE(levels[i], levels[i - 1] + 256 * 1024) << "step " << i;
    if (levels[i] + k_region / 2 < levels[i - 1]) ++drops;
  }
  EXPECT_GE(drops, 3u) << "given back one region at a time, not at once";
  EXPECT_TRUE(eventually([&] { return *mapped_ <= mapped_before + k_region; }, 60))
      << "mapped " << *mapped_ << " before " << mapped_before << " peak " << peak_mapped_;
}

TEST_F(PacedRelease, WithoutForcedReleaseThePreparedStockStays) {
  *force_ = 0;
  const size_t mapped_before = *mapped_;
  burst(24);
  // The surplus drains at the pace; the target and one more stay mapped for good.
  EXPECT_TRUE(eventually([&] { return *mapped_ < peak_mapped_ - 8 * k_region; }, 60)) << "surplus released";
  usleep(500000);
  const size_t held = *mapped_;
  usleep(500000);
  EXPECT_GE(*mapped_, mapped_before + k_region) << "the stock stays";
  EXPECT_EQ(*mapped_, held) << "and nothing more leaves";
}

// fork while other threads allocate and free hard and the background thread prepares and
// releases: every child allocates, frees, starts its own background thread and exits.
TEST(BackgroundThreadFork, ChildrenOfABusyParentNeverDeadlock) {
  std::atomic<bool> stop{false};
  std::vector<std::thread> workers;
  for (int w = 0; w < 3; ++w) {
    workers.emplace_back([&stop, w] {
      std::vector<void*> held(64, nullptr);
      unsigned int seed = 17 + w;
      while (!stop.load(std::memory_order_relaxed)) {
        seed = seed * 1103515245 + 12345;
        size_t slot = (seed >> 8) % held.size();
        free(held[slot]);
        size_t size = (seed >> 16) % 4 == 0 ? k_page_block : ((seed >> 12) % 5000) + 1;
        if ((seed >> 20) % 64 == 0) size = k_region + 4096;  // a large block of its own
        held[slot] = malloc(size);
      }
      for (void* p : held) free(p);
    });
  }
  EXPECT_TRUE(eventually([] { return task_count() >= 5; }, 10)) << "workers and the background thread run";
  constexpr int k_forks = 60;
  int good = 0;
  for (int i = 0; i < k_forks; ++i) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      std::vector<void*> mine;
      for (int j = 0; j < 200; ++j) mine.push_back(malloc(static_cast<size_t>(j * 97 % 9000 + 1)));
      mine.push_back(malloc(k_page_block));
      mine.push_back(malloc(3u << 20));
      for (void* p : mine) free(p);
      // The child's own background thread comes with its next malloc.
      free(malloc(64));
      bool bool_own = eventually([] { return task_count() == 2; }, 10);
      _exit(bool_own ? 0 : 3);
    }
    int status = 0;
    bool bool_ended = eventually([&] { return waitpid(pid, &status, WNOHANG) == pid; }, 20);
    if (!bool_ended) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      ADD_FAILURE() << "child " << i << " did not end within 20 s";
      break;
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
      ++good;
    } else {
      ADD_FAILURE() << "child " << i << " status " << status;
    }
  }
  stop.store(true);
  for (std::thread& t : workers) t.join();
  EXPECT_EQ(good, k_forks);
}

}  // namespace
