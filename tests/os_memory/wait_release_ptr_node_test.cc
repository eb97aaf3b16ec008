// The wait-release cache: the lock-free slot walks under contention (every region ends in
// exactly one place), the walks' rules when a count lags or runs ahead of the slots, the
// demand side (hits huge first, a miss sets the target from all mapped memory), the
// background thread's decisions driven by a test clock (prepare, keep, surplus release,
// forced idle release down to 0, trim), and bad input (unknown page type, full arrays and
// full vectors) with the mapped bytes back where they started.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <random>
#include <set>
#include <thread>
#include <tuple>
#include <vector>

#include "foundation/quorla_mutex.h"
#include "os_memory/quorla_os_mmap.h"
#include "os_memory/quorla_region.h"
#include "os_memory/quorla_region_tag.h"
#include "os_memory/quorla_wait_release_ptr_node.h"
#include "os_memory/quorla_wait_release_ptr_part_numa_node.h"
#include "startup/quorla_memory_settings.h"

namespace quorla {
namespace {

using Node = Struct_Memory_wait_release_ptr_node;

// Fake region addresses for the walks alone (never mapped, never unmapped): 2 MB aligned, distinct.
unsigned long fake_region(unsigned int owner, unsigned int i) { return (static_cast<unsigned long>(owner + 1) << 40) | (static_cast<unsigned long>(i + 1) << 21); }

unsigned int filled_slots(const Wait_release_slot_array& slots) {
  unsigned int n = 0;
  for (const auto& slot : slots) n += slot.load() != 0;
  return n;
}

// Several threads save and take on one array at once, each keeping what it holds in its own
// hand. More regions than slots, so saves also meet a full array. Afterwards every region is
// in exactly one hand or one slot, and the count agrees with the filled slots.
TEST(WaitReleaseWalks, ContendedSavesAndTakesLoseAndDoubleNothing) {
  constexpr unsigned int k_threads = 4, k_per_thread = 1200, k_rounds = 20000;
  auto slots = std::make_unique<Wait_release_slot_array>();
  for (auto& slot : *slots) slot.store(0);
  std::atomic<unsigned int> count{0};
  std::vector<std::vector<unsigned long>> hands(k_threads);
  std::vector<unsigned long> failed_saves(k_threads, 0);
  std::atomic<unsigned int> ready{0};
  std::vector<std::thread> threads;
  for (unsigned int t = 0; t < k_threads; ++t) {
    threads.emplace_back([&, t] {
      std::vector<unsigned long>& hand = hands[t];
      for (unsigned int i = 0; i < k_per_thread; ++i) hand.push_back(fake_region(t, i));
      std::mt19937 random(t * 7919 + 1);
      ready.fetch_add(1);
      while (ready.load() < k_threads) {
      }
      for (unsigned int round = 0; round < k_rounds; ++round) {
        // Save-heavy at first so that the array fills up, balanced afterwards.
        const bool save = !hand.empty() && (random() % 8) < (round < k_rounds / 4 ? 6u : 4u);
        if (save) {
          const unsigned int pick = random() % hand.size();
          if (Node::save_to_ar_atomic(reinterpret_cast<unsigned char*>(hand[pick]), count, *slots)) {
            hand[pick] = hand.back();
            hand.pop_back();
          } else {
            ++failed_saves[t];
          }
        } else if (unsigned long region = Node::malloc_from_ar_atomic(count, *slots)) {
          hand.push_back(region);
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();

  std::multiset<unsigned long> seen;
  for (const auto& hand : hands) seen.insert(hand.begin(), hand.end());
  for (const auto& slot : *slots) {
    if (slot.load() != 0) seen.insert(slot.load());
  }
  ASSERT_EQ(seen.size(), static_cast<size_t>(k_threads * k_per_thread)) << "a region was lost or doubled";
  for (unsigned int t = 0; t < k_threads; ++t) {
    for (unsigned int i = 0; i < k_per_thread; ++i) ASSERT_EQ(seen.count(fake_region(t, i)), 1u) << t << " " << i;
  }
  EXPECT_EQ(count.load(), filled_slots(*slots)) << "once quiet, the count matches the slots";
  unsigned long failed = 0;
  for (unsigned long f : failed_saves) failed += f;
  EXPECT_GT(failed, 0u) << "the array was full at times: the workload did not test that path";
}

// The walks' rules on one thread, where the count says something other than the slots.
TEST(WaitReleaseWalks, CountsThatLagOrRunAheadOfTheSlots) {
  auto slots = std::make_unique<Wait_release_slot_array>();
  auto reset = [&] {
    for (auto& slot : *slots) slot.store(0);
  };
  std::atomic<unsigned int> count{0};
  auto* region = reinterpret_cast<unsigned char*>(fake_region(9, 9));

  // A full count: false, and no slot is touched.
  reset();
  count = 4096;
  EXPECT_FALSE(Node::save_to_ar_atomic(region, count, *slots));
  EXPECT_EQ(filled_slots(*slots), 0u);
  EXPECT_EQ(count.load(), 4096u);
  count = 0xFFFFFFFFu;  // a count that wrapped below 0 for a moment
  EXPECT_FALSE(Node::save_to_ar_atomic(region, count, *slots));
  EXPECT_EQ(filled_slots(*slots), 0u);

  // A count whose own slot is taken: the next free slot above it.
  reset();
  count = 2;
  (*slots)[2] = 1ul << 21;
  ASSERT_TRUE(Node::save_to_ar_atomic(region, count, *slots));
  EXPECT_EQ((*slots)[3].load(), reinterpret_cast<unsigned long>(region));
  EXPECT_EQ(count.load(), 3u);

  // Everything from the count up is taken: the walk goes on below the count.
  reset();
  for (unsigned int i = 5; i < 4096; ++i) (*slots)[i] = static_cast<unsigned long>(i) << 21;
  (*slots)[0] = 1ul << 21;
  count = 5;
  ASSERT_TRUE(Node::save_to_ar_atomic(region, count, *slots));
  EXPECT_EQ((*slots)[1].load(), reinterpret_cast<unsigned long>(region));
  EXPECT_EQ(count.load(), 6u);

  // A count above 0 over empty slots: 0 after at most one walk, the count left alone.
  reset();
  count = 3;
  EXPECT_EQ(Node::malloc_from_ar_atomic(count, *slots), 0u);
  EXPECT_EQ(count.load(), 3u);
  // A count of 0 is believed even where a slot is full.
  (*slots)[7] = reinterpret_cast<unsigned long>(region);
  count = 0;
  EXPECT_EQ(Node::malloc_from_ar_atomic(count, *slots), 0u);
  // A lagging count of 1 whose region stands far above it: found by the walk.
  count = 1;
  EXPECT_EQ(Node::malloc_from_ar_atomic(count, *slots), reinterpret_cast<unsigned long>(region));
  EXPECT_EQ(count.load(), 0u);
  EXPECT_EQ(filled_slots(*slots), 0u);
  // A count that ran past the array: the last slot stands for the count's own.
  (*slots)[4095] = reinterpret_cast<unsigned long>(region);
  count = 0xFFFFFFFFu;
  EXPECT_EQ(Node::malloc_from_ar_atomic(count, *slots), reinterpret_cast<unsigned long>(region));
}

// The clock of the cache's decisions, moved by hand.
std::atomic<unsigned long long> g_test_nanosecond{1000000000000ull};
unsigned long long test_clock() { return g_test_nanosecond.load(); }
unsigned long long test_microsecond() { return g_test_nanosecond.load() / 1000; }
void advance_microsecond(unsigned long long us) { g_test_nanosecond += us * 1000; }

size_t mapped_bytes() {
  g_mutex_mmap.lock();
  size_t bytes = g_locking_sizet_os_malloc_all_size;
  g_mutex_mmap.unlock();
  return bytes;
}

// A real, ordinary region, tagged as an emptied piece would leave it.
unsigned char* tagged_region(unsigned char page_type = k_uchar_page_type_normal, unsigned short node = 0) {
  auto* region = static_cast<unsigned char*>(os_malloc_mmap_page_2m_align(0));
  Region_tag* tag = region_tag_of(region);
  tag->uchar_page_type = page_type;
  tag->ushort_numa_node = node;
  tag->uint_top_bit = 3;
  tag->ulong_millisecond_release = 0;
  return region;
}

void unmap_test_region(unsigned char* region) {
  g_mutex_mmap.lock();
  os_free_unmap_without_lock(region, k_region_byte);
  g_mutex_mmap.unlock();
}

// The settings the decisions read, pinned to known values for each test and put back after.
class WaitReleaseNodeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    saved_ = std::make_tuple(g_uint_memory_wait_microseconds_between_release_2m, g_uint_microseconds_memory_thread_background_force_release_one_2m,
                             g_uint_memory_thread_background_need_prepare_2m_count_limt, g_uint_memory_thread_background_div_number_calc_prepare_2m,
                             g_bool_memory_use_hugepage2m, g_bool_memory_enable_thread_background_page_prefault,
                             g_uint_microseconds_memory_thread_background_sleep_run);
    g_uint_memory_wait_microseconds_between_release_2m = k_interval;
    g_uint_microseconds_memory_thread_background_force_release_one_2m = k_force;
    g_uint_memory_thread_background_need_prepare_2m_count_limt = 8;
    g_uint_memory_thread_background_div_number_calc_prepare_2m = 8;
    g_bool_memory_use_hugepage2m = false;  // every prepared region is ordinary and lands in one array
    g_bool_memory_enable_thread_background_page_prefault = false;
    previous_clock_ = set_wait_release_clock_for_test(&test_clock);
    mapped_before_ = mapped_bytes();
    node_ = std::make_unique<Node>(0);
  }
  void TearDown() override {
    node_.reset();  // gives back whatever the node still holds
    EXPECT_EQ(mapped_bytes(), mapped_before_) << "every region the test mapped is unmapped again";
    set_wait_release_clock_for_test(previous_clock_);
    std::tie(g_uint_memory_wait_microseconds_between_release_2m, g_uint_microseconds_memory_thread_background_force_release_one_2m,
             g_uint_memory_thread_background_need_prepare_2m_count_limt, g_uint_memory_thread_background_div_number_calc_prepare_2m,
             g_bool_memory_use_hugepage2m, g_bool_memory_enable_thread_background_page_prefault,
             g_uint_microseconds_memory_thread_background_sleep_run) = saved_;
  }
  unsigned int ready() const { return node_->atomic_page.load() + node_->atomic_hugepage2m.load(); }
  size_t regions_mapped_by_test() const { return (mapped_bytes() - mapped_before_) >> 21; }

  static constexpr unsigned int k_interval = 4000, k_force = 500000;
  std::tuple<unsigned int, unsigned int, unsigned int, unsigned int, bool, bool, unsigned int> saved_;
  Wait_release_clock_function previous_clock_ = nullptr;
  size_t mapped_before_ = 0;
  std::unique_ptr<Node> node_;
};

// A miss tries both arrays twice and sets the target from all mapped memory; it is assigned,
// so it may fall, and a limit not above the target leaves it alone. Every call postpones the
// next release by five intervals.
TEST_F(WaitReleaseNodeTest, MissSetsTheTargetFromMappedMemory) {
  struct Case {
    unsigned long mapped_regions;
    unsigned int div, limit, target_before, target_after;
  };
  const Case cases[] = {
      {0, 8, 8, 1, 1},         // nothing mapped: q is 0, the target is 1
      {80, 8, 8, 1, 8},        // 10 wanted, capped by the limit
      {80, 0, 100, 1, 10},     // a divisor of 0 counts as 8
      {24, 8, 8, 5, 3},        // assigned, not raised: it may fall
      {800, 8, 5, 5, 5},       // a limit not above the target leaves it alone
      {800, 2, 8, 7, 8},       // 400 wanted, capped at 8
      {40000, 2, 100000, 1, 4096},  // an oversized limit: never above one array's slots
  };
  g_mutex_mmap.lock();
  const size_t real_mapped = g_locking_sizet_os_malloc_all_size;
  for (const Case& c : cases) {
    g_locking_sizet_os_malloc_all_size = c.mapped_regions << 21;
    g_uint_memory_thread_background_div_number_calc_prepare_2m = c.div;
    g_uint_memory_thread_background_need_prepare_2m_count_limt = c.limit;
    node_->uint_need_prepare_2m_count = c.target_before;
    node_->ulong_microseconds_next_release = 0;
    EXPECT_EQ(node_->malloc(), nullptr);
    EXPECT_EQ(node_->uint_need_prepare_2m_count, c.target_after) << c.mapped_regions << " regions, div " << c.div << ", limit " << c.limit;
    EXPECT_EQ(node_->ulong_microseconds_next_release, test_microsecond() + 5 * k_interval);
  }
  g_locking_sizet_os_malloc_all_size = real_mapped;
  g_mutex_mmap.unlock();
}

// Hits: huge regions before ordinary ones; free sorts by the tag's page type and refuses
// any other type without touching a slot.
TEST_F(WaitReleaseNodeTest, FreeSortsByPageTypeAndMallocPrefersHugeRegions) {
  unsigned char* ordinary = tagged_region(k_uchar_page_type_normal);
  unsigned char* huge = tagged_region(k_uchar_page_type_hugepage2m);  // ordinary pages, tagged huge
  unsigned char* unknown = tagged_region(2);
  EXPECT_TRUE(node_->free(ordinary));
  EXPECT_TRUE(node_->free(huge));
  EXPECT_FALSE(node_->free(unknown));
  EXPECT_EQ(filled_slots(node_->ar_atomic_page), 1u);
  EXPECT_EQ(filled_slots(node_->ar_atomic_hugepage2m), 1u);
  EXPECT_EQ(node_->get_block_count_all(), 2u);
  EXPECT_EQ(node_->get_byte_page(), 2097152u);
  EXPECT_EQ(node_->get_byte_hugepage2m(), 2097152u);
  EXPECT_EQ(node_->malloc(), huge);
  EXPECT_EQ(node_->malloc(), ordinary);
  EXPECT_EQ(node_->malloc(), nullptr);
  for (unsigned char* region : {ordinary, huge, unknown}) unmap_test_region(region);
}

// Too few ready: prepare up to the target. Enough: keep until the release moment. Idle and
// forced: stock and target fall by one per forced interval down to 0, then nothing more.
TEST_F(WaitReleaseNodeTest, PreparesThenAnIdleNodeShedsOnePerIntervalDownToZero) {
  node_->uint_need_prepare_2m_count = 3;
  g_uint_microseconds_memory_thread_background_sleep_run = 1050;
  node_->background_thread_run();
  EXPECT_EQ(ready(), 3u);
  EXPECT_EQ(regions_mapped_by_test(), 3u);
  EXPECT_EQ(g_uint_microseconds_memory_thread_background_sleep_run, 550u) << "a short round halves the sleep towards 50";
  EXPECT_EQ(node_->ulong_microseconds_next_release, test_microsecond() + 5 * k_interval);
  for (unsigned int i = 0; i < 3; ++i) {
    const auto* tag = region_tag_of(reinterpret_cast<unsigned char*>(node_->ar_atomic_page[i].load()));
    EXPECT_EQ(tag->uint_top_bit, 0u) << "a fresh region says no page was ever handed out";
  }

  // Not yet past the release moment, then past it but within the forced wait: keep.
  // Each step ends exactly on a boundary, which is not above it.
  for (unsigned long long step : {1ull, 5ull * k_interval - 1, static_cast<unsigned long long>(k_force)}) {
    advance_microsecond(step);
    node_->background_thread_run();
    EXPECT_EQ(ready(), 3u);
    EXPECT_EQ(node_->uint_need_prepare_2m_count, 3u);
    EXPECT_EQ(g_uint_microseconds_memory_thread_background_sleep_run, g_uint_microseconds_memory_thread_background_sleep_default);
  }

  for (unsigned int expected = 2; expected != ~0u; --expected) {
    advance_microsecond(1);
    node_->background_thread_run();
    EXPECT_EQ(ready(), expected);
    EXPECT_EQ(node_->uint_need_prepare_2m_count, expected);
    EXPECT_EQ(regions_mapped_by_test(), expected) << "the released region went back to the kernel";
    EXPECT_EQ(node_->ulong_microseconds_next_release, test_microsecond() + k_interval);
    // One interval later, the forced wait is not over: nothing goes.
    advance_microsecond(k_interval + k_force);
    node_->background_thread_run();
    EXPECT_EQ(ready(), expected);
  }
  // Target and stock at 0: nothing more happens, however long the node stays idle.
  const unsigned long next_release = node_->ulong_microseconds_next_release;
  advance_microsecond(100ull * k_force);
  node_->background_thread_run();
  EXPECT_EQ(node_->uint_need_prepare_2m_count, 0u);
  EXPECT_EQ(ready(), 0u);
  EXPECT_EQ(node_->ulong_microseconds_next_release, next_release);
}

// A surplus of one is tolerated; two drain one region per interval while the target stays.
// With no forced release an idle node keeps its stock forever.
TEST_F(WaitReleaseNodeTest, SurplusOfOneIsKeptLargerSurplusDrainsAndZeroForceKeepsForever) {
  node_->uint_need_prepare_2m_count = 3;
  std::vector<unsigned char*> regions;
  for (unsigned int i = 0; i < 5; ++i) regions.push_back(tagged_region());
  for (unsigned int i = 0; i < 4; ++i) ASSERT_TRUE(node_->free(regions[i]));
  node_->ulong_microseconds_next_release = test_microsecond();  // past it, but within the forced wait
  advance_microsecond(1);
  node_->background_thread_run();
  EXPECT_EQ(ready(), 4u) << "target 3 with 4 ready: kept";
  ASSERT_TRUE(node_->free(regions[4]));
  node_->background_thread_run();
  EXPECT_EQ(ready(), 4u) << "target 3 with 5 ready: one released";
  EXPECT_EQ(node_->uint_need_prepare_2m_count, 3u);
  EXPECT_EQ(regions_mapped_by_test(), 4u);
  EXPECT_EQ(node_->ulong_microseconds_next_release, test_microsecond() + k_interval);

  g_uint_microseconds_memory_thread_background_force_release_one_2m = 0;
  for (unsigned int i = 0; i < 5; ++i) {
    advance_microsecond(1000ull * k_force);
    node_->background_thread_run();
  }
  EXPECT_EQ(ready(), 4u);
  EXPECT_EQ(node_->uint_need_prepare_2m_count, 3u);
  // The rest goes back with the node (TearDown checks the mapped bytes).
}

// trim only raises the flag; the next round empties arrays and vectors, leaves the target,
// and the round after prepares again.
TEST_F(WaitReleaseNodeTest, TrimEmptiesTheNodeAndKeepsTheTarget) {
  node_->uint_need_prepare_2m_count = 2;
  for (unsigned int i = 0; i < 3; ++i) ASSERT_TRUE(node_->free(tagged_region()));
  ASSERT_TRUE(node_->free(tagged_region(k_uchar_page_type_hugepage2m)));
  node_->push_page(tagged_region());
  node_->push_hugepage2m(tagged_region(k_uchar_page_type_hugepage2m));
  EXPECT_EQ(regions_mapped_by_test(), 6u);
  EXPECT_EQ(node_->get_all_byte(), 6ul << 21);
  g_mutex_mmap.lock();
  const unsigned int huge_count = g_locking_uint_os_malloc_hugepage2m_count;
  g_locking_uint_os_malloc_hugepage2m_count += 2;  // the two regions tagged huge stand in for huge pages
  g_mutex_mmap.unlock();

  node_->trim();
  EXPECT_TRUE(node_->bool_need_trim);
  EXPECT_EQ(regions_mapped_by_test(), 6u) << "trim only sets the flag";
  node_->background_thread_run();
  EXPECT_FALSE(node_->bool_need_trim);
  EXPECT_EQ(regions_mapped_by_test(), 0u);
  EXPECT_EQ(node_->get_block_count_all(), 0u);
  EXPECT_EQ(filled_slots(node_->ar_atomic_page) + filled_slots(node_->ar_atomic_hugepage2m), 0u);
  EXPECT_EQ(g_locking_uint_os_malloc_hugepage2m_count, huge_count) << "each huge store lowers the count by one";
  EXPECT_EQ(node_->uint_need_prepare_2m_count, 2u);
  EXPECT_EQ(node_->ulong_microseconds_next_release, test_microsecond() + k_interval);
  node_->background_thread_run();
  EXPECT_EQ(ready(), 2u) << "the next round prepares the target again";
}

// Regions waiting in the vectors go back to the arrays up to a stock of 32; the release order
// empties the ordinary vector first.
TEST_F(WaitReleaseNodeTest, VectorsRefillTheArraysUpToThirtyTwoAndReleaseTakesTheVectorFirst) {
  std::vector<unsigned char*> regions;
  for (unsigned int i = 0; i < 40; ++i) {
    regions.push_back(tagged_region());
    node_->push_page(regions.back());
  }
  node_->uint_need_prepare_2m_count = 32;  // no preparing, no surplus, no release yet
  node_->ulong_microseconds_next_release = test_microsecond();
  node_->background_thread_run();
  EXPECT_EQ(node_->atomic_page.load(), 32u);
  EXPECT_EQ(node_->vt_page.size(), 8u);
  EXPECT_EQ(regions_mapped_by_test(), 40u);
  unsigned char* vector_last = node_->vt_page[7];
  EXPECT_TRUE(node_->release_one_wait_release_ptr());
  EXPECT_EQ(node_->vt_page.size(), 7u);
  for (unsigned int i = 0; i < 7; ++i) EXPECT_NE(node_->vt_page[i], vector_last);
  for (const auto& slot : node_->ar_atomic_page) EXPECT_NE(slot.load(), reinterpret_cast<unsigned long>(vector_last));
  EXPECT_EQ(regions_mapped_by_test(), 39u);
}

// Bad input through the whole object: a region of an unknown page type is refused by its node
// and vanishes from the queue without a crash (it stays mapped: the test unmaps it). With the
// node's array full a region goes through the queue into the vectors; with the vectors full
// it is unmapped at once. Nothing of the test stays mapped.
TEST(WaitReleasePart, UnknownTypesVanishFullArraysFallBackToVectorsThenToUnmapping) {
  const size_t before = mapped_bytes();
  {
    auto cache = std::make_unique<Memory_wait_release_ptr_part_numa_node>();
    Node& node = cache->ptr_ar_node[0];
    EXPECT_EQ(node.uint_need_prepare_2m_count, 1u);

    unsigned char* unknown = tagged_region(2);
    EXPECT_FALSE(node.free(unknown));
    cache->push_wait_free_queue(unknown);
    EXPECT_EQ(cache->uint_wait_free_queue_count, 1u);
    cache->store_wait_free_queue_to_node();
    EXPECT_EQ(node.get_block_count_all(), 0u) << "dropped";
    EXPECT_EQ(cache->queue_wait_release.get_wait_release(), 0u) << "and gone from the queue";
    unmap_test_region(unknown);

    // A full ordinary array (fake entries, removed again before the node goes).
    for (unsigned int i = 0; i < 4096; ++i) node.ar_atomic_page[i] = fake_region(3, i);
    node.atomic_page = 4096;
    unsigned char* spilled = tagged_region();
    EXPECT_FALSE(node.free(spilled));
    cache->push_wait_free_queue(spilled);
    node.ulong_microseconds_next_release = ~0ul >> 1;  // the node's round keeps what it has
    cache->background_thread_run();                    // drains the queue, then the node's round
    EXPECT_EQ(cache->uint_wait_free_queue_count, 0u);
    ASSERT_EQ(node.vt_page.size(), 1u);
    EXPECT_EQ(node.vt_page[0], spilled);
    for (auto& slot : node.ar_atomic_page) slot = 0;
    node.atomic_page = 0;
    EXPECT_EQ(cache->get_block_count_all(), 1u);
    EXPECT_EQ(cache->get_byte_page(), 2097152u);
    EXPECT_EQ(cache->get_all_byte(), 2097152u);

    // Vectors full: the ordinary limit tests both vectors together, the huge one its own.
    node.vt_hugepage2m.reserve(8192);  // its storage is mapped too: no growth below
    const size_t mapped_with_spilled = mapped_bytes();
    for (unsigned int i = 0; i < 4096; ++i) node.vt_hugepage2m.push_back(reinterpret_cast<unsigned char*>(fake_region(4, i)));
    node.push_page(tagged_region());
    EXPECT_EQ(node.vt_page.size(), 1u) << "4097 waiting: unmapped at once";
    EXPECT_EQ(mapped_bytes(), mapped_with_spilled);
    node.vt_hugepage2m.push_back(reinterpret_cast<unsigned char*>(fake_region(4, 4096)));
    g_mutex_mmap.lock();
    const unsigned int huge_count = g_locking_uint_os_malloc_hugepage2m_count;
    g_mutex_mmap.unlock();
    node.push_hugepage2m(tagged_region(k_uchar_page_type_hugepage2m));
    EXPECT_EQ(node.vt_hugepage2m.size(), 4097u);
    EXPECT_EQ(mapped_bytes(), mapped_with_spilled);
    EXPECT_EQ(g_locking_uint_os_malloc_hugepage2m_count, huge_count) << "this one path leaves the huge-page count as it was";
    node.vt_hugepage2m.resize(0);
    // The node still holds `spilled`; the part's destructor unmaps it with its node array.
  }
  EXPECT_EQ(mapped_bytes(), before);
}

}  // namespace
}  // namespace quorla
