// The layer check of the allocator's own memory: every policy call names the layer it
// enters (0 the kernel, 1 the start-up heap, 2 the root pool, 3 the region cache, 4 the
// per-CPU page supply, 5 the per-CPU pools; the entry points are 8), and a call may only go
// down. A call that goes up could wait on itself the first time the layer below needs a record.
//
// Built in only where QUORLA_CHECK_LAYERS is 1 (the internals the unit tests link); the
// shipped library compiles every scope to nothing. The depth is per thread, in static TLS,
// and costs no allocation.
#pragma once

#include "foundation/quorla_base.h"

namespace quorla {

constexpr unsigned int k_layer_entry = 8;

#if QUORLA_CHECK_LAYERS

// k_layer_entry - current layer of this thread: 0 outside any policy call.
extern __thread unsigned char g_uchar_layer_below_entry;

[[noreturn]] void layer_check_fail(unsigned int entered, unsigned int current);

class Layer_scope {
 public:
  explicit Layer_scope(unsigned int layer) : uchar_saved(g_uchar_layer_below_entry) {
    unsigned int current = k_layer_entry - uchar_saved;
    if (layer >= current) layer_check_fail(layer, current);
    g_uchar_layer_below_entry = static_cast<unsigned char>(k_layer_entry - layer);
  }
  ~Layer_scope() { g_uchar_layer_below_entry = uchar_saved; }
  Layer_scope(const Layer_scope&) = delete;
  Layer_scope& operator=(const Layer_scope&) = delete;

 private:
  unsigned char uchar_saved;
};

#define QUORLA_LAYER(n) ::quorla::Layer_scope quorla_layer_scope_(n)

#else

#define QUORLA_LAYER(n) ((void)0)

#endif

}  // namespace quorla
