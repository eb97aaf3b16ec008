// Struct_Memory_wait_release_ptr_node: one NUMA node's stock of whole 2 MB regions that wait
// between uses, so that the next demand needs no mmap, no page faults and no g_mutex_mmap.
// Two lock-free arrays of 4096 slots (ordinary pages, 2 MB huge pages) serve any thread; two
// private vectors hold what found no slot and belong to the background thread alone, as do
// every call that maps or unmaps for the cache and every decision of background_thread_run.
//
// Invariants: a slot holds 0 (empty) or a region's address. A slot is claimed by
// compare-and-swap first and its array's count adjusted afterwards, so a count is a hint that
// may lag behind the slots, run ahead of them or wrap below 0 for a moment; every reader
// copes. A region is in at most one store. The release paths go by the store they take from,
// not by the tag. The node lives in a mapping of its own (never from the allocator).
//
// Callers: page pieces, a large allocation of exactly one region and the per-CPU page supply
// take with malloc() and give back with free(); the background thread runs the rest.
#pragma once

#include <array>
#include <atomic>

#include "foundation/quorla_base.h"
#include "foundation/quorla_vector_allocator.h"
#include "page_heap/quorla_memory_allocator.h"

namespace quorla {

constexpr unsigned int k_uint_wait_release_slot_count = 4096;
// The stock that try_store_vt_to_ar_atomic refills from the vectors: at most 32 regions.
constexpr unsigned int k_uint_wait_release_vt_refill_stock = 31;
// The highest target a node takes on. prepare_atomic_wait_release_ptr fills one array only
// (the huge one while huge pages map, else the ordinary one), so a target above one array's
// 4096 slots could never be met and the preparing loop would map without end.
constexpr unsigned int k_uint_wait_release_prepare_limit_max = k_uint_wait_release_slot_count;

using Wait_release_slot_array = std::array<std::atomic<unsigned long>, k_uint_wait_release_slot_count>;
using Wait_release_region_vector = vector_allocator<unsigned char*, Memory_allocator_os_mmap_page>;

struct Struct_Memory_wait_release_ptr_node {
  explicit Struct_Memory_wait_release_ptr_node(unsigned int numa_node);
  ~Struct_Memory_wait_release_ptr_node();
  Struct_Memory_wait_release_ptr_node(const Struct_Memory_wait_release_ptr_node&) = delete;
  Struct_Memory_wait_release_ptr_node& operator=(const Struct_Memory_wait_release_ptr_node&) = delete;

  // Any thread. A region (huge first) or null; a miss resets the target from all mapped
  // memory and yields, twice. Every call postpones the next release by five intervals.
  unsigned char* malloc();
  // Any thread. Stores a tagged region by its page type; false when the array is full or
  // the type is neither 0 nor 1.
  bool free(unsigned char* ptr_region);

  static bool save_to_ar_atomic(unsigned char* ptr_region, std::atomic<unsigned int>& atomic_count,
                                Wait_release_slot_array& ar_atomic);
  static unsigned long malloc_from_ar_atomic(std::atomic<unsigned int>& atomic_count, Wait_release_slot_array& ar_atomic);

  // Background thread only from here to release_all_wait_release().
  void push_page(unsigned char* ptr_region);
  void push_hugepage2m(unsigned char* ptr_region);
  unsigned int prepare_atomic_wait_release_ptr();
  void try_store_vt_to_ar_atomic();
  bool release_one_wait_release_ptr();
  void background_thread_trim();
  void background_thread_run();
  void release_all_wait_release();

  // Any thread: asks the background thread's next round to empty the node.
  void trim();

  unsigned int get_block_count_all() const;
  unsigned long get_all_byte() const;
  unsigned long get_byte_page() const;
  unsigned long get_byte_hugepage2m() const;
  // Reports (quorla_os_memory_report.cc): the counts on standard error, the bytes on
  // standard output (nothing when the node is empty).
  void print() const;
  void print_byte() const;

  unsigned int uint_numa_node;
  unsigned int uint_need_prepare_2m_count;  // the target: regions wanted ready in the arrays
  bool bool_need_trim;                      // plain byte, stored with a full fence
  unsigned long ulong_microseconds_next_release;  // no release before this steady-clock moment
  Wait_release_region_vector vt_page;
  std::atomic<unsigned int> atomic_page;
  Wait_release_slot_array ar_atomic_page;
  Wait_release_region_vector vt_hugepage2m;
  std::atomic<unsigned int> atomic_hugepage2m;
  Wait_release_slot_array ar_atomic_hugepage2m;
};

// The steady clock of the cache's decisions, in nanoseconds. Tests only: replaces it so that
// the release pace can be driven without waiting; null restores the real clock. Returns the
// function in use before the call. Not for library code.
using Wait_release_clock_function = unsigned long long (*)();
Wait_release_clock_function set_wait_release_clock_for_test(Wait_release_clock_function function);

}  // namespace quorla
