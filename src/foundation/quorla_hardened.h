// The hardened build's edges, for programs that take sizes and alignments from untrusted
// input. It is the same code as the default build with QUORLA_HARDENED=1, and changes only
// these answers:
//   - calloc and reallocarray test the whole product (with the extra element) for overflow
//     and answer null with ENOMEM;
//   - memalign and aligned_alloc refuse an alignment that is 0 or not a power of two (null,
//     EINVAL), posix_memalign also one that is not a multiple of a pointer's size (22);
//   - a page run of 64 pages or more at an alignment below 64 pages, a shape that the page
//     piece's aligned search never returns from, is served at 64-page alignment or, when no
//     region could hold it so, by its own mapping;
//   - a failed mapping of a large allocation answers null with ENOMEM instead of ending the
//     process.
// In the default build k_hardened is false and every test below folds away, so the default
// library's code is what it was. Callers: the entry points and the large-allocation path.
#pragma once

#include <cstddef>

#ifndef QUORLA_HARDENED
#define QUORLA_HARDENED 0
#endif

namespace quorla {

constexpr bool k_hardened = QUORLA_HARDENED != 0;

// The element count calloc and reallocarray ask for: one more than asked, 2 for 0.
// Wraps to 0 for the largest count.
inline size_t count_with_extra_element(size_t nmemb) { return nmemb == 0 ? 2 : nmemb + 1; }

// True when count * size does not fit; total is the product otherwise.
inline bool is_element_product_overflow(size_t count, size_t size, size_t& total) {
  return count == 0 || __builtin_mul_overflow(count, size, &total);
}

inline bool is_power_of_two(size_t value) { return value != 0 && (value & (value - 1)) == 0; }

// The page run's alignment in pages that the page piece's aligned search returns from: runs
// of 64 pages or more start on a word of the bitmap, so an alignment below 64 pages is raised
// to 64. Returns 0 when no region can hold the raised run (the run needs its own mapping).
inline unsigned int hardened_run_align_page(unsigned int run_page, unsigned int align_page) {
  if (run_page < 64 || align_page >= 64) return align_page;
  return run_page + 64 <= 512 ? 64 : 0;
}

}  // namespace quorla
