/* libquorlamalloc: the allocator's own entry points under quorla_ names.
 * Loaded by LD_PRELOAD or by linking, the library also takes over the standard names
 * (malloc, free, ...); these twins call it without interposition. */
#ifndef QUORLAMALLOC_H
#define QUORLAMALLOC_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#define QUORLA_NOEXCEPT noexcept
#else
#define QUORLA_NOEXCEPT
#endif

/* malloc and free: the same functions as the standard names. */
void* quorla_malloc(size_t size) QUORLA_NOEXCEPT;
void quorla_free(void* ptr) QUORLA_NOEXCEPT;

/* Resizing, zeroing and size queries. Every realloc of a live block moves it; calloc
 * clears one element more than asked. */
void* quorla_realloc(void* ptr, size_t size) QUORLA_NOEXCEPT;
void* quorla_realloc_array(void* ptr, size_t nmemb, size_t size) QUORLA_NOEXCEPT;
void* quorla_calloc(size_t nmemb, size_t size) QUORLA_NOEXCEPT;
size_t quorla_get_malloc_size(void* ptr) QUORLA_NOEXCEPT;
size_t quorla_malloc_usable_size(void* ptr) QUORLA_NOEXCEPT;

/* Aligned forms. */
void* quorla_memalign(size_t alignment, size_t size) QUORLA_NOEXCEPT;
void* quorla_aligned_alloc(size_t alignment, size_t size) QUORLA_NOEXCEPT;
void* quorla_malloc_align(size_t alignment, size_t size) QUORLA_NOEXCEPT;
int quorla_posix_memalign(void** out, size_t alignment, size_t size) QUORLA_NOEXCEPT;
void* quorla_valloc(size_t size) QUORLA_NOEXCEPT;
void* quorla_pvalloc(size_t size) QUORLA_NOEXCEPT;
void* quorla_malloc_small_align(unsigned int alignment, unsigned int size) QUORLA_NOEXCEPT;
void* quorla_malloc_page_align(size_t size) QUORLA_NOEXCEPT;
void* quorla_malloc_4k_to_2m_align(unsigned int alignment, unsigned int size) QUORLA_NOEXCEPT;

/* Blocks above 2048000 bytes: each one a mapping of its own. */
void* quorla_os_malloc(size_t size) QUORLA_NOEXCEPT;
void quorla_os_free(void* ptr) QUORLA_NOEXCEPT;
void* quorla_os_realloc(void* ptr, size_t size) QUORLA_NOEXCEPT;
size_t quorla_os_get_malloc_size(void* ptr) QUORLA_NOEXCEPT;

/* Release of a block known to belong to the calling thread's heap, without free's checks. */
void quorla_free_local_thread(void* ptr) QUORLA_NOEXCEPT;
void quorla_free_local_thread_use_ref(void** ptr_ref) QUORLA_NOEXCEPT;

/* The statistics report on standard output (also the standard name malloc_stats); with
 * QUORLAMALLOC_STATS_AT_EXIT set to anything but "" or "0", it is written at normal exit to
 * standard error. */
void quorla_malloc_stats(void) QUORLA_NOEXCEPT;
/* Misuse reports: one line on standard error each; the program goes on. */
void quorla_free_fail(void* ptr, unsigned int error_number) QUORLA_NOEXCEPT;
void quorla_aligned_alloc_fail(size_t alignment, size_t size) QUORLA_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif /* QUORLAMALLOC_H */
