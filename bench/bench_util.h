// Shared helpers of the workload programs: "--name=value" flags with defaults and --help,
// a small fast random generator, size distributions, block stamping and the final report.
//
// Every workload calls only malloc/free/realloc (and whatever the C++ runtime calls through
// them), so the same binary measures any allocator put in front of libc with LD_PRELOAD.
// The programs are built with -fno-builtin so that the compiler cannot fold or drop a
// malloc/free pair. Each prints a checksum of the data it wrote and read, so the work cannot
// be optimised away, and exits non-zero when a block's contents were not what it wrote
// (an allocator that hands out overlapping or corrupted blocks fails loudly, not silently).
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace bench {

class Flags {
 public:
  Flags(int argc, char** argv, const char* description) : description_(description) {
    program_ = argc > 0 ? argv[0] : "bench";
    for (int i = 1; i < argc; ++i) {
      std::string arg = argv[i];
      if (arg == "--help" || arg == "-h") {
        help_ = true;
        continue;
      }
      if (arg.rfind("--", 0) != 0 || arg.find('=') == std::string::npos) {
        std::fprintf(stderr, "%s: bad argument '%s' (expected --name=value)\n", program_, argv[i]);
        std::exit(2);
      }
      size_t eq = arg.find('=');
      given_.push_back({arg.substr(2, eq - 2), arg.substr(eq + 1), false});
    }
  }

  long get(const char* name, long fallback, const char* meaning) {
    usage_ += "  --" + std::string(name) + "=" + std::to_string(fallback) + "  " + meaning + "\n";
    for (Given& g : given_) {
      if (g.name == name) {
        g.used = true;
        char* end = nullptr;
        long value = std::strtol(g.value.c_str(), &end, 0);
        if (end == g.value.c_str()) bad_value(g);
        // Accept K/M/G suffixes for sizes and counts.
        if (*end == 'k' || *end == 'K') value <<= 10, ++end;
        else if (*end == 'm' || *end == 'M') value <<= 20, ++end;
        else if (*end == 'g' || *end == 'G') value <<= 30, ++end;
        if (*end != '\0' || value < 0) bad_value(g);
        return value;
      }
    }
    return fallback;
  }

  // Call after every get(): prints the usage for --help, rejects flags nobody asked for.
  void done() {
    if (help_) {
      std::printf("%s: %s\nFlags (defaults shown; sizes take K/M/G):\n%s", program_, description_,
                  usage_.c_str());
      std::exit(0);
    }
    for (const Given& g : given_) {
      if (!g.used) {
        std::fprintf(stderr, "%s: unknown flag --%s (try --help)\n", program_, g.name.c_str());
        std::exit(2);
      }
    }
  }

 private:
  struct Given {
    std::string name;
    std::string value;
    bool used;
  };
  [[noreturn]] void bad_value(const Given& g) {
    std::fprintf(stderr, "%s: bad value '%s' for --%s\n", program_, g.value.c_str(), g.name.c_str());
    std::exit(2);
  }
  const char* program_;
  const char* description_;
  std::vector<Given> given_;
  std::string usage_;
  bool help_ = false;
};

// xoshiro-like quality is not needed: xorshift64* is fast and good enough for sizes and slots.
class Random {
 public:
  explicit Random(uint64_t seed) : state_(seed * 0x9E3779B97F4A7C15ull + 0x2545F4914F6CDD1Dull) {
    if (state_ == 0) state_ = 1;
  }
  uint64_t next() {
    state_ ^= state_ >> 12;
    state_ ^= state_ << 25;
    state_ ^= state_ >> 27;
    return state_ * 0x2545F4914F6CDD1Dull;
  }
  // Uniform in [0, bound).
  uint64_t below(uint64_t bound) { return bound ? next() % bound : 0; }
  // Uniform in [lo, hi].
  uint64_t between(uint64_t lo, uint64_t hi) { return lo + below(hi - lo + 1); }
  // Log-uniform in [lo, hi]: every power-of-two band is as likely as any other, so small
  // sizes dominate counts while large ones still appear, as in real programs.
  size_t size_between(size_t lo, size_t hi) {
    if (lo >= hi) return lo;
    int lo_bit = 63 - __builtin_clzll(lo);
    int hi_bit = 63 - __builtin_clzll(hi);
    int bit = lo_bit + static_cast<int>(below(static_cast<uint64_t>(hi_bit - lo_bit + 1)));
    size_t band_lo = size_t{1} << bit;
    size_t band_hi = (band_lo << 1) - 1;
    if (band_lo < lo) band_lo = lo;
    if (band_hi > hi) band_hi = hi;
    return between(band_lo, band_hi);
  }

 private:
  uint64_t state_;
};

// A block is stamped at its first and last byte with a tag derived from its size; the stamp is
// checked before the block is freed. Cheap, touches the block's ends (as real code would), and
// catches blocks that overlap or were handed out twice.
inline unsigned char tag_of(size_t size, uint64_t salt) {
  return static_cast<unsigned char>((size * 131u + salt * 7u) | 1u);
}
inline void stamp(void* p, size_t size, uint64_t salt) {
  unsigned char* b = static_cast<unsigned char*>(p);
  b[0] = tag_of(size, salt);
  b[size - 1] = tag_of(size, salt);
}

inline std::atomic<long>& failures() {
  static std::atomic<long> count{0};
  return count;
}

// Returns a value to fold into the checksum; counts (and reports the first few) mismatches.
inline uint64_t check(const void* p, size_t size, uint64_t salt) {
  const unsigned char* b = static_cast<const unsigned char*>(p);
  unsigned char want = tag_of(size, salt);
  if (b[0] != want || b[size - 1] != want) {
    if (failures().fetch_add(1) < 5) {
      std::fprintf(stderr, "corrupt block %p size %zu: ends %02x/%02x, expected %02x\n", p, size,
                   b[0], b[size - 1], want);
    }
  }
  return static_cast<uint64_t>(b[0]) + b[size - 1] + size;
}

inline void* must_malloc(size_t size) {
  void* p = std::malloc(size);
  if (p == nullptr) {
    std::fprintf(stderr, "malloc(%zu) returned NULL\n", size);
    std::exit(3);
  }
  return p;
}

class Stopwatch {
 public:
  Stopwatch() : start_(std::chrono::steady_clock::now()) {}
  double seconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  }

 private:
  std::chrono::steady_clock::time_point start_;
};

// Runs work(t) on `threads` threads at once and returns the sum of their results.
template <class Work>
uint64_t run_threads(long threads, Work work) {
  std::vector<uint64_t> sums(static_cast<size_t>(threads), 0);
  std::vector<std::thread> pool;
  for (long t = 0; t < threads; ++t) {
    pool.emplace_back([&sums, &work, t] { sums[static_cast<size_t>(t)] = work(t); });
  }
  uint64_t total = 0;
  for (long t = 0; t < threads; ++t) {
    pool[static_cast<size_t>(t)].join();
    total += sums[static_cast<size_t>(t)];
  }
  return total;
}

// The last line every workload prints; non-zero exit when any block came back altered.
inline int finish(const char* name, uint64_t checksum, double seconds, uint64_t operations) {
  std::printf("%s: checksum=%llu ops=%llu seconds=%.3f mops_per_s=%.3f\n", name,
              static_cast<unsigned long long>(checksum), static_cast<unsigned long long>(operations),
              seconds, seconds > 0 ? operations / seconds / 1e6 : 0.0);
  long bad = failures().load();
  if (bad != 0) {
    std::fprintf(stderr, "%s: %ld corrupt blocks\n", name, bad);
    return 1;
  }
  return 0;
}

}  // namespace bench
