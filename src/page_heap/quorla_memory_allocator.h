// Allocator policies: every container and pool of the library is a template over
// Memory_allocator<M, R, F>, a stateless bundle of three function objects, and each
// instantiation names the one layer below it from which its memory comes. That choice is
// what stops recursion and fixes the lock order: a layer only ever calls lower ones.
//
//   M: void* operator()(unsigned long& size)            may raise size; the caller keeps it
//   R: void* operator()(void* ptr, unsigned long old_size, unsigned long& new_size)
//   F: void  operator()(void* ptr, unsigned long size)   size as the caller holds it
//
// The three lowest triples live here: default (the exported malloc family, for code above
// the allocator only), os_mmap_page (whole pages from the mapping layer) and before_init
// (the start-up heap, home of the root pool's records for the whole life of the process).
#pragma once

#include "foundation/quorla_layer_check.h"

#include <cstdlib>
#include <cstring>

#include "os_memory/quorla_os_mmap.h"
#include "os_memory/quorla_region.h"
#include "startup/quorla_before_init.h"

namespace quorla {

template <class M, class R, class F>
struct Memory_allocator {
  void* malloc(unsigned long& size) const { return M()(size); }
  void* realloc(void* ptr, unsigned long old_size, unsigned long& new_size) const { return R()(ptr, old_size, new_size); }
  void free(void* ptr, unsigned long size) const { F()(ptr, size); }
};

struct Malloc_default {
  void* operator()(unsigned long& size) const { return ::malloc(size); }
};
struct Realloc_default {
  void* operator()(void* ptr, unsigned long, unsigned long& new_size) const { return ::realloc(ptr, new_size); }
};
struct Free_default {
  void operator()(void* ptr, unsigned long) const { ::free(ptr); }
};
using Memory_allocator_default = Memory_allocator<Malloc_default, Realloc_default, Free_default>;

struct Malloc_os_mmap_page {
  void* operator()(unsigned long& size) const {
    QUORLA_LAYER(0);
    return os_malloc_mmap_page(size);
  }
};
struct Realloc_os_mmap_page {
  void* operator()(void* ptr, unsigned long old_size, unsigned long& new_size) const {
    QUORLA_LAYER(0);
    return os_realloc_mmap_page(ptr, old_size, new_size);
  }
};
struct Free_os_mmap_page {
  void operator()(void* ptr, unsigned long size) const {
    QUORLA_LAYER(0);
    g_mutex_mmap.lock();
    os_free_unmap_without_lock(ptr, round_up_page(size));
    g_mutex_mmap.unlock();
  }
};
using Memory_allocator_os_mmap_page = Memory_allocator<Malloc_os_mmap_page, Realloc_os_mmap_page, Free_os_mmap_page>;

struct Malloc_before_init {
  void* operator()(unsigned long& size) const {
    QUORLA_LAYER(1);
    return quorla_malloc_before_init(static_cast<unsigned int>(size));
  }
};
struct Realloc_before_init {
  // A new block of new_size (cut to 32 bits), a copy by the full sizes, the old block freed.
  void* operator()(void* ptr, unsigned long old_size, unsigned long& new_size) const {
    QUORLA_LAYER(1);
    void* block = quorla_malloc_before_init(static_cast<unsigned int>(new_size));
    memcpy(block, ptr, old_size < new_size ? old_size : new_size);
    quorla_free_before_init(ptr);
    return block;
  }
};
struct Free_before_init {
  void operator()(void* ptr, unsigned long) const {
    QUORLA_LAYER(1);
    quorla_free_before_init(ptr);
  }
};
using Memory_allocator_before_init = Memory_allocator<Malloc_before_init, Realloc_before_init, Free_before_init>;

}  // namespace quorla
