// The metadata pools: the pool algorithm on a pool with counting policies, the per-CPU
// pool's queued releases, the 120-byte realloc limit, and the root pool's slots, alone and
// shared by several threads.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <thread>
#include <tuple>
#include <unordered_set>
#include <vector>

#include "startup/quorla_memory_settings.h"
#include "page_heap/quorla_memory_pool.h"
#include "page_heap/quorla_memory_pool_base.h"
#include "page_heap/quorla_pool_size_128_policy.h"

namespace quorla {
namespace {

// ---- tracking policies: records (A), areas and vectors (B) from one checked heap --------

struct Policy_counts {
  std::map<void*, unsigned long> map_live;  // every live block and its size
  unsigned long ulong_area_byte = 0;        // the size that marks a block as an area
  unsigned long ulong_area_free = 0;
};
Policy_counts g_counts;

// Page-aligned like the library's page supply, so that the first-touch mark can be checked.
struct Malloc_tracked {
  void* operator()(unsigned long& size) const {
    return g_counts.map_live.emplace(aligned_alloc(4096, (size + 4095) & ~4095ul), size).first->first;
  }
};
struct Free_tracked {
  void operator()(void* ptr, unsigned long size) const {
    auto it = g_counts.map_live.find(ptr);
    ASSERT_NE(it, g_counts.map_live.end()) << "freed a block never given: " << ptr;
    EXPECT_EQ(it->second, size) << "freed with another size than given";
    g_counts.ulong_area_free += size == g_counts.ulong_area_byte;
    g_counts.map_live.erase(it);
    ::free(ptr);
  }
};
struct Realloc_tracked {
  void* operator()(void* ptr, unsigned long old_size, unsigned long& new_size) const {
    void* block = memcpy(Malloc_tracked()(new_size), ptr, std::min(old_size, new_size));
    Free_tracked()(ptr, old_size);
    return block;
  }
};

using Tracked = Memory_allocator<Malloc_tracked, Realloc_tracked, Free_tracked>;
using Test_pool = Memory_pool_without_lock<Tracked, Tracked>;
using Test_piece = Test_pool::Piece;
constexpr unsigned int k_none = 0xFFFFFFFF;

// A block's bit in its piece's bitmap: set while the block is handed out.
template <class Piece>
bool in_use(Piece* piece, void* block) {
  const unsigned long bit = (static_cast<unsigned char*>(block) - 8 - piece->ptr_byte_block) / piece->uint_block_byte;
  return (piece->ptr_ulong[bit >> 6] >> (bit & 63)) & 1;
}

class Pool_algorithm : public ::testing::Test {
 protected:
  void TearDown() override { check_and_drop_pool(); }
  void check_and_drop_pool() {
    pool_.reset();
    EXPECT_TRUE(g_counts.map_live.empty()) << "the pool's destruction left records or areas behind";
    g_counts = Policy_counts();
  }
  // A zero-filled pool plus set-up (at least one piece kept), with its first piece.
  Test_pool& make_pool(unsigned int pitch, Test_pool::Page_type_function get_page_type = nullptr) {
    g_counts.ulong_area_byte = 512ul * pitch;
    pool_.reset(new Test_pool());
    pool_->set_up(pitch, 1, get_page_type, 0);
    pool_->append_vt_normal();
    return *pool_;
  }
  std::vector<void*> take(unsigned int count) {
    std::vector<void*> blocks(count);
    for (void*& block : blocks) block = pool_->pool_malloc();
    return blocks;
  }
  static Test_piece* piece_of(void* block) { return Test_pool::piece_of_block(block); }

  std::unique_ptr<Test_pool> pool_;
};

// All 512 blocks are taken before any payload is written, so that a payload reaching into
// the next block's back pointer is not hidden by a later take rewriting it.
TEST_F(Pool_algorithm, FirstPieceServesItsBlocksInOrderWithBackPointers) {
  for (unsigned int pitch : {128u, 120u, 512u}) {
    SCOPED_TRACE(pitch);
    Test_piece* piece = make_pool(pitch).ptr_first_normal;
    ASSERT_NE(piece, nullptr);
    std::vector<void*> blocks = take(512);
    for (unsigned int i = 0; i < 512; ++i) {
      ASSERT_EQ(blocks[i], piece->ptr_byte_block + 8ul + i * pitch) << "block " << i;
      memset(blocks[i], 0xA5, pitch - 8);  // the payload is pitch - 8 bytes
    }
    EXPECT_EQ(pool_->get_piece_count(), 1u) << "512 blocks fit in one piece";
    for (unsigned int i = 0; i < 512; ++i) {
      ASSERT_EQ(piece_of(blocks[i]), piece) << "back pointer of block " << i << " damaged";
      Test_pool::free(blocks[i]);
      ASSERT_FALSE(in_use(piece, blocks[i]));
    }
    EXPECT_EQ(piece->uint_free_bit, 512u);
    EXPECT_EQ(g_counts.ulong_area_free, 0u) << "the only piece is kept when it empties";
    check_and_drop_pool();
  }
}

// A used-up piece is set aside only when the next take needs it; it comes back, at the end
// of the line and without taking the lead, at its 64th free block, and the last entry of the
// full list fills the hole it leaves there.
TEST_F(Pool_algorithm, AUsedUpPieceGoesAsideAndComesBackAtSixtyFourFree) {
  Test_pool& pool = make_pool(128);
  std::vector<void*> a = take(512);
  EXPECT_EQ(pool.vt_full.size(), 0u);
  std::vector<void*> b = take(512), c = take(512);  // set aside in turn
  Test_piece *piece_a = piece_of(a[0]), *piece_c = piece_of(c[0]), *piece_d = piece_of(pool.pool_malloc());
  ASSERT_EQ(pool.vt_full.size(), 3u);
  EXPECT_EQ(pool.vt_full[0].ptr_t, piece_a);
  EXPECT_EQ(piece_a->uint_offset_normal, k_none);
  EXPECT_EQ(piece_a->uint_offset_full, 0u);
  EXPECT_EQ(piece_c->uint_offset_full, 2u);

  for (int i = 0; i < 63; ++i) Test_pool::free(a[i * 7]);
  EXPECT_EQ(pool.vt_full.size(), 3u) << "63 free blocks are not enough";
  Test_pool::free(a[500]);
  ASSERT_EQ(pool.vt_full.size(), 2u);
  EXPECT_EQ(pool.vt_full[0].ptr_t, piece_c) << "the last entry fills the hole";
  EXPECT_EQ(piece_c->uint_offset_full, 0u);
  ASSERT_EQ(pool.vt_normal.size(), 2u);
  EXPECT_EQ(pool.vt_normal[1].ptr_t, piece_a) << "it goes to the end of the line";
  EXPECT_EQ(piece_a->uint_offset_normal, 1u);
  EXPECT_EQ(piece_a->uint_offset_full, k_none);
  EXPECT_EQ(pool.ptr_first_normal, piece_d) << "no piece takes the lead";
  EXPECT_EQ(piece_of(pool.pool_malloc()), piece_d);
  take(510);  // piece d used up: the next take sets it aside and piece a leads from index 0
  EXPECT_EQ(piece_of(pool.pool_malloc()), piece_a);
  EXPECT_EQ(piece_a->uint_offset_normal, 0u);
  for (int i = 0; i < 64; ++i) Test_pool::free(c[i]);  // c leaves the full list from its new place
  EXPECT_EQ(pool.vt_full.size(), 2u);
  EXPECT_EQ(piece_c->uint_offset_full, k_none);
  EXPECT_EQ(pool.vt_normal[piece_c->uint_offset_normal].ptr_t, piece_c);
}

TEST_F(Pool_algorithm, AnEmptyPieceGoesOnlyWhileMoreThanTheMinimumRemain) {
  Test_pool& pool = make_pool(128);
  std::vector<void*> first = take(512), second = take(10);
  Test_piece* piece1 = piece_of(first[0]);
  for (int i = 0; i < 64; ++i) Test_pool::free(first[i]);  // piece 1 back in line behind piece 2
  ASSERT_EQ(pool.vt_normal[0].ptr_t, piece_of(second[0]));
  // Piece 2, at index 0, empties: it and its area go, piece 1 takes its index and the lead.
  for (void* block : second) Test_pool::free(block);
  EXPECT_EQ(g_counts.ulong_area_free, 1u);
  ASSERT_EQ(pool.vt_normal.size(), 1u);
  EXPECT_EQ(pool.vt_normal[0].ptr_t, piece1);
  EXPECT_EQ(piece1->uint_offset_normal, 0u);
  EXPECT_EQ(pool.pool_malloc(), first[0]) << "the next take comes from the new lead";
  // Piece 1 is now the only one: emptying it keeps it and its area.
  Test_pool::free(first[0]);
  for (int i = 64; i < 512; ++i) Test_pool::free(first[i]);
  EXPECT_EQ(pool.get_piece_count(), 1u);
  EXPECT_EQ(g_counts.ulong_area_free, 1u);
}

unsigned char page_type_huge(void*) { return 1; }
unsigned char page_type_ordinary(void*) { return 0; }

// The mark advances one page at a time over ordinary pages; a huge page or prefault switch
// it off.
TEST_F(Pool_algorithm, FirstTouchMark) {
  const bool saved_prefault = g_bool_memory_enable_page_prefault;
  using Case = std::tuple<bool, Test_pool::Page_type_function, bool>;  // prefault, page type -> marks
  for (const Case& c : {Case{false, &page_type_ordinary, true}, Case{false, nullptr, true},
                        Case{false, &page_type_huge, false}, Case{true, nullptr, false}}) {
    const bool marks = std::get<2>(c);
    g_bool_memory_enable_page_prefault = std::get<0>(c);
    Test_piece* piece = make_pool(128, std::get<1>(c)).ptr_first_normal;
    const unsigned long area = reinterpret_cast<unsigned long>(piece->ptr_byte_block);
    EXPECT_EQ(piece->ptr_byte_touch, marks ? 0 : ~0ul);
    take(32);  // 32 blocks of 128 in a page
    EXPECT_EQ(piece->ptr_byte_touch, marks ? area | 4095 : ~0ul);
    take(1);
    EXPECT_EQ(piece->ptr_byte_touch, marks ? (area + 4096) | 4095 : ~0ul);
    check_and_drop_pool();
  }
  g_bool_memory_enable_page_prefault = saved_prefault;
}

// ---- the per-CPU pools -----------------------------------------------------------------

// On a thread bound to one CPU, so that every call lands on the same entry: a release only
// waits in the queue and is applied at the entry's next take, which finds the block again.
TEST(Pool_part_cpu, ReleasesWaitInTheQueueUntilTheEntrysNextTake) {
  std::thread([] {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<unsigned int>(sched_getcpu()), &set);
    pthread_setaffinity_np(pthread_self(), sizeof(set), &set);
    unsigned long size = 120;
    void* block = Malloc_pool_size_128()(size);
    auto* pool = static_cast<Memory_pool_size_128*>(Memory_pool_size_128::pool_of_block(block));
    EXPECT_EQ(pool, &g_ar_memory_pool_size_128[pool->uint_part_cpu_offset]);
    Free_pool_size_128()(block, 120);
    EXPECT_TRUE(in_use(Memory_pool_size_128::piece_of_block(block), block)) << "a release is only queued";
    EXPECT_NE(pool->uint_wait_release_count, 0u);
    void* next = Malloc_pool_size_128()(size);
    EXPECT_EQ(pool->uint_wait_release_count, 0u);
    EXPECT_TRUE(pool->queue_wait_release.queue.is_empty());
    EXPECT_EQ(next, block) << "the applied release moved the cursor back to the block";
    Free_pool_size_128()(next, 120);
  }).join();
}

// ---- the 120-byte limit ----------------------------------------------------------------

TEST(Pool_realloc_DeathTest, UpTo120BytesTheSameBlockAboveAbortsWithTheLine) {
  alignas(16) unsigned char storage[128];
  for (unsigned long size : {120ul, 1ul}) EXPECT_EQ(Realloc_pool_size_128()(storage, 120, size), storage);
  unsigned long size = 120;
  EXPECT_EQ(Realloc_pool_size_128_base()(storage, 64, size), storage);
  auto* ptr = reinterpret_cast<void*>(0x7f00dead0);
  const std::string line = "^Error: Realloc_pool_size_128::operator\\(\\) Not support realloc\\. ptr_void_in=00000007f00dead0, ";
  EXPECT_DEATH((size = 121, Realloc_pool_size_128()(ptr, 120, size)), line + "old_size=120, new_size=121\r\n$");
  EXPECT_DEATH((size = 4096, Realloc_pool_size_128_base()(ptr, 8, size)), line + "old_size=8, new_size=4096\r\n$");
}

// ---- the root pool and its slots -------------------------------------------------------

// A root pool of its own (records in the before-init heap, areas mapped), so that the test
// sees its slots alone: 31 on the malloc side, 31 on the free side.
class Root_pool : public ::testing::Test {
 protected:
  static constexpr unsigned int k_side = 31;
  unsigned long slot(unsigned int index) const { return pool_->ar_atomic_ptr[index].load(); }
  unsigned int filled(unsigned int first, unsigned int end) const {
    auto full = [](const std::atomic<unsigned long>& s) { return s.load() != 0; };
    return static_cast<unsigned int>(std::count_if(pool_->ar_atomic_ptr + first, pool_->ar_atomic_ptr + end, full));
  }
  // Blocks the pool behind the slots counts as in use.
  unsigned long used_in_pool() const { return pool_->get_piece_count() * 512ul - pool_->get_free_bit_count(); }
  unsigned long block_at(unsigned int bit) const {
    return reinterpret_cast<unsigned long>(pool_->vt_normal[0].ptr_t->ptr_byte_block + bit * 128ul + 8);
  }
  unsigned long take() { return reinterpret_cast<unsigned long>(pool_->malloc_block()); }
  void locked(void (Memory_pool_size_128_base::*step)()) {
    pool_->mutex_ar_atomic.lock();
    (pool_.get()->*step)();
    pool_->mutex_ar_atomic.unlock();
  }

  std::unique_ptr<Memory_pool_size_128_base> pool_ = std::make_unique<Memory_pool_size_128_base>();
};

// Construction fills the malloc side; after 31 takes the next refills every slot first and
// then takes a block from the pool itself. The free side holds 31 releases; the 32nd sends
// them and itself back to the pool.
TEST_F(Root_pool, EachSideIsRefilledOrEmptiedWholeAtItsLimit) {
  EXPECT_EQ(used_in_pool(), 31u);
  EXPECT_EQ(filled(k_side, 2 * k_side), 0u);
  std::vector<unsigned long> blocks;
  for (unsigned int i = 0; i < k_side; ++i) {
    EXPECT_EQ(slot(i), block_at(i)) << i;
    blocks.push_back(take());
    EXPECT_EQ(blocks.back(), block_at(i)) << "slot " << i;
    EXPECT_EQ(pool_->uint_ar_malloc_offset, i + 1);
  }
  EXPECT_EQ(filled(0, k_side), 0u);
  blocks.push_back(take());
  EXPECT_EQ(blocks.back(), block_at(62));
  EXPECT_EQ(pool_->uint_ar_malloc_offset, 0u);
  for (unsigned int i = 0; i < k_side; ++i) EXPECT_EQ(slot(i), block_at(31 + i));
  EXPECT_EQ(used_in_pool(), 63u);

  for (unsigned int i = 0; i < k_side; ++i) pool_->free_block(reinterpret_cast<void*>(blocks[i]));
  for (unsigned int i = 0; i < k_side; ++i) EXPECT_EQ(slot(k_side + i), blocks[i]);
  EXPECT_EQ(used_in_pool(), 63u) << "the free side holds them; the pool still counts them in use";
  pool_->free_block(reinterpret_cast<void*>(blocks[31]));
  EXPECT_EQ(pool_->uint_ar_free_count, 0u);
  EXPECT_EQ(filled(k_side, 2 * k_side), 0u);
  EXPECT_EQ(used_in_pool(), 63u - 32) << "the 31 slots and the 32nd block went back to the pool";
}

TEST_F(Root_pool, PrepareFillsOnlyEmptySlotsAndReleaseStopsAtTheFirstEmpty) {
  void* a = pool_->malloc_block();
  void* b = pool_->malloc_block();
  const unsigned long used = used_in_pool();
  locked(&Memory_pool_size_128_base::prepare_ar_atomic);
  EXPECT_EQ(pool_->uint_ar_malloc_offset, 0u);
  EXPECT_EQ(filled(0, k_side), k_side);
  EXPECT_EQ(used_in_pool(), used + 2) << "only the two empty slots took blocks";
  EXPECT_NE(slot(0), reinterpret_cast<unsigned long>(a));
  pool_->free_block(a);
  pool_->free_block(b);
  ASSERT_EQ(pool_->uint_ar_free_count, 2u);
  for (int twice = 0; twice < 2; ++twice) {  // nothing to do the second time
    locked(&Memory_pool_size_128_base::release_ar_atomic);
    EXPECT_EQ(pool_->uint_ar_free_count, 0u);
    EXPECT_EQ(filled(k_side, 2 * k_side), 0u);
    EXPECT_EQ(used_in_pool(), used);
  }
}

TEST_F(Root_pool, ThreadsTakingAndGivingAtOnceNeverShareABlockAndLoseNone) {
  std::mutex mutex_held;
  std::unordered_set<void*> held;
  std::atomic<unsigned long> shared_twice{0}, payload_damaged{0};
  std::atomic<bool> go{false};
  auto give_back = [&](unsigned long* block) {
    { std::lock_guard<std::mutex> lock(mutex_held); held.erase(block); }
    pool_->free_block(block);
  };
  std::vector<std::thread> threads;
  for (unsigned int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      std::mt19937 random(t + 1);
      std::vector<unsigned long*> mine;
      while (!go.load()) cpu_pause();
      for (unsigned int round = 0; round < 100000; ++round) {
        if (mine.empty() || (mine.size() < 64 && random() % 2 == 0)) {
          auto* block = static_cast<unsigned long*>(pool_->malloc_block());
          { std::lock_guard<std::mutex> lock(mutex_held); shared_twice += !held.insert(block).second; }
          // A token over the whole payload: another holder would overwrite it.
          std::fill(block, block + 15, (static_cast<unsigned long>(t) << 32) | round);
          mine.push_back(block);
        } else {
          std::swap(mine[random() % mine.size()], mine.back());
          unsigned long* block = mine.back();
          mine.pop_back();
          payload_damaged += (block[0] >> 32) != t || std::count(block, block + 15, block[0]) != 15;
          give_back(block);
        }
      }
      for (unsigned long* block : mine) give_back(block);
    });
  }
  go.store(true);
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(shared_twice.load(), 0u);
  EXPECT_EQ(payload_damaged.load(), 0u);
  EXPECT_TRUE(held.empty());
  // Everything came back: the pool counts in use exactly what sits in the slots, once each.
  EXPECT_EQ(used_in_pool(), filled(0, 2 * k_side));
  std::set<unsigned long> in_slots;
  for (unsigned int i = 0; i < 2 * k_side; ++i)
    EXPECT_TRUE(slot(i) == 0 || in_slots.insert(slot(i)).second) << "a block sits in two slots";
}

}  // namespace
}  // namespace quorla
