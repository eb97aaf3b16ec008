// The body of vector<T> and vector_allocator<T, A>: three fields (data, 32-bit size,
// 32-bit capacity), a zero-filled object is a valid empty vector, capacity from one
// power-of-two rule (minimum k_min), and the allocator's real block size flowing back into
// the capacity. Storage goes through Store (the allocator policy, or the malloc family).
// Not thread-safe: each owner says which lock guards its vectors.
#pragma once

#include "foundation/quorla_conversion.h"
#include "foundation/quorla_vector_growth.h"

namespace quorla {

template <class T, class Store, unsigned int k_min, class Names>
class Vector_base {
 public:
  using value_type = T;
  using Traits = Vector_traits<T>;

  Vector_base() : d_ptr_data(nullptr), d_uint_size(0), d_uint_capacity(0) {}
  Vector_base(const Vector_base& other) : Vector_base() { copy_from(other); }
  Vector_base(Vector_base&& other) noexcept : d_ptr_data(other.d_ptr_data), d_uint_size(other.d_uint_size), d_uint_capacity(other.d_uint_capacity) {
    other.d_ptr_data = nullptr;
    other.d_uint_size = 0;
    other.d_uint_capacity = 0;
  }
  ~Vector_base() { release(); }

  // Copy and swap: assigning an empty vector frees this vector's array.
  Vector_base& operator=(const Vector_base& other) {
    if (this == &other) return *this;
    Vector_base temporary;
    temporary.copy_from(other);
    swap(temporary);
    return *this;
  }

  unsigned int size() const { return d_uint_size; }
  unsigned int capacity() const { return d_uint_capacity; }
  bool empty() const { return d_uint_size == 0; }
  T* data() { return d_ptr_data; }
  const T* data() const { return d_ptr_data; }
  T& operator[](unsigned int index) { return d_ptr_data[index]; }
  const T& operator[](unsigned int index) const { return d_ptr_data[index]; }
  T* begin() { return d_ptr_data; }
  T* end() { return d_ptr_data + d_uint_size; }
  const T* begin() const { return d_ptr_data; }
  const T* end() const { return d_ptr_data + d_uint_size; }
  T& back() { return d_ptr_data[d_uint_size - 1]; }

  unsigned int get_new_capacity(unsigned int uint_in) const {
    unsigned long long result = get_2power_great_or_equal_to(uint_in, k_min);
    if (result < 0xFFFFFFFFull) return static_cast<unsigned int>(result);
    vector_report_max_size(Names::k_max_size_text, uint_in, result, d_uint_size, d_uint_capacity, Names::k_file, __LINE__);
    return 0xFFFFFFFF;
  }

  void push_back(const T& value) {
    reserve(d_uint_size + 1);
    new (d_ptr_data + d_uint_size) T(value);
    ++d_uint_size;
  }
  void push_back(T&& value) {
    reserve(d_uint_size + 1);
    new (d_ptr_data + d_uint_size) T(static_cast<T&&>(value));
    ++d_uint_size;
  }

  void reserve(unsigned int count) {
    if (d_uint_capacity >= count) return;
    grow(get_new_capacity(count));
  }

  void resize(unsigned int count) {
    if (count == d_uint_size) return;
    if (count < d_uint_size) {
      if (!Traits::d_bool_pod) {
        for (unsigned int i = count; i < d_uint_size; ++i) d_ptr_data[i].~T();
      }
      d_uint_size = count;
      return;
    }
    if (count > d_uint_capacity) grow(get_new_capacity(count));
    if (Traits::d_bool_use_memset) {
      quorla_zero(d_ptr_data + d_uint_size, static_cast<unsigned long>(count - d_uint_size) * sizeof(T));
    } else {
      for (unsigned int i = d_uint_size; i < count; ++i) new (d_ptr_data + i) T();
    }
    d_uint_size = count;
  }

  void clear() {
    if (!Traits::d_bool_pod) {
      for (unsigned int i = 0; i < d_uint_size; ++i) d_ptr_data[i].~T();
    }
    d_uint_size = 0;
  }

  void release() {
    clear();
    if (d_ptr_data != nullptr || d_uint_capacity != 0) {
      Store().free(d_ptr_data, static_cast<unsigned long>(d_uint_capacity) * sizeof(T));
    }
    d_ptr_data = nullptr;
    d_uint_capacity = 0;
  }

  // Removes one element without keeping order; its storage keeps the stale bytes.
  void erase_fast(unsigned int index) {
    if (index >= d_uint_size) return;
    unsigned int last = d_uint_size - 1;
    if (index != last) {
      T moved = static_cast<T&&>(d_ptr_data[index]);
      d_ptr_data[index] = static_cast<T&&>(d_ptr_data[last]);
      d_ptr_data[last] = static_cast<T&&>(moved);
    }
    d_uint_size = last;
    d_ptr_data[last].~T();
  }

  // Capacity becomes the rule's value for the size (at least the minimum), not an exact fit.
  void shrink_to_fit() {
    if (d_uint_size != 0) {
      unsigned int wanted = get_new_capacity(d_uint_size);
      if (wanted != d_uint_capacity) run_realloc(wanted);
    } else if (d_uint_capacity != 0) {
      Store().free(d_ptr_data, static_cast<unsigned long>(d_uint_capacity) * sizeof(T));
      d_ptr_data = nullptr;
      d_uint_capacity = 0;
    }
  }

  void swap(Vector_base& other) {
    std::swap(d_ptr_data, other.d_ptr_data);
    std::swap(d_uint_size, other.d_uint_size);
    std::swap(d_uint_capacity, other.d_uint_capacity);
  }

  // Grows or shrinks the array through the allocator's realloc (allocation when the old
  // capacity is 0). The result is stored before it is tested; on failure the capacity stays.
  void run_realloc(unsigned int new_capacity) {
    unsigned long byte = static_cast<unsigned long>(new_capacity) * sizeof(T);
    if (d_uint_capacity != 0) {
      d_ptr_data = static_cast<T*>(Store().realloc(d_ptr_data, static_cast<unsigned long>(d_uint_capacity) * sizeof(T), byte));
    } else {
      d_ptr_data = static_cast<T*>(Store().malloc(byte));
    }
    if (d_ptr_data == nullptr) {
      vector_report_allocation_failed(Names::k_realloc_failed_text, new_capacity, Names::k_file, __LINE__, "run_realloc");
      return;
    }
    d_uint_capacity = Names::k_capacity_from_bytes ? static_cast<unsigned int>(byte / sizeof(T)) : new_capacity;
  }

  // A fresh array; sets the capacity (callers save the old one first).
  T* malloc_array(unsigned int new_capacity) {
    unsigned long byte = static_cast<unsigned long>(new_capacity) * sizeof(T);
    T* array = static_cast<T*>(Store().malloc(byte));
    if (array == nullptr) {
      vector_report_allocation_failed(Names::k_malloc_failed_text, new_capacity, Names::k_file, __LINE__, "malloc_array");
      return nullptr;
    }
    d_uint_capacity = Names::k_capacity_from_bytes ? static_cast<unsigned int>(byte / sizeof(T)) : new_capacity;
    return array;
  }

  T* d_ptr_data;
  unsigned int d_uint_size;
  unsigned int d_uint_capacity;

 private:
  static void quorla_zero(void* ptr, unsigned long byte) { __builtin_memset(ptr, 0, byte); }

  void grow(unsigned int new_capacity) {
    if (Traits::d_bool_use_memmove) {
      run_realloc(new_capacity);
      return;
    }
    unsigned int old_capacity = d_uint_capacity;
    T* old_data = d_ptr_data;
    T* array = malloc_array(new_capacity);
    for (unsigned int i = 0; i < d_uint_size; ++i) {
      new (array + i) T(static_cast<T&&>(old_data[i]));
      old_data[i].~T();
    }
    if (old_capacity != 0 || old_data != nullptr) Store().free(old_data, static_cast<unsigned long>(old_capacity) * sizeof(T));
    d_ptr_data = array;
  }

  void copy_from(const Vector_base& other) {
    if (other.d_uint_size == 0) return;
    reserve(other.d_uint_size);
    for (unsigned int i = 0; i < other.d_uint_size; ++i) new (d_ptr_data + i) T(other.d_ptr_data[i]);
    d_uint_size = other.d_uint_size;
  }
};

}  // namespace quorla
