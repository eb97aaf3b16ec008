// The open-addressing maps: growth, the probe records of homes (including the count an erase
// leaves too high), messages and aborts, and random runs checked against std::unordered_map.
// Most cases use an identity hash so that homes and probe positions are chosen by the test.
#include "foundation/quorla_unordered_map.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "foundation/quorla_hash.h"
#include "foundation/quorla_unordered_map_allocator.h"

namespace quorla {
namespace {

struct Counters {
  int mallocs = 0, reallocs = 0, frees = 0, hashes = 0, compares = 0;
} g_counters;

struct Counting_store {
  void* malloc(unsigned long& size) const { ++g_counters.mallocs; return ::malloc(size); }
  void* realloc(void* ptr, unsigned long, unsigned long& size) const { ++g_counters.reallocs; return ::realloc(ptr, size); }
  void free(void* ptr, unsigned long) const { ++g_counters.frees; ::free(ptr); }
};
// The key is its own hash (cut to 32 bits by the map), and every call is counted.
struct Identity_hash { size_t operator()(const unsigned long& key) const { ++g_counters.hashes; return key; } };
struct Counting_equal {
  bool operator()(const unsigned long& a, const unsigned long& b) const { ++g_counters.compares; return a == b; }
};
// Sixteen homes only, every key's hash known: heavy clustering and wrap-around.
struct Clustering_hash { size_t operator()(const unsigned long& key) const { return (key % 16) * 16 + 0xF0; } };

using Plain_map = unordered_map<unsigned long, unsigned long, Identity_hash, Counting_equal>;
using Allocator_map = unordered_map_allocator<unsigned long, unsigned long, Identity_hash, Counting_equal, Counting_store>;

std::string escape_regex(const std::string& text) {
  std::string out;
  for (char c : text) out += std::strchr("\\^$.|?*+()[]{}", c) != nullptr ? std::string{'\\', c} : std::string{c};
  return out;
}
// A whole message line of the allocator map: its text, where it was written, and the function.
std::string located_message(const std::string& text, const std::string& function) {
  return "^" + escape_regex(text + ", File=quorla_unordered_map_allocator, Line=") + "[0-9]+" +
         escape_regex(", Func=" + function + "\r\n") + "$";
}

// Checked from the slots alone: every key lies inside its home's probe range, is found at its
// own slot and carries its own hash; a home's count may be too high, never too low.
template <class H, class Map>
void check_invariants(Map& map) {
  const unsigned int buckets = map.bucket_count();
  ASSERT_LE(map.data_count, map.d_uint_max_data_count);
  std::vector<unsigned int> homed(buckets, 0);
  unsigned int used = 0;
  for (unsigned int i = 0; i < buckets; ++i) {
    const auto& slot = map.slot(i);
    ASSERT_TRUE(slot.bool_used || slot.uint_hash == 0) << "free slot " << i;
    if (!slot.bool_used) continue;
    ++used;
    ASSERT_EQ(slot.uint_hash, static_cast<unsigned int>(H()(slot.key))) << "slot " << i;
    unsigned int home = slot.uint_hash & map.d_uint_mask;
    ++homed[home];
    unsigned int distance = (i - home) & map.d_uint_mask;
    ASSERT_LT(distance, map.slot(home).uint_probe_limit) << "slot " << i << " home " << home;
    ASSERT_EQ(map.find_with_hash(slot.key, slot.uint_hash), i);
  }
  ASSERT_EQ(used, map.data_count);
  for (unsigned int home = 0; home < buckets; ++home) ASSERT_GE(map.slot(home).uint_home_count, homed[home]) << home;
}

template <class Map>
class MapTest : public ::testing::Test {
 protected:
  void SetUp() override { g_counters = Counters(); }
};
using Map_forms = ::testing::Types<Plain_map, Allocator_map>;
TYPED_TEST_SUITE(MapTest, Map_forms);

// A home's record: how many keys call it home, and how far its probe range reaches.
using Record = std::pair<unsigned int, unsigned int>;
template <class Map>
Record record(Map& map, unsigned int home) { return {map.slot(home).uint_home_count, map.slot(home).uint_probe_limit}; }

template <class Map>
unsigned int not_found_of(Map& map) { return std::is_same<Map, Allocator_map>::value ? 0xFFFFFFFFu : map.bucket_count(); }

TYPED_TEST(MapTest, LoadLimitGrowthAndReserve) {
  TypeParam map;
  EXPECT_TRUE(map.begin() == map.end());
  // 179 keys fit in 256 buckets; the 180th doubles them.
  for (unsigned long key = 0; key < 179; ++key) ASSERT_TRUE(map.insert_return_iterator_bool(key * 7, key).second);
  EXPECT_EQ(map.bucket_count(), 256u);
  g_counters = Counters();
  auto inserted = map.insert_return_iterator_bool(179 * 7, 179);
  EXPECT_EQ(map.bucket_count(), 512u);
  EXPECT_EQ(g_counters.hashes, 1) << "only the new key is hashed; moved keys keep their stored hash";
  EXPECT_EQ(inserted.first->key, 179u * 7) << "the offset is found again after the growth";

  // Reserve takes a bucket count, rounds it up and never shrinks below what the keys need.
  map.reserve(100);
  EXPECT_EQ(map.bucket_count(), 512u);
  g_counters = Counters();
  map.reserve(513);
  EXPECT_EQ(map.bucket_count(), 1024u);
  EXPECT_EQ(g_counters.hashes + g_counters.compares, 0) << "placement neither hashes nor searches duplicates";
  EXPECT_EQ(map.get_vt_resize_size(100), 256u) << "the 180 keys, not the request, set the floor";
  EXPECT_EQ(map.get_vt_resize_size(67108864), 67108864u);
  check_invariants<Identity_hash>(map);

  // A new key takes the first free slot (1025 the one 1 left, before 513), and the rebuild
  // keeps the old offset order, so 1025 keeps the home slot.
  TypeParam ordered;
  for (unsigned long key : {1ul, 513ul}) ordered.insert_return_iterator_bool(key, 0);
  ordered.erase(ordered.find(1));
  ordered.insert_return_iterator_bool(1025, 0);
  EXPECT_EQ(ordered.find_offset(1025), 1u);
  ordered.reserve(512);
  EXPECT_EQ(ordered.find_offset(1025), 1u);
  EXPECT_EQ(ordered.find_offset(513), 2u);
  EXPECT_EQ(ordered.slot(1).uint_home_count, 2u);
  check_invariants<Identity_hash>(ordered);
}

TYPED_TEST(MapTest, LookupsStopAtTheProbeLimitAndReadKeysOnlyOnAHashMatch) {
  TypeParam map;
  // Three keys of home 5 with different full hashes: slots 5, 6, 7, limit 3.
  for (unsigned long key : {5ul, 5ul + 256, 5ul + 512}) map.insert_return_iterator_bool(key, key);
  EXPECT_EQ(map.slot(5).uint_probe_limit, 3u);
  g_counters = Counters();
  EXPECT_EQ(map.find_offset(5 + 512), 7u);
  EXPECT_EQ(g_counters.compares, 1) << "slots 5 and 6 differ in the stored hash";
  EXPECT_EQ(map.find_offset(5 + 768), not_found_of(map));
  EXPECT_EQ(g_counters.compares, 1);
  EXPECT_EQ(map.find_with_hash(5 + 256, 5), not_found_of(map)) << "the stored hash is compared first";

  EXPECT_FALSE(map.insert_return_iterator_bool(5 + 256, 0).second);
  EXPECT_EQ(map.slot(5).uint_home_count, 3u) << "a present key is not counted again";
  // A key with the same 32-bit hash as one already there is compared, found unequal, placed after.
  const unsigned long twin = 5 + (1ul << 32);
  map.insert_return_iterator_bool(twin, 53);
  EXPECT_EQ(map.find_offset(twin), 8u);
  // A key past the last slot wraps to the front.
  for (unsigned long key : {255ul, 511ul, 767ul}) map.insert_return_iterator_bool(key, key);
  EXPECT_EQ(map.find_offset(767), 1u);
  EXPECT_EQ(map.slot(255).uint_probe_limit, 3u);
  // Erasing through a free slot changes nothing and answers the next used one.
  EXPECT_EQ(map.erase(typename TypeParam::iterator{&map, 3}).uint_offset, 5u);
  EXPECT_EQ(map.size(), 7u);
  check_invariants<Identity_hash>(map);
}

TYPED_TEST(MapTest, HomeRecordsOnEraseIncludingTheCountLeftTooHigh) {
  TypeParam map;
  // Each step inserts (+) or erases (-) a key, then reads its home's count and probe limit.
  struct Step { char op; unsigned long key; unsigned int count, limit; };
  const Step steps[] = {
      {'+', 20, 1, 1}, {'-', 20, 1, 0},  // a lone key: the limit drops to 0, the count stays at 1
      // Two keys of one home: the limit stays while a key of the home remains; the home resets with the last.
      {'+', 40, 1, 1}, {'+', 40 + 256, 2, 2}, {'-', 40, 1, 2}, {'-', 40 + 256, 0, 0},
      // Home 20 again, its count one too high: it never gets back to 0, so the home never
      // resets and the limit stays at 2.
      {'+', 20, 2, 1}, {'+', 20 + 256, 3, 2}, {'-', 20, 2, 2}, {'-', 20 + 256, 1, 2}};
  for (const Step& step : steps) {
    SCOPED_TRACE(std::string(1, step.op) + std::to_string(step.key));
    if (step.op == '+') ASSERT_TRUE(map.insert_return_iterator_bool(step.key, 0).second);
    else map.erase(map.find(step.key));
    EXPECT_EQ(record(map, step.key % 256), Record(step.count, step.limit));
  }
  EXPECT_EQ(map.find_offset(20 + 256), not_found_of(map)) << "a lookup walks the empty range to find nothing";
  EXPECT_EQ(map.size(), 0u);

  // An empty table grows keeping the stale records; a table with keys is rebuilt from them.
  map.reserve(512);
  EXPECT_EQ(record(map, 20), Record(1, 2));
  map.insert_return_iterator_bool(20 + 512, 6);
  map.reserve(1024);
  EXPECT_EQ(record(map, 20), Record(0, 0));
  EXPECT_EQ(record(map, 532), Record(1, 1));
  check_invariants<Identity_hash>(map);
}

TEST(MapAllocation, TheConstructorAllocatesAndInsertsAllocateOnlyOnGrowth) {
  g_counters = Counters();
  {
    Allocator_map map;
    for (unsigned long key = 0; key < 180; ++key) map.insert_return_iterator_bool(key, key);
    EXPECT_EQ(g_counters.mallocs + g_counters.reallocs, 2) << "the first array and one on the growth at 180 keys";
    EXPECT_EQ(g_counters.frees, 1) << "the old array goes back to the policy";
  }
  EXPECT_EQ(g_counters.frees, 2) << "the map's array is released with it";
}

TEST(MapMessagesDeathTest, BadEraseIsReportedAndSurvivedTooBigReserveAndBadCountAbort) {
  Allocator_map map;
  Plain_map plain;
  for (unsigned long key : {1ul, 2ul, 3ul}) {
    map.insert_return_iterator_bool(key, key);
    plain.insert_return_iterator_bool(key, key);
  }
  testing::internal::CaptureStderr();
  EXPECT_TRUE(map.erase(map.end()) == map.end());
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(map.size(), 3u);
  EXPECT_TRUE(::testing::internal::RE::FullMatch(err, located_message("Error: unordered_map_allocator::erase() bad C++ code. "
      "uint_offset >= d_vt_st_wrap.size(). uint_offset=256, d_vt_st_wrap.size()=256", "erase"))) << err;

  EXPECT_DEATH(map.reserve(67108865), located_message("Error: unordered_map_allocator::get_vt_resize_size() ulong_out too big. "
      "ulong_out=134217728, max_bucket_count=67108864, uint_in=67108865", "get_vt_resize_size"));
  // The largest request: the power of two is taken in 64 bits.
  EXPECT_DEATH(map.get_vt_resize_size(0xFFFFFFFFu),
               escape_regex("ulong_out=4294967296, max_bucket_count=67108864, uint_in=4294967295, "));
  // A count that disagrees with the slots aborts the rebuild.
  map.data_count = 5;
  EXPECT_DEATH(map.inner_rehash(512),
               escape_regex("Error: unordered_map_allocator::copy_vt_data_move() find bug. count=3, data_count=5\r\n"));
  plain.data_count = 2;
  EXPECT_DEATH(plain.inner_rehash(512),
               escape_regex("Error: unordered_map::copy_from_vt_data_move() find bug. count=3, data_count=2\r\n"));
}

// Random runs against std::unordered_map. A small key range makes duplicates, misses, erase
// and re-insert frequent; the table grows through several doublings.
template <class Map, class H, class Value_of>
void run_against_model(unsigned int seed, unsigned long key_range, Value_of value_of) {
  using Value = decltype(value_of(0ul));
  SCOPED_TRACE("seed " + std::to_string(seed) + " (QUORLA_TEST_SEED reruns it)");
  std::mt19937_64 random(seed);
  Map map;
  std::unordered_map<unsigned long, Value> model;
  for (int step = 0; step < 20000; ++step) {
    unsigned long key = random() % key_range;
    unsigned int choice = static_cast<unsigned int>(random() % 10);
    auto found = map.find(key);
    auto expected = model.find(key);
    ASSERT_EQ(found != map.end(), expected != model.end()) << "step " << step << " key " << key;
    // The home-slot shortcut agrees with the full lookup: it finds exactly the keys that
    // stand in their own home slot.
    const unsigned int hash = static_cast<unsigned int>(H()(key));
    const auto* at_home = map.find_at_home(key, hash);
    const bool stands_at_home = found != map.end() && found.uint_offset == (hash & map.d_uint_mask);
    ASSERT_EQ(at_home != nullptr, stands_at_home) << "step " << step << " key " << key;
    if (at_home != nullptr) {
      ASSERT_EQ(at_home, &*found) << "step " << step;
    }
    if (choice < 5) {  // insert
      Value value = value_of(random());
      auto result = map.insert_return_iterator_bool(key, value);
      ASSERT_EQ(result.second, model.emplace(key, value).second) << "step " << step << " key " << key;
      ASSERT_TRUE(result.first->key == key && result.first->value == model.at(key)) << "step " << step;
    } else if (expected != model.end()) {  // find, and erase two times in five
      ASSERT_TRUE(found->value == expected->second) << "step " << step;
      if (choice >= 8) {
        model.erase(expected);
        auto next = map.erase(found);
        ASSERT_TRUE(next == map.end() || next->bool_used);
        for (unsigned int i = found.uint_offset + 1; i < next.uint_offset; ++i) ASSERT_FALSE(map.slot(i).bool_used);
      }
    }
    ASSERT_EQ(map.size(), model.size());
    if (step % 997 == 0) check_invariants<H>(map);
  }
  check_invariants<H>(map);
  size_t visited = 0;
  for (auto it = map.begin(); it != map.end(); ++it, ++visited) ASSERT_TRUE(it->value == model.at(it->key));
  EXPECT_EQ(visited, model.size());
  EXPECT_GE(map.bucket_count(), 1024u) << "the run should have grown the table (it never shrinks)";
}

// CRC of 2 MB aligned addresses, as the large-block map sees them.
struct Aligned_keys {
  size_t operator()(const unsigned long& key) const { return hash_crc32c<unsigned long>()(0x7F0000000000ul + (key << 21)); }
};

TEST(MapModel, RandomRunsAgainstStdUnorderedMap) {
  const char* text = std::getenv("QUORLA_TEST_SEED");
  const unsigned int seed = text != nullptr ? static_cast<unsigned int>(std::strtoul(text, nullptr, 10)) : std::random_device()();
  std::printf("unordered_map model seed %u\n", seed);
  run_against_model<unordered_map_allocator<unsigned long, unsigned long, Aligned_keys, std::equal_to<unsigned long>, Counting_store>,
                    Aligned_keys>(seed + 1, 1500, [](unsigned long r) { return r; });
  // Sixteen homes, so runs overlap, wrap past the last slot and keep stale limits.
  run_against_model<unordered_map<unsigned long, std::string, Clustering_hash>, Clustering_hash>(
      seed + 2, 1200, [](unsigned long r) { return std::string(r % 40, static_cast<char>('a' + r % 26)); });
  run_against_model<unordered_map<unsigned long, std::string, Identity_hash>, Identity_hash>(
      seed + 3, 3000, [](unsigned long r) { return std::to_string(r); });
}

}  // namespace
}  // namespace quorla
