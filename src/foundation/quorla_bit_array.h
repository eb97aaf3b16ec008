// Bit tables and word-array masks. A set of bits is an array of 64-bit words, bit i in word
// i / 64. ar_ulong_bit[i] is 1 << i; ar_ulong_mask[n] has the n lowest bits set (entry 64:
// all ones). A run built by make_ulongs_compare starts at bit `offset` (below 64) of the
// first word and may span words; the compare/set helpers take such a run.
#pragma once

#include "foundation/quorla_base.h"

namespace quorla {

namespace bit_array_detail {
struct Bit_tables {
  unsigned long long bit[64];
  unsigned long long mask[65];
};
constexpr Bit_tables make_bit_tables() {
  Bit_tables tables{};
  for (unsigned int i = 0; i < 64; ++i) tables.bit[i] = 1ULL << i;
  for (unsigned int i = 0; i < 64; ++i) tables.mask[i] = (1ULL << i) - 1;
  tables.mask[64] = ~0ULL;
  return tables;
}
inline constexpr Bit_tables k_bit_tables = make_bit_tables();
}  // namespace bit_array_detail

inline constexpr const unsigned long long (&ar_ulong_bit)[64] = bit_array_detail::k_bit_tables.bit;
inline constexpr const unsigned long long (&ar_ulong_mask)[65] = bit_array_detail::k_bit_tables.mask;

// Masks of `count` one-bits from bit `offset` of out[0]; returns the number of words.
QUORLA_INLINE unsigned int make_ulongs_compare(unsigned int offset, unsigned int count, unsigned long long* out) {
  if (offset + count <= 64) {
    out[0] = ar_ulong_mask[count] << offset;
    return 1;
  }
  out[0] = ~0ULL << offset;
  unsigned int words = 1;
  unsigned int left = count - (64 - offset);
  while (left >= 64) {
    out[words++] = ~0ULL;
    left -= 64;
  }
  if (left != 0) out[words++] = ar_ulong_mask[left];
  return words;
}

QUORLA_INLINE unsigned int make_ulongs_compare_offset_zero(unsigned int count, unsigned long long* out) {
  return make_ulongs_compare(0, count, out);
}

// Every bit of the run b is set in a. The middle words of a must be all ones (a run is all
// ones there, so b is not read).
QUORLA_INLINE bool compare_ulongs_and_same(const unsigned long long* a, const unsigned long long* b, unsigned int n) {
  if (n == 1) return (a[0] & b[0]) == b[0];
  for (unsigned int i = 1; i + 1 < n; ++i) {
    if (a[i] != ~0ULL) return false;
  }
  return (a[0] & b[0]) == b[0] && (a[n - 1] & b[n - 1]) == b[n - 1];
}

// No bit of the run b is set in a. The middle words of a must be 0.
QUORLA_INLINE bool compare_ulongs_and_is_zero(const unsigned long long* a, const unsigned long long* b, unsigned int n) {
  if (n == 1) return (a[0] & b[0]) == 0;
  for (unsigned int i = 1; i + 1 < n; ++i) {
    if (a[i] != 0) return false;
  }
  return (a[0] & b[0]) == 0 && (a[n - 1] & b[n - 1]) == 0;
}

QUORLA_INLINE unsigned int set_ulongs_or_equal_compare(unsigned long long* a, const unsigned long long* b, unsigned int n) {
  for (unsigned int i = 0; i < n; ++i) a[i] |= b[i];
  return n;
}

QUORLA_INLINE unsigned int set_ulongs_and_equal_compare_complement(unsigned long long* a, const unsigned long long* b,
                                                                   unsigned int n) {
  for (unsigned int i = 0; i < n; ++i) a[i] &= ~b[i];
  return n;
}

}  // namespace quorla
