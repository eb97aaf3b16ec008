// The growth machinery shared by vector and vector_allocator: 32-bit sizes, the one
// power-of-two capacity rule, and element traits measured once at start-up by looking at a
// default-constructed object (is_t_default_no_ptr_to_t: does it point into itself, so that
// realloc would break it? is_default_all_zero: may a new one be made by zero-filling?).
// Until start-up sets them the traits read false and growth takes the element-wise path,
// which is correct for any type: the traits may only select a faster equivalent.
#pragma once

#include <new>
#include <type_traits>
#include <utility>

#include "foundation/quorla_base.h"

namespace quorla {

template <class T>
bool is_t_default_no_ptr_to_t() {
  static T t_default;
  const auto begin = reinterpret_cast<unsigned long>(&t_default);
  const auto end = begin + sizeof(T);
  for (unsigned long offset = 0; offset + 8 <= sizeof(T); offset += 8) {
    unsigned long word;
    __builtin_memcpy(&word, reinterpret_cast<const unsigned char*>(&t_default) + offset, 8);
    if (word >= begin && word < end) return false;
  }
  return true;
}

template <class T>
bool is_default_all_zero(const T&) {
  static T t_tmp;
  const auto* bytes = reinterpret_cast<const unsigned char*>(&t_tmp);
  for (unsigned long offset = 0; offset < sizeof(T); ++offset) {
    if (bytes[offset] != 0) return false;
  }
  return true;
}

// The trait statics of one element type; pointer elements move by realloc outright.
template <class T>
struct Vector_traits {
  static constexpr bool d_bool_pod = std::is_trivially_destructible<T>::value && std::is_trivially_copyable<T>::value;
  static bool d_bool_use_memmove;
  static bool d_bool_use_memset;
};
template <class T>
bool Vector_traits<T>::d_bool_use_memmove = std::is_pointer<T>::value;
template <class T>
bool Vector_traits<T>::d_bool_use_memset = false;

// Reports a capacity beyond the rule and answers 0xFFFFFFFF; no abort (the allocation that
// follows fails or not on its own).
void vector_report_max_size(const char* text, unsigned int uint_in, unsigned long ulong_return, unsigned int size,
                            unsigned int capacity, const char* file, unsigned int line);
void vector_report_allocation_failed(const char* text, unsigned int capacity, const char* file, unsigned int line,
                                     const char* func);

}  // namespace quorla
