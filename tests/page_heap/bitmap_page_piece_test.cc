// Page piece: placement rules of the single-page, run and aligned searches, the release
// paths, region take-over and return, and a randomised comparison against a plain model.
#include "page_heap/quorla_bitmap_page_piece.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <map>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "startup/quorla_memory_settings.h"
#include "os_memory/quorla_os_mmap.h"
#include "os_memory/quorla_region_tag.h"
#include "os_memory/quorla_wait_release_ptr_part_numa_node.h"

namespace quorla {
namespace {

constexpr unsigned long k_page = 4096;

// Pieces live in pool blocks in the library; here in aligned storage, with no group.
struct Piece_storage { alignas(64) unsigned char bytes[sizeof(Memory_bitmap_page_piece)]; };

Memory_bitmap_page_piece* make_piece(Piece_storage& s) { return new (s.bytes) Memory_bitmap_page_piece(0, nullptr); }

// The unmap reads the page type from the region's tag.
void unmap_region(unsigned char* region, unsigned char page_type) {
  region_tag_of(region)->uchar_page_type = page_type;
  os_free_map_size_2m(region);
}

// A piece with live pages abandons its region mapped, so the test unmaps it; an empty piece
// gives its region to the region cache itself.
void destroy_piece(Memory_bitmap_page_piece* piece) {
  unsigned char* region = piece->ptr_byte_block;
  const unsigned char page_type = piece->uchar_page_type;
  const bool empty = piece->uint_free_bit == 511;
  piece->~Memory_bitmap_page_piece();
  if (!empty) unmap_region(region, page_type);
}

using Cursors = std::tuple<unsigned int, unsigned int, unsigned int>;  // first, next, top

class PagePieceTest : public ::testing::Test {
 protected:
  void SetUp() override { piece = make_piece(storage); }
  void TearDown() override { destroy_piece(piece); }

  unsigned long slot(unsigned int i) const { return piece->ar_ulong_page_slot()[i]; }
  unsigned char* page(unsigned int bit) const { return piece->ptr_byte_block + bit * k_page; }
  Cursors cursors() const { return Cursors{piece->uint_first_free_bit, piece->uint_next_free_bit, piece->uint_top_bit}; }

  // Walks a placement script from the new piece: 'o' a single-page take expected at page a;
  // 't' a run of a pages expected at page b (0: none); 'a' a run of a pages aligned to b,
  // expected at page c (0: none); 'f' releases a pages at b; 'r' releases the single page a;
  // 'n' / 'h' move the cursor / the first-free hint to a; 'c' expects the cursors (a, b, c).
  struct Step { char op; unsigned int a = 0, b = 0, c = 0; };
  void run(const std::vector<Step>& steps) {
    for (size_t i = 0; i < steps.size(); ++i) {
      const Step& s = steps[i];
      SCOPED_TRACE(::testing::Message() << "step " << i << " '" << s.op << "' " << s.a << " " << s.b << " " << s.c);
      switch (s.op) {
        case 'o': ASSERT_EQ(page(s.a), piece->malloc_one_bit()); break;
        case 't': ASSERT_EQ(s.b ? page(s.b) : nullptr, piece->malloc_bit_size(s.a)); break;
        case 'a': ASSERT_EQ(s.c ? page(s.c) : nullptr, piece->malloc_bit_size_align(s.a, s.b)); break;
        case 'f': piece->free_with_bit_size(s.a, s.b); break;
        case 'r': piece->free_one_bit(s.a); break;
        case 'n': piece->uint_next_free_bit = s.a; break;
        case 'h': piece->uint_first_free_bit = s.a; break;
        case 'c': ASSERT_EQ(Cursors(s.a, s.b, s.c), cursors()); break;
        default: FAIL() << "unknown step";
      }
    }
  }

  Piece_storage storage;
  Memory_bitmap_page_piece* piece = nullptr;
};

// Bits, slots, free count and the bound after each take are checked by the model test below;
// these scripts pin where each search places a run and how the cursors move.

// A release keeps the high-water mark; with first_free_bit (3) taken the scan finds 4; a
// stale (lower) hint over a full word still finds the first clear bit of the next one.
TEST_F(PagePieceTest, OneBitTakesTheLowestPageAndReleaseLowersTheCursors) {
  run({{'c', 1, 1, 1}, {'o', 1}, {'o', 2}, {'o', 3}, {'r', 2}, {'c', 2, 2, 4}, {'o', 2}, {'o', 4},
       {'t', 59, 5}, {'h', 1}, {'o', 64}, {'c', 65, 65, 65}});
}

// From an empty piece a run of 64 or more goes to page 1 without a search, and the top bit
// is set to the run's end even when it stood higher; a shorter take leaves the high-water mark.
TEST_F(PagePieceTest, EmptyPieceShortcutStartsAtPageOne) {
  run({{'t', 511, 1}, {'t', 1, 0}, {'f', 511, 1}, {'t', 64, 1}, {'c', 65, 65, 65}, {'f', 64, 1}, {'t', 63, 1},
       {'c', 64, 64, 65}});
}

// A short run that does not fit before a word's end goes to the next word (a search take
// leaves first_free_bit); the cursor follows it only when the tail left behind is short:
// a long tail (41..63) keeps it.
TEST_F(PagePieceTest, ShortRunCursorRules) {
  run({{'t', 60, 1}, {'t', 10, 64}, {'c', 61, 74, 74}, {'f', 10, 64}, {'f', 60, 1}, {'t', 40, 1}, {'t', 40, 64},
       {'c', 41, 41, 104}, {'t', 20, 41}, {'c', 61, 61, 104}});
}

// The run does not start at the cursor; a word with bit 63 set is skipped, and the next
// candidate is above word 2's bit 0.
TEST_F(PagePieceTest, LongRunStartsAboveTheHighestSetBitNeverAtBitZero) {
  run({{'t', 63, 1}, {'t', 64, 65}, {'c', 64, 64, 129}, {'t', 100, 129}, {'c', 64, 64, 229}});
}

// A failure lowers the bound so that a larger search is not tried again until a release.
TEST_F(PagePieceTest, FailureNeverWrapsAndLowersTheBoundUntilARelease) {
  run({{'o', 1}, {'n', 500}, {'t', 20, 0}, {'t', 200, 0}, {'t', 10, 500}, {'r', 1}, {'t', 20, 1}});
}

// Offset 0 of a word is never tried (the second 32 at 32 goes to 96, not 64), no word holds
// 40 at 32, word 7 is the only clear word left for the last 64, a step above 7 fails, and an
// aligned take leaves the cursors.
TEST_F(PagePieceTest, AlignedRunsArePlacedAtMultiplesAndLeaveTheCursors) {
  run({{'a', 8, 8, 8}, {'a', 32, 32, 32}, {'a', 32, 32, 96}, {'a', 40, 32, 0}, {'a', 128, 128, 128},
       {'a', 128, 128, 256}, {'a', 64, 128, 384}, {'a', 64, 64, 448}, {'a', 64, 64, 0}, {'a', 64, 1024, 0},
       {'c', 1, 1, 1}});
}

// A release of 256 pages or more that empties the piece resets the whole head page (a
// small-block piece overwrote the slots of the pages it took); a smaller one clears only
// the run's first slot.
TEST_F(PagePieceTest, ReleasesThatEmptyThePieceResetTheHeadPageOnlyWhenLarge) {
  for (unsigned int size : {300u, 255u}) {
    ASSERT_EQ(page(1), piece->malloc_bit_size(size));
    for (unsigned int i = 2; i <= size; ++i) piece->ar_ulong_page_slot()[i] = 0xABCDEF00ul + i;
    piece->free_with_bit_size(size, 1);
    EXPECT_EQ(Cursors(1, 1, size + 1), cursors()) << "the high-water mark is kept";
    EXPECT_EQ(size < 256 ? 0xABCDEF00ul + 2 : 0ul, slot(2)) << "size " << size;
    if (size < 256) std::fill(piece->ar_ulong_page_slot() + 2, piece->ar_ulong_page_slot() + size + 1, 0ul);
    EXPECT_EQ(1u, piece->ptr_ulong[0]);
    for (unsigned int i = 1; i < 512; ++i) ASSERT_EQ(0u, slot(i)) << "slot " << i;
  }
}

// Takes every region out of node 0's arrays for a test that needs the cache to miss, and
// puts them back afterwards.
struct Node_zero_emptied {
  Node_zero_emptied() {
    Struct_Memory_wait_release_ptr_node& node = g_memory_wait_release_ptr_part_numa_node.ptr_ar_node[0];
    for (auto [count, array] : {std::pair{&node.atomic_page, &node.ar_atomic_page},
                                std::pair{&node.atomic_hugepage2m, &node.ar_atomic_hugepage2m}}) {
      while (unsigned long region = Struct_Memory_wait_release_ptr_node::malloc_from_ar_atomic(*count, *array)) {
        regions.push_back(reinterpret_cast<unsigned char*>(region));
      }
    }
  }
  ~Node_zero_emptied() {
    for (unsigned char* region : regions) EXPECT_TRUE(g_memory_wait_release_ptr_part_numa_node.ptr_ar_node[0].free(region));
  }
  std::vector<unsigned char*> regions;
};

// An empty piece writes the region tag (type, node, top bit, release time from the shared
// clock) and hands the region to the cache instead of unmapping it: the next piece takes the
// same region from node 0 without a mapping. A page type the cache does not know (2) is
// refused by the node and waits in the queue, which drops it; the test then unmaps it.
TEST(PagePieceRegionTest, EmptyPieceTagsAndGivesItsRegionToTheCache) {
  Memory_wait_release_ptr_part_numa_node& cache = g_memory_wait_release_ptr_part_numa_node;
  Node_zero_emptied emptied;
  for (bool unknown_type : {false, true}) {
    SCOPED_TRACE(unknown_type ? "unknown page type" : "ordinary");
    Piece_storage storage;
    const size_t mapped_before = g_locking_sizet_os_malloc_all_size;
    Memory_bitmap_page_piece* piece = make_piece(storage);
    EXPECT_EQ(mapped_before + 2097152, g_locking_sizet_os_malloc_all_size) << "node 0 was empty: a miss maps";
    unsigned char* region = piece->ptr_byte_block;
    const unsigned char page_type = piece->uchar_page_type;
    ASSERT_NE(nullptr, piece->malloc_bit_size(37));
    piece->free_with_bit_size(37, 1);
    if (unknown_type) piece->uchar_page_type = 2;
    g_timet_millisecond_now_steady = 0;
    const unsigned int queued_before = cache.uint_wait_free_queue_count;
    piece->~Memory_bitmap_page_piece();
    EXPECT_EQ(mapped_before + 2097152, g_locking_sizet_os_malloc_all_size) << "the region stays mapped";
    EXPECT_GT(g_timet_millisecond_now_steady, 0) << "release time stored in the shared clock";
    const Region_tag* tag = region_tag_of(region);
    EXPECT_EQ(unknown_type ? 2u : page_type, tag->uchar_page_type);
    EXPECT_EQ(0u, tag->ushort_numa_node) << "the piece's node replaces its address's bytes";
    EXPECT_EQ(38u, tag->uint_top_bit) << "the high-water mark, kept after the release";
    EXPECT_EQ(static_cast<unsigned long>(g_timet_millisecond_now_steady), tag->ulong_millisecond_release);
    EXPECT_EQ(queued_before + (unknown_type ? 1u : 0u), cache.uint_wait_free_queue_count);
    if (unknown_type) {
      cache.store_wait_free_queue_to_node();
      EXPECT_EQ(0u, cache.ptr_ar_node[0].vt_page.size() + cache.ptr_ar_node[0].vt_hugepage2m.size()) << "dropped";
      unmap_region(region, page_type);
      EXPECT_EQ(mapped_before, g_locking_sizet_os_malloc_all_size);
      continue;
    }
    Piece_storage next_storage;
    Memory_bitmap_page_piece* next = make_piece(next_storage);
    EXPECT_EQ(region, next->ptr_byte_block) << "the next piece reuses the cached region";
    EXPECT_EQ(mapped_before + 2097152, g_locking_sizet_os_malloc_all_size);
    EXPECT_EQ(next, reinterpret_cast<Memory_bitmap_page_piece*>(next->ar_ulong_page_slot()[0]));
    next->~Memory_bitmap_page_piece();
    ASSERT_EQ(region, cache.ptr_ar_node[0].malloc()) << "node 0 holds this one region again";
    unmap_region(region, page_type);
    EXPECT_EQ(mapped_before, g_locking_sizet_os_malloc_all_size);
  }
}

TEST(PagePieceBackgroundTest, RequestsTheThreadOnceEnoughIsMapped) {
  const auto saved = std::make_tuple(g_bool_memory_use_thread_background, g_bool_memory_enable_thread_background,
                                     g_bool_memory_need_enable_thread_background,
                                     g_ulong_memory_size_use_thread_background_threshold);
  using Case = std::tuple<bool, bool, unsigned long, bool>;  // running, enabled, threshold -> requested
  for (const Case& c : {Case{false, true, 0, true}, Case{false, true, ~0ul, false}, Case{true, true, 0, false},
                        Case{false, false, 0, false}}) {
    std::tie(g_bool_memory_use_thread_background, g_bool_memory_enable_thread_background,
             g_ulong_memory_size_use_thread_background_threshold, std::ignore) = c;
    g_bool_memory_need_enable_thread_background = false;
    Piece_storage storage;
    {
      Node_zero_emptied emptied;  // only a miss of the cache asks for the thread
      destroy_piece(make_piece(storage));
      EXPECT_EQ(std::get<3>(c), g_bool_memory_need_enable_thread_background)
          << "running " << std::get<0>(c) << " enabled " << std::get<1>(c) << " threshold " << std::get<2>(c);
    }
  }
  std::tie(g_bool_memory_use_thread_background, g_bool_memory_enable_thread_background,
           g_bool_memory_need_enable_thread_background, g_ulong_memory_size_use_thread_background_threshold) = saved;
}

// ---- randomised comparison against a plain model ---------------------------------------

struct Model {
  bool used[512] = {true};  // the head page
  std::map<unsigned int, std::pair<unsigned int, bool>> live;  // first bit -> size, aligned
};

::testing::AssertionResult piece_matches(const Memory_bitmap_page_piece* piece, const Model& model) {
  using ::testing::AssertionFailure;
  unsigned int clear = 0, lowest_clear = 512;
  for (unsigned int p = 0; p < 512; ++p) {
    if (((piece->ptr_ulong[p >> 6] >> (p & 63)) & 1) != model.used[p]) return AssertionFailure() << "bit " << p << " differs";
    if (!model.used[p] && clear++ == 0) lowest_clear = p;
  }
  if (piece->uint_free_bit != clear) return AssertionFailure() << "free_bit " << piece->uint_free_bit << " clear " << clear;
  if (piece->uint_first_free_bit > lowest_clear)
    return AssertionFailure() << "first_free_bit " << piece->uint_first_free_bit << " above " << lowest_clear;
  if (piece->uint_next_free_bit > 512) return AssertionFailure() << "cursor out of range";
  const unsigned long* slots = piece->ar_ulong_page_slot();
  if (slots[0] != reinterpret_cast<unsigned long>(piece)) return AssertionFailure() << "slot 0 lost the piece";
  for (unsigned int p = 1; p < 512; ++p) {
    auto it = model.live.find(p);
    const unsigned long expected = it == model.live.end() ? 0 : it->second.first;
    if (slots[p] != expected) return AssertionFailure() << "slot " << p << " is " << slots[p] << ", expected " << expected;
    if (expected != 0 && !it->second.second && p + expected > piece->uint_top_bit)
      return AssertionFailure() << "top_bit " << piece->uint_top_bit << " below the end of run at " << p;
  }
  return ::testing::AssertionSuccess();
}

// The state a failed search must leave untouched (the bound aside).
std::tuple<unsigned int, unsigned int, unsigned int, unsigned int, std::string> state(const Memory_bitmap_page_piece* p) {
  return {p->uint_free_bit, p->uint_first_free_bit, p->uint_next_free_bit, p->uint_top_bit,
          std::string(reinterpret_cast<const char*>(p->ptr_ulong), sizeof(p->ptr_ulong))};
}

// Profiles: mixed sizes; short runs only (the top bit then grows slowly); mostly long runs.
// Paths counts how often each path was met, so that a generator that stops reaching one is
// noticed.
enum Profile : unsigned int { k_mixed, k_short_only, k_long_heavy, k_profile_count };

void run_random_sequence(std::mt19937_64& random, unsigned int steps, Profile profile,
                         std::map<std::string, unsigned long>& paths) {
  Piece_storage storage;
  std::unique_ptr<Memory_bitmap_page_piece, void (*)(Memory_bitmap_page_piece*)> guard(make_piece(storage), destroy_piece);
  Memory_bitmap_page_piece* piece = guard.get();
  Model model;
  auto pick = [&](unsigned int low, unsigned int high) { return std::uniform_int_distribution<unsigned int>(low, high)(random); };
  auto random_size = [&]() {
    const unsigned int kind = pick(0, 99);
    if (profile == k_short_only) return kind < 60 ? pick(1, 16) : pick(17, 63);
    if (profile == k_long_heavy) return kind < 30 ? pick(1, 63) : pick(64, 300);
    return kind < 55 ? pick(1, 16) : kind < 85 ? pick(17, 63) : pick(64, 511);
  };
  auto release = [&](std::map<unsigned int, std::pair<unsigned int, bool>>::iterator it, bool one_bit) {
    const unsigned int bit = it->first, size = it->second.first;
    ++paths[one_bit                                                  ? "release one bit"
            : size >= 256 && piece->uint_free_bit + size == 511 ? "release with reset"
                                                                 : "release run"];
    if (one_bit) piece->free_one_bit(bit);
    else piece->free_with_bit_size(size, bit);
    std::fill(model.used + bit, model.used + bit + size, false);
    model.live.erase(it);
    ASSERT_EQ(piece->uint_free_bit, piece->uint_max_free_bit) << "a release lifts the bound";
    ASSERT_LE(std::max(piece->uint_first_free_bit, piece->uint_next_free_bit), bit) << "a release lowers both cursors";
    ASSERT_TRUE(piece_matches(piece, model)) << "after releasing " << size << " at " << bit;
  };
  for (unsigned int step = 0; step < steps; ++step) {
    SCOPED_TRACE(::testing::Message() << "step " << step);
    // Release more often as the piece fills, and now and then empty it completely.
    if (!model.live.empty() && pick(0, 299) == 0) {
      while (!model.live.empty()) ASSERT_NO_FATAL_FAILURE(release(model.live.begin(), false));
      continue;
    }
    if (!model.live.empty() && pick(0, 510) < 511 - piece->uint_free_bit) {
      auto it = std::next(model.live.begin(), pick(0, static_cast<unsigned int>(model.live.size()) - 1));
      ASSERT_NO_FATAL_FAILURE(release(it, it->second.first == 1 && pick(0, 1) == 0));
      continue;
    }
    const unsigned int kind = pick(0, 9);
    const bool one_bit = kind < 3, aligned = kind >= 7;
    if (one_bit && piece->uint_free_bit == 0) continue;
    unsigned int size = 1, align = 1;
    if (aligned) {
      // Short alignments are powers of two (as callers form them); 64 can never be met by a
      // short run and must fail.
      const bool short_run = profile == k_short_only || pick(0, 2) != 0;
      size = short_run ? pick(1, 63) : pick(64, 511);
      align = short_run ? 1u << pick(0, 6) : 64 * pick(1, 8);
    } else if (!one_bit) {
      size = random_size();
    }
    const auto before = state(piece);
    const unsigned int before_bound = piece->uint_max_free_bit;
    unsigned char* result = one_bit   ? piece->malloc_one_bit()
                            : aligned ? piece->malloc_bit_size_align(size, align)
                                      : piece->malloc_bit_size(size);
    if (result == nullptr) {
      ASSERT_FALSE(one_bit) << "one-bit take with free pages";
      ++paths[aligned ? "failed aligned" : "failed unaligned"];
      ASSERT_TRUE(before == state(piece)) << "a failed search took or moved something";
      ASSERT_EQ(aligned ? before_bound : size - 1, piece->uint_max_free_bit) << "size " << size << " align " << align;
      continue;
    }
    const unsigned long distance = static_cast<unsigned long>(result - piece->ptr_byte_block);
    ASSERT_EQ(0u, distance % k_page);
    const unsigned int bit = static_cast<unsigned int>(distance / k_page);
    ASSERT_GE(bit, 1u) << "head page handed out";
    ASSERT_LE(bit + size, 512u);
    ASSERT_TRUE(size >= 64 || bit >> 6 == (bit + size - 1) >> 6) << "short run crosses a word at " << bit;
    ASSERT_EQ(std::min(before_bound, piece->uint_free_bit), piece->uint_max_free_bit) << "a take only lowers the bound";
    if (aligned) {
      ASSERT_EQ(0u, bit % align) << "size " << size << " align " << align;
      ASSERT_EQ(std::get<2>(before), piece->uint_next_free_bit);
      ASSERT_EQ(std::get<3>(before), piece->uint_top_bit);
    }
    for (unsigned int p = bit; p < bit + size; ++p) {
      ASSERT_FALSE(model.used[p]) << "page " << p << " handed out twice (run at " << bit << ", size " << size << ")";
      model.used[p] = true;
    }
    model.live[bit] = {size, aligned};
    ++paths[one_bit   ? "one bit"
            : aligned ? (size < 64 ? "aligned short" : "aligned long")
            : size < 64 ? (bit == std::get<2>(before) ? "short at cursor" : "short by search")
                        : (std::get<0>(before) == 511 ? "long in empty piece" : "long by search")];
    ASSERT_TRUE(piece_matches(piece, model)) << "after taking " << size << " at " << bit;
  }
}

TEST(PagePieceModelTest, RandomSequencesAgreeWithAPlainModel) {
  const char* text = getenv("QUORLA_PAGE_PIECE_SEED");
  const unsigned long long seed = text != nullptr && *text != 0 ? strtoull(text, nullptr, 0)
                                                                : std::random_device{}() * 0x100000001ull ^ std::random_device{}();
  printf("page piece model seed: %llu (replay with QUORLA_PAGE_PIECE_SEED=%llu)\n", seed, seed);
  SCOPED_TRACE(::testing::Message() << "QUORLA_PAGE_PIECE_SEED=" << seed);
  std::mt19937_64 random(seed);
  std::map<std::string, unsigned long> paths;
  for (unsigned int sequence = 0; sequence < 12; ++sequence) {
    SCOPED_TRACE(::testing::Message() << "sequence " << sequence);
    run_random_sequence(random, 6000, static_cast<Profile>(sequence % k_profile_count), paths);
    if (::testing::Test::HasFatalFailure()) return;
  }
  for (const char* name : {"one bit", "short at cursor", "short by search", "long in empty piece", "long by search",
                           "aligned short", "aligned long", "failed unaligned", "failed aligned", "release one bit",
                           "release run", "release with reset"}) {
    EXPECT_GT(paths[name], 0u) << "no step reached: " << name;
  }
}

}  // namespace
}  // namespace quorla
