// NUMA topology read from /sys at start-up: the number of nodes, the CPU-to-node tables
// (declared in foundation/quorla_machine.h), the node each node takes memory from, and one
// mbind mask per node. Also the operations that bind memory to a node by raw syscall.
//
// Invariants: everything is written once by the static initialiser on one thread before
// the first allocation and read without locks afterwards. Nothing here allocates; the
// failure lines are built on the stack. No NUMA library is used.
#pragma once

#include "foundation/quorla_base.h"

namespace quorla {

// Nodes 0 to 8 pass the node-count check, so nine masks exist.
constexpr unsigned int k_uint_numa_node_mask_count = 9;
constexpr const char* k_numa_node_root = "/sys/devices/system/node";

// A node mask in the form mbind wants: the call passes ulong_size + 1 as the bit count.
struct Memory_numa_node_bitmask {
  unsigned long ulong_size = 1;
  unsigned long ar_ulong_mask[2] = {0, 0};

  void set_bit(unsigned int bit) { ar_ulong_mask[(bit >> 6) & 1] |= 1UL << (bit & 63); }
};

extern Memory_numa_node_bitmask g_ar_memory_numa_node_bitmask[k_uint_numa_node_mask_count];

// Free 4 KB pages of a node from its vmstat; 0 when unknown.
unsigned long get_numa_node_free_page_count(unsigned int uint_node);
// Free 2 MB huge pages of a node.
unsigned long get_numa_node_free_hugepage2m_count(unsigned int uint_node);
// The node to take memory from: the node, its lower then upper neighbour, then any; else 0.
unsigned int get_numa_node_has_free_memory(unsigned int uint_node, unsigned int uint_max_node);
// Marks the CPUs of a cpumap text as being on node, taken in 16-digit groups, lowest first.
void set_ar_numa_node_offset_cpu_from_hex_txt(unsigned int uint_node, char* ptr_char_text);
// Scans the nodes, fills the tables and masks, returns the highest node number.
unsigned int numa_data_init();
// mbind(MPOL_BIND) of [ptr, ptr + size) to the node's mask; a failure is reported, not fatal.
void numa_mem_bind_to_node(void* ptr_void_in, unsigned long ulong_size, unsigned int uint_node);
// Binds only when the pages fit in the node's free pages.
void numa_memory_page_bind_node(unsigned char* ptr_byte, unsigned long ulong_size, unsigned int uint_node);

// The same readers with the node directory as a parameter, so that the scan can run on a
// copy of the tree. The public forms pass k_numa_node_root.
unsigned long get_numa_node_free_page_count_in(const char* ptr_char_root, unsigned int uint_node);
unsigned long get_numa_node_free_hugepage2m_count_in(const char* ptr_char_root, unsigned int uint_node);
unsigned int get_numa_node_has_free_memory_in(const char* ptr_char_root, unsigned int uint_node,
                                              unsigned int uint_max_node);
unsigned int numa_data_init_in(const char* ptr_char_root);

}  // namespace quorla
