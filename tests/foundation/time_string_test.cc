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
#include <chrono>
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
  EXPECT_EQ(strnlen(buffer, sizeof(buffer)), length);
  for (unsigned int i = room; i < sizeof(buffer); ++i) EXPECT_EQ(buffer[i], 0x5A) << "byte " << i << " overwritten";
  return std::string(buffer, length);
}

// Puts TZ, libc's zone state and the library's clock words back as they were.
class TimeStringTest : public testing::Test {
  bool had_tz_ = getenv("TZ") != nullptr;
  std::string saved_tz_ = had_tz_ ? getenv("TZ") : "";
  long saved_timezone_ = g_long_timezone_seconds;
  long saved_epoch_ = g_long_epoch_microseconds;
  time_t saved_begin_ = g_timet_begin_utc;
  time_t saved_now_ = g_timet_now_utc;

 protected:
  ~TimeStringTest() override {
    had_tz_ ? setenv("TZ", saved_tz_.c_str(), 1) : unsetenv("TZ");
    tzset();
    g_long_timezone_seconds = saved_timezone_;
    g_long_epoch_microseconds = saved_epoch_;
    g_timet_begin_utc = saved_begin_;
    g_timet_now_utc = saved_now_;
  }
  void init_in_zone(const char* tz) {
    setenv("TZ", tz, 1);
    tzset();
    time_string_init();
  }
};

TEST(TimeString, UtcKnownInstantsAndExtremeInputsInsideTheBuffer) {
  EXPECT_EQ(write(utc_timet_to_utc_chars, -30641760000L), "999-01-01T00:00:00");  // year not padded
  EXPECT_EQ(write(utc_nanoseconds_to_utc_chars, 1234567890123456789L), "2009-02-13T23:31:30.123456789");
  // One unit before the epoch is the last unit of 1969, not "-0.001" of 1970.
  EXPECT_EQ(write(utc_milliseconds_to_utc_chars, -1L), "1969-12-31T23:59:59.999");
  EXPECT_EQ(write(utc_microseconds_to_utc_chars, -1000001L), "1969-12-31T23:59:58.999999");
  EXPECT_EQ(write(utc_nanoseconds_to_utc_chars, LONG_MIN), "1677-09-21T00:12:43.145224192");
  EXPECT_EQ(write(duration_milliseconds_to_chars, 86400005ULL), "86400.005");
  EXPECT_EQ(write(duration_microseconds_to_chars, 86400123456ULL), "86400.123456");
  EXPECT_EQ(write(duration_nanoseconds_to_chars, ULLONG_MAX), "18446744073.709551615");
  EXPECT_EQ(write(utc_timet_to_english_chars, 0L, k_english_time_chars), "Thu, 01 Jan 1970 00:00:00 GMT");
  // Too wide for its 31 characters, or beyond gmtime_r: an empty text, not a cut one.
  EXPECT_EQ(write(utc_timet_to_english_chars, LONG_MAX, k_english_time_chars), "");
  for (long v : {LONG_MIN, LONG_MIN + 1, -1L, 0L, LONG_MAX - 1, LONG_MAX}) {
    for (auto w : {utc_timet_to_utc_chars, utc_seconds_to_local_chars, utc_milliseconds_to_utc_chars,
                   utc_microseconds_to_utc_chars, utc_nanoseconds_to_utc_chars, utc_milliseconds_to_local_chars,
                   utc_microseconds_to_local_chars, utc_nanoseconds_to_local_chars})
      write(w, v);
    write(utc_timet_to_english_chars, v, k_english_time_chars);
  }
  for (auto w : {duration_milliseconds_to_chars, duration_microseconds_to_chars, duration_nanoseconds_to_chars})
    write(w, ULLONG_MAX);
}

TEST_F(TimeStringTest, LocalKeepsTheOffsetReadAtStartUp) {
  init_in_zone("Asia/Kolkata");
  EXPECT_EQ(write(utc_seconds_to_local_chars, 0L), "1970-01-01T05:30:00");
  EXPECT_EQ(write(utc_nanoseconds_to_local_chars, 1234567890123456789L), "2009-02-14T05:01:30.123456789");
  // The shift moves a negative instant across the epoch.
  EXPECT_EQ(write(utc_milliseconds_to_local_chars, -19800001L), "1969-12-31T23:59:59.999");
  EXPECT_EQ(write(utc_microseconds_to_utc_chars, 0L), "1970-01-01T00:00:00.000000");  // UTC ignores the zone
  // A later change of TZ does not reach the texts until start-up reads the zone again.
  setenv("TZ", "America/New_York", 1);
  tzset();
  EXPECT_EQ(write(utc_seconds_to_local_chars, 0L), "1970-01-01T05:30:00");

  // The standard offset stays through daylight saving: July is one hour ahead, not two.
  init_in_zone("CET-1CEST,M3.5.0,M10.5.0/3");
  EXPECT_EQ(write(utc_seconds_to_local_chars, 1719835200L), "2024-07-01T13:00:00");

  // At the ends of the range the shift saturates instead of wrapping round, and beyond
  // gmtime_r's years the seconds themselves are written.
  g_long_timezone_seconds = 3600;
  EXPECT_EQ(write(utc_seconds_to_local_chars, LONG_MIN), "-9223372036854775808");
  g_long_timezone_seconds = -3600;
  EXPECT_EQ(write(utc_seconds_to_local_chars, LONG_MAX), "9223372036854775807");
}

TEST(TimeString, EnglishFormIgnoresTheLocale) {
  std::string saved = setlocale(LC_TIME, nullptr);
  if (setlocale(LC_TIME, "de_DE.UTF-8") == nullptr && setlocale(LC_TIME, "fr_FR.UTF-8") == nullptr)
    GTEST_SKIP() << "no German or French locale is installed on this machine";
  std::string text = write(utc_timet_to_english_chars, 1234567890L, k_english_time_chars);
  setlocale(LC_TIME, saved.c_str());
  EXPECT_EQ(text, "Fri, 13 Feb 2009 23:31:30 GMT");
}

TEST_F(TimeStringTest, StartUpFillsTheClocksAndStringFormsReplaceOrAppend) {
  g_long_epoch_microseconds = 0;
  g_timet_begin_utc = 0;
  g_timet_now_utc = 0;
  time_t before = time(nullptr);
  init_in_zone("UTC0");
  EXPECT_EQ(g_long_epoch_microseconds, 2440588L * 86400000000L);  // 1970-01-01 is Julian day 2440588
  EXPECT_EQ(boost_date_to_microseconds(boost::gregorian::date(boost::date_time::neg_infin)), LONG_MIN);
  EXPECT_EQ(boost_date_to_microseconds(boost::gregorian::date(boost::date_time::not_a_date_time)), LONG_MAX);
  EXPECT_GE(g_timet_begin_utc, before);
  EXPECT_LE(g_timet_begin_utc, time(nullptr));
  EXPECT_EQ(g_timet_now_utc, g_timet_begin_utc);

  // The microsecond clock is the system clock, also before start-up has filled the epoch.
  auto realtime_microseconds = [] {
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch()).count();
  };
  for (int round = 0; round < 2; ++round) {
    long low = realtime_microseconds();
    long ours = get_utc_microsecond();
    EXPECT_LE(low, ours);
    EXPECT_LE(ours, realtime_microseconds());
    g_long_epoch_microseconds = 0;
  }

  string text("previous ");
  utc_microseconds_append_local_string(0, text);
  EXPECT_STREQ(text.c_str(), "previous 1970-01-01T00:00:00.000000");
  utc_microseconds_to_local_string(1500000, text);
  EXPECT_STREQ(text.c_str(), "1970-01-01T00:00:01.500000");
  duration_nanoseconds_append_string(7, text);
  EXPECT_STREQ(text.c_str(), "1970-01-01T00:00:01.5000000.000000007");
  g_timet_now_utc = 0;  // the now form publishes the second it writes
  before = time(nullptr);
  now_utc_english_string(text);
  EXPECT_GE(g_timet_now_utc, before);
  EXPECT_LE(g_timet_now_utc, time(nullptr));
  EXPECT_EQ(std::string(text.c_str()), write(utc_timet_to_english_chars, long{g_timet_now_utc}, k_english_time_chars));
}

}  // namespace
}  // namespace quorla
