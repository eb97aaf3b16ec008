// Test support: proves that a path builds its failure line without allocating.
//
// The test binary interposes malloc, calloc, realloc and memalign (forwarding to glibc's
// own entry points), so every allocation of the process, glibc's internal ones included,
// passes through here. run_in_child() forks, redirects the child's standard error into a
// pipe, arms the counter and runs the body; the counter lives in a shared page so that it
// survives the child's death. The parent gets the exact stderr text, the wait status and
// the number of allocation calls made while the body ran.
//
// Include from exactly one source file of a test binary.
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

// The count lives in a shared page so that the parent can read it after the child died.
struct Shared {
  std::atomic<unsigned long> ulong_calls;
};

// Armed in the child only: this flag is process-local, so the parent's own allocations
// (reading the pipe) are never counted.
inline std::atomic<bool> g_bool_armed{false};

inline Shared* shared() {
  static Shared* ptr = [] {
    void* p = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return static_cast<Shared*>(p);
  }();
  return ptr;
}

inline void note_call() {
  Shared* s = shared();
  if (g_bool_armed.load(std::memory_order_relaxed) && s != MAP_FAILED) s->ulong_calls.fetch_add(1);
}

struct Child_outcome {
  int int_status = 0;           // from waitpid
  std::string str_stderr;       // everything the child wrote to standard error
  unsigned long ulong_allocations = 0;  // allocation calls while the body ran
};

// The body runs in a forked child; the child ends with _exit(0) if the body returns.
inline Child_outcome run_in_child(const std::function<void()>& body) {
  Child_outcome outcome;
  Shared* s = shared();
  s->ulong_calls.store(0);
  int fds[2];
  if (pipe(fds) != 0) abort();
  fflush(stderr);
  pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    dup2(fds[1], 2);
    close(fds[1]);
    g_bool_armed.store(true);
    body();
    g_bool_armed.store(false);
    _exit(0);
  }
  close(fds[1]);
  char buffer[4096];
  for (;;) {
    ssize_t n = read(fds[0], buffer, sizeof(buffer));
    if (n <= 0) break;
    outcome.str_stderr.append(buffer, static_cast<size_t>(n));
  }
  close(fds[0]);
  waitpid(pid, &outcome.int_status, 0);
  outcome.ulong_allocations = s->ulong_calls.load();
  return outcome;
}

// For bodies that must die: exit code given to _exit by a terminate handler.
constexpr int k_int_terminate_exit_code = 42;

// Installed in the child: marks std::terminate in the output and ends the child with a
// known exit code, without the default handler's own text.
[[noreturn]] inline void terminate_marker() {
  static const char k_text[] = "<terminate>";
  ssize_t ignored = write(2, k_text, sizeof(k_text) - 1);
  (void)ignored;
  _exit(k_int_terminate_exit_code);
}

}  // namespace malloc_call_counter

extern "C" {
void* malloc(size_t size) {
  malloc_call_counter::note_call();
  return __libc_malloc(size);
}
void* calloc(size_t count, size_t size) {
  malloc_call_counter::note_call();
  return __libc_calloc(count, size);
}
void* realloc(void* ptr, size_t size) {
  malloc_call_counter::note_call();
  return __libc_realloc(ptr, size);
}
void* memalign(size_t alignment, size_t size) {
  malloc_call_counter::note_call();
  return __libc_memalign(alignment, size);
}
}
