// Allocates 4 KiB blocks, writing each, until the count given (default 200, ~800 KiB).
// Used to show where the start-up heap ends when nothing else serves.
#include <cstdio>
#include <cstdlib>
#include <cstring>

int main(int argc, char** argv) {
  int count = argc > 1 ? atoi(argv[1]) : 200;
  for (int i = 0; i < count; ++i) {
    void* block = malloc(4000);
    if (block == nullptr) return 2;
    memset(block, i & 255, 4000);
  }
  printf("allocated %d blocks\n", count);
  return 0;
}
