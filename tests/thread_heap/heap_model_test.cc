// One heap's worth of small blocks and page runs, on the main thread's heap of the test
// process (reached through the quorla_ names while the harness keeps libc's malloc),
// checked against an independent model after every step.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <vector>

#include "quorlamalloc.h"
#include "thread_heap/quorla_thread_registry.h"

namespace quorla {
extern unsigned int g_uint_memory_malloc_128byte_count;
}


namespace quorla {
namespace {

// The capacity a request must get, from the class table (sizes -> block bytes x blocks),
// the page tier and the 1024-byte group, written out independently of the route table.
size_t expected_capacity(size_t size) {
  if (size <= 8) return 8;
  if (size <= 208) return (size + 15) / 16 * 16;
  struct Row {
    size_t last;
    size_t bytes;
  };
  static const Row rows[] = {{256, 256},   {288, 288},   {320, 320},   {352, 352},   {384, 384},   {416, 416},
                             {512, 512},   {528, 528},   {576, 576},   {624, 624},   {768, 768},   {832, 832},
                             {848, 880},   {1024, 1024}, {1040, 1040}, {1056, 1056}, {1264, 1280}, {1536, 1536},
                             {1696, 1792}, {2048, 2048}, {2128, 2304}, {2544, 2560}, {3072, 3072}, {3408, 3584}};
  for (const Row& row : rows) {
    if (size <= row.last) return row.bytes;
  }
  if (size <= 4096) return 4096;
  if (size <= 10240) {
    size_t blocks = (size + 1023) / 1024;
    if (blocks != 8) return blocks * 1024;
  }
  return (size + 4095) / 4096 * 4096;
}

Memory_thread_local_data& main_heap() { return *g_ptr_memory_thread_local_data_main_thread; }

unsigned long slot_of(const void* ptr) {
  unsigned long offset = reinterpret_cast<unsigned long>(ptr) & 2097151ul;
  return reinterpret_cast<const unsigned long*>(reinterpret_cast<unsigned long>(ptr) - offset)[offset >> 12];
}

bool region_is_mapped(const void* ptr) {
  unsigned char resident;
  void* head = reinterpret_cast<void*>(reinterpret_cast<unsigned long>(ptr) & ~2097151ul);
  return mincore(head, 4096, &resident) == 0;
}

// After a release: the block's nibble (small blocks) or its page slot is 0 -- unless the
// region itself went back to the kernel with it.
void expect_released(const void* ptr, size_t capacity) {
  if (!region_is_mapped(ptr)) return;
  unsigned long slot = slot_of(ptr);
  if (capacity < 4096 || slot > 511) {
    if (slot > 511) {
      EXPECT_EQ(reinterpret_cast<const Memory_bitmap_piece*>(slot)->get_bit_size_from_ptr(ptr), 0u);
    }
  } else {
    EXPECT_EQ(slot, 0u);
  }
}

size_t random_size(std::mt19937_64& random) {
  switch (random() % 8) {
    case 0:
      return 4097 + random() % 300000;
    case 1:
      return 3409 + random() % 700;
    case 2:
      return random() % 9;
    default:
      return random() % 10241;
  }
}

bool heap_is_back_to_one_region() {
  Memory_thread_local_data& heap = main_heap();
  if (heap.page_group.vt_normal.size() != 1 || heap.page_group.vt_full.size() != 0) return false;
  for (const Memory_bitmap_group& group : heap.ar_group) {
    for (unsigned int i = 0; i < group.vt_normal.size(); ++i) {
      if (group.vt_normal[i].ptr_t->ptr_block != nullptr) return false;
    }
    if (group.vt_full.size() != 0) return false;
  }
  return true;
}

// Releases a live block picked at random and checks that its nibble or slot went to 0.
void release_random(std::map<uintptr_t, size_t>& live, std::mt19937_64& random) {
  auto victim = live.begin();
  std::advance(victim, random() % live.size());
  void* ptr = reinterpret_cast<void*>(victim->first);
  size_t capacity = victim->second;
  live.erase(victim);
  quorla_free(ptr);
  expect_released(ptr, capacity);
}

TEST(HeapModel, RandomSizesAndRandomReleaseOrderAgainstAModel) {
  unsigned long seed = getenv("QUORLA_TEST_SEED") ? strtoul(getenv("QUORLA_TEST_SEED"), nullptr, 10) : std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed) + " (replay with QUORLA_TEST_SEED)");
  std::mt19937_64 random(seed);
  std::map<uintptr_t, size_t> live;  // start -> capacity
  // The process's first 128-byte request is served one class up; every later one is not.
  bool first_128 = g_uint_memory_malloc_128byte_count == 0;
  void* block_128 = quorla_malloc(128);
  EXPECT_EQ(quorla_get_malloc_size(block_128), first_128 ? 144u : 128u);
  quorla_free(block_128);
  block_128 = quorla_malloc(128);
  EXPECT_EQ(quorla_get_malloc_size(block_128), 128u);
  quorla_free(block_128);
  for (int round = 0; round < 3; ++round) {
    for (int step = 0; step < 6000; ++step) {
      if (live.empty() || random() % 5 < 3) {
        size_t size = random_size(random);
        auto* block = static_cast<unsigned char*>(quorla_malloc(size));
        ASSERT_NE(block, nullptr);
        size_t capacity = quorla_get_malloc_size(block);
        ASSERT_EQ(capacity, expected_capacity(size)) << "size " << size;
        uintptr_t start = reinterpret_cast<uintptr_t>(block);
        auto after = live.lower_bound(start);
        if (after != live.end()) {
          ASSERT_GE(after->first, start + capacity) << "overlaps the next block";
        }
        if (after != live.begin()) {
          auto before = std::prev(after);
          ASSERT_LE(before->first + before->second, start) << "overlaps the previous block";
        }
        block[0] = 1;
        block[capacity - 1] = 2;
        live[start] = capacity;
      } else {
        release_random(live, random);
      }
    }
    while (!live.empty()) release_random(live, random);
    EXPECT_TRUE(heap_is_back_to_one_region()) << "round " << round;
  }
}

TEST(HeapModel, DoubleAndInnerReleasesChangeNoCounter) {
  auto* small = static_cast<unsigned char*>(quorla_malloc(700));  // three 256-byte blocks
  auto* piece = reinterpret_cast<Memory_bitmap_piece*>(slot_of(small));
  void* keep = quorla_malloc(256);  // keeps the piece backed after the run goes
  unsigned int free_before = piece->uint_free_bit;
  quorla_free(small + 256);  // an inner block: nibble 0
  EXPECT_EQ(piece->uint_free_bit, free_before);
  quorla_free(small);
  EXPECT_EQ(piece->uint_free_bit, free_before + 3);
  quorla_free(small);  // double free
  EXPECT_EQ(piece->uint_free_bit, free_before + 3);

  auto* pages = static_cast<unsigned char*>(quorla_malloc(20000));
  auto* page_piece = reinterpret_cast<Memory_bitmap_page_piece*>(
      *reinterpret_cast<unsigned long*>(reinterpret_cast<unsigned long>(pages) & ~2097151ul));
  void* keep_page = quorla_malloc(4096);
  unsigned int pages_free = page_piece->uint_free_bit;
  quorla_free(pages + 4096);  // a later page of the run
  EXPECT_EQ(page_piece->uint_free_bit, pages_free);
  quorla_free(pages);
  EXPECT_EQ(page_piece->uint_free_bit, pages_free + 5);
  quorla_free(pages);
  EXPECT_EQ(page_piece->uint_free_bit, pages_free + 5);
  quorla_free(keep);
  quorla_free(keep_page);
}

TEST(GroupRules, SetAsideAtZeroFreeAndBackAtSixtyFour) {
  Memory_bitmap_group& group = main_heap().ar_group[0];  // 16-byte blocks
  std::vector<void*> first;
  for (int i = 0; i < 512; ++i) first.push_back(quorla_malloc(16));
  Memory_bitmap_piece* full_piece = reinterpret_cast<Memory_bitmap_piece*>(slot_of(first[0]));
  EXPECT_EQ(full_piece->uint_free_bit, 0u);
  EXPECT_NE(full_piece->uint_offset_normal, 0xFFFFFFFFu) << "still listed until a take meets it";
  void* next = quorla_malloc(16);
  EXPECT_EQ(full_piece->uint_offset_normal, 0xFFFFFFFFu) << "set aside by the take that met it full";
  EXPECT_NE(reinterpret_cast<Memory_bitmap_piece*>(slot_of(next)), full_piece);
  for (int i = 0; i < 63; ++i) quorla_free(first[i]);
  EXPECT_EQ(full_piece->uint_free_bit, 63u);
  EXPECT_EQ(full_piece->uint_offset_normal, 0xFFFFFFFFu) << "63 free stays set aside";
  quorla_free(first[63]);
  EXPECT_EQ(full_piece->uint_offset_normal, group.vt_normal.size() - 1) << "64 free: back, at the end";
  unsigned int listed = group.vt_normal.size();
  for (int i = 64; i < 512; ++i) quorla_free(first[i]);
  EXPECT_EQ(group.vt_normal.size(), listed - 1) << "an empty piece leaves while another is listed";
  quorla_free(next);
  EXPECT_EQ(group.vt_normal.size(), 1u) << "the last piece is kept";
  EXPECT_EQ(group.ptr_piece_first->ptr_block, nullptr) << "without memory";
}

TEST(GroupRules, AnEmptyPieceOfRunsLeavesWhenOthersRemain) {
  Memory_bitmap_page_group& page_group = main_heap().page_group;
  std::vector<void*> runs;
  // 64-page runs: the first region holds 7, then a second region is taken.
  for (int i = 0; i < 9; ++i) runs.push_back(quorla_malloc(64 * 4096));
  EXPECT_GE(page_group.vt_normal.size() + page_group.vt_full.size(), 2u);
  for (void* run : runs) quorla_free(run);
  EXPECT_EQ(page_group.vt_normal.size(), 1u) << "empty regions go back, the last searched piece stays";
  EXPECT_EQ(page_group.vt_full.size(), 0u);
}

}  // namespace
}  // namespace quorla
