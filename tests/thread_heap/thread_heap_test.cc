// A thread heap on its own: what a new one holds, and what a trim with no owner and
// nothing live leaves of it.
#include <gtest/gtest.h>

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
