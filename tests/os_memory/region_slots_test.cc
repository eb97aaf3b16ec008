// The writer of runs of page slots: every run length a region can hold, at every start
// parity, stores exactly its slots and nothing around them.
#include "os_memory/quorla_region.h"

#include <gtest/gtest.h>

#include <vector>

namespace quorla {
namespace {

TEST(RegionSlots, FillWritesExactlyTheRun) {
  constexpr unsigned long k_guard = 0x5A5A5A5A5A5A5A5Aul;
  std::vector<unsigned long> slots(k_region_page_count + 4);
  for (unsigned long value : {0ul, 1ul, 0x7F12345678F0ul}) {
    for (unsigned int start = 1; start <= 2; ++start) {
      for (unsigned int count = 0; start + count <= k_region_page_count + 2; ++count) {
        std::fill(slots.begin(), slots.end(), k_guard);
        fill_page_slots(slots.data() + start, count, value);
        for (unsigned int i = 0; i < slots.size(); ++i) {
          bool in_run = i >= start && i < start + count;
          ASSERT_EQ(slots[i], in_run ? value : k_guard) << "start " << start << " count " << count << " slot " << i;
        }
      }
    }
  }
}

}  // namespace
}  // namespace quorla
