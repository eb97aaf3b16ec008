// The layer check the test build carries: calls that go down pass, a call that goes up
// (or stays on its own layer through another policy) ends the process with its line. The
// other tests of these internals run with the check on, so every policy call they make
// is checked.
#include <gtest/gtest.h>

#include "foundation/quorla_layer_check.h"
#include "page_heap/quorla_page_part_cpu_policy.h"
#include "page_heap/quorla_pool_size_128_policy.h"

namespace quorla {
namespace {

static_assert(QUORLA_CHECK_LAYERS, "the unit tests link the internals with the layer check on");

TEST(LayerCheck, CallsDownwardsPass) {
  Layer_scope inside_pools(5);
  unsigned long size = 4096;
  void* page = Malloc_page_part_cpu()(size);  // 4 from 5
  ASSERT_NE(page, nullptr);
  Free_page_part_cpu()(page, size);
  unsigned long record_size = 120;
  void* record = Malloc_pool_size_128_base()(record_size);  // 2 from 5
  Free_pool_size_128_base()(record, record_size);
}

TEST(LayerCheckDeathTest, ACallUpwardsEndsTheProcess) {
  EXPECT_DEATH(
      {
        Layer_scope inside_root_pool(2);
        unsigned long size = 4096;
        Malloc_page_part_cpu()(size);
      },
      "Error: allocator layer 4 entered from layer 2\\.\r\n");
  EXPECT_DEATH(
      {
        Layer_scope inside_page_supply(4);
        unsigned long size = 120;
        Malloc_pool_size_128()(size);
      },
      "Error: allocator layer 5 entered from layer 4\\.");
}

TEST(LayerCheckDeathTest, ACallOnTheSameLayerEndsTheProcess) {
  EXPECT_DEATH(
      {
        Layer_scope inside_page_supply(4);
        unsigned long size = 4096;
        Malloc_page_part_cpu()(size);
      },
      "Error: allocator layer 4 entered from layer 4\\.");
}

}  // namespace
}  // namespace quorla
