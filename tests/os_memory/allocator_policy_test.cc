// The lowest allocator triples: the mapping triple rounds to whole pages and writes the
// rounded size back (a vector fed by it takes that as its capacity), its free unmaps the
// rounded size whatever the caller passes; the before-init triple's realloc takes the new
// block by the low 32 bits of the size and copies by the full sizes.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cerrno>
#include <cstring>

#include "foundation/quorla_vector_allocator.h"
#include "os_memory/quorla_memory_allocator.h"
#include "os_memory/quorla_os_mmap.h"
#include "startup/quorla_before_init.h"

namespace quorla {
namespace {

constexpr unsigned long k_page = 4096;

bool page_mapped(const void* ptr) {
  unsigned char c;
  return mincore(const_cast<void*>(ptr), k_page, &c) == 0;
}

TEST(Os_mmap_page_policy, MallocRoundsToPagesAndWritesTheSizeBack) {
  Memory_allocator_os_mmap_page allocator;
  const size_t mapped_before = g_locking_sizet_os_malloc_all_size;
  unsigned long size = 5;
  auto* block = static_cast<unsigned char*>(allocator.malloc(size));
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(size, k_page);
  EXPECT_EQ(reinterpret_cast<unsigned long>(block) % k_page, 0u);
  EXPECT_EQ(g_locking_sizet_os_malloc_all_size, mapped_before + k_page);

  // Free with the size as first asked: the page still goes, and the counter with it.
  allocator.free(block, 5);
  EXPECT_FALSE(page_mapped(block));
  EXPECT_EQ(g_locking_sizet_os_malloc_all_size, mapped_before);
}

TEST(Os_mmap_page_policy, FreeUnmapsTheRoundedSize) {
  Memory_allocator_os_mmap_page allocator;
  const size_t mapped_before = g_locking_sizet_os_malloc_all_size;
  unsigned long size = 3 * k_page;
  auto* block = static_cast<unsigned char*>(allocator.malloc(size));
  ASSERT_EQ(size, 3 * k_page);
  memset(block, 1, size);
  // 8193 bytes cover three pages.
  allocator.free(block, 2 * k_page + 1);
  for (int i = 0; i < 3; ++i) EXPECT_FALSE(page_mapped(block + i * k_page)) << "page " << i;
  EXPECT_EQ(g_locking_sizet_os_malloc_all_size, mapped_before);
}

TEST(Os_mmap_page_policy, ReallocKeepsTheBytesAndWritesTheNewSizeBack) {
  Memory_allocator_os_mmap_page allocator;
  unsigned long size = k_page;
  auto* block = static_cast<unsigned char*>(allocator.malloc(size));
  for (unsigned long i = 0; i < k_page; ++i) block[i] = static_cast<unsigned char>(i * 7);
  unsigned long new_size = k_page + 10;
  auto* grown = static_cast<unsigned char*>(allocator.realloc(block, k_page, new_size));
  EXPECT_EQ(new_size, 2 * k_page);
  for (unsigned long i = 0; i < k_page; ++i) ASSERT_EQ(grown[i], static_cast<unsigned char>(i * 7)) << i;
  grown[2 * k_page - 1] = 1;  // the whole rounded size is usable
  allocator.free(grown, new_size);
}

TEST(Os_mmap_page_policy, AVectorTakesThePagesItGotAsItsCapacity) {
  vector_allocator<unsigned long, Memory_allocator_os_mmap_page> vector;
  vector.push_back(1);
  EXPECT_EQ(vector.capacity(), k_page / sizeof(unsigned long)) << "4 entries asked, a whole page given";
  for (unsigned long i = 2; i <= 600; ++i) vector.push_back(i);
  EXPECT_EQ(vector.capacity(), 2 * k_page / sizeof(unsigned long));
  for (unsigned long i = 0; i < 600; ++i) ASSERT_EQ(vector[static_cast<unsigned int>(i)], i + 1);
}

TEST(Before_init_policy, ReallocAbove4GbUsesTheLow32BitsAndCopiesByTheFullSizes) {
  Memory_allocator_before_init allocator;
  unsigned long size = 32;
  auto* block = static_cast<unsigned char*>(allocator.malloc(size));
  for (int i = 0; i < 32; ++i) block[i] = static_cast<unsigned char>(0x40 + i);
  unsigned long new_size = (1ul << 32) + 64;
  auto* moved = static_cast<unsigned char*>(allocator.realloc(block, 32, new_size));
  ASSERT_NE(moved, block) << "the before-init realloc always moves";
  EXPECT_EQ(quorla_get_malloc_size_before_init(moved), 64u) << "a block of the low 32 bits, 64";
  for (int i = 0; i < 32; ++i) EXPECT_EQ(moved[i], 0x40 + i) << i;
  allocator.free(moved, new_size);
}

TEST(Before_init_policy, ReallocShrinkingCopiesOnlyTheNewSize) {
  Memory_allocator_before_init allocator;
  unsigned long size = 96;
  auto* block = static_cast<unsigned char*>(allocator.malloc(size));
  memset(block, 0x11, 96);
  // Clear the space the new block will take (the newest block rewinds when freed).
  auto* probe = static_cast<unsigned char*>(quorla_malloc_before_init(256));
  memset(probe, 0, 256);
  quorla_free_before_init(probe);
  unsigned long new_size = 40;
  auto* moved = static_cast<unsigned char*>(allocator.realloc(block, 96, new_size));
  ASSERT_EQ(moved, probe);
  EXPECT_EQ(quorla_get_malloc_size_before_init(moved), 48u);
  for (int i = 0; i < 40; ++i) EXPECT_EQ(moved[i], 0x11) << i;
  for (int i = 48; i < 128; ++i) ASSERT_EQ(moved[i], 0) << "the copy ran past the new block, byte " << i;
  allocator.free(moved, new_size);
}

}  // namespace
}  // namespace quorla
