// unordered_map_allocator: the hash table for the allocator's own records (the thread
// registry, the large-allocation table), on a slot vector fed by an allocator policy, below
// malloc. find_with_hash answers 0xFFFFFFFF for a missing key.
#pragma once

#include <functional>

#include "foundation/quorla_unordered_map_base.h"
#include "foundation/quorla_vector_allocator.h"

namespace quorla {

template <class K, class V, class H, class E, class A>
class unordered_map_allocator
    : public Unordered_map_base<K, V, H, E, vector_allocator<Struct_unordered_map_wrap<K, V>, A>, true> {};

}  // namespace quorla
