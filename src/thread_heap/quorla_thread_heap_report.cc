// The reports of the thread heap floor. On standard error: the state of one small-block
// piece or group, the blocks still in use when a piece is torn down, and a release that found
// no block; they take no lock (the owner thread or tear-down holds the piece still). On
// standard output: the registry's heap lines of the statistics. None allocates, none stops
// the program.
#include "foundation/quorla_memory_size_out.h"
#include "foundation/quorla_stack_message.h"
#include "page_heap/quorla_page_piece_count.h"
#include "thread_heap/quorla_bitmap_group.h"
#include "thread_heap/quorla_thread_registry.h"

namespace quorla {

namespace {

// The run length of block n: the low nibble for an even block, the high one for an odd one.
unsigned int nibble_of(const unsigned char* bit_size, unsigned int block) {
  unsigned char pair = bit_size[block >> 1];
  return (block & 1) ? (pair >> 4) : (pair & 15);
}

unsigned long owner_thread_of(const Memory_bitmap_group* group) {
  return group != nullptr && group->ptr_page_group != nullptr ? group->ptr_page_group->ulong_thread_id : 0;
}

}  // namespace

void Memory_bitmap_piece::print() const {
  Stack_message<1024> line;
  line.text("Log: Memory_bitmap_piece::print() 1, block_type=")
      .dec(uchar_block_type)
      .text(", bit_ref_byte=")
      .dec(uint_bit_ref_byte)
      .text(", free_bit_size=")
      .dec(uint_free_bit);
  if (uint_offset_full != piece_list::k_not_listed) line.text(", offset_full=").dec(uint_offset_full);
  if (uint_offset_normal != piece_list::k_not_listed) line.text(", offset_normal=").dec(uint_offset_normal);
  line.text(", ptr_block=").hex_lower(ptr_block).end_line().write(stderr);

  Stack_message<1024> words;
  words.text("Log: Memory_bitmap_piece::print() 2, ");
  const char* separator = "";
  for (unsigned int i = 0; i < 8; ++i) {
    if (ptr_ulong[i] == 0) continue;
    words.text(separator).text("ptr_ulong[").dec(i).text("]=").hex_lower(ptr_ulong[i]);
    separator = ", ";
  }
  words.end_line().write(stderr);

  unsigned int count = 0;
  for (unsigned int block = 0; block < 512; ++block) {
    unsigned int bit_size = nibble_of(ar_uchar_bit_size, block);
    if (bit_size == 0) continue;
    Stack_message<512> line;
    line.text("Log: Memory_bitmap_page_piece::print() 3. ptr=")
        .hex_lower(ptr_block + static_cast<unsigned long>(block) * uint_bit_ref_byte)
        .text(", offset=")
        .dec(block);
    append_run_end(line, static_cast<unsigned long>(bit_size) * uint_bit_ref_byte, bit_size, ++count).write(stderr);
  }
}

// The header is written whether or not a block is still in use.
void Memory_bitmap_piece::check_memory_leak() {
  Stack_message<1024>()
      .text("\r\nWarn: Memory_bitmap_piece::check_memory_leak(). block_type=")
      .dec(uchar_block_type)
      .text(", bit_ref_size=")
      .dec(uint_bit_ref_byte)
      .text(", bit_size=")
      .dec(512 - uint_free_bit)
      .text(", thread_id=")
      .hex_lower(owner_thread_of(ptr_group))
      .text(", ptr_block=")
      .hex_lower(ptr_block)
      .text(", this=")
      .hex_lower(this)
      .end_line()
      .write(stderr);
  unsigned int count = 0;
  for (unsigned int block = 0; block < 512; ++block) {
    unsigned int bit_size = nibble_of(ar_uchar_bit_size, block);
    if (bit_size == 0) continue;
    Stack_message<1024>()
        .text("Warn: Memory_bitmap_piece::check_memory_leak(), leak_ptr=")
        .hex_lower(ptr_block + static_cast<unsigned long>(block) * uint_bit_ref_byte)
        .text(", byte_size=")
        .dec(static_cast<unsigned long>(uint_bit_ref_byte) * bit_size)
        .text(", bit_size=")
        .dec(bit_size)
        .text(", bit_offset=")
        .dec(block)
        .text(", count_num=")
        .dec(++count)
        .end_line()
        .write(stderr);
  }
}

// A bit size of 0 means the table of run lengths has no block at that offset: most likely the
// block was released already.
void Memory_bitmap_piece::free_fail(void* ptr, unsigned int bit_offset, unsigned int bit_size) {
  Stack_message<1024> line;
  line.text("Error: Memory_bitmap_piece::free_fail(). ptr=")
      .hex_lower(ptr)
      .text(", bit_offset=")
      .dec(bit_offset)
      .text(", bit_size=")
      .dec(bit_size)
      .text(", bit_ref_size=")
      .dec(uint_bit_ref_byte)
      .text(", block_type=")
      .dec(uchar_block_type);
  if (bit_size != 0) {
    line.text(", free_byte_size=").dec(static_cast<unsigned long>(bit_size) * uint_bit_ref_byte);
  } else {
    line.text(", maybe double free.");
  }
  line.end_line().write(stderr);
}

// Capacity, use and rates over the pieces that hold memory; the rates are integer percentages.
void Memory_bitmap_group::print() const {
  unsigned long capacity = 0;
  unsigned long free = 0;
  const Piece_vector* lists[] = {&vt_normal, &vt_full};
  for (const Piece_vector* list : lists) {
    for (unsigned int i = 0; i < list->size(); ++i) {
      const Memory_bitmap_piece* piece = (*list)[i].ptr_t;
      if (piece == nullptr || piece->ptr_block == nullptr) continue;
      capacity += 512;
      free += piece->uint_free_bit;
    }
  }
  if (capacity == 0) return;
  Stack_message<1024>()
      .text("Log: Memory_bitmap_group thread_id=")
      .hex_lower(owner_thread_of(this))
      .text(" type=")
      .dec(uchar_block_type)
      .text(", bit_ref_size=")
      .dec(uint_bit_ref_byte)
      .text(", piece_normal=")
      .dec(vt_normal.size())
      .text(", piece_full=")
      .dec(vt_full.size())
      .text(", free_rate=")
      .dec(free_rate_percent(free, capacity))
      .text("%, use_rate=")
      .dec(free_rate_percent(capacity - free, capacity))
      .text("%, bit_capacity=")
      .dec(capacity)
      .text(", bit_use=")
      .dec(capacity - free)
      .text(", bit_free=")
      .dec(free)
      .end_line()
      .write(stderr);
}

// The walk holds mutex_registry so that no heap is destroyed and the vector is not moved
// under it; the heaps themselves are read without their owners' knowledge, so a line may be a
// moment old. A heap that holds no region is left out.
void Memory_thread_id_thread_local_data::print_use_byte_str() const {
  mutex& registry = const_cast<mutex&>(mutex_registry);  // the report changes nothing it guards
  registry.lock();
  Stack_message<512> head;
  head.text("libquorlamalloc thread_local_data vt_all_size=").dec(vt_thread_local.size());
  if (vt_wait_reuse.size() != 0) head.text(", vt_wait_reuse_size=").dec(vt_wait_reuse.size());
  head.end_line().write(stdout);
  for (unsigned int i = 0; i < vt_thread_local.size(); ++i) {
    const Memory_thread_local_data* heap = vt_thread_local[i];
    if (heap == nullptr) continue;
    Page_piece_count count = count_page_pieces(heap->page_group);
    if (count.ulong_all_bit == 0) continue;
    Stack_message<2048> line;
    line.text("libquorlamalloc thread_id=")
        .hex_lower(heap->page_group.ulong_thread_id)
        .text(", ptr_thread_local=")
        .hex_lower(heap);
    append_memory_size(line.text(", all_byte="), count.ulong_all_bit << 12);
    if (count.ulong_byte_page != 0) append_memory_size(line.text(", page_byte="), count.ulong_byte_page);
    if (count.ulong_byte_hugepage2m != 0) append_memory_size(line.text(", byte_hugepage2M="), count.ulong_byte_hugepage2m);
    append_bits_end(line, count.ulong_all_bit, count.ulong_free_bit).write(stdout);
  }
  registry.unlock();
}

}  // namespace quorla
