#include "foundation/quorla_crc32c.h"

#include <cpuid.h>
#include <sched.h>

#include <boost/crc.hpp>


namespace quorla {

bool Crc32c::d_bool_has_sse4_2 = false;
// g_crc32c is defined by start-up, in the library's load order.

namespace {

using Crc32c_table = boost::detail::crc_table_t<32, 8, 0x1EDC6F41, true>;

// The crc32 instruction, compiled for SSE4.2 only here and reached only when the processor
// has it.
#define QUORLA_SSE42 __attribute__((target("sse4.2")))

QUORLA_SSE42 inline unsigned int crc_u8(unsigned int crc, unsigned char value) { return __builtin_ia32_crc32qi(crc, value); }
QUORLA_SSE42 inline unsigned int crc_u16(unsigned int crc, unsigned short value) { return __builtin_ia32_crc32hi(crc, value); }
QUORLA_SSE42 inline unsigned int crc_u32(unsigned int crc, unsigned int value) { return __builtin_ia32_crc32si(crc, value); }
QUORLA_SSE42 inline unsigned int crc_u64(unsigned int crc, unsigned long long value) {
  return static_cast<unsigned int>(__builtin_ia32_crc32di(crc, value));
}

template <typename T>
inline T load(const unsigned char* data) {
  T value;
  __builtin_memcpy(&value, data, sizeof(T));
  return value;
}

}  // namespace

QUORLA_SSE42 unsigned int intel_crc32c_8bit_run_one(char value, unsigned int crc) {
  return crc_u8(crc, static_cast<unsigned char>(value));
}
QUORLA_SSE42 unsigned int intel_crc32c_16bit_run_one(unsigned short value, unsigned int crc) { return crc_u16(crc, value); }
QUORLA_SSE42 unsigned int intel_crc32c_32bit_run_one(unsigned int value, unsigned int crc) { return crc_u32(crc, value); }
QUORLA_SSE42 unsigned int intel_crc32c_64bit_run_one(unsigned long long value, unsigned int crc) { return crc_u64(crc, value); }

QUORLA_SSE42 unsigned int intel_crc32c_8bit_run(const char* data, unsigned long count, unsigned int crc) {
  for (unsigned long i = 0; i < count; ++i) crc = crc_u8(crc, static_cast<unsigned char>(data[i]));
  return crc;
}
QUORLA_SSE42 unsigned int intel_crc32c_16bit_run(const unsigned short* data, unsigned long count, unsigned int crc) {
  for (unsigned long i = 0; i < count; ++i) crc = crc_u16(crc, data[i]);
  return crc;
}
QUORLA_SSE42 unsigned int intel_crc32c_32bit_run(const unsigned int* data, unsigned long count, unsigned int crc) {
  for (unsigned long i = 0; i < count; ++i) crc = crc_u32(crc, data[i]);
  return crc;
}
QUORLA_SSE42 unsigned int intel_crc32c_64bit_run(const unsigned long long* data, unsigned long count, unsigned int crc) {
  for (unsigned long i = 0; i < count; ++i) crc = crc_u64(crc, data[i]);
  return crc;
}

QUORLA_SSE42 unsigned int intel_crc32c_align_prefix(const void* data, unsigned long count, unsigned int crc) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  if (count & 1) crc = crc_u8(crc, *bytes++);
  if (count & 2) {
    crc = crc_u16(crc, load<unsigned short>(bytes));
    bytes += 2;
  }
  if (count & 4) crc = crc_u32(crc, load<unsigned int>(bytes));
  return crc;
}

QUORLA_SSE42 unsigned int intel_crc32c_align_postfix(const void* data, unsigned long count, unsigned int crc) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  if (count & 4) {
    crc = crc_u32(crc, load<unsigned int>(bytes));
    bytes += 4;
  }
  if (count & 2) {
    crc = crc_u16(crc, load<unsigned short>(bytes));
    bytes += 2;
  }
  if (count & 1) crc = crc_u8(crc, *bytes);
  return crc;
}

Crc32c::Crc32c() {
  for (unsigned int& crc : ar_uint_crc) crc = 0;
  Crc32c_table::get_table();
}

bool Crc32c::is_cpu_support_sse4_2() {
  unsigned int eax = 0, ebx = 0, ecx = 0, edx = 0;
  __cpuid(0, eax, ebx, ecx, edx);
  if (eax == 0) return false;
  __cpuid(1, eax, ebx, ecx, edx);
  return (ecx & (1u << 20)) != 0;
}

QUORLA_SSE42 unsigned int Crc32c::intel_crc32c_run(const void* data, unsigned long length) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  unsigned int crc = 0;
  unsigned long misaligned = reinterpret_cast<unsigned long>(bytes) & 7;
  if (misaligned != 0) {
    // No test that length covers the prefix: every caller passes 8-byte aligned buffers.
    unsigned long prefix = 8 - misaligned;
    crc = intel_crc32c_align_prefix(bytes, prefix, crc);
    bytes += prefix;
    length -= prefix;
  }
  for (; length >= 8; length -= 8, bytes += 8) crc = crc_u64(crc, load<unsigned long long>(bytes));
  return intel_crc32c_align_postfix(bytes, length, crc);
}

unsigned long Crc32c::intel_crc64c_run(const void* data, unsigned long length) {
  unsigned int crc = intel_crc32c_run(data, length);
  return crc + (static_cast<unsigned long>(static_cast<unsigned int>(length + crc)) << 32);
}

unsigned int Crc32c::boost_crc32c_run(const void* data, unsigned long length) {
  static const Crc32c_table::array_type& table = Crc32c_table::get_table();
  unsigned int slot = static_cast<unsigned int>(sched_getcpu()) & 7;
  ar_mutex[slot].lock();
  ar_uint_crc[slot] = 0;
  const auto* bytes = static_cast<const unsigned char*>(data);
  for (unsigned long i = 0; i < length; ++i) {
    unsigned int crc = ar_uint_crc[slot];
    ar_uint_crc[slot] = (crc >> 8) ^ table[(crc & 255) ^ bytes[i]];
  }
  unsigned int result = ar_uint_crc[slot];
  ar_mutex[slot].unlock();
  return result;
}

unsigned long Crc32c::boost_crc64c_run(const void* data, unsigned long length) {
  unsigned int crc = boost_crc32c_run(data, length);
  return crc + (static_cast<unsigned long>(static_cast<unsigned int>(length + crc)) << 32);
}


}  // namespace quorla
