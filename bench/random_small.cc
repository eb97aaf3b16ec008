// Long-lived server mix: every thread keeps a working set of small blocks and replaces a random
// one at each step, freeing the old block and allocating a new one of a random (log-uniform)
// size. A fraction of the slots is long-lived and replaced only rarely, so the heap stays
// fragmented the way a server's heap does after hours of uptime.
#include <thread>

#include "bench_util.h"

namespace {

struct Slot {
  void* p;
  size_t size;
};

struct Config {
  long ops;
  long slots;
  long min_size;
  long max_size;
  long long_lived_percent;
};

uint64_t worker(const Config& c, int index) {
  bench::Random rng(static_cast<uint64_t>(index) + 1);
  std::vector<Slot> slots(static_cast<size_t>(c.slots), Slot{nullptr, 0});
  // The first long_lived_percent of the slots are replaced 1/64 as often as the others.
  const size_t long_lived = static_cast<size_t>(c.slots * c.long_lived_percent / 100);
  uint64_t sum = 0;
  for (long op = 0; op < c.ops; ++op) {
    size_t i = static_cast<size_t>(rng.below(static_cast<uint64_t>(c.slots)));
    if (i < long_lived && (rng.next() & 63) != 0) {
      i = long_lived + static_cast<size_t>(rng.below(static_cast<uint64_t>(c.slots) - long_lived));
    }
    Slot& s = slots[i];
    if (s.p != nullptr) {
      sum += bench::check(s.p, s.size, i);
      std::free(s.p);
    }
    s.size = rng.size_between(static_cast<size_t>(c.min_size), static_cast<size_t>(c.max_size));
    s.p = bench::must_malloc(s.size);
    bench::stamp(s.p, s.size, i);
  }
  for (size_t i = 0; i < slots.size(); ++i) {
    if (slots[i].p != nullptr) {
      sum += bench::check(slots[i].p, slots[i].size, i);
      std::free(slots[i].p);
    }
  }
  return sum;
}

}  // namespace

int main(int argc, char** argv) {
  bench::Flags flags(argc, argv, "threads replacing random small blocks in a long-lived working set");
  Config c;
  long threads = flags.get("threads", 4, "worker threads");
  c.ops = flags.get("ops", 3000000, "free+malloc steps per thread");
  c.slots = flags.get("slots", 20000, "live blocks per thread");
  c.min_size = flags.get("min-size", 8, "smallest block in bytes");
  c.max_size = flags.get("max-size", 1024, "largest block in bytes");
  c.long_lived_percent = flags.get("long-lived", 25, "percent of slots replaced rarely");
  flags.done();
  if (threads < 1 || c.slots < 1 || c.min_size < 2 || c.max_size < c.min_size || c.long_lived_percent > 99) {
    std::fprintf(stderr, "random_small: bad flags\n");
    return 2;
  }

  bench::Stopwatch clock;
  const uint64_t checksum = bench::run_threads(threads, [&](long t) { return worker(c, static_cast<int>(t)); });
  return bench::finish("random_small", checksum, clock.seconds(),
                       static_cast<uint64_t>(threads * c.ops));
}
