// Numbers from string, and key-value lines into a map. The integer forms are the library's
// decimal and hex parsers run on the string's bytes, with their rules: leading tab, line
// feed, carriage return, blank and '+' skipped, the number ends at the first non-digit,
// text without digits gives 0 and no error, and overflow gives 0 with bool_overflow set.
// Overflow is seen the parsers' way: a step whose value wraps below the previous one, or
// a magnitude beyond the signed or narrower range; a wrap that lands above the previous
// value is missed. The forms without a flag return the same values. stoul and stoull
// inherit chars_to_ulong's overflow line on standard error. Above the allocator only.
#pragma once

#include <sys/types.h>

#include "foundation/quorla_string_class.h"
#include "foundation/quorla_unordered_map.h"
#include "foundation/quorla_vector.h"

namespace quorla {

// Decimal -128..127; outside it 0 and the flag.
char to_char(const string& str, bool& bool_overflow);
char to_char(const string& str);
// Decimal 0..255; above it 0 and the flag.
unsigned char to_uchar(const string& str, bool& bool_overflow);
unsigned char to_uchar(const string& str);
// Hex digits ("0x", leading zeros and blanks skipped), 0..FF; above it 0 and the flag.
unsigned char hex_to_uchar(const string& str, bool& bool_overflow);
unsigned char hex_to_uchar(const string& str);
// Signed decimal, 64 bits.
ssize_t to_ssize_t(const string& str, bool& bool_overflow);
ssize_t to_ssize_t(const string& str);

int stoi(const string& str, bool& bool_overflow);
int stoi(const string& str);
long stol(const string& str, bool& bool_overflow);
long stol(const string& str);
long long stoll(const string& str, bool& bool_overflow);
long long stoll(const string& str);
unsigned int stou(const string& str, bool& bool_overflow);
unsigned int stou(const string& str);
unsigned long stoul(const string& str, bool& bool_overflow);
unsigned long stoul(const string& str);
unsigned long long stoull(const string& str, bool& bool_overflow);
unsigned long long stoull(const string& str);
// Floating forms: the same skipped prefix, then the C-locale text form (decimal or
// exponent, "inf", "nan"); a value out of the type's range gives 0 and the flag, text
// without a number gives 0 and no flag.
float stof(const string& str, bool& bool_overflow);
float stof(const string& str);
double stod(const string& str, bool& bool_overflow);
double stod(const string& str);
long double stold(const string& str, bool& bool_overflow);
long double stold(const string& str);

// Splits each line at its first separator into key and value, both trimmed of tab, line
// feed, carriage return and blank; lines without the separator or with an empty key are
// skipped; a later key replaces an earlier value. Returns the number of lines stored.
unsigned int vector_string_to_umap_string_key_value(const vector<string>& lines, const string& separator,
                                                    unordered_map<string, string>& out);

}  // namespace quorla
