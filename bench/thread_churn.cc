// Thread churn: short-lived threads are created and ended continually, a few at a time. Each
// allocates a handful of blocks, frees blocks that earlier (by now ended) threads left in a
// shared pool, and leaves its own blocks behind in the pool when it ends. This stresses
// thread-heap creation and teardown and the adoption of blocks whose owner has exited.
#include <mutex>
#include <thread>

#include "bench_util.h"

namespace {

struct Block {
  void* p;
  size_t size;
};

struct Config {
  long blocks;
  long min_size;
  long max_size;
  long pool_limit;
};

struct Shared {
  std::mutex mutex;
  std::vector<Block> pool;
  uint64_t sum = 0;
};

void short_life(const Config& c, Shared* shared, long index) {
  bench::Random rng(static_cast<uint64_t>(index) + 17);
  std::vector<Block> mine;
  mine.reserve(static_cast<size_t>(c.blocks));
  uint64_t sum = 0;
  // Some work that is private to the thread: blocks allocated and freed before it ends.
  for (long i = 0; i < c.blocks; ++i) {
    size_t size = rng.size_between(static_cast<size_t>(c.min_size), static_cast<size_t>(c.max_size));
    void* p = bench::must_malloc(size);
    bench::stamp(p, size, 0);
    mine.push_back(Block{p, size});
  }
  for (long i = 0; i < c.blocks / 2; ++i) {
    sum += bench::check(mine.back().p, mine.back().size, 0);
    std::free(mine.back().p);
    mine.pop_back();
  }
  // Take over as many blocks of earlier threads as the pool is over its limit, leave the rest.
  std::vector<Block> adopted;
  {
    std::lock_guard<std::mutex> lock(shared->mutex);
    shared->pool.insert(shared->pool.end(), mine.begin(), mine.end());
    while (static_cast<long>(shared->pool.size()) > c.pool_limit) {
      // Take from a random position, so blocks of many different dead threads are mixed.
      size_t k = static_cast<size_t>(rng.below(shared->pool.size()));
      adopted.push_back(shared->pool[k]);
      shared->pool[k] = shared->pool.back();
      shared->pool.pop_back();
    }
  }
  for (const Block& b : adopted) {
    sum += bench::check(b.p, b.size, 0);
    std::free(b.p);
  }
  std::lock_guard<std::mutex> lock(shared->mutex);
  shared->sum += sum;
}

}  // namespace

int main(int argc, char** argv) {
  bench::Flags flags(argc, argv, "short-lived threads leaving blocks behind for later threads");
  Config c;
  long total = flags.get("total-threads", 6000, "threads created over the whole run");
  long concurrent = flags.get("threads", 4, "threads alive at a time");
  c.blocks = flags.get("blocks", 400, "blocks each thread allocates (half stay behind)");
  c.min_size = flags.get("min-size", 8, "smallest block in bytes");
  c.max_size = flags.get("max-size", 2048, "largest block in bytes");
  c.pool_limit = flags.get("pool", 20000, "blocks left behind in the shared pool at most");
  flags.done();
  if (total < 1 || concurrent < 1 || c.blocks < 1 || c.min_size < 2 || c.max_size < c.min_size) {
    std::fprintf(stderr, "thread_churn: bad flags\n");
    return 2;
  }

  bench::Stopwatch clock;
  Shared shared;
  // A ring of live threads: the oldest is joined before a new one is started in its place.
  std::vector<std::thread> ring(static_cast<size_t>(concurrent));
  for (long n = 0; n < total; ++n) {
    std::thread& slot = ring[static_cast<size_t>(n % concurrent)];
    if (slot.joinable()) slot.join();
    slot = std::thread(short_life, std::cref(c), &shared, n);
  }
  for (std::thread& t : ring) {
    if (t.joinable()) t.join();
  }
  uint64_t checksum = shared.sum;
  for (const Block& b : shared.pool) {
    checksum += bench::check(b.p, b.size, 0);
    std::free(b.p);
  }
  return bench::finish("thread_churn", checksum, clock.seconds(),
                       static_cast<uint64_t>(total * c.blocks));
}
