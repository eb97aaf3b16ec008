// False sharing (after Hoard's cache-thrash and cache-scratch): threads repeatedly allocate a
// small block, write every byte of it many times, and free it. An allocator that places blocks
// of different threads on one cache line makes the lines bounce between cores, which shows as
// wall time, not as allocator time. With --passive=1 (the default) the main thread first
// allocates one small block per thread back to back and each thread starts by freeing its
// block: an allocator that then reuses that block for the thread's own requests keeps the
// threads on one cache line.
#include <thread>

#include "bench_util.h"

namespace {

struct Config {
  long iterations;
  long size;
  long writes;
};

uint64_t worker(const Config& c, void* inherited) {
  if (inherited != nullptr) std::free(inherited);
  uint64_t sum = 0;
  for (long it = 0; it < c.iterations; ++it) {
    // volatile: each write must reach the cache line, as a real counter update would.
    volatile unsigned char* p = static_cast<volatile unsigned char*>(
        bench::must_malloc(static_cast<size_t>(c.size)));
    // Start from zero so the checksum does not depend on what the allocator left in the block.
    for (long b = 0; b < c.size; ++b) p[b] = 0;
    for (long w = 0; w < c.writes; ++w) {
      for (long b = 0; b < c.size; ++b) p[b] = static_cast<unsigned char>(p[b] + 1 + w);
    }
    sum += p[0] + p[c.size - 1];
    std::free(const_cast<unsigned char*>(p));
  }
  return sum;
}

}  // namespace

int main(int argc, char** argv) {
  bench::Flags flags(argc, argv, "threads writing hard to small blocks of their own");
  Config c;
  long threads = flags.get("threads", 4, "writer threads");
  c.iterations = flags.get("iterations", 100000, "malloc/write/free rounds per thread");
  c.size = flags.get("size", 8, "block size in bytes");
  c.writes = flags.get("writes", 500, "passes over the block per round");
  long passive = flags.get("passive", 1, "1: start each thread by freeing a block the main thread allocated");
  flags.done();
  if (threads < 1 || c.size < 1 || c.iterations < 1) {
    std::fprintf(stderr, "false_sharing: bad flags\n");
    return 2;
  }

  bench::Stopwatch clock;
  std::vector<void*> inherited(static_cast<size_t>(threads), nullptr);
  if (passive != 0) {
    for (void*& p : inherited) {
      p = bench::must_malloc(static_cast<size_t>(c.size));
      std::memset(p, 0, static_cast<size_t>(c.size));
    }
  }
  const uint64_t checksum = bench::run_threads(threads, [&](long t) { return worker(c, inherited[static_cast<size_t>(t)]); });
  return bench::finish("false_sharing", checksum, clock.seconds(),
                       static_cast<uint64_t>(threads * c.iterations * c.writes * c.size));
}
