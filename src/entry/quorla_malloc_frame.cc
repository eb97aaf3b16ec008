// malloc and free: the first tests of every request, in their fixed order.
//
//   malloc(size)
//     size > 2048000 ............................ operating-system tier (not built yet)
//     magic != 710701633 ........................ before-init heap
//     (the real tiers are wired in below as they land)
//
//   free(ptr)
//     store fence
//     ptr below the before-init bump pointer ..... rewind if at or above its base, else drop
//     magic != 710701633 ........................ drop: not ready, or shut down
//     (region lookup and owner test follow with the real tiers)
//
// The public release path is silent about bad pointers.
#include "entry/quorla_malloc_frame.h"

#include "startup/quorla_before_init.h"

extern "C" {

QUORLA_EXPORT void* quorla_malloc(size_t size) noexcept {
  using namespace quorla;
  // The operating-system tier for requests above 2048000 bytes is not built yet: such a
  // request takes the next branch too (and ends in the heap's over-size abort).
  if (g_uint_memory_magic_flag_malloc_can_use != k_memory_magic_flag) {
    load_fence();
    return quorla_malloc_before_init(static_cast<unsigned int>(size));
  }
  // Nothing sets the magic until start-up's guard exists; the real tiers go here.
  return quorla_malloc_before_init(static_cast<unsigned int>(size));
}

QUORLA_EXPORT void quorla_free(void* ptr) noexcept {
  using namespace quorla;
  store_fence();
  // One test disposes of null and of everything numerically below the before-init heap.
  if (g_memory_first_init_data.is_below_next(ptr)) {
    if (g_memory_first_init_data.is_at_or_above_base(ptr)) {
      load_fence();
      quorla_free_before_init(ptr);
    }
    return;
  }
  if (g_uint_memory_magic_flag_malloc_can_use != k_memory_magic_flag) return;
}

#if QUORLA_STANDARD_NAMES
// The standard names are the same functions, not forwarders: one address, two symbols.
QUORLA_EXPORT void* malloc(size_t size) noexcept __attribute__((alias("quorla_malloc")));
QUORLA_EXPORT void free(void* ptr) noexcept __attribute__((alias("quorla_free")));
#endif

}  // extern "C"
