// The large-allocation table through its exported front (quorla_os_malloc, quorla_os_free,
// quorla_os_realloc, quorla_os_get_malloc_size): recorded sizes and the mapped-bytes counter
// for each size class, the warning and error lines word for word, resizes in place and moved,
// size 0; and errno kept across the mapping layer's failures that a caller does not see.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <new>
#include <string>

#include "os_memory/quorla_os_mmap.h"
#include "os_memory/quorla_os_umap_ptr_size.h"
#include "os_memory/quorla_wait_release_ptr_part_numa_node.h"
#include "startup/quorla_memory_settings.h"
#include "quorlamalloc.h"

namespace quorla {
namespace {

constexpr unsigned long k_2m = 2097152;
constexpr int k_sentinel_errno = EDOM;

// Bytes mapped by the library and not waiting in the region cache, which the background
// thread (started by earlier activity of the process) may fill at any moment.
size_t mapped() { return g_locking_sizet_os_malloc_all_size - g_memory_wait_release_ptr_part_numa_node.get_all_byte(); }
unsigned long addr(const void* ptr) { return reinterpret_cast<unsigned long>(ptr); }
unsigned char* bytes(void* ptr) { return static_cast<unsigned char*>(ptr); }

std::string stderr_of(const std::function<void()>& run) {
  testing::internal::CaptureStderr();
  run();
  return testing::internal::GetCapturedStderr();
}

// The mapped-bytes counter is compared before and after: the background thread, which a
// large request may start, would map regions ahead meanwhile. It stays off while one lives.
// A thread started earlier may still be preparing its first regions: wait until the count
// holds still (never longer than about two seconds).
struct Background_thread_off {
  bool saved = g_bool_memory_enable_thread_background;
  Background_thread_off() {
    g_bool_memory_enable_thread_background = false;
    size_t last = ~size_t{0};
    for (int i = 0; i < 200 && (last != mapped() || i < 5); ++i) {
      last = mapped();
      usleep(10000);
    }
  }
  ~Background_thread_off() { g_bool_memory_enable_thread_background = saved; }
};

std::string hex_line(const char* text, const void* ptr) {
  char hex[32];
  snprintf(hex, sizeof(hex), "%016lx", addr(ptr));
  return std::string(text) + hex + "\r\n";
}

// Every size records its mapping rounded up to whole regions (0 as one region), the block is
// region-aligned and usable to its last byte, and a block above one region is unmapped at
// once by its free. (A one-region block may go to the region cache instead: its counter is
// not checked.)
TEST(Large_allocation, SizesAreRecordedInWholeRegions) {
  Background_thread_off background_off;
  struct Case {
    unsigned long size, recorded;
  } cases[] = {{2048001, k_2m}, {k_2m, k_2m}, {0, k_2m}, {1, k_2m}, {k_2m + 1, 2 * k_2m}, {3000000, 2 * k_2m},
               {5 * k_2m, 5 * k_2m}};
  for (const Case& c : cases) {
    size_t before = mapped();
    std::string err = stderr_of([&] {
      unsigned char* block = bytes(quorla_os_malloc(c.size));
      ASSERT_NE(block, nullptr) << c.size;
      EXPECT_EQ(addr(block) % k_2m, 0u) << c.size;
      EXPECT_EQ(quorla_os_get_malloc_size(block), c.recorded) << c.size;
      if (c.recorded > k_2m) { EXPECT_EQ(mapped() - before, c.recorded) << c.size; }
      block[0] = 1;
      block[c.recorded - 1] = 2;
      quorla_os_free(block);
      if (c.recorded > k_2m) { EXPECT_EQ(mapped(), before) << c.size; }
    });
    EXPECT_EQ(err, "") << c.size;
  }
}

// Unknown pointers: free and the size query warn and change nothing; a second free is an
// unknown pointer; realloc of one says nothing for size 0 and gives its error line and null
// otherwise; erasing one warns.
TEST(Large_allocation, UnknownPointersWarnWordForWord) {
  void* known = quorla_os_malloc(3000000);
  void* unknown = reinterpret_cast<void*>(0x7e0000000000ul);
  const char* k_free_warning = "Warn: Memory_os_umap_ptr_size::quorla_os_free() not find. ptr_void_in=";
  EXPECT_EQ(stderr_of([&] { quorla_os_free(unknown); }), hex_line(k_free_warning, unknown));
  EXPECT_EQ(quorla_os_get_malloc_size(known), 2 * k_2m) << "the table is as it was";
  unsigned long size = 1;
  EXPECT_EQ(stderr_of([&] { size = quorla_os_get_malloc_size(unknown); }),
            hex_line("Warn: Memory_os_umap_ptr_size::get_malloc_size() not find. ptr_void_in=", unknown));
  EXPECT_EQ(size, 0u);
  void* answer = nullptr;
  EXPECT_EQ(stderr_of([&] { answer = quorla_os_realloc(unknown, 0); }), "");
  EXPECT_EQ(answer, unknown);
  errno = 0;
  EXPECT_EQ(stderr_of([&] { answer = quorla_os_realloc(unknown, 3000000); }),
            "Error: Memory_os_umap_ptr_size::realloc_and_update_umap() not find old size. ptr_void_in=00007e0000000000"
            ", sizet_size_in=3000000, sizet_new_size_align=4194304\r\n");
  EXPECT_EQ(answer, nullptr);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(stderr_of([&] {
              g_memory_os_umap_ptr_size.mutex_umap.lock();
              g_memory_os_umap_ptr_size.erase_umap_without_lock(unknown);
              g_memory_os_umap_ptr_size.mutex_umap.unlock();
            }),
            hex_line("Warn: Memory_os_umap_ptr_size::erase_umap() not find. ptr_void_in=", unknown));
  EXPECT_EQ(stderr_of([&] { quorla_os_free(known); }), "");
  EXPECT_EQ(stderr_of([&] { quorla_os_free(known); }), hex_line(k_free_warning, known)) << "a second free";
}

// A resize within the same whole regions keeps the address; any other moves the block with its
// contents (up to the smaller size) and forgets the old address; size 0 releases a known block
// and answers null; a null pointer allocates.
TEST(Large_allocation, ResizeInPlaceMovedAndToZero) {
  Background_thread_off background_off;
  size_t before = mapped();
  unsigned char* block = bytes(quorla_os_realloc(nullptr, 3000000));
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(quorla_os_get_malloc_size(block), 2 * k_2m);
  for (unsigned long i = 0; i < 2 * k_2m; i += 4093) block[i] = static_cast<unsigned char>(i / 4093);
  EXPECT_EQ(quorla_os_realloc(block, 3500000), block) << "both round to 4194304";
  struct Step {
    unsigned long size, recorded;
  } steps[] = {{11000000, 6 * k_2m}, {4194304, 2 * k_2m}, {2100000, 2 * k_2m}};
  for (const Step& s : steps) {
    unsigned char* moved = bytes(quorla_os_realloc(block, s.size));
    ASSERT_NE(moved, nullptr);
    EXPECT_EQ(quorla_os_get_malloc_size(moved), s.recorded) << s.size;
    if (moved != block) {
      EXPECT_EQ(stderr_of([&] { EXPECT_EQ(quorla_os_get_malloc_size(block), 0u); }).rfind("Warn: ", 0), 0u) << s.size;
    }
    for (unsigned long i = 0; i < 2 * k_2m; i += 4093) ASSERT_EQ(moved[i], static_cast<unsigned char>(i / 4093)) << s.size;
    EXPECT_EQ(mapped() - before, s.recorded) << s.size;
    block = moved;
  }
  EXPECT_EQ(stderr_of([&] { EXPECT_EQ(quorla_os_realloc(block, 0), nullptr); }), "");
  EXPECT_EQ(mapped(), before) << "released, not left behind as an entry of size 0";
  EXPECT_EQ(stderr_of([&] { quorla_os_free(block); }).rfind("Warn: Memory_os_umap_ptr_size::quorla_os_free() not find.", 0), 0u);
}

// ---- errno across failures that the caller does not see ----------------------------------

unsigned int g_failures_left = 0;
void* failing_mmap(void* address, size_t length, int prot, int flags, int fd, off_t offset) {
  if (g_failures_left > 0 || (flags & MAP_HUGETLB) != 0) {
    if (g_failures_left > 0) --g_failures_left;
    errno = ENOMEM;
    return MAP_FAILED;
  }
  return ::mmap(address, length, prot, flags, fd, offset);
}
void quiet_new_handler() {}

struct Errno_test : ::testing::Test {
  Background_thread_off background_off;
  void SetUp() override { set_os_mmap_function_for_test(&failing_mmap); }
  void TearDown() override {
    set_os_mmap_function_for_test(nullptr);
    std::set_new_handler(nullptr);
    g_failures_left = 0;
  }
};

// A failed unmapping (an entry of size 0: munmap refuses the length) warns, and free leaves
// errno as it was; so do a refused huge-page mapping answered with ordinary pages, a mapping
// that succeeds after a failure and the new handler, and the single-try mapping that fails.
TEST_F(Errno_test, FailuresInsideSuccessfulCallsAndFreeDoNotShow) {
  void* entry = reinterpret_cast<void*>(0x7e0000000000ul);
  g_memory_os_umap_ptr_size.mutex_umap.lock();
  g_memory_os_umap_ptr_size.insert_umap_without_lock(entry, 0, 0, 0);
  g_memory_os_umap_ptr_size.mutex_umap.unlock();
  errno = k_sentinel_errno;
  std::string err = stderr_of([&] { quorla_free(entry); });
  EXPECT_EQ(errno, k_sentinel_errno);
  EXPECT_EQ(err, std::string("Warn: os_free_unmap_without_lock() failed. ptr_void_in=00007e0000000000, size=0, errno=22, strerror=") +
                     strerror(EINVAL) + "\r\n");

  unsigned long size = k_2m;
  errno = k_sentinel_errno;
  EXPECT_EQ(os_malloc_hugepage2m(size), nullptr);
  EXPECT_EQ(errno, k_sentinel_errno) << "refused huge pages";

  std::set_new_handler(&quiet_new_handler);
  g_failures_left = 2;
  size = 3 * 4096;
  errno = k_sentinel_errno;
  err = stderr_of([&] {
    void* block = os_malloc_mmap_page(size);
    EXPECT_NE(block, nullptr);
    EXPECT_EQ(errno, k_sentinel_errno) << "a mapping that succeeded on the third try";
    unsigned long zero = 0;
    os_realloc_mmap_page(block, size, zero);
  });
  EXPECT_EQ(err.size() > 0 && err.find("Error: os_malloc_mmap_with_flag() failed. size=12288, errno=12") == 0, true) << err;

  size_t before = mapped();
  g_failures_left = 1;
  errno = k_sentinel_errno;
  EXPECT_EQ(stderr_of([] { EXPECT_EQ(os_try_malloc_mmap_page_align(3 * k_2m, k_2m), nullptr); }), "");
  EXPECT_EQ(errno, k_sentinel_errno);
  EXPECT_EQ(mapped(), before);
  void* block = os_try_malloc_mmap_page_align(3 * k_2m, k_2m);
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(addr(block) % k_2m, 0u);
  EXPECT_EQ(mapped() - before, 3 * k_2m);
  g_mutex_mmap.lock();
  os_free_unmap_without_lock(block, 3 * k_2m);
  g_mutex_mmap.unlock();
  EXPECT_EQ(mapped(), before);
}

}  // namespace
}  // namespace quorla
