// The flat library of free functions on string: case, character-class and text-form tests,
// trims, replacements and erasures, encoders, delimiter cuts, quotation ends and byte
// shifts. Everything here allocates through string (the exported malloc family), so only
// code above the allocator may call it. Bytes are tested as ASCII; no locale is consulted.
// The trim set is exactly tab, line feed, carriage return and blank; "blank" alone is ' '.
// Cuts write their result to an out string and return false (out cleared) when a delimiter
// is missing; "after" leaves the delimiter out, "from" keeps it, "to" never includes the
// end delimiter. Not thread-safe on a shared string.
#pragma once

#include "foundation/quorla_string_class.h"

namespace quorla {

// The string library's version note; a constant array, so loading it allocates nothing.
extern const char g_str_quorla_string_version_date[];

// ---- case, in place
// ASCII a-z to A-Z; other bytes unchanged.
string& to_upper(string& str);
// ASCII A-Z to a-z; other bytes unchanged.
string& to_lower(string& str);

// ---- character classes (an empty string is never a member of a class)
// Only the digits 0-9.
bool string_is_number(const string& str);
// An optional sign then 1 or more digits whose value fits a signed 64-bit integer.
bool string_is_valid_long(const string& str);
// Optional sign, digits with at most one point (a digit on at least one side), optional e/E exponent with digits.
bool string_is_float(const string& str);
// Only hex digits 0-9, a-f, A-F (no 0x prefix).
bool string_is_hex(const string& str);
// Only 0 and 1.
bool string_is_bin(const string& str);
// Only ASCII letters.
bool string_is_abc(const string& str);
// At least one digit 0-9.
bool string_has_number(const string& str);
// At least one ASCII letter.
bool string_has_abc(const string& str);
// Only visible ASCII 0x21-0x7E: no blank, control or non-ASCII byte.
bool string_is_full_char(const string& str);

// ---- text forms
// Dotted quad: four decimal parts 0-255, no sign, no leading zero except "0" itself.
bool string_is_ip_v4(const string& str);
// Eight groups of 1-4 hex digits split by ':', one "::" for one or more zero groups, a dotted quad allowed as the last two groups; no zone, no brackets.
bool string_is_ip_v6(const string& str);
// A dotted quad, '/', and a prefix length 0-32 without leading zero.
bool string_is_ip_net_v4(const string& str);
// At least two labels (1-63 of letters, digits, '-', no '-' at either end), at most 253 bytes, one trailing '.' allowed, last label not all digits.
bool string_is_domain_name(const string& str);
// The domain-name rule with a single label allowed ("localhost").
bool string_is_host_name(const string& str);

// ---- trims. The set: '\t', '\n', '\r', ' '.
// A trimmed copy, both ends.
string string_trim(const string& str);
// A copy without leading trim bytes.
string string_trim_left(const string& str);
// A copy without trailing trim bytes.
string string_trim_right(const string& str);
// In place, both ends; a string whose two end bytes are not trim bytes is left untouched.
string& trim(string& str);
// In place, leading bytes; the first byte is tested before anything moves.
string& trim_left(string& str);
// In place, trailing bytes; only the size changes.
string& trim_right(string& str);
// Same as trim_left.
string& string_trim_left_this(string& str);
// Same as trim_right.
string& string_trim_right_this(string& str);

// ---- replace and erase
// Replaces the first occurrence of from at or after pos by to; false if none (or from empty).
bool string_replace(string& str, const string& from, const string& to, unsigned int pos = 0);
// Replaces the first byte from by to; false if none.
bool string_replace(string& str, unsigned char from, unsigned char to);
// Replaces every occurrence left to right, never matching inside inserted text; returns the count (0 for an empty from).
unsigned int string_replace_all(string& str, const string& from, const string& to);
// Replaces every byte from by to; returns the count.
unsigned int string_replace_all(string& str, unsigned char from, unsigned char to);
// Erases every occurrence of the byte; returns the count.
unsigned int string_erase_all(string& str, unsigned char c);
// Erases every occurrence left to right in one pass (a match formed by the joining is kept); returns the count.
unsigned int string_erase_all(string& str, const string& pattern);
// While two blanks stand together erases one of them, searching on from there: a run of blanks becomes one; tabs are not blanks. Returns the count.
unsigned int string_erase_one_of_double_blank(string& str);
// Erases every blank ' ' (tabs and line ends stay); returns the count.
unsigned int string_erase_blank(string& str);
// Erases each part from a begin byte to the next end byte, both included; an unclosed part stays. Returns the parts erased.
unsigned int string_erase_char_begin_char_end(string& str, unsigned char begin, unsigned char end);
// Each pair of c, left to right, becomes one c (the doubled-quote unescape: "''''" gives "''"); returns the pairs undone.
unsigned int string_erase_double_char(string& str, unsigned char c);

// ---- encoders. The iterator forms append to out and return it.
// Two upper-case hex digits per byte, no separator.
string string_to_hex_upper(const string& str);
string& string_to_hex_upper(const unsigned char* first, const unsigned char* last, string& out);
// Two lower-case hex digits per byte, no separator.
string string_to_hex_lower(const string& str);
string& string_to_hex_lower(const unsigned char* first, const unsigned char* last, string& out);
// Percent-encoding: A-Z a-z 0-9 - _ . ~ kept, every other byte (blank included) as %XX, upper-case.
string string_to_url_encode(const string& str);
string& string_to_url_encode(const unsigned char* first, const unsigned char* last, string& out);

// ---- cuts by a delimiter (a byte or a non-empty string)
// From the start to the first delimiter, delimiter left out.
bool string_get_value_from_begin_to_find(const string& str, const string& find, string& out);
bool string_get_value_from_begin_to_find(const string& str, unsigned char find, string& out);
// After the first delimiter to the end.
bool string_get_value_after_find(const string& str, const string& find, string& out);
bool string_get_value_after_find(const string& str, unsigned char find, string& out);
// From the first delimiter, kept, to the end.
bool string_get_value_from_find(const string& str, const string& find, string& out);
bool string_get_value_from_find(const string& str, unsigned char find, string& out);
// After the last delimiter to the end.
bool string_get_value_after_find_last_of(const string& str, const string& find, string& out);
bool string_get_value_after_find_last_of(const string& str, unsigned char find, string& out);
// Between the first begin and the first end after it, both left out.
bool string_get_value_after_find_begin_to_find_end(const string& str, const string& begin, const string& end, string& out);
bool string_get_value_after_find_begin_to_find_end(const string& str, unsigned char begin, unsigned char end, string& out);
// From the first begin, kept, to the first end after it, left out.
bool string_get_value_from_find_begin_to_find_end(const string& str, const string& begin, const string& end, string& out);
bool string_get_value_from_find_begin_to_find_end(const string& str, unsigned char begin, unsigned char end, string& out);
// From offset to the first delimiter at or after it, left out; false also for an offset past the end.
bool string_get_value_from_offset_begin_to_find(const string& str, unsigned int offset, const string& find, string& out);
bool string_get_value_from_offset_begin_to_find(const string& str, unsigned int offset, unsigned char find, string& out);
// Splits at the first delimiter: key before, value after, untrimmed; false (both cleared) if missing.
bool string_get_key_value_find(const string& str, const string& find, string& key, string& value);
bool string_get_key_value_find(const string& str, unsigned char find, string& key, string& value);

// ---- quotation
// str[pos] is the opening quote; the offset of the next same byte after it, or npos (also when pos is past the end).
unsigned int get_quotation_mark_offset(const string& str, unsigned int pos);
// The same, a backslash escaping the byte after it (so \" and \\ are skipped).
unsigned int get_quotation_mark_offset_with_escape(const string& str, unsigned int pos);

// ---- delimiters and byte shifts
// If str holds at least two bytes, begins with first and ends with last, strips both and returns true; otherwise leaves it.
bool string_check_first_and_last(string& str, unsigned char first, unsigned char last);
// Adds c to every byte, modulo 256.
string& string_char_plus_char(string& str, unsigned char c);
// Subtracts c from every byte, modulo 256 (undoes string_char_plus_char).
string& string_char_subtract_char(string& str, unsigned char c);

// ---- text forms for people and tests
// length bytes drawn uniformly from A-Z a-z 0-9, from the kernel's random source (a clock-seeded generator if it fails).
string string_make_random(unsigned int length);
// length bytes drawn uniformly from alphabet (empty alphabet: empty result).
string string_make_random(unsigned int length, const string& alphabet);
// Printable form: 0x20-0x7E kept except '\' (as \\), tab/LF/CR as \t \n \r, other bytes as \xHH.
string to_string_can_show(const string& str);

}  // namespace quorla
