// The topology scan and the node binding. Paths are built on the stack; files are read
// with file_to_chars into cleared buffers one byte longer than the read, so that the text
// is always terminated.
#include "topology/quorla_numa.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "foundation/quorla_conversion.h"
#include "foundation/quorla_machine.h"
#include "foundation/quorla_memory_util.h"
#include "foundation/quorla_stack_message.h"

namespace quorla {

Memory_numa_node_bitmask g_ar_memory_numa_node_bitmask[k_uint_numa_node_mask_count];

namespace {

constexpr long k_long_syscall_mbind = 237;  // x86-64
constexpr unsigned long k_ulong_mpol_bind = 2;
constexpr unsigned int k_uint_cpumap_buffer = 2048;
constexpr unsigned int k_uint_small_file_buffer = 64;

// root "/node" node suffix; the builder aborts rather than truncate.
using Node_path = Stack_message<512>;

QUORLA_INLINE void build_node_path(Node_path& path, const char* root, unsigned int node, const char* suffix) {
  path.text(root).text("/node").dec(node).text(suffix);
}

// A node's small file (a count and a line end) into buffer, terminated; its length.
unsigned long read_small_node_file(const char* root, unsigned int node, const char* suffix,
                                   char (&buffer)[k_uint_small_file_buffer + 1]) {
  Node_path path;
  build_node_path(path, root, node, suffix);
  memset(buffer, 0, sizeof(buffer));
  file_to_chars(path.c_str(), k_uint_small_file_buffer, buffer);
  return strlen(buffer);
}

}  // namespace

void set_ar_numa_node_offset_cpu_from_hex_txt(unsigned int uint_node, char* ptr_char_text) {
  unsigned long ulong_length = strlen(ptr_char_text);
  unsigned long ulong_chunk_count = (ulong_length + 15) / 16;
  for (unsigned long i = 0; i < ulong_chunk_count; ++i) {
    bool overflow = false;
    // Each chunk runs to the end of the text; the parse stops at the first non-digit, so
    // the kernel's commas cut a group short rather than being skipped.
    unsigned long ulong_bits = chars_hex_to_ulong(ptr_char_text + 16 * i, ulong_length - 16 * i, overflow);
    for (unsigned int j = 0; j < 64; ++j) {
      if ((ulong_bits & (1UL << j)) == 0) continue;
      unsigned long ulong_cpu = i * 64 + j;
      // Indices past the table do arise: the chunks do not follow the kernel's comma groups,
      // so the last chunk of a real 136-CPU mask sets bits beyond 135. They are dropped here.
      if (ulong_cpu < k_max_cpu_count) g_ar_uchar_numa_node_offset_cpu[ulong_cpu] = static_cast<unsigned char>(uint_node);
    }
  }
}

unsigned long get_numa_node_free_page_count_in(const char* ptr_char_root, unsigned int uint_node) {
  char buffer[k_uint_small_file_buffer + 1];
  // The text begins "nr_free_pages " and the value follows at index 14.
  unsigned long ulong_length = read_small_node_file(ptr_char_root, uint_node, "/vmstat", buffer);
  if (ulong_length < 15) return 0;
  bool overflow = false;
  return chars_to_ulong(buffer + 14, ulong_length - 14, overflow);
}

unsigned long get_numa_node_free_hugepage2m_count_in(const char* ptr_char_root, unsigned int uint_node) {
  char buffer[k_uint_small_file_buffer + 1];
  unsigned long ulong_length =
      read_small_node_file(ptr_char_root, uint_node, "/hugepages/hugepages-2048kB/free_hugepages", buffer);
  bool overflow = false;
  return chars_to_ulong(buffer, ulong_length, overflow);
}

unsigned int get_numa_node_has_free_memory_in(const char* ptr_char_root, unsigned int uint_node,
                                              unsigned int uint_max_node) {
  if (get_numa_node_free_page_count_in(ptr_char_root, uint_node) != 0) return uint_node;
  // The lower neighbour of node 0 is max - 1, not max.
  unsigned int uint_lower = uint_node == 0 ? uint_max_node - 1 : uint_node - 1;
  if (get_numa_node_free_page_count_in(ptr_char_root, uint_lower) != 0) return uint_lower;
  unsigned int uint_upper = uint_node + 1 > uint_max_node ? 0 : uint_node + 1;
  if (get_numa_node_free_page_count_in(ptr_char_root, uint_upper) != 0) return uint_upper;
  for (unsigned int uint_any = 0; uint_any <= uint_max_node; ++uint_any) {
    if (get_numa_node_free_page_count_in(ptr_char_root, uint_any) != 0) return uint_any;
  }
  return 0;
}

unsigned int numa_data_init_in(const char* ptr_char_root) {
  if (g_uint_cpu_count > k_max_cpu_count) {
    write_and_abort("Error: get_numa_max_node() find too many cpu. max_support_cpu_count=136\r\n");
  }
  unsigned int uint_max_node = 0;
  char buffer[k_uint_cpumap_buffer + 1];
  for (unsigned int uint_node = 0;; ++uint_node) {
    Node_path path;
    build_node_path(path, ptr_char_root, uint_node, "/cpumap");
    memset(buffer, 0, sizeof(buffer));
    file_to_chars(path.c_str(), k_uint_cpumap_buffer + 1, buffer);
    if (buffer[0] == 0) break;
    uint_max_node = uint_node;
    set_ar_numa_node_offset_cpu_from_hex_txt(uint_node, buffer);
  }
  // Node 8 passes although the message says 7: there is a ninth mask for it.
  if (uint_max_node > 8) {
    write_and_abort("Error: get_numa_max_node() find too many numa node. max_support_numa_node=7\r\n");
  }
  // Deliberately erases what the scan wrote for the CPUs that exist: every CPU is taken to
  // be on node 0, and only the number of nodes survives from the scan.
  memset(g_ar_uchar_numa_node_offset_cpu, 0, g_uint_cpu_count);
  memset(g_ar_uchar_numa_node_memory_offset_cpu, 0, g_uint_cpu_count);
  unsigned int ar_uint_memory_node[k_uint_numa_node_mask_count];
  for (unsigned int uint_node = 0; uint_node <= uint_max_node; ++uint_node) {
    unsigned int uint_memory_node = get_numa_node_has_free_memory_in(ptr_char_root, uint_node, uint_max_node);
    ar_uint_memory_node[uint_node] = uint_memory_node;
    g_ar_memory_numa_node_bitmask[uint_node].set_bit(uint_memory_node);
  }
  for (unsigned int uint_cpu = 0; uint_cpu < g_uint_cpu_count; ++uint_cpu) {
    g_ar_uchar_numa_node_memory_offset_cpu[uint_cpu] =
        static_cast<unsigned char>(ar_uint_memory_node[g_ar_uchar_numa_node_offset_cpu[uint_cpu]]);
  }
  // Published before any other thread exists; the fence orders it for the readers anyway.
  store_fence();
  return uint_max_node;
}

unsigned long get_numa_node_free_page_count(unsigned int uint_node) {
  return get_numa_node_free_page_count_in(k_numa_node_root, uint_node);
}

unsigned long get_numa_node_free_hugepage2m_count(unsigned int uint_node) {
  return get_numa_node_free_hugepage2m_count_in(k_numa_node_root, uint_node);
}

unsigned int get_numa_node_has_free_memory(unsigned int uint_node, unsigned int uint_max_node) {
  return get_numa_node_has_free_memory_in(k_numa_node_root, uint_node, uint_max_node);
}

unsigned int numa_data_init() { return numa_data_init_in(k_numa_node_root); }

void numa_mem_bind_to_node(void* ptr_void_in, unsigned long ulong_size, unsigned int uint_node) {
  // A node beyond the masks binds to an empty mask, which the kernel refuses like any
  // other unknown node.
  static const Memory_numa_node_bitmask k_empty_mask;
  const Memory_numa_node_bitmask& mask =
      uint_node < k_uint_numa_node_mask_count ? g_ar_memory_numa_node_bitmask[uint_node] : k_empty_mask;
  // A refused binding is reported and the memory used unbound: the caller's errno stays.
  const int int_errno = errno;
  long long_result = syscall(k_long_syscall_mbind, ptr_void_in, ulong_size, k_ulong_mpol_bind, mask.ar_ulong_mask,
                             mask.ulong_size + 1, 0UL);
  if (long_result == 0) return;
  int error_number = errno;
  errno = int_errno;
  Stack_message<1024>()
      .text("Error: numa_mem_bind_to_node() failed. ptr_void_in=")
      .hex_lower(ptr_void_in)
      .text(", size_in=")
      .dec(ulong_size)
      .text(", node_in=")
      .dec(uint_node)
      .errno_end_line(error_number)
      .write();
}

void numa_memory_page_bind_node(unsigned char* ptr_byte, unsigned long ulong_size, unsigned int uint_node) {
  if ((ulong_size >> 12) > get_numa_node_free_page_count(uint_node)) return;
  numa_mem_bind_to_node(ptr_byte, ulong_size, uint_node);
}

}  // namespace quorla
