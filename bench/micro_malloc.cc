// Single-thread latency floor: a malloc immediately followed by its free, per size, and the same
// sizes in batches (64 allocations, then their 64 frees) so that the allocator cannot serve
// every request from the one block just freed. Allocator-neutral: run it under LD_PRELOAD.
// Built with -fno-builtin, so every malloc/free below is a real call.
#include <benchmark/benchmark.h>

#include <cstdlib>

namespace {

void malloc_free_pair(benchmark::State& state) {
  const size_t size = static_cast<size_t>(state.range(0));
  for (auto _ : state) {
    void* p = std::malloc(size);
    benchmark::DoNotOptimize(p);
    std::free(p);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}

void malloc_free_batch(benchmark::State& state) {
  constexpr int kBatch = 64;
  const size_t size = static_cast<size_t>(state.range(0));
  void* blocks[kBatch];
  for (auto _ : state) {
    for (int i = 0; i < kBatch; ++i) {
      blocks[i] = std::malloc(size);
      benchmark::DoNotOptimize(blocks[i]);
    }
    for (int i = 0; i < kBatch; ++i) std::free(blocks[i]);
  }
  // Reported per allocation, so pairs and batches compare directly.
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kBatch);
}

void sizes(benchmark::internal::Benchmark* b) {
  for (long size = 8; size <= 1024; size *= 2) b->Arg(size);
  b->Arg(4096)->Arg(64 << 10)->Arg(1 << 20);
}

BENCHMARK(malloc_free_pair)->Apply(sizes);
BENCHMARK(malloc_free_batch)->Apply(sizes);

}  // namespace

BENCHMARK_MAIN();
