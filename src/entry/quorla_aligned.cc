// Aligned allocation without padding or headers: a class whose block size is a multiple of
// the alignment is aligned for free (backing blocks are page-aligned), a power-of-two class
// always is, pages are 4096-aligned by construction, and larger alignments go to the page
// group's aligned search. The pointer returned is always the start of a block, a run or a
// page block, so free and the size query need nothing to tell it apart.
//
// memalign makes no power-of-two test of its own; posix_memalign refuses a bad alignment.
// The hardened build refuses bad alignments everywhere and mends the page runs that the
// aligned search never returns from (foundation/quorla_hardened.h).
#include "quorlamalloc.h"
#include <cerrno>

#include "foundation/quorla_hardened.h"
#include "entry/quorla_malloc_frame.h"
#include "entry/quorla_size_route.h"
#include "foundation/quorla_conversion.h"
#include "foundation/quorla_stack_message.h"
#include "foundation/quorla_thread_self.h"
#include "os_memory/quorla_os_umap_ptr_size.h"
#include "os_memory/quorla_region.h"
#include "startup/quorla_before_init.h"
#include "thread_heap/quorla_thread_registry.h"

extern "C" {

QUORLA_EXPORT void quorla_aligned_alloc_fail(size_t alignment, size_t size) noexcept {
  quorla::Stack_message<1024>()
      .text("Error: quorla_aligned_alloc() fail. align too big. size_in=")
      .dec(size)
      .text(", alignment_in=")
      .dec(alignment)
      .end_line()
      .write();
}

QUORLA_EXPORT void* quorla_malloc_small_align(unsigned int alignment, unsigned int size) noexcept {
  using namespace quorla;
  Memory_thread_local_data* heap = heap_of_this_thread();
  // The only aligned path that drains the foreign frees.
  drain_foreign_frees(heap);
  unsigned int entry = ar_uchar_size_route[(size + 15) >> 4];
  Memory_bitmap_group& group = heap->ar_group[entry & 15];
  unsigned int bits = entry >> 4;
  if (alignment <= group.uint_bit_ref_byte && ((alignment - 1) & group.uint_bit_ref_byte) == 0) {
    // Every block of the class is aligned, since the backing block is page-aligned.
    return bits == 1 ? group.take_one_block() : group.malloc_bit_size(bits);
  }
  unsigned int power = get_2power_great_or_equal_to_uint(size, 32);
  if (power > k_small_route_limit_byte) return heap->page_group.take_one_page();
  entry = ar_uchar_size_route[(power + 15) >> 4];
  Memory_bitmap_group& power_group = heap->ar_group[entry & 15];
  bits = entry >> 4;
  // 32 .. 1024: one block of a power-of-two class, aligned to its own size. 2048: an
  // aligned run of two 1024-byte blocks.
  if (bits == 1) return power_group.take_one_block();
  return power_group.malloc_bit_size_alignment(bits, alignment);
}

QUORLA_EXPORT void* quorla_malloc_page_align(size_t size) noexcept {
  using namespace quorla;
  if (size > k_region_limit_byte) return quorla_os_malloc(size);
  if (g_uint_memory_magic_flag_malloc_can_use != k_memory_magic_flag) {
    // Before the allocator is ready page alignment is not honoured.
    void* block = quorla_malloc_before_init(static_cast<unsigned int>(size));
    if (block != nullptr) return block;
  }
  return heap_of_this_thread()->page_group.take_pages(page_count_of(size));
}

QUORLA_EXPORT void* quorla_malloc_4k_to_2m_align(unsigned int alignment, unsigned int size) noexcept {
  using namespace quorla;
  Memory_thread_local_data* heap = heap_of_this_thread();
  unsigned int pages = page_count_of(size);
  if (alignment > k_page_byte) {
    unsigned int align_page = page_count_of(alignment);
    if (k_hardened) {
      align_page = hardened_run_align_page(pages, align_page);
      if (align_page == 0) return quorla_os_malloc(size);
    }
    return heap->page_group.malloc_bit_size_align(pages, align_page);
  }
  return heap->page_group.take_pages(pages);
}

QUORLA_EXPORT void* quorla_aligned_alloc(size_t alignment, size_t size) noexcept {
  using namespace quorla;
  if (k_hardened && !is_power_of_two(alignment)) {
    errno = EINVAL;
    return nullptr;
  }
  size_t rounded = (size + alignment - 1) & ~(alignment - 1);
  // A rounding that wraps would make a tiny block of a huge request. (An alignment of 0
  // rounds every size to 0 and is served as malloc(0).)
  if (alignment != 0 && rounded < size) {
    errno = ENOMEM;
    return nullptr;
  }
  if (alignment > k_region_byte) quorla_aligned_alloc_fail(alignment, size);  // served as well as can be
  if (rounded > k_region_limit_byte) return quorla_os_malloc(rounded);
  if (static_cast<unsigned int>(alignment) <= 16) return quorla_malloc(rounded);
  if (g_uint_memory_magic_flag_malloc_can_use != k_memory_magic_flag) {
    void* block = quorla_malloc_before_init_align(alignment, rounded);
    if (block != nullptr) return block;
  }
  if (rounded <= k_small_route_limit_byte) {
    return quorla_malloc_small_align(static_cast<unsigned int>(alignment), static_cast<unsigned int>(rounded));
  }
  if (alignment <= k_page_byte) return quorla_malloc_page_align(rounded);
  return quorla_malloc_4k_to_2m_align(static_cast<unsigned int>(alignment), static_cast<unsigned int>(rounded));
}

QUORLA_EXPORT void* quorla_memalign(size_t alignment, size_t size) noexcept { return quorla_aligned_alloc(alignment, size); }
QUORLA_EXPORT void* quorla_malloc_align(size_t alignment, size_t size) noexcept { return quorla_aligned_alloc(alignment, size); }
QUORLA_EXPORT void* quorla_valloc(size_t size) noexcept { return quorla_malloc_page_align(size); }
QUORLA_EXPORT void* quorla_pvalloc(size_t size) noexcept { return quorla_malloc_page_align(size); }

QUORLA_EXPORT int quorla_posix_memalign(void** out, size_t alignment, size_t size) noexcept {
  // An alignment of 0 passes, and alignments below a pointer's size are not refused (the
  // hardened build refuses both).
  bool refused = (alignment & (alignment - 1)) != 0;
  if (quorla::k_hardened) refused = !quorla::is_power_of_two(alignment) || alignment % sizeof(void*) != 0;
  if (refused) {
    quorla::write_line("Error: quorla_posix_memalign() EINVAL\r\n");
    return 22;
  }
  // The answer is the result: errno stays as it was.
  int error_number = errno;
  void* block = quorla_aligned_alloc(alignment, size);
  if (block != nullptr) {
    *out = block;
    return 0;
  }
  errno = error_number;
  quorla::write_line("Error: quorla_posix_memalign() ENOMEM\r\n");
  return 12;
}

#if QUORLA_STANDARD_NAMES
QUORLA_EXPORT void* memalign(size_t alignment, size_t size) noexcept __attribute__((alias("quorla_aligned_alloc")));
QUORLA_EXPORT void* aligned_alloc(size_t alignment, size_t size) noexcept __attribute__((alias("quorla_aligned_alloc")));
QUORLA_EXPORT int posix_memalign(void** out, size_t alignment, size_t size) noexcept
    __attribute__((alias("quorla_posix_memalign")));
QUORLA_EXPORT void* valloc(size_t size) noexcept __attribute__((alias("quorla_valloc")));
QUORLA_EXPORT void* pvalloc(size_t size) noexcept __attribute__((alias("quorla_pvalloc")));
QUORLA_EXPORT void* __libc_memalign(size_t alignment, size_t size) noexcept __attribute__((alias("quorla_aligned_alloc")));
QUORLA_EXPORT void* __libc_valloc(size_t size) noexcept __attribute__((alias("quorla_valloc")));
QUORLA_EXPORT void* __libc_pvalloc(size_t size) noexcept __attribute__((alias("quorla_pvalloc")));
#endif

}  // extern "C"
