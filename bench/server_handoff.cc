// Server hand-off (after the Larson benchmark): each of N chains holds a working set of small
// blocks. A worker thread of the chain replaces random blocks for a while, then starts its
// successor, hands it the working set and exits. The successor frees blocks that its
// predecessors allocated (whose owning thread is gone) and allocates its own, as a server's
// worker threads do when connections migrate between them.
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include "bench_util.h"

namespace {

struct Slot {
  void* p;
  size_t size;
};

struct Config {
  long rounds;
  long ops;
  long slots;
  long min_size;
  long max_size;
};

struct Chain {
  std::vector<Slot> slots;
  uint64_t sum = 0;
  uint64_t seed = 0;
};

// Threads to be joined by the main thread: a worker that starts its successor hands the
// successor's handle over here, so that no thread is left detached and every exit is joined.
class JoinQueue {
 public:
  void push(std::thread t) {
    std::lock_guard<std::mutex> lock(mutex_);
    threads_.push_back(std::move(t));
    ready_.notify_one();
  }
  std::thread pop() {
    std::unique_lock<std::mutex> lock(mutex_);
    ready_.wait(lock, [&] { return !threads_.empty(); });
    std::thread t = std::move(threads_.front());
    threads_.pop_front();
    return t;
  }

 private:
  std::mutex mutex_;
  std::condition_variable ready_;
  std::deque<std::thread> threads_;
};

void work(const Config& c, Chain* chain, long round, JoinQueue* joins) {
  bench::Random rng(chain->seed * 1000003u + static_cast<uint64_t>(round));
  for (long op = 0; op < c.ops; ++op) {
    size_t i = static_cast<size_t>(rng.below(chain->slots.size()));
    Slot& s = chain->slots[i];
    chain->sum += bench::check(s.p, s.size, chain->seed);
    std::free(s.p);
    s.size = rng.size_between(static_cast<size_t>(c.min_size), static_cast<size_t>(c.max_size));
    s.p = bench::must_malloc(s.size);
    bench::stamp(s.p, s.size, chain->seed);
  }
  if (round + 1 < c.rounds) {
    // Hand the working set on: this thread writes nothing to the chain after this point.
    joins->push(std::thread(work, std::cref(c), chain, round + 1, joins));
  }
}

}  // namespace

int main(int argc, char** argv) {
  bench::Flags flags(argc, argv, "worker threads taking over and freeing blocks of earlier workers");
  Config c;
  long chains = flags.get("threads", 4, "concurrent workers (one per chain)");
  c.rounds = flags.get("rounds", 40, "workers in each chain, one after the other");
  c.ops = flags.get("ops", 100000, "free+malloc steps per worker");
  c.slots = flags.get("slots", 10000, "blocks in each chain's working set");
  c.min_size = flags.get("min-size", 8, "smallest block in bytes");
  c.max_size = flags.get("max-size", 512, "largest block in bytes");
  flags.done();
  if (chains < 1 || c.rounds < 1 || c.slots < 1 || c.min_size < 2 || c.max_size < c.min_size) {
    std::fprintf(stderr, "server_handoff: bad flags\n");
    return 2;
  }

  bench::Stopwatch clock;
  // The first working sets are allocated by the main thread: the first workers already free
  // blocks of another thread.
  std::vector<Chain> all(static_cast<size_t>(chains));
  for (long k = 0; k < chains; ++k) {
    Chain& chain = all[static_cast<size_t>(k)];
    chain.seed = static_cast<uint64_t>(k) + 1;
    bench::Random rng(chain.seed);
    chain.slots.resize(static_cast<size_t>(c.slots));
    for (Slot& s : chain.slots) {
      s.size = rng.size_between(static_cast<size_t>(c.min_size), static_cast<size_t>(c.max_size));
      s.p = bench::must_malloc(s.size);
      bench::stamp(s.p, s.size, chain.seed);
    }
  }
  JoinQueue joins;
  for (long k = 0; k < chains; ++k) {
    joins.push(std::thread(work, std::cref(c), &all[static_cast<size_t>(k)], 0L, &joins));
  }
  // Every worker but the last of a chain pushes its successor before it ends, so exactly
  // chains * rounds handles pass through the queue.
  for (long n = 0; n < chains * c.rounds; ++n) joins.pop().join();

  uint64_t checksum = 0;
  for (Chain& chain : all) {
    checksum += chain.sum;
    for (Slot& s : chain.slots) {
      checksum += bench::check(s.p, s.size, chain.seed);
      std::free(s.p);
    }
  }
  return bench::finish("server_handoff", checksum, clock.seconds(),
                       static_cast<uint64_t>(chains * c.rounds * c.ops));
}
