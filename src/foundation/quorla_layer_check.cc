#include "foundation/quorla_layer_check.h"

#if QUORLA_CHECK_LAYERS

#include "foundation/quorla_stack_message.h"

namespace quorla {

__thread unsigned char g_uchar_layer_below_entry = 0;

void layer_check_fail(unsigned int entered, unsigned int current) {
  Stack_message<128> message;
  message.text("Error: allocator layer ").dec(entered).text(" entered from layer ").dec(current).text(".\r\n");
  message.write_and_abort();
}

}  // namespace quorla

#endif
