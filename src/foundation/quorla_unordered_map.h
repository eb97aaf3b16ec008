// unordered_map: the same table on the exported malloc, for code above the allocator (the
// configuration engine). find_with_hash answers the bucket count for a missing key.
#pragma once

#include <functional>

#include "foundation/quorla_hash.h"
#include "foundation/quorla_unordered_map_base.h"
#include "foundation/quorla_vector.h"

namespace quorla {

template <class K, class V, class H = hash<K>, class E = std::equal_to<K>>
class unordered_map : public Unordered_map_base<K, V, H, E, vector<Struct_unordered_map_wrap<K, V>>, false> {};

}  // namespace quorla
