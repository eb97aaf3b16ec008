// The mapping layer: exact counters for every shape, both outcomes of the alignment trick
// (through the seam), realloc, release by tag, failure lines built without allocating, and
// real huge pages when the test may reserve them.
#include "os_memory/quorla_os_mmap.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <tuple>

#include "malloc_call_counter.h"
#include "startup/quorla_memory_settings.h"
#include "os_memory/quorla_region_tag.h"

namespace quorla {
namespace {

constexpr unsigned long k_page = 4096;
constexpr unsigned long k_2m = 2097152;

size_t mapped() { return g_locking_sizet_os_malloc_all_size; }
unsigned int huge_count() { return g_locking_uint_os_malloc_hugepage2m_count; }
unsigned long addr(const void* ptr) { return reinterpret_cast<unsigned long>(ptr); }
unsigned char* bytes(void* ptr) { return static_cast<unsigned char*>(ptr); }
void unmap_page(void* ptr, unsigned long size) {
  unsigned long zero = 0;
  EXPECT_EQ(os_realloc_mmap_page(ptr, size, zero), nullptr);
}

// Resident pages of [ptr, ptr + size) (8 MB at most), ~0 if any is unmapped. Allocates nothing.
unsigned long resident_pages(const void* ptr, unsigned long size) {
  static unsigned char vec[2048];
  if (size / k_page > sizeof(vec) || mincore(const_cast<void*>(ptr), size, vec) != 0) return ~0UL;
  unsigned long count = 0;
  for (unsigned long i = 0; i < size / k_page; ++i) count += vec[i] & 1;
  return count;
}
bool is_unmapped(const void* ptr, unsigned long size) {  // every page of the range, not just one
  for (unsigned long off = 0; off < size; off += k_page) {
    if (resident_pages(bytes(const_cast<void*>(ptr)) + off, k_page) != ~0UL || errno != ENOMEM) return false;
  }
  return true;
}

// The seam: maps exactly [aligned + shift, + length) for real, so the layer's munmap calls
// work on real memory; fails with ENOMEM while told to.
struct Fake_mmap_state {
  unsigned long ulong_shift = 0, ulong_alignment = k_2m;
  unsigned int uint_calls = 0, uint_fail_before_success = 0;
  bool bool_fail_huge = false;  // every MAP_HUGETLB call fails
  unsigned char *ptr_last = nullptr, *ptr_aligned = nullptr;  // address returned last, aligned base below it
};
Fake_mmap_state g_fake;

void* fake_mmap(void*, size_t length, int prot, int flags, int fd, off_t offset) {
  ++g_fake.uint_calls;
  bool fail = g_fake.uint_fail_before_success > 0 || (g_fake.bool_fail_huge && (flags & MAP_HUGETLB) != 0);
  if (g_fake.uint_fail_before_success > 0) --g_fake.uint_fail_before_success;
  if (fail) return errno = ENOMEM, MAP_FAILED;
  unsigned long a = g_fake.ulong_alignment, reserve = length + 2 * a;
  unsigned char* raw = bytes(::mmap(nullptr, reserve, prot, flags & ~MAP_HUGETLB, fd, offset));
  if (raw == MAP_FAILED) return MAP_FAILED;
  g_fake.ptr_aligned = reinterpret_cast<unsigned char*>((addr(raw) + a - 1) & ~(a - 1));
  unsigned char* start = g_fake.ptr_aligned + g_fake.ulong_shift;
  if (start > raw) munmap(raw, static_cast<unsigned long>(start - raw));
  munmap(start + length, static_cast<unsigned long>(raw + reserve - start) - length);  // shift < a: never empty
  return g_fake.ptr_last = start;
}

// Restores the seam and the flags the tests touch.
struct Os_mmap_test : ::testing::Test {
  void TearDown() override {
    set_os_mmap_function_for_test(nullptr);
    std::tie(g_bool_memory_enable_page_prefault, g_bool_memory_use_hugepage2m, g_bool_memory_use_hugepage,
             g_bool_memory_has_try_use_hugepage2m) = saved_;
  }
  static void use_fake(unsigned long shift, unsigned int fail_first = 0, unsigned long alignment = k_2m, bool fail_huge = false) {
    g_fake = Fake_mmap_state{shift, alignment, 0, fail_first, fail_huge};
    set_os_mmap_function_for_test(&fake_mmap);
  }
  std::tuple<bool, bool, bool, bool> saved_{g_bool_memory_enable_page_prefault, g_bool_memory_use_hugepage2m,
                                            g_bool_memory_use_hugepage, g_bool_memory_has_try_use_hugepage2m};
};

// An aligned kernel address gives back a whole alignment at the front, a misaligned one
// loses head and tail; the real kernel (shift k_real) gives the same shape. Without prefault
// only the page the tag touched is resident. An ordinary region says node 0.
TEST_F(Os_mmap_test, AlignmentTrickBothOutcomesForRegionsAndBlocks) {
  constexpr unsigned long k_real = ~0UL;
  for (auto [size, alignment] : {std::pair{k_2m, k_2m}, {3 * k_page, 16 * k_page}, {3 * k_2m, 4 * k_2m}}) {
    for (unsigned long shift : {k_real, 0UL, 5 * k_page}) {
      SCOPED_TRACE(std::to_string(alignment) + " shift " + std::to_string(shift));
      if (shift != k_real) use_fake(shift, 0, alignment);
      g_bool_memory_enable_page_prefault = shift == 0;
      size_t before = mapped();
      bool region = size == k_2m;
      unsigned char* ptr = bytes(region ? os_malloc_mmap_page_2m_align(5) : os_malloc_mmap_page_align(size - 100, alignment - 100));
      EXPECT_EQ(addr(ptr) % alignment, 0u);
      EXPECT_EQ(resident_pages(ptr, size), shift == 0 ? size / k_page : 1u);
      EXPECT_EQ(region_tag_of(ptr)->ushort_numa_node, 0);
      EXPECT_EQ(mapped() - before, size);
      if (shift != k_real) {
        EXPECT_EQ(ptr, g_fake.ptr_aligned + alignment);
        EXPECT_TRUE(is_unmapped(g_fake.ptr_last, alignment - shift));  // head
        EXPECT_TRUE(shift == 0 || is_unmapped(ptr + size, shift));   // tail
      }
      region ? os_free_map_size_2m(ptr) : unmap_page(ptr, size);
      EXPECT_TRUE(is_unmapped(ptr, size));
      EXPECT_EQ(mapped(), before);
    }
    set_os_mmap_function_for_test(nullptr);
  }
}

// Realloc from null or a zero old size is a plain mapping; otherwise it copies the smaller
// rounded size and unmaps the rounded old size. Sizes are written back. Prefault is on for
// the malloc case only.
TEST_F(Os_mmap_test, PageMappingsAndReallocRoundUpCopyAndCountExactly) {
  unsigned char dummy = 0;
  for (auto [is_malloc, old_size, old_given, size, expected] :  // old_size 0: nothing mapped
       {std::tuple{true, 0ul, 0ul, 3 * k_page + 1, 4 * k_page}, {false, 0ul, 12345ul, 10ul, k_page},
        {false, 0ul, 0ul, k_page + 1, 2 * k_page}, {false, 3 * k_page, 3 * k_page, 5000ul, 2 * k_page},
        {false, 2 * k_page, 2 * k_page - 100, 5 * k_page - 10, 5 * k_page}}) {
    SCOPED_TRACE(size);
    unsigned char* old_ptr = old_size == 0 ? (old_given == 0 ? &dummy : nullptr) : bytes(os_malloc_mmap_page(old_size));
    for (unsigned long i = 0; i < old_size; ++i) old_ptr[i] = static_cast<unsigned char>(i * 7 + 1);
    size_t before = mapped();
    g_bool_memory_enable_page_prefault = is_malloc;
    unsigned char* ptr = bytes(is_malloc ? os_malloc_mmap_page(size) : os_realloc_mmap_page(old_ptr, old_given, size));
    ASSERT_TRUE(ptr != nullptr && ptr != &dummy);
    EXPECT_EQ(size, expected);
    EXPECT_TRUE(old_size != 0 || resident_pages(ptr, size) == (is_malloc ? size / k_page : 1u));
    EXPECT_EQ(static_cast<long>(mapped() - before), static_cast<long>(size - old_size));
    EXPECT_TRUE(old_size == 0 || is_unmapped(old_ptr, old_size));
    for (unsigned long i = 0; i < size; ++i) {
      ASSERT_EQ(ptr[i], i < std::min(old_size, size) ? static_cast<unsigned char>(i * 7 + 1) : 0) << i;
    }
    unmap_page(ptr, size - 1);  // rounded up again
    EXPECT_EQ(mapped() + old_size, before);
  }
}

void marking_new_handler() {
  if (write(2, "<handler>", 9) < 0) _exit(3);
}

// With a new handler, line and handler follow each failed try: eight, then std::terminate,
// or fewer when a retry succeeds (counted once). Without one the first failure terminates.
// A failed unmap warns and returns, and its bytes stay mapped and counted. A child whose
// counters are off exits with 5.
TEST_F(Os_mmap_test, FailureLinesAreBuiltWithoutAllocating) {
  void* (*volatile allocate)(size_t) = &malloc;  // the counter must see one, or zeros prove nothing
  EXPECT_EQ(malloc_call_counter::run_in_child([allocate] { free(allocate(24)); }).ulong_allocations, 1u);
  const std::string line = std::string("Error: os_malloc_mmap_with_flag() failed. size=12288, errno=12, strerror=") +
                           strerror(ENOMEM) + "\r\n";
  std::string eight;
  for (int i = 0; i < 8; ++i) eight += line + "<handler>";
  unsigned long size = k_page;
  unsigned char* ptr = bytes(os_malloc_mmap_page(size));
  char hex[32];
  snprintf(hex, sizeof(hex), "%016lx", addr(ptr + 1));  // munmap refuses ptr + 1 with EINVAL
  const int k_terminated = malloc_call_counter::k_int_terminate_exit_code;
  struct Case { bool bool_unmap, bool_handler; unsigned int uint_fail_first; std::string str_expected; int int_exit; };
  const Case cases[] = {{false, true, ~0u, eight + "<terminate>", k_terminated},
                        {false, false, ~0u, line + "<terminate>", k_terminated},
                        {false, true, 3, eight.substr(0, eight.size() / 8 * 3), 0},
                        {true, false, 0, std::string("Warn: os_free_unmap_without_lock() failed. ptr_void_in=") + hex +
                                             ", size=4096, errno=22, strerror=" + strerror(EINVAL) + "\r\n", 0}};
  for (const Case& c : cases) {
    auto outcome = malloc_call_counter::run_in_child([&c, ptr] {
      std::set_terminate(&malloc_call_counter::terminate_marker);
      std::set_new_handler(c.bool_handler ? &marking_new_handler : nullptr);
      use_fake(0, c.uint_fail_first);
      size_t before = mapped();
      unsigned long size = 3 * k_page - 5;
      c.bool_unmap ? unmap_page(ptr + 1, k_page) : void(os_malloc_mmap_page(size));
      if (c.bool_unmap ? mapped() != before || resident_pages(ptr, k_page) != 1 : mapped() - before != size || g_fake.uint_calls != 4) _exit(5);
    });
    EXPECT_TRUE(WIFEXITED(outcome.int_status) && WEXITSTATUS(outcome.int_status) == c.int_exit) << outcome.int_status;
    EXPECT_EQ(outcome.str_stderr, c.str_expected);
    EXPECT_EQ(outcome.ulong_allocations, 0u);
  }
  unmap_page(ptr, size);
}

// Failed huge mappings are quiet and uncounted. With the flag on, a region request tries
// MAP_HUGETLB once, then gets ordinary pages and the flag stays; a failed probe clears it,
// and with it off MAP_HUGETLB is not tried. Only the forced probe marks it tried. A region
// whose byte 0 is neither 0 nor 1 (a piece pointer) is left alone, silently.
TEST_F(Os_mmap_test, FailedHugePagesAreSilentAndRegionsFallBackToOrdinaryPages) {
  use_fake(k_page, 0, k_2m, true);
  size_t before = mapped();
  unsigned int huge_before = huge_count();
  std::tie(g_bool_memory_use_hugepage2m, g_bool_memory_has_try_use_hugepage2m) = std::pair(true, false);
  testing::internal::CaptureStderr();
  unsigned long size = 3 * k_2m - 1;
  EXPECT_EQ(os_malloc_hugepage2m(size), nullptr);
  EXPECT_EQ(size, 3 * k_2m);
  EXPECT_EQ(os_malloc_hugepage2m_size_2m(0), nullptr);
  for (bool use : {true, false}) {
    unsigned int calls = g_fake.uint_calls;
    unsigned char* region = bytes(os_malloc_map_align_2m_size_2m());
    EXPECT_EQ(g_fake.uint_calls - calls, use ? 2u : 1u);
    EXPECT_EQ(g_bool_memory_use_hugepage2m, use);
    EXPECT_EQ(region[0], 0);
    region[0] = 2;
    os_free_map_size_2m(region);
    EXPECT_TRUE(resident_pages(region, k_2m) != ~0UL && mapped() - before == k_2m);
    region[0] = 0;
    os_free_map_size_2m(region);
    EXPECT_EQ(mapped(), before);
    memory_try_enable_hugepage2m();
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(huge_count(), huge_before);
  EXPECT_FALSE(g_bool_memory_use_hugepage2m || g_bool_memory_has_try_use_hugepage2m);
  memory_force_enable_hugepage2m();
  EXPECT_TRUE(g_bool_memory_has_try_use_hugepage2m);
}

// ---- real huge pages, reserved for the test when it runs as root ------------------------

constexpr const char* k_nr_hugepages = "/proc/sys/vm/nr_hugepages";
constexpr const char* k_free_hugepages = "/sys/kernel/mm/hugepages/hugepages-2048kB/free_hugepages";

unsigned long read_number(const char* path) {
  unsigned long value = 0;
  return std::ifstream(path) >> value ? value : ~0UL;
}
// endl flushes, so a value the kernel refuses shows as a failed stream here.
bool write_number(const char* path, unsigned long value) { return !!(std::ofstream(path) << value << std::endl); }

// The good probe leaves the counters alone; huge mappings are counted, tagged (the node cut
// to 16 bits) and prefaulted, and released by their tag.
TEST_F(Os_mmap_test, HugePagePathsCountTagAndPrefault) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to reserve huge pages in " << k_nr_hugepages;
  unsigned long saved = read_number(k_nr_hugepages);
  if (saved == ~0UL || read_number(k_free_hugepages) == ~0UL) GTEST_SKIP() << "no 2 MB huge-page pool to reserve from";
  if (!write_number(k_nr_hugepages, saved + 4)) GTEST_SKIP() << "cannot write " << k_nr_hugepages;
  std::shared_ptr<void> restore(nullptr, [saved](void*) {
    EXPECT_TRUE(write_number(k_nr_hugepages, saved) && read_number(k_nr_hugepages) == saved);
  });
  if (read_number(k_free_hugepages) < 4) GTEST_SKIP() << "the kernel could not reserve four 2 MB huge pages";
  size_t before = mapped();
  unsigned int huge_before = huge_count();
  unsigned long free_before = read_number(k_free_hugepages);
  auto used = [&] {  // huge pages counted, bytes counted, huge pages the kernel handed out
    return std::tuple{huge_count() - huge_before, mapped() - before, free_before - read_number(k_free_hugepages)};
  };
  memory_force_enable_hugepage2m();  // the region request below shows it took
  unsigned long size = k_2m + 1;
  unsigned char* two = bytes(os_malloc_hugepage2m(size));
  ASSERT_NE(two, nullptr);
  EXPECT_EQ(size, 2 * k_2m);
  EXPECT_EQ(region_tag_of(two)->uchar_page_type, 1);
  EXPECT_EQ(used(), std::tuple(2u, 2 * k_2m, 2ul));  // tag and prefault touched both
  unsigned char* one = bytes(os_malloc_hugepage2m_size_2m(0x12345));
  ASSERT_NE(one, nullptr);
  EXPECT_EQ(region_tag_of(one)->ushort_numa_node, 0x2345);
  EXPECT_EQ(used(), std::tuple(3u, 3 * k_2m, 3ul));
  os_free_map_size_2m(one);  // by its tag: the count drops again
  unsigned char* region = bytes(os_malloc_map_align_2m_size_2m());
  EXPECT_EQ(region[0], 1);
  EXPECT_EQ(used(), std::tuple(3u, 3 * k_2m, 3ul));
  os_free_map_size_2m(region);
  two[k_2m] = 1;  // the second huge page's tag, which only the prefault touched
  os_free_map_size_2m(two);
  os_free_map_size_2m(two + k_2m);
  EXPECT_EQ(used(), std::tuple(0u, 0ul, 0ul));
}

}  // namespace
}  // namespace quorla
