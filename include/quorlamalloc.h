/* libquorlamalloc: the allocator's own entry points under quorla_ names.
 * Loaded by LD_PRELOAD or by linking, the library also takes over the standard names
 * (malloc, free, ...); these twins call it without interposition. */
#ifndef QUORLAMALLOC_H
#define QUORLAMALLOC_H

#include <stddef.h>

#ifdef __cplusplus
#include <new>
#endif

/* The mallopt parameters of this allocator. Any other number (the standard M_ numbers of
 * other allocators included) changes nothing and makes mallopt return 0. */
#define QUORLA_MALLOPT_MICROSECONDS_THREAD_BACKGROUND_SLEEP 10000      /* below 50 becomes 50 */
#define QUORLA_MALLOPT_WAIT_MICROSECONDS_BETWEEN_RELEASE_2M 10001
#define QUORLA_MALLOPT_ENABLE_THREAD_BACKGROUND_CLEAR_CPU_CACHE 10002  /* boolean */
#define QUORLA_MALLOPT_ENABLE_HUGEPAGE2M 10003                         /* boolean */
#define QUORLA_MALLOPT_SIZE_USE_THREAD_BACKGROUND_THRESHOLD 10004      /* sign-extended to 64 bits */
#define QUORLA_MALLOPT_ENABLE_THREAD_BACKGROUND 10005                  /* boolean */
#define QUORLA_MALLOPT_ENABLE_AUTO_BIND_CPU 10006                      /* boolean */
#define QUORLA_MALLOPT_ENABLE_NUMA_MEMORY_BIND 10007                   /* boolean */
#define QUORLA_MALLOPT_VT_THREAD_LOCAL_WAIT_REUSE_LIMIT_SIZE 10008
#define QUORLA_MALLOPT_ENABLE_PAGE_PREFAULT 10009                      /* boolean */
#define QUORLA_MALLOPT_ENABLE_THREAD_BACKGROUND_PAGE_PREFAULT 10010    /* boolean */
#define QUORLA_MALLOPT_FORCE_ENABLE_HUGEPAGE2M 10011                   /* value ignored */
#define QUORLA_MALLOPT_FORCE_ENABLE_THREAD_BACKGROUND 10012            /* value ignored */
#define QUORLA_MALLOPT_THREAD_BACKGROUND_DIV_NUMBER_CALC_PREPARE_2M 10013 /* below 2 becomes 2 */
#define QUORLA_MALLOPT_THREAD_BACKGROUND_NEED_PREPARE_2M_COUNT_LIMT 10014
#define QUORLA_MALLOPT_MICROSECONDS_THREAD_BACKGROUND_FORCE_RELEASE_ONE_2M 10015
#define QUORLA_MALLOPT_AUTO_BIND_PHY_CPU_COUNT 10016                   /* 1 or 2, else 2 */
#define QUORLA_MALLOPT_MAX_WAIT_MILLISECONDS_BEFORE_CLEAR_CPU_CACHE 10017

#ifdef __cplusplus
extern "C" {
#define QUORLA_NOEXCEPT noexcept
#define QUORLA_NOTHROW_T const std::nothrow_t&
#define QUORLA_ALIGN_VAL_T std::align_val_t
#else
#define QUORLA_NOEXCEPT
#define QUORLA_NOTHROW_T const void*
#define QUORLA_ALIGN_VAL_T size_t
#endif

/* malloc and free: the same functions as the standard names. */
void* quorla_malloc(size_t size) QUORLA_NOEXCEPT;
void quorla_free(void* ptr) QUORLA_NOEXCEPT;
void quorla_cfree(void* ptr) QUORLA_NOEXCEPT;
/* The alignment is ignored: a block is found from its address. */
void quorla_free_align(void* ptr, size_t alignment) QUORLA_NOEXCEPT;

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

/* The operators' library names: new never throws and returns null only where malloc
 * would; every size and alignment given to a delete is ignored. In C the nothrow tag is a
 * pointer (any) and an alignment a size_t. */
void* quorla_new(size_t size) QUORLA_NOEXCEPT;
void* quorla_new_array(size_t size) QUORLA_NOEXCEPT;
void* quorla_new_nothrow(size_t size, QUORLA_NOTHROW_T) QUORLA_NOEXCEPT;
void* quorla_new_array_nothrow(size_t size, QUORLA_NOTHROW_T) QUORLA_NOEXCEPT;
void* quorla_new_align(size_t size, QUORLA_ALIGN_VAL_T alignment) QUORLA_NOEXCEPT;
void* quorla_new_array_align(size_t size, QUORLA_ALIGN_VAL_T alignment) QUORLA_NOEXCEPT;
void* quorla_new_align_nothrow(size_t size, QUORLA_ALIGN_VAL_T alignment, QUORLA_NOTHROW_T) QUORLA_NOEXCEPT;
void* quorla_new_array_align_nothrow(size_t size, QUORLA_ALIGN_VAL_T alignment, QUORLA_NOTHROW_T) QUORLA_NOEXCEPT;
void quorla_delete(void* ptr) QUORLA_NOEXCEPT;
void quorla_delete_array(void* ptr) QUORLA_NOEXCEPT;
void quorla_delete_with_size(void* ptr, size_t size) QUORLA_NOEXCEPT;
void quorla_delete_array_with_size(void* ptr, size_t size) QUORLA_NOEXCEPT;
void quorla_delete_nothrow(void* ptr, QUORLA_NOTHROW_T) QUORLA_NOEXCEPT;
void quorla_delete_array_nothrow(void* ptr, QUORLA_NOTHROW_T) QUORLA_NOEXCEPT;
void quorla_delete_align(void* ptr, QUORLA_ALIGN_VAL_T alignment) QUORLA_NOEXCEPT;
void quorla_delete_array_align(void* ptr, QUORLA_ALIGN_VAL_T alignment) QUORLA_NOEXCEPT;
void quorla_delete_align_nothrow(void* ptr, QUORLA_ALIGN_VAL_T alignment, QUORLA_NOTHROW_T) QUORLA_NOEXCEPT;
void quorla_delete_array_align_nothrow(void* ptr, QUORLA_ALIGN_VAL_T alignment, QUORLA_NOTHROW_T) QUORLA_NOEXCEPT;
void quorla_delete_with_size_align(void* ptr, size_t size, QUORLA_ALIGN_VAL_T alignment) QUORLA_NOEXCEPT;
void quorla_delete_array_with_size_align(void* ptr, size_t size, QUORLA_ALIGN_VAL_T alignment) QUORLA_NOEXCEPT;

/* The forwarders that the hook words __malloc_hook, __free_hook, __realloc_hook and
 * __memalign_hook hold; the caller argument is ignored. */
void* quorla_malloc_with_caller(size_t size, const void* caller) QUORLA_NOEXCEPT;
void quorla_free_with_caller(void* ptr, const void* caller) QUORLA_NOEXCEPT;
void* quorla_realloc_with_caller(void* ptr, size_t size, const void* caller) QUORLA_NOEXCEPT;
void* quorla_memalign_with_caller(size_t alignment, size_t size, const void* caller) QUORLA_NOEXCEPT;

/* Control: mallopt takes the QUORLA_MALLOPT_ numbers above and returns 1, or 0 for any
 * other; malloc_trim gives back what the calling thread's heap and the shared pools hold
 * free and asks for the region cache to be emptied, and returns 0; malloc_version writes
 * the version lines to standard output. */
int quorla_mallopt(int param, int value) QUORLA_NOEXCEPT;
int quorla_malloc_trim(size_t pad) QUORLA_NOEXCEPT;
void quorla_malloc_version(void) QUORLA_NOEXCEPT;

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
