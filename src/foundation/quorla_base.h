// Compiler and processor primitives shared by every layer: inlining markers, the export
// macro of the public surface, and the explicit x86 fences that the design places by name.
// Layer order (includes point downwards only):
//   foundation -> topology -> os_memory -> page_heap -> thread_heap -> startup/diagnostics -> entry
// The before-init heap (startup/quorla_before_init.h) is the one exception by design: it
// sits directly above the operating system and includes only foundation headers.
#pragma once

#include <cstddef>
#include <cstdint>

#define QUORLA_EXPORT __attribute__((visibility("default")))
// On the declaration of a global that the hot paths read: the library's own, so the code
// reaches it directly instead of through the global offset table. (-fvisibility=hidden
// covers definitions only.)
#define QUORLA_HIDDEN __attribute__((visibility("hidden")))
#define QUORLA_INLINE inline __attribute__((always_inline))
#define QUORLA_NOINLINE __attribute__((noinline))
#define QUORLA_COLD __attribute__((noinline, cold))
#define QUORLA_LIKELY(x) __builtin_expect(!!(x), 1)
#define QUORLA_UNLIKELY(x) __builtin_expect(!!(x), 0)

namespace quorla {

// lfence: later loads are not performed before earlier ones complete.
QUORLA_INLINE void load_fence() { asm volatile("lfence" ::: "memory"); }
// sfence: earlier stores are globally visible before later ones.
QUORLA_INLINE void store_fence() { asm volatile("sfence" ::: "memory"); }
// mfence: full ordering of loads and stores.
QUORLA_INLINE void full_fence() { asm volatile("mfence" ::: "memory"); }
QUORLA_INLINE void cpu_pause() { asm volatile("pause" ::: "memory"); }
QUORLA_INLINE void cpu_pause_four() {
  cpu_pause();
  cpu_pause();
  cpu_pause();
  cpu_pause();
}

}  // namespace quorla
