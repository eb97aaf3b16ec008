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

// Whether another thread can take m at this moment (releasing it again if so). That thread
// must see itself as the owner exactly when it took the lock.
bool other_can_take(mutex& m) {
  bool took = false;
  std::thread([&] {
    took = m.try_lock();
    EXPECT_EQ(m.is_this_thread_lock(), took);
    if (took) m.unlock();
  }).join();
  return took;
}

TEST(Mutex, OwnerRecursesWithLockAndTryLockAndReleasesLevelByLevel) {
  mutex m;
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
  EXPECT_TRUE(m.try_lock()) << "and this thread takes it back after the other one";
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
        {
          lock_guard<mutex> nested(m);  // recursion under contention
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
  const std::string self = hex16(static_cast<unsigned long>(pthread_self()));
  // Levels taken by this thread, levels taken by a thread that has gone before the destructor.
  const struct { unsigned int own, gone; } rows[] = {{2, 0}, {0, 1}, {0, 0}};
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << "own=" << row.own << " gone=" << row.gone);
    mutex* m = new (storage) mutex;
    std::string holder = self;
    for (unsigned int i = 0; i < row.own; ++i) m->lock();
    if (row.gone != 0) {
      std::thread([&] {
        m->lock();
        holder = hex16(static_cast<unsigned long>(pthread_self()));
      }).join();
      ASSERT_NE(holder, self) << "the two ids must be told apart";
    }
    testing::internal::CaptureStderr();
    m->~mutex();
    const unsigned int held = row.own + row.gone;  // a free lock goes silently
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              held == 0 ? "" : "Error: mutex::~mutex() find locked. lock_count=" + std::to_string(held) +
                  ", unlock_thread_id=" + holder + ", this_thread_id=" + self +
                  ", this=" + hex16(reinterpret_cast<unsigned long>(storage)) + "\r\n");
  }
}

TEST(MutexDeathTest, UnlockSharedAborts) {
  mutex m;
  EXPECT_DEATH(m.unlock_shared(), "^Error: mutex::unlock_shared\\(\\) should not run unlock_shared\\(\\)\\.\r\n$");
}

}  // namespace
}  // namespace quorla
