#include "startup/quorla_before_init.h"

#include <unistd.h>

#include <cstring>

#include "foundation/quorla_stack_message.h"

namespace quorla {

// Owned by the mapping layer; the buffer counts as mapped memory in the statistics.
extern size_t g_locking_sizet_os_malloc_all_size;

unsigned int g_uint_memory_magic_flag_malloc_can_use = 0;
Memory_before_init_data g_memory_first_init_data;

namespace {

QUORLA_INLINE Struct_before_init_header* header_of(void* ptr) {
  return reinterpret_cast<Struct_before_init_header*>(static_cast<unsigned char*>(ptr) - 16);
}

// Clears what sbrk added in [base, base + bytes). Only the tail of the page that the old break
// lay in can hold old data: the kernel unmaps whole pages above a lowered break and hands out
// new pages zero-filled. Writing zeros over those would make the whole buffer resident in
// every process (and on some kernels even reading them does).
void clear_break_tail(unsigned char* base, unsigned long bytes) {
  unsigned long tail = (0ul - reinterpret_cast<unsigned long>(base)) & 4095ul;
  memset(base, 0, tail < bytes ? tail : bytes);
}

}  // namespace

void Memory_before_init_data::init() {
  // The result is not tested: a failed sbrk makes the clearing below crash.
  ptr_base = static_cast<unsigned char*>(sbrk(k_before_init_byte));
  clear_break_tail(ptr_base, k_before_init_byte);
  uint_all_byte = k_before_init_byte;
  uint_magic = k_memory_magic_flag;
  ptr_next = ptr_base;
  // A plain add without the mapping lock: this runs before any other thread exists.
  g_locking_sizet_os_malloc_all_size += k_before_init_byte;
}

void* Memory_before_init_data::malloc(unsigned int size) {
  unsigned int block_byte = 32;
  unsigned int block_unit = 2;
  if (size != 0) {
    block_byte = (size + 31) & ~15u;
    block_unit = (size + 31) >> 4;
  }
  if (uint_magic != k_memory_magic_flag) init();
  auto* header = reinterpret_cast<Struct_before_init_header*>(ptr_next);
  header->ptr_self = ptr_next;
  header->uint_block_unit = block_unit;
  header->uint_tag = k_before_init_tag;
  ptr_next += block_byte;
  // The header is already written: the last block may overrun the buffer by its header.
  if (static_cast<unsigned int>(ptr_next - ptr_base) > uint_all_byte) {
    write_and_abort("Error: Memory_before_init_data::add_use_byte() over size.\r\n");
  }
  return reinterpret_cast<unsigned char*>(header) + 16;
}

void Memory_before_init_data::free(void* ptr) {
  Struct_before_init_header* header = header_of(ptr);
  if (header->uint_tag != k_before_init_tag ||
      header->ptr_self != reinterpret_cast<unsigned char*>(header)) {
    return;
  }
  unsigned char* block_end = reinterpret_cast<unsigned char*>(header) + header->uint_block_unit * 16ul;
  // Only the newest block rewinds; any other is lost for good.
  if (block_end != ptr_next) return;
  ptr_next -= header->uint_block_unit * 16ul;
}

void* Memory_before_init_data::malloc_align(unsigned long alignment, unsigned long size) {
  unsigned char* first = static_cast<unsigned char*>(malloc(static_cast<unsigned int>(alignment + size)));
  if (first == nullptr) return nullptr;
  const unsigned long mask = alignment - 1;
  if ((reinterpret_cast<unsigned long>(first) & mask) == 0) {
    free(first);
    void* block = malloc(static_cast<unsigned int>(size));
    if ((reinterpret_cast<unsigned long>(block) & mask) != 0) {
      write_and_abort("Error: quorla_malloc_before_init_align() find bug 1.\r\n");
    }
    return block;
  }
  unsigned long first_address = reinterpret_cast<unsigned long>(first);
  unsigned int diff = static_cast<unsigned int>(((alignment + first_address) & (0 - alignment)) - first_address);
  free(first);
  // The padding block's own header makes it exactly diff bytes long, so the next block
  // starts on the boundary -- except when diff is 16: a 0-byte request becomes a 32-byte
  // block and the result lands 16 bytes too high. That outcome is reported and aborts.
  malloc(diff - 16);
  void* block = malloc(static_cast<unsigned int>(size));
  unsigned long misaligned = reinterpret_cast<unsigned long>(block) & mask;
  if (misaligned != 0) {
    Stack_message<1024>()
        .text("Log: quorla_malloc_before_init_align() sizet_size_in=")
        .dec(size)
        .text(", sizet_real_malloc_size=")
        .dec(alignment + size)
        .text(", uint_diff=")
        .dec(diff)
        .text(", sizet_alignment_in=")
        .dec(alignment)
        .text(", sizet_test=")
        .dec(misaligned)
        .end_line()
        .write_and_abort();
  }
  return block;
}

unsigned int Memory_before_init_data::get_malloc_size(void* ptr) const {
  return (header_of(ptr)->uint_block_unit - 1) * 16;
}

void* Memory_before_init_data::realloc(void* ptr, unsigned int size) {
  unsigned int rounded = (size + 31) & ~15u;
  // The rounded count is passed on, so the new block carries a second header's worth on
  // top: a settled over-allocation. The block always moves, even when shrinking.
  void* block = malloc(rounded);
  unsigned int old_byte = header_of(ptr)->uint_block_unit * 16 - 16;
  unsigned int new_byte = rounded - 16;
  memcpy(block, ptr, new_byte < old_byte ? new_byte : old_byte);
  free(ptr);
  return block;
}

void* quorla_malloc_before_init(unsigned int size) noexcept { return g_memory_first_init_data.malloc(size); }
void quorla_free_before_init(void* ptr) noexcept { g_memory_first_init_data.free(ptr); }
void* quorla_malloc_before_init_align(unsigned long alignment, unsigned long size) {
  return g_memory_first_init_data.malloc_align(alignment, size);
}
unsigned int quorla_get_malloc_size_before_init(void* ptr) { return g_memory_first_init_data.get_malloc_size(ptr); }
void* quorla_realloc_before_init(void* ptr, unsigned int size) { return g_memory_first_init_data.realloc(ptr, size); }

}  // namespace quorla
