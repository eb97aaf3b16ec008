// The cache of the process: its node array in a mapping of its own, the overflow queue that
// the background thread drains into the nodes' vectors, and the two calls through which the
// page heap and the large-allocation table take and give back whole regions.
#include "os_memory/quorla_wait_release_ptr_part_numa_node.h"

#include <new>

#include "foundation/quorla_layer_check.h"
#include "foundation/quorla_machine.h"
#include "foundation/quorla_pause.h"
#include "os_memory/quorla_os_mmap.h"
#include "os_memory/quorla_region.h"
#include "os_memory/quorla_region_tag.h"
#include "startup/quorla_memory_settings.h"

namespace quorla {

namespace {

QUORLA_INLINE unsigned long node_array_byte() {
  return round_up_page(static_cast<unsigned long>(g_uint_numa_node_count) * sizeof(Struct_Memory_wait_release_ptr_node));
}

// A statistic summed over nodes 0 to g_uint_numa_max_node, in the width of the node's own
// (so the block count stays in 32 bits).
template <class T>
T sum_nodes(const Struct_Memory_wait_release_ptr_node* nodes, T (Struct_Memory_wait_release_ptr_node::*get)() const) {
  T sum = 0;
  for (unsigned int i = 0; i <= g_uint_numa_max_node; ++i) sum += (nodes[i].*get)();
  return sum;
}

}  // namespace

Memory_wait_release_ptr_part_numa_node::Memory_wait_release_ptr_part_numa_node()
    : uint_wait_free_queue_count(0), ptr_ar_node(nullptr) {
  unsigned long size = node_array_byte();
  auto* nodes = static_cast<Struct_Memory_wait_release_ptr_node*>(os_malloc_mmap_page(size));
  for (unsigned int i = 0; i < g_uint_numa_node_count; ++i) new (nodes + i) Struct_Memory_wait_release_ptr_node(i);
  store_fence();
  ptr_ar_node = nodes;
  store_fence();
}

Memory_wait_release_ptr_part_numa_node::~Memory_wait_release_ptr_part_numa_node() {
  Struct_Memory_wait_release_ptr_node* nodes = ptr_ar_node;
  if (nodes != nullptr) {
    for (unsigned int i = 0; i < g_uint_numa_node_count; ++i) nodes[i].~Struct_Memory_wait_release_ptr_node();
    g_mutex_mmap.lock();
    os_free_unmap_without_lock(nodes, node_array_byte());
    g_mutex_mmap.unlock();
  }
  ptr_ar_node = nullptr;
  // Regions still in the queue stay mapped: nothing has to be released in order at exit.
  queue_wait_release.vt_overflow.release();
}

void Memory_wait_release_ptr_part_numa_node::push_wait_free_queue(unsigned char* ptr_region) {
  QUORLA_LAYER(3);
  mutex_push.lock();
  queue_wait_release.push(ptr_region);
  ++uint_wait_free_queue_count;
  mutex_push.unlock();
}

void Memory_wait_release_ptr_part_numa_node::store_wait_free_queue_to_node() {
  for (;;) {
    unsigned long ulong_region = queue_wait_release.get_wait_release();
    if (ulong_region == 0) {
      // One more look after a full fence: a push that raced with the last read is not left
      // behind until the next count.
      full_fence();
      ulong_region = queue_wait_release.get_wait_release();
      if (ulong_region == 0) return;
    }
    auto* ptr_region = reinterpret_cast<unsigned char*>(ulong_region);
    const Region_tag* tag = region_tag_of(ptr_region);
    if (tag->uchar_page_type == k_uchar_page_type_normal) {
      ptr_ar_node[tag->ushort_numa_node].push_page(ptr_region);
    } else if (tag->uchar_page_type == k_uchar_page_type_hugepage2m) {
      ptr_ar_node[tag->ushort_numa_node].push_hugepage2m(ptr_region);
    }
  }
}

void Memory_wait_release_ptr_part_numa_node::background_thread_run() {
  if (uint_wait_free_queue_count != 0) {
    uint_wait_free_queue_count = 0;
    store_fence();
    store_wait_free_queue_to_node();
  }
  for (unsigned int i = 0; i <= g_uint_numa_max_node; ++i) ptr_ar_node[i].background_thread_run();
}

void Memory_wait_release_ptr_part_numa_node::trim() {
  for (unsigned int i = 0; i <= g_uint_numa_max_node; ++i) ptr_ar_node[i].trim();
  store_fence();
}

unsigned long Memory_wait_release_ptr_part_numa_node::get_all_byte() const {
  return sum_nodes(ptr_ar_node, &Struct_Memory_wait_release_ptr_node::get_all_byte);
}

unsigned long Memory_wait_release_ptr_part_numa_node::get_byte_page() const {
  return sum_nodes(ptr_ar_node, &Struct_Memory_wait_release_ptr_node::get_byte_page);
}

unsigned long Memory_wait_release_ptr_part_numa_node::get_byte_hugepage2m() const {
  return sum_nodes(ptr_ar_node, &Struct_Memory_wait_release_ptr_node::get_byte_hugepage2m);
}

unsigned int Memory_wait_release_ptr_part_numa_node::get_block_count_all() const {
  return sum_nodes(ptr_ar_node, &Struct_Memory_wait_release_ptr_node::get_block_count_all);
}

unsigned char* memory_wait_release_malloc_region(bool bool_may_fail) {
  Struct_Memory_wait_release_ptr_node* nodes = g_memory_wait_release_ptr_part_numa_node.ptr_ar_node;
  if (QUORLA_LIKELY(nodes != nullptr)) {
    // Always the first node: demand never looks at the caller's node.
    unsigned char* ptr_region = nodes[0].malloc();
    if (ptr_region != nullptr) return ptr_region;
  }
  if (!g_bool_memory_use_thread_background &&
      g_locking_sizet_os_malloc_all_size >= g_ulong_memory_size_use_thread_background_threshold &&
      g_bool_memory_enable_thread_background) {
    g_bool_memory_need_enable_thread_background = true;
  }
  if (bool_may_fail) return static_cast<unsigned char*>(os_try_malloc_mmap_page_align(k_region_byte, k_region_byte));
  // Never null: exhaustion is made fatal in the mapping layer.
  return static_cast<unsigned char*>(os_malloc_map_align_2m_size_2m());
}

void memory_wait_release_free_region(unsigned char* ptr_region, unsigned char uchar_page_type,
                                     unsigned short ushort_numa_node, unsigned int uint_top_bit) {
  Region_tag* tag = region_tag_of(ptr_region);
  tag->uchar_page_type = uchar_page_type;
  tag->ushort_numa_node = ushort_numa_node;
  tag->uint_top_bit = uint_top_bit;
  tag->ulong_millisecond_release = static_cast<unsigned long>(refresh_timet_millisecond_now_steady());
  Struct_Memory_wait_release_ptr_node* nodes = g_memory_wait_release_ptr_part_numa_node.ptr_ar_node;
  if (QUORLA_UNLIKELY(nodes == nullptr)) {
    os_free_map_size_2m(ptr_region);
    return;
  }
  if (!nodes[ushort_numa_node].free(ptr_region)) g_memory_wait_release_ptr_part_numa_node.push_wait_free_queue(ptr_region);
}

}  // namespace quorla
