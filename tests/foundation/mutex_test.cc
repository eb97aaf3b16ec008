// The recursive lock: recursion and try_lock from the owner and from other threads, mutual
// exclusion under contention with an exact count, and the misuse messages.
#include "foundation/quorla_mutex.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cstdio>
#include <new>
#include <string>
#include <thread>
#include <vector>

namespace quorla {
namespace {

template <typename F>
void on_other_thread(F fn) {
  std::thread(fn).join();
}

// Whether another thread can take m at this moment (releasing it again if so).
bool other_can_take(mutex& m) {
  bool took = false;
  on_other_thread([&] {
    took = m.try_lock();
    if (took) m.unlock();
  });
  return took;
}

TEST(Mutex, OwnerRecursesWithLockAndTryLockAndReleasesLevelByLevel) {
  mutex m;
  EXPECT_FALSE(m.is_lock());
  m.lock();
  EXPECT_TRUE(m.try_lock());
  m.lock();
  EXPECT_EQ(m.lock_count(), 3u);
  EXPECT_FALSE(other_can_take(m));
  EXPECT_EQ(m.lock_count(), 3u);  // the refused attempt left the depth alone
  m.unlock();
  m.unlock();
  EXPECT_TRUE(m.is_lock());
  EXPECT_TRUE(m.is_this_thread_lock());
  EXPECT_FALSE(other_can_take(m));
  m.unlock();
  EXPECT_FALSE(m.is_lock());
  EXPECT_FALSE(m.is_this_thread_lock());
  EXPECT_TRUE(other_can_take(m));  // the operating-system lock really was released
}

TEST(Mutex, ThisThreadIsRefusedWhileAnotherHoldsIt) {
  mutex m;
  std::atomic<int> stage{0};
  std::thread holder([&] {
    m.lock();
    stage.store(1);
    while (stage.load() != 2) std::this_thread::yield();
    m.unlock();
  });
  while (stage.load() != 1) std::this_thread::yield();
  EXPECT_TRUE(m.is_lock());
  EXPECT_FALSE(m.is_this_thread_lock());
  EXPECT_FALSE(m.try_lock());
  stage.store(2);
  holder.join();
  EXPECT_TRUE(m.try_lock());
  m.unlock();
}

TEST(Mutex, ManyThreadsCountExactly) {
  mutex m;
  constexpr int k_threads = 8;
  constexpr int k_rounds = 20000;
  unsigned long counter = 0;  // plain on purpose: only the lock protects it
  unsigned long owner = 0;    // who is inside; a second thread inside is a fault
  std::atomic<int> faults{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < k_threads; ++t) {
    threads.emplace_back([&, t] {
      unsigned long self = static_cast<unsigned long>(pthread_self());
      for (int i = 0; i < k_rounds; ++i) {
        if ((i % 7) != t % 7 || !m.try_lock()) m.lock();
        if (owner != 0 || !m.is_this_thread_lock()) faults.fetch_add(1);
        owner = self;
        if ((i & 3) == 0) {
          lock_guard<mutex> nested(m);  // recursion under contention
          ++counter;
        } else {
          ++counter;
        }
        if (owner != self) faults.fetch_add(1);
        owner = 0;
        m.unlock();
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(counter, static_cast<unsigned long>(k_threads) * k_rounds);
  EXPECT_EQ(faults.load(), 0);
  EXPECT_FALSE(m.is_lock());
}

std::string hex16(unsigned long value) {
  char text[32];
  snprintf(text, sizeof(text), "%016lX", value);
  return text;
}

TEST(Mutex, DestroyingAHeldLockReportsAndGoesOn) {
  alignas(128) unsigned char storage[sizeof(mutex)];
  const std::string where = ", this=" + hex16(reinterpret_cast<unsigned long>(storage)) + "\r\n";
  unsigned long self = static_cast<unsigned long>(pthread_self());

  mutex* m = new (storage) mutex;
  m->lock();
  m->lock();
  testing::internal::CaptureStderr();
  m->~mutex();
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Error: mutex::~mutex() find locked. lock_count=2, unlock_thread_id=" + hex16(self) +
                ", this_thread_id=" + hex16(self) + where);

  // Held by a thread that has gone, destroyed by this one: the two ids are told apart.
  m = new (storage) mutex;
  unsigned long other = 0;
  on_other_thread([&] {
    m->lock();
    other = static_cast<unsigned long>(pthread_self());
  });
  ASSERT_NE(other, self);
  testing::internal::CaptureStderr();
  m->~mutex();
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Error: mutex::~mutex() find locked. lock_count=1, unlock_thread_id=" + hex16(other) +
                ", this_thread_id=" + hex16(self) + where);

  m = new (storage) mutex;  // a free lock goes silently
  testing::internal::CaptureStderr();
  m->~mutex();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(MutexDeathTest, UnlockSharedAborts) {
  mutex m;
  EXPECT_DEATH(m.unlock_shared(), "^Error: mutex::unlock_shared\\(\\) should not run unlock_shared\\(\\)\\.\r\n$");
}

}  // namespace
}  // namespace quorla
