// A library that allocates in its initialiser, before the allocator it is loaded with has
// started, and again in its finaliser, after that allocator has shut down. Its initialiser
// runs first because it is linked with -z initfirst and loaded after the allocator (the
// loader honours the last object so marked); its finaliser runs last because the program
// needs it and the allocator is preloaded before it.
#include <unistd.h>

#include <cstdlib>
#include <cstring>

extern "C" char end;  // the end of the program's data: the break starts above it

namespace {

constexpr int k_blocks = 8;
unsigned char* g_early[k_blocks];
// Real blocks kept by the program until this finaliser, with their size and fill byte.
struct Kept_block {
  void* ptr;
  size_t byte;
  unsigned char fill;
};
Kept_block g_late_real_blocks[3];
int g_late_real_count = 0;
bool g_early_in_break = true;

bool in_break_area(const void* ptr) {
  return ptr > static_cast<const void*>(&end) && ptr < sbrk(0);
}

void say(const char* text) {
  ssize_t ignored = write(1, text, strlen(text));
  (void)ignored;
}

__attribute__((constructor)) void allocate_early() {
  for (int i = 0; i < k_blocks; ++i) {
    g_early[i] = static_cast<unsigned char*>(malloc(100 + i * 50));
    memset(g_early[i], 0xA0 + i, 100 + i * 50);
    g_early_in_break = g_early_in_break && in_break_area(g_early[i]);
  }
}

__attribute__((destructor)) void allocate_late() {
  // The allocator has shut down. Resizing a real block keeps its contents (a small block, a
  // page block, a large block kept in place); freeing one is ignored; a request is served by
  // the start-up heap.
  bool kept = g_late_real_count == 3;
  for (int i = 0; i < g_late_real_count; ++i) {
    Kept_block& block = g_late_real_blocks[i];
    const size_t new_byte = block.byte < 2000000 ? block.byte * 3 : block.byte / 2;
    auto* moved = static_cast<unsigned char*>(realloc(block.ptr, new_byte));
    const size_t check_byte = new_byte < block.byte ? new_byte : block.byte;
    for (size_t j = 0; moved != nullptr && j < check_byte; ++j) kept = kept && moved[j] == block.fill;
    kept = kept && moved != nullptr;
    free(moved);
  }
  say(kept ? "late realloc keeps the contents\n" : "late realloc lost the contents\n");
  void* late = malloc(100);
  say(late != nullptr && in_break_area(late) ? "late malloc from the start-up heap\n" : "late malloc elsewhere\n");
  memset(late, 1, 100);
  free(late);
  say("finaliser done\n");
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) bool early_blocks_were_from_the_start_up_heap() { return g_early_in_break; }

__attribute__((visibility("default"))) bool early_blocks_intact() {
  for (int i = 0; i < k_blocks; ++i) {
    for (int j = 0; j < 100 + i * 50; ++j) {
      if (g_early[i][j] != 0xA0 + i) return false;
    }
  }
  return true;
}

__attribute__((visibility("default"))) void free_early_blocks() {
  for (int i = k_blocks - 1; i >= 0; --i) free(g_early[i]);
}

__attribute__((visibility("default"))) void keep_until_exit(void* real_block, size_t byte, unsigned char fill) {
  if (g_late_real_count < 3) g_late_real_blocks[g_late_real_count++] = Kept_block{real_block, byte, fill};
}

__attribute__((visibility("default"))) bool is_in_start_up_heap(const void* ptr) { return in_break_area(ptr); }
}
