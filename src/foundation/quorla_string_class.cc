// The string's growth, gaps and searches. Growth has one rule (a power of two holding the
// size and its terminator, at least 16) reached only through reserve or reserve_for_insert,
// so a string doubles as it fills. A text argument may point into this string's own array:
// the writers below re-derive or copy it before the array can move.
#include "foundation/quorla_string_class.h"

#include <cstdlib>

#include "foundation/quorla_conversion.h"
#include "foundation/quorla_stack_message.h"

namespace quorla {

unsigned int string::get_new_capacity(unsigned long long uint_size_in, unsigned int size, unsigned int capacity) {
  const unsigned long long result = get_2power_great_or_equal_to(uint_size_in + 1, 16);
  if (result < 0xFFFFFFFFull) return static_cast<unsigned int>(result);
  Stack_message<1024>()
      .text("Error: string::get_new_capacity() reach max size. uint_size_in=")
      .dec(uint_size_in)
      .text(", ulong_return=")
      .dec(result)
      .text(", size()=")
      .dec(size)
      .text(", capacity()=")
      .dec(capacity)
      .end_line()
      .write_and_abort();
}

void string::release() {
  if (d_uint_capacity == 0) return;
  ::free(d_ptr_data);
  d_ptr_data = nullptr;
  d_uint_size = 0;
  d_uint_capacity = 0;
}

void string::malloc_array(unsigned long long n) {
  d_uint_capacity = get_new_capacity(n, d_uint_size, d_uint_capacity);
  d_ptr_data = static_cast<unsigned char*>(::malloc(d_uint_capacity));
  if (d_ptr_data == nullptr) write_and_abort("Error: string::malloc_array() malloc() failed.\r\n");
}

void string::inner_reserve(unsigned long long n) {
  const unsigned int capacity = get_new_capacity(n, d_uint_size, d_uint_capacity);
  auto* data = static_cast<unsigned char*>(::realloc(d_ptr_data, capacity));
  if (data == nullptr) write_and_abort("Error: string::inner_reserve() realloc() failed.\r\n");
  if (d_ptr_data == nullptr) data[0] = 0;  // a fresh array: size 0 needs its terminator
  d_ptr_data = data;
  d_uint_capacity = capacity;
}

// A new array: the head copied, the tail copied n bytes further on, so the tail is
// written once instead of being moved again after a realloc.
void string::reserve_for_insert(unsigned long long new_size, unsigned int pos, unsigned int n) {
  unsigned char* old = d_ptr_data;
  malloc_array(new_size);
  if (old != nullptr) {
    memcpy(d_ptr_data, old, pos);
    memcpy(d_ptr_data + pos + n, old + pos, d_uint_size - pos);
    ::free(old);
  }
}

void string::run_abort_for_offset_overflow(const char* file, unsigned int line, const char* func, unsigned int pos) const {
  Stack_message<1024>()
      .text("Error: out_of_range. uint_pos_in=")
      .dec(pos)
      .text(", size()=")
      .dec(d_uint_size)
      .source(file, line, func)
      .write_and_abort();
}

unsigned int string::check_subpos(unsigned int pos, unsigned int line, const char* func) const {
  if (pos <= d_uint_size) return pos;
  Stack_message<1024>()
      .text("Error: out_of_range. uint_subpos_in=")
      .dec(pos)
      .text(", size()=")
      .dec(d_uint_size)
      .source(__FILE__, line, func)
      .write_and_abort();
}

unsigned int string::check_iterator_range(const_iterator first, const_iterator last, unsigned int line, const char* func) const {
  const unsigned long it1 = static_cast<unsigned long>(first - d_ptr_data);
  const unsigned long it2 = static_cast<unsigned long>(last - d_ptr_data);
  if (it1 <= it2 && it2 <= d_uint_size) return static_cast<unsigned int>(it1);
  Stack_message<1024>()
      .text("Error: out_of_range. it1_offset=")
      .dec(it1)
      .text(", it2_offset=")
      .dec(it2)
      .text(", size()=")
      .dec(d_uint_size)
      .source(__FILE__, line, func)
      .write_and_abort();
}

string& string::assign(const unsigned char* text, unsigned int n) {
  if (n == 0) {  // an empty text takes no array
    clear();
    return *this;
  }
  if (d_uint_capacity > n) {
    memmove(d_ptr_data, text, n);  // may overlap: a piece of this string
    set_size(n);
    return *this;
  }
  // Too small: a fresh array rather than a realloc that would copy bytes about to go.
  unsigned char* old = d_ptr_data;
  malloc_array(n);
  memcpy(d_ptr_data, text, n);
  set_size(n);
  ::free(old);
  return *this;
}

string& string::append(const unsigned char* text, unsigned int n) {
  if (n == 0) return *this;
  const unsigned long long new_size = static_cast<unsigned long long>(d_uint_size) + n;
  if (new_size >= d_uint_capacity) {
    if (inside(text)) {
      const unsigned long offset = static_cast<unsigned long>(text - d_ptr_data);
      inner_reserve(new_size);
      text = d_ptr_data + offset;
    } else {
      inner_reserve(new_size);
    }
  }
  memcpy(d_ptr_data + d_uint_size, text, n);
  set_size(static_cast<unsigned int>(new_size));
  return *this;
}

string& string::append(unsigned int n, unsigned char c) {
  if (n == 0) return *this;
  const unsigned long long new_size = static_cast<unsigned long long>(d_uint_size) + n;
  if (new_size >= d_uint_capacity) inner_reserve(new_size);
  memset(d_ptr_data + d_uint_size, c, n);
  set_size(static_cast<unsigned int>(new_size));
  return *this;
}

void string::insert_prepare(unsigned int pos, unsigned int n) {
  const unsigned long long new_size = static_cast<unsigned long long>(d_uint_size) + n;
  if (pos == d_uint_size) {
    if (new_size >= d_uint_capacity) inner_reserve(new_size);
  } else if (pos > d_uint_size) {
    run_abort_for_offset_overflow(__FILE__, __LINE__, "insert_prepare", pos);
  } else if (new_size < d_uint_capacity) {
    memmove(d_ptr_data + pos + n, d_ptr_data + pos, d_uint_size - pos);
  } else {
    reserve_for_insert(new_size, pos, n);
  }
  set_size(static_cast<unsigned int>(new_size));
}

string& string::insert(unsigned int pos, const unsigned char* text, unsigned int n) {
  if (n == 0) {
    if (pos > d_uint_size) run_abort_for_offset_overflow(__FILE__, __LINE__, "insert_prepare", pos);
    return *this;
  }
  if (inside(text)) {  // the gap would move or free the text: insert a copy
    const string copy(text, n);
    return insert(pos, copy.d_ptr_data, n);
  }
  insert_prepare(pos, n);
  memcpy(d_ptr_data + pos, text, n);
  return *this;
}

string& string::insert(unsigned int pos, unsigned int n, unsigned char c) {
  if (n == 0) {
    if (pos > d_uint_size) run_abort_for_offset_overflow(__FILE__, __LINE__, "insert_prepare", pos);
    return *this;
  }
  insert_prepare(pos, n);
  memset(d_ptr_data + pos, c, n);
  return *this;
}

string& string::erase(unsigned int pos, unsigned int n) {
  if (pos >= d_uint_size) run_abort_for_offset_overflow(__FILE__, __LINE__, "erase", pos);
  const unsigned int count = sub_length(pos, n);
  memmove(d_ptr_data + pos, d_ptr_data + pos + count, d_uint_size - pos - count);
  set_size(d_uint_size - count);
  return *this;
}

string::iterator string::erase_at(const_iterator it) {
  const unsigned long pos = static_cast<unsigned long>(it - d_ptr_data);
  if (pos >= d_uint_size) run_abort_for_offset_overflow(__FILE__, __LINE__, "erase", static_cast<unsigned int>(pos));
  erase(static_cast<unsigned int>(pos), 1);
  return d_ptr_data + pos;
}

string::iterator string::erase_range(const_iterator first, const_iterator last) {
  const unsigned long it1 = static_cast<unsigned long>(first - d_ptr_data);
  const unsigned long it2 = static_cast<unsigned long>(last - d_ptr_data);
  if (it2 > d_uint_size || it1 > it2) {
    Stack_message<1024>()
        .text("Error: out_of_range. uint_offset_it_first=")
        .dec(it1)
        .text(", uint_offset_it_last=")
        .dec(it2)
        .text(", size()=")
        .dec(d_uint_size)
        .source(__FILE__, __LINE__, "erase")
        .write_and_abort();
  }
  if (it1 < it2) erase(static_cast<unsigned int>(it1), static_cast<unsigned int>(it2 - it1));
  return d_ptr_data + it1;
}

void string::replace_prepare(unsigned int pos, unsigned int n1, unsigned int n2) {
  if (pos > d_uint_size) run_abort_for_offset_overflow(__FILE__, __LINE__, "replace_prepare", pos);
  n1 = sub_length(pos, n1);
  if (n1 == n2) return;
  const unsigned int tail = d_uint_size - pos - n1;
  if (n2 < n1) {
    memmove(d_ptr_data + pos + n2, d_ptr_data + pos + n1, tail);
    set_size(d_uint_size - (n1 - n2));
    return;
  }
  const unsigned long long new_size = static_cast<unsigned long long>(d_uint_size) + (n2 - n1);
  if (new_size < d_uint_capacity) {
    memmove(d_ptr_data + pos + n2, d_ptr_data + pos + n1, tail);
  } else {
    reserve_for_insert(new_size, pos + n1, n2 - n1);
  }
  set_size(static_cast<unsigned int>(new_size));
}

string& string::replace(unsigned int pos, unsigned int n1, const unsigned char* text, unsigned int n2) {
  if (inside(text) && n2 != 0) {
    const string copy(text, n2);
    return replace(pos, n1, copy.d_ptr_data, n2);
  }
  replace_prepare(pos, n1, n2);
  if (n2 != 0) memcpy(d_ptr_data + pos, text, n2);
  return *this;
}

void string::resize_no_fill(unsigned int n) {
  if (n == d_uint_size) return;
  if (n > d_uint_size) reserve(n);
  set_size(n);
}

void string::resize(unsigned int n, unsigned char fill) {
  if (n == d_uint_size) return;
  if (n < d_uint_size) {
    set_size(n);
    return;
  }
  reserve(n);
  memset(d_ptr_data + d_uint_size, fill, n - d_uint_size);
  set_size(n);
}

void string::shrink_to_fit() {
  if (d_uint_size == 0) {
    release();
    return;
  }
  if (d_uint_capacity != get_new_capacity(d_uint_size, d_uint_size, d_uint_capacity)) inner_reserve(d_uint_size);
}

unsigned int string::find(unsigned char c, unsigned int pos) const {
  if (check_pos_is_empty(pos, __LINE__, "find")) return npos;
  const void* found = memchr(d_ptr_data + pos, c, d_uint_size - pos);
  return found == nullptr ? npos : static_cast<unsigned int>(static_cast<const unsigned char*>(found) - d_ptr_data);
}

unsigned int string::inner_find_use_memmem(const unsigned char* needle, unsigned int pos, unsigned int n) const {
  if (n == 1) return find(needle[0], pos);
  if (n == 0) return npos;
  if (check_pos_is_empty(pos, __LINE__, "find")) return npos;
  const void* found = memmem(d_ptr_data + pos, d_uint_size - pos, needle, n);
  return found == nullptr ? npos : static_cast<unsigned int>(static_cast<const unsigned char*>(found) - d_ptr_data);
}

// The last start at or before pos; an empty needle matches at min(pos, size) as in the
// standard string.
unsigned int string::rfind(const unsigned char* needle, unsigned int pos, unsigned int n) const {
  if (n > d_uint_size) return npos;
  unsigned int start = d_uint_size - n;
  if (pos < start) start = pos;
  const unsigned char* haystack = text();
  for (unsigned long i = start + 1ul; i-- > 0;) {
    if (memcmp(haystack + i, needle, n) == 0) return static_cast<unsigned int>(i);
  }
  return npos;
}

unsigned int string::scan_forward(const unsigned char* set, unsigned int pos, unsigned int n, bool in_set) const {
  if (check_pos_is_empty(pos, __LINE__, in_set ? "find_first_of" : "find_first_not_of")) return npos;
  for (unsigned int i = pos; i < d_uint_size; ++i) {
    if ((memchr(set, d_ptr_data[i], n) != nullptr) == in_set) return i;
  }
  return npos;
}

unsigned int string::scan_backward(const unsigned char* set, unsigned int pos, unsigned int n, bool in_set) const {
  if (d_uint_size == 0) return npos;
  unsigned long i = pos < d_uint_size ? pos : d_uint_size - 1;
  for (++i; i-- > 0;) {
    if ((memchr(set, d_ptr_data[i], n) != nullptr) == in_set) return static_cast<unsigned int>(i);
  }
  return npos;
}

int string::compare_bytes(const unsigned char* left, unsigned int left_size, const unsigned char* right, unsigned int right_size) {
  const int result = memcmp(left, right, left_size < right_size ? left_size : right_size);
  if (result != 0) return result;
  return static_cast<int>(static_cast<long>(left_size) - static_cast<long>(right_size));
}

string string::substr(unsigned int pos, unsigned int n) const {
  if (check_pos_is_empty(pos, __LINE__, "substr")) return string();
  return string(d_ptr_data + pos, sub_length(pos, n));
}

unsigned int string::copy(char* out, unsigned int n, unsigned int pos) const {
  if (check_pos_is_empty(pos, __LINE__, "copy")) return 0;
  const unsigned int count = sub_length(pos, n);
  memcpy(out, d_ptr_data + pos, count);
  return count;
}

}  // namespace quorla
