// Each pair is one buffer call: the text is built on the stack, then appended.
#include "foundation/quorla_time_string_form.h"

#include "foundation/quorla_time_string.h"

namespace quorla {

#define QUORLA_TIME_STRING_FORMS(to_name, append_name, Input, chars_function) \
  void append_name(Input value, string& out) {                                 \
    char buffer[k_time_chars];                                                 \
    const unsigned long length = chars_function(value, buffer);                \
    out.append(buffer, static_cast<unsigned int>(length));                    \
  }                                                                            \
  void to_name(Input value, string& out) {                                     \
    out.clear();                                                               \
    append_name(value, out);                                                   \
  }

QUORLA_TIME_STRING_FORMS(utc_timet_to_utc_string, utc_timet_append_utc_string, long, utc_timet_to_utc_chars)
QUORLA_TIME_STRING_FORMS(utc_seconds_to_local_string, utc_seconds_append_local_string, long, utc_seconds_to_local_chars)
QUORLA_TIME_STRING_FORMS(utc_milliseconds_to_local_string, utc_milliseconds_append_local_string, long, utc_milliseconds_to_local_chars)
QUORLA_TIME_STRING_FORMS(utc_microseconds_to_local_string, utc_microseconds_append_local_string, long, utc_microseconds_to_local_chars)
QUORLA_TIME_STRING_FORMS(utc_nanoseconds_to_local_string, utc_nanoseconds_append_local_string, long, utc_nanoseconds_to_local_chars)
QUORLA_TIME_STRING_FORMS(utc_milliseconds_to_utc_string, utc_milliseconds_append_utc_string, long, utc_milliseconds_to_utc_chars)
QUORLA_TIME_STRING_FORMS(utc_microseconds_to_utc_string, utc_microseconds_append_utc_string, long, utc_microseconds_to_utc_chars)
QUORLA_TIME_STRING_FORMS(utc_nanoseconds_to_utc_string, utc_nanoseconds_append_utc_string, long, utc_nanoseconds_to_utc_chars)
QUORLA_TIME_STRING_FORMS(duration_milliseconds_to_string, duration_milliseconds_append_string, unsigned long long,
                         duration_milliseconds_to_chars)
QUORLA_TIME_STRING_FORMS(duration_microseconds_to_string, duration_microseconds_append_string, unsigned long long,
                         duration_microseconds_to_chars)
QUORLA_TIME_STRING_FORMS(duration_nanoseconds_to_string, duration_nanoseconds_append_string, unsigned long long,
                         duration_nanoseconds_to_chars)
#undef QUORLA_TIME_STRING_FORMS

void now_utc_english_string(string& out) {
  char buffer[k_english_time_chars];
  const unsigned long length = now_utc_english_chars(buffer);
  out.assign(buffer, static_cast<unsigned int>(length));
}

}  // namespace quorla
