// The reports of a thread heap's page piece, on standard error. They read the piece and its
// head page without a lock: the caller holds the piece still (its owner thread, or tear-down).
// Neither allocates; each line is built on the stack and written with one fputs.
#include "page_heap/quorla_bitmap_page_piece.h"

#include "foundation/quorla_memory_size_out.h"
#include "foundation/quorla_stack_message.h"
#include "page_heap/quorla_bitmap_page_group.h"

namespace quorla {

void Memory_bitmap_page_piece::print() const {
  Stack_message<1024> line;
  line.text("Log: Memory_bitmap_page_piece::print(). page_type=")
      .dec(uchar_page_type)
      .text(", free_bit=")
      .dec(uint_free_bit)
      .text(", use_bit=")
      .dec(511 - uint_free_bit);
  if (uint_offset_full != piece_list::k_not_listed) line.text(", offset_full=").dec(uint_offset_full);
  if (uint_offset_normal != piece_list::k_not_listed) line.text(", offset_normal=").dec(uint_offset_normal);
  line.text(", ptr_byte_block=").hex_lower(ptr_byte_block);
  for (unsigned int i = 0; i < 8; ++i) {
    if (ptr_ulong[i] != 0) line.text(", ptr_ulong[").dec(i).text("]=").hex_lower(ptr_ulong[i]);
  }
  line.end_line().write(stderr);
}

// A slot of 1 to 511 is a page block still in use; the small-block pieces' pages (above 511)
// are their own pieces' business.
void Memory_bitmap_page_piece::check_memory_leak() const {
  const unsigned long* slots = ar_ulong_page_slot();
  bool any = false;
  for (unsigned int i = 1; i < 512 && !any; ++i) any = slots[i] >= 1 && slots[i] <= 511;
  if (!any) return;
  Stack_message<1024>()
      .text("\r\nWarn: Memory_bitmap_page_piece::check_memory_leak(), bit_size=")
      .dec(511 - uint_free_bit)
      .text(", page_type=")
      .dec(uchar_page_type)
      .text(", ptr_block=")
      .hex_lower(ptr_byte_block)
      .text(", thread_id=")
      .hex_lower(ptr_page_group != nullptr ? ptr_page_group->ulong_thread_id : 0)
      .end_line()
      .write(stderr);
  unsigned int count = 0;
  for (unsigned int i = 1; i < 512; ++i) {
    unsigned long bit_size = slots[i];
    if (bit_size < 1 || bit_size > 511) continue;
    Stack_message<1024> line;
    line.text("Warn: Memory_bitmap_page_piece::check_memory_leak() leak_ptr=")
        .hex_lower(ptr_byte_block + i * k_page_byte)
        .text(", bit_offset=")
        .dec(i);
    append_run_end(line, bit_size << 12, bit_size, ++count).write(stderr);
  }
}

}  // namespace quorla
