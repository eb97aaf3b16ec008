// One heap's worth of small blocks and page runs, on the main thread's heap of the test
// process (reached through the quorla_ names while the harness keeps libc's malloc),
// checked against an independent model after every step.
#include <gtest/gtest.h>

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
namespace {

// The capacity a request must get, from the class table (sizes -> block bytes x blocks),
// the page tier and the 1024-byte group, written out independently of the route table.
size_t expected_capacity(size_t size) {
  if (size <= 8) return 8;
  if (size <= 208) return (size + 15) / 16 * 16;
  static const size_t rows[][2] = {  // last size, block bytes
      {256, 256},   {288, 288},   {320, 320},   {352, 352},   {384, 384},   {416, 416},   {512, 512},   {528, 528},
      {576, 576},   {624, 624},   {768, 768},   {832, 832},   {848, 880},   {1024, 1024}, {1040, 1040}, {1056, 1056},
      {1264, 1280}, {1536, 1536}, {1696, 1792}, {2048, 2048}, {2128, 2304}, {2544, 2560}, {3072, 3072}, {3408, 3584}};
  for (const auto& row : rows) {
    if (size <= row[0]) return row[1];
  }
  if (size <= 4096) return 4096;
  if (size <= 10240 && (size + 1023) / 1024 != 8) return (size + 1023) / 1024 * 1024;
  return (size + 4095) / 4096 * 4096;
}

Memory_thread_local_data& main_heap() { return *g_ptr_memory_thread_local_data_main_thread; }

// The head page of an address's 2 MiB region holds one slot per page (slot 0: the piece).
unsigned long* head_of(const void* ptr) { return reinterpret_cast<unsigned long*>(reinterpret_cast<uintptr_t>(ptr) & ~2097151ul); }
unsigned long slot_of(const void* ptr) { return head_of(ptr)[(reinterpret_cast<uintptr_t>(ptr) & 2097151ul) >> 12]; }

// Whether a page piece of the main heap still owns the region of ptr. Decided from the heap's
// own pieces, without reading the region: a region that went back to the cache may be unmapped
// by the background thread at any moment, while one the heap owns stays mapped.
bool region_owned_by_main_heap(const void* ptr) {
  const auto* region = reinterpret_cast<const unsigned char*>(head_of(ptr));
  for (const auto* vt : {&main_heap().page_group.vt_normal, &main_heap().page_group.vt_full}) {
    for (unsigned int i = 0; i < vt->size(); ++i) {
      if ((*vt)[i].ptr_t->ptr_byte_block == region) return true;
    }
  }
  return false;
}

// Releases a live block picked at random. Its nibble (small blocks) or its page slot must
// then be 0 -- unless the region itself went back with it (to the region cache, where the
// head page is a tag and stale slots, or to the kernel).
void release_random(std::map<uintptr_t, size_t>& live, std::mt19937_64& random) {
  auto victim = std::next(live.begin(), random() % live.size());
  void* ptr = reinterpret_cast<void*>(victim->first);
  const size_t capacity = victim->second;
  live.erase(victim);
  quorla_free(ptr);
  if (!region_owned_by_main_heap(ptr)) return;
  const unsigned long slot = slot_of(ptr);
  if (slot > 511) {
    EXPECT_EQ(reinterpret_cast<const Memory_bitmap_piece*>(slot)->get_bit_size_from_ptr(ptr), 0u);
  } else if (capacity >= 4096) {
    EXPECT_EQ(slot, 0u);
  }
}

bool heap_is_back_to_one_region() {
  const Memory_thread_local_data& heap = main_heap();
  bool clean = heap.page_group.vt_normal.size() == 1 && heap.page_group.vt_full.size() == 0;
  for (const Memory_bitmap_group& group : heap.ar_group) {
    clean = clean && group.vt_full.size() == 0;
    for (unsigned int i = 0; i < group.vt_normal.size(); ++i) clean = clean && group.vt_normal[i].ptr_t->ptr_block == nullptr;
  }
  return clean;
}

TEST(HeapModel, RandomSizesAndRandomReleaseOrderAgainstAModel) {
  const unsigned long seed = getenv("QUORLA_TEST_SEED") ? strtoul(getenv("QUORLA_TEST_SEED"), nullptr, 10) : std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed) + " (replay with QUORLA_TEST_SEED)");
  std::mt19937_64 random(seed);
  // The process's first 128-byte request is served one class up; every later one is not.
  for (size_t expected : {g_uint_memory_malloc_128byte_count == 0 ? 144u : 128u, 128u}) {
    void* block = quorla_malloc(128);
    EXPECT_EQ(quorla_get_malloc_size(block), expected);
    quorla_free(block);
  }
  std::map<uintptr_t, size_t> live;  // start -> capacity
  for (int round = 0; round < 3; ++round) {
    for (int step = 0; step < 6000; ++step) {
      if (!live.empty() && random() % 5 >= 3) {
        release_random(live, random);
        continue;
      }
      const unsigned int kind = random() % 8;  // page runs, sizes around the page tier, tiny, any small
      const size_t size = kind == 0 ? 4097 + random() % 300000 : kind == 1 ? 3409 + random() % 700
                          : kind == 2 ? random() % 9 : random() % 10241;
      auto* block = static_cast<unsigned char*>(quorla_malloc(size));
      ASSERT_NE(block, nullptr);
      const size_t capacity = quorla_get_malloc_size(block);
      ASSERT_EQ(capacity, expected_capacity(size)) << "size " << size;
      const uintptr_t start = reinterpret_cast<uintptr_t>(block);
      auto after = live.lower_bound(start);
      ASSERT_TRUE(after == live.end() || after->first >= start + capacity) << "overlaps the next block";
      ASSERT_TRUE(after == live.begin() || std::prev(after)->first + std::prev(after)->second <= start) << "overlaps the previous";
      block[0] = 1;
      block[capacity - 1] = 2;
      live[start] = capacity;
    }
    while (!live.empty()) release_random(live, random);
    EXPECT_TRUE(heap_is_back_to_one_region()) << "round " << round;
  }
}

// A release of an address inside a run (nibble or slot 0) and a second release of the run
// change no free count; `keep` keeps the piece backed after the run goes.
TEST(HeapModel, DoubleAndInnerReleasesChangeNoCounter) {
  auto check = [](auto* piece, unsigned char* run, size_t inner, unsigned int count, size_t keep_size) {
    void* keep = quorla_malloc(keep_size);
    const unsigned int free_before = piece->uint_free_bit;
    quorla_free(run + inner);
    EXPECT_EQ(piece->uint_free_bit, free_before);
    for (int time = 0; time < 2; ++time) {
      quorla_free(run);
      EXPECT_EQ(piece->uint_free_bit, free_before + count) << "release " << time;
    }
    quorla_free(keep);
  };
  auto* small = static_cast<unsigned char*>(quorla_malloc(700));  // three 256-byte blocks
  check(reinterpret_cast<Memory_bitmap_piece*>(slot_of(small)), small, 256, 3, 256);
  auto* pages = static_cast<unsigned char*>(quorla_malloc(20000));  // five pages
  check(reinterpret_cast<Memory_bitmap_page_piece*>(head_of(pages)[0]), pages, 4096, 5, 4096);
}

TEST(GroupRules, SetAsideAtZeroFreeBackAtSixtyFourAndEmptyPiecesLeaveWhileOthersRemain) {
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
  EXPECT_EQ(full_piece->uint_offset_normal, 0xFFFFFFFFu) << "63 free stays set aside";
  quorla_free(first[63]);
  EXPECT_EQ(full_piece->uint_offset_normal, group.vt_normal.size() - 1) << "64 free: back, at the end";
  const unsigned int listed = group.vt_normal.size();
  for (int i = 64; i < 512; ++i) quorla_free(first[i]);
  EXPECT_EQ(group.vt_normal.size(), listed - 1) << "an empty piece leaves while another is listed";
  quorla_free(next);
  EXPECT_EQ(group.vt_normal.size(), 1u) << "the last piece is kept";
  EXPECT_EQ(group.ptr_piece_first->ptr_block, nullptr) << "without memory";
  // The same for pieces of page runs: 64-page runs fill the first region at 7, then a
  // second region is taken.
  Memory_bitmap_page_group& page_group = main_heap().page_group;
  std::vector<void*> runs;
  for (int i = 0; i < 9; ++i) runs.push_back(quorla_malloc(64 * 4096));
  EXPECT_GE(page_group.vt_normal.size() + page_group.vt_full.size(), 2u);
  for (void* run : runs) quorla_free(run);
  EXPECT_EQ(page_group.vt_normal.size(), 1u) << "empty regions go back, the last searched piece stays";
  EXPECT_EQ(page_group.vt_full.size(), 0u);
}

}  // namespace
}  // namespace quorla
