// The vector family observed through a recording allocator policy: sizes asked and written
// back, element-wise moves against one realloc, the fill paths and the owning pointers.
#include "foundation/quorla_vector_allocator.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "foundation/quorla_unique_ptr.h"
#include "foundation/quorla_vector.h"
#include "page_heap/quorla_memory_allocator.h"

namespace quorla {
namespace {

std::vector<std::string> g_log;
unsigned long g_round_to = 0;  // when set, malloc raises every size to a multiple of it

// One policy object answers the three calls, each logged with the sizes it saw.
struct Recording_calls {
  void* operator()(unsigned long& size) const {
    if (g_round_to != 0) size = (size + g_round_to - 1) / g_round_to * g_round_to;
    g_log.push_back("malloc " + std::to_string(size));
    return ::malloc(size);
  }
  void* operator()(void* ptr, unsigned long old_size, unsigned long& new_size) const {
    g_log.push_back("realloc " + std::to_string(old_size) + " " + std::to_string(new_size));
    return ::realloc(ptr, new_size);
  }
  void operator()(void* ptr, unsigned long size) const {
    g_log.push_back("free " + std::to_string(size));
    ::free(ptr);
  }
};
using Recording = Memory_allocator<Recording_calls, Recording_calls, Recording_calls>;

// An element that counts its moves.
struct Counted {
  static inline int moves = 0;
  int value = 7;
  Counted() = default;
  Counted(Counted&& other) noexcept : value(other.value) { ++moves; }
  Counted& operator=(Counted&& other) noexcept = default;
  Counted(const Counted& other) = default;
};

class VectorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    g_log.clear();
    g_round_to = 0;
    Counted::moves = 0;
  }
};

TEST_F(VectorTest, CapacityRuleThePolicysRealSizeAndTheMaximum) {
  // Too large a capacity is reported, without abort.
  vector_allocator<long, Recording> numbers;
  testing::internal::CaptureStderr();
  EXPECT_EQ(numbers.get_new_capacity(2147483649u), 0xFFFFFFFFu);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(err.rfind("Error: vector_allocator::get_new_d_uint_capacity reach max size. uint_in=2147483649, "
                      "ulong_return=4294967296, size()=0, capacity()=0, File=quorla_vector_allocator, Line=", 0), 0u)
      << err;
  numbers.reserve(0);
  EXPECT_TRUE(g_log.empty());
  numbers.reserve(1);
  EXPECT_EQ(numbers.capacity(), 4u) << "minimum 4";
  g_round_to = 4096;
  numbers.reserve(5);
  EXPECT_EQ(numbers.capacity(), 512u) << "the policy's 4096 bytes flow back into the capacity";
  vector<long> plain;
  plain.reserve(1);
  EXPECT_EQ(plain.capacity(), 8u) << "minimum 8 for the malloc form";
}

TEST_F(VectorTest, GrowthMovesElementsOneByOneUntilTheTraitAllowsRealloc) {
  const std::string size4 = std::to_string(4 * sizeof(Counted)), size8 = std::to_string(8 * sizeof(Counted));
  vector_allocator<Counted, Recording> items;
  for (int i = 0; i < 5; ++i) items.push_back(Counted());
  EXPECT_EQ(g_log, (std::vector<std::string>{"malloc " + size4, "malloc " + size8, "free " + size4}));
  EXPECT_EQ(Counted::moves, 5 + 4) << "each push, then the four elements into the new array";
  g_log.clear();
  Counted::moves = 0;
  Vector_traits<Counted>::d_bool_use_memmove = true;
  for (int i = 0; i < 4; ++i) items.push_back(Counted());
  Vector_traits<Counted>::d_bool_use_memmove = false;
  EXPECT_EQ(g_log, (std::vector<std::string>{"realloc " + size8 + " " + std::to_string(16 * sizeof(Counted))}));
  EXPECT_EQ(Counted::moves, 4) << "only the pushes: the realloc carries the old elements";
  for (const Counted& item : items) EXPECT_EQ(item.value, 7);
}

TEST_F(VectorTest, ResizeEraseFastShrinkAndAssignment) {
  vector_allocator<Counted, Recording> items;
  items.resize(5);
  items[4].value = 44;
  items.erase_fast(1);
  items.erase_fast(9);  // past the end: nothing, or the capacity below would be 4
  EXPECT_EQ(items[1].value, 44) << "the last element fills the hole";
  items.push_back(Counted());
  items.shrink_to_fit();
  EXPECT_EQ(items.capacity(), 8u) << "5 elements: the rule's 8, not 5";
  items.resize(0);
  EXPECT_EQ(items.capacity(), 8u) << "resize(0) keeps the array";
  items.shrink_to_fit();
  EXPECT_EQ(items.data(), nullptr);
  EXPECT_EQ(g_log.back(), "free " + std::to_string(8 * sizeof(Counted)));
  vector_allocator<Counted, Recording> other, empty;
  other.resize(3);
  other = empty;
  EXPECT_EQ(other.capacity(), 0u) << "assigning an empty vector frees the array";
}

TEST_F(VectorTest, MemsetTraitZeroFillsTheNewTailAndTheProbes) {
  struct Plain { long a = 5; };  // the 5 shows which path filled each element
  vector_allocator<Plain, Recording> slots;
  Vector_traits<Plain>::d_bool_use_memset = true;
  slots.resize(100);
  Vector_traits<Plain>::d_bool_use_memset = false;
  slots.resize(200);
  for (unsigned int i = 0; i < slots.size(); ++i) ASSERT_EQ(slots[i].a, i < 100 ? 0 : 5) << i;

  // The probes that decide such traits: a pointer into the object, an all-zero default.
  struct Self { char buffer[16]; char* cursor = buffer; };
  struct Zero { long value = 0; void* ptr = nullptr; };
  EXPECT_FALSE(is_t_default_no_ptr_to_t<Self>());
  EXPECT_TRUE(is_t_default_no_ptr_to_t<Zero>());
  EXPECT_TRUE(is_default_all_zero(Zero()));
  EXPECT_FALSE(is_default_all_zero(Counted()));
}

struct Pool_for_test {
  static inline int frees = 0;
  static void free(void* ptr) { ++frees; ::free(ptr); }
};

TEST_F(VectorTest, OwningPointersReleaseOnceThroughTheirAllocator) {
  using Owner = unique_ptr_allocator<Counted, Recording>;
  {
    vector_allocator<Owner, Recording> owners;
    unsigned long size = sizeof(Counted);
    for (int i = 0; i < 2; ++i) owners.push_back(Owner(new (Recording().malloc(size)) Counted()));
    owners.erase_fast(0);
  }
  EXPECT_EQ(std::count(g_log.begin(), g_log.end(), "free " + std::to_string(sizeof(Counted))), 2);
  Pool_for_test pool;
  Pool_for_test::frees = 0;
  {
    using Pooled = unique_ptr_include_alloc<Counted, Pool_for_test>;
    Pooled first(new (::malloc(sizeof(Counted))) Counted(), &pool);
    Pooled second(static_cast<Pooled&&>(first));
    EXPECT_EQ(first.ptr_t, nullptr);
  }
  EXPECT_EQ(Pool_for_test::frees, 1);
}

}  // namespace
}  // namespace quorla
