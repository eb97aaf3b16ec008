// A program that needs a library whose constructor allocates more than the before-init heap
// holds (shared/heavy_constructor.cc). It reports what that constructor got, reuses the
// freed memory, and writes its memory map to the file named by its argument.
#include <cstdio>
#include <cstdlib>
#include <cstring>

extern "C" {
bool heavy_thread_and_child_ok();
int heavy_blocks_in_start_up_heap();
bool heavy_blocks_intact();
void heavy_free_all();
}

int main(int argc, char** argv) {
  printf("constructor's thread and child: %s\n", heavy_thread_and_child_ok() ? "ok" : "failed");
  printf("constructor's blocks in the start-up heap: %d\n", heavy_blocks_in_start_up_heap());
  printf("constructor's blocks intact: %s\n", heavy_blocks_intact() ? "yes" : "no");
  heavy_free_all();
  unsigned long sum = 0;
  for (int i = 0; i < 4000; ++i) {
    unsigned char* p = static_cast<unsigned char*>(malloc(16 + i % 900));
    memset(p, 1, 16 + i % 900);
    sum += p[i % 16];
    free(p);
  }
  printf("blocks after the frees: %lu\n", sum);
  if (argc > 1) {
    FILE* in = fopen("/proc/self/maps", "r");
    FILE* out = fopen(argv[1], "w");
    if (in == nullptr || out == nullptr) return 2;
    char line[4096];
    while (fgets(line, sizeof(line), in) != nullptr) fputs(line, out);
    fclose(in);
    fclose(out);
  }
  return 0;
}
