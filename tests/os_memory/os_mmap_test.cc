// The mapping layer: exact counter arithmetic for every mapping shape, both outcomes of
// the alignment trick (the kernel's address replaced through the test seam), realloc,
// release by region tag, the failure and warning lines (built without allocating), and the
// huge-page paths when the machine lets the test reserve huge pages.
#include "os_memory/quorla_os_mmap.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "malloc_call_counter.h"
#include "os_memory/quorla_memory_settings.h"
#include "os_memory/quorla_region_tag.h"

namespace quorla {
namespace {

constexpr unsigned long k_page = 4096;
constexpr unsigned long k_2m = 2097152;

// True when every page of [ptr, ptr + size) is mapped.
bool is_mapped(const void* ptr, unsigned long size) {
  std::vector<unsigned char> vec(size / k_page + 1);
  return mincore(const_cast<void*>(ptr), size, vec.data()) == 0;
}

// True when no page of [ptr, ptr + size) is mapped.
bool is_unmapped(const void* ptr, unsigned long size) {
  unsigned char c;
  for (unsigned long off = 0; off < size; off += k_page) {
    if (mincore(static_cast<unsigned char*>(const_cast<void*>(ptr)) + off, k_page, &c) == 0) return false;
    if (errno != ENOMEM) return false;
  }
  return true;
}

// Number of pages of [ptr, ptr + size) that are resident.
unsigned long resident_pages(const void* ptr, unsigned long size) {
  std::vector<unsigned char> vec(size / k_page);
  if (mincore(const_cast<void*>(ptr), size, vec.data()) != 0) return ~0UL;
  unsigned long count = 0;
  for (unsigned char c : vec) count += c & 1;
  return count;
}

// The kernel's default huge-page size in kB, 0 when /proc/meminfo does not say.
unsigned long kernel_default_hugepage_kb() {
  FILE* f = fopen("/proc/meminfo", "r");
  if (f == nullptr) return 0;
  char line[256];
  unsigned long kb = 0;
  while (fgets(line, sizeof(line), f) != nullptr) {
    if (sscanf(line, "Hugepagesize: %lu kB", &kb) == 1) break;
  }
  fclose(f);
  return kb;
}

// ---- the seam: a stand-in for the kernel's choice of address ----------------------------

struct Fake_mmap_state {
  unsigned long ulong_shift = 0;     // bytes by which the returned address misses alignment
  unsigned long ulong_alignment = k_2m;
  unsigned int uint_calls = 0;
  unsigned int uint_fail_before_success = 0;  // this many calls fail with ENOMEM first
  bool bool_fail_always = false;
  int int_last_flags = 0;
  unsigned long ulong_last_length = 0;
  unsigned char* ptr_last = nullptr;  // address returned last
  unsigned char* ptr_aligned = nullptr;  // the aligned base below it
};
Fake_mmap_state g_fake;

// Maps exactly [aligned + shift, aligned + shift + length) for real and returns its start,
// so that the layer's own munmap calls work on real memory.
void* fake_mmap(void*, size_t length, int prot, int flags, int fd, off_t offset) {
  ++g_fake.uint_calls;
  g_fake.int_last_flags = flags;
  g_fake.ulong_last_length = length;
  if (g_fake.bool_fail_always || g_fake.uint_fail_before_success > 0) {
    if (g_fake.uint_fail_before_success > 0) --g_fake.uint_fail_before_success;
    errno = ENOMEM;
    return MAP_FAILED;
  }
  unsigned long reserve = length + 2 * g_fake.ulong_alignment;
  unsigned char* raw = static_cast<unsigned char*>(
      ::mmap(nullptr, reserve, prot, flags & ~MAP_HUGETLB, fd, offset));
  if (raw == MAP_FAILED) return MAP_FAILED;
  unsigned long a = g_fake.ulong_alignment;
  unsigned char* aligned = reinterpret_cast<unsigned char*>(
      (reinterpret_cast<unsigned long>(raw) + a - 1) & ~(a - 1));
  unsigned char* start = aligned + g_fake.ulong_shift;
  if (start > raw) munmap(raw, static_cast<unsigned long>(start - raw));
  unsigned char* end = start + length;
  if (raw + reserve > end) munmap(end, static_cast<unsigned long>(raw + reserve - end));
  g_fake.ptr_last = start;
  g_fake.ptr_aligned = aligned;
  return start;
}

void* fail_always_mmap(void*, size_t, int, int, int, off_t) {
  ++g_fake.uint_calls;
  errno = ENOMEM;
  return MAP_FAILED;
}

// Installs the fake for one test and restores everything the tests touch.
class Os_mmap_test : public ::testing::Test {
 protected:
  void SetUp() override {
    g_fake = Fake_mmap_state();
    bool_prefault_saved_ = g_bool_memory_enable_page_prefault;
    bool_use_2m_saved_ = g_bool_memory_use_hugepage2m;
    bool_use_saved_ = g_bool_memory_use_hugepage;
    bool_has_try_saved_ = g_bool_memory_has_try_use_hugepage2m;
    handler_saved_ = std::get_new_handler();
  }
  void TearDown() override {
    set_os_mmap_function_for_test(nullptr);
    g_bool_memory_enable_page_prefault = bool_prefault_saved_;
    g_bool_memory_use_hugepage2m = bool_use_2m_saved_;
    g_bool_memory_use_hugepage = bool_use_saved_;
    g_bool_memory_has_try_use_hugepage2m = bool_has_try_saved_;
    std::set_new_handler(handler_saved_);
  }
  static void use_fake(unsigned long shift, unsigned long alignment = k_2m) {
    g_fake.ulong_shift = shift;
    g_fake.ulong_alignment = alignment;
    set_os_mmap_function_for_test(&fake_mmap);
  }
  // Gives a 2 MB region back the way the layer's users do.
  static void release_region(void* region) { os_free_map_size_2m(static_cast<unsigned char*>(region)); }

 private:
  bool bool_prefault_saved_ = false;
  bool bool_use_2m_saved_ = false;
  bool bool_use_saved_ = false;
  bool bool_has_try_saved_ = false;
  std::new_handler handler_saved_ = nullptr;
};

// ---- the alignment trick -----------------------------------------------------------------

TEST_F(Os_mmap_test, Aligned2mKernelAddressGivesBackTheFirstHalfAndKeepsTheSecond) {
  use_fake(0);
  size_t before = g_locking_sizet_os_malloc_all_size;
  unsigned char* region = static_cast<unsigned char*>(os_malloc_mmap_page_2m_align(0));
  EXPECT_EQ(g_fake.uint_calls, 1u);
  EXPECT_EQ(g_fake.ulong_last_length, 2 * k_2m);
  EXPECT_EQ(g_fake.int_last_flags & MAP_HUGETLB, 0);
  // The mapping was aligned: its first 2 MB go back, the second half is the region.
  EXPECT_EQ(region, g_fake.ptr_last + k_2m);
  EXPECT_TRUE(is_unmapped(g_fake.ptr_last, k_2m));
  EXPECT_TRUE(is_mapped(region, k_2m));
  EXPECT_EQ(g_locking_sizet_os_malloc_all_size - before, k_2m);
  EXPECT_EQ(reinterpret_cast<unsigned long>(region) % k_2m, 0u);
  release_region(region);
  EXPECT_EQ(g_locking_sizet_os_malloc_all_size, before);
  EXPECT_TRUE(is_unmapped(region, k_2m));
}

TEST_F(Os_mmap_test, Misaligned2mKernelAddressTrimsHeadAndTail) {
  const unsigned long shift = 5 * k_page;
  use_fake(shift);
  size_t before = g_locking_sizet_os_malloc_all_size;
  unsigned char* region = static_cast<unsigned char*>(os_malloc_mmap_page_2m_align(0));
  unsigned char* mapping = g_fake.ptr_last;
  EXPECT_EQ(region, g_fake.ptr_aligned + k_2m);
  EXPECT_EQ(region - mapping, static_cast<long>(k_2m - shift));
  EXPECT_TRUE(is_unmapped(mapping, k_2m - shift));              // head
  EXPECT_TRUE(is_mapped(region, k_2m));
  EXPECT_TRUE(is_unmapped(region + k_2m, shift));                // tail
  EXPECT_EQ(g_locking_sizet_os_malloc_all_size - before, k_2m);
  release_region(region);
  EXPECT_EQ(g_locking_sizet_os_malloc_all_size, before);
}

TEST_F(Os_mmap_test, RegionOfOrdinaryPagesAlwaysSaysNodeZeroAndPrefaultsOnlyWhenSet) {
  use_fake(k_page);
  g_bool_memory_enable_page_prefault = false;
  unsigned char* region = static_cast<unsigned char*>(os_malloc_mmap_page_2m_align(5));
  const Region_tag* tag = region_tag_of(region);
  EXPECT_EQ(tag->uchar_page_type, 0);
  EXPECT_EQ(tag->ushort_numa_node, 0);
  // Only the head page has been touched (by the tag).
  EXPECT_EQ(resident_pages(region, k_2m), 1u);
  release_region(region);

  g_bool_memory_enable_page_prefault = true;
  region = static_cast<unsigned char*>(os_malloc_mmap_page_2m_align(3));
  EXPECT_EQ(resident_pages(region, k_2m), 512u);
  EXPECT_EQ(region_tag_of(region)->ushort_numa_node, 0);
  release_region(region);
}

TEST_F(Os_mmap_test, RealKernel2mRegionIsAlignedAndCountedOnce) {
  size_t before = g_locking_sizet_os_malloc_all_size;
  unsigned char* region = static_cast<unsigned char*>(os_malloc_mmap_page_2m_align(0));
  EXPECT_EQ(reinterpret_cast<unsigned long>(region) % k_2m, 0u);
  EXPECT_EQ(g_locking_sizet_os_malloc_all_size - before, k_2m);
  region[k_2m - 1] = 1;  // the whole region is writable
  release_region(region);
  EXPECT_EQ(g_locking_sizet_os_malloc_all_size, before);
}

TEST_F(Os_mmap_test, AnyAlignmentBothOutcomesRoundSizeAndAlignmentToPages) {
  const unsigned long alignment = 65536;
  // Aligned address: a whole alignment's worth is given back at the front, no tail.
  use_fake(0, alignment);
  size_t before = g_locking_sizet_os_malloc_all_size;
  unsigned char* ptr = static_cast<unsigned char*>(os_malloc_mmap_page_align(10000, alignment - 100));
  EXPECT_EQ(g_fake.ulong_last_length, 12288u + alignment);  // both rounded to pages
  EXPECT_EQ(ptr, g_fake.ptr_last + alignment);
  EXPECT_TRUE(is_unmapped(g_fake.ptr_last, alignment));
  EXPECT_TRUE(is_mapped(ptr, 12288));
  EXPECT_EQ(g_locking_sizet_os_malloc_all_size - before, 12288u);
  unsigned long size = 0;
  EXPECT_EQ(os_realloc_mmap_page(ptr, 12288, size), nullptr);
  EXPECT_EQ(g_locking_sizet_os_malloc_all_size, before);

  // Misaligned by three pages: head = alignment - 3 pages, tail = 3 pages after the block.
  use_fake(3 * k_page, alignment);
  ptr = static_cast<unsigned char*>(os_malloc_mmap_page_align(12288, alignment));
  EXPECT_EQ(ptr, g_fake.ptr_aligned + alignment);
  EXPECT_TRUE(is_unmapped(g_fake.ptr_last, alignment - 3 * k_page));
  EXPECT_TRUE(is_mapped(ptr, 12288));
  EXPECT_TRUE(is_unmapped(ptr + 12288, 3 * k_page));
  EXPECT_EQ(g_locking_sizet_os_malloc_all_size - before, 12288u);
  size = 0;
  os_realloc_mmap_page(ptr, 12288, size);
  EXPECT_EQ(g_locking_sizet_os_malloc_all_size, before);

  // The real kernel: aligned, counted once.
  set_os_mmap_function_for_test(nullptr);
  ptr = static_cast<unsigned char*>(os_malloc_mmap_page_align(3 * k_2m, 4 * k_2m));
  EXPECT_EQ(reinterpret_cast<unsigned long>(ptr) % (4 * k_2m), 0u);
  EXPECT_EQ(g_locking_sizet_os_malloc_all_size - before, 3 * k_2m);
  size = 0;
  os_realloc_mmap_page(ptr, 3 * k_2m, size);
  EXPECT_EQ(g_locking_sizet_os_malloc_all_size, before);
}

TEST_F(Os_mmap_test, AlignedBlockPrefaultFollowsTheSetting) {
  g_bool_memory_enable_page_prefault = true;
  unsigned char* ptr = static_cast<unsigned char*>(os_malloc_mmap_page_align(8 * k_page, 8 * k_page));
  EXPECT_EQ(resident_pages(ptr, 8 * k_page), 8u);
  unsigned long size = 0;
  os_realloc_mmap_page(ptr, 8 * k_page, size);
  g_bool_memory_enable_page_prefault = false;
  ptr = static_cast<unsigned char*>(os_malloc_mmap_page_align(8 * k_page, 8 * k_page));
  EXPECT_EQ(resident_pages(ptr, 8 * k_page), 1u);
  os_realloc_mmap_page(ptr, 8 * k_page, size);
}

// ---- page mappings and realloc -----------------------------------------------------------

TEST_F(Os_mmap_test, PageMappingRoundsUpAndWritesTheSizeBack) {
  size_t before = g_locking_sizet_os_malloc_all_size;
  unsigned long size = 1;
  void* ptr = os_malloc_mmap_page(size);
  EXPECT_EQ(size, k_page);
  EXPECT_EQ(g_locking_sizet_os_malloc_all_size - before, k_page);
  unsigned long size2 = 3 * k_page + 1;
  void* ptr2 = os_malloc_mmap_page(size2);
  EXPECT_EQ(size2, 4 * k_page);
  EXPECT_EQ(g_locking_sizet_os_malloc_all_size - before, 5 * k_page);
  unsigned long zero = 0;
  os_realloc_mmap_page(ptr, size, zero);
  os_realloc_mmap_page(ptr2, size2, zero);
  EXPECT_EQ(g_locking_sizet_os_malloc_all_size, before);
}

TEST_F(Os_mmap_test, PageMappingPrefaultFollowsTheSetting) {
  g_bool_memory_enable_page_prefault = true;
  unsigned long size = 16 * k_page;
  void* ptr = os_malloc_mmap_page(size);
  EXPECT_EQ(resident_pages(ptr, size), 16u);
  unsigned long zero = 0;
  os_realloc_mmap_page(ptr, size, zero);
  g_bool_memory_enable_page_prefault = false;
  ptr = os_malloc_mmap_page(size);
  EXPECT_EQ(resident_pages(ptr, size), 1u);  // the tag touched the first page only
  os_realloc_mmap_page(ptr, size, zero);
}

TEST_F(Os_mmap_test, ReallocShrinkKeepsTheFirstBytesMovesAndCountsExactly) {
  unsigned long old_size = 3 * k_page;
  unsigned char* old_ptr = static_cast<unsigned char*>(os_malloc_mmap_page(old_size));
  for (unsigned long i = 0; i < old_size; ++i) old_ptr[i] = static_cast<unsigned char>(i * 7 + 1);
  old_ptr[0] = 0xAB;  // not a tag: the copy must bring it along untouched
  old_ptr[2] = 0xCD;
  size_t before = g_locking_sizet_os_malloc_all_size;
  unsigned long new_size = 5000;
  unsigned char* ptr = static_cast<unsigned char*>(os_realloc_mmap_page(old_ptr, old_size, new_size));
  EXPECT_EQ(new_size, 2 * k_page);
  EXPECT_NE(ptr, old_ptr);
  EXPECT_TRUE(is_unmapped(old_ptr, old_size));
  EXPECT_EQ(ptr[0], 0xAB);
  EXPECT_EQ(ptr[2], 0xCD);
  for (unsigned long i = 3; i < new_size; ++i) ASSERT_EQ(ptr[i], static_cast<unsigned char>(i * 7 + 1)) << i;
  EXPECT_EQ(before - g_locking_sizet_os_malloc_all_size, k_page);
  unsigned long zero = 0;
  os_realloc_mmap_page(ptr, new_size, zero);
}

TEST_F(Os_mmap_test, ReallocGrowCopiesTheOldSizeAndRoundsTheOldSizeUp) {
  unsigned long old_size = 2 * k_page;
  unsigned char* old_ptr = static_cast<unsigned char*>(os_malloc_mmap_page(old_size));
  memset(old_ptr, 0x5A, old_size);
  size_t before = g_locking_sizet_os_malloc_all_size;
  unsigned long new_size = 5 * k_page - 10;
  // The old size is given unrounded; the layer rounds it before unmapping.
  unsigned char* ptr = static_cast<unsigned char*>(os_realloc_mmap_page(old_ptr, 2 * k_page - 100, new_size));
  EXPECT_EQ(new_size, 5 * k_page);
  for (unsigned long i = 0; i < 2 * k_page; ++i) ASSERT_EQ(ptr[i], 0x5A) << i;
  for (unsigned long i = 2 * k_page; i < new_size; ++i) ASSERT_EQ(ptr[i], 0) << i;
  EXPECT_TRUE(is_unmapped(old_ptr, old_size));
  EXPECT_EQ(g_locking_sizet_os_malloc_all_size - before, 3 * k_page);
  unsigned long zero = 0;
  EXPECT_EQ(os_realloc_mmap_page(ptr, new_size - 1, zero), nullptr);  // rounded up again
  EXPECT_TRUE(is_unmapped(ptr, new_size));
  EXPECT_EQ(before - g_locking_sizet_os_malloc_all_size, 2 * k_page);
}

TEST_F(Os_mmap_test, ReallocFromNothingIsAPageMapping) {
  size_t before = g_locking_sizet_os_malloc_all_size;
  unsigned long size = 10;
  void* ptr = os_realloc_mmap_page(nullptr, 12345, size);
  ASSERT_NE(ptr, nullptr);
  EXPECT_EQ(size, k_page);
  unsigned long size2 = k_page + 1;
  unsigned char dummy = 0;
  // A zero old size also means "nothing yet", whatever the pointer.
  void* ptr2 = os_realloc_mmap_page(&dummy, 0, size2);
  EXPECT_NE(ptr2, &dummy);
  EXPECT_EQ(size2, 2 * k_page);
  EXPECT_EQ(g_locking_sizet_os_malloc_all_size - before, 3 * k_page);
  unsigned long zero = 0;
  os_realloc_mmap_page(ptr, size, zero);
  os_realloc_mmap_page(ptr2, size2, zero);
  EXPECT_EQ(g_locking_sizet_os_malloc_all_size, before);
}

// ---- release by region tag --------------------------------------------------------------

TEST_F(Os_mmap_test, RegionReleaseFollowsByteZeroOfTheTag) {
  std::string captured;
  unsigned char* region = static_cast<unsigned char*>(os_malloc_mmap_page_2m_align(0));
  size_t before = g_locking_sizet_os_malloc_all_size;
  unsigned int huge_before = g_locking_uint_os_malloc_hugepage2m_count;

  // Tag 2 (or anything not 0 or 1): nothing is unmapped and nothing is said.
  region[0] = 2;
  testing::internal::CaptureStderr();
  os_free_map_size_2m(region);
  captured = testing::internal::GetCapturedStderr();
  EXPECT_EQ(captured, "");
  EXPECT_TRUE(is_mapped(region, k_2m));
  EXPECT_EQ(g_locking_sizet_os_malloc_all_size, before);
  EXPECT_EQ(g_locking_uint_os_malloc_hugepage2m_count, huge_before);

  // Tag 1: the huge-page count drops by one as well. The region is ordinary pages here,
  // which munmap does not mind; the count is the point.
  region[0] = 1;
  os_free_map_size_2m(region);
  EXPECT_TRUE(is_unmapped(region, k_2m));
  EXPECT_EQ(before - g_locking_sizet_os_malloc_all_size, k_2m);
  EXPECT_EQ(g_locking_uint_os_malloc_hugepage2m_count, huge_before - 1);
  g_mutex_mmap.lock();
  ++g_locking_uint_os_malloc_hugepage2m_count;  // undo the borrowed decrement
  g_mutex_mmap.unlock();

  // Tag 0: unmapped, count untouched.
  region = static_cast<unsigned char*>(os_malloc_mmap_page_2m_align(0));
  before = g_locking_sizet_os_malloc_all_size;
  EXPECT_EQ(region[0], 0);
  os_free_map_size_2m(region);
  EXPECT_TRUE(is_unmapped(region, k_2m));
  EXPECT_EQ(before - g_locking_sizet_os_malloc_all_size, k_2m);
  EXPECT_EQ(g_locking_uint_os_malloc_hugepage2m_count, huge_before);
}

// ---- failure lines ----------------------------------------------------------------------

std::string mmap_failure_line(unsigned long size) {
  return "Error: os_malloc_mmap_with_flag() failed. size=" + std::to_string(size) +
         ", errno=12, strerror=" + strerror(ENOMEM) + "\r\n";
}

std::string regex_quote(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (strchr(".[]{}()*+?^$|\\", c) != nullptr) out += '\\';
    out += c;
  }
  return out;
}

using Os_mmap_DeathTest = Os_mmap_test;

TEST_F(Os_mmap_DeathTest, OrdinaryMappingFailureWithoutHandlerTerminates) {
  EXPECT_DEATH(
      {
        std::set_new_handler(nullptr);
        set_os_mmap_function_for_test(&fail_always_mmap);
        unsigned long size = 5;
        os_malloc_mmap_page(size);
      },
      "^" + regex_quote(mmap_failure_line(4096)) + "terminate called");
}

TEST_F(Os_mmap_test, FailureLineIsBuiltWithoutAllocatingAndTheHandlerRunsEightTimes) {
  // The counter itself must see allocations, or a zero below would prove nothing.
  malloc_call_counter::Child_outcome probe = malloc_call_counter::run_in_child([] {
    void* (*volatile allocate)(size_t) = &malloc;
    void* p = allocate(24);
    free(p);
  });
  EXPECT_GE(probe.ulong_allocations, 1u);

  malloc_call_counter::Child_outcome outcome = malloc_call_counter::run_in_child([] {
    std::set_terminate(&malloc_call_counter::terminate_marker);
    std::set_new_handler([] {
      static const char k_mark[] = "<handler>";
      ssize_t ignored = write(2, k_mark, sizeof(k_mark) - 1);
      (void)ignored;
    });
    set_os_mmap_function_for_test(&fail_always_mmap);
    unsigned long size = 3 * k_page;
    os_malloc_mmap_page(size);
  });
  ASSERT_TRUE(WIFEXITED(outcome.int_status)) << outcome.str_stderr;
  EXPECT_EQ(WEXITSTATUS(outcome.int_status), malloc_call_counter::k_int_terminate_exit_code);
  std::string expected;
  for (int i = 0; i < 8; ++i) expected += mmap_failure_line(3 * k_page) + "<handler>";
  expected += "<terminate>";
  EXPECT_EQ(outcome.str_stderr, expected);
  EXPECT_EQ(outcome.ulong_allocations, 0u);
}

TEST_F(Os_mmap_test, HandlerThatFreesMemoryLetsTheRetrySucceed) {
  static unsigned int s_handler_calls;
  s_handler_calls = 0;
  use_fake(0);
  g_fake.uint_fail_before_success = 3;
  std::set_new_handler([] { ++s_handler_calls; });
  size_t before = g_locking_sizet_os_malloc_all_size;
  unsigned long size = 2 * k_page;
  testing::internal::CaptureStderr();
  void* ptr = os_malloc_mmap_page(size);
  std::string captured = testing::internal::GetCapturedStderr();
  ASSERT_NE(ptr, nullptr);
  EXPECT_EQ(g_fake.uint_calls, 4u);
  EXPECT_EQ(s_handler_calls, 3u);
  EXPECT_EQ(captured, mmap_failure_line(2 * k_page) + mmap_failure_line(2 * k_page) + mmap_failure_line(2 * k_page));
  EXPECT_EQ(g_locking_sizet_os_malloc_all_size - before, 2 * k_page);  // counted once
  unsigned long zero = 0;
  os_realloc_mmap_page(ptr, size, zero);
}

TEST_F(Os_mmap_test, FailedHugePageMappingIsSilentAndUncounted) {
  set_os_mmap_function_for_test(&fail_always_mmap);
  size_t before = g_locking_sizet_os_malloc_all_size;
  unsigned int huge_before = g_locking_uint_os_malloc_hugepage2m_count;
  testing::internal::CaptureStderr();
  unsigned long size = 3 * k_2m - 1;
  EXPECT_EQ(os_malloc_hugepage2m(size), nullptr);
  EXPECT_EQ(size, 3 * k_2m);  // rounded and written back all the same
  EXPECT_EQ(os_malloc_hugepage2m_size_2m(0), nullptr);
  g_mutex_mmap.lock();
  EXPECT_EQ(os_malloc_mmap_with_flag(k_2m, MAP_HUGETLB), nullptr);
  g_mutex_mmap.unlock();
  EXPECT_EQ(g_fake.uint_calls, 3u);  // one call each, no retry
  EXPECT_FALSE(is_support_hugepage2m());
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(g_locking_sizet_os_malloc_all_size, before);
  EXPECT_EQ(g_locking_uint_os_malloc_hugepage2m_count, huge_before);
}

TEST_F(Os_mmap_test, GoodProbeWithoutHugePagesSilentlyFallsBackToOrdinaryPages) {
  // A probe that succeeded earlier, then no huge page available: every request tries
  // MAP_HUGETLB, fails quietly and gets ordinary pages; the flag stays on.
  g_bool_memory_use_hugepage2m = true;
  static unsigned int s_huge_calls;
  s_huge_calls = 0;
  set_os_mmap_function_for_test([](void* addr, size_t length, int prot, int flags, int fd, off_t offset) -> void* {
    if (flags & MAP_HUGETLB) {
      ++s_huge_calls;
      errno = ENOMEM;
      return MAP_FAILED;
    }
    return ::mmap(addr, length, prot, flags, fd, offset);
  });
  size_t before = g_locking_sizet_os_malloc_all_size;
  testing::internal::CaptureStderr();
  unsigned char* a = static_cast<unsigned char*>(os_malloc_map_align_2m_size_2m());
  unsigned char* b = static_cast<unsigned char*>(os_malloc_map_align_2m_size_2m());
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(s_huge_calls, 2u);
  EXPECT_TRUE(g_bool_memory_use_hugepage2m);
  EXPECT_EQ(a[0], 0);
  EXPECT_EQ(reinterpret_cast<unsigned long>(a) % k_2m, 0u);
  EXPECT_EQ(reinterpret_cast<unsigned long>(b) % k_2m, 0u);
  EXPECT_EQ(g_locking_sizet_os_malloc_all_size - before, 2 * k_2m);
  release_region(a);
  release_region(b);
  // Without the flag the huge-page path is not even tried.
  g_bool_memory_use_hugepage2m = false;
  a = static_cast<unsigned char*>(os_malloc_map_align_2m_size_2m());
  EXPECT_EQ(s_huge_calls, 2u);
  release_region(a);
  EXPECT_EQ(g_locking_sizet_os_malloc_all_size, before);
}

TEST_F(Os_mmap_test, ProbeResultOverwritesTheFlagsEitherWay) {
  set_os_mmap_function_for_test(&fail_always_mmap);
  g_bool_memory_use_hugepage2m = true;
  g_bool_memory_use_hugepage = false;
  g_bool_memory_has_try_use_hugepage2m = false;
  size_t before = g_locking_sizet_os_malloc_all_size;
  memory_try_enable_hugepage2m();
  EXPECT_FALSE(g_bool_memory_use_hugepage2m);  // an earlier true is overwritten
  EXPECT_FALSE(g_bool_memory_use_hugepage);
  EXPECT_FALSE(g_bool_memory_has_try_use_hugepage2m);  // only the forced form marks it
  memory_force_enable_hugepage2m();
  EXPECT_TRUE(g_bool_memory_has_try_use_hugepage2m);
  EXPECT_FALSE(g_bool_memory_use_hugepage2m);

  // A successful probe, through the seam, counted in and out again.
  // The probe refuses without mapping when the kernel's default huge page is not 2 MB.
  use_fake(0);
  g_fake.uint_calls = 0;
  memory_try_enable_hugepage2m();
  unsigned long default_kb = kernel_default_hugepage_kb();
  bool supported = default_kb == 0 || default_kb == 2048;
  EXPECT_EQ(g_fake.uint_calls, supported ? 1u : 0u);
  if (supported) {
    EXPECT_NE(g_fake.int_last_flags & MAP_HUGETLB, 0);
  }
  EXPECT_EQ(g_bool_memory_use_hugepage2m, supported);
  EXPECT_EQ(g_bool_memory_use_hugepage, supported);
  if (supported) {
    EXPECT_TRUE(is_unmapped(g_fake.ptr_last, k_2m));
  }
  EXPECT_EQ(g_locking_sizet_os_malloc_all_size, before);
  // use_hugepage is never cleared by a later failure.
  set_os_mmap_function_for_test(&fail_always_mmap);
  memory_try_enable_hugepage2m();
  EXPECT_FALSE(g_bool_memory_use_hugepage2m);
  EXPECT_EQ(g_bool_memory_use_hugepage, supported);
}

TEST_F(Os_mmap_test, FailedUnmapWarnsAndKeepsTheBytesCounted) {
  unsigned long size = 2 * k_page;
  unsigned char* ptr = static_cast<unsigned char*>(os_malloc_mmap_page(size));
  size_t before = g_locking_sizet_os_malloc_all_size;
  unsigned char* bad = ptr + 1;  // not page aligned: munmap refuses with EINVAL
  char hex[32];
  snprintf(hex, sizeof(hex), "%016lx", reinterpret_cast<unsigned long>(bad));
  std::string expected = std::string("Warn: os_free_unmap_without_lock() failed. ptr_void_in=") + hex +
                         ", size=4096, errno=22, strerror=" + strerror(EINVAL) + "\r\n";
  malloc_call_counter::Child_outcome outcome = malloc_call_counter::run_in_child([bad] {
    g_mutex_mmap.lock();
    os_free_unmap_without_lock(bad, 4096);
    g_mutex_mmap.unlock();
  });
  EXPECT_EQ(outcome.str_stderr, expected);
  EXPECT_EQ(outcome.ulong_allocations, 0u);
  ASSERT_TRUE(WIFEXITED(outcome.int_status));
  EXPECT_EQ(WEXITSTATUS(outcome.int_status), 0);  // returns normally

  testing::internal::CaptureStderr();
  g_mutex_mmap.lock();
  os_free_unmap_without_lock(bad, 4096);
  g_mutex_mmap.unlock();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), expected);
  EXPECT_EQ(g_locking_sizet_os_malloc_all_size, before);
  EXPECT_TRUE(is_mapped(ptr, size));
  unsigned long zero = 0;
  os_realloc_mmap_page(ptr, size, zero);
}

TEST_F(Os_mmap_test, CountersStayExactUnderConcurrentMappings) {
  size_t before = g_locking_sizet_os_malloc_all_size;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 200; ++i) {
        unsigned long size = static_cast<unsigned long>((t + 1) * (i % 5 + 1)) * 1000;
        void* ptr = os_malloc_mmap_page(size);
        unsigned long zero = 0;
        os_realloc_mmap_page(ptr, size, zero);
      }
    });
  }
  for (std::thread& th : threads) th.join();
  EXPECT_EQ(g_locking_sizet_os_malloc_all_size, before);
}

// ---- real huge pages --------------------------------------------------------------------

unsigned long read_number(const char* path) {
  FILE* f = fopen(path, "r");
  if (f == nullptr) return ~0UL;
  unsigned long value = ~0UL;
  if (fscanf(f, "%lu", &value) != 1) value = ~0UL;
  fclose(f);
  return value;
}

bool write_number(const char* path, unsigned long value) {
  FILE* f = fopen(path, "w");
  if (f == nullptr) return false;
  bool ok = fprintf(f, "%lu\n", value) > 0;
  ok = (fclose(f) == 0) && ok;
  return ok;
}

constexpr const char* k_nr_hugepages = "/proc/sys/vm/nr_hugepages";
constexpr const char* k_free_hugepages = "/sys/kernel/mm/hugepages/hugepages-2048kB/free_hugepages";

// Reserves four more 2 MB huge pages for the test and gives them back afterwards.
class Os_mmap_hugepage_test : public Os_mmap_test {
 protected:
  void SetUp() override {
    Os_mmap_test::SetUp();
    if (geteuid() != 0) GTEST_SKIP() << "needs root to reserve huge pages in " << k_nr_hugepages;
    ulong_saved_ = read_number(k_nr_hugepages);
    if (ulong_saved_ == ~0UL) GTEST_SKIP() << "cannot read " << k_nr_hugepages;
    if (read_number(k_free_hugepages) == ~0UL) GTEST_SKIP() << "no 2 MB huge-page pool on this kernel";
    if (!write_number(k_nr_hugepages, ulong_saved_ + 4)) GTEST_SKIP() << "cannot write " << k_nr_hugepages;
    bool_restore_ = true;
    ulong_free_ = read_number(k_free_hugepages);
    if (ulong_free_ < 4) GTEST_SKIP() << "the kernel could not reserve four 2 MB huge pages";
  }
  void TearDown() override {
    if (bool_restore_) {
      write_number(k_nr_hugepages, ulong_saved_);
      EXPECT_EQ(read_number(k_nr_hugepages), ulong_saved_);
    }
    Os_mmap_test::TearDown();
  }
  unsigned long ulong_free_ = 0;

 private:
  unsigned long ulong_saved_ = 0;
  bool bool_restore_ = false;
};

TEST_F(Os_mmap_hugepage_test, HugePageMappingsCountTagAndPrefault) {
  size_t before = g_locking_sizet_os_malloc_all_size;
  unsigned int huge_before = g_locking_uint_os_malloc_hugepage2m_count;

  unsigned long size = k_2m + 1;
  unsigned char* two = static_cast<unsigned char*>(os_malloc_hugepage2m(size));
  ASSERT_NE(two, nullptr);
  EXPECT_EQ(size, 2 * k_2m);
  EXPECT_EQ(reinterpret_cast<unsigned long>(two) % k_2m, 0u);
  EXPECT_EQ(g_locking_uint_os_malloc_hugepage2m_count - huge_before, 2u);
  EXPECT_EQ(g_locking_sizet_os_malloc_all_size - before, 2 * k_2m);
  EXPECT_EQ(region_tag_of(two)->uchar_page_type, 1);
  EXPECT_EQ(region_tag_of(two)->ushort_numa_node, 0);
  // The tag touched the first page and the prefault the second: both are taken from the pool.
  EXPECT_EQ(ulong_free_ - read_number(k_free_hugepages), 2u);

  unsigned char* one = static_cast<unsigned char*>(os_malloc_hugepage2m_size_2m(0x12345));
  ASSERT_NE(one, nullptr);
  EXPECT_EQ(one[0], 1);
  EXPECT_EQ(one[2], 0x45);  // the node, cut to 16 bits, little-endian in bytes 2 and 3
  EXPECT_EQ(one[3], 0x23);
  EXPECT_EQ(g_locking_uint_os_malloc_hugepage2m_count - huge_before, 3u);
  EXPECT_EQ(g_locking_sizet_os_malloc_all_size - before, 3 * k_2m);

  os_free_map_size_2m(one);
  EXPECT_EQ(g_locking_uint_os_malloc_hugepage2m_count - huge_before, 2u);
  EXPECT_EQ(g_locking_sizet_os_malloc_all_size - before, 2 * k_2m);
  g_mutex_mmap.lock();
  g_locking_uint_os_malloc_hugepage2m_count -= 2;
  os_free_unmap_without_lock(two, 2 * k_2m);
  g_mutex_mmap.unlock();
  EXPECT_EQ(g_locking_uint_os_malloc_hugepage2m_count, huge_before);
  EXPECT_EQ(g_locking_sizet_os_malloc_all_size, before);
  EXPECT_EQ(read_number(k_free_hugepages), ulong_free_);
}

TEST_F(Os_mmap_hugepage_test, ProbeSucceedsLeavesCountersAndRegionsUseHugePagesUntilTheyRunOut) {
  size_t before = g_locking_sizet_os_malloc_all_size;
  unsigned int huge_before = g_locking_uint_os_malloc_hugepage2m_count;
  EXPECT_TRUE(is_support_hugepage2m());
  EXPECT_EQ(g_locking_sizet_os_malloc_all_size, before);
  EXPECT_EQ(g_locking_uint_os_malloc_hugepage2m_count, huge_before);

  g_bool_memory_use_hugepage2m = false;
  memory_force_enable_hugepage2m();
  EXPECT_TRUE(g_bool_memory_use_hugepage2m);
  EXPECT_TRUE(g_bool_memory_use_hugepage);
  EXPECT_TRUE(g_bool_memory_has_try_use_hugepage2m);

  // Take every free huge page, then one more region: ordinary pages, silently.
  std::vector<unsigned char*> regions;
  testing::internal::CaptureStderr();
  unsigned long available = read_number(k_free_hugepages);
  for (unsigned long i = 0; i < available; ++i) {
    unsigned char* r = static_cast<unsigned char*>(os_malloc_map_align_2m_size_2m());
    EXPECT_EQ(r[0], 1) << "region " << i;
    regions.push_back(r);
  }
  unsigned char* ordinary = static_cast<unsigned char*>(os_malloc_map_align_2m_size_2m());
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(ordinary[0], 0);
  EXPECT_EQ(reinterpret_cast<unsigned long>(ordinary) % k_2m, 0u);
  EXPECT_TRUE(g_bool_memory_use_hugepage2m);  // no back-off
  EXPECT_EQ(g_locking_uint_os_malloc_hugepage2m_count - huge_before, available);
  EXPECT_EQ(g_locking_sizet_os_malloc_all_size - before, (available + 1) * k_2m);
  for (unsigned char* r : regions) os_free_map_size_2m(r);
  os_free_map_size_2m(ordinary);
  EXPECT_EQ(g_locking_uint_os_malloc_hugepage2m_count, huge_before);
  EXPECT_EQ(g_locking_sizet_os_malloc_all_size, before);
}

}  // namespace
}  // namespace quorla
