// Text and number conversion. Nothing here allocates: these run below malloc and inside
// abort messages. Number-to-text functions write into the caller's buffer, terminate it
// and return it. Parsers report overflow through bool_overflow only.
#pragma once

#include "foundation/quorla_base.h"

namespace quorla {

// Scratch size that holds any number produced here, with its terminator.
constexpr unsigned int k_number_chars = 64;

char* uchar_to_chars(unsigned char value, char* out);
char* ushort_to_chars(unsigned short value, char* out);
char* uint_to_chars(unsigned int value, char* out);
char* ulong_to_chars(unsigned long value, char* out);
char* int_to_chars(int value, char* out);
char* long_to_chars(long value, char* out);
char* uint_to_chars_fill_zero(unsigned int value, unsigned long width, char* out);
char* float_to_chars(float value, char* out);
char* double_to_chars(double value, char* out);
char* microseconds_to_seconds_chars(unsigned long long microseconds, char* out);
char* microseconds_to_seconds_chars(unsigned long long microseconds, unsigned int digits, char* out);

// n bytes from p, two hex digits each, in memory order; sep between bytes unless 0.
char* ptr_void_to_hex_upper(const void* p, unsigned int n, char sep, char* out);
char* ptr_void_to_hex_lower(const void* p, unsigned int n, char sep, char* out);
char* ptr_void_to_hex_upper_front_no_zero(const void* p, unsigned int n, char sep, char* out);
char* ptr_void_to_hex_lower_front_no_zero(const void* p, unsigned int n, char sep, char* out);

unsigned long chars_to_ulong(const char* text, unsigned long length, bool& bool_overflow);
unsigned int chars_to_uint(const char* text, unsigned long length, bool& bool_overflow);
unsigned short chars_to_ushort(const char* text, unsigned long length, bool& bool_overflow);
long chars_to_long(const char* text, unsigned long length, bool& bool_overflow);
int chars_to_int(const char* text, unsigned long length, bool& bool_overflow);
short chars_to_short(const char* text, unsigned long length, bool& bool_overflow);
unsigned long chars_hex_to_ulong(const char* text, unsigned long length, bool& bool_overflow);
unsigned int chars_hex_to_uint(const char* text, unsigned long length, bool& bool_overflow);
unsigned short chars_hex_to_ushort(const char* text, unsigned long length, bool& bool_overflow);

unsigned long long get_2power_great_or_equal_to(unsigned long long value);
unsigned long long get_2power_great_or_equal_to(unsigned long long value, unsigned long long min);
unsigned int get_2power_great_or_equal_to_uint(unsigned int value);
unsigned int get_2power_great_or_equal_to_uint(unsigned int value, unsigned int min);

}  // namespace quorla

namespace quorla {

unsigned short ushort_endium_swap(unsigned short value);
short short_endium_swap(short value);
unsigned long div_10(unsigned long value);
// The next code point of UTF-8 text, advancing text; length in code points.
unsigned int utf8_decode(const unsigned char*& text, const unsigned char* end);
unsigned long chars_utf8_length(const char* text, unsigned long length);

}  // namespace quorla
