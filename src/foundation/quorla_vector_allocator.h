// vector_allocator<T, A>: the array of the allocator's own tables, fed by an allocator
// policy A so that it can live below malloc. Minimum capacity 4; the byte count that the
// policy really hands back becomes the capacity, so it may exceed the request.
#pragma once

#include "foundation/quorla_vector_base.h"

namespace quorla {

struct Vector_allocator_names {
  static constexpr const char* k_file = "quorla_vector_allocator";
  static constexpr const char* k_max_size_text = "Error: vector_allocator::get_new_d_uint_capacity reach max size. uint_in=";
  static constexpr const char* k_realloc_failed_text =
      "Error: vector_allocator::run_realloc() realloc() failed., uint_new_capacity_in=";
  static constexpr const char* k_malloc_failed_text =
      "Error: vector_allocator::malloc_array() malloc() failed., uint_new_capacity_in=";
  static constexpr bool k_capacity_from_bytes = true;
};

template <class T, class A>
class vector_allocator : public Vector_base<T, A, 4, Vector_allocator_names> {};

}  // namespace quorla
