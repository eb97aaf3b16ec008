// Emptied regions wait in the region cache for the next demand: loops that fill and empty
// regions thousands of times map only a few, and the blocks handed out of reused regions are
// still right (aligned, apart, their contents kept; calloc cleared despite what the region
// held before).
//
// This binary counts the kernel calls itself: it defines mmap and munmap, which the library
// reaches through its symbol table before libc's, and forwards them to the system calls.
#include <malloc.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <thread>
#include <vector>

namespace {
std::atomic<unsigned long> g_mmap_calls{0};
std::atomic<unsigned long> g_munmap_calls{0};
}  // namespace

extern "C" void* mmap(void* addr, size_t length, int prot, int flags, int fd, off_t offset) noexcept {
  g_mmap_calls.fetch_add(1, std::memory_order_relaxed);
  return reinterpret_cast<void*>(syscall(SYS_mmap, addr, length, prot, flags, fd, offset));
}

extern "C" int munmap(void* addr, size_t length) noexcept {
  g_munmap_calls.fetch_add(1, std::memory_order_relaxed);
  return static_cast<int>(syscall(SYS_munmap, addr, length));
}

namespace {

constexpr size_t k_region = 2097152;
constexpr size_t k_one_region_large = 2090000;  // above the region tier: a large block of one region
constexpr size_t k_page_block = 1500000;        // a page block that fills most of a region

// Writes a byte that depends on (seed, offset) every 61440 bytes and at the last byte.
void fill(unsigned char* block, size_t size, unsigned int seed) {
  for (size_t i = 0; i < size; i += 61440) block[i] = static_cast<unsigned char>(seed * 31 + i / 61440);
  block[size - 1] = static_cast<unsigned char>(~seed);
}

bool intact(const unsigned char* block, size_t size, unsigned int seed) {
  for (size_t i = 0; i < size; i += 61440) {
    if (block[i] != static_cast<unsigned char>(seed * 31 + i / 61440)) return false;
  }
  return block[size - 1] == static_cast<unsigned char>(~seed);
}

bool cleared(const unsigned char* block, size_t size) {
  for (size_t i = 0; i < size; i += 61440) {
    if (block[i] != 0) return false;
  }
  return block[size - 1] == 0;
}

// Fills and empties four page-block regions `rounds` times; one of the four comes from calloc
// (which clears one element more: calloc(1, n) asks for 2n bytes).
// Returns false at the first wrong block.
bool page_region_rounds(unsigned int rounds, unsigned int seed) {
  for (unsigned int round = 0; round < rounds; ++round) {
    unsigned char* blocks[4];
    for (unsigned int b = 0; b < 4; ++b) {
      blocks[b] = static_cast<unsigned char*>(b == 3 ? calloc(1, k_page_block / 2) : malloc(k_page_block));
      if (blocks[b] == nullptr || malloc_usable_size(blocks[b]) < k_page_block) return false;
    }
    if (!cleared(blocks[3], k_page_block)) return false;
    for (unsigned int b = 0; b < 4; ++b) fill(blocks[b], k_page_block, seed + round * 4 + b);
    for (unsigned int b = 0; b < 4; ++b) {
      if (!intact(blocks[b], k_page_block, seed + round * 4 + b)) return false;
    }
    for (unsigned int b = 0; b < 4; ++b) free(blocks[b]);
  }
  return true;
}

TEST(RegionCache, OneRegionLargeBlocksAreReusedNotRemapped) {
  free(malloc(k_one_region_large));  // the first may map
  const unsigned long mmaps_before = g_mmap_calls.load(), munmaps_before = g_munmap_calls.load();
  for (unsigned int i = 0; i < 3000; ++i) {
    auto* block = static_cast<unsigned char*>(i % 2 == 0 ? malloc(k_one_region_large) : calloc(1, k_one_region_large / 2));
    ASSERT_NE(block, nullptr);
    ASSERT_EQ(reinterpret_cast<uintptr_t>(block) % k_region, 0u) << "a large block starts a region";
    if (i % 2 == 1) ASSERT_TRUE(cleared(block, k_one_region_large)) << "calloc of a reused region, round " << i;
    fill(block, k_one_region_large, i);
    ASSERT_TRUE(intact(block, k_one_region_large, i));
    free(block);
  }
  const unsigned long mmaps = g_mmap_calls.load() - mmaps_before, munmaps = g_munmap_calls.load() - munmaps_before;
  EXPECT_LE(mmaps, 4u) << "3000 rounds of one region; without reuse each round maps";
  EXPECT_LE(munmaps, 4u);
}

TEST(RegionCache, PageRegionsFilledAndEmptiedThousandsOfTimesMapOnlyAFew) {
  ASSERT_TRUE(page_region_rounds(1, 1));  // warm-up: the heap's pieces and their records
  const unsigned long mmaps_before = g_mmap_calls.load(), munmaps_before = g_munmap_calls.load();
  EXPECT_TRUE(page_region_rounds(1000, 7));
  const unsigned long mmaps = g_mmap_calls.load() - mmaps_before, munmaps = g_munmap_calls.load() - munmaps_before;
  EXPECT_LE(mmaps, 8u) << "4000 region demands";
  EXPECT_LE(munmaps, 8u);
}

TEST(RegionCache, TwoThreadsShareTheCacheAndStillMapOnlyAFew) {
  const unsigned long mmaps_before = g_mmap_calls.load();
  std::atomic<unsigned int> good{0};
  std::vector<std::thread> threads;
  for (unsigned int t = 0; t < 2; ++t) {
    threads.emplace_back([&good, t] {
      if (page_region_rounds(500, 1000 + t * 5000)) good.fetch_add(1);
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(good.load(), 2u) << "every block of both threads was right";
  // Each new thread heap takes its own first region and records; the rest is reuse.
  EXPECT_LE(g_mmap_calls.load() - mmaps_before, 32u) << "4000 region demands on two threads";
}

}  // namespace
