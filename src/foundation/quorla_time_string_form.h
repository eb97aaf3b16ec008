// The string forms of the time texts: each `to` form clears the string first, each
// `append` form adds to it. They call the caller-buffer functions of quorla_time_string.h
// and so give the same text; unlike those, these allocate (the string's array), so they
// serve code above the allocator only.
#pragma once

#include "foundation/quorla_string_class.h"

namespace quorla {

void utc_timet_to_utc_string(long t, string& out);
void utc_timet_append_utc_string(long t, string& out);

void utc_seconds_to_local_string(long seconds, string& out);
void utc_seconds_append_local_string(long seconds, string& out);
void utc_milliseconds_to_local_string(long milliseconds, string& out);
void utc_milliseconds_append_local_string(long milliseconds, string& out);
void utc_microseconds_to_local_string(long microseconds, string& out);
void utc_microseconds_append_local_string(long microseconds, string& out);
void utc_nanoseconds_to_local_string(long nanoseconds, string& out);
void utc_nanoseconds_append_local_string(long nanoseconds, string& out);

void utc_milliseconds_to_utc_string(long milliseconds, string& out);
void utc_milliseconds_append_utc_string(long milliseconds, string& out);
void utc_microseconds_to_utc_string(long microseconds, string& out);
void utc_microseconds_append_utc_string(long microseconds, string& out);
void utc_nanoseconds_to_utc_string(long nanoseconds, string& out);
void utc_nanoseconds_append_utc_string(long nanoseconds, string& out);

void duration_milliseconds_to_string(unsigned long long milliseconds, string& out);
void duration_milliseconds_append_string(unsigned long long milliseconds, string& out);
void duration_microseconds_to_string(unsigned long long microseconds, string& out);
void duration_microseconds_append_string(unsigned long long microseconds, string& out);
void duration_nanoseconds_to_string(unsigned long long nanoseconds, string& out);
void duration_nanoseconds_append_string(unsigned long long nanoseconds, string& out);

// "%a, %d %b %Y %H:%M:%S GMT" of now, in English; replaces the string's content.
void now_utc_english_string(string& out);

}  // namespace quorla
