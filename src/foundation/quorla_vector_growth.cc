#include "foundation/quorla_vector_growth.h"

#include "foundation/quorla_stack_message.h"

namespace quorla {

void vector_report_max_size(const char* text, unsigned int uint_in, unsigned long ulong_return, unsigned int size,
                            unsigned int capacity, const char* file, unsigned int line) {
  Stack_message<1024>()
      .text(text)
      .dec(uint_in)
      .text(", ulong_return=")
      .dec(ulong_return)
      .text(", size()=")
      .dec(size)
      .text(", capacity()=")
      .dec(capacity)
      .source(file, line, "get_new_capacity")
      .write();
}

void vector_report_allocation_failed(const char* text, unsigned int capacity, const char* file, unsigned int line,
                                     const char* func) {
  Stack_message<1024>().text(text).dec(capacity).source(file, line, func).write();
}

}  // namespace quorla
