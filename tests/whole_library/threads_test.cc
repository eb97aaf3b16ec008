// Threads on the whole library: cross-thread frees through the owner's queue, more freeing
// threads than a queue has thread slots, full rings, and a stress run with random sizes
// across every tier, pattern-checked blocks, foreign frees and thread churn.
#include <malloc.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <random>
#include <thread>
#include <vector>

namespace {

struct Block {
  unsigned char* ptr;
  size_t size;
  unsigned char pattern;
};

bool intact(const Block& block) {
  for (size_t i = 0; i < block.size; i += (block.size > 4096 ? 509 : 1)) {
    if (block.ptr[i] != block.pattern) return false;
  }
  return block.size == 0 || block.ptr[block.size - 1] == block.pattern;
}

size_t random_size(std::mt19937_64& random) {
  const unsigned kind = random() % 16;
  // Own mappings, rarer: each one is mapped, filled and unmapped whole.
  if (kind == 0) return random() % 4 == 0 ? 2048001 + random() % 3000000 : 1 + random() % 64;
  if (kind <= 2) return 10241 + random() % 200000;  // page runs
  if (kind == 3) return 3409 + random() % 6800;  // a page, 1024-byte runs
  return random() % 3409;  // small classes and runs
}

// Resident bytes of the process now (0 when unreadable).
size_t resident_bytes() {
  size_t pages = 0, resident = 0;
  std::ifstream("/proc/self/statm") >> pages >> resident;
  return resident * 4096;
}

TEST(CrossThread, FreesByOtherThreadsWaitForTheOwnersDrain) {
  // Threads free blocks of one owner's heap with no drain in between: nothing is applied
  // before the owner's next malloc, which drains what the flags point at. One thread's frees
  // fit its ring and all go at that drain. With sixteen threads of 2000 frees the thread rings
  // fill past 447, CPU rings and the overflow vector take the rest, and what went there
  // without a flag may wait for the forced drain at the owner's exit. After that exit every
  // block is released and every pin is still live.
  struct Case { int threads, per_thread; size_t released_by_first_drain; };
  for (Case c : {Case{1, 64, 64}, Case{16, 2000, 447}}) {
    SCOPED_TRACE(c.threads);
    // One live block beside each freed one keeps every piece backed; thread t frees the
    // blocks t * per_thread up to (t + 1) * per_thread.
    std::vector<void*> blocks, pins;
    size_t released = 0;
    std::thread owner([&] {
      for (int i = 0; i < c.threads * c.per_thread; ++i) {
        blocks.push_back(malloc(48));
        pins.push_back(malloc(48));
      }
      // Starting a thread allocates, and an allocation of the owner drains: every thread is
      // started before any of them frees.
      std::atomic<bool> go{false};
      std::vector<std::thread> threads;
      for (int t = 0; t < c.threads; ++t) {
        threads.emplace_back([&, t] {
          while (!go.load()) std::this_thread::yield();
          for (int i = t * c.per_thread; i < (t + 1) * c.per_thread; ++i) free(blocks[i]);
        });
      }
      go.store(true);
      for (auto& thread : threads) thread.join();
      for (void* block : blocks) ASSERT_EQ(malloc_usable_size(block), 48u) << "nothing applied before a drain";
      free(malloc(16));
      for (void* block : blocks) released += malloc_usable_size(block) == 0;
    });
    owner.join();
    EXPECT_GE(released, c.released_by_first_drain) << "every thread ring is drained by the owner's next malloc";
    for (void* block : blocks) ASSERT_EQ(malloc_usable_size(block), 0u) << "released by the forced drain at exit";
    for (void* pin : pins) ASSERT_EQ(malloc_usable_size(pin), 48u);
    for (void* pin : pins) free(pin);
  }
}

TEST(Stress, RandomSizesForeignFreesAndThreadChurn) {
  constexpr int k_threads = 8;  // more threads than cores
  std::atomic<int> failures{0};
  auto release = [&failures](const Block& block) {
    failures.fetch_add(!intact(block));
    free(block.ptr);
  };
  auto worker = [&](std::vector<Block>* handoff, unsigned seed) {
    std::mt19937_64 random(seed);
    std::vector<Block> live;
    for (int round = 0; round < 3000; ++round) {
      if (live.size() < 64 || random() % 3 != 0) {
        size_t size = random_size(random);
        Block block{static_cast<unsigned char*>(malloc(size)), size, static_cast<unsigned char>(random())};
        failures.fetch_add(block.ptr == nullptr);
        if (block.ptr == nullptr) continue;
        memset(block.ptr, block.pattern, block.size);
        live.push_back(block);
      } else {
        size_t victim = random() % live.size();
        release(live[victim]);
        live[victim] = live.back();
        live.pop_back();
      }
    }
    // Half of what is left is freed here, the other half by another thread.
    size_t keep = live.size() / 2;
    for (size_t i = keep; i < live.size(); ++i) release(live[i]);
    live.resize(keep);
    *handoff = std::move(live);
  };
  size_t resident_after_first = 0;
  for (int generation = 0; generation < 6; ++generation) {
    std::vector<std::vector<Block>> handoff(k_threads);
    std::vector<std::thread> threads;
    for (int t = 0; t < k_threads; ++t) threads.emplace_back(worker, &handoff[t], 1000u * generation + t);
    for (auto& thread : threads) thread.join();
    // The blocks left behind by ended threads are checked and freed by other threads.
    std::vector<std::thread> freers;
    for (int t = 0; t < k_threads; ++t) {
      freers.emplace_back([&, t] {
        for (const Block& block : handoff[(t + 1) % k_threads]) release(block);
      });
    }
    for (auto& thread : freers) thread.join();
    // Every generation frees all it made: what the process holds must not keep growing.
    if (generation == 0) resident_after_first = resident_bytes();
  }
  EXPECT_EQ(failures.load(), 0);
  EXPECT_LE(resident_bytes(), 2 * resident_after_first + (64u << 20));
}

TEST(Stress, ThousandsOfShortThreadsLeavingBlocksBehind) {
  constexpr int k_threads = 3000;
  std::vector<void*> left(k_threads);
  size_t resident_at_start = resident_bytes();
  for (int t = 0; t < k_threads; ++t) {
    std::thread([&, t] {
      left[t] = malloc(64 + t % 512);
      memset(left[t], t & 255, 64);
      free(malloc(5000));
    }).join();
    if (t % 100 == 99) {
      for (int i = t - 99; i <= t; ++i) {
        ASSERT_EQ(static_cast<unsigned char*>(left[i])[0], static_cast<unsigned char>(i & 255));
        free(left[i]);
      }
    }
  }
  // Heaps left behind are reused, not piled up.
  EXPECT_LE(resident_bytes(), resident_at_start + (64u << 20));
}

}  // namespace
