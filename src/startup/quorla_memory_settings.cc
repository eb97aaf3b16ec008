#include "startup/quorla_memory_settings.h"

namespace quorla {

unsigned int g_uint_microseconds_memory_thread_background_sleep_default = 500;
unsigned long g_ulong_memory_size_use_thread_background_threshold = 8388608;
bool g_bool_memory_enable_thread_background = true;
bool g_bool_memory_enable_thread_background_page_prefault = false;
unsigned int g_uint_memory_thread_background_div_number_calc_prepare_2m = 8;
unsigned int g_uint_memory_thread_background_need_prepare_2m_count_limt = 8;
unsigned int g_uint_microseconds_memory_thread_background_force_release_one_2m = 500000;
unsigned int g_uint_memory_vt_thread_local_wait_reuse_limit_size = 16;
unsigned int g_uint_memory_wait_microseconds_between_release_2m = 4000;
bool g_bool_memory_enable_numa_memory_bind = false;
unsigned int g_uint_memory_auto_bind_phy_cpu_count = 2;
bool g_bool_memory_enable_auto_bind_cpu = true;
bool g_bool_memory_enable_hugepage2m = true;
bool g_bool_memory_enable_page_prefault = false;
// On from load until the configuration is read; its default text afterwards is false.
bool g_bool_memory_enable_thread_background_clear_cpu_cache = true;
unsigned int g_uint_memory_max_wait_milliseconds_before_clear_cpu_cache = 200;

std::atomic<unsigned int> g_atomic_uint_memory_check_program_config_count{0};

bool g_bool_memory_use_thread = false;
bool g_bool_memory_use_thread_background = false;
bool g_bool_memory_need_enable_thread_background = false;
unsigned int g_uint_microseconds_memory_thread_background_sleep_run = 50;
bool g_bool_exit = false;
bool g_bool_memory_trim_in_run = false;

}  // namespace quorla
