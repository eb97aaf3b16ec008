// Aligned allocation on the whole library: every shape checked for its alignment and its
// capacity.
#include <malloc.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

uintptr_t address(void* ptr) { return reinterpret_cast<uintptr_t>(ptr); }

TEST(Aligned, ShapesAndCapacities) {
  struct Case {
    size_t alignment;
    size_t size;
    size_t capacity;
  } cases[] = {
      {16, 100, 112},    {8, 3, 8},         {64, 64, 64},       {64, 100, 128},     {32, 96, 96},
      {128, 384, 512},   {2048, 2048, 2048}, {4096, 3000, 4096}, {8192, 5000, 8192}, {512, 600, 1024},
      {1024, 1000, 1024}, {4096, 10000, 12288}, {65536, 70000, 131072}, {256, 3000, 3072},
  };
  for (const Case& c : cases) {
    void* block = memalign(c.alignment, c.size);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(address(block) % c.alignment, 0u) << c.alignment << "/" << c.size;
    EXPECT_EQ(malloc_usable_size(block), c.capacity) << c.alignment << "/" << c.size;
    memset(block, 0x33, c.size);
    free(block);
  }
}

TEST(Aligned, ZeroAlignmentAndZeroSize) {
  errno = 0;
  void* zero_alignment = memalign(0, 100);
  if (QUORLA_TEST_HARDENED) {
    EXPECT_EQ(zero_alignment, nullptr) << "the hardened build refuses an alignment of 0";
    EXPECT_EQ(errno, EINVAL);
  } else {
    EXPECT_EQ(malloc_usable_size(zero_alignment), 8u) << "rounded to 0: malloc(0)";
  }
  void* zero_size = memalign(4096, 0);
  EXPECT_EQ(malloc_usable_size(zero_size), 32u) << "a size of 0 is served at the 32-byte class: no page alignment";
  free(zero_alignment);
  free(zero_size);
}

TEST(Aligned, PageAndLargeForms) {
  void* page = valloc(100);
  EXPECT_EQ(address(page) % 4096, 0u);
  EXPECT_EQ(malloc_usable_size(page), 4096u);
  void* pages = pvalloc(10000);
  EXPECT_EQ(address(pages) % 4096, 0u);
  EXPECT_EQ(malloc_usable_size(pages), 12288u);
  void* large = aligned_alloc(4096, 3000000);
  EXPECT_EQ(address(large) % 2097152, 0u);
  free(page);
  free(pages);
  free(large);
}

TEST(Aligned, AlignmentAboveARegionIsReportedAndServed) {
  testing::internal::CaptureStderr();
  void* block = memalign(4194304, 100);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(err, "Error: quorla_aligned_alloc() fail. align too big. size_in=100, alignment_in=4194304\r\n");
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(malloc_usable_size(block), 4194304u);
  free(block);
}

TEST(Aligned, PosixMemalign) {
  void* out = reinterpret_cast<void*>(0x1234);
  testing::internal::CaptureStderr();
  EXPECT_EQ(posix_memalign(&out, 3, 100), 22);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Error: quorla_posix_memalign() EINVAL\r\n");
  EXPECT_EQ(out, reinterpret_cast<void*>(0x1234));
  ASSERT_EQ(posix_memalign(&out, 256, 1000), 0);
  EXPECT_EQ(address(out) % 256, 0u);
  free(out);
}

}  // namespace
