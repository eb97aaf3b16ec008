// Block fill and copy that take the page faults in address order first, the cache-line
// flush, and the allocation-free file read used under /sys.
#pragma once

#include "foundation/quorla_base.h"

namespace quorla {

// Writes c to one byte of each 4096-byte step from p, then memset. Nothing for n == 0.
void quorla_memset(void* p, int c, unsigned long n);
// Writes 0 to one byte of each 4096-byte step of d, then memcpy.
void quorla_memcpy(void* d, const void* s, unsigned long n);
// sfence, clflush of each 64-byte line the block touches, lfence.
void memory_flush_invalid_cache(const void* ptr, unsigned long size);
// Reads at most size - 1 bytes into out (not terminated after the read; out[0] is set to 0
// first). True if at least one byte was read. Allocates nothing.
bool file_to_chars(const char* path, unsigned long size, char* out);

}  // namespace quorla
