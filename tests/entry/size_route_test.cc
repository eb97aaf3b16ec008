// The route table checked against the size ranges of the allocator's class table (sizes,
// block bytes, block count), written out here independently of the rows that build it.
#include "entry/quorla_size_route.h"
#include "thread_heap/quorla_thread_local_data.h"

#include <gtest/gtest.h>

namespace quorla {
namespace {

struct SizeRange {
  unsigned int first_size;
  unsigned int last_size;
  unsigned int block_byte;
  unsigned int bits;
  unsigned int bytes_taken;
};

constexpr SizeRange k_ranges[] = {
    {0, 16, 16, 1, 16},        {17, 32, 32, 1, 32},       {33, 48, 48, 1, 48},       {49, 64, 64, 1, 64},
    {65, 80, 80, 1, 80},       {81, 96, 96, 1, 96},       {97, 112, 112, 1, 112},    {113, 128, 128, 1, 128},
    {129, 144, 144, 1, 144},   {145, 160, 160, 1, 160},   {161, 176, 176, 1, 176},   {177, 192, 192, 1, 192},
    {193, 208, 208, 1, 208},   {209, 256, 256, 1, 256},   {257, 288, 144, 2, 288},   {289, 320, 160, 2, 320},
    {321, 352, 176, 2, 352},   {353, 384, 192, 2, 384},   {385, 416, 208, 2, 416},   {417, 512, 512, 1, 512},
    {513, 528, 176, 3, 528},   {529, 576, 192, 3, 576},   {577, 624, 208, 3, 624},   {625, 768, 256, 3, 768},
    {769, 832, 208, 4, 832},   {833, 848, 176, 5, 880},   {849, 1024, 1024, 1, 1024}, {1025, 1040, 208, 5, 1040},
    {1041, 1056, 176, 6, 1056}, {1057, 1264, 256, 5, 1280}, {1265, 1536, 512, 3, 1536}, {1537, 1696, 256, 7, 1792},
    {1697, 2048, 1024, 2, 2048}, {2049, 2128, 256, 9, 2304}, {2129, 2544, 512, 5, 2560}, {2545, 3072, 1024, 3, 3072},
    {3073, 3408, 512, 7, 3584},
};

TEST(SizeRoute, EverySizeUpTo3408TakesTheBlocksOfItsRow) {
  unsigned int next_size = 0;
  for (const SizeRange& range : k_ranges) {
    ASSERT_EQ(range.first_size, next_size) << "the ranges cover every size once";
    ASSERT_EQ(range.block_byte * range.bits, range.bytes_taken);
    for (unsigned int size = range.first_size; size <= range.last_size; ++size) {
      unsigned char entry = ar_uchar_size_route[(size + 15) >> 4];
      unsigned int group = entry & 15;
      unsigned int bits = entry >> 4;
      ASSERT_EQ(k_ar_group_block_byte[group], range.block_byte) << "size " << size;
      ASSERT_EQ(bits, range.bits) << "size " << size;
      ASSERT_GE(k_ar_group_block_byte[group] * bits, size) << "size " << size;
    }
    next_size = range.last_size + 1;
  }
  EXPECT_EQ(next_size, k_small_route_limit_byte + 1);
}

TEST(SizeRoute, TheTwoEntriesPastTheLastSizeRepeatTheLastRow) {
  EXPECT_EQ((3408u + 15) >> 4, 213u);
  EXPECT_EQ(ar_uchar_size_route[214], ar_uchar_size_route[213]);
  EXPECT_EQ(ar_uchar_size_route[215], ar_uchar_size_route[213]);
  EXPECT_EQ(ar_uchar_size_route[213], (7 << 4) | 14);
}

TEST(SizeRoute, NoRunIsLongerThanNineBlocksAndAllFitTheNibble) {
  unsigned int longest = 0;
  for (unsigned int index = 0; index < 216; ++index) {
    unsigned int bits = ar_uchar_size_route[index] >> 4;
    EXPECT_GE(bits, 1u);
    if (bits > longest) longest = bits;
  }
  EXPECT_EQ(longest, 9u);
}

}  // namespace
}  // namespace quorla
