// string: the library's byte string. The standard interface, with what an allocator needs:
// a default string owns nothing and is three zero fields (so arrays of strings can be made
// by zero-filling and moved by realloc), sizes are 32-bit (not-found is 0xFFFFFFFF), there
// is no small-string buffer, and the array comes from the exported malloc/realloc/free.
// Invariants: d_ptr_data == null <=> d_uint_capacity == 0; otherwise d_uint_size <
// d_uint_capacity and d_ptr_data[d_uint_size] == 0. A null string reads as empty through
// the address of d_uint_size, whose zero word serves as its terminator.
// Range errors and allocation failures abort with a line built on the stack.
// Not thread-safe.
#pragma once

#include <cstring>
#include <initializer_list>
#include <iterator>
#include <type_traits>
#include <utility>

namespace quorla {

class string {
 public:
  using value_type = unsigned char;
  using size_type = unsigned int;
  using iterator = unsigned char*;
  using const_iterator = const unsigned char*;
  using reverse_iterator = std::reverse_iterator<iterator>;
  using const_reverse_iterator = std::reverse_iterator<const_iterator>;
  static constexpr unsigned int npos = 0xFFFFFFFF;
  template <class It>
  using Only_pointer = typename std::enable_if<std::is_pointer<It>::value>::type;

  string() : d_ptr_data(nullptr), d_uint_size(0), d_uint_capacity(0) {}
  string(const unsigned char* text, unsigned int n) : string() { assign(text, n); }
  string(const char* text, unsigned int n) : string() { assign(text, n); }
  string(const char* text) : string() { assign(text); }                  // NOLINT: implicit like std::string
  string(const unsigned char* text) : string() { assign(text); }         // NOLINT
  string(const string& other) : string() { assign(other); }
  string(const string& other, unsigned int pos, unsigned int n = npos) : string() { assign(other, pos, n); }
  string(std::initializer_list<unsigned char> list) : string() { assign(list); }
  string(unsigned int n, unsigned char c) : string() { assign(n, c); }
  string(string&& other) noexcept : d_ptr_data(other.d_ptr_data), d_uint_size(other.d_uint_size), d_uint_capacity(other.d_uint_capacity) {
    other.d_ptr_data = nullptr;
    other.d_uint_size = 0;
    other.d_uint_capacity = 0;
  }
  ~string() { release(); }

  // ---- size and storage
  unsigned int size() const { return d_uint_size; }
  unsigned int length() const { return d_uint_size; }
  unsigned int capacity() const { return d_uint_capacity; }
  bool empty() const { return d_uint_size == 0; }
  static unsigned int max_size() { return 0x7FFFFFFF; }
  const char* c_str() const { return reinterpret_cast<const char*>(text()); }
  const unsigned char* data() const { return text(); }
  unsigned char* data() { return d_ptr_data != nullptr ? d_ptr_data : reinterpret_cast<unsigned char*>(&d_uint_size); }
  // Size 0 and a 0 in the first byte; the array stays.
  void clear() {
    if (d_ptr_data == nullptr) return;
    d_uint_size = 0;
    d_ptr_data[0] = 0;
  }
  // Frees the array; the string is three zero fields again.
  void release();
  static unsigned int get_new_capacity(unsigned long long uint_size_in, unsigned int size = 0, unsigned int capacity = 0);
  void reserve(unsigned int n) {
    if (d_uint_capacity > n) return;
    inner_reserve(n);
  }
  void resize(unsigned int n, unsigned char fill = 0);
  void resize_no_fill(unsigned int n);
  void shrink_to_fit();
  void swap(string& other) noexcept {
    std::swap(d_ptr_data, other.d_ptr_data);
    std::swap(d_uint_size, other.d_uint_size);
    std::swap(d_uint_capacity, other.d_uint_capacity);
  }

  // ---- element access
  unsigned char& operator[](unsigned int pos) {
    if (pos > d_uint_size) run_abort_for_offset_overflow(__FILE__, __LINE__, "operator[]", pos);
    return data()[pos];
  }
  const unsigned char& operator[](unsigned int pos) const {
    if (pos > d_uint_size) run_abort_for_offset_overflow(__FILE__, __LINE__, "operator[]", pos);
    return text()[pos];
  }
  unsigned char& front() { return (*this)[0]; }
  unsigned char& back() { return (*this)[d_uint_size == 0 ? 0 : d_uint_size - 1]; }
  iterator begin() { return d_ptr_data; }
  iterator end() { return d_ptr_data + d_uint_size; }
  const_iterator begin() const { return d_ptr_data; }
  const_iterator end() const { return d_ptr_data + d_uint_size; }
  const_iterator cbegin() const { return begin(); }
  const_iterator cend() const { return end(); }
  reverse_iterator rbegin() { return reverse_iterator(end()); }
  reverse_iterator rend() { return reverse_iterator(begin()); }
  const_reverse_iterator rbegin() const { return const_reverse_iterator(end()); }
  const_reverse_iterator rend() const { return const_reverse_iterator(begin()); }

  // ---- assign: the real work is on (bytes, length); every other form forwards to it.
  string& assign(const unsigned char* text, unsigned int n);
  string& assign(const char* text, unsigned int n) { return assign(bytes(text), n); }
  string& assign(const char* text) { return assign(bytes(text), length_of(text)); }
  string& assign(const unsigned char* text) { return assign(text, length_of(text)); }
  string& assign(const string& other) { return this == &other ? *this : assign(other.text(), other.d_uint_size); }
  string& assign(const string& other, unsigned int pos, unsigned int n) {
    return assign(other.text() + other.check_subpos(pos, __LINE__, "assign"), other.sub_length(pos, n));
  }
  string& assign(std::initializer_list<unsigned char> list) { return assign(list.begin(), static_cast<unsigned int>(list.size())); }
  string& assign(unsigned char c) { return assign(&c, 1); }
  string& assign(unsigned int n, unsigned char c) {
    clear();
    return append(n, c);
  }
  string& assign(string&& other) noexcept {
    if (this != &other) {
      release();
      swap(other);
    }
    return *this;
  }
  string& operator=(const string& other) { return assign(other); }
  string& operator=(string&& other) noexcept { return assign(static_cast<string&&>(other)); }
  string& operator=(const char* text) { return assign(text); }
  string& operator=(const unsigned char* text) { return assign(text); }
  string& operator=(std::initializer_list<unsigned char> list) { return assign(list); }
  string& operator=(unsigned char c) { return assign(c); }

  // ---- append
  string& append(const unsigned char* text, unsigned int n);
  string& append(const char* text, unsigned int n) { return append(bytes(text), n); }
  string& append(const char* text) { return append(bytes(text), length_of(text)); }
  string& append(const unsigned char* text) { return append(text, length_of(text)); }
  string& append(const string& other) { return append(other.text(), other.d_uint_size); }
  string& append(const string& other, unsigned int pos, unsigned int n) {
    return append(other.text() + other.check_subpos(pos, __LINE__, "append"), other.sub_length(pos, n));
  }
  string& append(std::initializer_list<unsigned char> list) { return append(list.begin(), static_cast<unsigned int>(list.size())); }
  string& append(unsigned char c) { return append(&c, 1); }
  string& append(unsigned int n, unsigned char c);
  string& operator+=(const string& other) { return append(other); }
  string& operator+=(const char* text) { return append(text); }
  string& operator+=(const unsigned char* text) { return append(text); }
  string& operator+=(std::initializer_list<unsigned char> list) { return append(list); }
  string& operator+=(unsigned char c) { return append(&c, 1); }
  string& operator+=(char c) { return append(reinterpret_cast<const unsigned char*>(&c), 1); }
  void push_back(unsigned char c) { append(&c, 1); }
  void pop_back() {
    if (d_uint_size == 0) return;
    d_ptr_data[--d_uint_size] = 0;
  }

  // ---- insert: a gap made by insert_prepare and filled here.
  string& insert(unsigned int pos, const unsigned char* text, unsigned int n);
  string& insert(unsigned int pos, const char* text, unsigned int n) { return insert(pos, bytes(text), n); }
  string& insert(unsigned int pos, const char* text) { return insert(pos, bytes(text), length_of(text)); }
  string& insert(unsigned int pos, const unsigned char* text) { return insert(pos, text, length_of(text)); }
  string& insert(unsigned int pos, const string& other) { return insert(pos, other.text(), other.d_uint_size); }
  string& insert(unsigned int pos, const string& other, unsigned int subpos, unsigned int n) {
    return insert(pos, other.text() + other.check_subpos(subpos, __LINE__, "insert"), other.sub_length(subpos, n));
  }
  string& insert(unsigned int pos, std::initializer_list<unsigned char> list) {
    return insert(pos, list.begin(), static_cast<unsigned int>(list.size()));
  }
  string& insert(unsigned int pos, unsigned char c) { return insert(pos, &c, 1); }
  string& insert(unsigned int pos, unsigned int n, unsigned char c);
  // Iterator forms are templates on a pointer type, so that a literal 0 position is never
  // taken for a null iterator.
  template <class It, class = Only_pointer<It>>
  iterator insert(It it, unsigned char c) {
    const unsigned int pos = offset_of(it);
    insert(pos, &c, 1);
    return d_ptr_data + pos;
  }

  // ---- erase: a position at or above the size is a range error (erasing at the end aborts).
  string& erase(unsigned int pos = 0, unsigned int n = npos);
  template <class It, class = Only_pointer<It>>
  iterator erase(It it) {
    return erase_at(it);
  }
  template <class It, class = Only_pointer<It>>
  iterator erase(It first, It last) {
    return erase_range(first, last);
  }

  // ---- replace (pos, n1) by a text: the room made by replace_prepare.
  string& replace(unsigned int pos, unsigned int n1, const unsigned char* text, unsigned int n2);
  string& replace(unsigned int pos, unsigned int n1, const char* text, unsigned int n2) { return replace(pos, n1, bytes(text), n2); }
  string& replace(unsigned int pos, unsigned int n1, const char* text) { return replace(pos, n1, bytes(text), length_of(text)); }
  string& replace(unsigned int pos, unsigned int n1, const unsigned char* text) { return replace(pos, n1, text, length_of(text)); }
  string& replace(unsigned int pos, unsigned int n1, const string& other) { return replace(pos, n1, other.text(), other.d_uint_size); }
  string& replace(unsigned int pos, unsigned int n1, const string& other, unsigned int subpos, unsigned int n2) {
    return replace(pos, n1, other.text() + other.check_subpos(subpos, __LINE__, "replace"), other.sub_length(subpos, n2));
  }
  string& replace(unsigned int pos, unsigned int n1, std::initializer_list<unsigned char> list) {
    return replace(pos, n1, list.begin(), static_cast<unsigned int>(list.size()));
  }
  string& replace(unsigned int pos, unsigned int n1, unsigned char c) { return replace(pos, n1, &c, 1); }
  template <class It, class = Only_pointer<It>>
  string& replace(It first, It last, const unsigned char* text, unsigned int n2) {
    const unsigned int pos = check_iterator_range(first, last, __LINE__, "replace");
    return replace(pos, static_cast<unsigned int>(last - first), text, n2);
  }
  template <class It, class = Only_pointer<It>>
  string& replace(It first, It last, const char* text) {
    return replace(first, last, bytes(text), length_of(text));
  }
  template <class It, class = Only_pointer<It>>
  string& replace(It first, It last, const string& other) {
    return replace(first, last, other.text(), other.d_uint_size);
  }

  // ---- search. Not-found is npos. find's empty needle is not found (unlike std::string).
  unsigned int find(unsigned char c, unsigned int pos = 0) const;
  unsigned int find(const unsigned char* text, unsigned int pos, unsigned int n) const { return inner_find_use_memmem(text, pos, n); }
  unsigned int rfind(unsigned char c, unsigned int pos = npos) const { return rfind(&c, pos, 1); }
  unsigned int rfind(const unsigned char* text, unsigned int pos, unsigned int n) const;
  unsigned int find_first_of(const unsigned char* set, unsigned int pos, unsigned int n) const { return scan_forward(set, pos, n, true); }
  unsigned int find_first_not_of(const unsigned char* set, unsigned int pos, unsigned int n) const { return scan_forward(set, pos, n, false); }
  unsigned int find_last_of(const unsigned char* set, unsigned int pos, unsigned int n) const { return scan_backward(set, pos, n, true); }
  unsigned int find_last_not_of(const unsigned char* set, unsigned int pos, unsigned int n) const { return scan_backward(set, pos, n, false); }
  unsigned int find_first_of(unsigned char c, unsigned int pos = 0) const { return scan_forward(&c, pos, 1, true); }
  unsigned int find_first_not_of(unsigned char c, unsigned int pos = 0) const { return scan_forward(&c, pos, 1, false); }
  unsigned int find_last_of(unsigned char c, unsigned int pos = npos) const { return scan_backward(&c, pos, 1, true); }
  unsigned int find_last_not_of(unsigned char c, unsigned int pos = npos) const { return scan_backward(&c, pos, 1, false); }
#define QUORLA_STRING_SEARCH_FORMS(name, default_pos)                                                                   \
  unsigned int name(const char* text, unsigned int pos, unsigned int n) const { return name(bytes(text), pos, n); }     \
  unsigned int name(const char* text, unsigned int pos = default_pos) const { return name(bytes(text), pos, length_of(text)); } \
  unsigned int name(const unsigned char* text, unsigned int pos = default_pos) const { return name(text, pos, length_of(text)); } \
  unsigned int name(const string& other, unsigned int pos = default_pos) const { return name(other.text(), pos, other.d_uint_size); } \
  unsigned int name(char c, unsigned int pos = default_pos) const { return name(static_cast<unsigned char>(c), pos); }
  QUORLA_STRING_SEARCH_FORMS(find, 0)
  QUORLA_STRING_SEARCH_FORMS(rfind, npos)
  QUORLA_STRING_SEARCH_FORMS(find_first_of, 0)
  QUORLA_STRING_SEARCH_FORMS(find_first_not_of, 0)
  QUORLA_STRING_SEARCH_FORMS(find_last_of, npos)
  QUORLA_STRING_SEARCH_FORMS(find_last_not_of, npos)
#undef QUORLA_STRING_SEARCH_FORMS

  // ---- compare: memcmp on the shorter length, then the difference of the lengths.
  int compare(const unsigned char* text, unsigned int n) const { return compare_bytes(this->text(), d_uint_size, text, n); }
  int compare(const char* text, unsigned int n) const { return compare(bytes(text), n); }
  int compare(const char* text) const { return compare(bytes(text), length_of(text)); }
  int compare(const unsigned char* text) const { return compare(text, length_of(text)); }
  int compare(const string& other) const { return compare(other.text(), other.d_uint_size); }
  int compare(unsigned int pos, unsigned int n, const string& other) const {
    return compare_bytes(text() + check_subpos(pos, __LINE__, "compare"), sub_length(pos, n), other.text(), other.d_uint_size);
  }
  int compare(unsigned int pos, unsigned int n, const char* text) const {
    return compare_bytes(this->text() + check_subpos(pos, __LINE__, "compare"), sub_length(pos, n), bytes(text), length_of(text));
  }
  static int compare_bytes(const unsigned char* left, unsigned int left_size, const unsigned char* right, unsigned int right_size);

  string substr(unsigned int pos = 0, unsigned int n = npos) const;
  unsigned int copy(char* out, unsigned int n, unsigned int pos = 0) const;

  // The common range abort and the two checks built on it: a position equal to the size
  // is empty (true, a harmless result follows); above the size aborts.
  [[noreturn]] void run_abort_for_offset_overflow(const char* file, unsigned int line, const char* func, unsigned int pos) const;
  bool check_pos_is_empty(unsigned int pos, unsigned int line, const char* func) const {
    if (pos < d_uint_size) return false;
    if (pos == d_uint_size) return true;
    run_abort_for_offset_overflow(__FILE__, line, func, pos);
  }
  bool check_str_in_pos_is_empty(const string& other, unsigned int pos, unsigned int line, const char* func) const {
    return other.check_pos_is_empty(pos, line, func);
  }

  // For relocating containers: the three fields, by value.
  unsigned char* raw_pointer() const { return d_ptr_data; }

 private:
  static const unsigned char* bytes(const char* text) { return reinterpret_cast<const unsigned char*>(text); }
  static unsigned int length_of(const char* text) { return static_cast<unsigned int>(strlen(text)); }
  static unsigned int length_of(const unsigned char* text) { return length_of(reinterpret_cast<const char*>(text)); }
  const unsigned char* text() const {
    return d_ptr_data != nullptr ? d_ptr_data : reinterpret_cast<const unsigned char*>(&d_uint_size);
  }
  bool inside(const unsigned char* text) const { return d_ptr_data != nullptr && text >= d_ptr_data && text <= d_ptr_data + d_uint_size; }
  unsigned int offset_of(const_iterator it) const { return static_cast<unsigned int>(it - d_ptr_data); }
  // A substring argument: its start may equal the size (empty), not pass it.
  unsigned int check_subpos(unsigned int pos, unsigned int line, const char* func) const;
  unsigned int sub_length(unsigned int pos, unsigned int n) const { return n < d_uint_size - pos ? n : d_uint_size - pos; }
  iterator erase_at(const_iterator it);
  iterator erase_range(const_iterator first, const_iterator last);
  unsigned int check_iterator_range(const_iterator first, const_iterator last, unsigned int line, const char* func) const;

  void malloc_array(unsigned long long n);
  void inner_reserve(unsigned long long n);
  void reserve_for_insert(unsigned long long new_size, unsigned int pos, unsigned int n);
  void insert_prepare(unsigned int pos, unsigned int n);
  void replace_prepare(unsigned int pos, unsigned int n1, unsigned int n2);
  void set_size(unsigned int n) {
    d_uint_size = n;
    d_ptr_data[n] = 0;
  }
  unsigned int inner_find_use_memmem(const unsigned char* text, unsigned int pos, unsigned int n) const;
  unsigned int scan_forward(const unsigned char* set, unsigned int pos, unsigned int n, bool in_set) const;
  unsigned int scan_backward(const unsigned char* set, unsigned int pos, unsigned int n, bool in_set) const;

  unsigned char* d_ptr_data;
  unsigned int d_uint_size;
  unsigned int d_uint_capacity;
};

static_assert(sizeof(string) == 16, "a string is a pointer and two 32-bit words");

// ---- comparisons: string with string, and with char* / unsigned char* on either side.
inline bool operator==(const string& a, const string& b) { return a.size() == b.size() && a.compare(b) == 0; }
#define QUORLA_STRING_RELATION(op)                                                                      \
  inline bool operator op(const string& a, const string& b) { return a.compare(b) op 0; }               \
  inline bool operator op(const string& a, const char* b) { return a.compare(b) op 0; }                 \
  inline bool operator op(const char* a, const string& b) { return 0 op b.compare(a); }                 \
  inline bool operator op(const string& a, const unsigned char* b) { return a.compare(b) op 0; }        \
  inline bool operator op(const unsigned char* a, const string& b) { return 0 op b.compare(a); }
QUORLA_STRING_RELATION(!=)
QUORLA_STRING_RELATION(<)
QUORLA_STRING_RELATION(>)
QUORLA_STRING_RELATION(<=)
QUORLA_STRING_RELATION(>=)
#undef QUORLA_STRING_RELATION
inline bool operator==(const string& a, const char* b) { return a.compare(b) == 0; }
inline bool operator==(const char* a, const string& b) { return b.compare(a) == 0; }
inline bool operator==(const string& a, const unsigned char* b) { return a.compare(b) == 0; }
inline bool operator==(const unsigned char* a, const string& b) { return b.compare(a) == 0; }

inline string operator+(const string& a, const string& b) {
  string result;
  result.reserve(a.size() + b.size());
  return static_cast<string&&>(result.append(a).append(b));
}
inline string operator+(const string& a, const char* b) { return a + string(b); }
inline string operator+(const char* a, const string& b) { return string(a) + b; }
inline string operator+(const string& a, unsigned char b) { return a + string(&b, 1); }

inline void swap(string& a, string& b) noexcept { a.swap(b); }

}  // namespace quorla
