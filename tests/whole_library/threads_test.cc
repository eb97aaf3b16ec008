// Threads on the whole library: cross-thread frees through the owner's queue, more freeing
// threads than a queue has thread slots, full rings, and a stress run with random sizes
// across every tier, pattern-checked blocks, foreign frees and thread churn.
#include <malloc.h>
#include <pthread.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

namespace {

struct Block {
  unsigned char* ptr;
  size_t size;
  unsigned char pattern;
};

void fill(Block& block) {
  memset(block.ptr, block.pattern, block.size);
}

bool intact(const Block& block) {
  for (size_t i = 0; i < block.size; i += (block.size > 4096 ? 509 : 1)) {
    if (block.ptr[i] != block.pattern) return false;
  }
  return block.size == 0 || block.ptr[block.size - 1] == block.pattern;
}

size_t random_size(std::mt19937_64& random) {
  switch (random() % 16) {
    case 0:
      // Own mappings, rarer: each one is mapped, filled and unmapped whole.
      if (random() % 4 == 0) return 2048001 + random() % 3000000;
      return 1 + random() % 64;
    case 1:
    case 2:
      return 10241 + random() % 200000;  // page runs
    case 3:
      return 3409 + random() % 6800;  // a page, 1024-byte runs
    default:
      return random() % 3409;  // small classes and runs
  }
}

TEST(CrossThread, ABlockFreedByAnotherThreadStaysAllocatedUntilItsOwnerDrains) {
  // A pin in the same piece keeps the piece's memory from going back (and being reused by
  // the trigger below) when the drain releases the others.
  void* pin = malloc(100);
  std::vector<void*> blocks;
  for (int i = 0; i < 64; ++i) blocks.push_back(malloc(100));
  std::thread([&] {
    for (void* block : blocks) free(block);
  }).join();
  // Not drained yet: the owner has not allocated since.
  for (void* block : blocks) EXPECT_EQ(malloc_usable_size(block), 112u);
  void* trigger = malloc(16);  // the owner's next malloc applies the queue
  for (void* block : blocks) EXPECT_EQ(malloc_usable_size(block), 0u) << "released by the drain";
  EXPECT_EQ(malloc_usable_size(pin), 112u);
  free(trigger);
  free(pin);
}

TEST(CrossThread, MoreFreeingThreadsThanSlotsAndFullRings) {
  // Sixteen threads free 2000 blocks each of one owner's heap, with no drain in between:
  // thread rings fill past 447, CPU rings and the overflow vector take the rest. The
  // owner's next malloc drains what the flags point at; what went to the overflow vector
  // without a flag may wait for the forced drain at the owner's exit. After that exit,
  // every block is released and every pin is still live.
  constexpr int k_threads = 16;
  constexpr int k_per_thread = 2000;
  std::vector<std::vector<void*>> blocks(k_threads);
  std::vector<void*> pins;  // one live block beside each freed one keeps every piece backed
  size_t released_by_first_drain = 0;
  std::thread owner([&] {
    for (auto& list : blocks) {
      for (int i = 0; i < k_per_thread; ++i) {
        list.push_back(malloc(48));
        memset(list.back(), 0x42, 48);
        pins.push_back(malloc(48));
      }
    }
    // Starting a thread allocates, and an allocation of the owner drains: every thread is
    // started before any of them frees.
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < k_threads; ++t) {
      threads.emplace_back([&, t] {
        while (!go.load()) std::this_thread::yield();
        for (void* block : blocks[t]) free(block);
      });
    }
    go.store(true);
    for (auto& thread : threads) thread.join();
    for (auto& list : blocks) {
      for (void* block : list) ASSERT_EQ(malloc_usable_size(block), 48u) << "nothing applied before a drain";
    }
    free(malloc(16));
    for (auto& list : blocks) {
      for (void* block : list) released_by_first_drain += malloc_usable_size(block) == 0;
    }
  });
  owner.join();
  // Every thread ring was drained at least once by the first malloc.
  EXPECT_GE(released_by_first_drain, 447u);
  for (auto& list : blocks) {
    for (void* block : list) ASSERT_EQ(malloc_usable_size(block), 0u) << "released by the forced drain at exit";
  }
  for (void* pin : pins) ASSERT_EQ(malloc_usable_size(pin), 48u);
  for (void* pin : pins) free(pin);
}

void stress_worker(std::vector<std::vector<Block>>* handoff, std::atomic<int>* failures, int index, unsigned seed,
                   int rounds) {
  std::mt19937_64 random(seed);
  std::vector<Block> live;
  for (int round = 0; round < rounds; ++round) {
    if (live.size() < 64 || random() % 3 != 0) {
      size_t size = random_size(random);
      Block block{static_cast<unsigned char*>(malloc(size)), size, static_cast<unsigned char>(random())};
      if (block.ptr == nullptr) {
        failures->fetch_add(1);
        continue;
      }
      fill(block);
      live.push_back(block);
    } else {
      size_t victim = random() % live.size();
      if (!intact(live[victim])) failures->fetch_add(1);
      free(live[victim].ptr);
      live[victim] = live.back();
      live.pop_back();
    }
  }
  // Half of what is left is freed by another thread.
  size_t keep = live.size() / 2;
  for (size_t i = keep; i < live.size(); ++i) {
    if (!intact(live[i])) failures->fetch_add(1);
    free(live[i].ptr);
  }
  live.resize(keep);
  (*handoff)[index] = std::move(live);
}

// Resident bytes of the process now.
size_t resident_bytes() {
  FILE* file = fopen("/proc/self/statm", "r");
  unsigned long pages = 0, resident = 0;
  if (file != nullptr) {
    if (fscanf(file, "%lu %lu", &pages, &resident) != 2) resident = 0;
    fclose(file);
  }
  return resident * 4096;
}

TEST(Stress, RandomSizesForeignFreesAndThreadChurn) {
  constexpr int k_threads = 8;  // more threads than cores
  std::atomic<int> failures{0};
  size_t resident_after_first = 0;
  for (int generation = 0; generation < 6; ++generation) {
    std::vector<std::vector<Block>> handoff(k_threads);
    std::vector<std::thread> threads;
    for (int t = 0; t < k_threads; ++t) {
      threads.emplace_back(stress_worker, &handoff, &failures, t, 1000u * generation + t, 3000);
    }
    for (auto& thread : threads) thread.join();
    // The blocks left behind by ended threads are checked and freed by other threads.
    std::vector<std::thread> freers;
    for (int t = 0; t < k_threads; ++t) {
      freers.emplace_back([&, t] {
        for (Block& block : handoff[(t + 1) % k_threads]) {
          if (!intact(block)) failures.fetch_add(1);
          free(block.ptr);
        }
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
      void* keep = malloc(64 + t % 512);
      memset(keep, t & 255, 64);
      void* temporary = malloc(5000);
      free(temporary);
      left[t] = keep;
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
