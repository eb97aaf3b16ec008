// Thread identity is the pthread_self() value everywhere. On x86-64 glibc that value is the
// thread control block's self pointer at %fs:0x10, so the hot paths read it with one move
// instead of a call. Start-up checks once that both agree (verify_thread_self()).
#pragma once

#include "foundation/quorla_base.h"

namespace quorla {

QUORLA_INLINE unsigned long thread_self() {
  unsigned long self;
  asm("mov %%fs:0x10, %0" : "=r"(self));
  return self;
}

// Aborts with a message when thread_self() differs from pthread_self().
void verify_thread_self();

}  // namespace quorla
