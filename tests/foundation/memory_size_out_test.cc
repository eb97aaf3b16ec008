// memory_size_out over the boundaries of every form. The expected texts are worked out by hand
// from the rules: below 1024 bytes "( n B )"; up to 2^30 a value that is not a whole KiB gets
// the KiB fraction, and from 1 MiB on the MiB form after it; a whole KiB below 1 MiB is "( n
// KiB )"; a whole KiB from 1 MiB on has the MiB form only (whole or fraction); from 2^30 on, a
// value of 32 bits that is not a whole MiB gets the MiB fraction, then the GiB form. Fractions
// have six decimals, rounded, with trailing zeros dropped.
#include <gtest/gtest.h>

#include <cstring>

#include "foundation/quorla_memory_size_out.h"

namespace quorla {
namespace {

std::string size_out(unsigned long value) {
  char out[k_memory_size_out_chars + 8];
  strcpy(out, "x=");  // the forms are appended to what the caller has written
  memory_size_out(value, out);
  EXPECT_EQ(strncmp(out, "x=", 2), 0);
  return std::string(out + 2);
}

struct Case {
  unsigned long value;
  const char* expected;
};

TEST(MemorySizeOut, EveryFormAtItsBoundaries) {
  const Case cases[] = {
      {0, "( 0 B )"},
      {1, "( 1 B )"},
      {1023, "( 1023 B )"},
      {1024, "( 1 KiB )"},
      {1025, "( 1.000977 KiB )"},  // 1.0009765625
      {1536, "( 1.5 KiB )"},
      {4096, "( 4 KiB )"},
      {1047552, "( 1023 KiB )"},        // 1023 * 1024
      {1048575, "( 1023.999023 KiB )"},  // 1023.9990234375, still below 1 MiB: no MiB form
      {1048576, "( 1 MiB )"},
      {1048577, "( 1024.000977 KiB )( 1.000001 MiB )"},  // 1024.0009765625, 1.00000095...
      {1049600, "( 1.000977 MiB )"},                      // 1 MiB + 1 KiB: a whole KiB, MiB only
      {1572864, "( 1.5 MiB )"},
      {2101248, "( 2.003906 MiB )"},  // 2 MiB + 4 KiB: 2.00390625
      {3146240, "( 3072.5 KiB )( 3.000488 MiB )"},
      {5242880, "( 5 MiB )"},
      {1073741823, "( 1048575.999023 KiB )( 1023.999999 MiB )"},  // 2^30 - 1
      {1073741824, "( 1 GiB )"},
      {1073741825, "( 1024.000001 MiB )( 1 GiB )"},  // the GiB fraction rounds to a whole
      {1074790400, "( 1.000977 GiB )"},              // 2^30 + 2^20: a whole MiB, GiB only
      {1610612736, "( 1.5 GiB )"},
      {4294967295, "( 4095.999999 MiB )( 4 GiB )"},  // 0xFFFFFFFF
      {4294967296, "( 4 GiB )"},
      {4294967297, "( 4 GiB )"},  // above 32 bits: no MiB form, and the fraction rounds
      {5368709120, "( 5 GiB )"},
      {6443499520, "( 6.000977 GiB )"},  // 6 GiB + 1 MiB above 32 bits
      {1099511627777, "( 1024 GiB )"},  // 2^40 + 1
      {1099511627776, "( 1024 GiB )"},  // 2^40
  };
  for (const Case& c : cases) EXPECT_EQ(size_out(c.value), c.expected) << "value " << c.value;
}

TEST(MemorySizeOut, LargestValueFitsTheRoomItPromises) {
  char out[k_memory_size_out_chars];
  out[0] = 0;
  memory_size_out(~0ul, out);
  EXPECT_LT(strlen(out), k_memory_size_out_chars);
  EXPECT_EQ(std::string(out).substr(0, 2), "( ");
  EXPECT_EQ(std::string(out).substr(strlen(out) - 6), " GiB )");
}

TEST(MemorySizeOut, FreeRateIsAnIntegerPercentageIn32Bits) {
  EXPECT_EQ(free_rate_percent(0, 512), 0u);
  EXPECT_EQ(free_rate_percent(511, 512), 99u);  // truncated, not rounded
  EXPECT_EQ(free_rate_percent(512, 512), 100u);
  EXPECT_EQ(free_rate_percent(1, 3), 33u);
  EXPECT_EQ(free_rate_percent(5, 0), 0u);  // an empty whole has no rate
  // free * 100 wraps in 32 bits: 50000000 * 100 = 5000000000 -> 705032704.
  EXPECT_EQ(free_rate_percent(50000000, 100000000), 705032704u / 100000000u);
}

}  // namespace
}  // namespace quorla
