// When the library's start-up runs, and what it may rely on at that moment.
//
// glibc's loader runs initialisers dependencies first: a preloaded or linked library comes
// after every library the program needs, so their constructors would allocate from the
// 393216-byte before-init heap until it runs out. The library is therefore linked with
// -z initfirst (DF_1_INITFIRST): _dl_init calls its initialisers before anyone else's --
// before the program's preinit array, libc's own initialisers and libstdc++'s.
//
// Why that moment is sound:
// - No other constructor has run, so no other code can be in the middle of anything: no
//   caller holds a C library lock (the zone lock of localtime, the exit-list lock of atexit,
//   the locale lock) that the start-up's zone reads and exit registrations take, and no
//   thread or child process can exist yet, so the switch of the magic is single-threaded and
//   no fork can copy a half-built allocator.
// - Relocation is complete and libc's early initialisation (thread pointer, TLS, stdio's
//   static streams, the CPU features) ran before _dl_init, so system calls, pthread keys,
//   clocks and the exit list work. Nothing of libstdc++'s own state is used: the start-up
//   calls only its stateless functions.
// - What libc's own initialiser sets and the start-up reads is `environ` (the zone read takes
//   TZ from it). It is set below from the loader's third argument when it is still null, to
//   the value libc stores a moment later; once the program runs it is never null here.
// - Allocations made before (by the loader itself) are before-init blocks: they stay valid,
//   and free, realloc and the size query know them by address in every phase.
// - Shut-down is unchanged: the loader finalises objects in dependency order regardless of
//   the flag, so other libraries' finalisers still run after the library has shut down (and
//   their constructors' blocks, now real blocks, are handled by the shut-down paths of
//   realloc and the size query).
//
// The loader honours one such object per load: if another one is loaded after this library,
// the start-up falls back to the ordinary order.
#include <unistd.h>

namespace quorla {

namespace {

// Priority 101 puts it before the library's other initialisers.
__attribute__((constructor(101))) void quorla_startup_environment(int, char**, char** envp) {
  if (environ == nullptr) environ = envp;
}

}  // namespace

}  // namespace quorla
