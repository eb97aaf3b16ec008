// Test support: proves that a path builds its failure line without allocating. The binary
// interposes malloc, calloc, realloc and memalign (forwarding to glibc), so every allocation
// of the process passes through note_call(). run_in_child() forks, sends the child's stderr
// into a pipe and counts allocation calls while the body runs; the count lives in a shared
// page so the parent can read it after the child died. Include from one source file only.
#pragma once

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <functional>
#include <string>

extern "C" void* __libc_malloc(size_t);
extern "C" void* __libc_calloc(size_t, size_t);
extern "C" void* __libc_realloc(void*, size_t);
extern "C" void* __libc_memalign(size_t, size_t);

namespace malloc_call_counter {

// Set in the child only, so the parent's own allocations (reading the pipe) are not counted.
inline std::atomic<bool> g_bool_armed{false};

inline std::atomic<unsigned long>* calls() {
  static void* page = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return page == MAP_FAILED ? nullptr : static_cast<std::atomic<unsigned long>*>(page);
}

inline void note_call() {
  if (g_bool_armed.load(std::memory_order_relaxed) && calls() != nullptr) calls()->fetch_add(1);
}

struct Child_outcome {
  int int_status = 0;  // from waitpid
  std::string str_stderr;
  unsigned long ulong_allocations = 0;
};

// The child ends with _exit(0) if the body returns.
inline Child_outcome run_in_child(const std::function<void()>& body) {
  Child_outcome outcome;
  calls()->store(0);
  int fds[2];
  if (pipe(fds) != 0) abort();
  fflush(stderr);
  pid_t pid = fork();
  if (pid == 0) {
    dup2(fds[1], 2);
    close(fds[0]);
    close(fds[1]);
    g_bool_armed.store(true);
    body();
    g_bool_armed.store(false);
    _exit(0);
  }
  close(fds[1]);
  char buffer[4096];
  for (ssize_t n; (n = read(fds[0], buffer, sizeof(buffer))) > 0;) outcome.str_stderr.append(buffer, size_t(n));
  close(fds[0]);
  waitpid(pid, &outcome.int_status, 0);
  outcome.ulong_allocations = calls()->load();
  return outcome;
}

// A terminate handler for the child: marks std::terminate in the output, exits with 42.
constexpr int k_int_terminate_exit_code = 42;
[[noreturn]] inline void terminate_marker() {
  if (write(2, "<terminate>", 11) < 0) _exit(k_int_terminate_exit_code + 1);
  _exit(k_int_terminate_exit_code);
}

}  // namespace malloc_call_counter

extern "C" {
void* malloc(size_t size) { return malloc_call_counter::note_call(), __libc_malloc(size); }
void* calloc(size_t count, size_t size) { return malloc_call_counter::note_call(), __libc_calloc(count, size); }
void* realloc(void* ptr, size_t size) { return malloc_call_counter::note_call(), __libc_realloc(ptr, size); }
void* memalign(size_t alignment, size_t size) {
  return malloc_call_counter::note_call(), __libc_memalign(alignment, size);
}
}
