// The lowest allocator triples: the mapping triple rounds to whole pages and writes the
// rounded size back (a vector takes that as its capacity) and frees the rounded size; the
// before-init realloc takes the new block by the low 32 bits of the size and copies by the
// full sizes.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstring>

#include "foundation/quorla_vector_allocator.h"
#include "page_heap/quorla_memory_allocator.h"
#include "os_memory/quorla_os_mmap.h"
#include "startup/quorla_before_init.h"

namespace quorla {
namespace {

constexpr unsigned long k_page = 4096;

TEST(Os_mmap_page_policy, MallocRoundsToPagesWritesTheSizeBackAndFreeTakesTheRoundedSize) {
  Memory_allocator_os_mmap_page allocator;
  const size_t mapped_before = g_locking_sizet_os_malloc_all_size;
  unsigned long size = 5;
  void* block = allocator.malloc(size);
  EXPECT_EQ(size, k_page);
  EXPECT_EQ(g_locking_sizet_os_malloc_all_size, mapped_before + k_page);
  allocator.free(block, 5);  // the size as first asked
  unsigned char c;
  EXPECT_NE(mincore(block, k_page, &c), 0);
  EXPECT_EQ(g_locking_sizet_os_malloc_all_size, mapped_before);
}

// Growth goes through the triple's realloc.
TEST(Os_mmap_page_policy, AVectorTakesThePagesItGotAsItsCapacity) {
  vector_allocator<unsigned long, Memory_allocator_os_mmap_page> vector;
  vector.push_back(1);
  EXPECT_EQ(vector.capacity(), k_page / sizeof(unsigned long));
  for (unsigned long i = 2; i <= 600; ++i) vector.push_back(i);
  EXPECT_EQ(vector.capacity(), 2 * k_page / sizeof(unsigned long));
  for (unsigned int i = 0; i < 600; ++i) ASSERT_EQ(vector[i], i + 1ul);
}

TEST(Before_init_policy, ReallocAbove4GbUsesTheLow32BitsAndCopiesByTheFullSizes) {
  Memory_allocator_before_init allocator;
  unsigned long size = 32;
  auto* block = static_cast<unsigned char*>(allocator.malloc(size));
  for (int i = 0; i < 32; ++i) block[i] = static_cast<unsigned char>(0x40 + i);
  unsigned long new_size = (1ul << 32) + 64;
  auto* moved = static_cast<unsigned char*>(allocator.realloc(block, 32, new_size));
  EXPECT_EQ(quorla_get_malloc_size_before_init(moved), 64u);
  for (int i = 0; i < 32; ++i) EXPECT_EQ(moved[i], 0x40 + i) << i;
  allocator.free(moved, new_size);
}

TEST(Before_init_policy, ReallocShrinkingCopiesOnlyTheNewSize) {
  Memory_allocator_before_init allocator;
  unsigned long size = 96;
  auto* block = static_cast<unsigned char*>(allocator.malloc(size));
  memset(block, 0x11, 96);
  // Zero the space the new block will take (the newest block rewinds when freed).
  auto* probe = static_cast<unsigned char*>(quorla_malloc_before_init(256));
  memset(probe, 0, 256);
  quorla_free_before_init(probe);
  unsigned long new_size = 40;
  auto* moved = static_cast<unsigned char*>(allocator.realloc(block, 96, new_size));
  ASSERT_EQ(moved, probe);
  for (int i = 0; i < 40; ++i) EXPECT_EQ(moved[i], 0x11) << i;
  for (int i = 48; i < 128; ++i) ASSERT_EQ(moved[i], 0) << "the copy ran past the new block, byte " << i;
  allocator.free(moved, new_size);
}

}  // namespace
}  // namespace quorla
