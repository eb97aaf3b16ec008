// The exported names beyond malloc and free, on the whole library: the hook words hold
// working forwarders, cfree and glibc's internal names are the allocator's own functions,
// and malloc_version writes its two notice lines.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "quorlamalloc.h"

extern "C" {
// Not declared by current C library headers: the old hook interface and internal names.
extern void* (*__malloc_hook)(size_t, const void*);
extern void (*__free_hook)(void*, const void*);
extern void* (*__realloc_hook)(void*, size_t, const void*);
extern void* (*__memalign_hook)(size_t, size_t, const void*);
void cfree(void* ptr);
void malloc_version();
void* __libc_malloc(size_t size);
void __libc_free(void* ptr);
void* __libc_realloc(void* ptr, size_t size);
void* __libc_calloc(size_t nmemb, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void* __libc_valloc(size_t size);
void* __libc_pvalloc(size_t size);
}

namespace {

uintptr_t address(const void* ptr) { return reinterpret_cast<uintptr_t>(ptr); }

TEST(Surface, HookWordsHoldTheForwardersFromLoadTime) {
  EXPECT_EQ(reinterpret_cast<void*>(__malloc_hook), reinterpret_cast<void*>(&quorla_malloc_with_caller));
  EXPECT_EQ(reinterpret_cast<void*>(__free_hook), reinterpret_cast<void*>(&quorla_free_with_caller));
  EXPECT_EQ(reinterpret_cast<void*>(__realloc_hook), reinterpret_cast<void*>(&quorla_realloc_with_caller));
  EXPECT_EQ(reinterpret_cast<void*>(__memalign_hook), reinterpret_cast<void*>(&quorla_memalign_with_caller));
}

TEST(Surface, CallsThroughTheHookWordsAreServedByTheAllocator) {
  void* block = __malloc_hook(100, nullptr);
  EXPECT_EQ(quorla_get_malloc_size(block), 112u);
  block = __realloc_hook(block, 1000, nullptr);
  EXPECT_EQ(quorla_get_malloc_size(block), 1024u);
  __free_hook(block, nullptr);
  void* aligned = __memalign_hook(4096, 3000, nullptr);
  EXPECT_EQ(address(aligned) % 4096, 0u);
  EXPECT_EQ(quorla_get_malloc_size(aligned), 4096u);
  __free_hook(aligned, nullptr);
}

// A store into a hook word is read by nothing: malloc goes on as before.
TEST(Surface, StoringIntoAHookWordChangesNothing) {
  auto saved = __malloc_hook;
  __malloc_hook = [](size_t, const void*) -> void* { return nullptr; };
  void* block = malloc(100);
  __malloc_hook = saved;
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(quorla_get_malloc_size(block), 112u);
  free(block);
}

// Each name is the allocator's: its block has the capacity of the allocator's classes, and
// a release through it frees the block so that the class hands it out again.
TEST(Surface, CfreeAndLibcNamesAreTheAllocators) {
  void* block = __libc_malloc(200);
  EXPECT_EQ(quorla_get_malloc_size(block), 208u);
  cfree(block);
  void* again = malloc(200);
  EXPECT_EQ(again, block) << "cfree released the block";
  __libc_free(again);
  EXPECT_EQ(malloc(200), block) << "__libc_free released the block";
  free(block);

  void* zeroed = __libc_calloc(10, 10);
  EXPECT_EQ(quorla_get_malloc_size(zeroed), 112u);
  void* grown = __libc_realloc(zeroed, 3000);
  EXPECT_EQ(quorla_get_malloc_size(grown), 3072u);
  free(grown);
  void* aligned = __libc_memalign(64, 100);
  EXPECT_EQ(address(aligned) % 64, 0u);
  EXPECT_EQ(quorla_get_malloc_size(aligned), 128u);
  free(aligned);
  void* page = __libc_valloc(100);
  void* pages = __libc_pvalloc(10000);
  EXPECT_EQ(address(page) % 4096, 0u);
  EXPECT_EQ(quorla_get_malloc_size(page), 4096u);
  EXPECT_EQ(quorla_get_malloc_size(pages), 12288u);
  free(page);
  free(pages);
}

TEST(Surface, MallocVersionWritesItsNoticeLines) {
  testing::internal::CaptureStdout();
  malloc_version();
  fflush(stdout);
  const std::string text = testing::internal::GetCapturedStdout();
  EXPECT_EQ(text.rfind("\r\nNotice: Libquorlamalloc Version 1.07", 0), 0u) << text;
  EXPECT_NE(text.find("Publish Date: 2021.03.09"), std::string::npos) << text;
  const std::string tail = "\r\nNotice: Basic version. max_support_numa_node=8, max_support_cpu=136\r\n";
  ASSERT_GE(text.size(), tail.size());
  EXPECT_EQ(text.substr(text.size() - tail.size()), tail) << text;
}

}  // namespace
