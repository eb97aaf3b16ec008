// Number and text conversions, the word-array masks and the stack-built message lines.
#include "foundation/quorla_conversion.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "foundation/quorla_bit_array.h"
#include "foundation/quorla_memory_util.h"
#include "foundation/quorla_stack_message.h"

namespace quorla {
namespace {

// The flag starts opposite to the expected one, so a parser that never writes it is seen.
template <typename F, typename R>
void expect_parse(F function, const char* text, R value, bool overflow) {
  bool flag = !overflow;
  EXPECT_EQ(function(text, strlen(text), flag), value) << text;
  EXPECT_EQ(flag, overflow) << text;
}

TEST(Parsers, SignsStopsAndOverflow) {
  expect_parse(chars_to_uint, "abc", 0u, false);
  expect_parse(chars_to_uint, " \t\r\n+12x", 12u, false);
  expect_parse(chars_to_int, "-42,", -42, false);
  expect_parse(chars_to_int, "--1", 0, true);
  expect_parse(chars_to_short, "-32768", -32768, false);
  expect_parse(chars_to_short, "32768", 0, true);
  expect_parse(chars_to_uint, "4294967296", 0u, true);  // 429496729 * 10 + 6 wraps to 0, below the old value
  // 500000000 * 10 wraps to 705032704, above the old value: the overflow passes unnoticed.
  expect_parse(chars_to_uint, "5000000000", 705032704u, false);
  expect_parse(chars_hex_to_ulong, "0x00ff,0f", 0xFFul, false);
  expect_parse(chars_hex_to_uint, "  DeadBeef", 0xDEADBEEFu, false);
  expect_parse(chars_hex_to_ushort, "zz", 0, false);
  bool overflow = true;
  EXPECT_EQ(chars_to_uint("123", 2, overflow), 12u) << "the length bounds the text";
  testing::internal::CaptureStderr();
  expect_parse(chars_to_ulong, "99999999999999999999", 0ul, true);  // the last step wraps to 7766279631452241919
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "aaaa1 Log: chars_to_ulong() ulong_prior=9999999999999999999, ulong_out=7766279631452241919, "
            "chars_in=99999999999999999999\r\n");
}

TEST(Numbers, DecimalHexAndFractions) {
  char out[k_number_chars];
  EXPECT_STREQ(long_to_chars(-9223372036854775807l - 1, out), "-9223372036854775808");
  EXPECT_STREQ(uint_to_chars_fill_zero(42, 6, out), "000042");
  EXPECT_STREQ(double_to_chars(2.0, out), "2");
  EXPECT_STREQ(microseconds_to_seconds_chars(1234567, 3, out), "1.234");
  const unsigned char bytes[] = {0x00, 0x0A, 0xBC};
  EXPECT_STREQ(ptr_void_to_hex_upper(bytes, 3, ':', out), "00:0A:BC");
  EXPECT_STREQ(ptr_void_to_hex_lower_front_no_zero(bytes, 3, 0, out), "abc");
}

TEST(PowerOfTwoDeathTest, RulesAndAborts) {
  EXPECT_EQ(get_2power_great_or_equal_to(0), 1u);
  EXPECT_EQ(get_2power_great_or_equal_to(3), 4u);
  // {value, min, result}: the result is min times a power of two.
  const unsigned long long with_min[][3] = {{16, 256, 256}, {257, 256, 512}, {100, 3, 192}};
  for (auto& c : with_min) EXPECT_EQ(get_2power_great_or_equal_to(c[0], c[1]), c[2]) << c[0] << " " << c[1];
  EXPECT_EQ(get_2power_great_or_equal_to_uint(33, 32), 64u);
  EXPECT_DEATH(get_2power_great_or_equal_to(0x8000000000000001ull),
               "^Error: get_2power_great_or_equal_to\\(\\) overflow\\. ulong_in=9223372036854775809\r\n$");
  EXPECT_DEATH(get_2power_great_or_equal_to(0x8000000000000001ull, 16),
               "^Error: get_2power_great_or_equal_to\\(\\) overflow\\. ulong_in=9223372036854775809, ulong_min_in=16\r\n$");
  EXPECT_DEATH(get_2power_great_or_equal_to_uint(0x80000001u),
               "^Error: get_2power_great_or_equal_to_uint\\(\\) overflow\\. uint_in=2147483649\r\n$");
}

// The run helpers against a naive bit-by-bit model over 512 bits, at random offsets.
TEST(BitArray, RunHelpersAgreeWithANaiveModel) {
  unsigned long seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937_64 random(seed);
  auto bit_of = [](const unsigned long long* words, unsigned int bit) { return (words[bit >> 6] >> (bit & 63)) & 1; };
  for (int trial = 0; trial < 20000; ++trial) {
    unsigned long long words[8], set[8], cleared[8], masks[9];
    for (auto& word : words) word = random() & random();  // sparse bits
    unsigned int start = random() % 512;
    unsigned int count = 1 + random() % (512 - start);
    unsigned int n = make_ulongs_compare(start & 63, count, masks);
    memcpy(set, words, sizeof(words));
    set_ulongs_or_equal_compare(set + (start >> 6), masks, n);
    memcpy(cleared, set, sizeof(words));
    set_ulongs_and_equal_compare_complement(cleared + (start >> 6), masks, n);
    bool any_set = false, all_set = true;
    for (unsigned int bit = 0; bit < 512; ++bit) {
      bool inside = bit >= start && bit < start + count;
      any_set |= inside && bit_of(words, bit);
      all_set &= !inside || bit_of(words, bit);
      ASSERT_EQ(bit_of(set, bit) != 0, inside || bit_of(words, bit)) << bit;
      ASSERT_EQ(bit_of(cleared, bit) != 0, !inside && bit_of(words, bit)) << bit;
    }
    ASSERT_EQ(compare_ulongs_and_is_zero(words + (start >> 6), masks, n), !any_set);
    ASSERT_EQ(compare_ulongs_and_same(words + (start >> 6), masks, n), all_set);
  }
  unsigned long long out[3] = {0, 0, 0x1234};  // no third word written
  EXPECT_EQ(make_ulongs_compare_offset_zero(128, out), 2u);
  EXPECT_EQ(std::vector<unsigned long long>(out, out + 3), (std::vector<unsigned long long>{~0ull, ~0ull, 0x1234}));
}

TEST(MemoryUtil, FillCopyAndFileRead) {
  std::string source(3 * 4096 + 17, 'q'), target(source.size(), 'z');
  quorla_memcpy(&target[0], source.data(), source.size());
  EXPECT_EQ(target, source);
  quorla_memset(&target[0], 'a', target.size());
  EXPECT_EQ(target, std::string(target.size(), 'a'));
  quorla_memset(&target[0], 'w', 0);
  EXPECT_EQ(target[0], 'a') << "n == 0 touches nothing";

  // file_to_chars reads at most size - 1 bytes and leaves an empty text when it cannot open.
  const std::string path = testing::TempDir() + "quorla_file_to_chars." + std::to_string(getpid());
  std::ofstream(path) << "0-3,5\n";
  char out[8] = {};
  EXPECT_TRUE(file_to_chars(path.c_str(), 4, out));
  EXPECT_STREQ(out, "0-3");
  unlink(path.c_str());
  out[0] = 'z';
  errno = EDOM;
  EXPECT_FALSE(file_to_chars("/nonexistent/quorla/file", 8, out));
  EXPECT_EQ(out[0], 0);
  EXPECT_EQ(errno, EDOM) << "a missing file does not show in the caller's errno";
}

TEST(StackMessageDeathTest, BuildsTheLineAndStopsOnOverrun) {
  Stack_message<1024> message;
  message.text("Error: x failed. size=").dec(4096).text(", ptr=").hex_lower(0x7f00aabbccddull);
  message.source("/a/b/quorla_vector_allocator.h", 42, "reserve");
  EXPECT_STREQ(message.c_str(),
               "Error: x failed. size=4096, ptr=00007f00aabbccdd, File=quorla_vector_allocator, Line=42, Func=reserve\r\n");
  char name[64];
  append_source_file_name("C:\\src\\quorla_x.cc", name, sizeof(name));
  EXPECT_STREQ(name, "quorla_x");
  // The bounds check stops the process before the terminator would be written past the array.
  EXPECT_EXIT(Stack_message<16>().text("0123456789abcdef"), testing::KilledBySignal(SIGABRT), "");
}

}  // namespace
}  // namespace quorla
