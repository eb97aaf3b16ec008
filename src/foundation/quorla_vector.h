// vector<T>: the same array on the exported malloc, realloc and free, for code above the
// allocator only (the configuration engine). Minimum capacity 8.
#pragma once

#include <cstdlib>

#include "foundation/quorla_vector_base.h"

namespace quorla {

struct Vector_malloc_store {
  void* malloc(unsigned long& size) const { return ::malloc(size); }
  void* realloc(void* ptr, unsigned long, unsigned long& new_size) const { return ::realloc(ptr, new_size); }
  void free(void* ptr, unsigned long) const {
    if (ptr != nullptr) ::free(ptr);
  }
};

struct Vector_names {
  static constexpr const char* k_file = "quorla_vector";
  static constexpr const char* k_max_size_text = "Error: vector::get_new_capacity() reach max size. uint_in=";
  static constexpr const char* k_realloc_failed_text = "Error: vector::run_realloc() realloc() failed., uint_new_capacity_in=";
  static constexpr const char* k_malloc_failed_text = "Error: vector::malloc_array() malloc() failed., uint_new_capacity_in=";
  static constexpr bool k_capacity_from_bytes = false;
};

template <class T>
class vector : public Vector_base<T, Vector_malloc_store, 8, Vector_names> {};

}  // namespace quorla
