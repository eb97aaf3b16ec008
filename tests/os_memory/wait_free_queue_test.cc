// The wait-free queues: the single-producer ring across two real threads (nothing lost,
// nothing doubled, order kept), its room rule and wrap, the wait-release queue's overflow
// into its vector, the many-producer queue with more producers than thread slots (thread
// rings, CPU rings and vector all in use, every value delivered exactly once), the pop that
// leaves an unflagged vector alone, and the capacity abort.
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <memory>
#include <set>
#include <thread>
#include <vector>

#include "foundation/quorla_base.h"
#include "os_memory/quorla_memory_allocator.h"
#include "os_memory/quorla_wait_free_mpsc_queue.h"
#include "os_memory/quorla_wait_free_spsc_queue.h"
#include "os_memory/quorla_wait_release_queue_allocator.h"

namespace quorla {
namespace {

using Ring512 = Wait_free_spsc_queue_simple<unsigned long, 512>;

// fn_run has no context argument: what a batch runs goes through this pointer.
std::vector<unsigned long*>* g_run_slots = nullptr;
void record_slot(unsigned long* slot) { g_run_slots->push_back(slot); }

template <class Ring>
unsigned long fill_until_full(Ring& ring) {
  unsigned long pushed = 0;
  while (!ring.is_full() && pushed <= 512) ring.push(++pushed);
  return pushed;
}

TEST(SpscRing, OneEighthAlwaysStaysFree) {
  // With 447 of 512 used a push still goes in; at 448 the ring is full (55 and 56 of 64).
  auto ring = std::make_unique<Ring512>();
  EXPECT_EQ(fill_until_full(*ring), 448u);
  unsigned long value = 0;
  ASSERT_TRUE(ring->pop_t(value));
  EXPECT_EQ(value, 1u);
  EXPECT_FALSE(ring->is_full()) << "one pop makes room for exactly one push";
  ring->push(1000);
  EXPECT_TRUE(ring->is_full());
  EXPECT_EQ(fill_until_full(*std::make_unique<Wait_free_spsc_queue_simple<unsigned long, 64>>()), 56u);
}

TEST(SpscRing, PopAndBatchRunExactlyTheWrittenSlotsAcrossTheWrap) {
  std::vector<unsigned long*> run;
  g_run_slots = &run;
  auto ring = std::make_unique<Ring512>();
  ring->fn_run = &record_slot;
  unsigned long value = 77;
  EXPECT_FALSE(ring->pop_t(value));
  EXPECT_EQ(value, 77u) << "a failed pop leaves the output alone";
  EXPECT_EQ(ring->pop_run_batch(), 0u);
  EXPECT_TRUE(run.empty());

  // An empty ring whose indexes stand two slots before the end.
  ring->uint_read = ring->uint_write = 510;
  for (unsigned long i = 0; i < 5; ++i) ring->push(200 + i);
  EXPECT_NE(ring->ar_ulong_nanosecond_ready[510], 0u) << "a pushed slot carries its stamp";
  EXPECT_EQ(ring->used(), 5u);
  EXPECT_EQ(ring->pop_run_batch(), 5u);
  ASSERT_EQ(run.size(), 5u);
  for (unsigned long i = 0; i < 5; ++i) EXPECT_EQ(*run[i], 200 + i);
  EXPECT_EQ(run[0], &ring->ar_t[510]);
  EXPECT_EQ(run[2], &ring->ar_t[0]);
  EXPECT_EQ(run[4], &ring->ar_t[2]);
  EXPECT_EQ(ring->ar_ulong_nanosecond_ready[510], 0u) << "the batch clears the stamps";
  EXPECT_TRUE(ring->is_empty());

  g_run_slots = nullptr;
}

// Checks each value against the next expected one, as pop_t or a batch hands it over.
unsigned long g_next = 1;
unsigned long g_out_of_order = 0;
void check_in_sequence(unsigned long* slot) {
  if (*slot != g_next) ++g_out_of_order;
  g_next = *slot + 1;
}

TEST(SpscRing, TwoThreadsLoseNothingDoubleNothingAndKeepOrder) {
  constexpr unsigned long k_count = 2000000;
  auto ring = std::make_unique<Ring512>();
  ring->fn_run = &check_in_sequence;
  g_next = 1;
  g_out_of_order = 0;
  std::atomic<bool> stop{false};  // lets the producer go should the consumer end early
  std::thread producer([&ring, &stop] {
    for (unsigned long value = 1; value <= k_count; ++value) {
      while (ring->is_full()) {
        if (stop.load()) return;
        std::this_thread::yield();  // the machine may have fewer free cores than threads
      }
      ring->push(value);
    }
  });
  // The consumer mixes single pops (one round in four) with batches.
  unsigned long received = 0, count_mismatch = 0;
  for (unsigned long round = 0; received < k_count; ++round) {
    bool batch = (round & 3) != 0;
    unsigned long before = g_next;
    unsigned long value = 0;
    unsigned long count = batch ? ring->pop_run_batch() : ring->pop_t(value);
    if (!batch && count != 0) check_in_sequence(&value);
    if (count == 0) std::this_thread::yield();
    if (g_next - before != count) ++count_mismatch;
    received += count;
  }
  stop.store(true);
  producer.join();
  EXPECT_EQ(received, k_count);
  EXPECT_EQ(g_next, k_count + 1);
  EXPECT_EQ(g_out_of_order, 0u);
  EXPECT_EQ(count_mismatch, 0u) << "a pop ran a different number of slots than it returned";
  EXPECT_EQ(ring->pop_run_batch(), 0u) << "a value appeared twice";
}

TEST(SpscRingDeathTest, CapacityNotAPowerOfTwoOrBelow64Aborts) {
  const char* k_pattern =
      "^Error: Wait_free_spsc_queue_simple\\(\\) capacity must like 64,128,256, "
      "512,1024,2048,4096,8192,16384\\.\\.\\.\\.\r\n$";
  EXPECT_DEATH((std::make_unique<Wait_free_spsc_queue_simple<unsigned long, 48>>()), k_pattern);
  EXPECT_DEATH((std::make_unique<Wait_free_spsc_queue_simple<unsigned long, 32>>()), k_pattern);
  EXPECT_DEATH((std::make_unique<Wait_free_spsc_queue_simple<void*, 96>>()), k_pattern);
}

// Values of many producers: thread t's i-th value, 8-byte aligned and never 0.
void* make_value(unsigned int thread, unsigned long index) {
  return reinterpret_cast<void*>(((thread + 1ul) << 32) | ((index + 1) << 3));
}

// Each value of each producer exactly once, nothing else.
void expect_each_once(const std::vector<void*>& delivered, unsigned int threads, unsigned long per_thread) {
  std::vector<unsigned char> seen(threads * per_thread, 0);
  unsigned long bad = 0, not_once = 0;
  for (void* ptr : delivered) {
    unsigned long value = reinterpret_cast<unsigned long>(ptr);
    unsigned long thread = (value >> 32) - 1, index = ((value & 0xFFFFFFFFul) >> 3) - 1;
    if (thread >= threads || index >= per_thread)
      ++bad;
    else
      ++seen[thread * per_thread + index];
  }
  for (unsigned char count : seen) not_once += count != 1;
  EXPECT_EQ(bad, 0u);
  EXPECT_EQ(not_once, 0u);
  EXPECT_EQ(delivered.size(), threads * per_thread);
}

using Wait_release_64 = Memory_wait_release_queue_allocator<Memory_allocator_default, 64>;

TEST(WaitReleaseQueue, FullRingOverflowsIntoTheVectorAndEverythingComesBackOnce) {
  auto queue = std::make_unique<Wait_release_64>();
  for (unsigned long i = 0; i < 200; ++i) queue->push(static_cast<unsigned char*>(make_value(0, i)));
  EXPECT_EQ(queue->queue.used(), 56u);
  EXPECT_EQ(queue->vt_overflow.size(), 144u);
  // The ring first, in order; then the vector from its end.
  std::vector<void*> got;
  while (unsigned long value = queue->get_wait_release()) {
    got.push_back(reinterpret_cast<void*>(value));
    ASSERT_LE(got.size(), 200u) << "more values came out than went in";
  }
  ASSERT_EQ(got.size(), 200u);
  EXPECT_EQ(got[55], make_value(0, 55));
  EXPECT_EQ(got[56], make_value(0, 199));
  EXPECT_EQ(got[199], make_value(0, 56));
  expect_each_once(got, 1, 200);

  queue->push(static_cast<unsigned char*>(make_value(0, 7)));  // the ring is used again
  EXPECT_EQ(queue->queue.used(), 1u);
  EXPECT_EQ(queue->vt_overflow.size(), 0u);
}

TEST(WaitReleaseQueue, ManyPushersOneConsumerDeliverEachValueOnce) {
  auto queue = std::make_unique<Memory_wait_release_queue_allocator<Memory_allocator_default, 512>>();
  constexpr unsigned int k_threads = 4;
  constexpr unsigned long k_per_thread = 50000;
  std::atomic<unsigned int> done{0};
  std::vector<std::thread> threads;
  for (unsigned int t = 0; t < k_threads; ++t) {
    threads.emplace_back([&queue, &done, t] {
      for (unsigned long i = 0; i < k_per_thread; ++i) queue->push(static_cast<unsigned char*>(make_value(t, i)));
      done.fetch_add(1);
    });
  }
  std::vector<void*> got;
  for (;;) {
    bool finished = done.load() == k_threads;
    unsigned long value = queue->get_wait_release();
    if (value != 0) {
      got.push_back(reinterpret_cast<void*>(value));
    } else if (finished) {
      break;  // the producers had ended before this empty answer
    } else {
      cpu_pause();
    }
  }
  for (std::thread& thread : threads) thread.join();
  expect_each_once(got, k_threads, k_per_thread);
}

using Mpsc_queue = Wait_free_mpsc_queue_simple<void*, 512, Memory_allocator_default>;

std::vector<void*>* g_mpsc_delivered = nullptr;
void record_delivered(void** slot) { g_mpsc_delivered->push_back(*slot); }

class Mpsc : public ::testing::Test {
 protected:
  static constexpr unsigned int k_threads = 16;  // twice the thread slots

  void SetUp() override {
    g_mpsc_delivered = &delivered_;
    queue_->set_fn_run(&record_delivered);
  }
  void TearDown() override {
    queue_.reset();  // whatever its destructor runs still has somewhere to go
    g_mpsc_delivered = nullptr;
  }

  // All producers are alive at once (distinct thread ids), each pushing per_thread values;
  // with a consumer the calling thread runs it until every producer is done.
  void run_producers(unsigned long per_thread, bool consume_meanwhile) {
    std::atomic<unsigned int> ready{0}, done{0};
    std::vector<std::thread> threads;
    for (unsigned int t = 0; t < k_threads; ++t) {
      threads.emplace_back([this, t, per_thread, &ready, &done] {
        ready.fetch_add(1);
        while (ready.load() != k_threads) cpu_pause();
        for (unsigned long i = 0; i < per_thread; ++i) queue_->push_foreign(make_value(t, i));
        done.fetch_add(1);
        while (done.load() != k_threads) cpu_pause();  // no thread id is reused meanwhile
      });
    }
    while (consume_meanwhile && done.load() != k_threads) {
      if (queue_->uint_need_pop != 0) queue_->pop_batch();  // as malloc does: only when flagged
      cpu_pause();
    }
    for (std::thread& thread : threads) thread.join();
  }

  unsigned long in_rings(bool cpu_only = false) const {
    unsigned long total = 0;
    for (const auto& ring : queue_->ar_queue_cpu) total += ring.used();
    if (!cpu_only)
      for (const auto& ring : queue_->ar_queue_thread) total += ring.used();
    return total;
  }

  std::vector<void*> delivered_;
  std::unique_ptr<Mpsc_queue> queue_ = std::make_unique<Mpsc_queue>();
};

TEST_F(Mpsc, SixteenProducersFillThreadRingsCpuRingsAndVectorAndAllArriveOnce) {
  run_producers(2000, false);
  // Eight threads hold the slots, each ring exactly full; the other eight share the CPU rings.
  std::set<unsigned long> ids(std::begin(queue_->ar_ulong_thread_id), std::end(queue_->ar_ulong_thread_id));
  EXPECT_EQ(queue_->uint_thread_count, 8u);
  EXPECT_EQ(ids.size(), 8u);
  EXPECT_EQ(ids.count(0), 0u);
  for (unsigned int i = 0; i < 8; ++i) EXPECT_EQ(queue_->ar_queue_thread[i].used(), 448u) << "thread ring " << i;
  EXPECT_GT(in_rings(true), 0u);
  EXPECT_NE(queue_->uint_need_pop_cpu, 0u);
  // 32000 values cannot fit in 16 rings of 448: the vector holds the rest.
  EXPECT_GT(queue_->vt_overflow.size(), 0u);
  EXPECT_EQ(in_rings() + queue_->vt_overflow.size(), k_threads * 2000);
  EXPECT_TRUE(delivered_.empty()) << "nothing runs before a pop";

  queue_->pop_batch();  // one batch with the CPU flag set reaches every store once
  EXPECT_EQ(in_rings(), 0u);
  EXPECT_EQ(queue_->vt_overflow.size(), 0u);
  EXPECT_EQ(queue_->uint_need_pop, 0u);
  EXPECT_EQ(queue_->uint_need_pop_cpu, 0u);
  expect_each_once(delivered_, k_threads, 2000);
}

TEST_F(Mpsc, UnflaggedVectorWaitsForAForcedPop) {
  run_producers(2000, false);
  const unsigned long in_vector = queue_->vt_overflow.size(), in_cpu_rings = in_rings(true);
  ASSERT_GT(in_vector, 0u);
  // The flags are plain words: a racing pop can clear them after the values were stored.
  // A pop that then finds no CPU flag drains only the thread rings.
  queue_->uint_need_pop = 0;
  queue_->uint_need_pop_cpu = 0;
  queue_->pop_batch();
  EXPECT_EQ(delivered_.size(), 8u * 448u) << "only the eight full thread rings were drained";
  EXPECT_EQ(in_rings(true), in_cpu_rings);
  queue_->pop_all();
  EXPECT_EQ(queue_->vt_overflow.size(), in_vector) << "pop_all without the CPU flag leaves the vector";

  queue_->uint_need_pop_cpu += 1;  // the forced drain
  queue_->pop_all();
  EXPECT_EQ(in_rings(), 0u);
  EXPECT_EQ(queue_->vt_overflow.size(), 0u);
  expect_each_once(delivered_, k_threads, 2000);
}

TEST_F(Mpsc, ConsumerRunningMeanwhileThenForcedDrainDeliversEachOnce) {
  run_producers(20000, true);
  queue_->uint_need_pop_cpu += 1;
  queue_->pop_all();
  EXPECT_EQ(in_rings(), 0u);
  EXPECT_EQ(queue_->vt_overflow.size(), 0u);
  expect_each_once(delivered_, k_threads, 20000);
}

TEST_F(Mpsc, ReleasedThreadSlotGoesToTheNextThread) {
  std::thread([this] { queue_->push_foreign(make_value(0, 0)); }).join();
  unsigned long first_id = queue_->ar_ulong_thread_id[0];
  ASSERT_NE(first_id, 0u);
  queue_->release_thread_slot(first_id);
  EXPECT_EQ(queue_->uint_thread_count, 0u);
  EXPECT_EQ(queue_->ar_ulong_thread_id[0], 0u);
  // The next producer writes behind the unread value in the same ring.
  queue_->push_foreign(make_value(1, 0));
  EXPECT_EQ(queue_->ar_ulong_thread_id[0], static_cast<unsigned long>(pthread_self()));
  EXPECT_EQ(queue_->uint_need_pop_cpu, 0u) << "a thread ring does not raise the CPU flag";
  queue_->pop_batch();
  EXPECT_EQ(delivered_, (std::vector<void*>{make_value(0, 0), make_value(1, 0)}));
}

}  // namespace
}  // namespace quorla
