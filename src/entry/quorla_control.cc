// The control entry points mallopt and malloc_trim.
//
// mallopt passes the configuration gate first, for every parameter, so that a value set
// here stands over the file's: the file is read before the store, never after it. Values
// are stored in the settings' own types, and the clamps are applied to the stored value as
// the file's reader applies them. The globals are plain words read without locks; a change
// acts when its reader next looks.
//
// malloc_trim gives back what lies free for the calling thread only: its heap, the empty
// piece lists of the shared pools, and a request to the region cache, whose regions the
// background thread unmaps on its next round. g_bool_memory_trim_in_run is a plain word: a
// second trim that sees it set returns at once, and a race between two that both see it
// clear only trims twice.
#include "quorlamalloc.h"
#include "entry/quorla_malloc_frame.h"
#include "foundation/quorla_machine.h"
#include "os_memory/quorla_os_mmap.h"
#include "os_memory/quorla_thread_background.h"
#include "os_memory/quorla_wait_release_ptr_part_numa_node.h"
#include "page_heap/quorla_memory_pool_base.h"
#include "page_heap/quorla_pool_size_128_policy.h"
#include "startup/quorla_before_init.h"
#include "startup/quorla_memory_settings.h"

namespace quorla {

namespace {

unsigned int at_least(unsigned int value, unsigned int floor) { return value < floor ? floor : value; }

// Gives back the storage of a pool's empty vt_full under the lock that guards the pool.
template <class Pool>
void trim_pool_vt_full(Pool& pool, mutex& pool_mutex) {
  pool_mutex.lock();
  pool.trim_vt_full();
  pool_mutex.unlock();
}

}  // namespace

}  // namespace quorla

extern "C" {

QUORLA_EXPORT int quorla_mallopt(int param, int value) noexcept {
  using namespace quorla;
  memory_check_program_config();
  const unsigned int uint_value = static_cast<unsigned int>(value);
  const bool bool_value = value != 0;
  switch (param) {
    case QUORLA_MALLOPT_MICROSECONDS_THREAD_BACKGROUND_SLEEP:
      g_uint_microseconds_memory_thread_background_sleep_default = at_least(uint_value, 50);
      return 1;
    case QUORLA_MALLOPT_WAIT_MICROSECONDS_BETWEEN_RELEASE_2M:
      g_uint_memory_wait_microseconds_between_release_2m = uint_value;
      return 1;
    case QUORLA_MALLOPT_ENABLE_THREAD_BACKGROUND_CLEAR_CPU_CACHE:
      g_bool_memory_enable_thread_background_clear_cpu_cache = bool_value;
      return 1;
    case QUORLA_MALLOPT_ENABLE_HUGEPAGE2M:
      g_bool_memory_enable_hugepage2m = bool_value;
      return 1;
    case QUORLA_MALLOPT_SIZE_USE_THREAD_BACKGROUND_THRESHOLD:
      g_ulong_memory_size_use_thread_background_threshold = static_cast<unsigned long>(static_cast<long>(value));
      return 1;
    case QUORLA_MALLOPT_ENABLE_THREAD_BACKGROUND:
      g_bool_memory_enable_thread_background = bool_value;
      return 1;
    case QUORLA_MALLOPT_ENABLE_AUTO_BIND_CPU:
      g_bool_memory_enable_auto_bind_cpu = bool_value;
      return 1;
    case QUORLA_MALLOPT_ENABLE_NUMA_MEMORY_BIND:
      g_bool_memory_enable_numa_memory_bind = bool_value;
      return 1;
    case QUORLA_MALLOPT_VT_THREAD_LOCAL_WAIT_REUSE_LIMIT_SIZE:
      g_uint_memory_vt_thread_local_wait_reuse_limit_size = uint_value;
      return 1;
    case QUORLA_MALLOPT_ENABLE_PAGE_PREFAULT:
      g_bool_memory_enable_page_prefault = bool_value;
      return 1;
    case QUORLA_MALLOPT_ENABLE_THREAD_BACKGROUND_PAGE_PREFAULT:
      g_bool_memory_enable_thread_background_page_prefault = bool_value;
      return 1;
    case QUORLA_MALLOPT_FORCE_ENABLE_HUGEPAGE2M:
      memory_force_enable_hugepage2m();
      return 1;
    case QUORLA_MALLOPT_THREAD_BACKGROUND_DIV_NUMBER_CALC_PREPARE_2M:
      g_uint_memory_thread_background_div_number_calc_prepare_2m = at_least(uint_value, 2);
      return 1;
    case QUORLA_MALLOPT_THREAD_BACKGROUND_NEED_PREPARE_2M_COUNT_LIMT:
      g_uint_memory_thread_background_need_prepare_2m_count_limt = uint_value;
      return 1;
    case QUORLA_MALLOPT_MICROSECONDS_THREAD_BACKGROUND_FORCE_RELEASE_ONE_2M:
      g_uint_microseconds_memory_thread_background_force_release_one_2m = uint_value;
      return 1;
    case QUORLA_MALLOPT_AUTO_BIND_PHY_CPU_COUNT:
      g_uint_memory_auto_bind_phy_cpu_count = (uint_value == 1 || uint_value == 2) ? uint_value : 2;
      return 1;
    case QUORLA_MALLOPT_MAX_WAIT_MILLISECONDS_BEFORE_CLEAR_CPU_CACHE:
      g_uint_memory_max_wait_milliseconds_before_clear_cpu_cache = uint_value;
      return 1;
    case QUORLA_MALLOPT_FORCE_ENABLE_THREAD_BACKGROUND:
      // Starts the thread even when the setting forbids it.
      g_memory_thread_background.force_enable();
      return 1;
    default:
      return 0;
  }
}

QUORLA_EXPORT int quorla_malloc_trim(size_t) noexcept {
  using namespace quorla;
  if (g_bool_memory_trim_in_run) return 0;
  // Before start-up and after shut-down there is neither a heap nor a cache to trim.
  if (g_uint_memory_magic_flag_malloc_can_use != k_memory_magic_flag) return 0;
  g_bool_memory_trim_in_run = true;
  store_fence();
  heap_of_this_thread()->trim();
  const unsigned int uint_pool_count = g_uint_cpu_count < 8 ? g_uint_cpu_count : 8;
  for (unsigned int i = 0; i < uint_pool_count; ++i) {
    trim_pool_vt_full(g_ar_memory_pool_size_128[i], g_ar_memory_pool_size_128[i].mutex_pool);
  }
  g_memory_wait_release_ptr_part_numa_node.trim();
  trim_pool_vt_full(g_memory_pool_size_128_base, g_memory_pool_size_128_base.mutex_ar_atomic);
  store_fence();
  g_bool_memory_trim_in_run = false;
  store_fence();
  return 0;
}

#if QUORLA_STANDARD_NAMES
QUORLA_EXPORT int mallopt(int param, int value) noexcept __attribute__((alias("quorla_mallopt")));
QUORLA_EXPORT int malloc_trim(size_t pad) noexcept __attribute__((alias("quorla_malloc_trim")));
#endif

}  // extern "C"
