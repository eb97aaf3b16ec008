// Memory_wait_release_ptr_part_numa_node: the wait-release cache of the process, one
// Struct_Memory_wait_release_ptr_node for each NUMA node, and the queue through which a region
// that found no slot in its node's array waits for the background thread.
//
// Regions are always taken from node 0, whichever node the caller runs on; a region goes back
// to the node that its tag names. mutex_push serialises the queue's producers and stands
// below every lock of the page heap and above g_mutex_mmap. uint_wait_free_queue_count is
// raised under mutex_push and read and cleared by the background thread without it.
//
// Built by the static initialiser after the root pool and before the page supplies; its
// destructor runs after theirs, so that their empty pieces can still hand regions back.
#pragma once

#include "foundation/quorla_base.h"
#include "foundation/quorla_mutex.h"
#include "os_memory/quorla_wait_release_ptr_node.h"
#include "os_memory/quorla_wait_release_queue_allocator.h"
#include "page_heap/quorla_memory_allocator.h"

namespace quorla {

class Memory_wait_release_ptr_part_numa_node {
 public:
  Memory_wait_release_ptr_part_numa_node();
  ~Memory_wait_release_ptr_part_numa_node();
  Memory_wait_release_ptr_part_numa_node(const Memory_wait_release_ptr_part_numa_node&) = delete;
  Memory_wait_release_ptr_part_numa_node& operator=(const Memory_wait_release_ptr_part_numa_node&) = delete;

  // Any thread: a tagged region that its node's arrays could not take.
  void push_wait_free_queue(unsigned char* ptr_region);
  // Background thread: hands every queued region to its node's vectors; a region whose page
  // type is neither 0 nor 1 is dropped without a word.
  void store_wait_free_queue_to_node();
  // Background thread, once a round: the queue, then every node's decision.
  void background_thread_run();
  // Any thread: every node empties itself at the background thread's next round.
  void trim();

  unsigned long get_all_byte() const;
  unsigned long get_byte_page() const;
  unsigned long get_byte_hugepage2m() const;
  unsigned int get_block_count_all() const;  // kept in 32 bits
  // Every node's print (standard error); the total then every node's print_byte (standard
  // output). Nothing once the nodes are gone.
  void print() const;
  void print_byte() const;

  mutex mutex_push;
  unsigned int uint_wait_free_queue_count;
  Struct_Memory_wait_release_ptr_node* ptr_ar_node;  // g_uint_numa_node_count nodes, in one mapping
  Memory_wait_release_queue_allocator<Memory_allocator_os_mmap_page, 512> queue_wait_release;
};

extern Memory_wait_release_ptr_part_numa_node g_memory_wait_release_ptr_part_numa_node;

// A region for a page piece, a page-supply piece or a large block of exactly one region:
// node 0's stock first; on a miss the background thread is asked for once enough is mapped,
// and the region is mapped here. Never null, unless bool_may_fail (the hardened build's large
// blocks): then a mapping the kernel refuses answers null, errno as it was. Also safe before
// the cache is built and after it is gone, when every region is mapped.
unsigned char* memory_wait_release_malloc_region(bool bool_may_fail = false);

// An empty region goes back: the tag is written (page type, node, the pages that may be
// dirty, the release moment, which also refreshes g_timet_millisecond_now_steady), then its
// node's arrays take it, or the queue does. Without a cache the region is unmapped by its tag.
void memory_wait_release_free_region(unsigned char* ptr_region, unsigned char uchar_page_type,
                                     unsigned short ushort_numa_node, unsigned int uint_top_bit);

}  // namespace quorla
