// Clocks and pauses: each pause lasts at least what it promises, a far deadline does not hold
// the caller, the coarse clock word is published, and the wall-clock and TSC readers agree
// with the system. Only lower bounds are checked; no upper bound on elapsed time is asserted.
#include "foundation/quorla_pause.h"

#include <gtest/gtest.h>
#include <time.h>

namespace quorla {
namespace {

TEST(PauseClock, SteadyClockMatchesMonotonicAndMovesForward) {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  unsigned long long before = static_cast<unsigned long long>(ts.tv_sec) * 1000000000ULL + ts.tv_nsec;
  unsigned long long ours = get_steady_nanosecond();
  clock_gettime(CLOCK_MONOTONIC, &ts);
  unsigned long long after = static_cast<unsigned long long>(ts.tv_sec) * 1000000000ULL + ts.tv_nsec;
  EXPECT_LE(before, ours);
  EXPECT_LE(ours, after);
}

TEST(PauseClock, CoarseWordIsRefreshedInMilliseconds) {
  time_t saved = g_timet_millisecond_now_steady;
  unsigned long long before = get_steady_nanosecond() / 1000000ULL;
  time_t published = refresh_timet_millisecond_now_steady();
  unsigned long long after = get_steady_nanosecond() / 1000000ULL;
  EXPECT_EQ(g_timet_millisecond_now_steady, published);
  EXPECT_LE(before, static_cast<unsigned long long>(published));
  EXPECT_LE(static_cast<unsigned long long>(published), after);
  g_timet_millisecond_now_steady = saved;
}

TEST(PauseClock, WallClockDeadlines) {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  unsigned long long now = static_cast<unsigned long long>(ts.tv_sec) * 1000000000ULL + ts.tv_nsec;
  EXPECT_TRUE(now_is_over_nanoseconds(0));
  EXPECT_TRUE(now_is_over_nanoseconds(now));
  EXPECT_FALSE(now_is_over_nanoseconds(now + 3600ULL * 1000000000ULL));
}

TEST(PauseClock, TscAdvancesAndLowWordMatches) {
  unsigned long long first = get_tsc();
  thread_pause_nanosecond(1000);
  unsigned long long second = get_tsc();
  EXPECT_LT(first, second);
  // The 32-bit form is the low word of the same counter: read between two full reads, its
  // distance from the first low word is bounded by the distance between the full reads.
  unsigned long long low_before = get_tsc();
  unsigned int low = get_tsc_uint();
  unsigned long long low_after = get_tsc();
  unsigned int from_before = low - static_cast<unsigned int>(low_before);
  EXPECT_LE(static_cast<unsigned long long>(from_before), low_after - low_before);
}

TEST(PausePause, PausesLastAtLeastWhatTheyPromise) {
  unsigned long long start = get_steady_nanosecond();
  thread_pause_nanosecond();
  EXPECT_GE(get_steady_nanosecond() - start, 128u);

  start = get_steady_nanosecond();
  thread_pause_nanosecond(5000);
  EXPECT_GE(get_steady_nanosecond() - start, 5000u);
}

TEST(PausePause, UntilLimitStopsAtTheNearLimitOrAfter128) {
  // A limit already passed returns at once (a wrong loop would never end).
  thread_pause_until_steady_nanosecond_limit(0);
  thread_pause_until_steady_nanosecond_limit(get_steady_nanosecond() - 1);

  // A near limit is reached.
  unsigned long long limit = get_steady_nanosecond() + 60;
  thread_pause_until_steady_nanosecond_limit(limit);
  EXPECT_GE(get_steady_nanosecond(), limit);

  // A far limit is cut to 128 ns: the call returns, having waited at least that long, and
  // long before the limit.
  unsigned long long start = get_steady_nanosecond();
  unsigned long long far = start + 3600ULL * 1000000000ULL;
  thread_pause_until_steady_nanosecond_limit(far);
  unsigned long long end = get_steady_nanosecond();
  EXPECT_GE(end - start, 128u);
  EXPECT_LT(end, far);
}

}  // namespace
}  // namespace quorla
