// Time as text: known dates and fractions, the fixed local offset (taken from TZ at start-up
// and never adjusted for daylight saving), durations, the English form, the extremes of the
// input range against the buffer size, and the wall clocks filled at start-up.
#include "foundation/quorla_time_string.h"
#include "foundation/quorla_time_string_form.h"

#include <gtest/gtest.h>
#include <limits.h>
#include <locale.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <boost/date_time/gregorian/gregorian_types.hpp>
#include <string>

namespace quorla {
namespace {

// Runs one writer into a buffer whose tail is a canary, checks the returned length against
// the terminator and the canary, and gives the text back.
template <typename F, typename V>
std::string write(F function, V value, unsigned int room = k_time_chars) {
  char buffer[k_time_chars + 16];
  memset(buffer, 0x5A, sizeof(buffer));
  unsigned long length = function(value, buffer);
  EXPECT_LT(length, room);
  EXPECT_EQ(strnlen(buffer, sizeof(buffer)), length);
  for (unsigned int i = room; i < sizeof(buffer); ++i) EXPECT_EQ(buffer[i], 0x5A) << "byte " << i << " overwritten";
  return std::string(buffer, length);
}

// Every test that moves the zone or the globals goes through this fixture, which puts TZ,
// libc's zone state and the library's clock words back as they were.
class TimeStringTest : public testing::Test {
 protected:
  void SetUp() override {
    const char* tz = getenv("TZ");
    had_tz_ = tz != nullptr;
    if (had_tz_) saved_tz_ = tz;
    saved_timezone_ = g_long_timezone_seconds;
    saved_epoch_ = g_long_epoch_microseconds;
    saved_begin_ = g_timet_begin_utc;
    saved_now_ = g_timet_now_utc;
  }
  void TearDown() override {
    if (had_tz_)
      setenv("TZ", saved_tz_.c_str(), 1);
    else
      unsetenv("TZ");
    tzset();
    g_long_timezone_seconds = saved_timezone_;
    g_long_epoch_microseconds = saved_epoch_;
    g_timet_begin_utc = saved_begin_;
    g_timet_now_utc = saved_now_;
  }
  // Sets TZ and goes through start-up's reading of the zone.
  void init_in_zone(const char* tz) {
    setenv("TZ", tz, 1);
    tzset();
    time_string_init();
  }

 private:
  bool had_tz_ = false;
  std::string saved_tz_;
  long saved_timezone_ = 0;
  long saved_epoch_ = 0;
  time_t saved_begin_ = 0;
  time_t saved_now_ = 0;
};

TEST(TimeStringUtc, BaseDateKnownInstants) {
  EXPECT_EQ(write(utc_timet_to_utc_chars, 0L), "1970-01-01T00:00:00");
  EXPECT_EQ(write(utc_timet_to_utc_chars, 1234567890L), "2009-02-13T23:31:30");
  EXPECT_EQ(write(utc_timet_to_utc_chars, 951825600L), "2000-02-29T12:00:00");  // leap day
  EXPECT_EQ(write(utc_timet_to_utc_chars, -1L), "1969-12-31T23:59:59");
  // The year is plain decimal: no padding to four digits.
  EXPECT_EQ(write(utc_timet_to_utc_chars, -30641760000L), "999-01-01T00:00:00");
  // Beyond gmtime_r's years the seconds themselves are written.
  EXPECT_EQ(write(utc_timet_to_utc_chars, LONG_MAX), "9223372036854775807");
  EXPECT_EQ(write(utc_timet_to_utc_chars, LONG_MIN), "-9223372036854775808");
}

TEST(TimeStringUtc, FractionsHaveFixedWidthAndFloorBeforeTheEpoch) {
  EXPECT_EQ(write(utc_milliseconds_to_utc_chars, 1500L), "1970-01-01T00:00:01.500");
  EXPECT_EQ(write(utc_milliseconds_to_utc_chars, 1234567890007L), "2009-02-13T23:31:30.007");
  EXPECT_EQ(write(utc_microseconds_to_utc_chars, 1L), "1970-01-01T00:00:00.000001");
  EXPECT_EQ(write(utc_microseconds_to_utc_chars, 1234567890123456L), "2009-02-13T23:31:30.123456");
  EXPECT_EQ(write(utc_nanoseconds_to_utc_chars, 1234567890123456789L), "2009-02-13T23:31:30.123456789");
  // One unit before the epoch is the last unit of 1969, not "-0.001" of 1970.
  EXPECT_EQ(write(utc_milliseconds_to_utc_chars, -1L), "1969-12-31T23:59:59.999");
  EXPECT_EQ(write(utc_microseconds_to_utc_chars, -1000001L), "1969-12-31T23:59:58.999999");
  EXPECT_EQ(write(utc_nanoseconds_to_utc_chars, LONG_MIN), "1677-09-21T00:12:43.145224192");
  EXPECT_EQ(write(utc_nanoseconds_to_utc_chars, LONG_MAX), "2262-04-11T23:47:16.854775807");
}

TEST(TimeStringUtc, ExtremeInputsStayInsideTheBuffer) {
  const long values[] = {LONG_MIN, LONG_MIN + 1, -1, 0, LONG_MAX - 1, LONG_MAX};
  for (long v : values) {
    write(utc_timet_to_utc_chars, v);
    write(utc_seconds_to_local_chars, v);
    write(utc_milliseconds_to_utc_chars, v);
    write(utc_microseconds_to_utc_chars, v);
    write(utc_nanoseconds_to_utc_chars, v);
    write(utc_milliseconds_to_local_chars, v);
    write(utc_microseconds_to_local_chars, v);
    write(utc_nanoseconds_to_local_chars, v);
    write(utc_timet_to_english_chars, v, k_english_time_chars);
  }
  write(duration_milliseconds_to_chars, ULLONG_MAX);
  write(duration_microseconds_to_chars, ULLONG_MAX);
  write(duration_nanoseconds_to_chars, ULLONG_MAX);
}

TEST_F(TimeStringTest, LocalAtOffsetZeroIsUtc) {
  init_in_zone("UTC0");
  EXPECT_EQ(g_long_timezone_seconds, 0);
  EXPECT_EQ(write(utc_microseconds_to_local_chars, 0L), "1970-01-01T00:00:00.000000");
  EXPECT_EQ(write(utc_seconds_to_local_chars, 1234567890L), "2009-02-13T23:31:30");
}

TEST_F(TimeStringTest, LocalUsesTheZoneReadAtStartUp) {
  init_in_zone("Asia/Kolkata");
  // Seconds west of UTC: India is 5:30 east.
  EXPECT_EQ(g_long_timezone_seconds, -19800);
  EXPECT_EQ(write(utc_seconds_to_local_chars, 0L), "1970-01-01T05:30:00");
  EXPECT_EQ(write(utc_milliseconds_to_local_chars, 1500L), "1970-01-01T05:30:01.500");
  EXPECT_EQ(write(utc_nanoseconds_to_local_chars, 1234567890123456789L), "2009-02-14T05:01:30.123456789");
  // The shift moves the day across midnight and a negative instant across the epoch.
  EXPECT_EQ(write(utc_milliseconds_to_local_chars, -19800001L), "1969-12-31T23:59:59.999");
  // UTC forms ignore the zone.
  EXPECT_EQ(write(utc_microseconds_to_utc_chars, 0L), "1970-01-01T00:00:00.000000");

  // A later change of TZ does not reach the texts until start-up reads the zone again.
  setenv("TZ", "America/New_York", 1);
  tzset();
  EXPECT_EQ(write(utc_seconds_to_local_chars, 0L), "1970-01-01T05:30:00");
}

TEST_F(TimeStringTest, LocalKeepsOneOffsetThroughDaylightSaving) {
  // Central Europe: one hour east in winter, two in summer. The offset of start-up is the
  // standard one and stays: a July instant is shown one hour ahead of UTC, not two.
  init_in_zone("CET-1CEST,M3.5.0,M10.5.0/3");
  EXPECT_EQ(g_long_timezone_seconds, -3600);
  EXPECT_EQ(write(utc_seconds_to_local_chars, 1719835200L), "2024-07-01T13:00:00");   // 12:00 UTC
  EXPECT_EQ(write(utc_seconds_to_local_chars, 1704110400L), "2024-01-01T13:00:00");   // 12:00 UTC
}

TEST_F(TimeStringTest, LocalShiftSaturatesInsteadOfWrapping) {
  // A zone west of UTC adds to the seconds; at the top of the range that must not wrap round
  // to a date in the far past.
  g_long_timezone_seconds = 3600;
  EXPECT_EQ(write(utc_seconds_to_local_chars, LONG_MIN), "-9223372036854775808");
  g_long_timezone_seconds = -3600;
  EXPECT_EQ(write(utc_seconds_to_local_chars, LONG_MAX), "9223372036854775807");
}

TEST(TimeStringDuration, WholeSecondsAndPaddedFraction) {
  EXPECT_EQ(write(duration_milliseconds_to_chars, 1500ULL), "1.500");
  EXPECT_EQ(write(duration_milliseconds_to_chars, 0ULL), "0.000");
  EXPECT_EQ(write(duration_milliseconds_to_chars, 999ULL), "0.999");
  EXPECT_EQ(write(duration_milliseconds_to_chars, 86400005ULL), "86400.005");
  EXPECT_EQ(write(duration_microseconds_to_chars, 86400123456ULL), "86400.123456");
  EXPECT_EQ(write(duration_nanoseconds_to_chars, 1ULL), "0.000000001");
  EXPECT_EQ(write(duration_nanoseconds_to_chars, 2000000030ULL), "2.000000030");
  EXPECT_EQ(write(duration_nanoseconds_to_chars, ULLONG_MAX), "18446744073.709551615");
  EXPECT_EQ(write(duration_milliseconds_to_chars, ULLONG_MAX), "18446744073709551.615");
}

TEST(TimeStringEnglish, KnownInstantsAndLength) {
  EXPECT_EQ(write(utc_timet_to_english_chars, 0L, k_english_time_chars), "Thu, 01 Jan 1970 00:00:00 GMT");
  EXPECT_EQ(write(utc_timet_to_english_chars, 1234567890L, k_english_time_chars), "Fri, 13 Feb 2009 23:31:30 GMT");
  // Too wide for its 31 characters, or beyond gmtime_r: an empty text, not a cut one.
  EXPECT_EQ(write(utc_timet_to_english_chars, LONG_MAX, k_english_time_chars), "");
}

TEST_F(TimeStringTest, EnglishNowIsTheCurrentSecondAndRefreshesTheCoarseClock) {
  g_timet_now_utc = 0;
  time_t before = time(nullptr);
  std::string text = write([](int, char* out) { return now_utc_english_chars(out); }, 0, k_english_time_chars);
  time_t after = time(nullptr);
  EXPECT_GE(g_timet_now_utc, before);
  EXPECT_LE(g_timet_now_utc, after);
  // The text is the second that was published, in the English form.
  char expected[k_english_time_chars];
  utc_timet_to_english_chars(g_timet_now_utc, expected);
  EXPECT_EQ(text, expected);
  EXPECT_EQ(text.size(), 29u);
  EXPECT_EQ(text.substr(text.size() - 4), " GMT");
}

TEST(TimeStringEnglish, NamesStayEnglishUnderAnotherLocale) {
  const char* names[] = {"de_DE.UTF-8", "fr_FR.UTF-8", "es_ES.UTF-8", "ru_RU.UTF-8"};
  const char* chosen = nullptr;
  std::string saved = setlocale(LC_TIME, nullptr);
  for (const char* name : names) {
    if (setlocale(LC_TIME, name) != nullptr) {
      chosen = name;
      break;
    }
  }
  if (chosen == nullptr) GTEST_SKIP() << "no non-English locale is installed on this machine";
  std::string text = write(utc_timet_to_english_chars, 1234567890L, k_english_time_chars);
  setlocale(LC_TIME, saved.c_str());
  EXPECT_EQ(text, "Fri, 13 Feb 2009 23:31:30 GMT") << "under " << chosen;
}

TEST(TimeStringCalendar, EpochDayAndSpecialValues) {
  // 1970-01-01 is Julian day 2440588.
  EXPECT_EQ(boost_date_to_microseconds(boost::gregorian::date(1970, 1, 1)), 2440588L * 86400000000L);
  EXPECT_EQ(boost_date_to_microseconds(boost::gregorian::date(1970, 1, 2)) -
                boost_date_to_microseconds(boost::gregorian::date(1970, 1, 1)),
            k_long_microseconds_per_day);
  EXPECT_EQ(boost_date_to_microseconds(boost::gregorian::date(boost::date_time::neg_infin)), LONG_MIN);
  EXPECT_EQ(boost_date_to_microseconds(boost::gregorian::date(boost::date_time::pos_infin)), LONG_MAX);
  EXPECT_EQ(boost_date_to_microseconds(boost::gregorian::date(boost::date_time::not_a_date_time)), LONG_MAX);
}

TEST_F(TimeStringTest, StartUpFillsTheClocks) {
  g_long_epoch_microseconds = 0;
  g_timet_begin_utc = 0;
  g_timet_now_utc = 0;
  time_t before = time(nullptr);
  init_in_zone("UTC0");
  time_t after = time(nullptr);
  EXPECT_EQ(g_long_epoch_microseconds, 2440588L * 86400000000L);
  EXPECT_GE(g_timet_begin_utc, before);
  EXPECT_LE(g_timet_begin_utc, after);
  EXPECT_EQ(g_timet_now_utc, g_timet_begin_utc);

  time_t refreshed = refresh_timet_now_utc();
  EXPECT_EQ(g_timet_now_utc, refreshed);
  EXPECT_GE(refreshed, g_timet_begin_utc);
}

// Microsecond clock against the system clock read around it (truncated to microseconds).
void expect_microsecond_clock_within_system_clock() {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  long before = ts.tv_sec * 1000000L + ts.tv_nsec / 1000;
  long ours = get_utc_microsecond();
  clock_gettime(CLOCK_REALTIME, &ts);
  long after = ts.tv_sec * 1000000L + ts.tv_nsec / 1000;
  EXPECT_LE(before, ours);
  EXPECT_LE(ours, after);
}

TEST_F(TimeStringTest, MicrosecondClockIsTheSystemClock) {
  time_string_init();
  expect_microsecond_clock_within_system_clock();
  // Read before start-up has filled the epoch constant, the clock is still right.
  g_long_epoch_microseconds = 0;
  expect_microsecond_clock_within_system_clock();
}

}  // namespace
}  // namespace quorla

namespace quorla {
namespace {

TEST_F(TimeStringTest, StringFormsClearOrAppendTheSameText) {
  init_in_zone("UTC0");
  string text("previous ");
  utc_microseconds_append_local_string(0, text);
  EXPECT_STREQ(text.c_str(), "previous 1970-01-01T00:00:00.000000");
  utc_microseconds_to_local_string(1500000, text);
  EXPECT_STREQ(text.c_str(), "1970-01-01T00:00:01.500000");
  duration_milliseconds_to_string(1500, text);
  EXPECT_STREQ(text.c_str(), "1.500");
  duration_nanoseconds_append_string(7, text);
  EXPECT_STREQ(text.c_str(), "1.5000.000000007");
  utc_nanoseconds_to_utc_string(-1, text);
  EXPECT_STREQ(text.c_str(), "1969-12-31T23:59:59.999999999");
  utc_timet_to_utc_string(1234567890L, text);
  EXPECT_STREQ(text.c_str(), "2009-02-13T23:31:30");
  now_utc_english_string(text);
  EXPECT_EQ(text.size(), 29u);
  EXPECT_STREQ(text.c_str() + 25, " GMT");
}

}  // namespace
}  // namespace quorla
