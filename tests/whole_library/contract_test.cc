// The C and POSIX contracts where the design leaves room, on the default library and again on
// the hardened one (QUORLA_TEST_HARDENED): free and every successful call leave errno as it
// was, every null answer says why in errno, nothing but the worded lines reaches standard
// error; and the hardened build's edges (overflow, alignment, the shapes that never returned,
// a mapping the kernel refuses).
#include <malloc.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

#include "config_probe_run.h"
#include "library_symbol.h"
#include "quorlamalloc.h"

namespace {

constexpr int k_sentinel_errno = EDOM;  // no allocation path sets it
constexpr bool k_hardened = QUORLA_TEST_HARDENED != 0;
// Opaque to the compiler's own checks of allocation sizes.
volatile size_t g_size_max = SIZE_MAX;

uintptr_t address(const void* ptr) { return reinterpret_cast<uintptr_t>(ptr); }

std::string stderr_of(const std::function<void()>& run) {
  testing::internal::CaptureStderr();
  run();
  return testing::internal::GetCapturedStderr();
}

TEST(ErrnoContract, FreeAndSuccessfulCallsKeepErrno) {
  struct Case {
    const char* name;
    std::function<void()> run;  // succeeds, and releases what it took
  } cases[] = {
      {"malloc(0) and free", [] { free(malloc(0)); }},
      {"malloc(100) and free", [] { free(malloc(100)); }},
      {"malloc(5000) and free", [] { free(malloc(5000)); }},
      {"malloc(2048000) and free", [] { free(malloc(2048000)); }},
      {"malloc(3000000) and free", [] { free(malloc(3000000)); }},
      {"free(nullptr)", [] { free(nullptr); }},
      {"calloc(10, 10)", [] { free(calloc(10, 10)); }},
      {"calloc(0, 0)", [] { free(calloc(0, 0)); }},
      {"realloc grows, shrinks, goes large", [] {
         void* p = realloc(nullptr, 10);
         p = realloc(p, 5000);
         p = realloc(p, 3000000);
         p = realloc(p, 20);
         free(p);
       }},
      {"realloc(p, 0)", [] { EXPECT_EQ(realloc(malloc(30), 0), nullptr); }},
      {"reallocarray", [] { free(reallocarray(malloc(8), 10, 10)); }},
      {"memalign(64, 100)", [] { free(memalign(64, 100)); }},
      {"aligned_alloc(8192, 16384)", [] { free(aligned_alloc(8192, 16384)); }},
      {"posix_memalign(4096, 100)", [] {
         void* p = nullptr;
         EXPECT_EQ(posix_memalign(&p, 4096, 100), 0);
         free(p);
       }},
      {"posix_memalign refusing alignment 3", [] {
         void* p = nullptr;
         EXPECT_EQ(posix_memalign(&p, 3, 100), EINVAL);
       }},
      {"posix_memalign out of memory", [] {
         void* p = nullptr;
         EXPECT_EQ(posix_memalign(&p, 64, g_size_max - 100), ENOMEM);
       }},
      {"valloc and pvalloc", [] {
         free(valloc(100));
         free(pvalloc(9000));
       }},
      {"malloc_usable_size", [] {
         void* p = malloc(100);
         EXPECT_EQ(malloc_usable_size(p), 112u);
         free(p);
       }},
      {"quorla_os_ family", [] {
         void* p = quorla_os_malloc(3000000);
         EXPECT_EQ(quorla_os_get_malloc_size(p), 4194304u);
         p = quorla_os_realloc(p, 7000000);
         quorla_os_free(p);
       }},
      {"free of a region-aligned pointer the library never gave", [] {
         free(reinterpret_cast<void*>(0x7e0000000000ul));
       }},
  };
  for (const Case& c : cases) {
    testing::internal::CaptureStderr();
    errno = k_sentinel_errno;
    c.run();
    int after = errno;
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(after, k_sentinel_errno) << c.name;
    // Only the worded lines: posix_memalign's two, the warning for the unknown pointer.
    if (std::string(c.name).rfind("posix_memalign refusing", 0) == 0) {
      EXPECT_EQ(err, "Error: quorla_posix_memalign() EINVAL\r\n");
    } else if (std::string(c.name).rfind("posix_memalign out", 0) == 0) {
      EXPECT_EQ(err, "Error: quorla_posix_memalign() ENOMEM\r\n");
    } else if (std::string(c.name).rfind("free of a region", 0) == 0) {
      EXPECT_EQ(err, "Warn: Memory_os_umap_ptr_size::quorla_os_free() not find. ptr_void_in=00007e0000000000\r\n");
    } else {
      EXPECT_EQ(err, "") << c.name;
    }
  }
}

// The settings file is read inside the first 128-byte malloc: a missing file (open fails) and
// a present one leave the caller's errno as it was. In a fresh process, so that this malloc is
// the first.
TEST(ErrnoContract, ReadingTheSettingsFileKeepsErrno) {
  for (const char* conf : {"/nonexistent/quorla/libquorlamalloc.conf", QUORLA_EXAMPLE_CONF}) {
    config_probe::Result result = config_probe::run({"errno128"}, conf);
    ASSERT_TRUE(result.exited_cleanly()) << conf << ": " << result.str_stderr;
    EXPECT_NE(result.at("gate_count"), 0u) << conf << ": the malloc passed the gate";
    EXPECT_EQ(result.at("errno_after_128"), static_cast<unsigned long>(k_sentinel_errno)) << conf;
  }
}

TEST(ErrnoContract, NullAnswersSetErrnoAndKeepTheOldBlock) {
  unsigned char* kept = static_cast<unsigned char*>(malloc(64));
  memset(kept, 0x7B, 64);
  void* large = quorla_os_malloc(3000000);
  struct Case {
    const char* name;
    std::function<void*()> run;
    int error;
    bool line;  // calloc writes its overflow line
  } cases[] = {
      {"malloc(SIZE_MAX)", [] { return malloc(g_size_max); }, ENOMEM, false},
      {"calloc(1, SIZE_MAX)", [] { return calloc(1, g_size_max); }, ENOMEM, true},
      {"calloc(SIZE_MAX, 1)", [] { return calloc(g_size_max, 1); }, ENOMEM, true},
      {"realloc(p, SIZE_MAX)", [&] { return realloc(kept, g_size_max); }, ENOMEM, false},
      {"reallocarray(p, 1, SIZE_MAX)", [&] { return reallocarray(kept, 1, g_size_max); }, ENOMEM, false},
      {"aligned_alloc(4096, SIZE_MAX - 10)", [] { return aligned_alloc(4096, g_size_max - 10); }, ENOMEM, false},
      {"quorla_os_malloc(SIZE_MAX)", [] { return quorla_os_malloc(g_size_max); }, ENOMEM, false},
      {"quorla_os_realloc(p, SIZE_MAX)", [&] { return quorla_os_realloc(large, g_size_max); }, ENOMEM, false},
  };
  for (const Case& c : cases) {
    errno = 0;
    void* result = nullptr;
    std::string err = stderr_of([&] { result = c.run(); });
    EXPECT_EQ(result, nullptr) << c.name;
    EXPECT_EQ(errno, c.error) << c.name;
    EXPECT_EQ(err.rfind("Log: quorla_calloc() over size.", 0) == 0, c.line) << c.name << ": " << err;
  }
  for (int i = 0; i < 64; ++i) ASSERT_EQ(kept[i], 0x7B) << "a failed resize leaves the block as it was";
  EXPECT_EQ(quorla_os_get_malloc_size(large), 4194304u);
  free(kept);
  quorla_os_free(large);
}

// Products that wrap to a value not below the element size: the default build's one test lets
// them through (and the huge request then ends the process), the hardened build refuses them.
TEST(HardenedEdges, WrappingProducts) {
  const size_t count = g_size_max / 2;  // (count + 1) * 3 wraps to 2^63
  if (!k_hardened) {
    EXPECT_DEATH(calloc(count, 3), "Error: os_malloc_mmap_with_flag\\(\\) failed. size=");
    return;
  }
  errno = 0;
  std::string err = stderr_of([&] { EXPECT_EQ(calloc(count, 3), nullptr); });
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(err, "Log: quorla_calloc() over size. sizet_nmemb_in=" + std::to_string(count) + ", sizet_size_in=3\r\n");
  // Volatile: a failed reallocarray leaves the block live, which the compiler cannot know.
  void* volatile block = malloc(40);
  errno = 0;
  EXPECT_EQ(reallocarray(block, (g_size_max >> 2) + 1, 4), nullptr);  // (2^62 + 1) * 4 wraps to 4 bytes
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(malloc_usable_size(block), 48u) << "the block is left as it was";
  free(block);
}

TEST(HardenedEdges, AlignmentValidation) {
  struct Case {
    size_t alignment;
    bool refused_by_hardened;   // memalign, aligned_alloc and posix_memalign
    bool refused_by_posix_only;  // posix_memalign only: below a pointer's size
  } cases[] = {{0, true, false}, {3, true, false}, {24, true, false}, {4, false, true},
               {8, false, false}, {64, false, false}, {8192, false, false}};
  for (const Case& c : cases) {
    errno = 0;
    void* from_memalign = memalign(c.alignment, 100);
    int memalign_errno = errno;
    void* from_aligned_alloc = aligned_alloc(c.alignment, 100);
    void* out = nullptr;
    int answer = 0;
    std::string err = stderr_of([&] { answer = posix_memalign(&out, c.alignment, 100); });
    bool posix_refused = k_hardened ? c.refused_by_hardened || c.refused_by_posix_only
                                    : (c.alignment & (c.alignment - 1)) != 0;
    EXPECT_EQ(answer, posix_refused ? EINVAL : 0) << c.alignment;
    EXPECT_EQ(err, posix_refused ? "Error: quorla_posix_memalign() EINVAL\r\n" : "") << c.alignment;
    if (k_hardened && c.refused_by_hardened) {
      EXPECT_EQ(from_memalign, nullptr) << c.alignment;
      EXPECT_EQ(memalign_errno, EINVAL) << c.alignment;
      EXPECT_EQ(from_aligned_alloc, nullptr) << c.alignment;
    } else {
      ASSERT_NE(from_memalign, nullptr) << c.alignment;
      ASSERT_NE(from_aligned_alloc, nullptr) << c.alignment;
      // The default build rounds a size at alignment 0 down to 0 (kept, and in aligned_test).
      if (c.alignment != 0) { EXPECT_GE(malloc_usable_size(from_memalign), 100u) << c.alignment; }
      if (c.alignment > 8 && (c.alignment & (c.alignment - 1)) == 0) {
        EXPECT_EQ(address(from_memalign) % c.alignment, 0u) << c.alignment;
        EXPECT_EQ(address(from_aligned_alloc) % c.alignment, 0u) << c.alignment;
      }
    }
    if (!posix_refused) { EXPECT_EQ(address(out) % (c.alignment == 0 ? 1 : c.alignment), 0u) << c.alignment; }
    free(from_memalign);
    free(from_aligned_alloc);
    free(out);
  }
}

// Page runs of 64 pages and more at an alignment below 64 pages: the default build's search
// never returns from them; the hardened build serves them, aligned. Each shape runs in a child
// stopped by an alarm, so that a hang fails the test instead of stalling it.
TEST(HardenedEdges, FormerlyEndlessAlignedShapes) {
  if (!k_hardened) GTEST_SKIP() << "the default build keeps these shapes as they are (they never return)";
  struct Case {
    size_t alignment;
    size_t size;
  } cases[] = {{8192, 524288}, {8192, 2048000}, {16384, 300000}, {131072, 262144 + 131072}};
  for (const Case& c : cases) {
    EXPECT_EXIT(
        {
          alarm(60);
          unsigned char* p = static_cast<unsigned char*>(memalign(c.alignment, c.size));
          bool ok = p != nullptr && address(p) % c.alignment == 0 && malloc_usable_size(p) >= c.size;
          if (ok) memset(p, 0x21, c.size);
          free(p);
          void* again = memalign(c.alignment, c.size);  // the same shape on a used heap
          ok = ok && again != nullptr && address(again) % c.alignment == 0;
          _exit(ok ? 0 : 1);
        },
        testing::ExitedWithCode(0), "")
        << c.alignment << "/" << c.size;
  }
}

// A limit on the address space that a large request cannot fit in: the default build writes
// the mapping's failure line and ends the process; the hardened build answers null, for a
// block of many regions and for one of a single region.
TEST(HardenedEdges, MappingRefusedByTheKernel) {
  auto limit_address_space = [] {
    struct rlimit limit;
    getrlimit(RLIMIT_AS, &limit);
    FILE* status = fopen("/proc/self/status", "r");
    char line[256];
    unsigned long vm_kb = 0;
    while (status != nullptr && fgets(line, sizeof(line), status) != nullptr) {
      if (sscanf(line, "VmSize: %lu kB", &vm_kb) == 1) break;
    }
    if (status != nullptr) fclose(status);
    limit.rlim_cur = (vm_kb + 256 * 1024) * 1024;  // 256 MB more than the process has
    setrlimit(RLIMIT_AS, &limit);
  };
  if (!k_hardened) {
    EXPECT_DEATH(
        {
          limit_address_space();
          malloc(1ul << 31);
        },
        "Error: os_malloc_mmap_with_flag\\(\\) failed. size=[0-9]+, errno=12");
    return;
  }
  EXPECT_EXIT(
      {
        // The background thread would prepare regions ahead with the mapping that ends the
        // process (the heaps' own regions keep that edge): it stays off in this child.
        bool* enable = static_cast<bool*>(library_symbol::quorla_global("g_bool_memory_enable_thread_background"));
        if (enable == nullptr) _exit(2);
        *enable = false;
        limit_address_space();
        errno = 0;
        void* refused = malloc(1ul << 31);
        bool ok = refused == nullptr && errno == ENOMEM;
        void* small = malloc(1000);  // the heaps go on serving
        void* fits = malloc(100ul << 20);
        ok = ok && small != nullptr && fits != nullptr;
        free(small);
        free(fits);
        // Blocks of one region come from the region cache until it is empty, then from
        // mappings until the limit: the first refusal answers null too.
        static void* regions[1000];
        int taken = 0;
        errno = 0;
        while (taken < 1000 && (regions[taken] = malloc(2097152)) != nullptr) ++taken;
        ok = ok && taken < 1000 && errno == ENOMEM;
        for (int i = 0; i < taken; ++i) free(regions[i]);
        _exit(ok ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

}  // namespace
