// A thread heap on its own: what a new one holds, its classes, and what a trim with no
// owner and nothing live leaves of it.
#include <gtest/gtest.h>

#include <string>

#include "thread_heap/own_heap.h"

namespace quorla {
namespace {

bool group_has_no_backing_block(const Memory_bitmap_group& group) {
  for (unsigned int i = 0; i < group.vt_normal.size(); ++i) {
    if (group.vt_normal[i].ptr_t->ptr_block != nullptr) return false;
  }
  return group.vt_full.size() == 0;
}

// The owner's id is one no thread has: the heap is only looked at and trimmed here.
struct Heap_record : Own_heap {
  Heap_record() : Own_heap(4242) {}
};

TEST(ThreadHeap, ANewHeapHoldsOneRegionAndNoBackingBlock) {
  Heap_record record;
  Memory_thread_local_data& heap = *record.heap;
  EXPECT_EQ(heap.page_group.ulong_thread_id, 4242u);
  EXPECT_EQ(heap.page_group.vt_normal.size(), 1u);
  EXPECT_EQ(heap.page_group.vt_full.size(), 0u);
  EXPECT_EQ(heap.page_group.ptr_mpsc_queue_wait_release, nullptr) << "the queue is made by the first foreign free";
  EXPECT_TRUE(group_has_no_backing_block(heap.group_8byte));
  for (const Memory_bitmap_group& group : heap.ar_group) EXPECT_TRUE(group_has_no_backing_block(group));
}

// The seventeen classes of a heap, written out from the design's table: class number,
// backing-block bytes, pages, block bytes and the division shift (0: not a power of two).
struct Class_row {
  unsigned char block_type;
  unsigned int piece_byte;
  unsigned int pages;
  unsigned int block_byte;
  unsigned char shift;
};
constexpr Class_row k_classes[17] = {
    {16, 4096, 1, 8, 3},       {0, 8192, 2, 16, 4},       {1, 16384, 4, 32, 5},      {2, 24576, 6, 48, 0},
    {3, 32768, 8, 64, 6},      {4, 40960, 10, 80, 0},     {5, 49152, 12, 96, 0},     {6, 57344, 14, 112, 0},
    {7, 65536, 16, 128, 7},    {8, 73728, 18, 144, 0},    {9, 81920, 20, 160, 0},    {10, 90112, 22, 176, 0},
    {11, 98304, 24, 192, 0},   {12, 106496, 26, 208, 0},  {13, 131072, 32, 256, 8},  {14, 262144, 64, 512, 9},
    {15, 524288, 128, 1024, 10},
};

TEST(ThreadHeap, ANewHeapSetsUpTheSeventeenClassesOfTheTable) {
  Heap_record record;
  Memory_thread_local_data& heap = *record.heap;
  for (unsigned int i = 0; i < 17; ++i) {
    const Class_row& row = k_classes[i];
    const Memory_bitmap_group& group = i == 0 ? heap.group_8byte : heap.ar_group[i - 1];
    SCOPED_TRACE("class " + std::to_string(row.block_type));
    EXPECT_EQ(group.uchar_block_type, row.block_type);
    EXPECT_EQ(group.uint_piece_byte, row.piece_byte);
    EXPECT_EQ(group.uint_page_bit_size, row.pages);
    EXPECT_EQ(group.uint_bit_ref_byte, row.block_byte);
    EXPECT_EQ(group.uchar_bit_ref_shift, row.shift);
    EXPECT_EQ(group.ptr_page_group, &heap.page_group);
  }
}

TEST(ThreadHeap, TrimWithoutOwnerAndNothingLiveEmptiesThePageGroup) {
  Heap_record record;
  Memory_thread_local_data& heap = *record.heap;
  heap.page_group.ulong_thread_id = 0;
  heap.trim();
  EXPECT_EQ(heap.page_group.vt_normal.size(), 0u);
  EXPECT_EQ(heap.page_group.vt_full.size(), 0u);
}

TEST(ThreadHeap, TrimWithAnOwnerKeepsTheOnlyRegion) {
  Heap_record record;
  record.heap->trim();
  EXPECT_EQ(record.heap->page_group.vt_normal.size(), 1u);
}

}  // namespace
}  // namespace quorla
