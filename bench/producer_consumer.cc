// Producer/consumer pairs: each producer allocates blocks and passes them, in batches, to its
// consumer, which reads and frees them. Every block is therefore freed by a thread other than
// the one that allocated it, the pattern of pipelines and message queues. The batch arrays
// themselves are malloc'd by the producer and freed by the consumer too.
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include "bench_util.h"

namespace {

struct Batch {
  void** blocks;
  size_t* sizes;
  long count;
};

// A bounded queue of batches; bounding it keeps the live memory (and so peak RSS) a property
// of the allocator, not of how far the producer got ahead.
class Channel {
 public:
  explicit Channel(size_t capacity) : capacity_(capacity) {}
  void push(Batch b) {
    std::unique_lock<std::mutex> lock(mutex_);
    not_full_.wait(lock, [&] { return queue_.size() < capacity_; });
    queue_.push_back(b);
    not_empty_.notify_one();
  }
  // Returns false once the producer has closed the channel and it is drained.
  bool pop(Batch* out) {
    std::unique_lock<std::mutex> lock(mutex_);
    not_empty_.wait(lock, [&] { return !queue_.empty() || closed_; });
    if (queue_.empty()) return false;
    *out = queue_.front();
    queue_.pop_front();
    not_full_.notify_one();
    return true;
  }
  void close() {
    std::lock_guard<std::mutex> lock(mutex_);
    closed_ = true;
    not_empty_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable not_full_;
  std::condition_variable not_empty_;
  std::deque<Batch> queue_;
  size_t capacity_;
  bool closed_ = false;
};

struct Config {
  long blocks;
  long batch;
  long min_size;
  long max_size;
};

void produce(const Config& c, Channel& channel, int index) {
  bench::Random rng(static_cast<uint64_t>(index) * 2 + 1);
  for (long done = 0; done < c.blocks;) {
    long n = c.blocks - done < c.batch ? c.blocks - done : c.batch;
    Batch b;
    b.count = n;
    b.blocks = static_cast<void**>(bench::must_malloc(sizeof(void*) * static_cast<size_t>(n)));
    b.sizes = static_cast<size_t*>(bench::must_malloc(sizeof(size_t) * static_cast<size_t>(n)));
    for (long i = 0; i < n; ++i) {
      size_t size = rng.size_between(static_cast<size_t>(c.min_size), static_cast<size_t>(c.max_size));
      b.blocks[i] = bench::must_malloc(size);
      b.sizes[i] = size;
      bench::stamp(b.blocks[i], size, static_cast<uint64_t>(index));
    }
    channel.push(b);
    done += n;
  }
  channel.close();
}

uint64_t consume(Channel& channel, int index) {
  uint64_t sum = 0;
  Batch b;
  while (channel.pop(&b)) {
    for (long i = 0; i < b.count; ++i) {
      sum += bench::check(b.blocks[i], b.sizes[i], static_cast<uint64_t>(index));
      std::free(b.blocks[i]);
    }
    std::free(b.blocks);
    std::free(b.sizes);
  }
  return sum;
}

}  // namespace

int main(int argc, char** argv) {
  bench::Flags flags(argc, argv, "producer/consumer pairs; every block is freed by the other thread");
  Config c;
  long pairs = flags.get("pairs", 2, "producer/consumer pairs (two threads each)");
  c.blocks = flags.get("blocks", 4000000, "blocks each producer allocates");
  c.batch = flags.get("batch", 256, "blocks handed over at a time");
  c.min_size = flags.get("min-size", 16, "smallest block in bytes");
  c.max_size = flags.get("max-size", 512, "largest block in bytes");
  long depth = flags.get("queue", 64, "batches a producer may have in flight");
  flags.done();
  if (pairs < 1 || c.batch < 1 || depth < 1 || c.min_size < 2 || c.max_size < c.min_size) {
    std::fprintf(stderr, "producer_consumer: bad flags\n");
    return 2;
  }

  bench::Stopwatch clock;
  std::vector<Channel*> channels;
  std::vector<uint64_t> sums(static_cast<size_t>(pairs), 0);
  std::vector<std::thread> threads;
  for (long p = 0; p < pairs; ++p) channels.push_back(new Channel(static_cast<size_t>(depth)));
  for (long p = 0; p < pairs; ++p) {
    Channel* ch = channels[static_cast<size_t>(p)];
    threads.emplace_back([&, ch, p] { sums[static_cast<size_t>(p)] = consume(*ch, static_cast<int>(p)); });
    threads.emplace_back([&, ch, p] { produce(c, *ch, static_cast<int>(p)); });
  }
  for (std::thread& t : threads) t.join();
  uint64_t checksum = 0;
  for (long p = 0; p < pairs; ++p) {
    checksum += sums[static_cast<size_t>(p)];
    delete channels[static_cast<size_t>(p)];
  }
  return bench::finish("producer_consumer", checksum, clock.seconds(),
                       static_cast<uint64_t>(pairs * c.blocks));
}
