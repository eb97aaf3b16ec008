// Instruction counts of malloc+free pairs, for bench/instructions. Allocator-neutral: the
// allocator is whatever LD_PRELOAD puts in front of libc. Run it under
//   valgrind --tool=callgrind --collect-atstart=no
// It counts the same loop twice, once `short_count` and once `long_count` pairs long, and
// dumps callgrind's totals after each ("short", then "long"); the difference divided by the
// difference of the lengths is the cost of one pair, the loop's own few instructions
// included, with every one-time cost cancelled out. Outside callgrind it only runs the loops.
//
// Cases (argv[1]):
//   main64    main thread, 64-byte blocks, two live blocks of the class
//   thread64  the same on a second thread
//   main128   main thread, 128 bytes, nothing else live in the class
//   main512   main thread, 512 bytes, nothing else live in the class
//   cross64   64-byte blocks taken by the main thread in batches of 64 and freed by another
//             thread; the pair's cost includes the owner's share of bringing them home
// Built with -fno-builtin: every malloc and free below is a real call.
#include <pthread.h>
#include <semaphore.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#else
#define CALLGRIND_TOGGLE_COLLECT
#define CALLGRIND_ZERO_STATS
#define CALLGRIND_DUMP_STATS_AT(name) (void)(name)
#endif

namespace {

constexpr long k_short_count = 2000;
constexpr long k_long_count = 6000;
constexpr int k_batch = 64;

void* volatile g_sink;

__attribute__((noinline)) void pair_loop(size_t size, long count) {
  for (long i = 0; i < count; ++i) {
    void* block = malloc(size);
    g_sink = block;
    free(block);
  }
}

// Warms up, then counts the loop at both lengths on the calling thread.
void count_pairs(size_t size) {
  pair_loop(size, 100);
  CALLGRIND_ZERO_STATS;
  CALLGRIND_TOGGLE_COLLECT;
  pair_loop(size, k_short_count);
  CALLGRIND_TOGGLE_COLLECT;
  CALLGRIND_DUMP_STATS_AT("short");
  CALLGRIND_TOGGLE_COLLECT;
  pair_loop(size, k_long_count);
  CALLGRIND_TOGGLE_COLLECT;
  CALLGRIND_DUMP_STATS_AT("long");
}

// Two live blocks keep the class's piece from emptying when the loop's block comes back.
void count_pairs_with_two_live(size_t size) {
  void* live[2] = {malloc(size), malloc(size)};
  count_pairs(size);
  free(live[1]);
  free(live[0]);
}

void* thread64(void*) {
  count_pairs_with_two_live(64);
  return nullptr;
}

// Cross-thread: the main thread takes a batch, the freer frees it, strictly in turn. Each
// side switches counting on only around its own part, so the hand-over is not counted.
struct Cross {
  sem_t sem_taken;
  sem_t sem_freed;
  void* blocks[k_batch];
  long batches;
  bool collect;
};
Cross g_cross;

__attribute__((noinline)) void take_batch() {
  for (int i = 0; i < k_batch; ++i) {
    void* block = malloc(64);
    g_sink = block;
    g_cross.blocks[i] = block;
  }
}

__attribute__((noinline)) void free_batch() {
  for (int i = 0; i < k_batch; ++i) free(g_cross.blocks[i]);
}

void* cross_freer(void*) {
  for (;;) {
    sem_wait(&g_cross.sem_taken);
    if (g_cross.batches < 0) return nullptr;
    if (g_cross.collect) CALLGRIND_TOGGLE_COLLECT;
    free_batch();
    if (g_cross.collect) CALLGRIND_TOGGLE_COLLECT;
    sem_post(&g_cross.sem_freed);
  }
}

void run_cross_batches(long batches, bool collect) {
  g_cross.collect = collect;
  for (long i = 0; i < batches; ++i) {
    if (collect) CALLGRIND_TOGGLE_COLLECT;
    take_batch();
    if (collect) CALLGRIND_TOGGLE_COLLECT;
    sem_post(&g_cross.sem_taken);
    sem_wait(&g_cross.sem_freed);
  }
}

void count_cross() {
  void* live[2] = {malloc(64), malloc(64)};
  sem_init(&g_cross.sem_taken, 0, 0);
  sem_init(&g_cross.sem_freed, 0, 0);
  pthread_t freer;
  pthread_create(&freer, nullptr, cross_freer, nullptr);
  run_cross_batches(4, false);
  CALLGRIND_ZERO_STATS;
  run_cross_batches(k_short_count / k_batch, true);
  CALLGRIND_DUMP_STATS_AT("short");
  run_cross_batches(k_long_count / k_batch, true);
  CALLGRIND_DUMP_STATS_AT("long");
  g_cross.batches = -1;
  sem_post(&g_cross.sem_taken);
  pthread_join(freer, nullptr);
  // The last batch's frees come home at the next malloc of this thread.
  free(malloc(64));
  free(live[1]);
  free(live[0]);
}

}  // namespace

int main(int argc, char** argv) {
  const char* name = argc > 1 ? argv[1] : "";
  if (strcmp(name, "main64") == 0) {
    count_pairs_with_two_live(64);
  } else if (strcmp(name, "thread64") == 0) {
    pthread_t thread;
    pthread_create(&thread, nullptr, thread64, nullptr);
    pthread_join(thread, nullptr);
  } else if (strcmp(name, "main128") == 0) {
    // The process's first 128-byte request is served one class up; it happens in the warm-up.
    count_pairs(128);
  } else if (strcmp(name, "main512") == 0) {
    count_pairs(512);
  } else if (strcmp(name, "cross64") == 0) {
    count_cross();
  } else {
    fprintf(stderr, "usage: %s main64|thread64|main128|main512|cross64\n", argv[0]);
    return 2;
  }
  // Pairs counted between the two dumps, for the script.
  long pairs = k_long_count - k_short_count;
  if (strcmp(name, "cross64") == 0) pairs = (k_long_count / k_batch - k_short_count / k_batch) * k_batch;
  printf("pairs %ld\n", pairs);
  return 0;
}
