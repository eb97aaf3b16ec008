// Time as text: the base date writer, its fractions and local shift, durations, the English
// form, and the wall clocks that start-up fills. Only headers of Boost date_time are used
// (the Gregorian date and the microsecond clock); no compiled part of it is needed.
#include "foundation/quorla_time_string.h"

#include <limits.h>
#include <locale.h>
#include <string.h>

#include <boost/date_time/gregorian/gregorian_types.hpp>
#include <boost/date_time/posix_time/posix_time_types.hpp>

#include "foundation/quorla_conversion.h"

namespace quorla {

long g_long_epoch_microseconds = 0;
long g_long_timezone_seconds = 0;
time_t g_timet_begin_utc = 0;
time_t g_timet_now_utc = 0;

namespace {

// Unit of each input, and how many digits its fraction of a second takes.
constexpr long k_long_milli = 1000L;
constexpr long k_long_micro = 1000000L;
constexpr long k_long_nano = 1000000000L;

long epoch_microseconds_now_or_computed() {
  // Read before start-up has filled it (a failure line of an earlier step), the constant is
  // worked out on the spot rather than trusted as 0.
  long epoch = g_long_epoch_microseconds;
  if (QUORLA_UNLIKELY(epoch == 0)) epoch = boost_date_to_microseconds(boost::gregorian::date(1970, 1, 1));
  return epoch;
}

// Seconds and a non-negative remainder below `unit`, the quotient rounded towards minus
// infinity: -1 ms is second -1 with 999 ms, not second 0 with -1.
void split_floor(long value, long unit, long& seconds, long& fraction) {
  seconds = value / unit;
  fraction = value % unit;
  if (fraction < 0) {
    fraction += unit;
    --seconds;
  }
}

long to_local_seconds(long seconds) {
  long local;
  if (__builtin_sub_overflow(seconds, g_long_timezone_seconds, &local))
    local = g_long_timezone_seconds < 0 ? LONG_MAX : LONG_MIN;
  return local;
}

char* put_two_digits(char* p, int value) {
  p[0] = static_cast<char>('0' + value / 10);
  p[1] = static_cast<char>('0' + value % 10);
  return p + 2;
}

// Appends "." and `digits` digits of fraction, zero-padded; returns the new length.
unsigned long put_fraction(char* out, unsigned long length, long fraction, unsigned long digits) {
  out[length] = '.';
  uint_to_chars_fill_zero(static_cast<unsigned int>(fraction), digits, out + length + 1);
  return length + 1 + digits;
}

unsigned long instant_to_chars(long value, long unit, unsigned long digits, bool local, char* out) {
  long seconds;
  long fraction;
  split_floor(value, unit, seconds, fraction);
  if (local) seconds = to_local_seconds(seconds);
  unsigned long length = utc_timet_to_utc_chars(seconds, out);
  return put_fraction(out, length, fraction, digits);
}

unsigned long duration_to_chars(unsigned long long value, unsigned long long unit, unsigned long digits,
                                char* out) {
  ulong_to_chars(static_cast<unsigned long>(value / unit), out);
  return put_fraction(out, strlen(out), static_cast<long>(value % unit), digits);
}

}  // namespace

long boost_date_to_microseconds(const boost::gregorian::date& d) {
  if (d.is_neg_infinity()) return LONG_MIN;
  if (d.is_special()) return LONG_MAX;
  return static_cast<long>(d.day_number()) * k_long_microseconds_per_day;
}

void time_string_init() {
  g_long_epoch_microseconds = boost_date_to_microseconds(boost::gregorian::date(1970, 1, 1));
  // The results are dropped: the point of the local read is that it loads the zone and sets
  // libc's `timezone`. tzset() as well, since POSIX does not promise that localtime_r does.
  (void)boost::posix_time::microsec_clock::universal_time();
  (void)boost::posix_time::microsec_clock::local_time();
  tzset();
  g_long_timezone_seconds = timezone;
  g_timet_begin_utc = time(nullptr);
  g_timet_now_utc = g_timet_begin_utc;
}

long get_utc_microsecond() {
  boost::posix_time::ptime now = boost::posix_time::microsec_clock::universal_time();
  return boost_date_to_microseconds(now.date()) + now.time_of_day().total_microseconds() -
         epoch_microseconds_now_or_computed();
}

time_t refresh_timet_now_utc() {
  time_t now = time(nullptr);
  g_timet_now_utc = now;
  return now;
}

unsigned long utc_timet_to_utc_chars(long t, char* out) {
  time_t value = static_cast<time_t>(t);
  tm parts;
  if (QUORLA_UNLIKELY(gmtime_r(&value, &parts) == nullptr)) {
    long_to_chars(t, out);
    return strlen(out);
  }
  long_to_chars(static_cast<long>(parts.tm_year) + 1900L, out);
  char* p = out + strlen(out);
  *p++ = '-';
  p = put_two_digits(p, parts.tm_mon + 1);
  *p++ = '-';
  p = put_two_digits(p, parts.tm_mday);
  *p++ = 'T';
  p = put_two_digits(p, parts.tm_hour);
  *p++ = ':';
  p = put_two_digits(p, parts.tm_min);
  *p++ = ':';
  p = put_two_digits(p, parts.tm_sec);
  *p = 0;
  return static_cast<unsigned long>(p - out);
}

unsigned long utc_seconds_to_local_chars(long seconds, char* out) {
  return utc_timet_to_utc_chars(to_local_seconds(seconds), out);
}

unsigned long utc_milliseconds_to_local_chars(long milliseconds, char* out) {
  return instant_to_chars(milliseconds, k_long_milli, 3, true, out);
}
unsigned long utc_microseconds_to_local_chars(long microseconds, char* out) {
  return instant_to_chars(microseconds, k_long_micro, 6, true, out);
}
unsigned long utc_nanoseconds_to_local_chars(long nanoseconds, char* out) {
  return instant_to_chars(nanoseconds, k_long_nano, 9, true, out);
}

unsigned long utc_milliseconds_to_utc_chars(long milliseconds, char* out) {
  return instant_to_chars(milliseconds, k_long_milli, 3, false, out);
}
unsigned long utc_microseconds_to_utc_chars(long microseconds, char* out) {
  return instant_to_chars(microseconds, k_long_micro, 6, false, out);
}
unsigned long utc_nanoseconds_to_utc_chars(long nanoseconds, char* out) {
  return instant_to_chars(nanoseconds, k_long_nano, 9, false, out);
}

unsigned long duration_milliseconds_to_chars(unsigned long long milliseconds, char* out) {
  return duration_to_chars(milliseconds, k_long_milli, 3, out);
}
unsigned long duration_microseconds_to_chars(unsigned long long microseconds, char* out) {
  return duration_to_chars(microseconds, k_long_micro, 6, out);
}
unsigned long duration_nanoseconds_to_chars(unsigned long long nanoseconds, char* out) {
  return duration_to_chars(nanoseconds, k_long_nano, 9, out);
}

unsigned long utc_timet_to_english_chars(long t, char* out) {
  time_t value = static_cast<time_t>(t);
  tm parts;
  out[0] = 0;
  if (gmtime_r(&value, &parts) == nullptr) return 0;
  // Names of days and months from the C locale, not from whatever setlocale() the host made.
  // glibc hands out its built-in C locale object here, without allocating.
  locale_t c_locale = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(nullptr));
  size_t length = c_locale != static_cast<locale_t>(nullptr)
                      ? strftime_l(out, k_english_time_chars, "%a, %d %b %Y %H:%M:%S GMT", &parts, c_locale)
                      : strftime(out, k_english_time_chars, "%a, %d %b %Y %H:%M:%S GMT", &parts);
  if (c_locale != static_cast<locale_t>(nullptr)) freelocale(c_locale);
  // strftime leaves the buffer undefined when the text does not fit.
  out[length] = 0;
  return length;
}

unsigned long now_utc_english_chars(char* out) { return utc_timet_to_english_chars(refresh_timet_now_utc(), out); }

}  // namespace quorla
