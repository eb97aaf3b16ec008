// The before-init heap on heaps of its own: each test builds a fresh object (zeroed, as a
// global would be) so that the arithmetic starts from a known base.
#include "startup/quorla_before_init.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <new>

#include <unistd.h>

namespace quorla {
namespace {

class BeforeInitHeap : public ::testing::Test {
 protected:
  void SetUp() override {
    // Zeroed after construction, as static storage is (zeroing before is a dead store).
    heap_ = new (storage_) Memory_before_init_data;
    memset(static_cast<void*>(heap_), 0, sizeof(Memory_before_init_data));
  }
  unsigned long used() const { return heap_->get_use_byte(); }

  alignas(Memory_before_init_data) unsigned char storage_[sizeof(Memory_before_init_data)];
  Memory_before_init_data* heap_ = nullptr;
};

TEST_F(BeforeInitHeap, OneBufferSixteenByteHeadersAndUnits) {
  EXPECT_EQ(heap_->get_all_byte(), 0u);
  auto* block = static_cast<unsigned char*>(heap_->malloc(100));
  EXPECT_EQ(heap_->get_all_byte(), 393216u) << "the whole buffer at the first use";
  EXPECT_EQ(block, heap_->get_base_ptr() + 16);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % 16, 0u) << "sbrk gave a 16-aligned base";
  auto* header = reinterpret_cast<Struct_before_init_header*>(block - 16);
  EXPECT_EQ(header->ptr_self, block - 16);
  EXPECT_EQ(header->uint_block_unit, 8u) << "header + 100 rounded up to 16, in 16-byte units";
  EXPECT_EQ(header->uint_tag, 0x89ABCDEFu);
  EXPECT_EQ(used(), 128u);
  EXPECT_EQ(heap_->get_free_byte(), k_before_init_byte - 128);
  // Sizes 0 and 1 both take 32 bytes and offer 16.
  void* zero = heap_->malloc(0);
  void* one = heap_->malloc(1);
  EXPECT_EQ(used(), 128u + 64u);
  EXPECT_EQ(heap_->get_malloc_size(zero), 16u);
  EXPECT_EQ(heap_->get_malloc_size(one), 16u);
  EXPECT_EQ(heap_->get_malloc_size(heap_->malloc(17)), 32u);
}

// sbrk hands back the tail of the page the old break lay in, with whatever was written there.
TEST_F(BeforeInitHeap, TheBufferIsZeroEvenWhereTheBreakHadBeenUsedBefore) {
  // Move the break off a page boundary, so that the page under it stays mapped when it moves back.
  ASSERT_NE(sbrk(128), reinterpret_cast<void*>(-1));
  auto* dirty = static_cast<unsigned char*>(sbrk(64));
  ASSERT_NE(dirty, reinterpret_cast<unsigned char*>(-1));
  memset(dirty, 0xAB, 64);
  ASSERT_NE(sbrk(-64), reinterpret_cast<void*>(-1));
  heap_->malloc(16);
  ASSERT_EQ(heap_->get_base_ptr(), dirty) << "the buffer starts at the old break";
  for (unsigned i = 32; i < 64; ++i) EXPECT_EQ(dirty[i], 0) << "byte " << i;
  const unsigned char* last = heap_->get_base_ptr() + k_before_init_byte - 64;
  for (unsigned i = 0; i < 64; ++i) EXPECT_EQ(last[i], 0);
}

TEST_F(BeforeInitHeap, OnlyTheNewestValidBlockRewindsAndOnlyByItsOwnSize) {
  heap_->malloc(10);
  auto* first = static_cast<unsigned char*>(heap_->malloc(100));
  void* second = heap_->malloc(200);
  const unsigned long before = used();
  heap_->free(first);  // not the newest: lost
  EXPECT_EQ(used(), before);
  heap_->free(second);  // newest: rewinds by 16 + 208
  EXPECT_EQ(used(), before - 224);
  heap_->free(first + 32);  // inside the block, no header there
  EXPECT_EQ(used(), before - 224);
  heap_->free(first);  // now the newest again, but it was already passed over once
  EXPECT_EQ(used(), before - 224 - 128) << "a block that is newest again can still rewind";
  EXPECT_EQ(heap_->malloc(100), first) << "allocate, free, allocate gives the same address";
  reinterpret_cast<Struct_before_init_header*>(first - 16)->uint_tag = 0;
  heap_->free(first);
  EXPECT_EQ(used(), before - 224) << "a damaged tag makes the block unknown";
}

TEST_F(BeforeInitHeap, ExactlyFillingTheBufferPassesOneUnitMoreAborts) {
  // 393216 bytes in blocks of 4096 (header included): 96 blocks of 4080 requested bytes.
  for (int i = 0; i < 95; ++i) heap_->malloc(4096 - 16);
  EXPECT_DEATH(heap_->malloc(4096 - 16 + 1), "^Error: Memory_before_init_data::add_use_byte\\(\\) over size\\.\r\n$");
  heap_->malloc(4096 - 16);
  EXPECT_EQ(used(), static_cast<unsigned long>(k_before_init_byte));
  EXPECT_EQ(heap_->get_free_byte(), 0u);
}

TEST_F(BeforeInitHeap, AlignedFormProbesPadsAndAbortsOnADifferenceOfSixteen) {
  // A fresh heap's first payload is base + 16, 16 mod 32: the padding request would be 0.
  EXPECT_DEATH(heap_->malloc_align(32, 100),
               "^Log: quorla_malloc_before_init_align\\(\\) sizet_size_in=100, sizet_real_malloc_size=132, "
               "uint_diff=16, sizet_alignment_in=32, sizet_test=16\r\n$");
  auto* padded = static_cast<unsigned char*>(heap_->malloc_align(64, 100));
  EXPECT_EQ(reinterpret_cast<uintptr_t>(padded) % 64, 0u);
  EXPECT_EQ(padded, heap_->get_base_ptr() + 64) << "padding of 48 bytes, then the header";
  EXPECT_EQ(heap_->get_malloc_size(padded), 112u);
  // 176 bytes used: the next block's payload lands on base + 192, already 32-aligned.
  const unsigned long before = used();
  auto* aligned = static_cast<unsigned char*>(heap_->malloc_align(32, 100));
  EXPECT_EQ(reinterpret_cast<uintptr_t>(aligned) % 32, 0u);
  EXPECT_EQ(used(), before + 128) << "the probe block was rewound";
}

TEST_F(BeforeInitHeap, ReallocAlwaysMovesAndCopiesTheSmallerSize) {
  auto* block = static_cast<unsigned char*>(heap_->malloc(64));
  for (int i = 0; i < 64; ++i) block[i] = static_cast<unsigned char>(i + 1);
  auto* larger = static_cast<unsigned char*>(heap_->realloc(block, 200));
  ASSERT_NE(larger, block);
  for (int i = 0; i < 64; ++i) EXPECT_EQ(larger[i], i + 1);
  // The block size 200 rounds to (224) is asked for again as a payload: 224 usable where 208 would do.
  EXPECT_EQ(heap_->get_malloc_size(larger), 224u);
  auto* smaller = static_cast<unsigned char*>(heap_->realloc(larger, 10));
  EXPECT_NE(smaller, larger);
  for (int i = 0; i < 16; ++i) EXPECT_EQ(smaller[i], i + 1);
  EXPECT_NE(heap_->realloc(smaller, 10), smaller) << "not even an equal size stays in place";
}

}  // namespace
}  // namespace quorla
