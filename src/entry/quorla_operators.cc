// The twenty replaceable operator new and operator delete forms. Each has a quorla_ library
// name, a one-line forwarder to malloc, aligned_alloc, free or free_align; in the shared
// library the operator itself is an alias of that forwarder, so a C++ program's new costs
// one jump more than malloc and never passes through libstdc++.
//
// The throwing and the nothrow forms are the same code: there is no std::bad_alloc, no
// new-handler and no exception on these paths. The aligned new forms swap their first two
// arguments; every size and alignment that a delete is given is ignored, since a block is
// found from its address alone.
#include <new>

#include "quorlamalloc.h"
#include "foundation/quorla_base.h"

extern "C" {

QUORLA_EXPORT void quorla_free_align(void* ptr, size_t) noexcept { quorla_free(ptr); }

QUORLA_EXPORT void* quorla_new(size_t size) noexcept { return quorla_malloc(size); }
QUORLA_EXPORT void* quorla_new_array(size_t size) noexcept { return quorla_malloc(size); }
QUORLA_EXPORT void* quorla_new_nothrow(size_t size, const std::nothrow_t&) noexcept { return quorla_malloc(size); }
QUORLA_EXPORT void* quorla_new_array_nothrow(size_t size, const std::nothrow_t&) noexcept { return quorla_malloc(size); }
QUORLA_EXPORT void* quorla_new_align(size_t size, std::align_val_t alignment) noexcept {
  return quorla_aligned_alloc(static_cast<size_t>(alignment), size);
}
QUORLA_EXPORT void* quorla_new_array_align(size_t size, std::align_val_t alignment) noexcept {
  return quorla_aligned_alloc(static_cast<size_t>(alignment), size);
}
QUORLA_EXPORT void* quorla_new_align_nothrow(size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
  return quorla_aligned_alloc(static_cast<size_t>(alignment), size);
}
QUORLA_EXPORT void* quorla_new_array_align_nothrow(size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
  return quorla_aligned_alloc(static_cast<size_t>(alignment), size);
}

QUORLA_EXPORT void quorla_delete(void* ptr) noexcept { quorla_free(ptr); }
QUORLA_EXPORT void quorla_delete_array(void* ptr) noexcept { quorla_free(ptr); }
QUORLA_EXPORT void quorla_delete_with_size(void* ptr, size_t) noexcept { quorla_free(ptr); }
QUORLA_EXPORT void quorla_delete_array_with_size(void* ptr, size_t) noexcept { quorla_free(ptr); }
QUORLA_EXPORT void quorla_delete_nothrow(void* ptr, const std::nothrow_t&) noexcept { quorla_free(ptr); }
QUORLA_EXPORT void quorla_delete_array_nothrow(void* ptr, const std::nothrow_t&) noexcept { quorla_free(ptr); }
QUORLA_EXPORT void quorla_delete_align(void* ptr, std::align_val_t alignment) noexcept {
  quorla_free_align(ptr, static_cast<size_t>(alignment));
}
QUORLA_EXPORT void quorla_delete_array_align(void* ptr, std::align_val_t alignment) noexcept {
  quorla_free_align(ptr, static_cast<size_t>(alignment));
}
QUORLA_EXPORT void quorla_delete_align_nothrow(void* ptr, std::align_val_t alignment, const std::nothrow_t&) noexcept {
  quorla_free_align(ptr, static_cast<size_t>(alignment));
}
QUORLA_EXPORT void quorla_delete_array_align_nothrow(void* ptr, std::align_val_t alignment, const std::nothrow_t&) noexcept {
  quorla_free_align(ptr, static_cast<size_t>(alignment));
}
QUORLA_EXPORT void quorla_delete_with_size_align(void* ptr, size_t, std::align_val_t alignment) noexcept {
  quorla_free_align(ptr, static_cast<size_t>(alignment));
}
QUORLA_EXPORT void quorla_delete_array_with_size_align(void* ptr, size_t, std::align_val_t alignment) noexcept {
  quorla_free_align(ptr, static_cast<size_t>(alignment));
}

}  // extern "C"

#if QUORLA_STANDARD_NAMES
// The operators are the library names under their C++ symbols: one address, two names.
// Only the shared library defines them; the static internals leave them to libstdc++.
// The throwing forms are declared by <new> without noexcept and alias targets that have
// it: they never throw, so the stronger attribute of the target is the true one.
#pragma GCC diagnostic ignored "-Wmissing-attributes"
#define QUORLA_OPERATOR(declaration, target) QUORLA_EXPORT declaration __attribute__((alias(#target)))
QUORLA_OPERATOR(void* operator new(std::size_t), quorla_new);
QUORLA_OPERATOR(void* operator new[](std::size_t), quorla_new_array);
QUORLA_OPERATOR(void* operator new(std::size_t, const std::nothrow_t&) noexcept, quorla_new_nothrow);
QUORLA_OPERATOR(void* operator new[](std::size_t, const std::nothrow_t&) noexcept, quorla_new_array_nothrow);
QUORLA_OPERATOR(void* operator new(std::size_t, std::align_val_t), quorla_new_align);
QUORLA_OPERATOR(void* operator new[](std::size_t, std::align_val_t), quorla_new_array_align);
QUORLA_OPERATOR(void* operator new(std::size_t, std::align_val_t, const std::nothrow_t&) noexcept, quorla_new_align_nothrow);
QUORLA_OPERATOR(void* operator new[](std::size_t, std::align_val_t, const std::nothrow_t&) noexcept,
                quorla_new_array_align_nothrow);
QUORLA_OPERATOR(void operator delete(void*) noexcept, quorla_delete);
QUORLA_OPERATOR(void operator delete[](void*) noexcept, quorla_delete_array);
QUORLA_OPERATOR(void operator delete(void*, std::size_t) noexcept, quorla_delete_with_size);
QUORLA_OPERATOR(void operator delete[](void*, std::size_t) noexcept, quorla_delete_array_with_size);
QUORLA_OPERATOR(void operator delete(void*, const std::nothrow_t&) noexcept, quorla_delete_nothrow);
QUORLA_OPERATOR(void operator delete[](void*, const std::nothrow_t&) noexcept, quorla_delete_array_nothrow);
QUORLA_OPERATOR(void operator delete(void*, std::align_val_t) noexcept, quorla_delete_align);
QUORLA_OPERATOR(void operator delete[](void*, std::align_val_t) noexcept, quorla_delete_array_align);
QUORLA_OPERATOR(void operator delete(void*, std::align_val_t, const std::nothrow_t&) noexcept, quorla_delete_align_nothrow);
QUORLA_OPERATOR(void operator delete[](void*, std::align_val_t, const std::nothrow_t&) noexcept,
                quorla_delete_array_align_nothrow);
QUORLA_OPERATOR(void operator delete(void*, std::size_t, std::align_val_t) noexcept, quorla_delete_with_size_align);
QUORLA_OPERATOR(void operator delete[](void*, std::size_t, std::align_val_t) noexcept,
                quorla_delete_array_with_size_align);
#endif
