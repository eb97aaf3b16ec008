// The owning pointers that the page and pool tables keep in their vectors. Both are
// move-only; a move clears the source.
//   unique_ptr_allocator<T, A>: destroys T, store fence, gives the memory back through A
//     (the fence makes the object's last writes visible before a pool can hand the memory
//     to another thread).
//   unique_ptr_include_alloc<T, P>: also carries the pool P that made the object; destroys
//     T and calls P::free with the object's address (free finds the pool from the object).
#pragma once

#include "foundation/quorla_base.h"

namespace quorla {

template <class T, class A>
class unique_ptr_allocator {
 public:
  unique_ptr_allocator() : ptr_t(nullptr) {}
  explicit unique_ptr_allocator(T* ptr) : ptr_t(ptr) {}
  unique_ptr_allocator(unique_ptr_allocator&& other) noexcept : ptr_t(other.ptr_t) { other.ptr_t = nullptr; }
  unique_ptr_allocator& operator=(unique_ptr_allocator&& other) noexcept {
    if (this != &other) {
      reset();
      ptr_t = other.ptr_t;
      other.ptr_t = nullptr;
    }
    return *this;
  }
  unique_ptr_allocator(const unique_ptr_allocator&) = delete;
  unique_ptr_allocator& operator=(const unique_ptr_allocator&) = delete;
  ~unique_ptr_allocator() { reset(); }

  void reset() {
    if (ptr_t == nullptr) return;
    T* ptr = ptr_t;
    ptr_t = nullptr;
    ptr->~T();
    store_fence();
    A().free(ptr, sizeof(T));
  }
  T* get() const { return ptr_t; }
  T* operator->() const { return ptr_t; }

  T* ptr_t;
};

template <class T, class P>
class unique_ptr_include_alloc {
 public:
  unique_ptr_include_alloc() : ptr_t(nullptr), ptr_pool(nullptr) {}
  unique_ptr_include_alloc(T* ptr, P* pool) : ptr_t(ptr), ptr_pool(pool) {}
  unique_ptr_include_alloc(unique_ptr_include_alloc&& other) noexcept : ptr_t(other.ptr_t), ptr_pool(other.ptr_pool) {
    other.ptr_t = nullptr;
  }
  unique_ptr_include_alloc& operator=(unique_ptr_include_alloc&& other) noexcept {
    if (this != &other) {
      reset();
      ptr_t = other.ptr_t;
      ptr_pool = other.ptr_pool;
      other.ptr_t = nullptr;
    }
    return *this;
  }
  unique_ptr_include_alloc(const unique_ptr_include_alloc&) = delete;
  unique_ptr_include_alloc& operator=(const unique_ptr_include_alloc&) = delete;
  ~unique_ptr_include_alloc() { reset(); }

  void reset() {
    if (ptr_t == nullptr) return;
    T* ptr = ptr_t;
    ptr_t = nullptr;
    ptr->~T();
    P::free(ptr);
  }
  T* get() const { return ptr_t; }
  T* operator->() const { return ptr_t; }

  T* ptr_t;
  P* ptr_pool;
};

}  // namespace quorla
