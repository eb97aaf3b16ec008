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
#include <new>
#include <string>
#include <tuple>

#include "malloc_call_counter.h"
#include "os_memory/quorla_memory_settings.h"
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
void release_region(void* region) { os_free_map_size_2m(bytes(region)); }

// Resident pages of [ptr, ptr + size) (8 MB at most), ~0 if any is unmapped. Allocates nothing.
unsigned long resident_pages(const void* ptr, unsigned long size) {
  static unsigned char vec[2048];
  if (size / k_page > sizeof(vec) || mincore(const_cast<void*>(ptr), size, vec) != 0) return ~0UL;
  unsigned long count = 0;
  for (unsigned long i = 0; i < size / k_page; ++i) count += vec[i] & 1;
  return count;
}
bool is_mapped(const void* ptr, unsigned long size) { return resident_pages(ptr, size) != ~0UL; }
bool is_unmapped(const void* ptr, unsigned long size) {
  unsigned char c;
  for (unsigned long off = 0; off < size; off += k_page) {
    if (mincore(bytes(const_cast<void*>(ptr)) + off, k_page, &c) == 0 || errno != ENOMEM) return false;
  }
  return true;
}

unsigned long read_number(const char* path) {
  unsigned long value = ~0UL;
  FILE* f = fopen(path, "r");
  if (f != nullptr && (fscanf(f, "%lu", &value) != 1 || fclose(f) != 0)) value = ~0UL;
  return value;
}

// The seam: maps exactly [aligned + shift, + length) for real, so the layer's munmap calls
// work on real memory; fails with ENOMEM while told to.
struct Fake_mmap_state {
  unsigned long ulong_shift = 0, ulong_alignment = k_2m;
  unsigned int uint_calls = 0, uint_fail_before_success = 0;
  bool bool_fail_huge = false;  // every MAP_HUGETLB call fails
  int int_last_flags = 0;
  unsigned char* ptr_last = nullptr;     // address returned last
  unsigned char* ptr_aligned = nullptr;  // the aligned base below it
};
Fake_mmap_state g_fake;

void* fake_mmap(void*, size_t length, int prot, int flags, int fd, off_t offset) {
  ++g_fake.uint_calls;
  g_fake.int_last_flags = flags;
  if (g_fake.uint_fail_before_success > 0 || (g_fake.bool_fail_huge && (flags & MAP_HUGETLB) != 0)) {
    if (g_fake.uint_fail_before_success > 0) --g_fake.uint_fail_before_success;
    errno = ENOMEM;
    return MAP_FAILED;
  }
  unsigned long a = g_fake.ulong_alignment, reserve = length + 2 * a;
  unsigned char* raw = bytes(::mmap(nullptr, reserve, prot, flags & ~MAP_HUGETLB, fd, offset));
  if (raw == MAP_FAILED) return MAP_FAILED;
  g_fake.ptr_aligned = reinterpret_cast<unsigned char*>((addr(raw) + a - 1) & ~(a - 1));
  unsigned char* start = g_fake.ptr_aligned + g_fake.ulong_shift;
  if (start > raw) munmap(raw, static_cast<unsigned long>(start - raw));
  unsigned char* end = start + length;
  if (raw + reserve > end) munmap(end, static_cast<unsigned long>(raw + reserve - end));
  return g_fake.ptr_last = start;
}

// Restores the seam and the flags the tests touch.
class Os_mmap_test : public ::testing::Test {
 protected:
  void TearDown() override {
    set_os_mmap_function_for_test(nullptr);
    std::tie(g_bool_memory_enable_page_prefault, g_bool_memory_use_hugepage2m, g_bool_memory_use_hugepage,
             g_bool_memory_has_try_use_hugepage2m) = saved_;
  }
  static void use_fake(unsigned long shift, unsigned long alignment = k_2m, unsigned int fail_first = 0) {
    g_fake = Fake_mmap_state{shift, alignment, 0, fail_first};
    set_os_mmap_function_for_test(&fake_mmap);
  }
  static void use_failing() { use_fake(0, k_2m, ~0u); }

 private:
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
      if (shift != k_real) use_fake(shift, alignment);
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
      region ? release_region(ptr) : unmap_page(ptr, size);
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
  struct Case {  // old 0: nothing mapped
    bool bool_malloc;
    unsigned long ulong_old, ulong_old_given, ulong_asked, ulong_expected;
  } const cases[] = {{true, 0, 0, 3 * k_page + 1, 4 * k_page},
                     {false, 0, 12345, 10, k_page},
                     {false, 0, 0, k_page + 1, 2 * k_page},
                     {false, 3 * k_page, 3 * k_page, 5000, 2 * k_page},
                     {false, 2 * k_page, 2 * k_page - 100, 5 * k_page - 10, 5 * k_page}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.ulong_asked);
    unsigned long old_size = c.ulong_old;
    unsigned char* old_ptr = old_size == 0 ? (c.ulong_old_given == 0 ? &dummy : nullptr) : bytes(os_malloc_mmap_page(old_size));
    for (unsigned long i = 0; i < old_size; ++i) old_ptr[i] = static_cast<unsigned char>(i * 7 + 1);
    size_t before = mapped();
    unsigned long size = c.ulong_asked;
    g_bool_memory_enable_page_prefault = c.bool_malloc;
    unsigned char* ptr = bytes(c.bool_malloc ? os_malloc_mmap_page(size) : os_realloc_mmap_page(old_ptr, c.ulong_old_given, size));
    ASSERT_TRUE(ptr != nullptr && ptr != &dummy);
    EXPECT_EQ(size, c.ulong_expected);
    EXPECT_TRUE(old_size != 0 || resident_pages(ptr, size) == (c.bool_malloc ? size / k_page : 1u));
    EXPECT_EQ(static_cast<long>(mapped() - before), static_cast<long>(size - old_size));
    EXPECT_TRUE(old_size == 0 || is_unmapped(old_ptr, old_size));
    for (unsigned long i = 0; i < size; ++i) {
      ASSERT_EQ(ptr[i], i < std::min(old_size, size) ? static_cast<unsigned char>(i * 7 + 1) : 0) << i;
    }
    unmap_page(ptr, size - 1);  // rounded up again
    EXPECT_TRUE(is_unmapped(ptr, size));
    EXPECT_EQ(mapped() + old_size, before);
  }
}

// A region whose byte 0 is neither 0 nor 1 (a piece pointer) is left alone, silently.
TEST_F(Os_mmap_test, RegionReleaseLeavesAnUnknownTagAlone) {
  unsigned char* region = bytes(os_malloc_mmap_page_2m_align(0));
  size_t before = mapped();
  region[0] = 2;
  testing::internal::CaptureStderr();
  release_region(region);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_TRUE(is_mapped(region, k_2m));
  EXPECT_EQ(mapped(), before);
  region[0] = 0;
  release_region(region);
  EXPECT_EQ(before - mapped(), k_2m);
}

void marking_text(const char* text) {
  if (write(2, text, strlen(text)) < 0) _exit(3);
}
void marking_new_handler() { marking_text("<handler>"); }

// With a new handler, line and handler follow each failed try: eight, then std::terminate,
// or fewer when a retry succeeds (counted once). Without one the first failure terminates.
TEST_F(Os_mmap_test, MappingFailureLinesAreBuiltWithoutAllocating) {
  void* (*volatile allocate)(size_t) = &malloc;  // the counter must see one, or zeros prove nothing
  EXPECT_EQ(malloc_call_counter::run_in_child([allocate] { free(allocate(24)); }).ulong_allocations, 1u);
  const std::string line = std::string("Error: os_malloc_mmap_with_flag() failed. size=12288, errno=12, strerror=") +
                           strerror(ENOMEM) + "\r\n";
  auto marked = [&line](int times) {
    std::string text;
    while (times-- > 0) text += line + "<handler>";
    return text;
  };
  const int k_terminated = malloc_call_counter::k_int_terminate_exit_code;
  struct Case {
    bool bool_handler;
    unsigned int uint_fail_first;
    std::string str_expected;
    int int_exit;
  } const cases[] = {{true, ~0u, marked(8) + "<terminate>", k_terminated},
                     {false, ~0u, line + "<terminate>", k_terminated},
                     {true, 3, marked(3) + "<counted once>", 0}};
  for (const Case& c : cases) {
    auto outcome = malloc_call_counter::run_in_child([&c] {
      std::set_terminate(&malloc_call_counter::terminate_marker);
      std::set_new_handler(c.bool_handler ? &marking_new_handler : nullptr);
      use_fake(0, k_2m, c.uint_fail_first);
      size_t before = mapped();
      unsigned long size = 3 * k_page - 5;
      os_malloc_mmap_page(size);
      if (mapped() - before == 3 * k_page && g_fake.uint_calls == 4) marking_text("<counted once>");
    });
    EXPECT_TRUE(WIFEXITED(outcome.int_status) && WEXITSTATUS(outcome.int_status) == c.int_exit) << outcome.int_status;
    EXPECT_EQ(outcome.str_stderr, c.str_expected);
    EXPECT_EQ(outcome.ulong_allocations, 0u);
  }
}

// Failed huge mappings are quiet and uncounted (tried once: see the fallback test); a failed
// probe clears the flag, and only the forced form marks it tried.
TEST_F(Os_mmap_test, FailedHugePageMappingsAreSilentAndTheProbeOverwritesTheFlags) {
  use_failing();
  size_t before = mapped();
  unsigned int huge_before = huge_count();
  g_bool_memory_use_hugepage2m = true;
  g_bool_memory_has_try_use_hugepage2m = false;
  testing::internal::CaptureStderr();
  unsigned long size = 3 * k_2m - 1;
  EXPECT_EQ(os_malloc_hugepage2m(size), nullptr);
  EXPECT_EQ(size, 3 * k_2m);
  EXPECT_EQ(os_malloc_hugepage2m_size_2m(0), nullptr);
  memory_try_enable_hugepage2m();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(mapped(), before);
  EXPECT_EQ(huge_count(), huge_before);
  EXPECT_FALSE(g_bool_memory_use_hugepage2m || g_bool_memory_has_try_use_hugepage2m);
  memory_force_enable_hugepage2m();
  EXPECT_TRUE(g_bool_memory_has_try_use_hugepage2m);
}

// With the flag on but no huge page left, a region request fails quietly and gets ordinary
// pages; the flag stays. With the flag off MAP_HUGETLB is not tried.
TEST_F(Os_mmap_test, GoodProbeWithoutHugePagesSilentlyFallsBackToOrdinaryPages) {
  size_t before = mapped();
  for (bool use : {true, false}) {
    use_fake(k_page);
    g_fake.bool_fail_huge = true;
    g_bool_memory_use_hugepage2m = use;
    testing::internal::CaptureStderr();
    unsigned char* region = bytes(os_malloc_map_align_2m_size_2m());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(g_fake.uint_calls, use ? 2u : 1u);
    EXPECT_EQ(g_fake.int_last_flags & MAP_HUGETLB, 0);
    EXPECT_EQ(g_bool_memory_use_hugepage2m, use);
    EXPECT_EQ(region[0], 0);
    EXPECT_EQ(addr(region) % k_2m, 0u);
    EXPECT_EQ(mapped() - before, k_2m);
    release_region(region);
    EXPECT_EQ(mapped(), before);
  }
}

// The call returns and the bytes stay counted.
TEST_F(Os_mmap_test, FailedUnmapWarnsWithoutAllocatingAndKeepsTheBytesCounted) {
  unsigned long size = 2 * k_page;
  unsigned char* ptr = bytes(os_malloc_mmap_page(size));
  unsigned char* bad = ptr + 1;  // munmap refuses with EINVAL
  char hex[32];
  snprintf(hex, sizeof(hex), "%016lx", addr(bad));
  malloc_call_counter::Child_outcome outcome = malloc_call_counter::run_in_child([bad, ptr, size] {
    size_t before = mapped();
    g_mutex_mmap.lock();
    os_free_unmap_without_lock(bad, 4096);
    g_mutex_mmap.unlock();
    if (mapped() == before && is_mapped(ptr, size)) marking_text("<kept>");
  });
  EXPECT_EQ(outcome.str_stderr, std::string("Warn: os_free_unmap_without_lock() failed. ptr_void_in=") + hex +
                                    ", size=4096, errno=22, strerror=" + strerror(EINVAL) + "\r\n<kept>");
  EXPECT_EQ(outcome.ulong_allocations, 0u);
  EXPECT_EQ(outcome.int_status, 0);
  unmap_page(ptr, size);
}

// ---- real huge pages, reserved for the test when it runs as root ------------------------

constexpr const char* k_nr_hugepages = "/proc/sys/vm/nr_hugepages";
constexpr const char* k_free_hugepages = "/sys/kernel/mm/hugepages/hugepages-2048kB/free_hugepages";

bool write_number(const char* path, unsigned long value) {
  FILE* f = fopen(path, "w");
  bool ok = f != nullptr && fprintf(f, "%lu\n", value) > 0;
  return f != nullptr && fclose(f) == 0 && ok;
}

// The good probe leaves the counters alone; huge mappings are counted, tagged (the node cut
// to 16 bits) and prefaulted, and released by their tag.
TEST_F(Os_mmap_test, HugePagePathsCountTagAndPrefault) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to reserve huge pages in " << k_nr_hugepages;
  unsigned long saved = read_number(k_nr_hugepages);
  if (saved == ~0UL || read_number(k_free_hugepages) == ~0UL) GTEST_SKIP() << "no 2 MB huge-page pool to reserve from";
  if (!write_number(k_nr_hugepages, saved + 4)) GTEST_SKIP() << "cannot write " << k_nr_hugepages;
  struct Restore {
    unsigned long ulong_saved;
    ~Restore() { EXPECT_TRUE(write_number(k_nr_hugepages, ulong_saved) && read_number(k_nr_hugepages) == ulong_saved); }
  } restore{saved};
  if (read_number(k_free_hugepages) < 4) GTEST_SKIP() << "the kernel could not reserve four 2 MB huge pages";
  size_t before = mapped();
  unsigned int huge_before = huge_count();
  unsigned long free_before = read_number(k_free_hugepages);
  memory_force_enable_hugepage2m();
  EXPECT_TRUE(g_bool_memory_use_hugepage2m);
  EXPECT_EQ(mapped(), before);
  EXPECT_EQ(huge_count(), huge_before);

  unsigned long size = k_2m + 1;
  unsigned char* two = bytes(os_malloc_hugepage2m(size));
  ASSERT_NE(two, nullptr);
  EXPECT_EQ(size, 2 * k_2m);
  EXPECT_EQ(huge_count() - huge_before, 2u);
  EXPECT_EQ(mapped() - before, 2 * k_2m);
  EXPECT_EQ(region_tag_of(two)->uchar_page_type, 1);
  EXPECT_EQ(free_before - read_number(k_free_hugepages), 2u);  // tag and prefault touched both
  unsigned char* one = bytes(os_malloc_hugepage2m_size_2m(0x12345));
  ASSERT_NE(one, nullptr);
  EXPECT_EQ(region_tag_of(one)->ushort_numa_node, 0x2345);
  EXPECT_EQ(huge_count() - huge_before, 3u);
  release_region(one);  // by its tag: the count drops again
  unsigned char* region = bytes(os_malloc_map_align_2m_size_2m());
  EXPECT_EQ(region[0], 1);
  EXPECT_EQ(huge_count() - huge_before, 3u);
  EXPECT_EQ(mapped() - before, 3 * k_2m);
  release_region(region);
  g_mutex_mmap.lock();
  g_locking_uint_os_malloc_hugepage2m_count -= 2;
  os_free_unmap_without_lock(two, 2 * k_2m);
  g_mutex_mmap.unlock();
  EXPECT_EQ(huge_count(), huge_before);
  EXPECT_EQ(mapped(), before);
  EXPECT_EQ(read_number(k_free_hugepages), free_before);
}

}  // namespace
}  // namespace quorla
