// Crc32c: the Castagnoli CRC with the processor's SSE4.2 instruction where there is one, and
// through Boost's reflected table otherwise. The result has initial value 0 and no final
// complement, so it is not the published CRC-32C check value.
//
// The processor path has no state. The table path takes one of eight mutexes, chosen by the
// CPU only to spread the lock, and keeps its running remainder beside that mutex.
#pragma once

#include "foundation/quorla_base.h"
#include "foundation/quorla_mutex.h"

namespace quorla {

unsigned int intel_crc32c_8bit_run_one(char value, unsigned int crc);
unsigned int intel_crc32c_16bit_run_one(unsigned short value, unsigned int crc);
unsigned int intel_crc32c_32bit_run_one(unsigned int value, unsigned int crc);
unsigned int intel_crc32c_64bit_run_one(unsigned long long value, unsigned int crc);
unsigned int intel_crc32c_8bit_run(const char* data, unsigned long count, unsigned int crc);
unsigned int intel_crc32c_16bit_run(const unsigned short* data, unsigned long count, unsigned int crc);
unsigned int intel_crc32c_32bit_run(const unsigned int* data, unsigned long count, unsigned int crc);
unsigned int intel_crc32c_64bit_run(const unsigned long long* data, unsigned long count, unsigned int crc);
// 0 to 7 bytes: the prefix feeds the smallest pieces first, the postfix the largest first.
unsigned int intel_crc32c_align_prefix(const void* data, unsigned long count, unsigned int crc);
unsigned int intel_crc32c_align_postfix(const void* data, unsigned long count, unsigned int crc);

class Crc32c {
 public:
  Crc32c();
  ~Crc32c() = default;  // the mutexes go last first
  Crc32c(const Crc32c&) = delete;
  Crc32c& operator=(const Crc32c&) = delete;

  static bool is_cpu_support_sse4_2();

  // REQUIRES: data 8-byte aligned, or length at least the distance to the next 8-byte boundary.
  static unsigned int intel_crc32c_run(const void* data, unsigned long length);
  static unsigned long intel_crc64c_run(const void* data, unsigned long length);
  unsigned int boost_crc32c_run(const void* data, unsigned long length);
  unsigned long boost_crc64c_run(const void* data, unsigned long length);

  unsigned int value32(const void* data, unsigned long length) {
    return d_bool_has_sse4_2 ? intel_crc32c_run(data, length) : boost_crc32c_run(data, length);
  }
  unsigned long value64(const void* data, unsigned long length) {
    return d_bool_has_sse4_2 ? intel_crc64c_run(data, length) : boost_crc64c_run(data, length);
  }

  unsigned int value32_char(char value) { return d_bool_has_sse4_2 ? intel_crc32c_8bit_run_one(value, 0) : boost_crc32c_run(&value, 1); }
  unsigned int value32_uchar(unsigned char value) { return value32_char(static_cast<char>(value)); }
  unsigned int value32_ushort(unsigned short value) { return d_bool_has_sse4_2 ? intel_crc32c_16bit_run_one(value, 0) : boost_crc32c_run(&value, 2); }
  unsigned int value32_uint(unsigned int value) { return d_bool_has_sse4_2 ? intel_crc32c_32bit_run_one(value, 0) : boost_crc32c_run(&value, 4); }
  unsigned int value32_ulong(unsigned long value) { return d_bool_has_sse4_2 ? intel_crc32c_64bit_run_one(value, 0) : boost_crc32c_run(&value, 8); }
  unsigned int value32_size_t(size_t value) { return value32_ulong(value); }
  // The instruction path's run reads an unaligned buffer's prefix up to the next 8-byte
  // boundary whatever the length, so each value is copied to an aligned local first.
  unsigned long value64_char(char value) { alignas(8) char bytes = value; return value64(&bytes, 1); }
  unsigned long value64_ushort(unsigned short value) { alignas(8) unsigned short bytes = value; return value64(&bytes, 2); }
  unsigned long value64_uint(unsigned int value) { alignas(8) unsigned int bytes = value; return value64(&bytes, 4); }
  unsigned long value64_ulong(unsigned long value) { alignas(8) unsigned long bytes = value; return value64(&bytes, 8); }
  unsigned long value64_size_t(size_t value) { alignas(8) size_t bytes = value; return value64(&bytes, 8); }

  // Set once at start-up, after g_crc32c is built; until then every CRC takes the table.
  static bool d_bool_has_sse4_2;

  mutex ar_mutex[8];
  unsigned int ar_uint_crc[8];
};

extern Crc32c g_crc32c;

}  // namespace quorla
