// Large blocks and resizing: threads keep a few slots of page-size to multi-megabyte blocks and
// at each step either allocate a slot, free it, or realloc it to a new random size (growing or
// shrinking, up to a few MB by default). One byte of every page is written when a page first
// becomes part of a block, and the bytes a realloc must keep are checked afterwards, so page faults,
// mapping reuse and in-place versus copying resizes all show in the wall time.
#include <thread>

#include "bench_util.h"

namespace {

constexpr size_t kPage = 4096;

struct Slot {
  unsigned char* p;
  size_t size;
};

struct Config {
  long ops;
  long slots;
  long min_size;
  long max_size;
};

unsigned char page_tag(size_t page, uint64_t salt) {
  return static_cast<unsigned char>((page * 2654435761u + salt) | 1u);
}

// Writes the tag byte of each page in [from, size).
void touch(unsigned char* p, size_t from, size_t size, uint64_t salt) {
  for (size_t page = (from + kPage - 1) / kPage; page * kPage < size; ++page) {
    p[page * kPage] = page_tag(page, salt);
  }
}

// Checks the tag byte of each page in [0, size); returns a value to fold into the checksum.
uint64_t verify(const unsigned char* p, size_t size, uint64_t salt) {
  uint64_t sum = 0;
  for (size_t page = 0; page * kPage < size; ++page) {
    unsigned char want = page_tag(page, salt);
    unsigned char got = p[page * kPage];
    if (got != want && bench::failures().fetch_add(1) < 5) {
      std::fprintf(stderr, "large_resize: block %p size %zu page %zu holds %02x, expected %02x\n",
                   static_cast<const void*>(p), size, page, got, want);
    }
    sum += got;
  }
  return sum;
}

uint64_t worker(const Config& c, int index) {
  bench::Random rng(static_cast<uint64_t>(index) + 101);
  std::vector<Slot> slots(static_cast<size_t>(c.slots), Slot{nullptr, 0});
  uint64_t sum = 0;
  for (long op = 0; op < c.ops; ++op) {
    size_t i = static_cast<size_t>(rng.below(slots.size()));
    uint64_t salt = static_cast<uint64_t>(index) * 1000 + i;
    Slot& s = slots[i];
    size_t size = rng.size_between(static_cast<size_t>(c.min_size), static_cast<size_t>(c.max_size));
    if (s.p == nullptr) {
      s.p = static_cast<unsigned char*>(bench::must_malloc(size));
      s.size = size;
      touch(s.p, 0, size, salt);
    } else if (rng.below(4) == 0) {
      sum += verify(s.p, s.size, salt);
      std::free(s.p);
      s.p = nullptr;
      s.size = 0;
    } else {
      // Mostly moderate steps (x0.5 .. x2), sometimes a jump to an unrelated size.
      if (rng.below(4) != 0) {
        size = s.size / 2 + static_cast<size_t>(rng.below(s.size + s.size / 2));
        if (size < static_cast<size_t>(c.min_size)) size = static_cast<size_t>(c.min_size);
        if (size > static_cast<size_t>(c.max_size)) size = static_cast<size_t>(c.max_size);
      }
      void* q = std::realloc(s.p, size);
      if (q == nullptr) {
        std::fprintf(stderr, "realloc(%zu) returned NULL\n", size);
        std::exit(3);
      }
      size_t kept = size < s.size ? size : s.size;
      s.p = static_cast<unsigned char*>(q);
      sum += verify(s.p, kept, salt);
      touch(s.p, kept, size, salt);
      s.size = size;
    }
  }
  for (size_t i = 0; i < slots.size(); ++i) {
    if (slots[i].p != nullptr) {
      sum += verify(slots[i].p, slots[i].size, static_cast<uint64_t>(index) * 1000 + i);
      std::free(slots[i].p);
    }
  }
  return sum;
}

}  // namespace

int main(int argc, char** argv) {
  bench::Flags flags(argc, argv, "page-size to multi-MB blocks, grown and shrunk by realloc");
  Config c;
  long threads = flags.get("threads", 2, "worker threads");
  c.ops = flags.get("ops", 1000, "allocate/free/realloc steps per thread");
  c.slots = flags.get("slots", 8, "blocks each thread keeps");
  c.min_size = flags.get("min-size", 4096, "smallest block in bytes");
  c.max_size = flags.get("max-size", 4 << 20, "largest block in bytes");
  flags.done();
  if (threads < 1 || c.slots < 1 || c.min_size < 1 || c.max_size < c.min_size) {
    std::fprintf(stderr, "large_resize: bad flags\n");
    return 2;
  }

  bench::Stopwatch clock;
  const uint64_t checksum = bench::run_threads(threads, [&](long t) { return worker(c, static_cast<int>(t)); });
  return bench::finish("large_resize", checksum, clock.seconds(),
                       static_cast<uint64_t>(threads * c.ops));
}
