// Test support: the address of one of libquorlamalloc.so's own globals in this process, by
// its mangled name. The library exports only its entry points, but it keeps its full symbol
// table (.symtab), hidden names included; the load address comes from dl_iterate_phdr. So a
// program whose every allocation goes through the library can still read the allocator's
// words. Nothing here allocates: the file is mapped, read and unmapped.
#pragma once

#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace library_symbol {

struct Library {
  const char* ptr_path = nullptr;
  unsigned long ulong_base = 0;
};

// libquorlamalloc.so or its hardened twin libquorlamalloc_hardened.so.
inline int find_library(struct dl_phdr_info* info, size_t, void* data) {
  if (info->dlpi_name == nullptr || strstr(info->dlpi_name, "/libquorlamalloc") == nullptr) return 0;
  auto* library = static_cast<Library*>(data);
  library->ptr_path = info->dlpi_name;
  library->ulong_base = info->dlpi_addr;
  return 1;
}

// The address of the symbol quorla::<name> (a namespace-scope variable), or null.
inline void* quorla_global(const char* name) {
  char mangled[256];
  snprintf(mangled, sizeof(mangled), "_ZN6quorla%zu%sE", strlen(name), name);
  Library library;
  dl_iterate_phdr(find_library, &library);
  if (library.ptr_path == nullptr) return nullptr;
  int fd = open(library.ptr_path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return nullptr;
  struct stat st;
  void* file = fstat(fd, &st) == 0 ? mmap(nullptr, st.st_size, PROT_READ, MAP_PRIVATE, fd, 0) : MAP_FAILED;
  close(fd);
  if (file == MAP_FAILED) return nullptr;
  const auto* bytes = static_cast<const unsigned char*>(file);
  const auto* header = reinterpret_cast<const Elf64_Ehdr*>(bytes);
  const auto* sections = reinterpret_cast<const Elf64_Shdr*>(bytes + header->e_shoff);
  void* found = nullptr;
  for (unsigned i = 0; i < header->e_shnum && found == nullptr; ++i) {
    if (sections[i].sh_type != SHT_SYMTAB) continue;
    const auto* symbols = reinterpret_cast<const Elf64_Sym*>(bytes + sections[i].sh_offset);
    const char* names = reinterpret_cast<const char*>(bytes + sections[sections[i].sh_link].sh_offset);
    for (size_t s = 0; s < sections[i].sh_size / sizeof(Elf64_Sym); ++s) {
      if (strcmp(names + symbols[s].st_name, mangled) == 0) {
        found = reinterpret_cast<void*>(library.ulong_base + symbols[s].st_value);
        break;
      }
    }
  }
  munmap(file, st.st_size);
  return found;
}

}  // namespace library_symbol
