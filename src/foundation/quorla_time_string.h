// Time as text, and the wall clocks of the library.
//
// One base function writes a date, "year-MM-DDTHH:MM:SS" from gmtime_r; the rest of the family
// adds a fraction of 3, 6 or 9 digits, or shifts to local time first. Local time is UTC minus
// g_long_timezone_seconds, the libc `timezone` as it stood at start-up: no daylight-saving rule
// is applied, so a local text keeps one fixed offset for the life of the process.
//
// Every function here writes into the caller's buffer (k_time_chars bytes hold any result),
// terminates it and returns the length written. Nothing allocates, so these may run below
// malloc and inside failure lines. Instants are signed and divided towards minus infinity,
// so times before 1970 come out as the calendar says.
//
// time_string_init() belongs to start-up, on the loading thread, before any other thread
// exists: it fills the epoch constant, the offset and the two coarse wall clocks. The coarse
// clocks are plain words afterwards; any thread may refresh or read them without a lock.
#pragma once

#include <time.h>

#include "foundation/quorla_base.h"

namespace boost {
namespace gregorian {
class date;
}  // namespace gregorian
}  // namespace boost

namespace quorla {

// Room for any text of this file with its terminator: an 11-character year, the 15 characters
// of the rest of the date, a point and 9 digits fit, and so do 20 digits of seconds and 9 more.
constexpr unsigned int k_time_chars = 48;
// strftime's room for the English form; the text itself is 29 characters for 4-digit years.
constexpr unsigned int k_english_time_chars = 32;

constexpr long k_long_microseconds_per_day = 86400000000L;

// Day number of 1970-01-01 in the Boost Gregorian calendar, in microseconds.
extern long g_long_epoch_microseconds;
// Seconds west of UTC (libc's `timezone`), read once at start-up.
extern long g_long_timezone_seconds;
// time(nullptr) at start-up; never changes afterwards.
extern time_t g_timet_begin_utc;
// A coarse wall clock in seconds, refreshed by whoever passes by; any thread's last value will do.
extern time_t g_timet_now_utc;

// Start-up: the epoch constant; one read of the microsecond clock through gmtime and one
// through localtime (the latter loads the zone); the zone offset; then the two wall clocks.
void time_string_init();

// The day of d, in microseconds on the calendar's own count; the calendar's special values
// go to the ends of the range (minus infinity to LONG_MIN, plus infinity and not-a-date to
// LONG_MAX).
long boost_date_to_microseconds(const boost::gregorian::date& d);

// The system clock, microseconds since 1970-01-01T00:00:00 UTC, through Boost's microsecond
// clock and calendar.
long get_utc_microsecond();

// time(nullptr), also published in g_timet_now_utc.
time_t refresh_timet_now_utc();

// The base: gmtime_r of t as "year-MM-DDTHH:MM:SS", the year in plain decimal. Should t lie
// beyond what gmtime_r can express, t itself is written in decimal instead of a date.
unsigned long utc_timet_to_utc_chars(long t, char* out);

unsigned long utc_seconds_to_local_chars(long seconds, char* out);
unsigned long utc_milliseconds_to_local_chars(long milliseconds, char* out);
unsigned long utc_microseconds_to_local_chars(long microseconds, char* out);
unsigned long utc_nanoseconds_to_local_chars(long nanoseconds, char* out);

unsigned long utc_milliseconds_to_utc_chars(long milliseconds, char* out);
unsigned long utc_microseconds_to_utc_chars(long microseconds, char* out);
unsigned long utc_nanoseconds_to_utc_chars(long nanoseconds, char* out);

// A length of time: whole seconds in decimal, a point and the fraction.
unsigned long duration_milliseconds_to_chars(unsigned long long milliseconds, char* out);
unsigned long duration_microseconds_to_chars(unsigned long long microseconds, char* out);
unsigned long duration_nanoseconds_to_chars(unsigned long long nanoseconds, char* out);

// "%a, %d %b %Y %H:%M:%S GMT" of t, in English whatever locale the host has set; out holds
// k_english_time_chars bytes. An instant that gmtime_r or the room cannot take gives "".
unsigned long utc_timet_to_english_chars(long t, char* out);
// The same for now (which also refreshes g_timet_now_utc).
unsigned long now_utc_english_chars(char* out);

}  // namespace quorla
