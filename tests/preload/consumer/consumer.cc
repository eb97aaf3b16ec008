// A C++ program built against the installed package: its operators must be the allocator's
// (operator new is quorla_new, and a block of new answers the allocator's size query with
// its class capacity).
#include <cstdio>
#include <new>

#include <quorlamalloc.h>

int main() {
  auto* numbers = new int[25];  // 100 bytes: a 112-byte block
  const size_t capacity = quorla_get_malloc_size(numbers);
  delete[] numbers;
  void* (*ptr_new)(size_t) = &::operator new;
  if (capacity != 112 || reinterpret_cast<void*>(ptr_new) != reinterpret_cast<void*>(&quorla_new)) {
    std::printf("new int[25] answers %zu; operator new is %s\n", capacity,
                reinterpret_cast<void*>(ptr_new) == reinterpret_cast<void*>(&quorla_new) ? "ours" : "not ours");
    return 1;
  }
  void* aligned = ::operator new(100, std::align_val_t(64));
  if (reinterpret_cast<unsigned long>(aligned) % 64 != 0) return 1;
  ::operator delete(aligned, std::align_val_t(64));
  std::printf("ours\n");
  return 0;
}
