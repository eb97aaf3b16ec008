// realloc, reallocarray, calloc and the size queries: thin combinations of malloc, free and
// the size query, with no tier logic of their own.
//
// Every realloc of a live pointer allocates, copies and frees -- also when shrinking by a
// byte and for blocks of the operating-system tier. The copy length is the smaller of the
// two capacities. calloc allocates and clears (n + 1) * size bytes (2 * size for n == 0),
// and reallocarray asks realloc for the same extra element. Every null answer sets errno.
#include "quorlamalloc.h"
#include <cerrno>
#include <cstring>

#include "foundation/quorla_hardened.h"
#include "entry/quorla_malloc_frame.h"
#include "entry/quorla_resize_off.h"
#include "entry/quorla_size_route.h"
#include "foundation/quorla_stack_message.h"
#include "os_memory/quorla_os_umap_ptr_size.h"
#include "os_memory/quorla_region.h"
#include "startup/quorla_before_init.h"
#include "thread_heap/quorla_bitmap_piece.h"

extern "C" {

QUORLA_EXPORT size_t quorla_get_malloc_size(void* ptr) noexcept {
  using namespace quorla;
  if (ptr == nullptr) return 0;
  if (g_memory_first_init_data.is_below_next(ptr) && g_memory_first_init_data.is_at_or_above_base(ptr)) {
    return quorla_get_malloc_size_before_init(ptr);
  }
  // Shut down: the records this query reads may be gone.
  if (QUORLA_UNLIKELY(g_uint_memory_magic_flag_malloc_can_use != k_memory_magic_flag)) return malloc_size_while_off(ptr);
  unsigned long offset = region_offset_of(ptr);
  if (offset == 0) return quorla_os_get_malloc_size(ptr);
  load_fence();
  unsigned long slot = region_slots_of(ptr)[page_index_of_offset(offset)];
  // A slot never holds 512: this test and free's test at 511 agree.
  if (slot <= 512) return slot * k_page_byte;
  const auto* piece = reinterpret_cast<const Memory_bitmap_piece*>(slot);
  return static_cast<unsigned int>(piece->get_bit_size_from_ptr(ptr) * piece->uint_bit_ref_byte);
}

QUORLA_EXPORT size_t quorla_malloc_usable_size(void* ptr) noexcept { return quorla_get_malloc_size(ptr); }

QUORLA_EXPORT void* quorla_realloc(void* ptr, size_t size) noexcept {
  if (ptr == nullptr) return quorla_malloc(size);
  if (size == 0) {
    quorla_free(ptr);
    return nullptr;
  }
  using namespace quorla;
  if (QUORLA_UNLIKELY(g_uint_memory_magic_flag_malloc_can_use != k_memory_magic_flag) &&
      !is_before_init_block(ptr)) {
    return realloc_while_off(ptr, size);
  }
  size_t old_size = quorla_get_malloc_size(ptr);
  // Unknown to the size query: neither released nor copied.
  if (old_size == 0) return quorla_malloc(size);
  void* block = quorla_malloc(size);
  if (block == nullptr) return nullptr;
  memcpy(block, ptr, old_size < size ? old_size : size);
  quorla_free(ptr);
  return block;
}

QUORLA_EXPORT void* quorla_realloc_array(void* ptr, size_t nmemb, size_t size) noexcept {
  using namespace quorla;
  size_t count = count_with_extra_element(nmemb);
  size_t total = count * size;
  if (k_hardened && is_element_product_overflow(count, size, total)) {
    errno = ENOMEM;
    return nullptr;
  }
  return quorla_realloc(ptr, total);
}

QUORLA_EXPORT void* quorla_calloc(size_t nmemb, size_t size) noexcept {
  using namespace quorla;
  size_t count = nmemb + 1;
  size_t reported = nmemb;
  if (nmemb == 0) {
    count = 2;
    reported = 1;
  }
  size_t total = count * size;
  // The one overflow test: a product that wraps to a value not below size passes it (the
  // hardened build tests the whole product).
  if (k_hardened ? is_element_product_overflow(count, size, total) : size > total) {
    Stack_message<1024>()
        .text("Log: quorla_calloc() over size. sizet_nmemb_in=")
        .dec(reported)
        .text(", sizet_size_in=")
        .dec(size)
        .end_line()
        .write();
    errno = ENOMEM;
    return nullptr;
  }
  void* block = quorla_malloc(total);
  if (block != nullptr) memset(block, 0, total);
  return block;
}

#if QUORLA_STANDARD_NAMES
QUORLA_EXPORT void* realloc(void* ptr, size_t size) noexcept __attribute__((alias("quorla_realloc")));
QUORLA_EXPORT void* reallocarray(void* ptr, size_t nmemb, size_t size) noexcept __attribute__((alias("quorla_realloc_array")));
QUORLA_EXPORT void* calloc(size_t nmemb, size_t size) noexcept __attribute__((alias("quorla_calloc")));
QUORLA_EXPORT void* __libc_realloc(void* ptr, size_t size) noexcept __attribute__((alias("quorla_realloc")));
QUORLA_EXPORT void* __libc_calloc(size_t nmemb, size_t size) noexcept __attribute__((alias("quorla_calloc")));
QUORLA_EXPORT size_t malloc_size(void* ptr) noexcept __attribute__((alias("quorla_get_malloc_size")));
QUORLA_EXPORT size_t malloc_usable_size(void* ptr) noexcept __attribute__((alias("quorla_malloc_usable_size")));
#endif

}  // extern "C"
