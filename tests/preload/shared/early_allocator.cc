// A library that allocates in its initialiser, before the allocator it is loaded with has
// started, and again in its finaliser, after that allocator has shut down. Its initialiser
// runs first and its finaliser last because the program needs it and the allocator is
// preloaded before it.
#include <unistd.h>

#include <cstdlib>
#include <cstring>

extern "C" char end;  // the end of the program's data: the break starts above it

namespace {

constexpr int k_blocks = 8;
unsigned char* g_early[k_blocks];
void* g_late_real_block = nullptr;
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
  // The allocator has shut down: a real block is ignored, a request is served by the
  // start-up heap.
  free(g_late_real_block);
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

__attribute__((visibility("default"))) void keep_until_exit(void* real_block) { g_late_real_block = real_block; }

__attribute__((visibility("default"))) bool is_in_start_up_heap(const void* ptr) { return in_break_area(ptr); }
}
