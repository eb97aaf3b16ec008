// malloc_version: two notice lines on standard output, the library's name and version, then
// the limits it was built for. Built on the stack: it may be called from anywhere.
#include <cstdio>

#include "quorlamalloc.h"
#include "foundation/quorla_base.h"
#include "foundation/quorla_stack_message.h"

namespace quorla {

const char g_str_memory_version[] = "Libquorlamalloc Version 1.07 Publish Date: 2021.03.09";

namespace {
constexpr unsigned int k_max_support_numa_node = 8;
constexpr unsigned int k_max_support_cpu = 136;
}  // namespace

}  // namespace quorla

extern "C" {

QUORLA_EXPORT void quorla_malloc_version() noexcept {
  using namespace quorla;
  Stack_message<512> message;
  message.text("\r\nNotice: ")
      .text(g_str_memory_version)
      .text("\r\nNotice: Basic version. max_support_numa_node=")
      .dec(k_max_support_numa_node)
      .text(", max_support_cpu=")
      .dec(k_max_support_cpu)
      .end_line();
  fputs(message.c_str(), stdout);
}

#if QUORLA_STANDARD_NAMES
QUORLA_EXPORT void malloc_version() noexcept __attribute__((alias("quorla_malloc_version")));
#endif

}  // extern "C"
