#include "startup/quorla_memory_program_config.h"

#include <cerrno>
#include <cstdlib>

#include "diagnostics/quorla_error_message.h"
#include "foundation/quorla_atomic.h"
#include "startup/quorla_before_init.h"
#include "startup/quorla_memory_settings.h"

namespace quorla {

namespace {

struct Memory_setting {
  const char* key;
  unsigned char type;
  void* ptr;
  const char* str_default;
};

// The keys as the file spells them ("limt" included), in the order of registration. The
// one default that differs from its global's initial value is the clear-cache flag: on
// from load until the file has been read, then off unless the file says otherwise.
const Memory_setting k_ar_memory_setting[] = {
    {"uint_microseconds_thread_background_sleep", g_uchar_program_config_type_uint,
     &g_uint_microseconds_memory_thread_background_sleep_default, "500"},
    {"ulong_size_use_thread_background_threshold", g_uchar_program_config_type_ulong,
     &g_ulong_memory_size_use_thread_background_threshold, "8388608"},
    {"bool_enable_thread_background", g_uchar_program_config_type_bool, &g_bool_memory_enable_thread_background,
     "true"},
    {"bool_enable_thread_background_use_page_prefault", g_uchar_program_config_type_bool,
     &g_bool_memory_enable_thread_background_page_prefault, "false"},
    {"uint_thread_background_div_number_calc_prepare_2m", g_uchar_program_config_type_uint,
     &g_uint_memory_thread_background_div_number_calc_prepare_2m, "8"},
    {"uint_thread_background_need_prepare_2m_count_limt", g_uchar_program_config_type_uint,
     &g_uint_memory_thread_background_need_prepare_2m_count_limt, "8"},
    {"uint_microseconds_thread_background_force_release_one_2m", g_uchar_program_config_type_uint,
     &g_uint_microseconds_memory_thread_background_force_release_one_2m, "500000"},
    {"uint_vt_thread_local_wait_reuse_limit_size", g_uchar_program_config_type_uint,
     &g_uint_memory_vt_thread_local_wait_reuse_limit_size, "16"},
    {"uint_wait_microseconds_between_release_2m", g_uchar_program_config_type_uint,
     &g_uint_memory_wait_microseconds_between_release_2m, "4000"},
    {"bool_enable_numa_memory_bind", g_uchar_program_config_type_bool, &g_bool_memory_enable_numa_memory_bind,
     "false"},
    {"uint_auto_bind_phy_cpu_count", g_uchar_program_config_type_uint, &g_uint_memory_auto_bind_phy_cpu_count, "2"},
    {"bool_enable_auto_bind_cpu", g_uchar_program_config_type_bool, &g_bool_memory_enable_auto_bind_cpu, "true"},
    {"bool_enable_hugepage2m", g_uchar_program_config_type_bool, &g_bool_memory_enable_hugepage2m, "true"},
    {"bool_enable_page_prefault", g_uchar_program_config_type_bool, &g_bool_memory_enable_page_prefault, "false"},
    {"bool_enable_thread_background_clear_cpu_cache", g_uchar_program_config_type_bool,
     &g_bool_memory_enable_thread_background_clear_cpu_cache, "false"},
    {"uint_max_wait_milliseconds_before_clear_cpu_cache", g_uchar_program_config_type_uint,
     &g_uint_memory_max_wait_milliseconds_before_clear_cpu_cache, "200"},
};

}  // namespace

const char* memory_program_config_path() {
  const char* path = getenv(k_str_memory_program_config_env);
  return path != nullptr && path[0] != 0 ? path : k_str_memory_program_config_path;
}

void memory_program_config_load(Program_config& config, const char* path) {
  g_uchar_message_out_level = 2;
  config.set_line_has_equal(true);
  for (const Memory_setting& setting : k_ar_memory_setting) {
    config.add(setting.key, setting.type, setting.ptr, setting.str_default);
  }
  config.restore_default();
  config.load_from_config_file(path);
  config.apply();
  g_uchar_message_out_level = 0;
  if (g_uint_microseconds_memory_thread_background_sleep_default < 50) {
    g_uint_microseconds_memory_thread_background_sleep_default = 50;
  }
  if (g_uint_memory_thread_background_div_number_calc_prepare_2m < 2) {
    g_uint_memory_thread_background_div_number_calc_prepare_2m = 2;
  }
  if (g_uint_memory_auto_bind_phy_cpu_count != 1 && g_uint_memory_auto_bind_phy_cpu_count != 2) {
    g_uint_memory_auto_bind_phy_cpu_count = 2;
  }
  // A licence check would run at this point; this library has none.
}

void memory_program_config_init() { memory_program_config_load(g_program_config, memory_program_config_path()); }

void memory_check_program_config() {
  if (g_uint_memory_magic_flag_malloc_can_use != k_memory_magic_flag) return;
  // The counter moves first, so the reader's own mallocs do not enter here again.
  if (atomic_fetch_add(g_atomic_uint_memory_check_program_config_count, 1u) != 0) return;
  // Read inside a malloc that succeeds: a missing file must not show in the caller's errno.
  const int error_number = errno;
  memory_program_config_init();
  errno = error_number;
}

}  // namespace quorla
