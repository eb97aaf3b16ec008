// The page group's rules at their boundaries, on a heap of its own: a region is set aside
// by the search that fails on it with at most 63 free pages and comes back when a release
// lifts it to 64; a region on huge pages coming back takes the lead; an empty region goes
// back unless it is the only one searched.
#include <gtest/gtest.h>
#include <pthread.h>

#include <vector>

#include "quorlamalloc.h"
#include "thread_heap/own_heap.h"

namespace quorla {
namespace {

// A heap owned by the test's thread, so that quorla_free takes the owner's path for its
// blocks; the thread's registered heap is not involved.
struct Thread_own_heap : Own_heap {
  Thread_own_heap() : Own_heap(pthread_self()) {}
};

constexpr unsigned int k_aside = 0xFFFFFFFF;

// Leaves the first region with 15 free pages: 61 runs of 8 and 8 single pages.
struct Nearly_full_region {
  explicit Nearly_full_region(Memory_bitmap_page_group& group) : first(group.ptr_first_normal) {
    for (int i = 0; i < 61; ++i) runs.push_back(group.malloc_bit_size(8));
    for (int i = 0; i < 8; ++i) singles.push_back(group.take_one_page());
  }
  Memory_bitmap_page_piece* first;
  std::vector<void*> runs;
  std::vector<void*> singles;
};

TEST(PageGroupRules, SetAsideAtSixtyThreeAndBackAtSixtyFour) {
  Thread_own_heap own;
  Memory_bitmap_page_group& group = own.heap->page_group;
  Nearly_full_region region(group);
  ASSERT_EQ(region.first->uint_free_bit, 15u);
  void* sixteen = group.malloc_bit_size(16);  // can't be served there: set aside, a new region
  EXPECT_EQ(region.first->uint_offset_normal, k_aside);
  EXPECT_EQ(group.vt_full.size(), 1u);
  EXPECT_EQ(group.vt_normal.size(), 1u);
  for (int i = 0; i < 6; ++i) quorla_free(region.runs[i]);
  EXPECT_EQ(region.first->uint_free_bit, 63u);
  EXPECT_EQ(region.first->uint_offset_normal, k_aside) << "63 free: still set aside";
  quorla_free(region.singles[0]);
  EXPECT_EQ(region.first->uint_free_bit, 64u);
  ASSERT_NE(region.first->uint_offset_normal, k_aside) << "64 free: searched again";
  EXPECT_EQ(region.first->uint_offset_normal, group.vt_normal.size() - 1) << "an ordinary region comes back last";
  EXPECT_NE(group.ptr_first_normal, region.first);
  // Everything released: the emptied regions go, one stays searched.
  for (size_t i = 6; i < region.runs.size(); ++i) quorla_free(region.runs[i]);
  for (size_t i = 1; i < region.singles.size(); ++i) quorla_free(region.singles[i]);
  quorla_free(sixteen);
  EXPECT_EQ(group.vt_normal.size(), 1u);
  EXPECT_EQ(group.vt_full.size(), 0u);
  EXPECT_EQ(group.ptr_first_normal->uint_free_bit, 511u);
}

TEST(PageGroupRules, AHugePageRegionComingBackTakesTheLead) {
  Thread_own_heap own;
  Memory_bitmap_page_group& group = own.heap->page_group;
  Nearly_full_region region(group);
  void* sixteen = group.malloc_bit_size(16);
  ASSERT_EQ(region.first->uint_offset_normal, k_aside);
  Memory_bitmap_page_piece* ordinary = group.ptr_first_normal;
  ASSERT_EQ(ordinary->uchar_page_type, 0u);
  // The type is only read by the rule under test here; it is put back before the region
  // is unmapped.
  region.first->uchar_page_type = 1;
  for (int i = 0; i < 7; ++i) quorla_free(region.runs[i]);
  EXPECT_EQ(group.ptr_first_normal, region.first);
  EXPECT_EQ(region.first->uint_offset_normal, 0u);
  EXPECT_EQ(ordinary->uint_offset_normal, 1u) << "the former first takes the returning region's place";
  region.first->uchar_page_type = 0;
  for (size_t i = 7; i < region.runs.size(); ++i) quorla_free(region.runs[i]);
  for (void* single : region.singles) quorla_free(single);
  quorla_free(sixteen);
  EXPECT_EQ(group.vt_normal.size(), 1u);
}

TEST(PageGroupRules, SinglePagesSetAsideOnlyAFullRegion) {
  Thread_own_heap own;
  Memory_bitmap_page_group& group = own.heap->page_group;
  Memory_bitmap_page_piece* first = group.ptr_first_normal;
  std::vector<void*> pages;
  for (int i = 0; i < 511; ++i) pages.push_back(group.take_one_page());
  EXPECT_EQ(first->uint_free_bit, 0u);
  EXPECT_NE(first->uint_offset_normal, k_aside) << "still searched until a take meets it full";
  pages.push_back(group.take_one_page());
  EXPECT_EQ(first->uint_offset_normal, k_aside);
  for (void* page : pages) quorla_free(page);
  EXPECT_EQ(group.vt_normal.size(), 1u);
  EXPECT_EQ(group.vt_full.size(), 0u);
}

}  // namespace
}  // namespace quorla
