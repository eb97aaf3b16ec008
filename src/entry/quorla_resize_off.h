// The size query and realloc of a block outside the before-init heap while the real tiers are
// off: after shut-down, when other libraries' finalisers still resize what they allocated.
// The thread table's destructor has by then destroyed the heaps, and with them the records of
// the small-block pieces, and the large-allocation table is gone; the regions that hold live
// blocks stay mapped as they are, head page included. So these paths read a region's page
// slots but never a piece record or the table:
//   - a page block's slot still holds its run length: its size is exact;
//   - a small block's capacity is unknown: the size query answers 0, and realloc copies up to
//     the largest small block (10240 bytes), never past the end of the block's region;
//   - a large block maps at least one region: realloc keeps it in place for a size up to one
//     region and answers null with ENOMEM above that, leaving the block as it is.
// free ignores such blocks in this phase, so the old block simply stays.
#pragma once

#include <cstddef>

#include "startup/quorla_before_init.h"

namespace quorla {

QUORLA_INLINE bool is_before_init_block(const void* ptr) {
  return g_memory_first_init_data.is_below_next(ptr) && g_memory_first_init_data.is_at_or_above_base(ptr);
}

unsigned long malloc_size_while_off(void* ptr);
void* realloc_while_off(void* ptr, size_t size);

}  // namespace quorla
