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

void* quorla_malloc(size_t size) QUORLA_NOEXCEPT;
void quorla_free(void* ptr) QUORLA_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif /* QUORLAMALLOC_H */
