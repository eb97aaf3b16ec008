// Start-up and shut-down seen from a program: memory handed out before the allocator
// started stays valid, the real tiers take over, and after shut-down the library it needs
// allocates and frees in its finaliser without harm.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

extern "C" {
bool early_blocks_were_from_the_start_up_heap();
bool early_blocks_intact();
void free_early_blocks();
void keep_until_exit(void* real_block, size_t byte, unsigned char fill);
bool is_in_start_up_heap(const void* ptr);
}

int main() {
  printf("early blocks from the start-up heap: %s\n", early_blocks_were_from_the_start_up_heap() ? "yes" : "no");
  // Work on the real tiers, on this thread and others, between the early allocations and
  // their check.
  std::vector<void*> blocks;
  for (int i = 0; i < 20000; ++i) {
    blocks.push_back(malloc(1 + i % 5000));
    memset(blocks.back(), 0x33, 1 + i % 5000);
  }
  std::thread([&] {
    for (void* block : blocks) free(block);
  }).join();
  void* real = malloc(100);
  printf("real block outside the start-up heap: %s\n", is_in_start_up_heap(real) ? "no" : "yes");
  printf("early blocks intact: %s\n", early_blocks_intact() ? "yes" : "no");
  free_early_blocks();
  // A small block, a page block and a large block, resized by the library's finaliser.
  memset(real, 0x44, 100);
  keep_until_exit(real, 100, 0x44);
  void* page = malloc(20000);
  memset(page, 0x55, 20000);
  keep_until_exit(page, 20000, 0x55);
  void* large = malloc(3000000);
  memset(large, 0x66, 3000000);
  keep_until_exit(large, 3000000, 0x66);
  fflush(stdout);
  return 0;
}
