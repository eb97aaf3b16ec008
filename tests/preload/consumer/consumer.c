/* A C program built against the installed package: its malloc must be the allocator's
 * (a 100-byte request takes a 112-byte block, which C libraries do not hand out) and the
 * quorla_ names of the header must link. Prints "ours" and exits 0, else says why. */
#include <malloc.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <quorlamalloc.h>

int main(void) {
  void* block = malloc(100);
  if (block == NULL || malloc_usable_size(block) != 112 || quorla_get_malloc_size(block) != 112) {
    printf("malloc(100) answers %zu, not the allocator's 112\n", block ? malloc_usable_size(block) : 0);
    return 1;
  }
  free(block);
  if (mallopt(QUORLA_MALLOPT_ENABLE_PAGE_PREFAULT, 0) != 1) {
    printf("mallopt does not know its own parameter\n");
    return 1;
  }
  void* twin = quorla_malloc(3000);
  if (quorla_get_malloc_size(twin) != 3072) return 1;
  quorla_free(twin);
  printf("ours\n");
  return 0;
}
