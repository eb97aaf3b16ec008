// The mapping layer's globals and operations. Every mmap of the allocator goes through
// os_malloc_mmap_with_flag and every munmap through os_free_unmap_without_lock, both under
// g_mutex_mmap, which is what keeps the two plain counters exact.
#include "os_memory/quorla_os_mmap.h"

#include <sys/mman.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <new>

#include "foundation/quorla_base.h"
#include "foundation/quorla_memory_util.h"
#include "foundation/quorla_stack_message.h"
#include "startup/quorla_memory_settings.h"
#include "os_memory/quorla_region_tag.h"

namespace quorla {

// The start-up order of these globals is fixed by the static initialiser; until then they
// live here. The counters start at 0 and the huge-page flags false.
// g_mutex_mmap is defined by start-up, in the library's load order.
size_t g_locking_sizet_os_malloc_all_size = 0;
unsigned int g_locking_uint_os_malloc_hugepage2m_count = 0;

bool g_bool_memory_use_hugepage2m = false;
bool g_bool_memory_use_hugepage = false;
bool g_bool_memory_has_try_use_hugepage2m = false;

namespace {

constexpr unsigned int k_uint_mmap_max_try = 8;

Os_mmap_function g_os_mmap_function = &::mmap;

// Bytes 0 to 3 of the region tag; bytes 4 to 15 are the piece's to write at release.
QUORLA_INLINE void write_region_tag(void* ptr, unsigned char page_type, unsigned short node) {
  Region_tag* tag = region_tag_of(ptr);
  tag->uchar_page_type = page_type;
  tag->ushort_numa_node = node;
}

QUORLA_COLD void write_mmap_failure(unsigned long size, int error_number) {
  Stack_message<1024>()
      .text("Error: os_malloc_mmap_with_flag() failed. size=")
      .dec(size)
      .errno_end_line(error_number)
      .write();
}

// The kernel's default huge-page size in kB from /proc/meminfo, or 0 when it cannot be read.
unsigned long default_hugepage_size_kb() {
  char buffer[8192];
  memset(buffer, 0, sizeof(buffer));
  if (!file_to_chars("/proc/meminfo", sizeof(buffer), buffer)) return 0;
  const char* field = strstr(buffer, "Hugepagesize:");
  if (field == nullptr) return 0;
  field += 13;
  while (*field == ' ' || *field == '\t') ++field;
  bool overflow = false;
  return chars_to_ulong(field, strlen(field), overflow);
}

}  // namespace

Os_mmap_function set_os_mmap_function_for_test(Os_mmap_function function) {
  Os_mmap_function previous = g_os_mmap_function;
  g_os_mmap_function = function != nullptr ? function : &::mmap;
  return previous;
}

void memory_prefault_page(void* ptr_void_start, unsigned long ulong_size) {
  // volatile: the store must reach memory so that the kernel populates the page now.
  volatile unsigned char* ptr = static_cast<unsigned char*>(ptr_void_start);
  volatile unsigned char* end = ptr + ulong_size;
  for (; ptr < end; ptr += k_page_byte) *ptr = 0;
}

void memory_prefault_hugepage2m(void* ptr_void_start, unsigned long ulong_size) {
  volatile unsigned char* ptr = static_cast<unsigned char*>(ptr_void_start);
  volatile unsigned char* end = ptr + ulong_size;
  for (; ptr < end; ptr += k_region_byte) *ptr = 0;
}

void* os_malloc_mmap_with_flag(unsigned long ulong_size, int int_flag) {
  // A failed attempt followed by a good one, or a huge-page refusal that the caller answers
  // with ordinary pages, must not show in the caller's errno.
  const int int_errno = errno;
  for (unsigned int uint_try = 0; uint_try < k_uint_mmap_max_try; ++uint_try) {
    void* ptr = g_os_mmap_function(nullptr, ulong_size, PROT_READ | PROT_WRITE,
                                   MAP_PRIVATE | MAP_ANONYMOUS | int_flag, -1, 0);
    if (QUORLA_LIKELY(ptr != MAP_FAILED)) {
      g_locking_sizet_os_malloc_all_size += ulong_size;
      errno = int_errno;
      return ptr;
    }
    // A failed huge-page mapping is a normal outcome: the caller falls back, silently.
    if (int_flag != 0) {
      errno = int_errno;
      return nullptr;
    }
    write_mmap_failure(ulong_size, errno);
    std::new_handler handler = std::get_new_handler();
    if (handler == nullptr) std::terminate();
    // Called with g_mutex_mmap held; the lock is recursive, so a handler may map or unmap.
    handler();
  }
  std::terminate();
}

void os_free_unmap_without_lock(void* ptr_void_in, unsigned long ulong_size) {
  const int int_errno = errno;
  if (QUORLA_LIKELY(munmap(ptr_void_in, ulong_size) == 0)) {
    g_locking_sizet_os_malloc_all_size -= ulong_size;
    return;
  }
  // The bytes stay counted: as far as this layer knows they are still mapped. free and the
  // other callers leave errno as it was.
  int error_number = errno;
  Stack_message<1024>()
      .text("Warn: os_free_unmap_without_lock() failed. ptr_void_in=")
      .hex_lower(ptr_void_in)
      .text(", size=")
      .dec(ulong_size)
      .errno_end_line(error_number)
      .write();
  errno = int_errno;
}

void* os_malloc_mmap_page(unsigned long& ulong_size) {
  ulong_size = round_up_page(ulong_size);
  g_mutex_mmap.lock();
  void* ptr = os_malloc_mmap_with_flag(ulong_size, 0);
  write_region_tag(ptr, k_uchar_page_type_normal, 0);
  // The first page needs no prefault: the tag has just touched it.
  if (g_bool_memory_enable_page_prefault && ulong_size > k_page_byte) {
    memory_prefault_page(static_cast<unsigned char*>(ptr) + k_page_byte, ulong_size - k_page_byte);
  }
  g_mutex_mmap.unlock();
  return ptr;
}

void* os_realloc_mmap_page(void* ptr_void_old, unsigned long ulong_old_size, unsigned long& ulong_new_size) {
  if (ptr_void_old == nullptr || ulong_old_size == 0) return os_malloc_mmap_page(ulong_new_size);
  ulong_old_size = round_up_page(ulong_old_size);
  if (ulong_new_size == 0) {
    g_mutex_mmap.lock();
    os_free_unmap_without_lock(ptr_void_old, ulong_old_size);
    g_mutex_mmap.unlock();
    return nullptr;
  }
  ulong_new_size = round_up_page(ulong_new_size);
  g_mutex_mmap.lock();
  // No tag and no prefault: the copy brings the old first bytes along.
  void* ptr = os_malloc_mmap_with_flag(ulong_new_size, 0);
  memcpy(ptr, ptr_void_old, ulong_new_size < ulong_old_size ? ulong_new_size : ulong_old_size);
  os_free_unmap_without_lock(ptr_void_old, ulong_old_size);
  g_mutex_mmap.unlock();
  return ptr;
}

namespace {

// The alignment trick on a mapping of size + alignment bytes: when the kernel's address is
// already aligned the head is a whole alignment, so the aligned start is given back and the
// second part kept, and the shape never depends on luck. Caller holds g_mutex_mmap.
unsigned char* trim_to_alignment(unsigned char* ptr_map, unsigned long ulong_size, unsigned long ulong_alignment) {
  unsigned long ulong_low = reinterpret_cast<unsigned long>(ptr_map) & (ulong_alignment - 1);
  unsigned long ulong_head = ulong_alignment - ulong_low;
  if (ulong_head != 0) os_free_unmap_without_lock(ptr_map, ulong_head);
  unsigned char* ptr = ptr_map + ulong_head;
  if (ulong_low != 0) os_free_unmap_without_lock(ptr + ulong_size, ulong_low);
  write_region_tag(ptr, k_uchar_page_type_normal, 0);
  if (g_bool_memory_enable_page_prefault && ulong_size > k_page_byte) {
    memory_prefault_page(ptr + k_page_byte, ulong_size - k_page_byte);
  }
  return ptr;
}

}  // namespace

void* os_malloc_mmap_page_align(unsigned long ulong_size, unsigned long ulong_alignment) {
  ulong_size = round_up_page(ulong_size);
  ulong_alignment = round_up_page(ulong_alignment);
  g_mutex_mmap.lock();
  unsigned char* ptr_map = static_cast<unsigned char*>(os_malloc_mmap_with_flag(ulong_size + ulong_alignment, 0));
  unsigned char* ptr = trim_to_alignment(ptr_map, ulong_size, ulong_alignment);
  g_mutex_mmap.unlock();
  return ptr;
}

void* os_try_malloc_mmap_page_align(unsigned long ulong_size, unsigned long ulong_alignment) {
  ulong_size = round_up_page(ulong_size);
  ulong_alignment = round_up_page(ulong_alignment);
  const int int_errno = errno;
  g_mutex_mmap.lock();
  void* ptr_map = g_os_mmap_function(nullptr, ulong_size + ulong_alignment, PROT_READ | PROT_WRITE,
                                     MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  unsigned char* ptr = nullptr;
  if (ptr_map != MAP_FAILED) {
    g_locking_sizet_os_malloc_all_size += ulong_size + ulong_alignment;
    ptr = trim_to_alignment(static_cast<unsigned char*>(ptr_map), ulong_size, ulong_alignment);
  }
  g_mutex_mmap.unlock();
  errno = int_errno;
  return ptr;
}

void* os_malloc_mmap_page_2m_align(unsigned int /*uint_numa_node*/) {
  g_mutex_mmap.lock();
  unsigned char* ptr_map = static_cast<unsigned char*>(os_malloc_mmap_with_flag(2 * k_region_byte, 0));
  unsigned long ulong_low = reinterpret_cast<unsigned long>(ptr_map) & k_region_offset_mask;
  unsigned long ulong_head = k_region_byte - ulong_low;
  // Unconditional: an aligned mapping gives back its aligned first half and keeps the second.
  os_free_unmap_without_lock(ptr_map, ulong_head);
  unsigned char* ptr_region = ptr_map + ulong_head;
  if (ulong_low != 0) os_free_unmap_without_lock(ptr_region + k_region_byte, ulong_low);
  // A region of ordinary pages always says node 0; the node argument is ignored.
  write_region_tag(ptr_region, k_uchar_page_type_normal, 0);
  if (g_bool_memory_enable_page_prefault) {
    memory_prefault_page(ptr_region + k_page_byte, k_region_byte - k_page_byte);
  }
  g_mutex_mmap.unlock();
  return ptr_region;
}

void* os_malloc_hugepage2m(unsigned long& ulong_size) {
  ulong_size = round_up_region(ulong_size);
  g_mutex_mmap.lock();
  // A huge-page mapping is already 2 MB aligned: no trim.
  unsigned char* ptr = static_cast<unsigned char*>(os_malloc_mmap_with_flag(ulong_size, k_int_map_hugetlb));
  if (ptr != nullptr) {
    g_locking_uint_os_malloc_hugepage2m_count += static_cast<unsigned int>(ulong_size >> 21);
    write_region_tag(ptr, k_uchar_page_type_hugepage2m, 0);
    // Not tied to the prefault setting: a huge page is populated whole on its first touch,
    // so touching each one now costs nothing later.
    if (ulong_size > k_region_byte) {
      memory_prefault_hugepage2m(ptr + k_region_byte, ulong_size - k_region_byte);
    }
  }
  g_mutex_mmap.unlock();
  return ptr;
}

void* os_malloc_hugepage2m_size_2m(unsigned int uint_numa_node) {
  g_mutex_mmap.lock();
  void* ptr = os_malloc_mmap_with_flag(k_region_byte, k_int_map_hugetlb);
  if (ptr != nullptr) {
    ++g_locking_uint_os_malloc_hugepage2m_count;
    write_region_tag(ptr, k_uchar_page_type_hugepage2m, static_cast<unsigned short>(uint_numa_node));
  }
  g_mutex_mmap.unlock();
  return ptr;
}

void* os_malloc_map_align_2m_size_2m() {
  // The lock is not held between the huge-page attempt and the fallback.
  if (g_bool_memory_use_hugepage2m) {
    unsigned long ulong_size = k_region_byte;
    void* ptr = os_malloc_hugepage2m(ulong_size);
    if (ptr != nullptr) return ptr;
  }
  return os_malloc_mmap_page_2m_align(0);
}

void os_free_map_size_2m(unsigned char* ptr_byte_region) {
  // Byte 0 must hold the tag again, not a piece pointer; anything else is left alone.
  unsigned char uchar_page_type = ptr_byte_region[0];
  if (uchar_page_type == k_uchar_page_type_normal) {
    g_mutex_mmap.lock();
    os_free_unmap_without_lock(ptr_byte_region, k_region_byte);
    g_mutex_mmap.unlock();
  } else if (uchar_page_type == k_uchar_page_type_hugepage2m) {
    g_mutex_mmap.lock();
    --g_locking_uint_os_malloc_hugepage2m_count;
    os_free_unmap_without_lock(ptr_byte_region, k_region_byte);
    g_mutex_mmap.unlock();
  }
}

bool is_support_hugepage2m() {
  // The huge-page paths take the default huge-page size to be 2 MB. Where the kernel says
  // otherwise, a 2 MB request would map a bigger page that cannot be unmapped by halves, so
  // the probe fails. An unreadable /proc/meminfo leaves the decision to the mapping.
  unsigned long ulong_default_kb = default_hugepage_size_kb();
  if (ulong_default_kb != 0 && ulong_default_kb != (k_region_byte >> 10)) return false;
  g_mutex_mmap.lock();
  void* ptr = os_malloc_mmap_with_flag(k_region_byte, k_int_map_hugetlb);
  if (ptr != nullptr) os_free_unmap_without_lock(ptr, k_region_byte);
  g_mutex_mmap.unlock();
  return ptr != nullptr;
}

void memory_try_enable_hugepage2m() {
  // Overwrites an earlier result either way.
  bool bool_support = is_support_hugepage2m();
  g_bool_memory_use_hugepage2m = bool_support;
  if (bool_support) g_bool_memory_use_hugepage = true;
  store_fence();
}

void memory_force_enable_hugepage2m() {
  g_bool_memory_has_try_use_hugepage2m = true;
  memory_try_enable_hugepage2m();
}

}  // namespace quorla
