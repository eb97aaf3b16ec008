// The Castagnoli CRC on both of its paths (the crc32 instruction and the byte table) against
// a bit-by-bit reference written here, and the hash functors built on it.
//
// The library's CRC starts from 0 and has no final complement, so the published check value
// of "123456789" (0xE3069283, start ~0 and final complement) is not what it returns; the
// reference below is first checked against that published value in its published form, and
// then used in the library's form (0x58E3FA20 for the same digits).
#include "foundation/quorla_crc32c.h"

#include <gtest/gtest.h>

#include <cpuid.h>
#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include "foundation/quorla_hash.h"

namespace quorla {
namespace {

// Reflected CRC-32C, one bit at a time: polynomial 0x82F63B78 (0x1EDC6F41 bit-reversed).
uint32_t reference_crc(const void* data, size_t length, uint32_t crc = 0, uint32_t final_xor = 0) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  for (size_t i = 0; i < length; ++i) {
    crc ^= bytes[i];
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ ((crc & 1u) ? 0x82F63B78u : 0u);
  }
  return crc ^ final_xor;
}

template <class T>
uint32_t reference_of_value(T value) {
  return reference_crc(&value, sizeof(value));
}

uint64_t reference_crc64(const void* data, size_t length) {
  uint32_t crc = reference_crc(data, length);
  return static_cast<uint64_t>(crc) | (static_cast<uint64_t>(static_cast<uint32_t>(length + crc)) << 32);
}

bool cpu_has_sse4_2() { return __builtin_cpu_supports("sse4.2") != 0; }

// Selects a path of the value functions for one test and puts the start-up choice back.
class Path_choice {
 public:
  explicit Path_choice(bool sse) : d_bool_saved(Crc32c::d_bool_has_sse4_2) { Crc32c::d_bool_has_sse4_2 = sse; }
  ~Path_choice() { Crc32c::d_bool_has_sse4_2 = d_bool_saved; }

 private:
  bool d_bool_saved;
};

class Crc32cTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::random_device device;
    d_seed = device();
    std::mt19937 random(d_seed);
    // 8-byte aligned storage with room for a start offset of up to 7.
    d_buffer.resize(4096 / 8 + 2);
    for (uint64_t& word : d_buffer) word = (static_cast<uint64_t>(random()) << 32) | random();
  }
  const unsigned char* at(size_t offset) const { return reinterpret_cast<const unsigned char*>(d_buffer.data()) + offset; }

  unsigned int d_seed = 0;
  std::vector<uint64_t> d_buffer;
};

TEST(Crc32cReference, PublishedCheckValueAndTheLibrarysForm) {
  const char digits[] = "123456789";
  // The reference is the standard CRC-32C when given the standard start and final complement.
  EXPECT_EQ(reference_crc(digits, 9, 0xFFFFFFFFu, 0xFFFFFFFFu), 0xE3069283u);
  // With start 0 and no complement the same digits give another value.
  EXPECT_EQ(reference_crc(digits, 9), 0x58E3FA20u);
  EXPECT_EQ(reference_crc(digits, 0), 0u);
}

TEST_F(Crc32cTest, KnownValuesOnBothPaths) {
  if (!cpu_has_sse4_2()) GTEST_SKIP() << "the processor has no SSE4.2; the instruction path cannot run";
  alignas(8) const char digits[16] = "123456789";
  EXPECT_EQ(Crc32c::intel_crc32c_run(digits, 9), 0x58E3FA20u);
  EXPECT_EQ(g_crc32c.boost_crc32c_run(digits, 9), 0x58E3FA20u);
  EXPECT_NE(Crc32c::intel_crc32c_run(digits, 9), 0xE3069283u);
  // Empty buffers: 0 on both paths, 32 and 64 bits.
  EXPECT_EQ(Crc32c::intel_crc32c_run(digits, 0), 0u);
  EXPECT_EQ(g_crc32c.boost_crc32c_run(digits, 0), 0u);
  EXPECT_EQ(Crc32c::intel_crc64c_run(digits, 0), 0u);
  EXPECT_EQ(g_crc32c.boost_crc64c_run(digits, 0), 0u);
  // Start 0 without complement: zero bytes leave the remainder at 0, whatever their number.
  alignas(8) const unsigned char zeros[32] = {};
  EXPECT_EQ(Crc32c::intel_crc32c_run(zeros, 32), 0u);
  EXPECT_EQ(g_crc32c.boost_crc32c_run(zeros, 32), 0u);
  EXPECT_EQ(Crc32c::intel_crc64c_run(zeros, 32), 32ul << 32) << "the high half still counts the length";
}

TEST_F(Crc32cTest, BothPathsMatchTheReferenceForEveryLengthAndStartOffset) {
  if (!cpu_has_sse4_2()) GTEST_SKIP() << "the processor has no SSE4.2; the instruction path cannot run";
  SCOPED_TRACE("seed " + std::to_string(d_seed));
  for (size_t offset = 0; offset < 8; ++offset) {
    // An unaligned start feeds 8 - offset bytes before the first word without checking the
    // length, so unaligned buffers are only given lengths that cover that prefix.
    size_t min_length = offset == 0 ? 0 : 8 - offset;
    const unsigned char* data = at(offset);
    uint32_t expected = reference_crc(data, min_length);
    for (size_t length = min_length; length <= 4096; ++length) {
      if (length > min_length) expected = reference_crc(data + length - 1, 1, expected);  // one byte more
      ASSERT_EQ(Crc32c::intel_crc32c_run(data, length), expected) << "offset " << offset << " length " << length;
      ASSERT_EQ(g_crc32c.boost_crc32c_run(data, length), expected) << "offset " << offset << " length " << length;
      const uint64_t expected64 = expected | (static_cast<uint64_t>(static_cast<uint32_t>(length + expected)) << 32);
      ASSERT_EQ(Crc32c::intel_crc64c_run(data, length), expected64) << "offset " << offset << " length " << length;
      ASSERT_EQ(g_crc32c.boost_crc64c_run(data, length), expected64) << "offset " << offset << " length " << length;
    }
  }
}

// The four bytes that, fed after a remainder, bring it to the target: feeding a 32-bit word
// is 32 zero-bit steps from (remainder ^ word), and each step is invertible.
uint32_t forge_word(uint32_t remainder, uint32_t target) {
  uint32_t state = target;
  for (int bit = 0; bit < 32; ++bit) state = (state & 0x80000000u) ? ((state ^ 0x82F63B78u) << 1) | 1u : state << 1;
  return state ^ remainder;
}

TEST_F(Crc32cTest, TheHigh64BitHalfWrapsLengthPlusCrcTo32Bits) {
  SCOPED_TRACE("seed " + std::to_string(d_seed));
  std::mt19937 random(d_seed);
  // 60 random bytes, then 4 chosen so that the CRC of all 64 is 0xFFFFFFF0.
  alignas(8) unsigned char bytes[64];
  for (unsigned char& byte : bytes) byte = static_cast<unsigned char>(random());
  uint32_t word = forge_word(reference_crc(bytes, 60), 0xFFFFFFF0u);
  std::memcpy(bytes + 60, &word, 4);
  ASSERT_EQ(reference_crc(bytes, 64), 0xFFFFFFF0u);
  // length + crc = 0x100000030, of which the high half keeps 0x30.
  const uint64_t expected = 0x00000030FFFFFFF0ul;
  EXPECT_EQ(g_crc32c.boost_crc64c_run(bytes, sizeof(bytes)), expected);
  if (cpu_has_sse4_2()) {
    EXPECT_EQ(Crc32c::intel_crc64c_run(bytes, sizeof(bytes)), expected);
  }
}

TEST_F(Crc32cTest, InstructionPiecesFeedBytesInMemoryOrder) {
  if (!cpu_has_sse4_2()) GTEST_SKIP() << "the processor has no SSE4.2; the instruction path cannot run";
  SCOPED_TRACE("seed " + std::to_string(d_seed));
  std::mt19937 random(d_seed);
  for (int round = 0; round < 200; ++round) {
    uint32_t start = random();
    uint64_t word = (static_cast<uint64_t>(random()) << 32) | random();
    // Each _one function continues from a given remainder, as the bytes of its value in memory.
    auto as_bytes = [&](const void* value, size_t size) { return reference_crc(value, size, start); };
    char c = static_cast<char>(word);
    unsigned short s = static_cast<unsigned short>(word);
    unsigned int i = static_cast<unsigned int>(word);
    EXPECT_EQ(intel_crc32c_8bit_run_one(c, start), as_bytes(&c, 1));
    EXPECT_EQ(intel_crc32c_16bit_run_one(s, start), as_bytes(&s, 2));
    EXPECT_EQ(intel_crc32c_32bit_run_one(i, start), as_bytes(&i, 4));
    EXPECT_EQ(intel_crc32c_64bit_run_one(word, start), as_bytes(&word, 8));
  }
  // The _run functions over arrays of each width.
  const unsigned char* data = at(0);
  for (unsigned long count = 0; count <= 64; ++count) {
    uint32_t start = random();
    EXPECT_EQ(intel_crc32c_8bit_run(reinterpret_cast<const char*>(data), count, start), reference_crc(data, count, start));
    EXPECT_EQ(intel_crc32c_16bit_run(reinterpret_cast<const unsigned short*>(data), count, start),
              reference_crc(data, count * 2, start));
    EXPECT_EQ(intel_crc32c_32bit_run(reinterpret_cast<const unsigned int*>(data), count, start),
              reference_crc(data, count * 4, start));
    EXPECT_EQ(intel_crc32c_64bit_run(reinterpret_cast<const unsigned long long*>(data), count, start),
              reference_crc(data, count * 8, start));
  }
  // Prefix (smallest pieces first) and postfix (largest first) of 0 to 7 bytes both equal
  // byte-by-byte feeding, from any remainder and any position.
  for (unsigned long offset = 0; offset < 8; ++offset) {
    for (unsigned long count = 0; count < 8; ++count) {
      uint32_t start = random();
      uint32_t expected = reference_crc(at(offset), count, start);
      EXPECT_EQ(intel_crc32c_align_prefix(at(offset), count, start), expected) << offset << " " << count;
      EXPECT_EQ(intel_crc32c_align_postfix(at(offset), count, start), expected) << offset << " " << count;
    }
  }
}

TEST_F(Crc32cTest, ValueFunctionsGiveTheSameResultOnEitherPath) {
  SCOPED_TRACE("seed " + std::to_string(d_seed));
  std::mt19937 random(d_seed);
  std::vector<bool> paths{false};
  if (cpu_has_sse4_2()) paths.push_back(true);
  for (bool sse : paths) {
    Path_choice choice(sse);
    SCOPED_TRACE(sse ? "instruction path" : "table path");
    for (int round = 0; round < 100; ++round) {
      uint64_t word = (static_cast<uint64_t>(random()) << 32) | random();
      char c = static_cast<char>(word);
      unsigned char uc = static_cast<unsigned char>(word >> 8);
      unsigned short us = static_cast<unsigned short>(word);
      unsigned int ui = static_cast<unsigned int>(word);
      unsigned long ul = word;
      size_t st = static_cast<size_t>(word);
      EXPECT_EQ(g_crc32c.value32_char(c), reference_of_value(c));
      EXPECT_EQ(g_crc32c.value32_uchar(uc), reference_of_value(uc));
      EXPECT_EQ(g_crc32c.value32_ushort(us), reference_of_value(us));
      EXPECT_EQ(g_crc32c.value32_uint(ui), reference_of_value(ui));
      EXPECT_EQ(g_crc32c.value32_ulong(ul), reference_of_value(ul));
      EXPECT_EQ(g_crc32c.value32_size_t(st), reference_of_value(st));
      EXPECT_EQ(g_crc32c.value64_char(c), reference_crc64(&c, 1));
      EXPECT_EQ(g_crc32c.value64_ushort(us), reference_crc64(&us, 2));
      EXPECT_EQ(g_crc32c.value64_uint(ui), reference_crc64(&ui, 4));
      EXPECT_EQ(g_crc32c.value64_ulong(ul), reference_crc64(&ul, 8));
      EXPECT_EQ(g_crc32c.value64_size_t(st), reference_crc64(&st, 8));
    }
    for (size_t length : {0ul, 1ul, 7ul, 8ul, 11ul, 100ul, 4096ul}) {
      EXPECT_EQ(g_crc32c.value32(at(0), length), reference_crc(at(0), length)) << length;
      EXPECT_EQ(g_crc32c.value64(at(0), length), reference_crc64(at(0), length)) << length;
    }
    alignas(8) const char digits[16] = "123456789";
    EXPECT_EQ(g_crc32c.value32(digits, 9), 0x58E3FA20u);
    // A 64-bit key's CRC, computed independently from its little-endian bytes.
    EXPECT_EQ(g_crc32c.value32_ulong(0x0123456789ABCDEFul), 0xE9986AA9u);
    EXPECT_EQ(hash_crc32c<unsigned long>()(0x0123456789ABCDEFul), 0xE9986AA9u);
  }
}

TEST(Crc32cStartup, ProbeAgreesWithTheProcessorAndStartupRecordedIt) {
  unsigned int eax = 0, ebx = 0, ecx = 0, edx = 0;
  bool expected = false;
  if (__get_cpuid(1, &eax, &ebx, &ecx, &edx)) expected = (ecx & bit_SSE4_2) != 0;
  EXPECT_EQ(Crc32c::is_cpu_support_sse4_2(), expected);
  EXPECT_EQ(Crc32c::is_cpu_support_sse4_2(), cpu_has_sse4_2());
  EXPECT_EQ(Crc32c::d_bool_has_sse4_2, expected) << "start-up sets the flag from the probe";
}

TEST(Crc32cObject, LayoutAndAFreshObjectOfItsOwn) {
  static_assert(offsetof(Crc32c, ar_mutex) < offsetof(Crc32c, ar_uint_crc), "mutexes come first");
  Crc32c own;
  for (unsigned int i = 0; i < 8; ++i) {
    EXPECT_EQ(own.ar_uint_crc[i], 0u);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(&own.ar_mutex[i]) % 128, 0u) << "each lock on its own line";
    if (i > 0) {
      EXPECT_GE(reinterpret_cast<uintptr_t>(&own.ar_mutex[i]) - reinterpret_cast<uintptr_t>(&own.ar_mutex[i - 1]), 128u);
    }
  }
  alignas(8) const char digits[16] = "123456789";
  EXPECT_EQ(own.boost_crc32c_run(digits, 9), 0x58E3FA20u);
  for (const mutex& lock : own.ar_mutex) EXPECT_FALSE(lock.is_lock()) << "the table path gives its lock back";
}

TEST_F(Crc32cTest, TablePathIsRightUnderConcurrentCallers) {
  // Callers on the same CPU slot share a remainder; the lock keeps each run whole.
  SCOPED_TRACE("seed " + std::to_string(d_seed));
  const unsigned int threads = 4;
  std::vector<uint32_t> expected(512);
  for (size_t length = 0; length < expected.size(); ++length) expected[length] = reference_crc(at(0), length);
  std::vector<int> failures(threads, 0);
  std::vector<std::thread> workers;
  for (unsigned int t = 0; t < threads; ++t) {
    workers.emplace_back([&, t] {
      for (int round = 0; round < 20; ++round) {
        for (size_t length = 0; length < expected.size(); ++length) {
          if (g_crc32c.boost_crc32c_run(at(0), length) != expected[length]) ++failures[t];
        }
      }
    });
  }
  for (std::thread& worker : workers) worker.join();
  for (unsigned int t = 0; t < threads; ++t) EXPECT_EQ(failures[t], 0) << "thread " << t;
}

TEST(HashFunctors, NarrowTypesExtendByTheirSign) {
  EXPECT_EQ(hash<bool>()(true), 1u);
  EXPECT_EQ(hash<unsigned char>()(0xFF), 0xFFu);
  EXPECT_EQ(hash<char16_t>()(u'\xFFFF'), 0xFFFFu);
  EXPECT_EQ(hash<char32_t>()(static_cast<char32_t>(0xFFFFFFFFu)), 0xFFFFFFFFu);
  EXPECT_EQ(hash<unsigned short>()(0xFFFF), 0xFFFFu);
  EXPECT_EQ(hash<unsigned int>()(0xFFFFFFFFu), 0xFFFFFFFFu);
  EXPECT_EQ(hash<char>()(static_cast<char>(-1)), ~size_t{0}) << "char is signed on this target";
  EXPECT_EQ(hash<signed char>()(-2), ~size_t{0} - 1);
  EXPECT_EQ(hash<short>()(-1), ~size_t{0});
  EXPECT_EQ(hash<int>()(-1), ~size_t{0});
  EXPECT_EQ(hash<int>()(12345), 12345u);
  EXPECT_EQ(hash<wchar_t>()(static_cast<wchar_t>(-1)), ~size_t{0});
}

TEST(HashFunctors, WideTypesMixTheirLowWordDown) {
  // v + ((uint32)v >> 3)
  EXPECT_EQ(hash<unsigned long>()(0x123456789ul), 0x127AE147Aul);
  EXPECT_EQ(hash<unsigned long>()(~0ul), 0x1FFFFFFEul) << "wraps in 64 bits";
  EXPECT_EQ(hash<long>()(-8), 0x1FFFFFF7ul);
  EXPECT_EQ(hash<unsigned long>()(0), 0u);
  // v + (v >> 32) + ((uint32)v >> 3), shifts unsigned
  EXPECT_EQ(hash<unsigned long long>()(0x500000010ull), 0x500000017ul);
  EXPECT_EQ(hash<long long>()(-1), 0x11FFFFFFDul);
  // float: truncated to a 64-bit integer, low 32 bits kept
  EXPECT_EQ(hash<float>()(3.9f), 3u);
  EXPECT_EQ(hash<float>()(-1.5f), 0xFFFFFFFFu);
  EXPECT_EQ(hash<float>()(5e9f), 705032704u);
  // double: truncated to unsigned 64 bits, then as unsigned long long
  EXPECT_EQ(hash<double>()(4294967297.7), 0x100000002ul);
  EXPECT_EQ(hash<double>()(40.0), 45u);
}

TEST(HashFunctors, ThreadIdsAndLargeBlockAddressesSpreadOverHomes) {
  EXPECT_EQ(Hash_thread_id()(0x7F1234567700ul), 0x7F1A2579BC67ul);
  EXPECT_EQ(Hash_thread_id()(0xFFFul), 0xFFFul);
  // Control blocks one page apart, with equal low 12 bits: their page numbers reach the low
  // bits, so 256 of them take 256 different homes of a 256-bucket table (identity: one home).
  const unsigned long base = 0x7F00AB3C0700ul;
  std::vector<bool> home_taken(256, false);
  for (unsigned long k = 0; k < 256; ++k) {
    unsigned long home = Hash_thread_id()(base + k * 4096) & 255;
    EXPECT_FALSE(home_taken[home]) << "page " << k;
    home_taken[home] = true;
  }
  // Ids of real threads of this process hash the same way.
  unsigned long self = static_cast<unsigned long>(pthread_self());
  EXPECT_EQ(Hash_thread_id()(self), self + (self >> 12));

  // 2 MB aligned addresses: the identity puts all 256 in one home of 256; the CRC, being
  // linear in the address bits, spreads them over several dozen.
  for (bool sse : {false, true}) {
    if (sse && !cpu_has_sse4_2()) continue;
    Path_choice choice(sse);
    std::vector<bool> taken(256, false);
    unsigned int distinct = 0;
    for (unsigned long k = 1; k <= 256; ++k) {
      unsigned long address = 0x7F0000000000ul + k * (2ul << 20);
      size_t value = hash_crc32c<unsigned long>()(address);
      EXPECT_EQ(value, reference_of_value(address));
      if (!taken[value & 255]) ++distinct;
      taken[value & 255] = true;
    }
    EXPECT_GE(distinct, 32u) << (sse ? "instruction path" : "table path");
  }
}

}  // namespace
}  // namespace quorla
