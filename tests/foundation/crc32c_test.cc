// The Castagnoli CRC on both of its paths (the crc32 instruction and the byte table) against
// a bit-by-bit reference written here, and the hash functors built on it.
//
// The library's CRC starts from 0 and has no final complement, so it does not return the
// published check value of "123456789" (0xE3069283); the reference is checked against that
// value in its published form, then used in the library's form (0x58E3FA20).
#include "foundation/quorla_crc32c.h"

#include <gtest/gtest.h>

#include <cpuid.h>
#include <pthread.h>

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

// The 64-bit form: the CRC in the low half, (length + CRC) wrapped to 32 bits in the high half.
uint64_t reference_crc64(const void* data, size_t length) {
  uint32_t crc = reference_crc(data, length);
  return static_cast<uint64_t>(crc) | (static_cast<uint64_t>(static_cast<uint32_t>(length + crc)) << 32);
}

bool cpu_has_sse4_2() { return __builtin_cpu_supports("sse4.2") != 0; }

#define REQUIRE_SSE4_2() \
  if (!cpu_has_sse4_2()) GTEST_SKIP() << "the processor has no SSE4.2; the instruction path cannot run"

// Selects a path of the value functions and puts the start-up choice back.
class Path_choice {
 public:
  explicit Path_choice(bool sse) : d_bool_saved(Crc32c::d_bool_has_sse4_2) { Crc32c::d_bool_has_sse4_2 = sse; }
  ~Path_choice() { Crc32c::d_bool_has_sse4_2 = d_bool_saved; }

 private:
  bool d_bool_saved;
};

// 8-byte aligned random bytes with room for a start offset of up to 7 beyond 4096.
class Crc32cTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (uint64_t& word : d_buffer) word = (static_cast<uint64_t>(d_random()) << 32) | d_random();
  }
  const unsigned char* at(size_t offset) const { return reinterpret_cast<const unsigned char*>(d_buffer.data()) + offset; }

  unsigned int d_seed = std::random_device()();
  std::mt19937 d_random{d_seed};
  std::vector<uint64_t> d_buffer = std::vector<uint64_t>(4096 / 8 + 2);
};

TEST_F(Crc32cTest, KnownValuesOnBothPaths) {
  alignas(8) const char digits[16] = "123456789";
  EXPECT_EQ(reference_crc(digits, 9, 0xFFFFFFFFu, 0xFFFFFFFFu), 0xE3069283u);  // the published form
  EXPECT_EQ(reference_crc(digits, 9), 0x58E3FA20u);
  EXPECT_EQ(g_crc32c.boost_crc32c_run(digits, 9), 0x58E3FA20u);
  // Start 0 without complement: zero bytes leave the remainder at 0, the high half counts them.
  alignas(8) const unsigned char zeros[32] = {};
  EXPECT_EQ(g_crc32c.boost_crc64c_run(zeros, 32), 32ul << 32);
  REQUIRE_SSE4_2();
  EXPECT_EQ(Crc32c::intel_crc32c_run(digits, 9), 0x58E3FA20u);
  EXPECT_EQ(Crc32c::intel_crc64c_run(zeros, 0), 0u);
  EXPECT_EQ(Crc32c::intel_crc64c_run(zeros, 32), 32ul << 32);
}

TEST_F(Crc32cTest, BothPathsMatchTheReferenceForEveryLengthAndStartOffset) {
  REQUIRE_SSE4_2();
  SCOPED_TRACE("seed " + std::to_string(d_seed));
  for (size_t offset = 0; offset < 8; ++offset) {
    // An unaligned start feeds 8 - offset bytes before the first word without checking the
    // length, so unaligned buffers are only given lengths that cover that prefix.
    size_t min_length = offset == 0 ? 0 : 8 - offset;
    const unsigned char* data = at(offset);
    uint32_t expected = reference_crc(data, min_length);
    for (size_t length = min_length; length <= 4096; ++length) {
      if (length > min_length) expected = reference_crc(data + length - 1, 1, expected);  // one byte more
      const uint64_t expected64 = expected | (static_cast<uint64_t>(static_cast<uint32_t>(length + expected)) << 32);
      ASSERT_EQ(Crc32c::intel_crc32c_run(data, length), expected) << "offset " << offset << " length " << length;
      ASSERT_EQ(g_crc32c.boost_crc32c_run(data, length), expected) << "offset " << offset << " length " << length;
      ASSERT_EQ(Crc32c::intel_crc64c_run(data, length), expected64) << "offset " << offset << " length " << length;
      ASSERT_EQ(g_crc32c.boost_crc64c_run(data, length), expected64) << "offset " << offset << " length " << length;
    }
  }
}

TEST_F(Crc32cTest, TheHigh64BitHalfWrapsLengthPlusCrcTo32Bits) {
  // 60 random bytes, then 4 chosen so that the CRC of all 64 is 0xFFFFFFF0: feeding a word is
  // 32 zero-bit steps from (remainder ^ word), and each step is invertible.
  alignas(8) unsigned char bytes[64];
  std::memcpy(bytes, at(0), 60);
  uint32_t state = 0xFFFFFFF0u;
  for (int bit = 0; bit < 32; ++bit) state = (state & 0x80000000u) ? ((state ^ 0x82F63B78u) << 1) | 1u : state << 1;
  uint32_t word = state ^ reference_crc(bytes, 60);
  std::memcpy(bytes + 60, &word, 4);
  ASSERT_EQ(reference_crc(bytes, 64), 0xFFFFFFF0u);
  // length + crc = 0x100000030, of which the high half keeps 0x30.
  EXPECT_EQ(g_crc32c.boost_crc64c_run(bytes, sizeof(bytes)), 0x00000030FFFFFFF0ul);
  if (cpu_has_sse4_2()) {
    EXPECT_EQ(Crc32c::intel_crc64c_run(bytes, sizeof(bytes)), 0x00000030FFFFFFF0ul);
  }
}

// The array pieces continue from any remainder and feed their elements in memory order (the
// prefix and postfix pieces are covered above, through every length and offset).
TEST_F(Crc32cTest, ArrayPiecesContinueFromAnyRemainder) {
  REQUIRE_SSE4_2();
  SCOPED_TRACE("seed " + std::to_string(d_seed));
  const unsigned char* data = at(0);
  for (unsigned long count = 0; count <= 64; ++count) {
    uint32_t start = d_random();
    EXPECT_EQ(intel_crc32c_8bit_run(reinterpret_cast<const char*>(data), count, start), reference_crc(data, count, start));
    EXPECT_EQ(intel_crc32c_16bit_run(reinterpret_cast<const unsigned short*>(data), count, start),
              reference_crc(data, count * 2, start));
    EXPECT_EQ(intel_crc32c_32bit_run(reinterpret_cast<const unsigned int*>(data), count, start),
              reference_crc(data, count * 4, start));
    EXPECT_EQ(intel_crc32c_64bit_run(reinterpret_cast<const unsigned long long*>(data), count, start),
              reference_crc(data, count * 8, start));
  }
}

TEST_F(Crc32cTest, ValueFunctionsGiveTheSameResultOnEitherPath) {
  SCOPED_TRACE("seed " + std::to_string(d_seed));
  for (bool sse : {false, true}) {
    if (sse && !cpu_has_sse4_2()) continue;
    Path_choice choice(sse);
    SCOPED_TRACE(sse ? "instruction path" : "table path");
    for (uint64_t word : d_buffer) {
      char c = static_cast<char>(word);
      unsigned short us = static_cast<unsigned short>(word);
      unsigned int ui = static_cast<unsigned int>(word);
      unsigned long ul = word;
      EXPECT_EQ(g_crc32c.value32_char(c), reference_crc(&c, 1));
      EXPECT_EQ(g_crc32c.value32_ushort(us), reference_crc(&us, 2));
      EXPECT_EQ(g_crc32c.value32_uint(ui), reference_crc(&ui, 4));
      EXPECT_EQ(g_crc32c.value32_ulong(ul), reference_crc(&ul, 8));
      EXPECT_EQ(g_crc32c.value64_ulong(ul), reference_crc64(&ul, 8));
    }
    for (size_t length : {0ul, 7ul, 11ul, 4096ul}) {
      EXPECT_EQ(g_crc32c.value32(at(0), length), reference_crc(at(0), length)) << length;
      EXPECT_EQ(g_crc32c.value64(at(0), length), reference_crc64(at(0), length)) << length;
    }
    // A 64-bit key's CRC, computed independently from its little-endian bytes.
    EXPECT_EQ(hash_crc32c<unsigned long>()(0x0123456789ABCDEFul), 0xE9986AA9u);
  }
}

TEST(Crc32c, StartUpRecordedWhatTheProcessorSays) {
  unsigned int eax = 0, ebx = 0, ecx = 0, edx = 0;
  bool expected = __get_cpuid(1, &eax, &ebx, &ecx, &edx) && (ecx & bit_SSE4_2) != 0;
  EXPECT_EQ(Crc32c::is_cpu_support_sse4_2(), expected);
  EXPECT_EQ(Crc32c::d_bool_has_sse4_2, expected);
}

TEST_F(Crc32cTest, TablePathIsRightUnderConcurrentCallers) {
  // Callers on the same CPU slot share a remainder; the lock keeps each run whole. More
  // threads than CPUs and long runs, so that threads are preempted inside a run.
  const uint32_t expected = reference_crc(at(0), 4096);
  std::vector<int> failures(4, 0);
  std::vector<std::thread> workers;
  for (size_t t = 0; t < failures.size(); ++t) {
    workers.emplace_back([&, t] {
      for (int round = 0; round < 200; ++round)
        if (g_crc32c.boost_crc32c_run(at(0), 4096) != expected) ++failures[t];
    });
  }
  for (std::thread& worker : workers) worker.join();
  EXPECT_EQ(failures, std::vector<int>(4, 0));
}

TEST(HashFunctors, SignExtensionWrapAndSpreadOverHomes) {
  EXPECT_EQ(hash<char>()(static_cast<char>(-1)), ~size_t{0}) << "char is signed on this target";
  EXPECT_EQ(hash<unsigned long>()(~0ul), 0x1FFFFFFEul) << "wraps in 64 bits";
  EXPECT_EQ(hash<float>()(-1.5f), 0xFFFFFFFFu) << "truncated, low 32 bits kept";

  // Thread control blocks one page apart with equal low 12 bits: their page numbers reach the
  // low bits, so 256 of them take 256 different homes of a 256-bucket table.
  std::vector<bool> home_taken(256, false);
  for (unsigned long k = 0; k < 256; ++k) {
    unsigned long home = Hash_thread_id()(0x7F00AB3C0700ul + k * 4096) & 255;
    EXPECT_FALSE(home_taken[home]) << "page " << k;
    home_taken[home] = true;
  }
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
      EXPECT_EQ(value, reference_crc(&address, 8));
      if (!taken[value & 255]) ++distinct;
      taken[value & 255] = true;
    }
    EXPECT_GE(distinct, 32u) << (sse ? "instruction path" : "table path");
  }
}

}  // namespace
}  // namespace quorla
