// The statistics report of the whole allocator (malloc_stats) and its writing at exit.
#pragma once

namespace quorla {

// Every tier, in order: the mappings, the before-init heap, the root pool, the per-CPU
// pools, the per-CPU page supplies, the region cache (once the background thread runs),
// the thread heaps. Standard output, one fputs a line, no allocation.
void malloc_stats();

// At start-up: if QUORLAMALLOC_STATS_AT_EXIT is set to anything but "" or "0", the report
// is written at normal process exit (an atexit handler) to the standard error the process
// started with, kept as a private descriptor. Returns whether it was registered.
bool register_malloc_stats_at_exit();

}  // namespace quorla
