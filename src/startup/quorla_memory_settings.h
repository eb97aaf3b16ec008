// The allocator's tuning settings and run-time flags: plain globals with static initial
// values, read directly and without locks by whichever layer needs them. A stale read only
// delays a decision. The configuration file and mallopt write the same words later.
//
// The file is read once, by the first caller of memory_check_program_config() that moves
// g_atomic_uint_memory_check_program_config_count from 0: the first 128-byte malloc, the
// first malloc after a request to start the background thread, any large allocation, and
// mallopt. This function is the one door by which the floors below start-up reach the
// reader; the others go on at once with whatever the globals hold.
#pragma once

#include <atomic>

#include "foundation/quorla_base.h"

namespace quorla {

// 0 at load; every trigger adds 1.
extern std::atomic<unsigned int> g_atomic_uint_memory_check_program_config_count;
// The gate: counts this trigger and, for the one caller that saw 0, reads the settings.
// Does nothing while the allocator is not on (before start-up, after shut-down), since the
// reader allocates through malloc: such a trigger leaves the gate to a later one.
QUORLA_COLD void memory_check_program_config();
// Registers the settings with g_program_config and reads the file (see
// startup/quorla_memory_program_config.h). Called through the gate only.
void memory_program_config_init();

// Settings (key names of the configuration file in brackets).
extern unsigned int g_uint_microseconds_memory_thread_background_sleep_default;        // [uint_microseconds_thread_background_sleep]
extern unsigned long g_ulong_memory_size_use_thread_background_threshold;              // [ulong_size_use_thread_background_threshold]
extern bool g_bool_memory_enable_thread_background;                                    // [bool_enable_thread_background]
extern bool g_bool_memory_enable_thread_background_page_prefault;                      // [bool_enable_thread_background_use_page_prefault]
extern unsigned int g_uint_memory_thread_background_div_number_calc_prepare_2m;        // [uint_thread_background_div_number_calc_prepare_2m]
extern unsigned int g_uint_memory_thread_background_need_prepare_2m_count_limt;        // [uint_thread_background_need_prepare_2m_count_limt]
extern unsigned int g_uint_microseconds_memory_thread_background_force_release_one_2m; // [uint_microseconds_thread_background_force_release_one_2m]
extern unsigned int g_uint_memory_vt_thread_local_wait_reuse_limit_size;               // [uint_vt_thread_local_wait_reuse_limit_size]
extern unsigned int g_uint_memory_wait_microseconds_between_release_2m;                // [uint_wait_microseconds_between_release_2m]
extern bool g_bool_memory_enable_numa_memory_bind;                                     // [bool_enable_numa_memory_bind]
extern unsigned int g_uint_memory_auto_bind_phy_cpu_count;                             // [uint_auto_bind_phy_cpu_count]
extern bool g_bool_memory_enable_auto_bind_cpu;                                        // [bool_enable_auto_bind_cpu]
extern bool g_bool_memory_enable_hugepage2m;                                           // [bool_enable_hugepage2m]
extern bool g_bool_memory_enable_page_prefault;                                        // [bool_enable_page_prefault]
extern bool g_bool_memory_enable_thread_background_clear_cpu_cache;                    // [bool_enable_thread_background_clear_cpu_cache]
extern unsigned int g_uint_memory_max_wait_milliseconds_before_clear_cpu_cache;        // [uint_max_wait_milliseconds_before_clear_cpu_cache]

// Run-time flags.
extern bool g_bool_memory_use_thread;                        // a thread beyond the main one has a heap
extern bool g_bool_memory_use_thread_background;             // the background thread has been started
extern QUORLA_HIDDEN bool g_bool_memory_need_enable_thread_background;     // the next malloc is to start it
extern unsigned int g_uint_microseconds_memory_thread_background_sleep_run;
extern bool g_bool_exit;                                     // library tear-down has begun
extern bool g_bool_memory_trim_in_run;

}  // namespace quorla
