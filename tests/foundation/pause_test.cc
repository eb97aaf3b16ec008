// Clocks and pauses: the readers use the right clocks, each pause lasts at least what it
// promises, a far deadline does not hold the caller. Only lower bounds that a correct pause
// guarantees are checked; nothing bounds elapsed time from above.
#include "foundation/quorla_pause.h"

#include <gtest/gtest.h>
#include <time.h>

namespace quorla {
namespace {

unsigned long long clock_nanoseconds(clockid_t clock) {
  timespec ts;
  clock_gettime(clock, &ts);
  return static_cast<unsigned long long>(ts.tv_sec) * 1000000000ULL + ts.tv_nsec;
}

TEST(PauseClock, ReadersUseTheSteadyAndWallClocks) {
  unsigned long long before = clock_nanoseconds(CLOCK_MONOTONIC);
  unsigned long long ours = get_steady_nanosecond();
  time_t saved = g_timet_millisecond_now_steady;
  time_t published = refresh_timet_millisecond_now_steady();
  unsigned long long after = clock_nanoseconds(CLOCK_MONOTONIC);
  EXPECT_TRUE(before <= ours && ours <= after);
  EXPECT_EQ(g_timet_millisecond_now_steady, published);
  EXPECT_TRUE(before / 1000000 <= static_cast<unsigned long long>(published) &&
              static_cast<unsigned long long>(published) <= after / 1000000)
      << "the coarse word is the steady clock in milliseconds";
  g_timet_millisecond_now_steady = saved;

  unsigned long long now = clock_nanoseconds(CLOCK_REALTIME);
  EXPECT_TRUE(now_is_over_nanoseconds(now));
  EXPECT_FALSE(now_is_over_nanoseconds(now + 3600ULL * 1000000000ULL));
}

TEST(PauseClock, TscAdvancesAndLowWordMatches) {
  unsigned long long first = get_tsc();
  thread_pause_nanosecond(1000);
  EXPECT_LT(first, get_tsc());
  // The 32-bit form is the low word of the same counter: read between two full reads, its
  // distance from the first low word is bounded by the distance between the full reads.
  unsigned long long low_before = get_tsc();
  unsigned int low = get_tsc_uint();
  unsigned long long low_after = get_tsc();
  EXPECT_LE(static_cast<unsigned long long>(low - static_cast<unsigned int>(low_before)), low_after - low_before);
}

TEST(PausePause, PausesLastAtLeastWhatTheyPromise) {
  unsigned long long start = get_steady_nanosecond();
  thread_pause_nanosecond();
  EXPECT_GE(get_steady_nanosecond() - start, 128u);
  start = get_steady_nanosecond();
  thread_pause_nanosecond(5000);
  EXPECT_GE(get_steady_nanosecond() - start, 5000u);

  // A limit already passed returns at once (a wrong loop would never end); a near limit is
  // reached; a far one is cut to 128 ns, which are waited.
  thread_pause_until_steady_nanosecond_limit(0);
  unsigned long long limit = get_steady_nanosecond() + 60;
  thread_pause_until_steady_nanosecond_limit(limit);
  EXPECT_GE(get_steady_nanosecond(), limit);
  start = get_steady_nanosecond();
  thread_pause_until_steady_nanosecond_limit(start + 3600ULL * 1000000000ULL);
  EXPECT_GE(get_steady_nanosecond() - start, 128u);
}

}  // namespace
}  // namespace quorla
