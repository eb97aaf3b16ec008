// One node of the wait-release cache: the lock-free slot walks, the demand side (malloc,
// free) and the background thread's decisions between preparing, keeping and releasing.
#include "os_memory/quorla_wait_release_ptr_node.h"

#include <sched.h>

#include "foundation/quorla_atomic.h"
#include "foundation/quorla_layer_check.h"
#include "foundation/quorla_machine.h"
#include "foundation/quorla_memory_util.h"
#include "foundation/quorla_pause.h"
#include "os_memory/quorla_os_mmap.h"
#include "os_memory/quorla_region.h"
#include "os_memory/quorla_region_tag.h"
#include "startup/quorla_memory_settings.h"

namespace quorla {

namespace {

constexpr unsigned int k_uint_layer_wait_release = 3;

unsigned long long steady_nanosecond() { return get_steady_nanosecond(); }

Wait_release_clock_function g_wait_release_clock = &steady_nanosecond;

QUORLA_INLINE unsigned long now_microsecond() { return static_cast<unsigned long>(g_wait_release_clock() / 1000); }

// The moment after which a release may come: now plus five intervals. The product is taken
// in 32 bits, as the setting is.
QUORLA_INLINE unsigned long microsecond_after_five_intervals(unsigned long now) {
  return now + static_cast<unsigned int>(5u * g_uint_memory_wait_microseconds_between_release_2m);
}

// One slot, claimed when it is in the wanted state: empty for a save (the region is swapped
// in), full for a take (0 is swapped in). A lost swap pauses and tries the same slot again
// while it is still in the wanted state. Returns the value the slot held when it was won:
// 0 for a won save, the region for a won take; ~0 when nothing was won.
template <bool k_take>
QUORLA_INLINE unsigned long try_slot(std::atomic<unsigned long>& slot, unsigned long ulong_region) {
  load_fence();
  unsigned long current = slot.load(std::memory_order_relaxed);
  while (k_take ? current != 0 : current == 0) {
    if (slot.compare_exchange_strong(current, k_take ? 0 : ulong_region, std::memory_order_seq_cst,
                                     std::memory_order_relaxed)) {
      return current;
    }
    cpu_pause_four();
    load_fence();
    current = slot.load(std::memory_order_relaxed);
  }
  return ~0ul;
}

QUORLA_INLINE bool try_save_slot(std::atomic<unsigned long>& slot, unsigned long ulong_region) {
  store_fence();
  return try_slot<false>(slot, ulong_region) == 0;
}

// The region of a won take, or 0.
QUORLA_INLINE unsigned long try_take_slot(std::atomic<unsigned long>& slot) {
  unsigned long value = try_slot<true>(slot, 0);
  return value == ~0ul ? 0 : value;
}

// Unmaps one region in its own g_mutex_mmap section, so that other threads' mappings can
// interleave with a long trim. bool_lower_huge_count: the region came from a huge store.
void unmap_region(unsigned char* ptr_region, bool bool_lower_huge_count) {
  g_mutex_mmap.lock();
  if (bool_lower_huge_count) --g_locking_uint_os_malloc_hugepage2m_count;
  os_free_unmap_without_lock(ptr_region, k_region_byte);
  g_mutex_mmap.unlock();
}

QUORLA_INLINE unsigned char* pop_back(Wait_release_region_vector& vt) {
  unsigned char* ptr_region = vt[vt.size() - 1];
  vt.resize(vt.size() - 1);
  return ptr_region;
}

void unmap_all(Wait_release_region_vector& vt, bool bool_lower_huge_count) {
  for (unsigned char* ptr_region : vt) unmap_region(ptr_region, bool_lower_huge_count);
  vt.resize(0);
}

// Moves the last region of vt to its array; on failure it goes back to the end of vt.
bool store_last_to_ar_atomic(Wait_release_region_vector& vt, std::atomic<unsigned int>& atomic_count,
                             Wait_release_slot_array& ar_atomic) {
  unsigned char* ptr_region = pop_back(vt);
  if (Struct_Memory_wait_release_ptr_node::save_to_ar_atomic(ptr_region, atomic_count, ar_atomic)) return true;
  vt.push_back(ptr_region);
  return false;
}

}  // namespace

Wait_release_clock_function set_wait_release_clock_for_test(Wait_release_clock_function function) {
  Wait_release_clock_function previous = g_wait_release_clock;
  g_wait_release_clock = function != nullptr ? function : &steady_nanosecond;
  return previous;
}

Struct_Memory_wait_release_ptr_node::Struct_Memory_wait_release_ptr_node(unsigned int numa_node)
    : uint_numa_node(numa_node),
      uint_need_prepare_2m_count(1),
      bool_need_trim(false),
      ulong_microseconds_next_release(0),
      atomic_page(0),
      atomic_hugepage2m(0) {
  for (unsigned int i = 0; i < k_uint_wait_release_slot_count; ++i) {
    ar_atomic_page[i].store(0, std::memory_order_relaxed);
    ar_atomic_hugepage2m[i].store(0, std::memory_order_relaxed);
  }
  store_fence();
}

Struct_Memory_wait_release_ptr_node::~Struct_Memory_wait_release_ptr_node() {
  release_all_wait_release();
  // The vectors' own destructors give their arrays back.
}

bool Struct_Memory_wait_release_ptr_node::save_to_ar_atomic(unsigned char* ptr_region, std::atomic<unsigned int>& atomic_count,
                                                            Wait_release_slot_array& ar_atomic) {
  const unsigned long ulong_region = reinterpret_cast<unsigned long>(ptr_region);
  // A count at or above the slot count is full, or wrapped below 0 for a moment: either way
  // no slot is touched.
  const unsigned int c = atomic_count.load(std::memory_order_relaxed);
  if (c >= k_uint_wait_release_slot_count) return false;
  // The count's own slot is the likely first free one when the array is used as a stack.
  bool bool_saved = try_save_slot(ar_atomic[c], ulong_region);
  for (unsigned int i = c + 1; !bool_saved && i < k_uint_wait_release_slot_count; ++i) {
    bool_saved = try_save_slot(ar_atomic[i], ulong_region);
  }
  for (unsigned int i = 0; !bool_saved && i < c; ++i) bool_saved = try_save_slot(ar_atomic[i], ulong_region);
  if (!bool_saved) return false;
  store_fence();
  atomic_fetch_add(atomic_count, 1u);
  return true;
}

unsigned long Struct_Memory_wait_release_ptr_node::malloc_from_ar_atomic(std::atomic<unsigned int>& atomic_count,
                                                                         Wait_release_slot_array& ar_atomic) {
  load_fence();
  unsigned int c = atomic_count.load(std::memory_order_relaxed);
  if (c == 0) return 0;
  // The likely last full slot. A count that ran ahead of the slots, or wrapped below 0,
  // points past the array: the last slot stands in for it.
  const unsigned int first = c <= k_uint_wait_release_slot_count ? c - 1 : k_uint_wait_release_slot_count - 1;
  unsigned long ulong_region = try_take_slot(ar_atomic[first]);
  for (unsigned int i = 0; ulong_region == 0 && i < k_uint_wait_release_slot_count; ++i) {
    ulong_region = try_take_slot(ar_atomic[i]);
    if (ulong_region == 0 && c < i) {
      // Walked past the count: look again whether anything is left at all.
      c = atomic_count.load(std::memory_order_relaxed);
      if (c == 0) return 0;
    }
  }
  if (ulong_region == 0) return 0;
  store_fence();
  atomic_fetch_sub(atomic_count, 1u);
  return ulong_region;
}

unsigned char* Struct_Memory_wait_release_ptr_node::malloc() {
  QUORLA_LAYER(k_uint_layer_wait_release);
  // Every demand postpones any release.
  ulong_microseconds_next_release = microsecond_after_five_intervals(now_microsecond());
  for (unsigned int uint_round = 0; uint_round < 2; ++uint_round) {
    unsigned long ulong_region = malloc_from_ar_atomic(atomic_hugepage2m, ar_atomic_hugepage2m);
    if (ulong_region == 0) ulong_region = malloc_from_ar_atomic(atomic_page, ar_atomic_page);
    if (ulong_region != 0) return reinterpret_cast<unsigned char*>(ulong_region);
    // A miss: mapped memory sets the target (one eighth of all mapped regions by default).
    // Assigned, not raised, so a miss may also lower it.
    unsigned int uint_limit = g_uint_memory_thread_background_need_prepare_2m_count_limt;
    if (uint_limit > k_uint_wait_release_prepare_limit_max) uint_limit = k_uint_wait_release_prepare_limit_max;
    if (uint_limit > uint_need_prepare_2m_count) {
      unsigned int uint_div = g_uint_memory_thread_background_div_number_calc_prepare_2m;
      if (uint_div == 0) uint_div = 8;
      const unsigned int q = static_cast<unsigned int>(g_locking_sizet_os_malloc_all_size / k_region_byte) / uint_div;
      uint_need_prepare_2m_count = q == 0 ? 1 : (q < uint_limit ? q : uint_limit);
    }
    // A chance for the background thread to fill up.
    sched_yield();
  }
  return nullptr;
}

bool Struct_Memory_wait_release_ptr_node::free(unsigned char* ptr_region) {
  QUORLA_LAYER(k_uint_layer_wait_release);
  const unsigned char uchar_page_type = region_tag_of(ptr_region)->uchar_page_type;
  if (uchar_page_type == k_uchar_page_type_normal) return save_to_ar_atomic(ptr_region, atomic_page, ar_atomic_page);
  if (uchar_page_type == k_uchar_page_type_hugepage2m) {
    return save_to_ar_atomic(ptr_region, atomic_hugepage2m, ar_atomic_hugepage2m);
  }
  return false;
}

void Struct_Memory_wait_release_ptr_node::push_page(unsigned char* ptr_region) {
  // The limit tests both vectors together (push_hugepage2m tests its own alone).
  if (vt_hugepage2m.size() + vt_page.size() > k_uint_wait_release_slot_count) {
    unmap_region(ptr_region, false);
    return;
  }
  vt_page.reserve(k_uint_wait_release_slot_count);  // the first push takes the whole array
  vt_page.push_back(ptr_region);
}

void Struct_Memory_wait_release_ptr_node::push_hugepage2m(unsigned char* ptr_region) {
  if (vt_hugepage2m.size() > k_uint_wait_release_slot_count) {
    // The huge-page count is left as it is on purpose: it stays one too high.
    unmap_region(ptr_region, false);
    return;
  }
  vt_hugepage2m.reserve(k_uint_wait_release_slot_count);
  vt_hugepage2m.push_back(ptr_region);
}

unsigned int Struct_Memory_wait_release_ptr_node::prepare_atomic_wait_release_ptr() {
  load_fence();
  const unsigned int uint_ready = atomic_page.load(std::memory_order_relaxed) + atomic_hugepage2m.load(std::memory_order_relaxed);
  if (uint_need_prepare_2m_count <= uint_ready) return 0;
  const unsigned int uint_need = uint_need_prepare_2m_count - uint_ready;
  for (unsigned int i = 0; i < uint_need; ++i) {
    if (g_bool_memory_use_hugepage2m) {
      auto* ptr_region = static_cast<unsigned char*>(os_malloc_hugepage2m_size_2m(uint_numa_node));
      if (ptr_region != nullptr) {
        if (save_to_ar_atomic(ptr_region, atomic_hugepage2m, ar_atomic_hugepage2m)) continue;
        vt_hugepage2m.push_back(ptr_region);
        break;
      }
    }
    auto* ptr_region = static_cast<unsigned char*>(os_malloc_mmap_page_2m_align(uint_numa_node));
    // Touched here, on the background thread, unless the mapping layer touched it already.
    if (g_bool_memory_enable_thread_background_page_prefault && !g_bool_memory_enable_page_prefault) {
      memory_prefault_page(ptr_region + k_page_byte, k_region_byte - k_page_byte);
    }
    if (save_to_ar_atomic(ptr_region, atomic_page, ar_atomic_page)) continue;
    vt_page.push_back(ptr_region);
    break;
  }
  store_fence();
  return uint_need;
}

void Struct_Memory_wait_release_ptr_node::try_store_vt_to_ar_atomic() {
  while (!vt_page.empty() || !vt_hugepage2m.empty()) {
    load_fence();
    const unsigned int uint_huge = atomic_hugepage2m.load(std::memory_order_relaxed);
    const unsigned int uint_page = atomic_page.load(std::memory_order_relaxed);
    if (uint_huge + uint_page > k_uint_wait_release_vt_refill_stock) return;
    if (!vt_hugepage2m.empty() && uint_huge <= k_uint_wait_release_vt_refill_stock) {
      if (!store_last_to_ar_atomic(vt_hugepage2m, atomic_hugepage2m, ar_atomic_hugepage2m)) return;
    } else if (!vt_page.empty() && uint_page <= k_uint_wait_release_vt_refill_stock) {
      if (!store_last_to_ar_atomic(vt_page, atomic_page, ar_atomic_page)) return;
    } else {
      // Only a count that wrapped below 0 for a moment gets here: wait for the next round.
      return;
    }
  }
}

bool Struct_Memory_wait_release_ptr_node::release_one_wait_release_ptr() {
  // The ordinary stores go first, the reverse of the order of malloc.
  unsigned char* ptr_region = nullptr;
  bool bool_huge = false;
  if (!vt_page.empty()) {
    ptr_region = pop_back(vt_page);
  } else if (unsigned long ulong_region = malloc_from_ar_atomic(atomic_page, ar_atomic_page)) {
    ptr_region = reinterpret_cast<unsigned char*>(ulong_region);
  } else if (!vt_hugepage2m.empty()) {
    ptr_region = pop_back(vt_hugepage2m);
    bool_huge = true;
  } else if (unsigned long ulong_huge = malloc_from_ar_atomic(atomic_hugepage2m, ar_atomic_hugepage2m)) {
    ptr_region = reinterpret_cast<unsigned char*>(ulong_huge);
    bool_huge = true;
  } else {
    return false;
  }
  if (g_bool_memory_enable_thread_background_clear_cpu_cache) {
    const Region_tag* tag = region_tag_of(ptr_region);
    const unsigned long ulong_release = tag->ulong_millisecond_release;
    const unsigned long ulong_now = static_cast<unsigned long>(g_wait_release_clock() / 1000000);
    g_timet_millisecond_now_steady = static_cast<time_t>(ulong_now);
    // Used recently: its lines may still sit in CPU caches. Only the part ever handed out
    // is flushed; a freshly prepared region says 0 pages and nothing is flushed.
    if (ulong_now <= ulong_release + g_uint_memory_max_wait_milliseconds_before_clear_cpu_cache) {
      const unsigned int uint_top_bit = tag->uint_top_bit < 512 ? tag->uint_top_bit : 512;
      memory_flush_invalid_cache(ptr_region, static_cast<unsigned long>(uint_top_bit) * k_page_byte);
    }
  }
  unmap_region(ptr_region, bool_huge);
  return true;
}

void Struct_Memory_wait_release_ptr_node::background_thread_trim() {
  unmap_all(vt_page, false);
  unmap_all(vt_hugepage2m, true);
  while (unsigned long ulong_region = malloc_from_ar_atomic(atomic_page, ar_atomic_page)) {
    unmap_region(reinterpret_cast<unsigned char*>(ulong_region), false);
  }
  while (unsigned long ulong_region = malloc_from_ar_atomic(atomic_hugepage2m, ar_atomic_hugepage2m)) {
    unmap_region(reinterpret_cast<unsigned char*>(ulong_region), true);
  }
  // The target stays: the next round may prepare again.
  ulong_microseconds_next_release = now_microsecond() + g_uint_memory_wait_microseconds_between_release_2m;
}

void Struct_Memory_wait_release_ptr_node::background_thread_run() {
  if (bool_need_trim) {
    bool_need_trim = false;
    store_fence();
    background_thread_trim();
    return;
  }
  if (!vt_page.empty() || !vt_hugepage2m.empty()) try_store_vt_to_ar_atomic();
  load_fence();
  const unsigned int uint_ready = atomic_page.load(std::memory_order_relaxed) + atomic_hugepage2m.load(std::memory_order_relaxed);
  if (uint_need_prepare_2m_count > uint_ready) {
    // Too few: consecutive short rounds halve the sleep towards 50 microseconds.
    g_uint_microseconds_memory_thread_background_sleep_run = (g_uint_microseconds_memory_thread_background_sleep_run + 50) >> 1;
    while (prepare_atomic_wait_release_ptr() != 0) {
      if (g_uint_numa_max_node != 0) {
        thread_pause_nanosecond();
      } else {
        sched_yield();
      }
    }
    ulong_microseconds_next_release = microsecond_after_five_intervals(now_microsecond());
    return;
  }
  g_uint_microseconds_memory_thread_background_sleep_run = g_uint_microseconds_memory_thread_background_sleep_default;
  const unsigned long ulong_now = now_microsecond();
  if (ulong_now <= ulong_microseconds_next_release) return;
  if (uint_need_prepare_2m_count + 1 < uint_ready) {
    // A surplus of one is tolerated; larger ones drain one region per interval. The target
    // stays, and the pace holds whether or not a region went.
    release_one_wait_release_ptr();
    ulong_microseconds_next_release = ulong_now + g_uint_memory_wait_microseconds_between_release_2m;
    return;
  }
  const unsigned int uint_force = g_uint_microseconds_memory_thread_background_force_release_one_2m;
  if (uint_force == 0) return;
  if (ulong_now <= ulong_microseconds_next_release + uint_force) return;
  // Idle: the stock and the target fall together, one region per interval, down to 0.
  if (!release_one_wait_release_ptr()) return;
  if (uint_need_prepare_2m_count != 0) --uint_need_prepare_2m_count;
  ulong_microseconds_next_release = ulong_now + g_uint_memory_wait_microseconds_between_release_2m;
}

void Struct_Memory_wait_release_ptr_node::release_all_wait_release() {
  unmap_all(vt_page, false);
  unmap_all(vt_hugepage2m, true);
  // The counts are not updated: the node is going away.
  if (atomic_page.load(std::memory_order_relaxed) != 0) {
    for (std::atomic<unsigned long>& slot : ar_atomic_page) {
      if (unsigned long ulong_region = try_take_slot(slot)) unmap_region(reinterpret_cast<unsigned char*>(ulong_region), false);
    }
  }
  if (atomic_hugepage2m.load(std::memory_order_relaxed) != 0) {
    for (std::atomic<unsigned long>& slot : ar_atomic_hugepage2m) {
      if (unsigned long ulong_region = try_take_slot(slot)) unmap_region(reinterpret_cast<unsigned char*>(ulong_region), true);
    }
  }
}

void Struct_Memory_wait_release_ptr_node::trim() {
  bool_need_trim = true;
  full_fence();
}

unsigned int Struct_Memory_wait_release_ptr_node::get_block_count_all() const {
  return vt_page.size() + vt_hugepage2m.size() + atomic_page.load(std::memory_order_relaxed) +
         atomic_hugepage2m.load(std::memory_order_relaxed);
}

unsigned long Struct_Memory_wait_release_ptr_node::get_all_byte() const {
  return static_cast<unsigned long>(get_block_count_all()) * k_region_byte;
}

unsigned long Struct_Memory_wait_release_ptr_node::get_byte_page() const {
  return static_cast<unsigned long>(atomic_page.load(std::memory_order_relaxed) + vt_page.size()) * k_region_byte;
}

unsigned long Struct_Memory_wait_release_ptr_node::get_byte_hugepage2m() const {
  return static_cast<unsigned long>(atomic_hugepage2m.load(std::memory_order_relaxed) + vt_hugepage2m.size()) * k_region_byte;
}

}  // namespace quorla
