// Sizes, routes and capacities as the whole process sees them: every allocation of this
// test binary (GoogleTest's too) goes through libquorlamalloc.so.
#include <malloc.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "quorlamalloc.h"

namespace {

uintptr_t address(void* ptr) { return reinterpret_cast<uintptr_t>(ptr); }

TEST(Sizes, TinyRequestsTakeTheEightByteClass) {
  for (size_t size = 0; size <= 8; ++size) {
    void* block = malloc(size);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(address(block) % 8, 0u);
    EXPECT_EQ(malloc_usable_size(block), 8u) << size;
    free(block);
  }
  void* nine = malloc(9);
  EXPECT_EQ(address(nine) % 16, 0u);
  EXPECT_EQ(malloc_usable_size(nine), 16u);
  free(nine);
}

TEST(Sizes, CapacityFollowsTheClassTable) {
  struct Case {
    size_t request;
    size_t capacity;
  } cases[] = {{100, 112},  {224, 256},   {256, 256},   {257, 288},   {1000, 1024}, {1265, 1536},
               {3408, 3584}, {3409, 4096}, {4096, 4096}, {5000, 5120}, {7168, 7168}, {7169, 8192},
               {8000, 8192}, {8192, 8192}, {8193, 9216}, {10240, 10240}, {10241, 12288}, {2048000, 2048000}};
  for (const Case& c : cases) {
    void* block = malloc(c.request);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(malloc_usable_size(block), c.capacity) << c.request;
    memset(block, 0x5A, c.request);
    free(block);
  }
}

TEST(Sizes, AboveTheRegionLimitEachBlockIsAMappingOfItsOwn) {
  void* in_region = malloc(2048000);
  EXPECT_NE(address(in_region) % 2097152, 0u) << "2048000 bytes are served inside a region";
  void* large = malloc(2048001);
  EXPECT_EQ(address(large) % 2097152, 0u);
  EXPECT_EQ(malloc_usable_size(large), 2097152u);
  void* larger = malloc(2097153);
  EXPECT_EQ(address(larger) % 2097152, 0u);
  EXPECT_EQ(malloc_usable_size(larger), 4194304u);
  memset(larger, 1, 2097153);
  free(in_region);
  free(large);
  free(larger);
}

TEST(Sizes, AWrappingLargeRequestFailsWithEnomem) {
  errno = 0;
  volatile size_t huge = SIZE_MAX - 100;  // opaque to the compiler's size checks
  void* block = malloc(huge);
  EXPECT_EQ(block, nullptr);
  EXPECT_EQ(errno, ENOMEM);
}

TEST(Sizes, InnerPointersAndDoubleFreesAreSilent) {
  char* run = static_cast<char*>(malloc(700));  // three 256-byte blocks
  EXPECT_EQ(malloc_usable_size(run), 768u);
  EXPECT_EQ(malloc_usable_size(run + 256), 0u) << "an inner block of a run answers 0";
  free(run + 256);  // dropped: nibble 0
  EXPECT_EQ(malloc_usable_size(run), 768u);
  free(run);
  char* page_run = static_cast<char*>(malloc(20000));
  free(page_run + 8192);  // a later page of the run: slot 0, dropped
  EXPECT_EQ(malloc_usable_size(page_run), 20480u);
  free(page_run);
  free(page_run);  // second free of a page block: slot 0 now, dropped
  free(nullptr);
}

TEST(Sizes, QuorlaNamesAreTheSameAllocator) {
  void* block = quorla_malloc(300);
  EXPECT_EQ(malloc_usable_size(block), 320u);
  quorla_free(block);
}

}  // namespace
