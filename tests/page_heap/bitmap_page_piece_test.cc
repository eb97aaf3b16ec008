// Page piece: placement rules of the single-page, run and aligned searches, the release
// paths, region take-over and return, and a randomised comparison against a plain model.
#include "page_heap/quorla_bitmap_page_piece.h"

#include <gtest/gtest.h>

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

#include "os_memory/quorla_memory_settings.h"
#include "os_memory/quorla_os_mmap.h"
#include "os_memory/quorla_region_tag.h"

namespace quorla {
namespace {

constexpr unsigned long k_page = 4096;
constexpr unsigned long k_region = 2097152;

// Pieces live in pool blocks in the library; here in aligned storage, with no group.
struct Piece_storage {
  alignas(64) unsigned char bytes[sizeof(Memory_bitmap_page_piece)];
};

Memory_bitmap_page_piece* make_piece(Piece_storage& storage) {
  return new (storage.bytes) Memory_bitmap_page_piece(0, nullptr);
}

// A piece with live pages abandons its region mapped, so the test unmaps it (the unmap reads
// the page type from the tag); an empty piece gives its region back itself.
void destroy_piece(Memory_bitmap_page_piece* piece) {
  unsigned char* region = piece->ptr_byte_block;
  const unsigned char page_type = piece->uchar_page_type;
  const bool empty = piece->uint_free_bit == 511;
  piece->~Memory_bitmap_page_piece();
  if (!empty) {
    region_tag_of(region)->uchar_page_type = page_type;
    os_free_map_size_2m(region);
  }
}

bool bit_is_set(const Memory_bitmap_page_piece* piece, unsigned int bit) {
  return (piece->ptr_ulong[bit >> 6] >> (bit & 63)) & 1;
}

using Cursors = std::tuple<unsigned int, unsigned int, unsigned int>;  // first, next, top

class PagePieceTest : public ::testing::Test {
 protected:
  void SetUp() override { piece = make_piece(storage); }
  void TearDown() override { destroy_piece(piece); }

  unsigned long slot(unsigned int i) const { return piece->ar_ulong_page_slot()[i]; }
  unsigned char* page(unsigned int bit) const { return piece->ptr_byte_block + bit * k_page; }
  Cursors cursors() const { return Cursors{piece->uint_first_free_bit, piece->uint_next_free_bit, piece->uint_top_bit}; }
  // The head page of a new (or emptied) piece: only bit 0 and slot 0 in use.
  void expect_clean_head() const {
    EXPECT_EQ(1u, piece->ptr_ulong[0]);
    for (unsigned int w = 1; w < 8; ++w) EXPECT_EQ(0u, piece->ptr_ulong[w]) << "word " << w;
    EXPECT_EQ(reinterpret_cast<unsigned long>(piece), slot(0));
    for (unsigned int i = 1; i < 512; ++i) ASSERT_EQ(0u, slot(i)) << "slot " << i;
  }

  Piece_storage storage;
  Memory_bitmap_page_piece* piece = nullptr;
};

TEST_F(PagePieceTest, OneBitTakesTheLowestPageAndReleaseLowersTheCursors) {
  EXPECT_EQ(Cursors(1, 1, 1), cursors());
  expect_clean_head();
  EXPECT_EQ(page(1), piece->malloc_one_bit());
  EXPECT_EQ(510u, piece->uint_max_free_bit);
  EXPECT_EQ(page(2), piece->malloc_one_bit());
  EXPECT_EQ(page(3), piece->malloc_one_bit());
  piece->free_one_bit(2);
  EXPECT_EQ(509u, piece->uint_max_free_bit);
  EXPECT_EQ(Cursors(2, 2, 4), cursors()) << "the high-water mark stays";
  EXPECT_EQ(page(2), piece->malloc_one_bit());
  EXPECT_EQ(page(4), piece->malloc_one_bit()) << "first_free_bit was 3, taken: scan finds 4";
  // A stale (lower) hint over a full word still finds the first clear bit of the next one.
  ASSERT_EQ(page(5), piece->malloc_bit_size(59));
  piece->uint_first_free_bit = 1;
  EXPECT_EQ(page(64), piece->malloc_one_bit());
  EXPECT_EQ(Cursors(65, 65, 65), cursors());
}

// From an empty piece a run of 64 or more goes to page 1 without a search, and the top bit
// is set to the run's end even when it stood higher.
TEST_F(PagePieceTest, EmptyPieceShortcutStartsAtPageOne) {
  ASSERT_EQ(page(1), piece->malloc_bit_size(511));
  EXPECT_EQ(0u, piece->uint_free_bit);
  EXPECT_EQ(511u, slot(1));
  for (unsigned int w = 0; w < 8; ++w) EXPECT_EQ(~0ULL, piece->ptr_ulong[w]) << "word " << w;
  EXPECT_EQ(nullptr, piece->malloc_bit_size(1));
  piece->free_with_bit_size(511, 1);
  ASSERT_EQ(page(1), piece->malloc_bit_size(64));
  EXPECT_EQ(Cursors(65, 65, 65), cursors());
  EXPECT_EQ(1u, piece->ptr_ulong[1]);
  piece->free_with_bit_size(64, 1);
  ASSERT_EQ(page(1), piece->malloc_bit_size(63));
  EXPECT_EQ(Cursors(64, 64, 65), cursors()) << "a shorter take leaves the high-water mark";
}

// A short run that does not fit before a word's end goes to the next word; the cursor
// follows it only when the tail left behind is short.
TEST_F(PagePieceTest, ShortRunCursorRules) {
  ASSERT_EQ(page(1), piece->malloc_bit_size(60));
  ASSERT_EQ(page(64), piece->malloc_bit_size(10));
  EXPECT_EQ(Cursors(61, 74, 74), cursors()) << "a search take leaves first_free_bit";
  piece->free_with_bit_size(10, 64);
  piece->free_with_bit_size(60, 1);
  ASSERT_EQ(page(1), piece->malloc_bit_size(40));
  ASSERT_EQ(page(64), piece->malloc_bit_size(40));
  EXPECT_EQ(41u, piece->uint_next_free_bit) << "a long tail (41..63) keeps the cursor";
  ASSERT_EQ(page(41), piece->malloc_bit_size(20));
  EXPECT_EQ(Cursors(61, 61, 104), cursors());
}

TEST_F(PagePieceTest, LongRunStartsAboveTheHighestSetBitNeverAtBitZero) {
  ASSERT_EQ(page(1), piece->malloc_bit_size(63));
  ASSERT_EQ(page(65), piece->malloc_bit_size(64));
  EXPECT_EQ(Cursors(64, 64, 129), cursors()) << "run did not start at the cursor";
  // A word with bit 63 set is skipped; the next candidate is above word 2's bit 0.
  ASSERT_EQ(page(129), piece->malloc_bit_size(100));
  EXPECT_EQ(64u, piece->uint_next_free_bit);
}

TEST_F(PagePieceTest, FailureNeverWrapsAndLowersTheBoundUntilARelease) {
  ASSERT_EQ(page(1), piece->malloc_one_bit());
  piece->uint_next_free_bit = 500;
  EXPECT_EQ(nullptr, piece->malloc_bit_size(20));
  EXPECT_EQ(19u, piece->uint_max_free_bit);
  EXPECT_EQ(nullptr, piece->malloc_bit_size(200));
  EXPECT_EQ(199u, piece->uint_max_free_bit);
  ASSERT_EQ(page(500), piece->malloc_bit_size(10));
  EXPECT_EQ(199u, piece->uint_max_free_bit) << "a take only lowers the bound";
  piece->free_one_bit(1);
  EXPECT_EQ(501u, piece->uint_max_free_bit);
  EXPECT_EQ(page(1), piece->malloc_bit_size(20));
}

TEST_F(PagePieceTest, AlignedRunsArePlacedAtMultiplesAndLeaveTheCursors) {
  ASSERT_EQ(page(8), piece->malloc_bit_size_align(8, 8));
  EXPECT_EQ(8u, slot(8));
  ASSERT_EQ(page(32), piece->malloc_bit_size_align(32, 32));
  // Offset 0 of a word is never tried: the next run of 32 at 32 goes to 96, not 64.
  ASSERT_EQ(page(96), piece->malloc_bit_size_align(32, 32));
  EXPECT_EQ(nullptr, piece->malloc_bit_size_align(40, 32));  // no word holds 40 at 32
  ASSERT_EQ(page(128), piece->malloc_bit_size_align(128, 128));
  ASSERT_EQ(page(256), piece->malloc_bit_size_align(128, 128));
  ASSERT_EQ(page(384), piece->malloc_bit_size_align(64, 128));
  ASSERT_EQ(page(448), piece->malloc_bit_size_align(64, 64));  // word 7: the only clear word left
  EXPECT_EQ(nullptr, piece->malloc_bit_size_align(64, 64));
  EXPECT_EQ(nullptr, piece->malloc_bit_size_align(64, 1024)) << "step above 7";
  EXPECT_EQ(Cursors(1, 1, 1), cursors());
}

// A release of 256 pages or more that empties the piece resets the whole head page (a
// small-block piece overwrote the slots of the pages it took); a smaller one clears only
// the run's first slot.
TEST_F(PagePieceTest, ReleasesThatEmptyThePieceResetTheHeadPageOnlyWhenLarge) {
  for (unsigned int size : {300u, 255u}) {
    ASSERT_EQ(page(1), piece->malloc_bit_size(size));
    for (unsigned int i = 2; i <= size; ++i) piece->ar_ulong_page_slot()[i] = 0xABCDEF00ul + i;
    piece->free_with_bit_size(size, 1);
    EXPECT_EQ(511u, piece->uint_max_free_bit);
    EXPECT_EQ(Cursors(1, 1, size + 1), cursors()) << "the high-water mark is kept";
    if (size < 256) {
      EXPECT_EQ(0xABCDEF00ul + 2, slot(2)) << "only the run's first slot is cleared";
      for (unsigned int i = 2; i <= size; ++i) piece->ar_ulong_page_slot()[i] = 0;
    }
    expect_clean_head();
  }
}

// An empty piece writes the region tag (type, node, top bit, release time from the shared
// clock) and gives the region back. A page type the mapping layer does not know (2) makes
// the unmap a no-op, so the tag can be read back before the test unmaps the region.
TEST(PagePieceRegionTest, EmptyPieceTagsAndGivesItsRegionBack) {
  for (bool unknown_type : {false, true}) {
    Piece_storage storage;
    const size_t mapped_before = g_locking_sizet_os_malloc_all_size;
    Memory_bitmap_page_piece* piece = make_piece(storage);
    EXPECT_EQ(mapped_before + k_region, g_locking_sizet_os_malloc_all_size);
    unsigned char* region = piece->ptr_byte_block;
    const unsigned char page_type = piece->uchar_page_type;
    ASSERT_NE(nullptr, piece->malloc_bit_size(37));
    piece->free_with_bit_size(37, 1);
    if (unknown_type) piece->uchar_page_type = 2;
    piece->ushort_numa_node = 0x1234;
    g_timet_millisecond_now_steady = 0;
    piece->~Memory_bitmap_page_piece();
    EXPECT_GT(g_timet_millisecond_now_steady, 0) << "release time stored in the shared clock";
    if (unknown_type) {
      const Region_tag* tag = region_tag_of(region);
      EXPECT_EQ(2u, tag->uchar_page_type);
      EXPECT_EQ(0x1234u, tag->ushort_numa_node);
      EXPECT_EQ(38u, tag->uint_top_bit) << "the high-water mark, kept after the release";
      EXPECT_EQ(static_cast<unsigned long>(g_timet_millisecond_now_steady), tag->ulong_millisecond_release);
      region_tag_of(region)->uchar_page_type = page_type;
      os_free_map_size_2m(region);
    }
    EXPECT_EQ(mapped_before, g_locking_sizet_os_malloc_all_size);
  }
}

TEST(PagePieceBackgroundTest, RequestsTheThreadOnceEnoughIsMapped) {
  const bool saved_use = g_bool_memory_use_thread_background, saved_enable = g_bool_memory_enable_thread_background,
             saved_need = g_bool_memory_need_enable_thread_background;
  const unsigned long saved_threshold = g_ulong_memory_size_use_thread_background_threshold;
  using Case = std::tuple<bool, bool, unsigned long, bool>;  // running, enabled, threshold -> requested
  for (const Case& c : {Case{false, true, 0, true}, Case{false, true, ~0ul, false}, Case{true, true, 0, false},
                        Case{false, false, 0, false}}) {
    std::tie(g_bool_memory_use_thread_background, g_bool_memory_enable_thread_background,
             g_ulong_memory_size_use_thread_background_threshold, std::ignore) = c;
    g_bool_memory_need_enable_thread_background = false;
    Piece_storage storage;
    destroy_piece(make_piece(storage));
    EXPECT_EQ(std::get<3>(c), g_bool_memory_need_enable_thread_background)
        << "running " << std::get<0>(c) << " enabled " << std::get<1>(c) << " threshold " << std::get<2>(c);
  }
  g_bool_memory_use_thread_background = saved_use;
  g_bool_memory_enable_thread_background = saved_enable;
  g_bool_memory_need_enable_thread_background = saved_need;
  g_ulong_memory_size_use_thread_background_threshold = saved_threshold;
}

// ---- randomised comparison against a plain model ---------------------------------------

struct Model {
  bool used[512] = {true};  // the head page
  std::map<unsigned int, std::pair<unsigned int, bool>> live;  // first bit -> size, aligned
};

::testing::AssertionResult piece_matches(const Memory_bitmap_page_piece* piece, const Model& model) {
  unsigned int clear = 0, lowest_clear = 512;
  for (unsigned int p = 0; p < 512; ++p) {
    if (bit_is_set(piece, p) != model.used[p]) return ::testing::AssertionFailure() << "bit " << p << " differs";
    if (!model.used[p] && clear++ == 0) lowest_clear = p;
  }
  if (piece->uint_free_bit != clear)
    return ::testing::AssertionFailure() << "free_bit " << piece->uint_free_bit << " clear " << clear;
  if (lowest_clear < 512 && piece->uint_first_free_bit > lowest_clear)
    return ::testing::AssertionFailure() << "first_free_bit " << piece->uint_first_free_bit << " above " << lowest_clear;
  if (piece->uint_next_free_bit > 512) return ::testing::AssertionFailure() << "cursor out of range";
  const unsigned long* slots = piece->ar_ulong_page_slot();
  if (slots[0] != reinterpret_cast<unsigned long>(piece)) return ::testing::AssertionFailure() << "slot 0 lost the piece";
  for (unsigned int p = 1; p < 512; ++p) {
    auto it = model.live.find(p);
    const unsigned long expected = it == model.live.end() ? 0 : it->second.first;
    if (slots[p] != expected)
      return ::testing::AssertionFailure() << "slot " << p << " is " << slots[p] << ", expected " << expected;
    if (expected != 0 && !it->second.second && p + expected > piece->uint_top_bit)
      return ::testing::AssertionFailure() << "top_bit " << piece->uint_top_bit << " below the end of run at " << p;
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
  Memory_bitmap_page_piece* piece = make_piece(storage);
  std::unique_ptr<Memory_bitmap_page_piece, void (*)(Memory_bitmap_page_piece*)> guard(piece, destroy_piece);
  Model model;
  auto pick = [&](unsigned int low, unsigned int high) {
    return std::uniform_int_distribution<unsigned int>(low, high)(random);
  };
  auto random_size = [&]() {
    const unsigned int kind = pick(0, 99);
    if (profile == k_short_only) return kind < 60 ? pick(1, 16) : pick(17, 63);
    if (profile == k_long_heavy) return kind < 30 ? pick(1, 63) : pick(64, 300);
    return kind < 55 ? pick(1, 16) : kind < 85 ? pick(17, 63) : pick(64, 511);
  };
  auto release = [&](std::map<unsigned int, std::pair<unsigned int, bool>>::iterator it, bool one_bit) {
    const unsigned int bit = it->first, size = it->second.first;
    if (one_bit) {
      piece->free_one_bit(bit);
      ++paths["release one bit"];
    } else {
      ++paths[size >= 256 && piece->uint_free_bit + size == 511 ? "release with reset" : "release run"];
      piece->free_with_bit_size(size, bit);
    }
    for (unsigned int p = bit; p < bit + size; ++p) model.used[p] = false;
    model.live.erase(it);
    ASSERT_EQ(piece->uint_free_bit, piece->uint_max_free_bit) << "a release lifts the bound";
    ASSERT_LE(piece->uint_first_free_bit, bit);
    ASSERT_LE(piece->uint_next_free_bit, bit);
  };
  for (unsigned int step = 0; step < steps; ++step) {
    SCOPED_TRACE(::testing::Message() << "step " << step);
    // Release more often as the piece fills, and now and then empty it completely.
    if (!model.live.empty() && pick(0, 299) == 0) {
      while (!model.live.empty()) ASSERT_NO_FATAL_FAILURE(release(model.live.begin(), false));
      ASSERT_TRUE(piece_matches(piece, model));
      continue;
    }
    if (!model.live.empty() && pick(0, 510) < 511 - piece->uint_free_bit) {
      auto it = model.live.begin();
      std::advance(it, pick(0, static_cast<unsigned int>(model.live.size()) - 1));
      ASSERT_NO_FATAL_FAILURE(release(it, it->second.first == 1 && pick(0, 1) == 0));
      ASSERT_TRUE(piece_matches(piece, model));
      continue;
    }
    const unsigned int kind = pick(0, 9);
    unsigned int size = 1, align = 1;
    const bool aligned = kind >= 7;
    const auto before = state(piece);
    const unsigned int before_bound = piece->uint_max_free_bit;
    unsigned char* result;
    if (kind < 3) {
      if (piece->uint_free_bit == 0) continue;
      result = piece->malloc_one_bit();
      ASSERT_NE(nullptr, result) << "one-bit take with free pages";
    } else if (!aligned) {
      size = random_size();
      result = piece->malloc_bit_size(size);
    } else {
      // Short alignments are powers of two (as callers form them); 64 can never be met by a
      // short run and must fail.
      const bool short_run = profile == k_short_only || pick(0, 2) != 0;
      size = short_run ? pick(1, 63) : pick(64, 511);
      align = short_run ? 1u << pick(0, 6) : 64 * pick(1, 8);
      result = piece->malloc_bit_size_align(size, align);
    }
    if (result == nullptr) {
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
    if (aligned) {
      ASSERT_EQ(0u, bit % align) << "size " << size << " align " << align;
      ASSERT_EQ(std::get<2>(before), piece->uint_next_free_bit);
      ASSERT_EQ(std::get<3>(before), piece->uint_top_bit);
    }
    ASSERT_TRUE(size >= 64 || bit >> 6 == (bit + size - 1) >> 6) << "short run crosses a word at " << bit;
    for (unsigned int p = bit; p < bit + size; ++p) {
      ASSERT_FALSE(model.used[p]) << "page " << p << " handed out twice (run at " << bit << ", size " << size << ")";
      model.used[p] = true;
    }
    model.live[bit] = {size, aligned};
    if (kind < 3) {
      ++paths["one bit"];
    } else if (aligned) {
      ++paths[size < 64 ? "aligned short" : "aligned long"];
    } else if (size < 64) {
      ++paths[bit == std::get<2>(before) ? "short at cursor" : "short by search"];
    } else {
      ++paths[std::get<0>(before) == 511 ? "long in empty piece" : "long by search"];
    }
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
