// One slot of the library's hash maps. A slot is a home for the keys whose hash lands on it
// (uint_probe_limit, uint_home_count) and a place for one key (key, value, uint_hash,
// bool_used), and the two roles are independent. All zero is the free state, provided K
// and V default to all zero; the start-up probe records whether they do.
#pragma once

#include <utility>

namespace quorla {

template <class K, class V>
struct Struct_unordered_map_wrap {
  K key{};
  V value{};
  unsigned int uint_hash = 0;         // the key's full hash; 0 in a free slot
  unsigned int uint_probe_limit = 0;  // as a home: 1 + the farthest distance of its keys; 0: none
  unsigned int uint_home_count = 0;   // as a home: insertions not yet undone by an erase
  bool bool_used = false;

  // Moves the key in, swaps the value in (releasing what was there), marks the slot used.
  void update_move(K& key_in, V& value_in, unsigned int hash) {
    key = std::move(key_in);
    V released = std::move(value);
    value = std::move(value_in);
    (void)released;
    uint_hash = hash;
    bool_used = true;
  }
};

}  // namespace quorla
