// The before-init heap: what malloc serves from while the real allocator is off (before
// start-up has switched it on, and after shut-down has begun), and the permanent home of
// the root pool's records. A bump allocator over one sbrk block of 393216 bytes, with no
// constructor, no lock and no other part of the library beneath it.
//
// Every block has a 16-byte header before it: its own address, its size in 16-byte units
// (header included) and the tag 0x89ABCDEF. Only the newest block can be given back.
// Exhaustion aborts.
//
// This header sits directly above the operating system, so any layer may include it.
#pragma once

#include "foundation/quorla_base.h"

namespace quorla {

// The value of g_uint_memory_magic_flag_malloc_can_use while the real tiers may be used,
// and the mark of an initialised before-init heap.
constexpr unsigned int k_memory_magic_flag = 710701633;  // 0x2A5C7241
constexpr unsigned int k_before_init_byte = 393216;
constexpr unsigned int k_before_init_tag = 0x89ABCDEF;

// Zero at load; 710701633 exactly while the real tiers serve.
extern QUORLA_HIDDEN unsigned int g_uint_memory_magic_flag_malloc_can_use;

struct Struct_before_init_header {
  unsigned char* ptr_self;
  unsigned int uint_block_unit;
  unsigned int uint_tag;
};
static_assert(sizeof(Struct_before_init_header) == 16, "the block header is 16 bytes");

class Memory_before_init_data {
 public:
  // Deliberately empty: the global runs it in the middle of start-up, when blocks may
  // already have been handed out from the zero-initialised object.
  Memory_before_init_data() {}

  void init();
  unsigned char* get_next_ptr() const { return ptr_next; }
  unsigned char* get_base_ptr() const { return ptr_base; }
  unsigned long get_use_byte() const { return static_cast<unsigned long>(ptr_next - ptr_base); }
  unsigned int get_all_byte() const { return uint_all_byte; }
  unsigned int get_free_byte() const { return uint_all_byte - static_cast<unsigned int>(get_use_byte()); }

  void* malloc(unsigned int size);
  void free(void* ptr);
  void* malloc_align(unsigned long alignment, unsigned long size);
  unsigned int get_malloc_size(void* ptr) const;
  void* realloc(void* ptr, unsigned int size);

  // free() and malloc_size() tell before-init blocks by these two comparisons alone.
  QUORLA_INLINE bool is_below_next(const void* ptr) const {
    return static_cast<const unsigned char*>(ptr) < ptr_next;
  }
  QUORLA_INLINE bool is_at_or_above_base(const void* ptr) const {
    return static_cast<const unsigned char*>(ptr) >= ptr_base;
  }

 private:
  unsigned char* ptr_next;   // where the next block's header goes
  unsigned char* ptr_base;   // start of the buffer
  unsigned int uint_all_byte;
  unsigned int uint_magic;
};

extern QUORLA_HIDDEN Memory_before_init_data g_memory_first_init_data;

void* quorla_malloc_before_init(unsigned int size) noexcept;
void quorla_free_before_init(void* ptr) noexcept;
void* quorla_malloc_before_init_align(unsigned long alignment, unsigned long size);
unsigned int quorla_get_malloc_size_before_init(void* ptr);
void* quorla_realloc_before_init(void* ptr, unsigned int size);

}  // namespace quorla
