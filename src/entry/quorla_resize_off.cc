#include "entry/quorla_resize_off.h"

#include <cerrno>
#include <cstring>

#include "entry/quorla_size_route.h"
#include "quorlamalloc.h"

namespace quorla {

namespace {

// The head page's slot of the page that ptr lies in: a run length (1 to 511) where a page
// block starts, above 511 a piece pointer, 0 elsewhere.
QUORLA_INLINE unsigned long page_slot_of(const void* ptr, unsigned long offset) {
  return region_slots_of(ptr)[page_index_of_offset(offset)];
}

}  // namespace

QUORLA_COLD unsigned long malloc_size_while_off(void* ptr) {
  unsigned long offset = region_offset_of(ptr);
  if (offset == 0) return 0;
  unsigned long slot = page_slot_of(ptr, offset);
  return slot <= 511 ? slot * k_page_byte : 0;
}

QUORLA_COLD void* realloc_while_off(void* ptr, size_t size) {
  unsigned long offset = region_offset_of(ptr);
  if (offset == 0) {
    if (size <= k_region_byte) return ptr;
    errno = ENOMEM;
    return nullptr;
  }
  unsigned long slot = page_slot_of(ptr, offset);
  // As realloc does with a pointer that the size query does not know.
  if (slot == 0) return quorla_malloc(size);
  unsigned long bound = slot * k_page_byte;
  if (slot > 511) bound = k_group_1024_limit_byte < k_region_byte - offset ? k_group_1024_limit_byte : k_region_byte - offset;
  void* block = quorla_malloc(size);
  if (block == nullptr) return nullptr;
  memcpy(block, ptr, size < bound ? size : bound);
  return block;
}

}  // namespace quorla
