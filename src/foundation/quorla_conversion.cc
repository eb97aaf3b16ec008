// Number and text conversions. Nothing here allocates: these run below malloc and inside
// abort messages. Their own lines (chars_to_ulong's overflow, the power-of-two aborts) are
// built on the stack and written by one fputs.
#include "foundation/quorla_conversion.h"

#include <cstring>

#include "foundation/quorla_machine.h"
#include "foundation/quorla_stack_message.h"

namespace quorla {

namespace {

// Writes value's decimal digits at out (no sign), terminates, returns out.
char* unsigned_to_chars(unsigned long value, char* out) {
  char reversed[24];
  unsigned int count = 0;
  do {
    reversed[count++] = static_cast<char>('0' + value % 10);
    value /= 10;
  } while (value != 0);
  for (unsigned int i = 0; i < count; ++i) out[i] = reversed[count - 1 - i];
  out[count] = 0;
  return out;
}

char* signed_to_chars(long value, char* out) {
  if (value >= 0) return unsigned_to_chars(static_cast<unsigned long>(value), out);
  out[0] = '-';
  unsigned_to_chars(0ul - static_cast<unsigned long>(value), out + 1);
  return out;
}

bool is_digit(char c) { return c >= '0' && c <= '9'; }
bool is_skipped(char c) { return c == '\t' || c == '\n' || c == '\r' || c == ' ' || c == '+'; }

int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The decimal parser of every width. Overflow is seen only when the new value, in the width
// of the type, is below the old: a wrap that lands above it passes, by design.
template <typename T>
T parse_unsigned(const char* text, unsigned long length, bool& bool_overflow, unsigned long& position) {
  T value = 0;
  while (position < length && is_digit(text[position])) {
    T next = static_cast<T>(value * 10 + static_cast<T>(text[position] - '0'));
    if (next < value) {
      bool_overflow = true;
      return 0;
    }
    value = next;
    ++position;
  }
  return value;
}

template <typename T>
T chars_to_unsigned(const char* text, unsigned long length, bool& bool_overflow) {
  bool_overflow = false;
  unsigned long position = 0;
  while (position < length && is_skipped(text[position])) ++position;
  if (position >= length || !is_digit(text[position])) return 0;
  return parse_unsigned<T>(text, length, bool_overflow, position);
}

// Signed forms: a single "-" among the skipped characters; the magnitude is parsed as the
// unsigned type of the width and negated at the end; the smallest value's magnitude passes.
template <typename S, typename U>
S chars_to_signed(const char* text, unsigned long length, bool& bool_overflow) {
  bool_overflow = false;
  unsigned long position = 0;
  bool negative = false;
  while (position < length && (is_skipped(text[position]) || text[position] == '-')) {
    if (text[position] == '-') {
      if (negative) {
        bool_overflow = true;
        return 0;
      }
      negative = true;
    }
    ++position;
  }
  if (position >= length || !is_digit(text[position])) return 0;
  U magnitude = parse_unsigned<U>(text, length, bool_overflow, position);
  if (bool_overflow) return 0;
  const U limit = static_cast<U>(static_cast<U>(~static_cast<U>(0)) >> 1);
  if (magnitude > limit + (negative ? 1 : 0)) {
    bool_overflow = true;
    return 0;
  }
  return negative ? static_cast<S>(0 - magnitude) : static_cast<S>(magnitude);
}

template <typename T>
T chars_hex_to_unsigned(const char* text, unsigned long length, bool& bool_overflow) {
  bool_overflow = false;
  unsigned long position = 0;
  while (position < length && (text[position] == ' ' || text[position] == '\t' || text[position] == '0' ||
                               text[position] == 'x' || text[position] == 'X')) {
    ++position;
  }
  T value = 0;
  while (position < length && hex_value(text[position]) >= 0) {
    T next = static_cast<T>((value << 4) | static_cast<T>(hex_value(text[position])));
    if (next < value) {
      bool_overflow = true;
      return 0;
    }
    value = next;
    ++position;
  }
  return value;
}

char* bytes_to_hex(const void* p, unsigned int n, char sep, char* out, const char* digits, bool skip_leading_zero) {
  const auto* bytes = static_cast<const unsigned char*>(p);
  unsigned int size = 0;
  bool leading = skip_leading_zero;
  for (unsigned int i = 0; i < n; ++i) {
    char high = digits[bytes[i] >> 4];
    char low = digits[bytes[i] & 15];
    if (leading) {
      if (high == '0' && low == '0' && i + 1 < n) continue;
      leading = false;
      if (high != '0') out[size++] = high;
      out[size++] = low;
    } else {
      if (sep != 0 && size != 0) out[size++] = sep;
      out[size++] = high;
      out[size++] = low;
    }
  }
  out[size] = 0;
  return out;
}

const char k_hex_upper[] = "0123456789ABCDEF";
const char k_hex_lower[] = "0123456789abcdef";

}  // namespace

char* uchar_to_chars(unsigned char value, char* out) { return unsigned_to_chars(value, out); }
char* ushort_to_chars(unsigned short value, char* out) { return unsigned_to_chars(value, out); }
char* uint_to_chars(unsigned int value, char* out) { return unsigned_to_chars(value, out); }
char* ulong_to_chars(unsigned long value, char* out) { return unsigned_to_chars(value, out); }
char* int_to_chars(int value, char* out) { return signed_to_chars(value, out); }
char* long_to_chars(long value, char* out) { return signed_to_chars(value, out); }

char* uint_to_chars_fill_zero(unsigned int value, unsigned long width, char* out) {
  char digits[24];
  unsigned_to_chars(value, digits);
  unsigned long length = strlen(digits);
  unsigned long pad = width > length ? width - length : 0;
  for (unsigned long i = 0; i < pad; ++i) out[i] = '0';
  memcpy(out + pad, digits, length + 1);
  return out;
}

char* double_to_chars(double value, char* out) {
  // Six decimals, trailing zeros (and a bare point) dropped: 1.5 -> "1.5", 2 -> "2".
  snprintf(out, k_number_chars, "%.6f", value);
  char* point = strchr(out, '.');
  if (point != nullptr) {
    char* end = out + strlen(out) - 1;
    while (end > point && *end == '0') *end-- = 0;
    if (end == point) *end = 0;
  }
  return out;
}

char* float_to_chars(float value, char* out) { return double_to_chars(value, out); }

char* microseconds_to_seconds_chars(unsigned long long microseconds, unsigned int digits, char* out) {
  unsigned long long scale = 1;
  for (unsigned int i = 0; i < digits; ++i) scale *= 10;
  unsigned_to_chars(microseconds / 1000000, out);
  if (digits == 0) return out;
  unsigned long long fraction = (microseconds % 1000000) * scale / 1000000;
  unsigned long length = strlen(out);
  out[length] = '.';
  uint_to_chars_fill_zero(static_cast<unsigned int>(fraction), digits, out + length + 1);
  return out;
}

char* microseconds_to_seconds_chars(unsigned long long microseconds, char* out) {
  return microseconds_to_seconds_chars(microseconds, 6, out);
}

char* ptr_void_to_hex_upper(const void* p, unsigned int n, char sep, char* out) {
  return bytes_to_hex(p, n, sep, out, k_hex_upper, false);
}
char* ptr_void_to_hex_lower(const void* p, unsigned int n, char sep, char* out) {
  return bytes_to_hex(p, n, sep, out, k_hex_lower, false);
}
char* ptr_void_to_hex_upper_front_no_zero(const void* p, unsigned int n, char sep, char* out) {
  return bytes_to_hex(p, n, sep, out, k_hex_upper, true);
}
char* ptr_void_to_hex_lower_front_no_zero(const void* p, unsigned int n, char sep, char* out) {
  return bytes_to_hex(p, n, sep, out, k_hex_lower, true);
}

unsigned long chars_to_ulong(const char* text, unsigned long length, bool& bool_overflow) {
  bool_overflow = false;
  unsigned long position = 0;
  while (position < length && is_skipped(text[position])) ++position;
  if (position >= length || !is_digit(text[position])) return 0;
  unsigned long value = 0;
  while (position < length && is_digit(text[position])) {
    unsigned long next = value * 10 + static_cast<unsigned long>(text[position] - '0');
    if (next < value) {
      // The prefix of this line stays as it is: tools search for it. The text is cut to
      // what the buffer holds, so that no input can turn the report into an abort.
      Stack_message<1024>()
          .text("aaaa1 Log: chars_to_ulong() ulong_prior=")
          .dec(value)
          .text(", ulong_out=")
          .dec(next)
          .text(", chars_in=")
          .append_cut(text, length, 2)
          .end_line()
          .write();
      bool_overflow = true;
      return 0;
    }
    value = next;
    ++position;
  }
  return value;
}

unsigned int chars_to_uint(const char* text, unsigned long length, bool& bool_overflow) {
  return chars_to_unsigned<unsigned int>(text, length, bool_overflow);
}
unsigned short chars_to_ushort(const char* text, unsigned long length, bool& bool_overflow) {
  return chars_to_unsigned<unsigned short>(text, length, bool_overflow);
}
long chars_to_long(const char* text, unsigned long length, bool& bool_overflow) {
  return chars_to_signed<long, unsigned long>(text, length, bool_overflow);
}
int chars_to_int(const char* text, unsigned long length, bool& bool_overflow) {
  return chars_to_signed<int, unsigned int>(text, length, bool_overflow);
}
short chars_to_short(const char* text, unsigned long length, bool& bool_overflow) {
  return chars_to_signed<short, unsigned short>(text, length, bool_overflow);
}
unsigned long chars_hex_to_ulong(const char* text, unsigned long length, bool& bool_overflow) {
  return chars_hex_to_unsigned<unsigned long>(text, length, bool_overflow);
}
unsigned int chars_hex_to_uint(const char* text, unsigned long length, bool& bool_overflow) {
  return chars_hex_to_unsigned<unsigned int>(text, length, bool_overflow);
}
unsigned short chars_hex_to_ushort(const char* text, unsigned long length, bool& bool_overflow) {
  return chars_hex_to_unsigned<unsigned short>(text, length, bool_overflow);
}

unsigned long long get_2power_great_or_equal_to(unsigned long long value) {
  if (value < 2) return 1;
  unsigned long long power = 2;
  for (int i = 0; i < 63; ++i, power <<= 1) {
    if (power >= value) return power;
  }
  Stack_message<1024>().text("Error: get_2power_great_or_equal_to() overflow. ulong_in=").dec(value).end_line().write_and_abort();
}

unsigned long long get_2power_great_or_equal_to(unsigned long long value, unsigned long long min) {
  if (value <= min) return min;
  unsigned long long result = min;
  while (result < value) {
    unsigned long long doubled = result << 1;
    if (doubled <= result) {
      Stack_message<1024>()
          .text("Error: get_2power_great_or_equal_to() overflow. ulong_in=")
          .dec(value)
          .text(", ulong_min_in=")
          .dec(min)
          .end_line()
          .write_and_abort();
    }
    result = doubled;
  }
  return result;
}

// The one message of both 32-bit forms; written without allocating.
[[noreturn]] static void uint_power_overflow(unsigned int value) {
  Stack_message<1024>().text("Error: get_2power_great_or_equal_to_uint() overflow. uint_in=").dec(value).end_line().write_and_abort();
}

unsigned int get_2power_great_or_equal_to_uint(unsigned int value) {
  if (value < 2) return 1;
  unsigned int power = 2;
  for (int i = 0; i < 31; ++i, power <<= 1) {
    if (power >= value) return power;
  }
  uint_power_overflow(value);
}

unsigned int get_2power_great_or_equal_to_uint(unsigned int value, unsigned int min) {
  if (value <= min) return min;
  unsigned int result = min;
  while (result < value) {
    unsigned int doubled = result << 1;
    if (doubled <= result) uint_power_overflow(value);
    result = doubled;
  }
  return result;
}

unsigned short ushort_endium_swap(unsigned short value) {
  return g_bool_big_endian ? value : static_cast<unsigned short>((value >> 8) | (value << 8));
}
short short_endium_swap(short value) { return static_cast<short>(ushort_endium_swap(static_cast<unsigned short>(value))); }
unsigned long div_10(unsigned long value) { return value / 10; }

unsigned int utf8_decode(const unsigned char*& text, const unsigned char* end) {
  unsigned int first = *text++;
  unsigned int extra = first >= 0xF0 ? 3 : first >= 0xE0 ? 2 : first >= 0xC0 ? 1 : 0;
  unsigned int code = extra == 3 ? first & 7 : extra == 2 ? first & 15 : extra == 1 ? first & 31 : first;
  for (unsigned int i = 0; i < extra && text < end && (*text & 0xC0) == 0x80; ++i) code = (code << 6) | (*text++ & 63);
  return code;
}

unsigned long chars_utf8_length(const char* text, unsigned long length) {
  const auto* cursor = reinterpret_cast<const unsigned char*>(text);
  const auto* end = cursor + length;
  unsigned long count = 0;
  while (cursor < end) {
    utf8_decode(cursor, end);
    ++count;
  }
  return count;
}

}  // namespace quorla
