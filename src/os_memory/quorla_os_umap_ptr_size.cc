#include "quorlamalloc.h"
#include "os_memory/quorla_os_umap_ptr_size.h"

#include <cerrno>
#include <cstring>

#include "foundation/quorla_hardened.h"
#include "foundation/quorla_stack_message.h"
#include "startup/quorla_memory_settings.h"
#include "os_memory/quorla_os_mmap.h"
#include "os_memory/quorla_region.h"
#include "os_memory/quorla_region_tag.h"
#include "os_memory/quorla_thread_background.h"
#include "os_memory/quorla_wait_release_ptr_part_numa_node.h"

namespace quorla {

namespace {

QUORLA_INLINE unsigned int hash_of(void* ptr) {
  return static_cast<unsigned int>(hash_crc32c<unsigned long>()(reinterpret_cast<unsigned long>(ptr)));
}

void warn_not_found(const char* text, void* ptr) {
  Stack_message<1024>().text(text).hex_lower(ptr).end_line().write();
}

// A new block of aligned bytes: huge pages when they are in use, else an aligned mapping. The
// hardened build's mapping answers null where the default one ends the process.
unsigned char* map_large(unsigned long aligned) {
  unsigned char* block = nullptr;
  if (g_bool_memory_use_hugepage2m) {
    unsigned long size = aligned;
    block = static_cast<unsigned char*>(os_malloc_hugepage2m(size));
  }
  if (block == nullptr) {
    block = static_cast<unsigned char*>(k_hardened ? os_try_malloc_mmap_page_align(aligned, k_region_byte)
                                                   : os_malloc_mmap_page_align(aligned, k_region_byte));
  }
  return block;
}

// Sizes within one region of the top of the address space would round to 0.
QUORLA_INLINE bool is_beyond_address_space(size_t size) { return size > ~0ul - k_region_offset_mask; }

void unmap_large(void* ptr, unsigned long size, unsigned char page_type) {
  g_mutex_mmap.lock();
  if (page_type != 0) {
    size = round_up_region(size);
    g_locking_uint_os_malloc_hugepage2m_count -= static_cast<unsigned int>(size >> 21);
  } else {
    size = round_up_page(size);
  }
  os_free_unmap_without_lock(ptr, size);
  g_mutex_mmap.unlock();
}

}  // namespace

void* Memory_os_umap_ptr_size::malloc_and_insert_into_umap(unsigned long size) {
  // The configuration gate: this is how the settings get read when a large request comes first.
  memory_check_program_config();
  // Size 0 is served as one region: a block that free and the size query know.
  unsigned long aligned = size == 0 ? k_region_byte : round_up_region(size);
  // A large request that brings the mapped total to the threshold starts the thread at once:
  // this path may start it itself, unlike the region's path below.
  if (!g_bool_memory_use_thread_background &&
      aligned + g_locking_sizet_os_malloc_all_size >= g_ulong_memory_size_use_thread_background_threshold) {
    g_memory_thread_background.enable();
  }
  unsigned char* block;
  if (aligned == k_region_byte) {
    // One region: the region's own path, through the wait-release cache (whose miss the
    // hardened build maps with a mapping that may fail).
    block = memory_wait_release_malloc_region(k_hardened);
  } else {
    block = map_large(aligned);
  }
  if (k_hardened && block == nullptr) {
    errno = ENOMEM;
    return nullptr;
  }
  // The tag is read before the user can overwrite it.
  const auto* tag = reinterpret_cast<const Region_tag*>(block);
  unsigned char page_type = tag->uchar_page_type;
  unsigned short numa_node = tag->ushort_numa_node;
  mutex_umap.lock();
  insert_umap_without_lock(block, aligned, page_type, numa_node);
  mutex_umap.unlock();
  return block;
}

void Memory_os_umap_ptr_size::free_and_erase_from_umap(void* ptr) {
  unsigned long size = 0;
  unsigned char page_type = 0;
  unsigned short numa_node = 0;
  if (!erase_from_umap_with_lock(ptr, size, page_type, numa_node)) {
    warn_not_found("Warn: Memory_os_umap_ptr_size::quorla_os_free() not find. ptr_void_in=", ptr);
    return;
  }
  if (size == k_region_byte) {
    // A waiting region again, whichever way it was mapped: every page may be in CPU caches.
    memory_wait_release_free_region(static_cast<unsigned char*>(ptr), page_type, numa_node, 512);
    return;
  }
  if (page_type > 1) {
    Stack_message<1024>()
        .text("Error: Memory_os_umap_ptr_size::free_and_erase_from_umap() failed. ptr=")
        .hex_lower(ptr)
        .text(", page_type=")
        .dec(page_type)
        .text(", numa_node=")
        .dec(numa_node)
        .end_line()
        .write();
    return;
  }
  unmap_large(ptr, size, page_type);
}

void* Memory_os_umap_ptr_size::realloc_and_update_umap(void* ptr, unsigned long size) {
  if (ptr == nullptr) return malloc_and_insert_into_umap(size);
  mutex_umap.lock();
  unsigned int offset = umap_ptr_size.find_with_hash(reinterpret_cast<unsigned long>(ptr), hash_of(ptr));
  bool found = offset != 0xFFFFFFFF;
  unsigned long old_size = found ? umap_ptr_size.slot(offset).value.ulong_size : 0;
  unsigned char old_page_type = found ? umap_ptr_size.slot(offset).value.uchar_page_type : 0;
  mutex_umap.unlock();
  unsigned long aligned = round_up_region(size);
  // Size 0: a known block is released and the answer is null, as realloc(p, 0) does; an
  // unknown pointer comes back unchanged.
  if (aligned == 0) {
    if (!found) return ptr;
    free_and_erase_from_umap(ptr);
    return nullptr;
  }
  if (found && old_size == aligned) return ptr;
  if (!found || old_size == 0) {
    Stack_message<1024>()
        .text("Error: Memory_os_umap_ptr_size::realloc_and_update_umap() not find old size. ptr_void_in=")
        .hex_lower(ptr)
        .text(", sizet_size_in=")
        .dec(size)
        .text(", sizet_new_size_align=")
        .dec(aligned)
        .end_line()
        .write();
    errno = ENOMEM;
    return nullptr;
  }
  // The cache is not used here, not even for a new size of one region.
  unsigned char* block = map_large(aligned);
  if (k_hardened && block == nullptr) {
    errno = ENOMEM;
    return nullptr;
  }
  const auto* tag = reinterpret_cast<const Region_tag*>(block);
  unsigned char page_type = tag->uchar_page_type;
  unsigned short numa_node = tag->ushort_numa_node;
  memcpy(block, ptr, old_size < aligned ? old_size : aligned);
  unmap_large(ptr, old_size, old_page_type);
  mutex_umap.lock();
  erase_umap_without_lock(ptr);
  insert_umap_without_lock(block, aligned, page_type, numa_node);
  mutex_umap.unlock();
  return block;
}

unsigned long Memory_os_umap_ptr_size::get_malloc_size(void* ptr) {
  mutex_umap.lock();
  unsigned long size = get_size_without_lock(ptr);
  mutex_umap.unlock();
  if (size == 0) warn_not_found("Warn: Memory_os_umap_ptr_size::get_malloc_size() not find. ptr_void_in=", ptr);
  return size;
}

void Memory_os_umap_ptr_size::insert_umap_without_lock(void* ptr, unsigned long size, unsigned char page_type,
                                                       unsigned short numa_node) {
  // An existing entry is left as it is.
  umap_ptr_size.insert_return_iterator_bool(reinterpret_cast<unsigned long>(ptr),
                                            Struct_memory_os_umap_data(size, page_type, numa_node));
}

void Memory_os_umap_ptr_size::erase_umap_without_lock(void* ptr) {
  unsigned int offset = umap_ptr_size.find_with_hash(reinterpret_cast<unsigned long>(ptr), hash_of(ptr));
  if (offset == 0xFFFFFFFF) {
    warn_not_found("Warn: Memory_os_umap_ptr_size::erase_umap() not find. ptr_void_in=", ptr);
    return;
  }
  umap_ptr_size.erase(Map::iterator{&umap_ptr_size, offset});
}

unsigned long Memory_os_umap_ptr_size::get_size_without_lock(void* ptr) {
  unsigned int offset = umap_ptr_size.find_with_hash(reinterpret_cast<unsigned long>(ptr), hash_of(ptr));
  return offset == 0xFFFFFFFF ? 0 : umap_ptr_size.slot(offset).value.ulong_size;
}

bool Memory_os_umap_ptr_size::erase_from_umap_with_lock(void* ptr, unsigned long& size, unsigned char& page_type,
                                                        unsigned short& numa_node) {
  mutex_umap.lock();
  unsigned int offset = umap_ptr_size.find_with_hash(reinterpret_cast<unsigned long>(ptr), hash_of(ptr));
  bool found = offset != 0xFFFFFFFF;
  if (found) {
    const Struct_memory_os_umap_data& data = umap_ptr_size.slot(offset).value;
    size = data.ulong_size;
    page_type = data.uchar_page_type;
    numa_node = data.ushort_numa_node;
    umap_ptr_size.erase(Map::iterator{&umap_ptr_size, offset});
  }
  mutex_umap.unlock();
  return found;
}

}  // namespace quorla

extern "C" {

QUORLA_EXPORT void* quorla_os_malloc(size_t size) noexcept {
  // Refused as the C library does rather than rounded to a tiny block.
  if (quorla::is_beyond_address_space(size)) {
    errno = ENOMEM;
    return nullptr;
  }
  return quorla::g_memory_os_umap_ptr_size.malloc_and_insert_into_umap(size);
}
QUORLA_EXPORT void quorla_os_free(void* ptr) noexcept { quorla::g_memory_os_umap_ptr_size.free_and_erase_from_umap(ptr); }
QUORLA_EXPORT void* quorla_os_realloc(void* ptr, size_t size) noexcept {
  if (quorla::is_beyond_address_space(size)) {
    errno = ENOMEM;
    return nullptr;
  }
  return quorla::g_memory_os_umap_ptr_size.realloc_and_update_umap(ptr, size);
}
QUORLA_EXPORT size_t quorla_os_get_malloc_size(void* ptr) noexcept {
  return quorla::g_memory_os_umap_ptr_size.get_malloc_size(ptr);
}

}  // extern "C"
