// realloc, calloc and reallocarray on the whole library.
#include <malloc.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace {

std::string capture_stderr_of(void (*run)()) {
  testing::internal::CaptureStderr();
  run();
  return testing::internal::GetCapturedStderr();
}

TEST(Realloc, NullAndZeroCases) {
  void* from_null = realloc(nullptr, 0);
  ASSERT_NE(from_null, nullptr) << "realloc(nullptr, 0) is malloc(0)";
  EXPECT_EQ(malloc_usable_size(from_null), 8u);
  void* block = malloc(50);
  EXPECT_EQ(realloc(block, 0), nullptr) << "realloc(p, 0) frees p";
  free(from_null);
}

TEST(Realloc, EveryLiveReallocMovesAndKeepsTheSmallerCapacity) {
  char* block = static_cast<char*>(malloc(100));
  for (int i = 0; i < 100; ++i) block[i] = static_cast<char>(i);
  char* same = static_cast<char*>(realloc(block, 100));
  ASSERT_NE(same, block) << "even an equal size moves";
  for (int i = 0; i < 100; ++i) ASSERT_EQ(same[i], static_cast<char>(i));
  char* larger = static_cast<char*>(realloc(same, 5000));
  for (int i = 0; i < 100; ++i) ASSERT_EQ(larger[i], static_cast<char>(i));
  char* smaller = static_cast<char*>(realloc(larger, 10));
  for (int i = 0; i < 10; ++i) ASSERT_EQ(smaller[i], static_cast<char>(i));
  char* huge = static_cast<char*>(realloc(smaller, 3000000));
  for (int i = 0; i < 10; ++i) ASSERT_EQ(huge[i], static_cast<char>(i));
  char* huge_again = static_cast<char*>(realloc(huge, 3000000));
  EXPECT_NE(huge_again, huge) << "large blocks move too";
  free(huge_again);
}

TEST(Calloc, ClearsOneElementMore) {
  unsigned char* block = static_cast<unsigned char*>(calloc(3, 16));
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(malloc_usable_size(block), 64u);
  for (int i = 0; i < 64; ++i) ASSERT_EQ(block[i], 0);
  free(block);
  void* zero_count = calloc(0, 8);
  EXPECT_EQ(malloc_usable_size(zero_count), 16u);
  void* zero_both = calloc(0, 0);
  EXPECT_EQ(malloc_usable_size(zero_both), 8u);
  free(zero_count);
  free(zero_both);
}

TEST(Calloc, ReusedMemoryIsClearedToo) {
  for (int round = 0; round < 4; ++round) {
    unsigned char* dirty = static_cast<unsigned char*>(malloc(4000));
    memset(dirty, 0xEE, 4000);
    free(dirty);
    unsigned char* clean = static_cast<unsigned char*>(calloc(1, 1990));
    for (int i = 0; i < 3980; ++i) ASSERT_EQ(clean[i], 0);
    free(clean);
  }
}

TEST(Calloc, TheOneOverflowTestWritesItsLineAndReturnsNull) {
  std::string err = capture_stderr_of([] {
    volatile size_t huge_count = SIZE_MAX / 2;  // opaque to the compiler's size checks
    void* block = calloc(huge_count, 4);
    EXPECT_EQ(block, nullptr);
  });
  EXPECT_EQ(err, "Log: quorla_calloc() over size. sizet_nmemb_in=" + std::to_string(SIZE_MAX / 2) +
                     ", sizet_size_in=4\r\n");
}

TEST(ReallocArray, AsksForOneElementMore) {
  void* block = reallocarray(nullptr, 3, 100);
  EXPECT_EQ(malloc_usable_size(block), 416u) << "4 x 100 bytes, the 416-byte run";
  void* again = reallocarray(block, 0, 100);
  EXPECT_EQ(malloc_usable_size(again), 208u) << "0 elements ask for 2";
  free(again);
}

}  // namespace
