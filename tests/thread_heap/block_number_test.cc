// A block's number from its distance to the backing block: the reciprocal multiply that
// replaces the division gives the exact quotient for every distance that can occur in every
// class whose block size is not a power of two.
#include <gtest/gtest.h>

#include "thread_heap/quorla_bitmap_piece.h"
#include "thread_heap/quorla_thread_local_data.h"

namespace quorla {
namespace {

TEST(BlockNumber, ReciprocalEqualsDivisionForEveryDistanceOfEveryClass) {
  unsigned int classes = 0;
  for (unsigned int block_byte : k_ar_group_block_byte) {
    if ((block_byte & (block_byte - 1)) == 0) continue;  // powers of two divide by shift
    ++classes;
    for (unsigned int distance = 0; distance < 512 * block_byte; ++distance) {
      ASSERT_EQ(divide_by_block_byte(distance, block_byte), distance / block_byte)
          << "block " << block_byte << " distance " << distance;
    }
  }
  EXPECT_EQ(classes, 9u);
}

}  // namespace
}  // namespace quorla
