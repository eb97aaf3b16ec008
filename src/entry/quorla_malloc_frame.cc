// malloc and free: every request starts here, and is decided by arithmetic on the size (for
// malloc) or on the address (for free). No block has a header; the owner's path takes no
// lock and makes no atomic read-modify-write.
//
//   malloc(size)
//     size > 2048000 ............................ quorla_os_malloc (own mapping)
//     magic != 710701633 ........................ before-init heap
//     background request pending ................ start it, configuration gate   (cold)
//     heap: main thread's, else the registry's
//     foreign frees pending ...................... pop_batch                       (cold)
//     <= 8 ....................................... group_8byte, take one block
//     <= 224 ..................................... ar_group[((size + 15) >> 4) - 1], take one block
//     <= 3408 .................................... route table: one block, or a run of the group
//     <= 4096 .................................... one page of the page group
//     <= 10240 ................................... 1024-byte group run (8 KB: two pages)
//     else ........................................ page run of the page group
//
//   free(ptr)
//     store fence
//     below the before-init bump pointer ......... rewind if a before-init block, else drop
//     magic != 710701633 ........................ drop
//     region-aligned ............................. quorla_os_free
//     region head does not point back ............ drop
//     owner is another thread .................... the owner's queue               (cold)
//     slot > 511 ................................. small-block release
//     slot 0 ..................................... drop (double free of a page block)
//     slot 1, else ............................... page release, then the group's rules
#include "quorlamalloc.h"
#include "entry/quorla_malloc_frame.h"

#include "entry/quorla_size_route.h"
#include "foundation/quorla_thread_self.h"
#include "startup/quorla_memory_settings.h"
#include "os_memory/quorla_os_umap_ptr_size.h"
#include "os_memory/quorla_region.h"
#include "os_memory/quorla_thread_background.h"
#include "startup/quorla_before_init.h"
#include "thread_heap/quorla_thread_registry.h"

namespace quorla {

unsigned int g_uint_memory_malloc_128byte_count = 0;

namespace {

// A request from deep in the allocator to start the background thread, acted on here; then
// the configuration gate, so that this may also be the moment the settings are read. The
// thread is started first: a file read right after that disables it does not stop it.
QUORLA_COLD void act_on_background_request() {
  g_bool_memory_need_enable_thread_background = false;
  store_fence();
  g_memory_thread_background.enable();
  memory_check_program_config();
}

// The first 128-byte request is the late moment at which the configuration is looked at,
// unless something earlier caused it. The gate's counter moves before the reader runs, so
// the reader's own allocations do not enter it again.
QUORLA_COLD void* malloc_first_128_byte(Memory_thread_local_data* heap) noexcept {
  // Served one group up (144-byte blocks); every later 128-byte request uses its own group.
  g_uint_memory_malloc_128byte_count = 1;
  memory_check_program_config();
  return heap->ar_group[8].take_one_block();
}

QUORLA_COLD void free_foreign(Memory_bitmap_page_group* group, void* ptr) noexcept {
  Memory_mpsc_queue_wait_release* queue = group->ptr_mpsc_queue_wait_release;
  if (queue == nullptr) {
    group->init_ptr_mpsc_queue_wait_release();
    queue = group->ptr_mpsc_queue_wait_release;
  }
  queue->push_foreign(ptr);
}

// Route by size, from the heap found (the steps after the drain).
QUORLA_INLINE void* route(Memory_thread_local_data* heap, size_t size) noexcept {
  if (size <= k_group_8byte_limit_byte) return heap->group_8byte.take_one_block();
  if (size <= k_arithmetic_route_limit_byte) {
    if (QUORLA_UNLIKELY(size == k_config_trigger_byte) && g_uint_memory_malloc_128byte_count == 0) {
      return malloc_first_128_byte(heap);
    }
    // ((size + 15) >> 4) - 1, computed as (size - 1) >> 4 (equal for every size from 1).
    return heap->ar_group[(size - 1) >> 4].take_one_block();
  }
  if (size <= k_small_route_limit_byte) {
    unsigned int entry = ar_uchar_size_route[(size + 15) >> 4];
    Memory_bitmap_group& group = heap->ar_group[entry & 15];
    unsigned int bits = entry >> 4;
    if (bits == 1) return group.take_one_block();
    return group.malloc_bit_size(bits);
  }
  if (size <= k_page_byte) return heap->page_group.take_one_page();
  if (size <= k_group_1024_limit_byte) {
    unsigned int blocks = static_cast<unsigned int>((size + 1023) >> 10);
    // An exact 8 KB run is left to the page tier while its neighbours stay in the group.
    if (blocks != 8) return heap->ar_group[15].malloc_bit_size(blocks);
  }
  return heap->page_group.malloc_bit_size(page_count_of(size));
}

// The slow steps of malloc are out of line, each going on with the steps after it, so that
// malloc reaches them by tail calls and saves no register on its common path. The order of
// the steps is malloc's own.
QUORLA_NOINLINE void* route_out_of_line(Memory_thread_local_data* heap, size_t size) noexcept { return route(heap, size); }

QUORLA_COLD void* drain_and_route(Memory_thread_local_data* heap, size_t size) noexcept {
  heap->page_group.ptr_mpsc_queue_wait_release->pop_batch();
  return route_out_of_line(heap, size);
}

// From the heap found on: drain, then route.
QUORLA_NOINLINE void* malloc_with_heap(Memory_thread_local_data* heap, size_t size) noexcept {
  drain_foreign_frees(heap);
  return route(heap, size);
}

// A thread not found in its home slot of the registry's map: the full lookup, which
// registers the thread when it is not there.
QUORLA_NOINLINE void* malloc_with_registry(unsigned long thread_id, size_t size) noexcept {
  return malloc_with_heap(g_memory_thread_id_thread_local_data.find_or_insert(thread_id), size);
}

QUORLA_COLD void* malloc_after_background_request(size_t size) noexcept {
  act_on_background_request();
  return malloc_with_heap(heap_of_this_thread(), size);
}

}  // namespace

}  // namespace quorla

extern "C" {

QUORLA_EXPORT void* quorla_malloc(size_t size) noexcept {
  using namespace quorla;
  // Before the magic test: a large request made before start-up already maps.
  if (QUORLA_UNLIKELY(size > k_region_limit_byte)) {
    load_fence();
    return quorla_os_malloc(size);
  }
  if (QUORLA_UNLIKELY(g_uint_memory_magic_flag_malloc_can_use != k_memory_magic_flag)) {
    load_fence();
    return quorla_malloc_before_init(static_cast<unsigned int>(size));
  }
  if (QUORLA_UNLIKELY(g_bool_memory_need_enable_thread_background)) return malloc_after_background_request(size);
  // The main thread's heap by one comparison; another thread's from its home slot of the
  // registry's map, else by the full lookup.
  Memory_thread_local_data* heap = g_ptr_memory_thread_local_data_main_thread;
  unsigned long thread_id = thread_self();
  if (QUORLA_UNLIKELY(thread_id != g_sizet_main_thread_id)) {
    heap = g_memory_thread_id_thread_local_data.find_at_home(thread_id);
    if (QUORLA_UNLIKELY(heap == nullptr)) return malloc_with_registry(thread_id, size);
  }
  Memory_mpsc_queue_wait_release* queue = heap->page_group.ptr_mpsc_queue_wait_release;
  if (QUORLA_UNLIKELY(queue != nullptr && queue->uint_need_pop != 0)) return drain_and_route(heap, size);
  return route(heap, size);
}

QUORLA_EXPORT void quorla_free(void* ptr) noexcept {
  using namespace quorla;
  store_fence();
  // One test disposes of null and of everything numerically below the before-init heap.
  if (g_memory_first_init_data.is_below_next(ptr)) {
    if (g_memory_first_init_data.is_at_or_above_base(ptr)) {
      load_fence();
      quorla_free_before_init(ptr);
    }
    return;
  }
  // Not ready, or shut down: the block simply stays.
  if (QUORLA_UNLIKELY(g_uint_memory_magic_flag_malloc_can_use != k_memory_magic_flag)) return;
  unsigned long offset = region_offset_of(ptr);
  // Only the large-allocation tier hands out region-aligned pointers.
  if (QUORLA_UNLIKELY(offset == 0)) {
    load_fence();
    quorla_os_free(ptr);
    return;
  }
  unsigned long* slots = region_slots_of(ptr);
  auto* page_piece = reinterpret_cast<Memory_bitmap_page_piece*>(slots[0]);
  // The one check that a pointer belongs to the allocator at all.
  if (QUORLA_UNLIKELY(page_piece->ptr_byte_block != reinterpret_cast<unsigned char*>(slots))) return;
  unsigned int page = page_index_of_offset(offset);
  unsigned long slot = slots[page];
  Memory_bitmap_page_group* group = page_piece->ptr_page_group;
  if (QUORLA_UNLIKELY(group->ulong_thread_id != thread_self())) return free_foreign(group, ptr);
  if (QUORLA_LIKELY(slot > 511)) return reinterpret_cast<Memory_bitmap_piece*>(slot)->release_block(ptr);
  if (slot == 0) return;
  Memory_bitmap_page_group::release_pages(page_piece, static_cast<unsigned int>(slot), page);
}

QUORLA_EXPORT void quorla_free_local_thread(void* ptr) noexcept {
  using namespace quorla;
  // Assumes an in-region pointer of this thread's heap: none of free's guards.
  unsigned long* slots = region_slots_of(ptr);
  unsigned int page = page_index_of(ptr);
  unsigned long slot = slots[page];
  if (slot > 511) return reinterpret_cast<Memory_bitmap_piece*>(slot)->release_block(ptr);
  // Unlike free, a slot of 0 goes on to the run release, which finds nothing to release.
  Memory_bitmap_page_group::release_pages(reinterpret_cast<Memory_bitmap_page_piece*>(slots[0]),
                                          static_cast<unsigned int>(slot), page);
}

QUORLA_EXPORT void quorla_free_local_thread_use_ref(void** ptr_ref) noexcept { quorla_free_local_thread(*ptr_ref); }

#if QUORLA_STANDARD_NAMES
// The standard names are the same functions, not forwarders: one address, two symbols.
QUORLA_EXPORT void* malloc(size_t size) noexcept __attribute__((alias("quorla_malloc")));
QUORLA_EXPORT void free(void* ptr) noexcept __attribute__((alias("quorla_free")));
// glibc's internal names, which some libraries call directly: ours too, so that no block
// crosses between two allocators.
QUORLA_EXPORT void* __libc_malloc(size_t size) noexcept __attribute__((alias("quorla_malloc")));
QUORLA_EXPORT void __libc_free(void* ptr) noexcept __attribute__((alias("quorla_free")));
#endif

}  // extern "C"
