// One thread allocating far more than the start-up heap holds: blocks of every size below
// the large-allocation limit, each filled with its own pattern, checked, some resized, and
// freed in a shuffled order. Prints a digest of what it read back, which must not depend on
// the allocator the program runs on.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

namespace {

struct Block {
  unsigned char* ptr;
  size_t size;
  unsigned char pattern;
};

size_t pick_size(std::mt19937_64& random) {
  switch (random() % 8) {
    case 0: return 1 + random() % 2047999;  // up to the large-allocation limit
    case 1: return 4097 + random() % 200000;
    case 2: return 1025 + random() % 3072;
    default: return 1 + random() % 1024;
  }
}

bool intact(const Block& block) {
  for (size_t i = 0; i < block.size; i += 1 + block.size / 64) {
    if (block.ptr[i] != block.pattern) return false;
  }
  return block.ptr[block.size - 1] == block.pattern;
}

}  // namespace

int main(int argc, char** argv) {
  int rounds = argc > 1 ? atoi(argv[1]) : 20000;
  std::mt19937_64 random(12345);
  std::vector<Block> live;
  uint64_t digest = 0, total = 0;
  for (int round = 0; round < rounds; ++round) {
    unsigned action = random() % 4;
    if (live.empty() || action < 2) {
      Block block{nullptr, pick_size(random), static_cast<unsigned char>(random())};
      block.ptr = static_cast<unsigned char*>(malloc(block.size));
      if (block.ptr == nullptr) return 2;
      memset(block.ptr, block.pattern, block.size);
      total += block.size;
      live.push_back(block);
    } else if (action == 2) {
      size_t victim = random() % live.size();
      if (!intact(live[victim])) return 3;
      digest = digest * 31 + live[victim].pattern + live[victim].size;
      free(live[victim].ptr);
      live[victim] = live.back();
      live.pop_back();
    } else {
      Block& block = live[random() % live.size()];
      size_t size = pick_size(random);
      auto* moved = static_cast<unsigned char*>(realloc(block.ptr, size));
      if (moved == nullptr) return 4;
      size_t kept = size < block.size ? size : block.size;
      for (size_t i = 0; i < kept; i += 1 + kept / 64) {
        if (moved[i] != block.pattern) return 5;
      }
      memset(moved, block.pattern, size);
      block.ptr = moved;
      block.size = size;
      total += size;
    }
  }
  for (const Block& block : live) {
    if (!intact(block)) return 3;
    digest = digest * 31 + block.pattern;
    free(block.ptr);
  }
  printf("rounds %d, %llu bytes allocated in all, digest %016llx\n", rounds,
         static_cast<unsigned long long>(total), static_cast<unsigned long long>(digest));
  return 0;
}
