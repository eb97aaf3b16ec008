// The metadata pools: the one pool algorithm on a pool with counting policies (blocks and
// back pointers, the cursor, a piece set aside when used up and taken back at 64 free, an
// empty piece given back only above the minimum, the first-touch mark), the per-CPU pool
// whose releases wait in its queue, the 120-byte realloc limit, and the root pool's slots:
// filled and emptied through prepare_ar_atomic/release_ar_atomic, and shared by several
// threads at once without a block handed out twice or lost.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <thread>
#include <unordered_set>
#include <vector>

#include "os_memory/quorla_memory_settings.h"
#include "page_heap/quorla_memory_pool.h"
#include "page_heap/quorla_memory_pool_base.h"
#include "page_heap/quorla_pool_size_128_policy.h"

namespace quorla {
namespace {

// ---- Counting policies: records from A, areas and vectors from B ----

struct Policy_counts {
  unsigned long ulong_record_malloc = 0;
  unsigned long ulong_record_free = 0;
  std::map<void*, unsigned long> map_live_b;  // every live B block and its size
  unsigned long ulong_area_byte = 0;          // the size that marks a B block as an area
  unsigned long ulong_area_malloc = 0;
  unsigned long ulong_area_free = 0;
};
Policy_counts g_counts;

struct Malloc_record {
  void* operator()(unsigned long& size) const {
    ++g_counts.ulong_record_malloc;
    return ::malloc(size);
  }
};
struct Realloc_record {
  void* operator()(void* ptr, unsigned long, unsigned long& new_size) const { return ::realloc(ptr, new_size); }
};
struct Free_record {
  void operator()(void* ptr, unsigned long) const {
    ++g_counts.ulong_record_free;
    ::free(ptr);
  }
};

// Page-aligned like the library's page supply, so that the first-touch mark can be checked.
struct Malloc_area {
  void* operator()(unsigned long& size) const {
    unsigned long rounded = (size + 4095) & ~4095ul;
    void* ptr = aligned_alloc(4096, rounded);
    g_counts.map_live_b[ptr] = size;
    if (size == g_counts.ulong_area_byte) ++g_counts.ulong_area_malloc;
    return ptr;
  }
};
struct Free_area {
  void operator()(void* ptr, unsigned long size) const {
    auto it = g_counts.map_live_b.find(ptr);
    if (it == g_counts.map_live_b.end()) {
      ADD_FAILURE() << "B freed a block it never gave: " << ptr;
      return;
    }
    EXPECT_EQ(it->second, size) << "B freed with another size than it gave";
    if (size == g_counts.ulong_area_byte) ++g_counts.ulong_area_free;
    g_counts.map_live_b.erase(it);
    ::free(ptr);
  }
};
struct Realloc_area {
  void* operator()(void* ptr, unsigned long old_size, unsigned long& new_size) const {
    void* block = Malloc_area()(new_size);
    memcpy(block, ptr, std::min(old_size, new_size));
    Free_area()(ptr, old_size);
    return block;
  }
};

using Record_allocator = Memory_allocator<Malloc_record, Realloc_record, Free_record>;
using Area_allocator = Memory_allocator<Malloc_area, Realloc_area, Free_area>;
using Test_pool = Memory_pool_without_lock<Record_allocator, Area_allocator>;
using Test_piece = Test_pool::Piece;

constexpr unsigned int k_none = 0xFFFFFFFF;

unsigned char page_type_huge(void*) { return 1; }
unsigned char page_type_ordinary(void*) { return 0; }

class Pool_algorithm : public ::testing::Test {
 protected:
  void SetUp() override { g_counts = Policy_counts(); }
  void TearDown() override {
    pool_.reset();
    EXPECT_TRUE(g_counts.map_live_b.empty()) << "the pool's destruction left B blocks behind";
    EXPECT_EQ(g_counts.ulong_record_malloc, g_counts.ulong_record_free);
    g_counts = Policy_counts();
  }

  // A zero-filled pool plus set-up, with its first piece.
  Test_pool& make_pool(unsigned int pitch, unsigned int min_normal_count,
                       Test_pool::Page_type_function get_page_type = nullptr) {
    g_counts.ulong_area_byte = 512ul * pitch;
    pool_.reset(new Test_pool());
    pool_->set_up(pitch, min_normal_count, get_page_type, 0);
    pool_->append_vt_normal();
    return *pool_;
  }

  static Test_piece* piece_of(void* block) { return Test_pool::piece_of_block(block); }
  static unsigned int bit_of(void* block) {
    Test_piece* piece = piece_of(block);
    return static_cast<unsigned int>((static_cast<unsigned char*>(block) - 8 - piece->ptr_byte_block) / piece->uint_block_byte);
  }
  static bool bit_set(Test_piece* piece, unsigned int bit) { return (piece->ptr_ulong[bit >> 6] >> (bit & 63)) & 1; }

  std::unique_ptr<Test_pool> pool_;
};

TEST_F(Pool_algorithm, FirstPieceServesItsBlocksInOrderWithBackPointers) {
  for (unsigned int pitch : {128u, 120u, 512u}) {
    SCOPED_TRACE(pitch);
    g_counts = Policy_counts();
    Test_pool& pool = make_pool(pitch, 1);
    Test_piece* piece = pool.ptr_first_normal;
    ASSERT_NE(piece, nullptr);
    EXPECT_EQ(piece->uint_all_byte, 512u * pitch);
    EXPECT_EQ(piece->uint_offset_normal, 0u);
    EXPECT_EQ(piece->uint_offset_full, k_none);
    EXPECT_EQ(piece->ptr_pool, &pool);
    for (unsigned int i = 0; i < 512; ++i) {
      auto* block = static_cast<unsigned char*>(pool.pool_malloc());
      ASSERT_EQ(block, piece->ptr_byte_block + static_cast<unsigned long>(i) * pitch + 8) << "block " << i;
      ASSERT_EQ(piece_of(block), piece);
      memset(block, 0xA5, pitch - 8);  // the payload is pitch - 8 bytes; the next back pointer survives
    }
    EXPECT_EQ(piece->uint_free_bit, 0u);
    for (unsigned long long word : piece->ptr_ulong) EXPECT_EQ(word, ~0ull);
    EXPECT_EQ(pool.get_piece_count(), 1u) << "512 blocks fit in one piece";
    EXPECT_EQ(g_counts.ulong_area_malloc, 1u);
    // Every block still finds its piece and its own bit.
    for (unsigned int i = 0; i < 512; ++i) {
      void* block = piece->ptr_byte_block + static_cast<unsigned long>(i) * pitch + 8;
      ASSERT_EQ(piece_of(block), piece);
      Test_pool::free(block);
      ASSERT_FALSE(bit_set(piece, i));
    }
    EXPECT_EQ(piece->uint_free_bit, 512u);
    EXPECT_EQ(pool.get_piece_count(), 1u) << "the only piece is kept when it empties";
    EXPECT_EQ(g_counts.ulong_area_free, 0u);
    pool_.reset();
    EXPECT_TRUE(g_counts.map_live_b.empty()) << "the pool's destruction left B blocks behind";
    EXPECT_EQ(g_counts.ulong_record_malloc, g_counts.ulong_record_free);
  }
}

TEST_F(Pool_algorithm, CursorTakesTheLowestFreeBlockFromItsWord) {
  Test_pool& pool = make_pool(128, 1);
  std::vector<void*> blocks;
  for (int i = 0; i < 400; ++i) blocks.push_back(pool.pool_malloc());
  Test_piece* piece = pool.ptr_first_normal;
  Test_pool::free(blocks[300]);
  Test_pool::free(blocks[5]);
  EXPECT_EQ(piece->uint_next_free_bit, 5u) << "a release lowers the cursor";
  EXPECT_EQ(pool.pool_malloc(), blocks[5]);
  EXPECT_EQ(piece->uint_next_free_bit, 6u);
  EXPECT_EQ(pool.pool_malloc(), blocks[300]) << "the scan passes full words to the first clear bit";
  EXPECT_EQ(piece->uint_next_free_bit, 301u);
  void* next = pool.pool_malloc();
  EXPECT_EQ(bit_of(next), 400u);
  EXPECT_EQ(piece->uint_free_bit, 512u - 401u);
}

TEST_F(Pool_algorithm, The513thBlockOpensASecondPieceAndTheFirstGoesAside) {
  Test_pool& pool = make_pool(128, 1);
  std::vector<void*> first;
  for (int i = 0; i < 512; ++i) first.push_back(pool.pool_malloc());
  Test_piece* piece1 = pool.ptr_first_normal;
  EXPECT_EQ(pool.vt_full.size(), 0u) << "a used-up piece is set aside only when the next take needs it";

  void* block513 = pool.pool_malloc();
  Test_piece* piece2 = piece_of(block513);
  ASSERT_NE(piece2, piece1);
  EXPECT_EQ(bit_of(block513), 0u);
  EXPECT_EQ(pool.ptr_first_normal, piece2);
  ASSERT_EQ(pool.vt_normal.size(), 1u);
  ASSERT_EQ(pool.vt_full.size(), 1u);
  EXPECT_EQ(pool.vt_full[0].ptr_t, piece1);
  EXPECT_EQ(piece1->uint_offset_normal, k_none);
  EXPECT_EQ(piece1->uint_offset_full, 0u);
  EXPECT_EQ(piece2->uint_offset_normal, 0u);
  EXPECT_EQ(g_counts.ulong_area_malloc, 2u);
  EXPECT_EQ(g_counts.ulong_record_malloc, 2u);
}

TEST_F(Pool_algorithm, AFullPieceComesBackAtItsSixtyFourthFreeBlock) {
  Test_pool& pool = make_pool(128, 1);
  std::vector<void*> first;
  for (int i = 0; i < 512; ++i) first.push_back(pool.pool_malloc());
  Test_piece* piece1 = piece_of(first[0]);
  Test_piece* piece2 = piece_of(pool.pool_malloc());
  ASSERT_EQ(pool.vt_full.size(), 1u);

  for (int i = 0; i < 63; ++i) Test_pool::free(first[i * 7]);
  EXPECT_EQ(piece1->uint_free_bit, 63u);
  EXPECT_EQ(pool.vt_full.size(), 1u) << "63 free blocks are not enough";
  EXPECT_EQ(piece1->uint_offset_normal, k_none);

  Test_pool::free(first[500]);
  EXPECT_EQ(piece1->uint_free_bit, 64u);
  EXPECT_EQ(pool.vt_full.size(), 0u);
  ASSERT_EQ(pool.vt_normal.size(), 2u);
  EXPECT_EQ(pool.vt_normal[1].ptr_t, piece1) << "it goes to the end of the line";
  EXPECT_EQ(piece1->uint_offset_normal, 1u);
  EXPECT_EQ(piece1->uint_offset_full, k_none);
  EXPECT_EQ(pool.ptr_first_normal, piece2) << "no piece takes the lead";
  EXPECT_EQ(piece_of(pool.pool_malloc()), piece2);
}

TEST_F(Pool_algorithm, LeavingTheFullListFixesTheOffsetOfTheEntryThatFillsTheHole) {
  Test_pool& pool = make_pool(128, 1);
  // Three pieces used up in turn: vt_full holds them in order, a fourth leads.
  std::vector<std::vector<void*>> blocks(3);
  for (auto& piece_blocks : blocks) {
    for (int i = 0; i < 512; ++i) piece_blocks.push_back(pool.pool_malloc());
  }
  pool.pool_malloc();
  ASSERT_EQ(pool.vt_full.size(), 3u);
  Test_piece* piece_a = piece_of(blocks[0][0]);
  Test_piece* piece_c = piece_of(blocks[2][0]);
  ASSERT_EQ(piece_a->uint_offset_full, 0u);
  ASSERT_EQ(piece_c->uint_offset_full, 2u);

  for (int i = 0; i < 64; ++i) Test_pool::free(blocks[0][i]);
  ASSERT_EQ(pool.vt_full.size(), 2u);
  EXPECT_EQ(pool.vt_full[0].ptr_t, piece_c) << "the last entry fills the hole";
  EXPECT_EQ(piece_c->uint_offset_full, 0u);
  // Piece c can leave from its new place.
  for (int i = 0; i < 64; ++i) Test_pool::free(blocks[2][i]);
  EXPECT_EQ(pool.vt_full.size(), 1u);
  EXPECT_EQ(piece_c->uint_offset_full, k_none);
  EXPECT_EQ(pool.vt_normal[piece_c->uint_offset_normal].ptr_t, piece_c);
}

TEST_F(Pool_algorithm, AnEmptyPieceGoesOnlyWhileMoreThanTheMinimumRemain) {
  Test_pool& pool = make_pool(128, 1);
  std::vector<void*> first;
  for (int i = 0; i < 512; ++i) first.push_back(pool.pool_malloc());
  std::vector<void*> second;
  for (int i = 0; i < 10; ++i) second.push_back(pool.pool_malloc());
  Test_piece* piece1 = piece_of(first[0]);
  Test_piece* piece2 = piece_of(second[0]);
  // Piece 1 back in line behind piece 2 (at 64 free).
  for (int i = 0; i < 64; ++i) Test_pool::free(first[i]);
  ASSERT_EQ(pool.vt_normal.size(), 2u);
  ASSERT_EQ(pool.vt_normal[0].ptr_t, piece2);

  // Piece 2, at index 0, empties: it and its area go, piece 1 takes its index and the lead.
  for (void* block : second) Test_pool::free(block);
  EXPECT_EQ(g_counts.ulong_area_free, 1u);
  EXPECT_EQ(g_counts.ulong_record_free, 1u);
  ASSERT_EQ(pool.vt_normal.size(), 1u);
  EXPECT_EQ(pool.vt_normal[0].ptr_t, piece1);
  EXPECT_EQ(piece1->uint_offset_normal, 0u);
  EXPECT_EQ(pool.ptr_first_normal, piece1);
  EXPECT_EQ(pool.pool_malloc(), first[0]) << "the next take comes from the new lead";

  // Piece 1 is now the only one: emptying it keeps it and its area.
  Test_pool::free(first[0]);
  for (int i = 64; i < 512; ++i) Test_pool::free(first[i]);
  EXPECT_EQ(piece1->uint_free_bit, 512u);
  EXPECT_EQ(pool.get_piece_count(), 1u);
  EXPECT_EQ(g_counts.ulong_area_free, 1u);
}

TEST_F(Pool_algorithm, WithTheRootMinimumNoPieceIsEverGivenBack) {
  Test_pool& pool = make_pool(128, 0xFFFFFFFF);
  std::vector<void*> blocks;
  for (int i = 0; i < 3 * 512 + 1; ++i) blocks.push_back(pool.pool_malloc());
  ASSERT_EQ(pool.get_piece_count(), 4u);
  std::shuffle(blocks.begin(), blocks.end(), std::mt19937(7));
  for (void* block : blocks) Test_pool::free(block);
  EXPECT_EQ(pool.get_piece_count(), 4u);
  EXPECT_EQ(pool.vt_full.size(), 0u) << "every piece passed 64 free on the way";
  EXPECT_EQ(pool.get_free_bit_count(), 4u * 512);
  EXPECT_EQ(g_counts.ulong_area_free, 0u);
}

TEST_F(Pool_algorithm, RandomTakesAndReleasesMatchAPlainModel) {
  Test_pool& pool = make_pool(120, 1);
  std::mt19937 random(12345);
  std::vector<void*> held;
  std::set<void*> held_set;
  for (int step = 0; step < 40000; ++step) {
    bool take = held.empty() || (random() % 100) < (held.size() < 1500 ? 60u : 40u);
    if (take) {
      void* block = pool.pool_malloc();
      ASSERT_TRUE(held_set.insert(block).second) << "a held block was handed out again, step " << step;
      ASSERT_TRUE(bit_set(piece_of(block), bit_of(block)));
      held.push_back(block);
    } else {
      unsigned int index = random() % held.size();
      void* block = held[index];
      held[index] = held.back();
      held.pop_back();
      held_set.erase(block);
      Test_pool::free(block);
    }
    if (step % 997 == 0) {
      ASSERT_EQ(pool.get_piece_count() * 512ul - pool.get_free_bit_count(), held.size()) << "step " << step;
      // The offsets always point back at their own entries.
      for (unsigned int i = 0; i < pool.vt_normal.size(); ++i) ASSERT_EQ(pool.vt_normal[i].ptr_t->uint_offset_normal, i);
      for (unsigned int i = 0; i < pool.vt_full.size(); ++i) {
        ASSERT_EQ(pool.vt_full[i].ptr_t->uint_offset_full, i);
        ASSERT_EQ(pool.vt_full[i].ptr_t->uint_free_bit < 64u, true) << "a piece with 64 free stayed in vt_full";
      }
      ASSERT_EQ(pool.ptr_first_normal, pool.vt_normal[0].ptr_t);
    }
  }
  for (void* block : held) Test_pool::free(block);
  EXPECT_EQ(pool.get_piece_count(), 1u) << "all but the minimum went back";
  EXPECT_EQ(g_counts.ulong_area_malloc - g_counts.ulong_area_free, 1u);
}

// ---- First touch ----

class Pool_first_touch : public Pool_algorithm {
 protected:
  void SetUp() override {
    Pool_algorithm::SetUp();
    saved_prefault_ = g_bool_memory_enable_page_prefault;
  }
  void TearDown() override {
    g_bool_memory_enable_page_prefault = saved_prefault_;
    Pool_algorithm::TearDown();
  }
  bool saved_prefault_ = false;
};

TEST_F(Pool_first_touch, MarkAdvancesOnePageAtATime) {
  g_bool_memory_enable_page_prefault = false;
  Test_pool& pool = make_pool(128, 1, &page_type_ordinary);
  Test_piece* piece = pool.ptr_first_normal;
  const unsigned long area = reinterpret_cast<unsigned long>(piece->ptr_byte_block);
  EXPECT_EQ(piece->ptr_byte_touch, 0u);
  pool.pool_malloc();
  EXPECT_EQ(piece->ptr_byte_touch, area | 4095);
  for (int i = 1; i < 32; ++i) pool.pool_malloc();  // 32 blocks of 128 in a page
  EXPECT_EQ(piece->ptr_byte_touch, area | 4095);
  pool.pool_malloc();
  EXPECT_EQ(piece->ptr_byte_touch, (area + 4096) | 4095);
}

TEST_F(Pool_first_touch, HugePageOrPrefaultSwitchesTheMarkOff) {
  g_bool_memory_enable_page_prefault = false;
  make_pool(128, 1, &page_type_huge);
  EXPECT_EQ(pool_->ptr_first_normal->ptr_byte_touch, ~0ul);
  pool_->pool_malloc();
  EXPECT_EQ(pool_->ptr_first_normal->ptr_byte_touch, ~0ul);
  pool_.reset();

  g_bool_memory_enable_page_prefault = true;
  make_pool(128, 1, nullptr);
  EXPECT_EQ(pool_->ptr_first_normal->ptr_byte_touch, ~0ul);
  pool_.reset();

  g_bool_memory_enable_page_prefault = false;
  make_pool(128, 1, nullptr);
  EXPECT_EQ(pool_->ptr_first_normal->ptr_byte_touch, 0u);
}

// ---- The per-CPU pools ----

// Runs body on a thread bound to one CPU, so that every call lands on the same entry.
template <class Body>
void run_on_one_cpu(Body body) {
  std::thread thread([&body] {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<unsigned int>(sched_getcpu()), &set);
    pthread_setaffinity_np(pthread_self(), sizeof(set), &set);
    body();
  });
  thread.join();
}

TEST(Pool_part_cpu, AReleaseWaitsInTheQueueUntilTheEntrysNextTake) {
  run_on_one_cpu([] {
    unsigned long size = 120;
    void* block = Malloc_pool_size_128()(size);
    auto* pool = static_cast<Memory_pool_size_128*>(Memory_pool_size_128::pool_of_block(block));
    auto* piece = Memory_pool_size_128::piece_of_block(block);
    const unsigned int bit =
        static_cast<unsigned int>((static_cast<unsigned char*>(block) - 8 - piece->ptr_byte_block) / 128);
    auto bit_in_use = [&] { return (piece->ptr_ulong[bit >> 6] >> (bit & 63)) & 1; };
    EXPECT_EQ(pool->uint_block_byte, 128u);
    EXPECT_EQ(pool->uint_min_normal_count, 1u);
    EXPECT_EQ(pool, &g_ar_memory_pool_size_128[pool->uint_part_cpu_offset]);
    ASSERT_TRUE(bit_in_use());

    Free_pool_size_128()(block, 120);
    EXPECT_TRUE(bit_in_use()) << "a release is only queued";
    EXPECT_NE(pool->uint_wait_release_count, 0u);
    EXPECT_FALSE(pool->queue_wait_release.queue.is_empty());

    void* next = Malloc_pool_size_128()(size);
    EXPECT_EQ(pool->uint_wait_release_count, 0u);
    EXPECT_TRUE(pool->queue_wait_release.queue.is_empty());
    EXPECT_EQ(next, block) << "the applied release moved the cursor back to the block";
    Free_pool_size_128()(next, 120);
  });
}

TEST(Pool_part_cpu, ReleasesBeyondTheRingWaitInTheVectorAndAllAreApplied) {
  run_on_one_cpu([] {
    unsigned long size = 120;
    std::vector<void*> blocks;
    for (int i = 0; i < 200; ++i) blocks.push_back(Malloc_pool_size_128()(size));
    auto* pool = static_cast<Memory_pool_size_128*>(Memory_pool_size_128::pool_of_block(blocks[0]));
    auto used = [pool] { return pool->get_piece_count() * 512ul - pool->get_free_bit_count(); };
    const unsigned long used_before = used();
    for (void* block : blocks) Free_pool_size_128()(block, 120);
    EXPECT_EQ(pool->queue_wait_release.queue.used(), 56u);
    EXPECT_EQ(pool->queue_wait_release.vt_overflow.size(), 200u - 56u);
    EXPECT_EQ(used(), used_before) << "nothing applied before the next take";
    void* block = Malloc_pool_size_128()(size);
    EXPECT_EQ(pool->queue_wait_release.vt_overflow.size(), 0u);
    EXPECT_TRUE(pool->queue_wait_release.queue.is_empty());
    EXPECT_EQ(used(), used_before - 200 + 1);
    Free_pool_size_128()(block, 120);
  });
}

// ---- The 120-byte limit ----

TEST(Pool_realloc, UpTo120BytesTheSameBlock) {
  alignas(16) unsigned char storage[128];
  unsigned long size = 120;
  EXPECT_EQ(Realloc_pool_size_128()(storage, 120, size), storage);
  size = 1;
  EXPECT_EQ(Realloc_pool_size_128()(storage, 120, size), storage);
  size = 120;
  EXPECT_EQ(Realloc_pool_size_128_base()(storage, 64, size), storage);
}

TEST(Pool_realloc_DeathTest, Above120BytesAbortsWithTheLine) {
  auto* ptr = reinterpret_cast<void*>(0x7f00dead0);
  EXPECT_DEATH(
      {
        unsigned long size = 121;
        Realloc_pool_size_128()(ptr, 120, size);
      },
      "^Error: Realloc_pool_size_128::operator\\(\\) Not support realloc\\. ptr_void_in=00000007f00dead0, "
      "old_size=120, new_size=121\r\n$");
  EXPECT_DEATH(
      {
        unsigned long size = 4096;
        Realloc_pool_size_128_base()(ptr, 8, size);
      },
      "^Error: Realloc_pool_size_128::operator\\(\\) Not support realloc\\. ptr_void_in=00000007f00dead0, "
      "old_size=8, new_size=4096\r\n$");
}

// ---- The root pool and its slots ----

// A root pool of its own (records in the before-init heap, areas mapped), so that the test
// sees its slots alone.
class Root_pool : public ::testing::Test {
 protected:
  using Pool = Memory_pool_size_128_base;
  static constexpr unsigned int k_malloc_side = 31;

  void SetUp() override { pool_ = std::make_unique<Pool>(); }

  unsigned long slot(unsigned int index) const { return pool_->ar_atomic_ptr[index].load(); }
  unsigned int filled(unsigned int first, unsigned int end) const {
    unsigned int count = 0;
    for (unsigned int i = first; i < end; ++i) count += slot(i) != 0;
    return count;
  }
  // Blocks the pool behind the slots counts as in use.
  unsigned long used_in_pool() const { return pool_->get_piece_count() * 512ul - pool_->get_free_bit_count(); }
  unsigned char* block_at(unsigned int bit) const { return pool_->vt_normal[0].ptr_t->ptr_byte_block + bit * 128ul + 8; }

  std::unique_ptr<Pool> pool_;
};

TEST_F(Root_pool, ConstructionFillsTheMallocSide) {
  EXPECT_EQ(pool_->uint_ar_malloc_offset, 0u);
  EXPECT_EQ(pool_->uint_ar_free_count, 0u);
  EXPECT_EQ(pool_->uint_block_byte, 128u);
  EXPECT_EQ(pool_->uint_min_normal_count, 0xFFFFFFFFu);
  for (unsigned int i = 0; i < k_malloc_side; ++i) EXPECT_EQ(slot(i), reinterpret_cast<unsigned long>(block_at(i))) << i;
  EXPECT_EQ(filled(k_malloc_side, 62), 0u);
  EXPECT_EQ(used_in_pool(), 31u);
}

TEST_F(Root_pool, After31TakesTheNextRefillsAllSlotsAndTakesFromThePool) {
  for (unsigned int i = 0; i < k_malloc_side; ++i) {
    EXPECT_EQ(pool_->malloc_block(), block_at(i)) << "slot " << i;
    EXPECT_EQ(pool_->uint_ar_malloc_offset, i + 1);
  }
  EXPECT_EQ(filled(0, k_malloc_side), 0u);

  void* block32 = pool_->malloc_block();
  EXPECT_EQ(filled(0, k_malloc_side), k_malloc_side) << "the slow path refilled every slot";
  EXPECT_EQ(pool_->uint_ar_malloc_offset, 0u);
  for (unsigned int i = 0; i < k_malloc_side; ++i) EXPECT_EQ(slot(i), reinterpret_cast<unsigned long>(block_at(31 + i)));
  EXPECT_EQ(block32, block_at(62)) << "the refill comes first, then a block from the pool itself";
  EXPECT_EQ(used_in_pool(), 63u);
}

TEST_F(Root_pool, The32ndReleaseEmptiesTheFreeSide) {
  std::vector<void*> blocks;
  for (int i = 0; i < 40; ++i) blocks.push_back(pool_->malloc_block());
  const unsigned long used = used_in_pool();
  for (unsigned int i = 0; i < k_malloc_side; ++i) {
    pool_->free_block(blocks[i]);
    EXPECT_EQ(pool_->uint_ar_free_count, i + 1);
    EXPECT_EQ(slot(k_malloc_side + i), reinterpret_cast<unsigned long>(blocks[i]));
  }
  EXPECT_EQ(used_in_pool(), used) << "the free side holds them; the pool still counts them in use";

  pool_->free_block(blocks[31]);
  EXPECT_EQ(pool_->uint_ar_free_count, 0u);
  EXPECT_EQ(filled(k_malloc_side, 62), 0u);
  EXPECT_EQ(used_in_pool(), used - 32) << "the 31 slots and the 32nd block went back to the pool";
}

TEST_F(Root_pool, PrepareFillsOnlyEmptySlotsAndReleaseStopsAtTheFirstEmpty) {
  void* a = pool_->malloc_block();
  void* b = pool_->malloc_block();
  const unsigned long used = used_in_pool();
  pool_->mutex_ar_atomic.lock();
  pool_->prepare_ar_atomic();
  pool_->mutex_ar_atomic.unlock();
  EXPECT_EQ(pool_->uint_ar_malloc_offset, 0u);
  EXPECT_EQ(filled(0, k_malloc_side), k_malloc_side);
  EXPECT_EQ(used_in_pool(), used + 2) << "only the two empty slots took blocks";
  EXPECT_NE(slot(0), reinterpret_cast<unsigned long>(a));

  pool_->free_block(a);
  pool_->free_block(b);
  ASSERT_EQ(pool_->uint_ar_free_count, 2u);
  pool_->mutex_ar_atomic.lock();
  pool_->release_ar_atomic();
  pool_->mutex_ar_atomic.unlock();
  EXPECT_EQ(pool_->uint_ar_free_count, 0u);
  EXPECT_EQ(filled(k_malloc_side, 62), 0u);
  EXPECT_EQ(used_in_pool(), used);
  // Nothing to do the second time.
  pool_->mutex_ar_atomic.lock();
  pool_->release_ar_atomic();
  pool_->mutex_ar_atomic.unlock();
  EXPECT_EQ(used_in_pool(), used);
}

TEST_F(Root_pool, ThreadsTakingAndGivingAtOnceNeverShareABlockAndLoseNone) {
  constexpr unsigned int k_threads = 4;
  constexpr unsigned int k_rounds = 100000;
  std::mutex mutex_held;
  std::unordered_set<void*> held;
  std::atomic<unsigned long> shared_twice{0};
  std::atomic<unsigned long> payload_damaged{0};
  std::atomic<bool> go{false};
  std::vector<std::thread> threads;
  for (unsigned int t = 0; t < k_threads; ++t) {
    threads.emplace_back([&, t] {
      std::mt19937 random(t + 1);
      std::vector<unsigned long*> mine;
      while (!go.load()) cpu_pause();
      for (unsigned int round = 0; round < k_rounds; ++round) {
        bool take = mine.empty() || (mine.size() < 64 && random() % 2 == 0);
        if (take) {
          auto* block = static_cast<unsigned long*>(pool_->malloc_block());
          {
            std::lock_guard<std::mutex> lock(mutex_held);
            if (!held.insert(block).second) ++shared_twice;
          }
          // A token over the whole payload: another holder would overwrite it.
          for (int i = 0; i < 15; ++i) block[i] = (static_cast<unsigned long>(t) << 32) | round;
          mine.push_back(block);
        } else {
          unsigned int index = random() % mine.size();
          unsigned long* block = mine[index];
          mine[index] = mine.back();
          mine.pop_back();
          for (int i = 1; i < 15; ++i) {
            if (block[i] != block[0] || (block[0] >> 32) != t) {
              ++payload_damaged;
              break;
            }
          }
          {
            std::lock_guard<std::mutex> lock(mutex_held);
            held.erase(block);
          }
          pool_->free_block(block);
        }
      }
      for (unsigned long* block : mine) {
        {
          std::lock_guard<std::mutex> lock(mutex_held);
          held.erase(block);
        }
        pool_->free_block(block);
      }
    });
  }
  go.store(true);
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(shared_twice.load(), 0u);
  EXPECT_EQ(payload_damaged.load(), 0u);
  EXPECT_TRUE(held.empty());
  // Everything came back: the pool counts in use exactly what sits in the slots.
  EXPECT_EQ(used_in_pool(), filled(0, 62));
  std::set<unsigned long> in_slots;
  for (unsigned int i = 0; i < 62; ++i) {
    if (slot(i) != 0) {
      EXPECT_TRUE(in_slots.insert(slot(i)).second) << "a block sits in two slots";
    }
  }
}

}  // namespace
}  // namespace quorla
