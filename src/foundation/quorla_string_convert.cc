// Numbers from string on the library's parsers, and key-value lines into a map.
#include "foundation/quorla_string_convert.h"

#include <charconv>
#include <system_error>

#include "foundation/quorla_conversion.h"
#include "foundation/quorla_string_function.h"

namespace quorla {

namespace {

const char* chars(const string& str) { return str.c_str(); }

// Narrows a parsed value into [low, high]; outside it 0 and the flag.
template <class T, class W>
T narrow(W value, bool& bool_overflow, W low, W high) {
  if (bool_overflow || value < low || value > high) {
    bool_overflow = true;
    return 0;
  }
  return static_cast<T>(value);
}

// The forms without a flag: the same conversion, the flag dropped.
template <class T>
T without_flag(T (*convert)(const string&, bool&), const string& str) {
  bool bool_overflow;
  return convert(str, bool_overflow);
}

template <class T>
T floating_from(const string& str, bool& bool_overflow) {
  bool_overflow = false;
  const char* p = chars(str);
  const char* end = p + str.size();
  while (p < end && (*p == '\t' || *p == '\n' || *p == '\r' || *p == ' ' || *p == '+')) ++p;
  T value = 0;
  const std::from_chars_result result = std::from_chars(p, end, value);
  if (result.ec == std::errc::result_out_of_range) {
    bool_overflow = true;
    return 0;
  }
  return result.ec == std::errc() ? value : 0;
}

}  // namespace

char to_char(const string& str, bool& bool_overflow) {
  const short value = chars_to_short(chars(str), str.size(), bool_overflow);
  return narrow<char, short>(value, bool_overflow, -128, 127);
}
char to_char(const string& str) { return without_flag(to_char, str); }

unsigned char to_uchar(const string& str, bool& bool_overflow) {
  const unsigned short value = chars_to_ushort(chars(str), str.size(), bool_overflow);
  return narrow<unsigned char, unsigned short>(value, bool_overflow, 0, 255);
}
unsigned char to_uchar(const string& str) { return without_flag(to_uchar, str); }

unsigned char hex_to_uchar(const string& str, bool& bool_overflow) {
  const unsigned short value = chars_hex_to_ushort(chars(str), str.size(), bool_overflow);
  return narrow<unsigned char, unsigned short>(value, bool_overflow, 0, 255);
}
unsigned char hex_to_uchar(const string& str) { return without_flag(hex_to_uchar, str); }

ssize_t to_ssize_t(const string& str, bool& bool_overflow) { return chars_to_long(chars(str), str.size(), bool_overflow); }
ssize_t to_ssize_t(const string& str) { return without_flag(to_ssize_t, str); }

int stoi(const string& str, bool& bool_overflow) { return chars_to_int(chars(str), str.size(), bool_overflow); }
int stoi(const string& str) { return without_flag(stoi, str); }
long stol(const string& str, bool& bool_overflow) { return chars_to_long(chars(str), str.size(), bool_overflow); }
long stol(const string& str) { return without_flag(stol, str); }
long long stoll(const string& str, bool& bool_overflow) { return chars_to_long(chars(str), str.size(), bool_overflow); }
long long stoll(const string& str) { return without_flag(stoll, str); }
unsigned int stou(const string& str, bool& bool_overflow) { return chars_to_uint(chars(str), str.size(), bool_overflow); }
unsigned int stou(const string& str) { return without_flag(stou, str); }
unsigned long stoul(const string& str, bool& bool_overflow) { return chars_to_ulong(chars(str), str.size(), bool_overflow); }
unsigned long stoul(const string& str) { return without_flag(stoul, str); }
unsigned long long stoull(const string& str, bool& bool_overflow) { return chars_to_ulong(chars(str), str.size(), bool_overflow); }
unsigned long long stoull(const string& str) { return without_flag(stoull, str); }

float stof(const string& str, bool& bool_overflow) { return floating_from<float>(str, bool_overflow); }
float stof(const string& str) { return without_flag(stof, str); }
double stod(const string& str, bool& bool_overflow) { return floating_from<double>(str, bool_overflow); }
double stod(const string& str) { return without_flag(stod, str); }
long double stold(const string& str, bool& bool_overflow) { return floating_from<long double>(str, bool_overflow); }
long double stold(const string& str) { return without_flag(stold, str); }

unsigned int vector_string_to_umap_string_key_value(const vector<string>& lines, const string& separator,
                                                    unordered_map<string, string>& out) {
  unsigned int stored = 0;
  string key;
  string value;
  for (unsigned int i = 0; i < lines.size(); ++i) {
    if (!string_get_key_value_find(lines[i], separator, key, value)) continue;
    trim(key);
    if (key.empty()) continue;
    trim(value);
    auto inserted = out.insert_return_iterator_bool_move(key, value);
    if (!inserted.second) inserted.first->value = static_cast<string&&>(value);
    ++stored;
  }
  return stored;
}

}  // namespace quorla
