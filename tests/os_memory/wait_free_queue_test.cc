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
#include "page_heap/quorla_memory_allocator.h"
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

TEST(SpscRing, RoomRulePopAndBatchAcrossTheWrap) {
  // One eighth always stays free: full at 448 of 512 and at 56 of 64.
  EXPECT_EQ(fill_until_full(*std::make_unique<Wait_free_spsc_queue_simple<unsigned long, 64>>()), 56u);
  std::vector<unsigned long*> run;
  g_run_slots = &run;
  auto ring = std::make_unique<Ring512>();
  ring->fn_run = &record_slot;
  unsigned long value = 77;
  EXPECT_FALSE(ring->pop_t(value));
  EXPECT_EQ(value, 77u) << "a failed pop leaves the output alone";
  EXPECT_EQ(ring->pop_run_batch(), 0u);
  EXPECT_EQ(fill_until_full(*ring), 448u);
  ASSERT_TRUE(ring->pop_t(value));
  EXPECT_EQ(value, 1u);
  EXPECT_TRUE(run.empty()) << "neither an empty batch nor pop_t runs a slot";
  EXPECT_FALSE(ring->is_full()) << "one pop makes room for exactly one push";
  ring->push(1000);
  EXPECT_TRUE(ring->is_full());
  EXPECT_EQ(ring->pop_run_batch(), 448u);
  run.clear();

  // Now empty; its indexes are moved to two slots before the end.
  ring->uint_read = ring->uint_write = 510;
  for (unsigned long i = 0; i < 5; ++i) ring->push(200 + i);
  EXPECT_NE(ring->ar_ulong_nanosecond_ready[510], 0u) << "a pushed slot carries its stamp";
  EXPECT_EQ(ring->used(), 5u);
  EXPECT_EQ(ring->pop_run_batch(), 5u);
  ASSERT_EQ(run.size(), 5u);
  for (unsigned long i = 0; i < 5; ++i) {
    EXPECT_EQ(run[i], &ring->ar_t[(510 + i) % 512]) << i;
    EXPECT_EQ(*run[i], 200 + i);
  }
  EXPECT_EQ(ring->ar_ulong_nanosecond_ready[510], 0u) << "the batch clears the stamps";
  EXPECT_TRUE(ring->is_empty());
  g_run_slots = nullptr;
}

// Runs `threads` producers, all alive at once (distinct thread ids, none reused meanwhile),
// producer t calling push(t, i) for each i below per_thread; the calling thread runs consume()
// until every producer is done.
template <class Push, class Consume>
void run_producers(unsigned int threads, unsigned long per_thread, Push push, Consume consume) {
  std::atomic<unsigned int> ready{0}, done{0};
  std::vector<std::thread> producers;
  for (unsigned int t = 0; t < threads; ++t) {
    producers.emplace_back([&, t] {
      ready.fetch_add(1);
      while (ready.load() != threads) std::this_thread::yield();
      for (unsigned long i = 0; i < per_thread; ++i) push(t, i);
      done.fetch_add(1);
      while (done.load() != threads) std::this_thread::yield();
    });
  }
  while (done.load() != threads) {
    consume();
    cpu_pause();
  }
  for (std::thread& producer : producers) producer.join();
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
  // The consumer mixes single pops (one round in four) with batches.
  unsigned long received = 0, count_mismatch = 0, round = 0;
  auto consume = [&] {
    bool batch = (round++ & 3) != 0;
    unsigned long before = g_next, value = 0;
    unsigned long count = batch ? ring->pop_run_batch() : ring->pop_t(value);
    if (!batch && count != 0) check_in_sequence(&value);
    if (count == 0) std::this_thread::yield();  // the machine may have fewer free cores than threads
    if (g_next - before != count) ++count_mismatch;
    received += count;
    return count;
  };
  run_producers(1, k_count, [&ring](unsigned int, unsigned long i) {
    while (ring->is_full()) std::this_thread::yield();
    ring->push(i + 1);
  }, consume);
  while (consume() != 0) {}  // the rest: with the producer joined, an empty answer means empty
  EXPECT_EQ(received, k_count) << "a value was lost or doubled";
  EXPECT_EQ(g_next, k_count + 1);
  EXPECT_EQ(g_out_of_order, 0u);
  EXPECT_EQ(count_mismatch, 0u) << "a pop ran a different number of slots than it returned";
}

TEST(SpscRingDeathTest, CapacityNotAPowerOfTwoOrBelow64Aborts) {
  const char* k_pattern =
      "^Error: Wait_free_spsc_queue_simple\\(\\) capacity must like 64,128,256, "
      "512,1024,2048,4096,8192,16384\\.\\.\\.\\.\r\n$";
  EXPECT_DEATH((std::make_unique<Wait_free_spsc_queue_simple<unsigned long, 48>>()), k_pattern);
  EXPECT_DEATH((std::make_unique<Wait_free_spsc_queue_simple<unsigned long, 32>>()), k_pattern);
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
    if (thread >= threads || index >= per_thread) ++bad;
    else ++seen[thread * per_thread + index];
  }
  for (unsigned char count : seen) not_once += count != 1;
  EXPECT_EQ(bad, 0u);
  EXPECT_EQ(not_once, 0u);
}

TEST(WaitReleaseQueue, ManyPushersThenAFullRingOverflowingIntoTheVectorEachValueComesBackOnce) {
  auto queue = std::make_unique<Memory_wait_release_queue_allocator<Memory_allocator_default, 64>>();
  std::vector<void*> got;
  auto take_all = [&queue, &got] {  // bounded: more values than went in would never end otherwise
    for (unsigned long value; got.size() <= 200000 && (value = queue->get_wait_release()) != 0;)
      got.push_back(reinterpret_cast<void*>(value));
  };
  // The small ring keeps the vector in use while the consumer drains both.
  run_producers(4, 50000, [&queue](unsigned int t, unsigned long i) {
    queue->push(static_cast<unsigned char*>(make_value(t, i)));
  }, take_all);
  take_all();
  expect_each_once(got, 4, 50000);

  got.clear();
  for (unsigned long i = 0; i < 200; ++i) queue->push(static_cast<unsigned char*>(make_value(0, i)));
  EXPECT_EQ(queue->queue.used(), 56u);
  EXPECT_EQ(queue->vt_overflow.size(), 144u);
  take_all();  // the ring first, in order; then the vector from its end
  ASSERT_EQ(got.size(), 200u);
  EXPECT_EQ(got[55], make_value(0, 55));
  EXPECT_EQ(got[56], make_value(0, 199));
  EXPECT_EQ(got[199], make_value(0, 56));
  expect_each_once(got, 1, 200);
  queue->push(static_cast<unsigned char*>(make_value(0, 7)));  // the ring is used again
  EXPECT_EQ(queue->queue.used(), 1u);
  EXPECT_EQ(queue->vt_overflow.size(), 0u);
}

using Mpsc_queue = Wait_free_mpsc_queue_simple<void*, 512, Memory_allocator_default>;

std::vector<void*>* g_mpsc_delivered = nullptr;
void record_delivered(void** slot) { g_mpsc_delivered->push_back(*slot); }

class Mpsc : public ::testing::Test {
 protected:
  static constexpr unsigned int k_threads = 16;  // twice the thread slots

  Mpsc() {
    g_mpsc_delivered = &delivered_;
    queue_->set_fn_run(&record_delivered);
  }
  ~Mpsc() override { g_mpsc_delivered = nullptr; }

  void produce(unsigned long per_thread, bool consume_meanwhile) {
    run_producers(k_threads, per_thread, [this](unsigned int t, unsigned long i) {
      queue_->push_foreign(make_value(t, i));
    }, [this, consume_meanwhile] {
      if (consume_meanwhile && queue_->uint_need_pop != 0) queue_->pop_batch();  // as malloc does: only when flagged
    });
  }

  unsigned long in_rings(bool cpu_only = false) const {
    unsigned long total = 0;
    for (const auto& ring : queue_->ar_queue_cpu) total += ring.used();
    for (const auto& ring : queue_->ar_queue_thread) total += cpu_only ? 0 : ring.used();
    return total;
  }

  std::vector<void*> delivered_;  // declared first, so the queue's destructor still records into it
  std::unique_ptr<Mpsc_queue> queue_ = std::make_unique<Mpsc_queue>();
};

TEST_F(Mpsc, SixteenProducersFillEveryStoreAndOnlyTheCpuFlagOpensCpuRingsAndVector) {
  produce(2000, false);
  // Eight threads hold the slots, each ring exactly full; the other eight share the CPU rings.
  std::set<unsigned long> ids(std::begin(queue_->ar_ulong_thread_id), std::end(queue_->ar_ulong_thread_id));
  EXPECT_EQ(queue_->uint_thread_count, 8u);
  EXPECT_EQ(ids.size(), 8u);
  EXPECT_EQ(ids.count(0), 0u);
  for (unsigned int i = 0; i < 8; ++i) EXPECT_EQ(queue_->ar_queue_thread[i].used(), 448u) << "thread ring " << i;
  EXPECT_NE(queue_->uint_need_pop_cpu, 0u);
  // 32000 values cannot fit in 16 rings of 448: the vector holds the rest.
  const unsigned long in_vector = queue_->vt_overflow.size(), in_cpu_rings = in_rings(true);
  ASSERT_GT(in_vector, 0u);
  EXPECT_GT(in_cpu_rings, 0u);
  EXPECT_EQ(in_rings() + in_vector, k_threads * 2000);
  EXPECT_TRUE(delivered_.empty()) << "nothing runs before a pop";

  // The flags are plain words: a racing pop can clear them after the values were stored.
  // A pop that then finds no CPU flag drains only the thread rings.
  queue_->uint_need_pop = queue_->uint_need_pop_cpu = 0;
  queue_->pop_batch();
  EXPECT_EQ(delivered_.size(), 8u * 448u) << "only the eight full thread rings were drained";
  EXPECT_EQ(in_rings(true), in_cpu_rings);
  queue_->pop_all();
  EXPECT_EQ(queue_->vt_overflow.size(), in_vector) << "pop_all without the CPU flag leaves the vector";

  queue_->uint_need_pop = queue_->uint_need_pop_cpu = 1;  // one flagged batch reaches every store
  queue_->pop_batch();
  EXPECT_EQ(in_rings(), 0u);
  EXPECT_EQ(queue_->vt_overflow.size(), 0u);
  EXPECT_EQ(queue_->uint_need_pop, 0u);
  EXPECT_EQ(queue_->uint_need_pop_cpu, 0u);
  expect_each_once(delivered_, k_threads, 2000);
}

TEST_F(Mpsc, ConsumerRunningMeanwhileThenForcedDrainDeliversEachOnce) {
  produce(20000, true);
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
  queue_->uint_need_pop_cpu = 1;  // a flagged batch drains the thread rings too
  queue_->pop_batch();
  EXPECT_EQ(delivered_, (std::vector<void*>{make_value(0, 0), make_value(1, 0)}));
}

}  // namespace
}  // namespace quorla
