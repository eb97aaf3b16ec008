// The free functions on string. Editors that only shrink a string compact it in place in
// one pass, reading ahead of where they write, and touch nothing when there is nothing to
// do; editors that grow build the result once and swap it in. Delimiter and pattern
// arguments may be the string being edited or the out string: every function reads what
// it needs before the array it reads from can change.
#include "foundation/quorla_string_function.h"

#include <sys/random.h>
#include <time.h>

#include <cerrno>

#include "foundation/quorla_conversion.h"
#include "foundation/quorla_stack_message.h"

namespace quorla {

const char g_str_quorla_string_version_date[] = "quorla string 1.0 2026-11-22";

namespace {

constexpr unsigned int npos = string::npos;

bool is_trim(unsigned char c) { return c == '\t' || c == '\n' || c == '\r' || c == ' '; }
bool is_digit(unsigned char c) { return c >= '0' && c <= '9'; }
bool is_alpha(unsigned char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool is_hex(unsigned char c) { return is_digit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }
bool is_unreserved(unsigned char c) { return is_digit(c) || is_alpha(c) || c == '-' || c == '_' || c == '.' || c == '~'; }

// A piece as a new string; an empty piece stays a null string (no 16-byte array for nothing).
string make_piece(const unsigned char* p, unsigned int n) { return n == 0 ? string() : string(p, n); }

// Writes a piece to out. An empty piece clears out and allocates nothing; a piece of out
// itself is safe because assign moves overlapping bytes.
void set_out(string& out, const unsigned char* p, unsigned int n) {
  if (n == 0) {
    out.clear();
    return;
  }
  out.assign(p, n);
}

template <class Test>
bool all_of(const string& str, Test test) {
  if (str.empty()) return false;
  const unsigned char* p = str.data();
  for (unsigned int i = 0; i < str.size(); ++i) {
    if (!test(p[i])) return false;
  }
  return true;
}

template <class Test>
bool any_of(const string& str, Test test) {
  const unsigned char* p = str.data();
  for (unsigned int i = 0; i < str.size(); ++i) {
    if (test(p[i])) return true;
  }
  return false;
}

// A decimal part 0-255 of a dotted quad, starting at i; advances i past it.
bool parse_quad_part(const unsigned char* p, unsigned int n, unsigned int& i) {
  unsigned int start = i;
  unsigned int value = 0;
  while (i < n && is_digit(p[i]) && i - start < 3) value = value * 10 + (p[i++] - '0');
  const unsigned int digits = i - start;
  if (digits == 0 || (i < n && is_digit(p[i]))) return false;
  if (digits > 1 && p[start] == '0') return false;
  return value <= 255;
}

bool is_dotted_quad(const unsigned char* p, unsigned int n) {
  unsigned int i = 0;
  for (int part = 0; part < 4; ++part) {
    if (part != 0) {
      if (i >= n || p[i] != '.') return false;
      ++i;
    }
    if (!parse_quad_part(p, n, i)) return false;
  }
  return i == n;
}

// Dot-separated labels: 1-63 bytes of letters, digits and '-', no '-' at either end, the
// whole at most 253 bytes after one optional trailing dot, the last label not all digits
// (so that a dotted quad is no name).
bool is_label_list(const string& str, unsigned int min_labels) {
  const unsigned char* p = str.data();
  unsigned int n = str.size();
  if (n != 0 && p[n - 1] == '.') --n;
  if (n == 0 || n > 253) return false;
  unsigned int labels = 0;
  unsigned int start = 0;
  bool last_all_digits = false;
  while (start <= n) {
    unsigned int end = start;
    bool all_digits = true;
    while (end < n && p[end] != '.') {
      const unsigned char c = p[end];
      if (!is_digit(c) && !is_alpha(c) && c != '-') return false;
      if (!is_digit(c)) all_digits = false;
      ++end;
    }
    const unsigned int length = end - start;
    if (length == 0 || length > 63 || p[start] == '-' || p[end - 1] == '-') return false;
    ++labels;
    last_all_digits = all_digits;
    start = end + 1;
  }
  return labels >= min_labels && !last_all_digits;
}

// Shrinks str to its first kept bytes after an in-place compaction.
void set_size(string& str, unsigned int size) {
  if (size != str.size()) str.resize_no_fill(size);
}

unsigned int find_bytes(const string& str, const unsigned char* d, unsigned int n, unsigned int pos) {
  if (n == 0 || pos > str.size()) return npos;
  return str.find(d, pos, n);
}

bool cut_from_begin_to_find(const string& str, const unsigned char* d, unsigned int n, string& out) {
  const unsigned int found = find_bytes(str, d, n, 0);
  if (found == npos) {
    out.clear();
    return false;
  }
  set_out(out, str.data(), found);
  return true;
}

// keep: the delimiter belongs to the result ("from") or not ("after").
bool cut_at_find(const string& str, const unsigned char* d, unsigned int n, bool keep, string& out) {
  const unsigned int found = find_bytes(str, d, n, 0);
  if (found == npos) {
    out.clear();
    return false;
  }
  const unsigned int start = keep ? found : found + n;
  set_out(out, str.data() + start, str.size() - start);
  return true;
}

bool cut_after_last(const string& str, const unsigned char* d, unsigned int n, string& out) {
  const unsigned int found = n == 0 ? npos : str.rfind(d, npos, n);
  if (found == npos) {
    out.clear();
    return false;
  }
  const unsigned int start = found + n;
  set_out(out, str.data() + start, str.size() - start);
  return true;
}

bool cut_between(const string& str, const unsigned char* b, unsigned int nb, const unsigned char* e, unsigned int ne, bool keep,
                 string& out) {
  const unsigned int begin = find_bytes(str, b, nb, 0);
  const unsigned int end = begin == npos ? npos : find_bytes(str, e, ne, begin + nb);
  if (end == npos) {
    out.clear();
    return false;
  }
  const unsigned int start = keep ? begin : begin + nb;
  set_out(out, str.data() + start, end - start);
  return true;
}

bool cut_from_offset(const string& str, unsigned int offset, const unsigned char* d, unsigned int n, string& out) {
  const unsigned int found = find_bytes(str, d, n, offset);
  if (found == npos) {
    out.clear();
    return false;
  }
  set_out(out, str.data() + offset, found - offset);
  return true;
}

bool split_key_value(const string& str, const unsigned char* d, unsigned int n, string& key, string& value) {
  const unsigned int found = find_bytes(str, d, n, 0);
  if (found == npos) {
    key.clear();
    value.clear();
    return false;
  }
  if (&key == &str || &value == &str) {  // an out string is the input: cut from a copy
    const string copy(str);
    return split_key_value(copy, d, n, key, value);
  }
  set_out(key, str.data(), found);
  set_out(value, str.data() + found + n, str.size() - found - n);
  return true;
}

// The hex text of [first, last) appended to out, through the conversion's byte encoder.
string& append_hex(const unsigned char* first, const unsigned char* last, string& out, bool upper) {
  const unsigned long count = static_cast<unsigned long>(last - first);
  if (count == 0) return out;
  if (out.raw_pointer() != nullptr && first >= out.data() && first <= out.data() + out.size()) {
    const string copy(first, static_cast<unsigned int>(count));  // out may move while growing
    return append_hex(copy.data(), copy.data() + count, out, upper);
  }
  const unsigned long long new_size = out.size() + 2ull * count;
  if (new_size > string::max_size()) write_and_abort("Error: string_to_hex() result above string::max_size().\r\n");
  const unsigned int old_size = out.size();
  out.resize_no_fill(static_cast<unsigned int>(new_size));
  // The encoder writes 2 * count digits and a 0 at the new size, where the terminator stands.
  char* at = reinterpret_cast<char*>(out.data()) + old_size;
  if (upper) {
    ptr_void_to_hex_upper(first, static_cast<unsigned int>(count), 0, at);
  } else {
    ptr_void_to_hex_lower(first, static_cast<unsigned int>(count), 0, at);
  }
  return out;
}

// Random 32-bit words from getrandom, or from a clock-seeded splitmix64 when the kernel
// refuses (old kernel, seccomp).
class Random_words {
 public:
  unsigned int next() {
    if (d_uint_used == k_count) refill();
    return d_ar_uint[d_uint_used++];
  }

 private:
  static constexpr unsigned int k_count = 64;
  void refill() {
    unsigned char* bytes = reinterpret_cast<unsigned char*>(d_ar_uint);
    unsigned long filled = 0;
    while (filled < sizeof(d_ar_uint)) {
      const long got = getrandom(bytes + filled, sizeof(d_ar_uint) - filled, 0);
      if (got > 0) {
        filled += static_cast<unsigned long>(got);
      } else if (got < 0 && errno == EINTR) {
        continue;
      } else {
        fill_from_clock();
        break;
      }
    }
    d_uint_used = 0;
  }
  void fill_from_clock() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    unsigned long long state = static_cast<unsigned long long>(now.tv_sec) * 1000000000ull + static_cast<unsigned long long>(now.tv_nsec);
    state ^= reinterpret_cast<unsigned long long>(this);
    for (unsigned int i = 0; i < k_count; ++i) {
      state += 0x9E3779B97F4A7C15ull;
      unsigned long long z = state;
      z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
      z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
      d_ar_uint[i] = static_cast<unsigned int>((z ^ (z >> 31)) >> 32);
    }
  }
  unsigned int d_ar_uint[k_count];
  unsigned int d_uint_used = k_count;
};

}  // namespace

// ---- case

string& to_upper(string& str) {
  unsigned char* p = str.data();
  for (unsigned int i = 0; i < str.size(); ++i) {
    if (p[i] >= 'a' && p[i] <= 'z') p[i] = static_cast<unsigned char>(p[i] - 'a' + 'A');
  }
  return str;
}

string& to_lower(string& str) {
  unsigned char* p = str.data();
  for (unsigned int i = 0; i < str.size(); ++i) {
    if (p[i] >= 'A' && p[i] <= 'Z') p[i] = static_cast<unsigned char>(p[i] - 'A' + 'a');
  }
  return str;
}

// ---- character classes

bool string_is_number(const string& str) { return all_of(str, is_digit); }
bool string_is_hex(const string& str) { return all_of(str, is_hex); }
bool string_is_bin(const string& str) { return all_of(str, [](unsigned char c) { return c == '0' || c == '1'; }); }
bool string_is_abc(const string& str) { return all_of(str, is_alpha); }
bool string_has_number(const string& str) { return any_of(str, is_digit); }
bool string_has_abc(const string& str) { return any_of(str, is_alpha); }
bool string_is_full_char(const string& str) { return all_of(str, [](unsigned char c) { return c >= 0x21 && c <= 0x7E; }); }

bool string_is_valid_long(const string& str) {
  const unsigned char* p = str.data();
  const unsigned int n = str.size();
  unsigned int i = 0;
  bool negative = false;
  if (i < n && (p[i] == '+' || p[i] == '-')) negative = p[i++] == '-';
  if (i == n) return false;
  unsigned long long magnitude = 0;
  const unsigned long long limit = negative ? 0x8000000000000000ull : 0x7FFFFFFFFFFFFFFFull;
  for (; i < n; ++i) {
    if (!is_digit(p[i])) return false;
    const unsigned int digit = p[i] - '0';
    if (magnitude > (limit - digit) / 10) return false;  // exact: magnitude * 10 + digit > limit
    magnitude = magnitude * 10 + digit;
  }
  return true;
}

bool string_is_float(const string& str) {
  const unsigned char* p = str.data();
  const unsigned int n = str.size();
  unsigned int i = 0;
  if (i < n && (p[i] == '+' || p[i] == '-')) ++i;
  unsigned int mantissa_digits = 0;
  while (i < n && is_digit(p[i])) ++i, ++mantissa_digits;
  if (i < n && p[i] == '.') {
    ++i;
    while (i < n && is_digit(p[i])) ++i, ++mantissa_digits;
  }
  if (mantissa_digits == 0) return false;
  if (i < n && (p[i] == 'e' || p[i] == 'E')) {
    ++i;
    if (i < n && (p[i] == '+' || p[i] == '-')) ++i;
    unsigned int exponent_digits = 0;
    while (i < n && is_digit(p[i])) ++i, ++exponent_digits;
    if (exponent_digits == 0) return false;
  }
  return i == n;
}

// ---- text forms

bool string_is_ip_v4(const string& str) { return is_dotted_quad(str.data(), str.size()); }

bool string_is_ip_net_v4(const string& str) {
  const unsigned int slash = str.find('/');
  if (slash == npos) return false;
  const unsigned char* p = str.data();
  const unsigned int n = str.size();
  const unsigned int digits = n - slash - 1;
  if (digits == 0 || digits > 2 || !is_digit(p[slash + 1]) || (digits == 2 && (p[slash + 1] == '0' || !is_digit(p[slash + 2])))) {
    return false;
  }
  const unsigned int prefix = digits == 1 ? p[slash + 1] - '0' : (p[slash + 1] - '0') * 10 + (p[slash + 2] - '0');
  return prefix <= 32 && is_dotted_quad(p, slash);
}

bool string_is_ip_v6(const string& str) {
  const unsigned char* p = str.data();
  const unsigned int n = str.size();
  if (n < 2 || n > 45) return false;
  unsigned int i = 0;
  unsigned int groups = 0;
  bool compressed = false;
  if (p[0] == ':') {
    if (p[1] != ':') return false;
    compressed = true;
    i = 2;
  }
  while (i < n) {
    unsigned int digits = 0;
    while (i + digits < n && is_hex(p[i + digits])) ++digits;
    if (digits == 0) return false;
    if (i + digits < n && p[i + digits] == '.') {  // the embedded dotted quad ends the text
      if (!is_dotted_quad(p + i, n - i)) return false;
      groups += 2;
      i = n;
      break;
    }
    if (digits > 4) return false;
    ++groups;
    i += digits;
    if (i == n) break;
    if (p[i] != ':') return false;
    ++i;
    if (i < n && p[i] == ':') {
      if (compressed) return false;
      compressed = true;
      ++i;
    } else if (i == n) {
      return false;  // a single trailing colon
    }
  }
  return compressed ? groups <= 7 : groups == 8;
}

bool string_is_domain_name(const string& str) { return is_label_list(str, 2); }
bool string_is_host_name(const string& str) { return is_label_list(str, 1); }

// ---- trims

string string_trim(const string& str) {
  const unsigned char* p = str.data();
  unsigned int begin = 0;
  unsigned int end = str.size();
  while (begin < end && is_trim(p[begin])) ++begin;
  while (end > begin && is_trim(p[end - 1])) --end;
  return make_piece(p + begin, end - begin);
}

string string_trim_left(const string& str) {
  const unsigned char* p = str.data();
  unsigned int begin = 0;
  while (begin < str.size() && is_trim(p[begin])) ++begin;
  return make_piece(p + begin, str.size() - begin);
}

string string_trim_right(const string& str) {
  const unsigned char* p = str.data();
  unsigned int end = str.size();
  while (end > 0 && is_trim(p[end - 1])) --end;
  return make_piece(p, end);
}

string& trim_right(string& str) {
  unsigned int end = str.size();
  if (end == 0 || !is_trim(str.data()[end - 1])) return str;
  const unsigned char* p = str.data();
  while (end > 0 && is_trim(p[end - 1])) --end;
  str.resize_no_fill(end);
  return str;
}

string& trim_left(string& str) {
  if (str.empty() || !is_trim(str.data()[0])) return str;
  const unsigned char* p = str.data();
  unsigned int begin = 0;
  while (begin < str.size() && is_trim(p[begin])) ++begin;
  if (begin == str.size()) {
    str.resize_no_fill(0);
  } else {
    str.erase(0, begin);
  }
  return str;
}

string& trim(string& str) {
  if (str.empty()) return str;
  const unsigned char* p = str.data();
  if (!is_trim(p[0]) && !is_trim(p[str.size() - 1])) return str;
  trim_right(str);  // first, so that the left trim moves the fewest bytes
  return trim_left(str);
}

string& string_trim_left_this(string& str) { return trim_left(str); }
string& string_trim_right_this(string& str) { return trim_right(str); }

// ---- replace and erase

bool string_replace(string& str, const string& from, const string& to, unsigned int pos) {
  const unsigned int found = find_bytes(str, from.data(), from.size(), pos);
  if (found == npos) return false;
  str.replace(found, from.size(), to);
  return true;
}

bool string_replace(string& str, unsigned char from, unsigned char to) {
  const unsigned int found = str.find(from);
  if (found == npos) return false;
  str.data()[found] = to;
  return true;
}

unsigned int string_replace_all(string& str, const string& from, const string& to) {
  const unsigned int n = from.size();
  unsigned int found = find_bytes(str, from.data(), n, 0);
  if (found == npos) return 0;
  unsigned int count = 0;
  if (to.size() == n) {  // same length: overwrite in place
    if (&to == &str) return 1;  // str replaced by itself, once, at 0
    while (found != npos) {
      memcpy(str.data() + found, to.data(), n);
      ++count;
      found = find_bytes(str, from.data(), n, found + n);
    }
    return count;
  }
  string result;
  unsigned int done = 0;
  while (found != npos) {
    result.append(str.data() + done, found - done);
    result.append(to);
    ++count;
    done = found + n;
    found = find_bytes(str, from.data(), n, done);
  }
  result.append(str.data() + done, str.size() - done);
  str.swap(result);
  return count;
}

unsigned int string_replace_all(string& str, unsigned char from, unsigned char to) {
  unsigned char* p = str.data();
  unsigned int count = 0;
  for (unsigned int i = 0; i < str.size(); ++i) {
    if (p[i] == from) {
      p[i] = to;
      ++count;
    }
  }
  return count;
}

unsigned int string_erase_all(string& str, unsigned char c) {
  unsigned int read = str.find(c);
  if (read == npos) return 0;
  unsigned char* p = str.data();
  const unsigned int n = str.size();
  unsigned int write = read;
  for (; read < n; ++read) {
    if (p[read] != c) p[write++] = p[read];
  }
  set_size(str, write);
  return n - write;
}

unsigned int string_erase_all(string& str, const string& pattern) {
  if (&pattern == &str) {
    const string copy(pattern);
    return string_erase_all(str, copy);
  }
  const unsigned int m = pattern.size();
  unsigned int found = find_bytes(str, pattern.data(), m, 0);
  if (found == npos) return 0;
  unsigned char* p = str.data();
  unsigned int write = found;
  unsigned int count = 0;
  // The search reads only at and beyond read, which the compaction has not yet written.
  while (found != npos) {
    ++count;
    const unsigned int read = found + m;
    found = find_bytes(str, pattern.data(), m, read);
    const unsigned int stop = found == npos ? str.size() : found;
    memmove(p + write, p + read, stop - read);
    write += stop - read;
  }
  set_size(str, write);
  return count;
}

unsigned int string_erase_one_of_double_blank(string& str) {
  const unsigned int n = str.size();
  unsigned char* p = str.data();
  unsigned int read = 1;
  while (read < n && !(p[read] == ' ' && p[read - 1] == ' ')) ++read;
  if (read >= n) return 0;
  // From the first pair on, a blank is dropped whenever the last kept byte is a blank: each
  // found pair loses one and the search goes on from there, so a run leaves one blank.
  unsigned int write = read;
  for (; read < n; ++read) {
    if (p[read] == ' ' && p[write - 1] == ' ') continue;
    p[write++] = p[read];
  }
  set_size(str, write);
  return n - write;
}

unsigned int string_erase_blank(string& str) { return string_erase_all(str, static_cast<unsigned char>(' ')); }

unsigned int string_erase_char_begin_char_end(string& str, unsigned char begin, unsigned char end) {
  unsigned int read = str.find(begin);
  if (read == npos) return 0;
  unsigned char* p = str.data();
  const unsigned int n = str.size();
  unsigned int write = read;
  unsigned int count = 0;
  while (read < n) {
    if (p[read] != begin) {
      p[write++] = p[read++];
      continue;
    }
    const void* closing = read + 1 < n ? memchr(p + read + 1, end, n - read - 1) : nullptr;
    if (closing == nullptr) {  // unclosed: the rest stays as it is
      memmove(p + write, p + read, n - read);
      write += n - read;
      break;
    }
    ++count;
    read = static_cast<unsigned int>(static_cast<const unsigned char*>(closing) - p) + 1;
  }
  set_size(str, write);
  return count;
}

unsigned int string_erase_double_char(string& str, unsigned char c) {
  const unsigned int n = str.size();
  unsigned char* p = str.data();
  unsigned int read = 0;
  while (read + 1 < n && !(p[read] == c && p[read + 1] == c)) ++read;
  if (read + 1 >= n) return 0;
  unsigned int write = read;
  unsigned int count = 0;
  while (read < n) {
    if (p[read] == c && read + 1 < n && p[read + 1] == c) {
      p[write++] = c;
      read += 2;
      ++count;
    } else {
      p[write++] = p[read++];
    }
  }
  set_size(str, write);
  return count;
}

// ---- encoders

string string_to_hex_upper(const string& str) {
  string out;
  return static_cast<string&&>(append_hex(str.data(), str.data() + str.size(), out, true));
}

string& string_to_hex_upper(const unsigned char* first, const unsigned char* last, string& out) { return append_hex(first, last, out, true); }

string string_to_hex_lower(const string& str) {
  string out;
  return static_cast<string&&>(append_hex(str.data(), str.data() + str.size(), out, false));
}

string& string_to_hex_lower(const unsigned char* first, const unsigned char* last, string& out) { return append_hex(first, last, out, false); }

string string_to_url_encode(const string& str) {
  string out;
  return static_cast<string&&>(string_to_url_encode(str.data(), str.data() + str.size(), out));
}

string& string_to_url_encode(const unsigned char* first, const unsigned char* last, string& out) {
  if (first == last) return out;
  if (out.raw_pointer() != nullptr && first >= out.data() && first <= out.data() + out.size()) {
    const string copy(first, static_cast<unsigned int>(last - first));
    return string_to_url_encode(copy.data(), copy.data() + copy.size(), out);
  }
  unsigned long long extra = 0;
  for (const unsigned char* it = first; it != last; ++it) extra += is_unreserved(*it) ? 1 : 3;
  if (out.size() + extra > string::max_size()) write_and_abort("Error: string_to_url_encode() result above string::max_size().\r\n");
  static const char k_digits[] = "0123456789ABCDEF";
  unsigned int at = out.size();
  out.resize_no_fill(static_cast<unsigned int>(at + extra));
  unsigned char* p = out.data();
  for (const unsigned char* it = first; it != last; ++it) {
    if (is_unreserved(*it)) {
      p[at++] = *it;
    } else {
      p[at++] = '%';
      p[at++] = static_cast<unsigned char>(k_digits[*it >> 4]);
      p[at++] = static_cast<unsigned char>(k_digits[*it & 15]);
    }
  }
  return out;
}

// ---- cuts

namespace {

// A delimiter passed by reference may be one of the output strings, which a cut clears before
// it is done reading the delimiter: the cut then reads a copy.
class Delimiter {
 public:
  Delimiter(const string& find, const string& out, const string& other_out) : text_(&find) {
    if (&find == &out || &find == &other_out) {
      copy_ = find;
      text_ = &copy_;
    }
  }
  Delimiter(const string& find, const string& out) : Delimiter(find, out, out) {}
  const unsigned char* data() const { return text_->data(); }
  unsigned int size() const { return text_->size(); }

 private:
  const string* text_;
  string copy_;
};

}  // namespace

bool string_get_value_from_begin_to_find(const string& str, const string& find, string& out) {
  const Delimiter d(find, out);
  return cut_from_begin_to_find(str, d.data(), d.size(), out);
}
bool string_get_value_from_begin_to_find(const string& str, unsigned char find, string& out) {
  return cut_from_begin_to_find(str, &find, 1, out);
}

bool string_get_value_after_find(const string& str, const string& find, string& out) {
  const Delimiter d(find, out);
  return cut_at_find(str, d.data(), d.size(), false, out);
}
bool string_get_value_after_find(const string& str, unsigned char find, string& out) { return cut_at_find(str, &find, 1, false, out); }

bool string_get_value_from_find(const string& str, const string& find, string& out) {
  const Delimiter d(find, out);
  return cut_at_find(str, d.data(), d.size(), true, out);
}
bool string_get_value_from_find(const string& str, unsigned char find, string& out) { return cut_at_find(str, &find, 1, true, out); }

bool string_get_value_after_find_last_of(const string& str, const string& find, string& out) {
  const Delimiter d(find, out);
  return cut_after_last(str, d.data(), d.size(), out);
}
bool string_get_value_after_find_last_of(const string& str, unsigned char find, string& out) { return cut_after_last(str, &find, 1, out); }

bool string_get_value_after_find_begin_to_find_end(const string& str, const string& begin, const string& end, string& out) {
  const Delimiter b(begin, out), e(end, out);
  return cut_between(str, b.data(), b.size(), e.data(), e.size(), false, out);
}
bool string_get_value_after_find_begin_to_find_end(const string& str, unsigned char begin, unsigned char end, string& out) {
  return cut_between(str, &begin, 1, &end, 1, false, out);
}

bool string_get_value_from_find_begin_to_find_end(const string& str, const string& begin, const string& end, string& out) {
  const Delimiter b(begin, out), e(end, out);
  return cut_between(str, b.data(), b.size(), e.data(), e.size(), true, out);
}
bool string_get_value_from_find_begin_to_find_end(const string& str, unsigned char begin, unsigned char end, string& out) {
  return cut_between(str, &begin, 1, &end, 1, true, out);
}

bool string_get_value_from_offset_begin_to_find(const string& str, unsigned int offset, const string& find, string& out) {
  const Delimiter d(find, out);
  return cut_from_offset(str, offset, d.data(), d.size(), out);
}
bool string_get_value_from_offset_begin_to_find(const string& str, unsigned int offset, unsigned char find, string& out) {
  return cut_from_offset(str, offset, &find, 1, out);
}

bool string_get_key_value_find(const string& str, const string& find, string& key, string& value) {
  const Delimiter d(find, key, value);
  return split_key_value(str, d.data(), d.size(), key, value);
}
bool string_get_key_value_find(const string& str, unsigned char find, string& key, string& value) {
  return split_key_value(str, &find, 1, key, value);
}

// ---- quotation

unsigned int get_quotation_mark_offset(const string& str, unsigned int pos) {
  if (pos >= str.size()) return npos;
  const unsigned char quote = str.data()[pos];
  return pos + 1 == str.size() ? npos : str.find(quote, pos + 1);
}

unsigned int get_quotation_mark_offset_with_escape(const string& str, unsigned int pos) {
  const unsigned int n = str.size();
  if (pos >= n) return npos;
  const unsigned char* p = str.data();
  const unsigned char quote = p[pos];
  for (unsigned int i = pos + 1; i < n; ++i) {
    if (p[i] == '\\') {
      ++i;  // the escaped byte is skipped, whatever it is
    } else if (p[i] == quote) {
      return i;
    }
  }
  return npos;
}

// ---- delimiters and byte shifts

bool string_check_first_and_last(string& str, unsigned char first, unsigned char last) {
  const unsigned int n = str.size();
  if (n < 2 || str.data()[0] != first || str.data()[n - 1] != last) return false;
  unsigned char* p = str.data();
  memmove(p, p + 1, n - 2);
  str.resize_no_fill(n - 2);
  return true;
}

string& string_char_plus_char(string& str, unsigned char c) {
  unsigned char* p = str.data();
  for (unsigned int i = 0; i < str.size(); ++i) p[i] = static_cast<unsigned char>(p[i] + c);
  return str;
}

string& string_char_subtract_char(string& str, unsigned char c) {
  unsigned char* p = str.data();
  for (unsigned int i = 0; i < str.size(); ++i) p[i] = static_cast<unsigned char>(p[i] - c);
  return str;
}

// ---- text forms for people and tests

string string_make_random(unsigned int length) {
  static const string k_alphabet("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789");
  return string_make_random(length, k_alphabet);
}

string string_make_random(unsigned int length, const string& alphabet) {
  string out;
  const unsigned int k = alphabet.size();
  if (length == 0 || k == 0) return out;
  out.resize_no_fill(length);
  // Rejection keeps the draw uniform: words at or above the largest multiple of k are redrawn.
  const unsigned long long limit = (1ull << 32) - (1ull << 32) % k;
  Random_words words;
  unsigned char* p = out.data();
  for (unsigned int i = 0; i < length; ++i) {
    unsigned int word = words.next();
    while (word >= limit) word = words.next();
    p[i] = alphabet.data()[word % k];
  }
  return out;
}

string to_string_can_show(const string& str) {
  static const char k_digits[] = "0123456789ABCDEF";
  string out;
  const unsigned char* p = str.data();
  for (unsigned int i = 0; i < str.size(); ++i) {
    const unsigned char c = p[i];
    if (c == '\\') {
      out.append("\\\\", 2);
    } else if (c == '\t') {
      out.append("\\t", 2);
    } else if (c == '\n') {
      out.append("\\n", 2);
    } else if (c == '\r') {
      out.append("\\r", 2);
    } else if (c >= 0x20 && c <= 0x7E) {
      out.push_back(c);
    } else {
      const char escaped[4] = {'\\', 'x', k_digits[c >> 4], k_digits[c & 15]};
      out.append(escaped, 4);
    }
  }
  return out;
}

}  // namespace quorla
