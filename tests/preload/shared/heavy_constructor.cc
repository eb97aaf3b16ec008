// A library whose constructor asks for far more than the before-init heap holds (about
// 1.4 MB in 3000 blocks and one of 600 KB), and on the way starts a thread that allocates and
// forks a child that allocates. Loaded with the allocator, preloaded or linked, all of it must
// be served by the real tiers: the allocator's start-up has to come before this constructor.
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

extern "C" char end;  // the end of the program's data: the break starts above it

namespace {

constexpr int k_blocks = 3000;
constexpr size_t k_big_byte = 600000;
unsigned char* g_blocks[k_blocks];
unsigned char* g_big = nullptr;
bool g_thread_ok = false;
bool g_child_ok = false;
int g_child_blocks_in_break = -1;

size_t block_byte(int i) { return 16 + (i * 37) % 900; }

bool in_break_area(const void* ptr) { return ptr > static_cast<const void*>(&end) && ptr < sbrk(0); }

void* thread_allocates(void*) {
  void* kept[500];
  bool ok = true;
  for (int i = 0; i < 500; ++i) {
    kept[i] = malloc(block_byte(i));
    memset(kept[i], 0x5A, block_byte(i));
  }
  for (int i = 0; i < 500; ++i) {
    const unsigned char* p = static_cast<const unsigned char*>(kept[i]);
    ok = ok && p[0] == 0x5A && p[block_byte(i) - 1] == 0x5A;
    free(kept[i]);
  }
  return ok ? kept[0] : nullptr;  // only compared with null
}

// The child's exit status: 255 when a block lost its contents, else how many of its blocks lie
// in the break area.
bool child_allocates() {
  pid_t child = fork();
  if (child == 0) {
    bool ok = true;
    int in_break = 0;
    for (int i = 0; i < 200; ++i) {
      unsigned char* p = static_cast<unsigned char*>(malloc(5000 + i));
      memset(p, i, 5000 + i);
      ok = ok && p[4999 + i] == static_cast<unsigned char>(i);
      in_break += in_break_area(p) ? 1 : 0;
      if (i % 2 == 0) free(p);
    }
    _exit(ok ? in_break : 255);
  }
  int status = 0;
  if (child <= 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status) || WEXITSTATUS(status) == 255) {
    return false;
  }
  g_child_blocks_in_break = WEXITSTATUS(status);
  return true;
}

__attribute__((constructor)) void allocate_heavily() {
  for (int i = 0; i < k_blocks; ++i) {
    g_blocks[i] = static_cast<unsigned char*>(malloc(block_byte(i)));
    memset(g_blocks[i], i & 0xFF, block_byte(i));
    if (i == k_blocks / 2) {
      pthread_t thread;
      void* result = nullptr;
      g_thread_ok = pthread_create(&thread, nullptr, thread_allocates, nullptr) == 0 &&
                    pthread_join(thread, &result) == 0 && result != nullptr;
      g_child_ok = child_allocates();
    }
  }
  g_big = static_cast<unsigned char*>(malloc(k_big_byte));
  memset(g_big, 0xC3, k_big_byte);
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) bool heavy_thread_and_child_ok() { return g_thread_ok && g_child_ok; }

// Counts the constructor's blocks (its own and its child's) that lie in the break area, where
// the allocator's before-init heap is (and where the C library's malloc serves small blocks).
__attribute__((visibility("default"))) int heavy_blocks_in_start_up_heap() {
  int count = (in_break_area(g_big) ? 1 : 0) + g_child_blocks_in_break;
  for (int i = 0; i < k_blocks; ++i) count += in_break_area(g_blocks[i]) ? 1 : 0;
  return count;
}

__attribute__((visibility("default"))) bool heavy_blocks_intact() {
  for (int i = 0; i < k_blocks; ++i) {
    for (size_t j = 0; j < block_byte(i); ++j) {
      if (g_blocks[i][j] != (i & 0xFF)) return false;
    }
  }
  for (size_t j = 0; j < k_big_byte; ++j) {
    if (g_big[j] != 0xC3) return false;
  }
  return true;
}

__attribute__((visibility("default"))) void heavy_free_all() {
  for (int i = 0; i < k_blocks; ++i) free(g_blocks[i]);
  free(g_big);
}
}
