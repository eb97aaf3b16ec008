// Memory_thread_background: the one extra thread of the process. Started only when the
// process shows it is worth having (a second thread, enough mapped memory, a request through
// mallopt), it runs the region cache's round on a clock: prepare regions ahead of demand,
// move waiting regions where demand finds them, give memory back at a limited pace. The
// decisions belong to the cache; this is the thread's start, its loop and its stop.
//
// mutex_enable serialises start and stop and is held over pthread_create and pthread_join;
// it stands above every lock of the allocator, since pthread_create allocates. Callers test
// the flags without it, so hot paths never touch it. bool_run is set by the thread itself;
// bool_exit is a plain byte the thread sees at its next test after the store fence.
//
// States: not started (g_bool_memory_use_thread_background false); running (bool_run);
// stopped (bool_exit, bool_run false, g_bool_memory_use_thread_background still true, so it
// never restarts); failed (g_bool_memory_use_thread_background and
// g_bool_memory_enable_thread_background both false: enable() no longer tries).
#pragma once

#include <pthread.h>

#include "foundation/quorla_base.h"
#include "foundation/quorla_mutex.h"

namespace quorla {

class Memory_thread_background {
 public:
  Memory_thread_background();
  ~Memory_thread_background();
  Memory_thread_background(const Memory_thread_background&) = delete;
  Memory_thread_background& operator=(const Memory_thread_background&) = delete;

  // force_enable() if the setting allows the thread, else nothing.
  void enable();
  // Starts the thread unless it has been started or the allocator is not on.
  void force_enable();
  // Asks the thread to end and joins it; returns at once if it has not entered its body.
  // Takes as long as the current sleep plus the current round.
  void wait_background_thread_exit();
  // The thread's body: binding, the first huge-page probe, then rounds until bool_exit.
  void thread_run();
  static void* thread_background_static_thread_run(void* ptr_this);
  // text, then " errno=" n ", strerror=" text when errno is not 0, then "\r\n".
  static void print_error(const char* ptr_char_text);

  // In a child of fork: the thread did not come along. The object goes back to "not
  // started", so that the child may start its own (see startup/quorla_fork.h).
  void forget_thread_after_fork();

  mutex mutex_enable;
  pthread_t thread_id;
  bool bool_run;
  bool bool_exit;
};

extern Memory_thread_background g_memory_thread_background;
// Exported and kept for the interface; nothing reads or writes it.
extern bool g_bool_thread_start;

}  // namespace quorla
