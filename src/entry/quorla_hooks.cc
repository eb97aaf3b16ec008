// cfree, and the four hook words of the old glibc interface. The words hold working
// forwarders from load time (static initialisation, no code runs) for programs that read
// one and call through it; nothing in the library ever reads them, so a program that
// stores into one changes nothing of the allocator.
#include "quorlamalloc.h"
#include "foundation/quorla_base.h"

extern "C" {

QUORLA_EXPORT void quorla_cfree(void* ptr) noexcept { quorla_free(ptr); }

QUORLA_EXPORT void* quorla_malloc_with_caller(size_t size, const void*) noexcept { return quorla_malloc(size); }
QUORLA_EXPORT void quorla_free_with_caller(void* ptr, const void*) noexcept { quorla_free(ptr); }
QUORLA_EXPORT void* quorla_realloc_with_caller(void* ptr, size_t size, const void*) noexcept {
  return quorla_realloc(ptr, size);
}
QUORLA_EXPORT void* quorla_memalign_with_caller(size_t alignment, size_t size, const void*) noexcept {
  return quorla_memalign(alignment, size);
}

#if QUORLA_STANDARD_NAMES
QUORLA_EXPORT void cfree(void* ptr) noexcept __attribute__((alias("quorla_cfree")));

QUORLA_EXPORT void* (*__malloc_hook)(size_t, const void*) = quorla_malloc_with_caller;
QUORLA_EXPORT void (*__free_hook)(void*, const void*) = quorla_free_with_caller;
QUORLA_EXPORT void* (*__realloc_hook)(void*, size_t, const void*) = quorla_realloc_with_caller;
QUORLA_EXPORT void* (*__memalign_hook)(size_t, size_t, const void*) = quorla_memalign_with_caller;
#endif

}  // extern "C"
