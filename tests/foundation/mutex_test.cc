// The recursive lock: recursion and try_lock from the owner and from other threads, mutual
// exclusion under contention with an exact count, the scoped guards, and the two misuse
// messages (destroying a held lock, calling unlock_shared).
#include "foundation/quorla_mutex.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <new>
#include <string>
#include <thread>
#include <vector>

namespace quorla {
namespace {

// Runs fn on another thread and waits for it.
template <typename F>
void on_other_thread(F fn) {
  std::thread t(fn);
  t.join();
}

TEST(MutexRecursion, OwnerRelocksAndReleasesLevelByLevel) {
  mutex m;
  EXPECT_FALSE(m.is_lock());
  EXPECT_FALSE(m.is_this_thread_lock());

  m.lock();
  m.lock();
  EXPECT_EQ(m.lock_count(), 2u);
  EXPECT_TRUE(m.is_this_thread_lock());

  m.unlock();
  // One level left: still held, and still this thread's.
  EXPECT_TRUE(m.is_lock());
  EXPECT_EQ(m.lock_count(), 1u);
  EXPECT_TRUE(m.is_this_thread_lock());

  m.unlock();
  EXPECT_FALSE(m.is_lock());
  EXPECT_FALSE(m.is_this_thread_lock());

  // The operating-system lock really was released: another thread can take it.
  bool other_took = false;
  on_other_thread([&] {
    other_took = m.try_lock();
    if (other_took) m.unlock();
  });
  EXPECT_TRUE(other_took);
}

TEST(MutexRecursion, TryLockOnOwnLockRaisesTheCount) {
  mutex m;
  ASSERT_TRUE(m.try_lock());
  EXPECT_EQ(m.lock_count(), 1u);
  EXPECT_TRUE(m.try_lock());
  m.lock();
  EXPECT_EQ(m.lock_count(), 3u);
  m.unlock();
  m.unlock();
  m.unlock();
  EXPECT_FALSE(m.is_lock());
}

TEST(MutexOtherThread, TryLockFailsWhileHeldAndSucceedsAfter) {
  mutex m;
  m.lock();
  m.lock();
  bool tried = true;
  bool other_sees_lock = false;
  bool other_is_owner = true;
  on_other_thread([&] {
    tried = m.try_lock();
    other_sees_lock = m.is_lock();
    other_is_owner = m.is_this_thread_lock();
  });
  EXPECT_FALSE(tried);
  EXPECT_TRUE(other_sees_lock);
  EXPECT_FALSE(other_is_owner);
  // The failed attempt left the owner's depth alone.
  EXPECT_EQ(m.lock_count(), 2u);
  EXPECT_TRUE(m.is_this_thread_lock());
  m.unlock();
  m.unlock();

  // Roles swapped: the other thread holds it and this thread is refused.
  std::atomic<int> stage{0};
  std::thread holder([&] {
    m.lock();
    stage.store(1);
    while (stage.load() != 2) std::this_thread::yield();
    m.unlock();
  });
  while (stage.load() != 1) std::this_thread::yield();
  EXPECT_FALSE(m.try_lock());
  EXPECT_FALSE(m.is_this_thread_lock());
  stage.store(2);
  holder.join();
  EXPECT_TRUE(m.try_lock());
  m.unlock();
}

TEST(MutexOtherThread, LockWaitsForTheOwner) {
  mutex m;
  std::atomic<bool> acquired{false};
  m.lock();
  std::thread waiter([&] {
    m.lock();
    acquired.store(true);
    m.unlock();
  });
  // Whatever the scheduling, the waiter cannot get in while this thread holds the lock.
  usleep(10000);
  EXPECT_FALSE(acquired.load());
  m.unlock();
  waiter.join();
  EXPECT_TRUE(acquired.load());
  EXPECT_FALSE(m.is_lock());
}

TEST(MutexContention, ManyThreadsCountExactly) {
  mutex m;
  constexpr int k_threads = 8;
  constexpr int k_rounds = 20000;
  unsigned long counter = 0;          // plain on purpose: only the lock protects it
  unsigned long owner = 0;            // who is inside; a second thread inside is a fault
  std::atomic<int> overlaps{0};
  std::atomic<int> not_owner{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < k_threads; ++t) {
    threads.emplace_back([&, t] {
      unsigned long self = static_cast<unsigned long>(pthread_self());
      for (int i = 0; i < k_rounds; ++i) {
        bool use_try = (i % 7) == t % 7;
        if (!use_try || !m.try_lock()) m.lock();
        if (owner != 0) overlaps.fetch_add(1);
        owner = self;
        if (!m.is_this_thread_lock()) not_owner.fetch_add(1);
        if ((i & 3) == 0) {
          lock_guard<mutex> nested(m);  // recursion under contention
          ++counter;
        } else {
          ++counter;
        }
        if (owner != self) overlaps.fetch_add(1);
        owner = 0;
        m.unlock();
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(counter, static_cast<unsigned long>(k_threads) * k_rounds);
  EXPECT_EQ(overlaps.load(), 0);
  EXPECT_EQ(not_owner.load(), 0);
  EXPECT_FALSE(m.is_lock());
}

TEST(MutexGuard, GuardsHoldTheirLockForTheirScope) {
  mutex m;
  {
    lock_guard<mutex> guard(m);
    EXPECT_TRUE(m.is_this_thread_lock());
    bool tried = true;
    on_other_thread([&] { tried = m.try_lock(); });
    EXPECT_FALSE(tried);
  }
  EXPECT_FALSE(m.is_lock());

  std::mutex os_mutex;
  {
    lock_guard<std::mutex> guard(os_mutex);
    bool tried = true;
    on_other_thread([&] { tried = os_mutex.try_lock(); });
    EXPECT_FALSE(tried);
  }
  bool tried_after = false;
  on_other_thread([&] {
    tried_after = os_mutex.try_lock();
    if (tried_after) os_mutex.unlock();
  });
  EXPECT_TRUE(tried_after);
}

TEST(MutexGuard, SimpleSpinLockIsAnOrdinaryRecursiveMutex) {
  EXPECT_EQ(reinterpret_cast<unsigned long>(&g_spin_lock_simple) % 128, 0u);
  g_spin_lock_simple.lock();
  g_spin_lock_simple.lock();
  EXPECT_EQ(g_spin_lock_simple.lock_count(), 2u);
  g_spin_lock_simple.unlock();
  g_spin_lock_simple.unlock();
  EXPECT_FALSE(g_spin_lock_simple.is_lock());
}

std::string hex16(unsigned long value) {
  char text[32];
  snprintf(text, sizeof(text), "%016lX", value);
  return text;
}

TEST(MutexMessages, DestroyingAHeldLockReportsAndGoesOn) {
  alignas(128) unsigned char storage[sizeof(mutex)];
  mutex* m = new (storage) mutex;
  m->lock();
  m->lock();
  unsigned long self = static_cast<unsigned long>(pthread_self());
  testing::internal::CaptureStderr();
  m->~mutex();
  std::string output = testing::internal::GetCapturedStderr();
  EXPECT_EQ(output, "Error: mutex::~mutex() find locked. lock_count=2, unlock_thread_id=" + hex16(self) +
                        ", this_thread_id=" + hex16(self) +
                        ", this=" + hex16(reinterpret_cast<unsigned long>(storage)) + "\r\n");

  // Held by a thread that has gone, destroyed by this one: the two ids are told apart.
  mutex* orphan = new (storage) mutex;
  unsigned long other = 0;
  on_other_thread([&] {
    orphan->lock();
    other = static_cast<unsigned long>(pthread_self());
  });
  ASSERT_NE(other, self);
  testing::internal::CaptureStderr();
  orphan->~mutex();
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Error: mutex::~mutex() find locked. lock_count=1, unlock_thread_id=" + hex16(other) +
                ", this_thread_id=" + hex16(self) +
                ", this=" + hex16(reinterpret_cast<unsigned long>(storage)) + "\r\n");

  // A free lock goes silently.
  mutex* quiet = new (storage) mutex;
  testing::internal::CaptureStderr();
  quiet->~mutex();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(MutexMessagesDeathTest, UnlockSharedAborts) {
  mutex m;
  EXPECT_DEATH(m.unlock_shared(), "^Error: mutex::unlock_shared\\(\\) should not run unlock_shared\\(\\)\\.\r\n$");
}

}  // namespace
}  // namespace quorla
