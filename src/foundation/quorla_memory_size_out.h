// Byte amounts and rates of the reports. memory_size_out writes an amount as one or more
// bracketed forms: "( 1023 B )", "( 1.5 KiB )", "( 5 MiB )", "( 1024.000977 KiB )( 1.000001
// MiB )", "( 4095.999999 MiB )( 4 GiB )". A value that is not a whole number of its unit is
// also given in the next unit up, so that both the exact size and its order show. Nothing here
// allocates: every report of the allocator is built on the stack.
#pragma once

#include "foundation/quorla_stack_message.h"

namespace quorla {

// Room that one amount may take, its terminator included.
constexpr unsigned int k_memory_size_out_chars = 96;

// Appends the forms of value to the terminated text at out, which has room for
// k_memory_size_out_chars more bytes.
void memory_size_out(unsigned long value, char* out);

// free * 100 / all in 32 bits, as every free_rate of the reports; 0 when all is 0.
QUORLA_INLINE unsigned int free_rate_percent(unsigned long free, unsigned long all) {
  unsigned int all_32 = static_cast<unsigned int>(all);
  return all_32 == 0 ? 0 : static_cast<unsigned int>(free) * 100u / all_32;
}

template <unsigned int N>
Stack_message<N>& append_memory_size(Stack_message<N>& line, unsigned long value) {
  char amount[k_memory_size_out_chars];
  amount[0] = 0;
  memory_size_out(value, amount);
  return line.text(amount);
}

// ", free_rate=" rate "%\r\n": the close of every line that counts bits.
template <unsigned int N>
Stack_message<N>& append_free_rate_end(Stack_message<N>& line, unsigned long free, unsigned long all) {
  return line.text(", free_rate=").dec(free_rate_percent(free, all)).text("%").end_line();
}

// ", all_bit=" all ", use_bit=" all - free ", free_bit=" free ", free_rate=" rate "%\r\n".
template <unsigned int N>
Stack_message<N>& append_bits_end(Stack_message<N>& line, unsigned long all, unsigned long free) {
  line.text(", all_bit=").dec(all).text(", use_bit=").dec(all - free).text(", free_bit=").dec(free);
  return append_free_rate_end(line, free, all);
}

// ", byte_size=" bytes ", bit_size=" bits ", count_num=" count "\r\n": the end of a line naming
// one run of blocks or pages.
template <unsigned int N>
Stack_message<N>& append_run_end(Stack_message<N>& line, unsigned long byte_size, unsigned long bit_size,
                                 unsigned long count) {
  return line.text(", byte_size=").dec(byte_size).text(", bit_size=").dec(bit_size).text(", count_num=").dec(count).end_line();
}

}  // namespace quorla
