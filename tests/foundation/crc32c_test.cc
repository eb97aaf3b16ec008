// The Castagnoli CRC on both of its paths (the crc32 instruction and the byte table) against
// a bit-by-bit reference written here, and the hash functors built on it.
//
// The library's CRC starts from 0 and has no final complement, so it does not return the
// published check value of "123456789" (0xE3069283); the reference is checked against that
// value in its published form, then used in the library's form (0x58E3FA20).
#include "foundation/quorla_crc32c.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <random>
#include <set>
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
uint64_t with_length(uint32_t crc, size_t length) { return crc | (uint64_t{static_cast<uint32_t>(length + crc)} << 32); }
uint64_t reference_crc64(const void* data, size_t length) { return with_length(reference_crc(data, length), length); }

bool cpu_has_sse4_2() { return __builtin_cpu_supports("sse4.2") != 0; }

// Selects a path of the value functions and puts the start-up choice back.
struct Path_choice {
  explicit Path_choice(bool sse) { Crc32c::d_bool_has_sse4_2 = sse; }
  ~Path_choice() { Crc32c::d_bool_has_sse4_2 = saved; }
  bool saved = Crc32c::d_bool_has_sse4_2;
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

// The instruction path's runs and array pieces, and the table path's runs, for every length
// and start offset and from any remainder.
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
      SCOPED_TRACE("offset " + std::to_string(offset) + " length " + std::to_string(length));
      ASSERT_EQ(Crc32c::intel_crc32c_run(data, length), expected);
      ASSERT_EQ(g_crc32c.boost_crc32c_run(data, length), expected);
      ASSERT_EQ(Crc32c::intel_crc64c_run(data, length), with_length(expected, length));
      ASSERT_EQ(g_crc32c.boost_crc64c_run(data, length), with_length(expected, length));
    }
  }
  const unsigned char* data = at(0);
  for (unsigned long count = 0; count <= 64; ++count) {
    uint32_t start = d_random();
    auto reference = [&](size_t length) { return reference_crc(data, length, start); };
    EXPECT_EQ(intel_crc32c_8bit_run(reinterpret_cast<const char*>(data), count, start), reference(count));
    EXPECT_EQ(intel_crc32c_16bit_run(reinterpret_cast<const unsigned short*>(data), count, start), reference(count * 2));
    EXPECT_EQ(intel_crc32c_32bit_run(reinterpret_cast<const unsigned int*>(data), count, start), reference(count * 4));
    EXPECT_EQ(intel_crc32c_64bit_run(reinterpret_cast<const unsigned long long*>(data), count, start), reference(count * 8));
  }
}

TEST_F(Crc32cTest, ValueFunctionsAndTheWrappedHighHalfOnEitherPath) {
  SCOPED_TRACE("seed " + std::to_string(d_seed));
  alignas(8) const char digits[16] = "123456789";
  EXPECT_EQ(reference_crc(digits, 9, 0xFFFFFFFFu, 0xFFFFFFFFu), 0xE3069283u);  // the published form
  EXPECT_EQ(reference_crc(digits, 9), 0x58E3FA20u);
  // 60 random bytes, then 4 chosen so that the CRC of all 64 is 0xFFFFFFF0: feeding a word is
  // 32 zero-bit steps from (remainder ^ word), and each step is invertible. Then length + crc
  // = 0x100000030, of which the high half keeps 0x30.
  alignas(8) unsigned char wrapping[64];
  std::memcpy(wrapping, at(0), 60);
  uint32_t state = 0xFFFFFFF0u;
  for (int bit = 0; bit < 32; ++bit) state = (state & 0x80000000u) ? ((state ^ 0x82F63B78u) << 1) | 1u : state << 1;
  uint32_t tail = state ^ reference_crc(wrapping, 60);
  std::memcpy(wrapping + 60, &tail, 4);
  for (bool sse : {false, true}) {
    if (sse && !cpu_has_sse4_2()) continue;
    Path_choice choice(sse);
    SCOPED_TRACE(sse ? "instruction path" : "table path");
    EXPECT_EQ(g_crc32c.value64(wrapping, sizeof(wrapping)), 0x00000030FFFFFFF0ul);
    for (unsigned long word : d_buffer) {  // a narrow value's bytes are the word's first ones here
      EXPECT_EQ(g_crc32c.value32_char(static_cast<char>(word)), reference_crc(&word, 1));
      EXPECT_EQ(g_crc32c.value32_ushort(static_cast<unsigned short>(word)), reference_crc(&word, 2));
      EXPECT_EQ(g_crc32c.value32_uint(static_cast<unsigned int>(word)), reference_crc(&word, 4));
      EXPECT_EQ(g_crc32c.value32_ulong(word), reference_crc(&word, 8));
      EXPECT_EQ(g_crc32c.value64_ulong(word), reference_crc64(&word, 8));
      EXPECT_EQ(hash_crc32c<unsigned long>()(word), reference_crc(&word, 8));
    }
    for (size_t length : {0ul, 7ul, 11ul, 4096ul}) {
      EXPECT_EQ(g_crc32c.value32(at(0), length), reference_crc(at(0), length)) << length;
      EXPECT_EQ(g_crc32c.value64(at(0), length), reference_crc64(at(0), length)) << length;
    }
  }
}

TEST(Crc32c, StartUpRecordedWhatTheProcessorSays) {
  EXPECT_EQ(Crc32c::is_cpu_support_sse4_2(), cpu_has_sse4_2());
  EXPECT_EQ(Crc32c::d_bool_has_sse4_2, cpu_has_sse4_2());
}

TEST_F(Crc32cTest, TablePathIsRightUnderConcurrentCallers) {
  // Callers on the same CPU slot share a remainder; the lock keeps each run whole. More
  // threads than CPUs and long runs, so that threads are preempted inside a run.
  const uint32_t expected = reference_crc(at(0), 4096);
  std::atomic<int> failures{0};
  std::vector<std::thread> workers;
  for (int t = 0; t < 4; ++t) {
    workers.emplace_back([&] {
      for (int round = 0; round < 200; ++round) failures += g_crc32c.boost_crc32c_run(at(0), 4096) != expected;
    });
  }
  for (std::thread& worker : workers) worker.join();
  EXPECT_EQ(failures, 0);
}

TEST(HashFunctors, SignExtensionWrapAndSpreadOverHomes) {
  EXPECT_EQ(hash<char>()(static_cast<char>(-1)), ~size_t{0}) << "char is signed on this target";
  EXPECT_EQ(hash<unsigned long>()(~0ul), 0x1FFFFFFEul) << "wraps in 64 bits";
  EXPECT_EQ(hash<float>()(-1.5f), 0xFFFFFFFFu) << "truncated, low 32 bits kept";
  // Thread control blocks one page apart with equal low 12 bits: their page numbers reach the
  // low bits, so 256 of them take 256 different homes of a 256-bucket table.
  std::set<size_t> homes;
  for (unsigned long k = 0; k < 256; ++k) homes.insert(Hash_thread_id()(0x7F00AB3C0700ul + k * 4096) & 255);
  EXPECT_EQ(homes.size(), 256u);
}

}  // namespace
}  // namespace quorla
