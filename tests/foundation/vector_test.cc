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
#include "os_memory/quorla_memory_allocator.h"

namespace quorla {
namespace {

// The policy raises every size it is asked for to a multiple of round_to and logs each call.
struct Calls {
  std::vector<std::string> log;
  unsigned long round_to = 0;
  void note(const std::string& call, unsigned long& size) {
    if (round_to != 0) size = (size + round_to - 1) / round_to * round_to;
    log.push_back(call + std::to_string(size));
  }
} g_calls;

struct Malloc_recording {
  void* operator()(unsigned long& size) const {
    g_calls.note("malloc ", size);
    return ::malloc(size);
  }
};
struct Realloc_recording {
  void* operator()(void* ptr, unsigned long old_size, unsigned long& new_size) const {
    g_calls.note("realloc " + std::to_string(old_size) + " ", new_size);
    return ::realloc(ptr, new_size);
  }
};
struct Free_recording {
  void operator()(void* ptr, unsigned long size) const {
    g_calls.log.push_back("free " + std::to_string(size));
    ::free(ptr);
  }
};
using Recording = Memory_allocator<Malloc_recording, Realloc_recording, Free_recording>;

struct Counted {
  static int destructions;
  int value = 7;
  ~Counted() { ++destructions; }
};
int Counted::destructions = 0;
std::string counted_bytes(unsigned long count) { return std::to_string(count * sizeof(Counted)); }

class VectorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    g_calls = Calls();
    Counted::destructions = 0;
  }
};

TEST_F(VectorTest, CapacityRuleThePolicysRealSizeAndTheLimit) {
  vector_allocator<long, Recording> numbers;
  numbers.reserve(0);
  EXPECT_EQ(numbers.capacity(), 0u);
  EXPECT_TRUE(g_calls.log.empty());
  numbers.reserve(1);
  EXPECT_EQ(numbers.capacity(), 4u) << "minimum 4";
  g_calls.round_to = 4096;
  numbers.reserve(5);
  EXPECT_EQ(numbers.capacity(), 512u) << "the policy's 4096 bytes flow back into the capacity";
  vector<long> plain;
  plain.reserve(1);
  EXPECT_EQ(plain.capacity(), 8u) << "minimum 8 for the malloc form";

  // Too large a capacity is reported, without an abort.
  vector_allocator<char, Recording> bytes;
  testing::internal::CaptureStderr();
  EXPECT_EQ(bytes.get_new_capacity(2147483649u), 0xFFFFFFFFu);
  std::string err = testing::internal::GetCapturedStderr();
  const char* line = "Error: vector_allocator::get_new_d_uint_capacity reach max size. uint_in=2147483649, "
                     "ulong_return=4294967296, size()=0, capacity()=0, File=quorla_vector_allocator, Line=";
  EXPECT_EQ(err.rfind(line, 0), 0u) << err;
}

TEST_F(VectorTest, GrowthMovesElementsOneByOneUntilTheTraitAllowsRealloc) {
  vector_allocator<Counted, Recording> items;
  for (int i = 0; i < 5; ++i) items.push_back(Counted());
  EXPECT_EQ(items.capacity(), 8u);
  EXPECT_EQ(g_calls.log, (std::vector<std::string>{"malloc " + counted_bytes(4), "malloc " + counted_bytes(8),
                                                   "free " + counted_bytes(4)}));
  g_calls.log.clear();
  Vector_traits<Counted>::d_bool_use_memmove = true;
  for (int i = 0; i < 4; ++i) items.push_back(Counted());
  Vector_traits<Counted>::d_bool_use_memmove = false;
  EXPECT_EQ(g_calls.log, (std::vector<std::string>{"realloc " + counted_bytes(8) + " " + counted_bytes(16)}));
  for (const Counted& item : items) EXPECT_EQ(item.value, 7);
}

TEST_F(VectorTest, ResizeEraseFastShrinkAndAssignment) {
  vector_allocator<Counted, Recording> items;
  items.resize(5);
  items.resize(5);
  EXPECT_EQ(Counted::destructions, 0) << "resize to the size touches nothing";
  items[4].value = 44;
  items.erase_fast(1);
  EXPECT_EQ(items.size(), 4u);
  EXPECT_EQ(items[1].value, 44) << "the last element fills the hole";
  items.erase_fast(9);
  EXPECT_EQ(items.size(), 4u);
  items.push_back(Counted());
  items.shrink_to_fit();
  EXPECT_EQ(items.capacity(), 8u) << "5 elements: the rule's 8, not 5";
  items.resize(0);
  EXPECT_EQ(items.capacity(), 8u) << "resize(0) keeps the array";
  items.shrink_to_fit();
  EXPECT_EQ(items.data(), nullptr);
  items.resize(3);
  items = vector_allocator<Counted, Recording>();
  EXPECT_EQ(items.capacity(), 0u) << "assigning an empty vector frees the array";
}

TEST_F(VectorTest, MemsetTraitZeroFillsAReusedTailAndProbes) {
  struct Plain { long a = 0; long b = 0; };
  vector_allocator<Plain, Recording> slots;
  slots.resize(100);
  for (Plain& slot : slots) slot.a = slot.b = -1;
  slots.resize(0);  // the array stays, its bytes dirty
  Vector_traits<Plain>::d_bool_use_memset = true;
  slots.resize(100);
  Vector_traits<Plain>::d_bool_use_memset = false;
  for (const Plain& slot : slots) ASSERT_TRUE(slot.a == 0 && slot.b == 0);

  // The probes that decide the traits: a pointer into the object, and all-zero defaults.
  struct Self { char buffer[16]; char* cursor = buffer; };
  struct Zero { long value = 0; void* ptr = nullptr; };
  struct NotZero { int value = 3; };
  EXPECT_FALSE(is_t_default_no_ptr_to_t<Self>());
  EXPECT_TRUE(is_t_default_no_ptr_to_t<Zero>());
  EXPECT_TRUE(is_default_all_zero(Zero()));
  EXPECT_FALSE(is_default_all_zero(NotZero()));
}

struct Pool_for_test {
  static int frees;
  static void free(void* ptr) { ++frees; ::free(ptr); }
};
int Pool_for_test::frees = 0;

TEST_F(VectorTest, OwningPointersReleaseOnceThroughTheirAllocator) {
  {
    using Owner = unique_ptr_allocator<Counted, Recording>;
    vector_allocator<Owner, Recording> owners;
    unsigned long size = sizeof(Counted);
    for (int i = 0; i < 2; ++i) owners.push_back(Owner(new (Recording().malloc(size)) Counted()));
    owners.erase_fast(0);
    EXPECT_EQ(owners.size(), 1u);
  }
  EXPECT_EQ(std::count(g_calls.log.begin(), g_calls.log.end(), "free " + counted_bytes(1)), 2);
  Pool_for_test pool;
  Pool_for_test::frees = 0;
  {
    using Owner = unique_ptr_include_alloc<Counted, Pool_for_test>;
    Owner first(new (::malloc(sizeof(Counted))) Counted(), &pool);
    Owner second(static_cast<Owner&&>(first));
    EXPECT_EQ(first.ptr_t, nullptr);
    EXPECT_EQ(second.ptr_pool, &pool);
  }
  EXPECT_EQ(Pool_for_test::frees, 1);
}

}  // namespace
}  // namespace quorla
