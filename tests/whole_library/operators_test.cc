// The twenty operator forms on the whole library: each is the library's own function (the
// operator's address is its quorla_ library name's), its block answers the allocator's size
// query with the capacity of the class the size falls in, the aligned forms honour their
// alignment, no form throws, and a delete given a wrong size or alignment releases the
// block all the same.
#include <gtest/gtest.h>

#include <cstdint>
#include <new>

#include "quorlamalloc.h"

namespace {

uintptr_t address(const void* ptr) { return reinterpret_cast<uintptr_t>(ptr); }

// The operator's symbol, resolved in this process, against its library name.
TEST(Operators, EveryFormIsTheLibrarysOwn) {
  struct Case {
    const char* name;
    const void* ptr_operator;
    const void* ptr_library;
  } cases[] = {
      {"new", reinterpret_cast<const void*>(static_cast<void* (*)(size_t)>(&::operator new)),
       reinterpret_cast<const void*>(&quorla_new)},
      {"new[]", reinterpret_cast<const void*>(static_cast<void* (*)(size_t)>(&::operator new[])),
       reinterpret_cast<const void*>(&quorla_new_array)},
      {"new nothrow", reinterpret_cast<const void*>(static_cast<void* (*)(size_t, const std::nothrow_t&) noexcept>(&::operator new)),
       reinterpret_cast<const void*>(&quorla_new_nothrow)},
      {"new[] nothrow", reinterpret_cast<const void*>(static_cast<void* (*)(size_t, const std::nothrow_t&) noexcept>(&::operator new[])),
       reinterpret_cast<const void*>(&quorla_new_array_nothrow)},
      {"new align", reinterpret_cast<const void*>(static_cast<void* (*)(size_t, std::align_val_t)>(&::operator new)),
       reinterpret_cast<const void*>(&quorla_new_align)},
      {"new[] align", reinterpret_cast<const void*>(static_cast<void* (*)(size_t, std::align_val_t)>(&::operator new[])),
       reinterpret_cast<const void*>(&quorla_new_array_align)},
      {"new align nothrow",
       reinterpret_cast<const void*>(static_cast<void* (*)(size_t, std::align_val_t, const std::nothrow_t&) noexcept>(&::operator new)),
       reinterpret_cast<const void*>(&quorla_new_align_nothrow)},
      {"new[] align nothrow",
       reinterpret_cast<const void*>(static_cast<void* (*)(size_t, std::align_val_t, const std::nothrow_t&) noexcept>(&::operator new[])),
       reinterpret_cast<const void*>(&quorla_new_array_align_nothrow)},
      {"delete", reinterpret_cast<const void*>(static_cast<void (*)(void*) noexcept>(&::operator delete)),
       reinterpret_cast<const void*>(&quorla_delete)},
      {"delete[]", reinterpret_cast<const void*>(static_cast<void (*)(void*) noexcept>(&::operator delete[])),
       reinterpret_cast<const void*>(&quorla_delete_array)},
      {"delete size", reinterpret_cast<const void*>(static_cast<void (*)(void*, size_t) noexcept>(&::operator delete)),
       reinterpret_cast<const void*>(&quorla_delete_with_size)},
      {"delete[] size", reinterpret_cast<const void*>(static_cast<void (*)(void*, size_t) noexcept>(&::operator delete[])),
       reinterpret_cast<const void*>(&quorla_delete_array_with_size)},
      {"delete nothrow", reinterpret_cast<const void*>(static_cast<void (*)(void*, const std::nothrow_t&) noexcept>(&::operator delete)),
       reinterpret_cast<const void*>(&quorla_delete_nothrow)},
      {"delete[] nothrow", reinterpret_cast<const void*>(static_cast<void (*)(void*, const std::nothrow_t&) noexcept>(&::operator delete[])),
       reinterpret_cast<const void*>(&quorla_delete_array_nothrow)},
      {"delete align", reinterpret_cast<const void*>(static_cast<void (*)(void*, std::align_val_t) noexcept>(&::operator delete)),
       reinterpret_cast<const void*>(&quorla_delete_align)},
      {"delete[] align", reinterpret_cast<const void*>(static_cast<void (*)(void*, std::align_val_t) noexcept>(&::operator delete[])),
       reinterpret_cast<const void*>(&quorla_delete_array_align)},
      {"delete align nothrow",
       reinterpret_cast<const void*>(static_cast<void (*)(void*, std::align_val_t, const std::nothrow_t&) noexcept>(&::operator delete)),
       reinterpret_cast<const void*>(&quorla_delete_align_nothrow)},
      {"delete[] align nothrow",
       reinterpret_cast<const void*>(static_cast<void (*)(void*, std::align_val_t, const std::nothrow_t&) noexcept>(&::operator delete[])),
       reinterpret_cast<const void*>(&quorla_delete_array_align_nothrow)},
      {"delete size align", reinterpret_cast<const void*>(static_cast<void (*)(void*, size_t, std::align_val_t) noexcept>(&::operator delete)),
       reinterpret_cast<const void*>(&quorla_delete_with_size_align)},
      {"delete[] size align",
       reinterpret_cast<const void*>(static_cast<void (*)(void*, size_t, std::align_val_t) noexcept>(&::operator delete[])),
       reinterpret_cast<const void*>(&quorla_delete_array_with_size_align)},
  };
  for (const Case& c : cases) EXPECT_EQ(c.ptr_operator, c.ptr_library) << c.name;
}

// Sizes and capacities from the class table: 1 byte is an 8-byte block, 100 a 112-byte one,
// 3000 bytes three 1024-byte blocks; with 64 and 4096 alignment, 100 bytes take a 128-byte
// block and 3000 a page.
TEST(Operators, NewFormsServeOurBlocks) {
  struct Case {
    const char* name;
    void* ptr;
    size_t alignment;
    size_t capacity;
  } cases[] = {
      {"new(1)", ::operator new(1), 8, 8},
      {"new(100)", ::operator new(100), 16, 112},
      {"new[](100)", ::operator new[](100), 16, 112},
      {"new(3000)", ::operator new(3000), 8, 3072},
      {"new(100, nothrow)", ::operator new(100, std::nothrow), 16, 112},
      {"new[](100, nothrow)", ::operator new[](100, std::nothrow), 16, 112},
      {"new(100, 64)", ::operator new(100, std::align_val_t(64)), 64, 128},
      {"new[](100, 64)", ::operator new[](100, std::align_val_t(64)), 64, 128},
      {"new(3000, 4096, nothrow)", ::operator new(3000, std::align_val_t(4096), std::nothrow), 4096, 4096},
      {"new[](3000, 4096, nothrow)", ::operator new[](3000, std::align_val_t(4096), std::nothrow), 4096, 4096},
  };
  for (const Case& c : cases) {
    ASSERT_NE(c.ptr, nullptr) << c.name;
    EXPECT_EQ(address(c.ptr) % c.alignment, 0u) << c.name;
    EXPECT_EQ(quorla_get_malloc_size(c.ptr), c.capacity) << c.name;
  }
  for (const Case& c : cases) quorla_free(c.ptr);
}

TEST(Operators, NewOfZeroIsABlock) {
  void* ptr = ::operator new(0);
  ASSERT_NE(ptr, nullptr);
  EXPECT_EQ(quorla_get_malloc_size(ptr), 8u);
  ::operator delete(ptr);
}

// A request no allocator can serve: every form answers null, the throwing ones included.
TEST(Operators, NoFormThrows) {
  volatile size_t huge_request = ~0ul - 4096;  // unknown to the compiler, so not diagnosed
  const size_t huge = huge_request;
  void* results[8] = {};
  EXPECT_NO_THROW({
    results[0] = ::operator new(huge);
    results[1] = ::operator new[](huge);
    results[2] = ::operator new(huge, std::nothrow);
    results[3] = ::operator new[](huge, std::nothrow);
    results[4] = ::operator new(huge, std::align_val_t(64));
    results[5] = ::operator new[](huge, std::align_val_t(64));
    results[6] = ::operator new(huge, std::align_val_t(64), std::nothrow);
    results[7] = ::operator new[](huge, std::align_val_t(64), std::nothrow);
  });
  for (void* ptr : results) EXPECT_EQ(ptr, nullptr);
}

// Each delete form, with a size and an alignment that are wrong for the block: the block is
// released, so the next request of its class on this thread takes the same block again.
TEST(Operators, DeleteFormsReleaseWhateverSizeOrAlignmentTheyAreGiven) {
  using Release = void (*)(void*);
  struct Case {
    const char* name;
    Release release;
  } cases[] = {
      {"delete", [](void* p) { ::operator delete(p); }},
      {"delete[]", [](void* p) { ::operator delete[](p); }},
      {"delete size", [](void* p) { ::operator delete(p, 5000); }},
      {"delete[] size", [](void* p) { ::operator delete[](p, 1); }},
      {"delete nothrow", [](void* p) { ::operator delete(p, std::nothrow); }},
      {"delete[] nothrow", [](void* p) { ::operator delete[](p, std::nothrow); }},
      {"delete align", [](void* p) { ::operator delete(p, std::align_val_t(4096)); }},
      {"delete[] align", [](void* p) { ::operator delete[](p, std::align_val_t(8)); }},
      {"delete align nothrow", [](void* p) { ::operator delete(p, std::align_val_t(65536), std::nothrow); }},
      {"delete[] align nothrow", [](void* p) { ::operator delete[](p, std::align_val_t(2), std::nothrow); }},
      {"delete size align", [](void* p) { ::operator delete(p, 0, std::align_val_t(4096)); }},
      {"delete[] size align", [](void* p) { ::operator delete[](p, 1000000, std::align_val_t(16)); }},
  };
  // 200 bytes: a class of its own that nothing else of this test touches.
  for (const Case& c : cases) {
    void* first = ::operator new(200);
    c.release(first);
    void* again = ::operator new(200);
    EXPECT_EQ(again, first) << c.name;
    ::operator delete(again);
  }
}

}  // namespace
