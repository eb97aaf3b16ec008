// The reports of the operating-system floor: the region cache's counts (standard error) and
// bytes (standard output), and the large blocks still recorded at tear-down (standard error).
// They take no lock and never allocate: each line is built on the stack and written with
// one fputs. The cache's counts are hints that may lag behind its slots (see the node).
#include "foundation/quorla_machine.h"
#include "foundation/quorla_memory_size_out.h"
#include "foundation/quorla_stack_message.h"
#include "os_memory/quorla_os_umap_ptr_size.h"
#include "os_memory/quorla_wait_release_ptr_part_numa_node.h"

namespace quorla {

namespace {

// ", byte_page=" and ", byte_hugepage2M=" with their amounts, each only when not 0.
template <unsigned int N>
void append_page_type_bytes(Stack_message<N>& line, unsigned long byte_page, unsigned long byte_hugepage2m) {
  if (byte_page != 0) append_memory_size(line.text(", byte_page="), byte_page);
  if (byte_hugepage2m != 0) append_memory_size(line.text(", byte_hugepage2M="), byte_hugepage2m);
}

}  // namespace

void Struct_Memory_wait_release_ptr_node::print() const {
  Stack_message<1024> line;
  line.text("Log: Struct_Memory_wait_release_ptr_node::print() numa_node=").dec(uint_numa_node);
  unsigned int page = atomic_page.load(std::memory_order_relaxed);
  unsigned int hugepage2m = atomic_hugepage2m.load(std::memory_order_relaxed);
  if (page != 0) line.text(", atomic_page=").dec(page);
  if (vt_page.size() != 0) line.text(", vt_page.size()=").dec(vt_page.size());
  if (hugepage2m != 0) line.text(", atomic_hugepage2m=").dec(hugepage2m);
  if (vt_hugepage2m.size() != 0) line.text(", vt_hugepage2m.size()=").dec(vt_hugepage2m.size());
  line.end_line().write(stderr);
}

void Struct_Memory_wait_release_ptr_node::print_byte() const {
  unsigned long all_byte = get_all_byte();
  if (all_byte == 0) return;
  Stack_message<1024> line;
  line.text("Libquorlamalloc wait_release_queue  numa_node=").dec(uint_numa_node).text(", all_byte=");
  append_memory_size(line, all_byte);
  append_page_type_bytes(line, get_byte_page(), get_byte_hugepage2m());
  line.end_line().write(stdout);
}

void Memory_wait_release_ptr_part_numa_node::print() const {
  if (ptr_ar_node == nullptr) return;
  for (unsigned int i = 0; i <= g_uint_numa_max_node; ++i) ptr_ar_node[i].print();
}

void Memory_wait_release_ptr_part_numa_node::print_byte() const {
  if (ptr_ar_node == nullptr) return;
  Stack_message<1024> line;
  line.text("Libquorlamalloc wait_release_queue all_byte=");
  append_memory_size(line, get_all_byte());
  append_page_type_bytes(line, get_byte_page(), get_byte_hugepage2m());
  line.end_line().write(stdout);
  for (unsigned int i = 0; i <= g_uint_numa_max_node; ++i) ptr_ar_node[i].print_byte();
}

void Memory_os_umap_ptr_size::check_memory_leak() {
  if (umap_ptr_size.size() == 0 || umap_ptr_size.bucket_count() == 0) return;
  for (unsigned int i = 0; i < umap_ptr_size.bucket_count(); ++i) {
    const auto& slot = umap_ptr_size.slot(i);
    if (!slot.bool_used) continue;
    Stack_message<512>()
        .text("Error: ~Memory_os_umap_ptr_size() find memory leak. ptr=")
        .hex_lower(slot.key)
        .text(", size=")
        .dec(slot.value.ulong_size)
        .end_line()
        .write(stderr);
  }
}

}  // namespace quorla
