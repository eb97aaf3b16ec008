// The wait-free queues: the single-producer ring across two real threads (nothing lost,
// nothing doubled, order kept), its room rule and index arithmetic, the batch consumer,
// the wait-release queue's overflow into its vector, the many-producer queue with more
// producers than thread slots (thread rings, CPU rings and vector all in use, every value
// delivered exactly once), the pop that leaves an unflagged vector alone, and the
// capacity abort.
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <memory>
#include <set>
#include <thread>
#include <vector>

#include "foundation/quorla_base.h"
#include "foundation/quorla_machine.h"
#include "os_memory/quorla_memory_allocator.h"
#include "os_memory/quorla_wait_free_mpsc_queue.h"
#include "os_memory/quorla_wait_free_spsc_queue.h"
#include "os_memory/quorla_wait_release_queue_allocator.h"

namespace quorla {
namespace {

using Ring512 = Wait_free_spsc_queue_simple<unsigned long, 512>;
using Ring64 = Wait_free_spsc_queue_simple<unsigned long, 64>;

// fn_run has no context argument: what a batch ran is recorded here (one consumer at a time).
struct Batch_record {
  std::vector<unsigned long> vt_value;
  std::vector<const unsigned long*> vt_slot;
};
Batch_record* g_batch_record = nullptr;

void record_slot(unsigned long* slot) {
  g_batch_record->vt_value.push_back(*slot);
  g_batch_record->vt_slot.push_back(slot);
}

class Spsc_ring : public ::testing::Test {
 protected:
  void SetUp() override { g_batch_record = &record_; }
  void TearDown() override { g_batch_record = nullptr; }
  Batch_record record_;
};

// ---- Room rule, indexes, empty ring ----

TEST_F(Spsc_ring, OneEighthAlwaysStaysFree) {
  auto ring = std::make_unique<Ring512>();
  unsigned long pushed = 0;
  while (!ring->is_full()) {
    ASSERT_LT(pushed, 512u) << "the room check never said full";
    ring->push(pushed + 1);
    ++pushed;
  }
  // With 447 used the check still lets a push through; at 448 used the ring is full.
  EXPECT_EQ(pushed, 448u);
  EXPECT_EQ(ring->used(), 448u);
  EXPECT_EQ(512u - ring->used(), 64u) << "one eighth of the slots never holds a value";

  // One pop makes room for exactly one more push.
  unsigned long value = 0;
  ASSERT_TRUE(ring->pop_t(value));
  EXPECT_EQ(value, 1u);
  EXPECT_FALSE(ring->is_full());
  ring->push(1000);
  EXPECT_TRUE(ring->is_full());

  auto small = std::make_unique<Ring64>();
  unsigned long pushed_small = 0;
  while (!small->is_full()) {
    ASSERT_LT(pushed_small, 64u);
    small->push(pushed_small);
    ++pushed_small;
  }
  EXPECT_EQ(pushed_small, 56u) << "55 used still has room, 56 used is full";
}

TEST_F(Spsc_ring, EmptyRingGivesNothingAndRunsNothing) {
  auto ring = std::make_unique<Ring64>();
  ring->fn_run = &record_slot;
  unsigned long value = 77;
  EXPECT_TRUE(ring->is_empty());
  EXPECT_FALSE(ring->pop_t(value));
  EXPECT_EQ(value, 77u) << "a failed pop leaves the output alone";
  EXPECT_EQ(ring->pop_run_batch(), 0u);
  EXPECT_TRUE(record_.vt_value.empty());

  // Drained back to empty after a value went through.
  ring->push(5);
  ASSERT_TRUE(ring->pop_t(value));
  EXPECT_EQ(value, 5u);
  EXPECT_FALSE(ring->pop_t(value));
  EXPECT_EQ(ring->pop_run_batch(), 0u);
  EXPECT_TRUE(record_.vt_value.empty());
}

TEST_F(Spsc_ring, BatchFromReadZeroRunsExactlyTheWrittenSlots) {
  auto ring = std::make_unique<Ring512>();
  ring->fn_run = &record_slot;
  for (unsigned long i = 0; i < 7; ++i) ring->push(100 + i);
  ASSERT_EQ(ring->uint_read, 0u);
  ASSERT_EQ(ring->uint_write, 7u);
  EXPECT_EQ(ring->pop_run_batch(), 7u);
  ASSERT_EQ(record_.vt_value.size(), 7u);
  for (unsigned long i = 0; i < 7; ++i) EXPECT_EQ(record_.vt_value[i], 100 + i);
  EXPECT_EQ(record_.vt_slot.front(), &ring->ar_t[0]) << "the callback gets the slot's address";
  EXPECT_EQ(record_.vt_slot.back(), &ring->ar_t[6]) << "index w - 1 is the last one run";
  EXPECT_EQ(ring->uint_read, 7u);
  EXPECT_TRUE(ring->is_empty());
  for (unsigned int i = 0; i < 7; ++i) EXPECT_EQ(ring->ar_ulong_nanosecond_ready[i], 0u) << "slot " << i;
}

TEST_F(Spsc_ring, WrapAroundCountAndOrder) {
  auto ring = std::make_unique<Ring512>();
  ring->fn_run = &record_slot;
  // An empty ring whose indexes stand two slots before the end.
  ring->uint_read = 510;
  ring->uint_write = 510;
  for (unsigned long i = 0; i < 5; ++i) ring->push(200 + i);
  ASSERT_EQ(ring->uint_write, 3u);
  EXPECT_EQ(ring->used(), 5u);
  EXPECT_FALSE(ring->is_full());
  EXPECT_EQ(ring->pop_run_batch(), 5u);
  ASSERT_EQ(record_.vt_value.size(), 5u);
  for (unsigned long i = 0; i < 5; ++i) EXPECT_EQ(record_.vt_value[i], 200 + i);
  EXPECT_EQ(record_.vt_slot[0], &ring->ar_t[510]);
  EXPECT_EQ(record_.vt_slot[2], &ring->ar_t[0]);
  EXPECT_EQ(record_.vt_slot[4], &ring->ar_t[2]);
  EXPECT_EQ(ring->uint_read, 3u);

  // The same wrap taken one value at a time.
  auto small = std::make_unique<Ring64>();
  small->uint_read = 62;
  small->uint_write = 62;
  for (unsigned long i = 0; i < 4; ++i) small->push(300 + i);
  EXPECT_EQ(small->uint_write, 2u);
  EXPECT_EQ(small->used(), 4u);
  for (unsigned long i = 0; i < 4; ++i) {
    unsigned long value = 0;
    ASSERT_TRUE(small->pop_t(value));
    EXPECT_EQ(value, 300 + i);
  }
  EXPECT_TRUE(small->is_empty());
}

TEST_F(Spsc_ring, StampIsSetByPushAndClearedByPop) {
  auto ring = std::make_unique<Ring64>();
  ring->push(9);
  // Same node as the consumer: a time to read from; another node: 1. Never 0.
  EXPECT_NE(ring->ar_ulong_nanosecond_ready[0], 0u);
  unsigned long value = 0;
  ASSERT_TRUE(ring->pop_t(value));
  EXPECT_EQ(ring->ar_ulong_nanosecond_ready[0], 0u);
}

// ---- Two real threads ----

constexpr unsigned long k_stress_count = 2000000;

// The producer pushes 1..count, waiting for room as a caller must.
void produce_sequence(Ring512* ring, unsigned long count) {
  for (unsigned long value = 1; value <= count; ++value) {
    while (ring->is_full()) cpu_pause();
    ring->push(value);
  }
}

TEST_F(Spsc_ring, TwoThreadsOneByOneLoseNothingAndKeepOrder) {
  auto ring = std::make_unique<Ring512>();
  std::thread producer(produce_sequence, ring.get(), k_stress_count);
  unsigned long expected = 1;
  unsigned long out_of_order = 0;
  while (expected <= k_stress_count) {
    unsigned long value = 0;
    if (!ring->pop_t(value)) {
      cpu_pause();
      continue;
    }
    if (value != expected) ++out_of_order;
    expected = value + 1;
  }
  producer.join();
  EXPECT_EQ(out_of_order, 0u);
  EXPECT_EQ(expected, k_stress_count + 1);
  unsigned long extra = 0;
  EXPECT_FALSE(ring->pop_t(extra)) << "a value appeared twice: " << extra;
}

// Checks each value against the next expected one as the batch runs it.
struct Sequence_check {
  unsigned long ulong_next = 1;
  unsigned long ulong_run = 0;
  unsigned long ulong_out_of_order = 0;
};
Sequence_check* g_sequence_check = nullptr;

void check_in_sequence(unsigned long* slot) {
  if (*slot != g_sequence_check->ulong_next) ++g_sequence_check->ulong_out_of_order;
  g_sequence_check->ulong_next = *slot + 1;
  ++g_sequence_check->ulong_run;
}

TEST_F(Spsc_ring, TwoThreadsInBatchesLoseNothingAndKeepOrder) {
  auto ring = std::make_unique<Ring512>();
  Sequence_check check;
  g_sequence_check = &check;
  ring->fn_run = &check_in_sequence;
  std::thread producer(produce_sequence, ring.get(), k_stress_count);
  unsigned long total = 0;
  unsigned long count_mismatch = 0;
  unsigned long largest_batch = 0;
  while (total < k_stress_count) {
    unsigned long run_before = check.ulong_run;
    unsigned int count = ring->pop_run_batch();
    if (count == 0) {
      cpu_pause();
      continue;
    }
    if (check.ulong_run - run_before != count) ++count_mismatch;
    if (count > largest_batch) largest_batch = count;
    total += count;
  }
  producer.join();
  g_sequence_check = nullptr;
  EXPECT_EQ(total, k_stress_count);
  EXPECT_EQ(check.ulong_run, k_stress_count);
  EXPECT_EQ(check.ulong_out_of_order, 0u);
  EXPECT_EQ(count_mismatch, 0u) << "a batch ran a different number of slots than it returned";
  EXPECT_LE(largest_batch, 448u) << "a batch can never see more than the room rule lets in";
  EXPECT_EQ(ring->pop_run_batch(), 0u);
}

// ---- Capacity check ----

using Spsc_ring_DeathTest = Spsc_ring;

TEST_F(Spsc_ring_DeathTest, CapacityNotAPowerOfTwoOrBelow64Aborts) {
  const char* k_pattern =
      "^Error: Wait_free_spsc_queue_simple\\(\\) capacity must like 64,128,256, "
      "512,1024,2048,4096,8192,16384\\.\\.\\.\\.\r\n$";
  using Ring48 = Wait_free_spsc_queue_simple<unsigned long, 48>;
  using Ring32 = Wait_free_spsc_queue_simple<unsigned long, 32>;
  using Ring96 = Wait_free_spsc_queue_simple<void*, 96>;
  EXPECT_DEATH(std::make_unique<Ring48>(), k_pattern);
  EXPECT_DEATH(std::make_unique<Ring32>(), k_pattern);
  EXPECT_DEATH(std::make_unique<Ring96>(), k_pattern);
}

// ---- The wait-release queue: ring, then vector ----

using Wait_release_64 = Memory_wait_release_queue_allocator<Memory_allocator_default, 64>;
using Wait_release_512 = Memory_wait_release_queue_allocator<Memory_allocator_default, 512>;

unsigned char* as_pointer(unsigned long value) { return reinterpret_cast<unsigned char*>(value); }

TEST(Wait_release_queue, FullRingOverflowsIntoTheVectorAndEverythingComesBackOnce) {
  auto queue = std::make_unique<Wait_release_64>();
  constexpr unsigned long k_count = 200;
  for (unsigned long i = 1; i <= k_count; ++i) queue->push(as_pointer(i * 16));
  EXPECT_EQ(queue->queue.used(), 56u);
  EXPECT_EQ(queue->vt_overflow.size(), k_count - 56);
  EXPECT_GE(queue->vt_overflow.capacity(), 64u * 8) << "the first overflow reserves N * 8 entries";

  // The ring first, in order; then the vector from its end.
  std::vector<unsigned long> got;
  for (;;) {
    unsigned long value = queue->get_wait_release();
    if (value == 0) break;
    got.push_back(value);
    ASSERT_LE(got.size(), k_count) << "more values came out than went in";
  }
  ASSERT_EQ(got.size(), k_count);
  for (unsigned long i = 0; i < 56; ++i) EXPECT_EQ(got[i], (i + 1) * 16);
  for (unsigned long i = 56; i < k_count; ++i) EXPECT_EQ(got[i], (k_count - (i - 56)) * 16);
  EXPECT_EQ(queue->get_wait_release(), 0u);
  EXPECT_EQ(queue->vt_overflow.size(), 0u);

  // The ring is used again once it has room.
  queue->push(as_pointer(4096));
  EXPECT_EQ(queue->queue.used(), 1u);
  EXPECT_EQ(queue->vt_overflow.size(), 0u);
  EXPECT_EQ(queue->get_wait_release(), 4096u);
}

TEST(Wait_release_queue, ManyPushersOneConsumerDeliverEachValueOnce) {
  auto queue = std::make_unique<Wait_release_512>();
  constexpr unsigned int k_threads = 4;
  constexpr unsigned long k_per_thread = 50000;
  std::atomic<unsigned int> done{0};
  std::vector<std::thread> threads;
  for (unsigned int t = 0; t < k_threads; ++t) {
    threads.emplace_back([&queue, &done, t] {
      for (unsigned long i = 0; i < k_per_thread; ++i) queue->push(as_pointer(((t + 1ul) << 32) | (i + 1)));
      done.fetch_add(1);
    });
  }
  std::vector<unsigned char> seen(k_threads * k_per_thread, 0);
  unsigned long bad = 0;
  unsigned long received = 0;
  auto take = [&](unsigned long value) {
    unsigned long thread = (value >> 32) - 1;
    unsigned long index = (value & 0xFFFFFFFFul) - 1;
    if (thread >= k_threads || index >= k_per_thread) {
      ++bad;
      return;
    }
    ++seen[thread * k_per_thread + index];
    ++received;
  };
  for (;;) {
    bool finished = done.load() == k_threads;
    unsigned long value = queue->get_wait_release();
    if (value != 0) {
      take(value);
      continue;
    }
    if (finished) break;  // the producers had ended before this empty answer
    cpu_pause();
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(bad, 0u);
  EXPECT_EQ(received, k_threads * k_per_thread);
  unsigned long not_once = 0;
  for (unsigned char count : seen) not_once += count != 1;
  EXPECT_EQ(not_once, 0u);
}

// ---- The many-producer queue ----

using Mpsc_queue = Wait_free_mpsc_queue_simple<void*, 512, Memory_allocator_default>;

// Every delivered pointer, in delivery order (one consumer).
std::vector<void*>* g_mpsc_delivered = nullptr;
void record_delivered(void** slot) { g_mpsc_delivered->push_back(*slot); }

void* make_value(unsigned int thread, unsigned long index) {
  return reinterpret_cast<void*>(((thread + 1ul) << 32) | ((index + 1) << 3));
}

class Mpsc : public ::testing::Test {
 protected:
  static constexpr unsigned int k_threads = 16;  // twice the thread slots

  void SetUp() override {
    g_mpsc_delivered = &delivered_;
    queue_ = std::make_unique<Mpsc_queue>();
    queue_->set_fn_run(&record_delivered);
  }
  void TearDown() override {
    queue_.reset();
    g_mpsc_delivered = nullptr;
  }

  // All producers are alive at once (distinct thread ids), each pushing per_thread values;
  // with a consumer the calling thread runs it until every producer is done.
  void run_producers(unsigned long per_thread, bool consume_meanwhile) {
    std::atomic<unsigned int> ready{0};
    std::atomic<bool> go{false};
    std::atomic<unsigned int> done{0};
    std::vector<std::thread> threads;
    for (unsigned int t = 0; t < k_threads; ++t) {
      threads.emplace_back([this, t, per_thread, &ready, &go, &done] {
        ready.fetch_add(1);
        while (!go.load()) cpu_pause();
        for (unsigned long i = 0; i < per_thread; ++i) queue_->push_foreign(make_value(t, i));
        done.fetch_add(1);
        // Stay alive until all have pushed, so that no thread id is reused.
        while (done.load() != k_threads) cpu_pause();
      });
    }
    while (ready.load() != k_threads) cpu_pause();
    go.store(true);
    if (consume_meanwhile) {
      while (done.load() != k_threads) {
        // As malloc does: a batch only when a producer raised the flag.
        if (queue_->uint_need_pop != 0) queue_->pop_batch();
        cpu_pause();
      }
    }
    for (std::thread& thread : threads) thread.join();
  }

  // Each value of each producer delivered exactly once, nothing else delivered.
  void expect_each_once(unsigned long per_thread) {
    std::vector<unsigned char> seen(k_threads * per_thread, 0);
    unsigned long bad = 0;
    for (void* ptr : delivered_) {
      unsigned long value = reinterpret_cast<unsigned long>(ptr);
      unsigned long thread = (value >> 32) - 1;
      unsigned long index = ((value & 0xFFFFFFFFul) >> 3) - 1;
      if (thread >= k_threads || index >= per_thread) {
        ++bad;
        continue;
      }
      ++seen[thread * per_thread + index];
    }
    EXPECT_EQ(bad, 0u);
    EXPECT_EQ(delivered_.size(), k_threads * per_thread);
    unsigned long missing = 0;
    unsigned long doubled = 0;
    for (unsigned char count : seen) {
      missing += count == 0;
      doubled += count > 1;
    }
    EXPECT_EQ(missing, 0u);
    EXPECT_EQ(doubled, 0u);
  }

  unsigned long values_in_rings() const {
    unsigned long total = 0;
    for (const auto& ring : queue_->ar_queue_thread) total += ring.used();
    for (const auto& ring : queue_->ar_queue_cpu) total += ring.used();
    return total;
  }

  std::vector<void*> delivered_;
  std::unique_ptr<Mpsc_queue> queue_;
};

TEST_F(Mpsc, SixteenProducersFillThreadRingsCpuRingsAndVectorAndAllArriveOnce) {
  constexpr unsigned long k_per_thread = 2000;
  run_producers(k_per_thread, false);

  // Eight threads hold the slots; the other eight had to share the CPU rings.
  EXPECT_EQ(queue_->uint_thread_count, 8u);
  EXPECT_EQ(queue_->uint_thread_queue_size, 8u);
  std::set<unsigned long> ids(std::begin(queue_->ar_ulong_thread_id), std::end(queue_->ar_ulong_thread_id));
  EXPECT_EQ(ids.size(), 8u);
  EXPECT_EQ(ids.count(0), 0u);
  // Every slot holder pushed more than its ring takes: each thread ring is exactly full.
  for (unsigned int i = 0; i < 8; ++i) EXPECT_EQ(queue_->ar_queue_thread[i].used(), 448u) << "thread ring " << i;
  unsigned long in_cpu_rings = 0;
  for (const auto& ring : queue_->ar_queue_cpu) in_cpu_rings += ring.used();
  EXPECT_GT(in_cpu_rings, 0u);
  EXPECT_NE(queue_->uint_need_pop_cpu, 0u);
  EXPECT_NE(queue_->uint_need_pop, 0u);
  // 32000 values cannot fit in 16 rings of 448: the vector holds the rest.
  EXPECT_EQ(values_in_rings() + queue_->vt_overflow.size(), k_threads * k_per_thread);
  EXPECT_GT(queue_->vt_overflow.size(), 0u);
  EXPECT_TRUE(delivered_.empty()) << "nothing runs before a pop";

  // One batch with the CPU flag set reaches every store once.
  queue_->pop_batch();
  EXPECT_EQ(values_in_rings(), 0u);
  EXPECT_EQ(queue_->vt_overflow.size(), 0u);
  EXPECT_EQ(queue_->uint_need_pop, 0u);
  EXPECT_EQ(queue_->uint_need_pop_cpu, 0u);
  expect_each_once(k_per_thread);
}

TEST_F(Mpsc, UnflaggedVectorWaitsForAForcedPop) {
  constexpr unsigned long k_per_thread = 2000;
  run_producers(k_per_thread, false);
  const unsigned int in_vector = queue_->vt_overflow.size();
  ASSERT_GT(in_vector, 0u);
  unsigned long in_cpu_rings = 0;
  for (const auto& ring : queue_->ar_queue_cpu) in_cpu_rings += ring.used();
  ASSERT_GT(in_cpu_rings, 0u);

  // The flags are plain words: a racing pop can clear them after the values were stored.
  // A pop that then finds no CPU flag drains only the thread rings.
  queue_->uint_need_pop = 0;
  queue_->uint_need_pop_cpu = 0;
  queue_->pop_batch();
  EXPECT_EQ(delivered_.size(), 8u * 448u) << "only the eight full thread rings were drained";
  EXPECT_EQ(queue_->vt_overflow.size(), in_vector) << "the vector was left alone";
  unsigned long cpu_after = 0;
  for (const auto& ring : queue_->ar_queue_cpu) cpu_after += ring.used();
  EXPECT_EQ(cpu_after, in_cpu_rings) << "the CPU rings were left alone";
  queue_->pop_all();
  EXPECT_EQ(queue_->vt_overflow.size(), in_vector) << "pop_all without the CPU flag leaves it too";

  // The forced drain: raise the CPU flag, then pop everything.
  queue_->uint_need_pop_cpu += 1;
  queue_->pop_all();
  EXPECT_EQ(queue_->vt_overflow.size(), 0u);
  EXPECT_EQ(values_in_rings(), 0u);
  expect_each_once(k_per_thread);
}

TEST_F(Mpsc, ConsumerRunningMeanwhileThenForcedDrainDeliversEachOnce) {
  constexpr unsigned long k_per_thread = 20000;
  run_producers(k_per_thread, true);
  queue_->uint_need_pop_cpu += 1;
  queue_->pop_all();
  EXPECT_EQ(values_in_rings(), 0u);
  EXPECT_EQ(queue_->vt_overflow.size(), 0u);
  expect_each_once(k_per_thread);
}

TEST_F(Mpsc, ReleasedThreadSlotGoesToTheNextThread) {
  std::thread first([this] { queue_->push_foreign(make_value(0, 0)); });
  first.join();
  ASSERT_EQ(queue_->uint_thread_count, 1u);
  unsigned long first_id = queue_->ar_ulong_thread_id[0];
  ASSERT_NE(first_id, 0u);
  queue_->release_thread_slot(first_id);
  EXPECT_EQ(queue_->uint_thread_count, 0u);
  EXPECT_EQ(queue_->ar_ulong_thread_id[0], 0u);
  EXPECT_EQ(queue_->uint_thread_queue_size, 1u) << "the size is never lowered";

  // The next producer writes behind the unread value in the same ring.
  queue_->push_foreign(make_value(1, 0));
  EXPECT_EQ(queue_->ar_ulong_thread_id[0], static_cast<unsigned long>(pthread_self()));
  EXPECT_EQ(queue_->ar_queue_thread[0].used(), 2u);
  EXPECT_EQ(queue_->uint_need_pop_cpu, 0u) << "a thread ring does not raise the CPU flag";
  queue_->pop_batch();
  ASSERT_EQ(delivered_.size(), 2u);
  EXPECT_EQ(delivered_[0], make_value(0, 0));
  EXPECT_EQ(delivered_[1], make_value(1, 0));
}

}  // namespace
}  // namespace quorla
