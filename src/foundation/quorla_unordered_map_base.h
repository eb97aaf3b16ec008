// The open-addressing table behind unordered_map and unordered_map_allocator: one flat
// array of slots, linear probing, no tombstones and no per-insert allocation. Each home slot
// remembers how far its keys strayed (uint_probe_limit): that bound, not an empty slot, ends
// a search, so a free slot inside the range is walked over. The 32-bit hash is stored, so
// growth never hashes again and most mismatches never read the key. The bucket count is a
// power of two, at least 256; the load limit is (buckets * 179 + 128) >> 8.
//
// Erase moves nothing: a probe range shrinks only when its home empties. When the erased
// key stood in its own home with a limit of exactly 1, the limit drops to 0 but the home's
// count is left one too high, so that home resets later than it could; the limit stays an
// upper bound and lookups stay right.
//
// Not thread-safe; owners guard their maps.
#pragma once

#include "foundation/quorla_conversion.h"
#include "foundation/quorla_stack_message.h"
#include "foundation/quorla_unordered_map_wrap.h"

namespace quorla {

// Vector: the slot vector type (vector<Wrap> or vector_allocator<Wrap, A>).
// k_allocator_form: not-found is 0xFFFFFFFF and the store fence before releasing an old
// array (the allocator's own maps); otherwise not-found is the bucket count.
template <class K, class V, class H, class E, class Vector, bool k_allocator_form>
class Unordered_map_base {
 public:
  using Wrap = Struct_unordered_map_wrap<K, V>;
  static constexpr unsigned int k_min_bucket_count = 256;
  static constexpr unsigned int max_bucket_count = 0x4000000;

  struct iterator {
    Unordered_map_base* ptr_map;
    unsigned int uint_offset;
    Wrap& operator*() const { return ptr_map->d_vt_st_wrap[uint_offset]; }
    Wrap* operator->() const { return &ptr_map->d_vt_st_wrap[uint_offset]; }
    iterator& operator++() {
      uint_offset = ptr_map->next_used(uint_offset + 1);
      return *this;
    }
    bool operator==(const iterator& other) const { return uint_offset == other.uint_offset; }
    bool operator!=(const iterator& other) const { return uint_offset != other.uint_offset; }
  };
  using const_iterator = iterator;

  Unordered_map_base() {
    d_uint_load_factor_256 = 179;
    d_float_load_factor = 0.7f;
    unsigned int buckets = static_cast<unsigned int>(get_2power_great_or_equal_to(16, k_min_bucket_count));
    d_vt_st_wrap.resize(buckets);
    set_bucket_count(buckets);
  }

  unsigned int size() const { return data_count; }
  bool empty() const { return data_count == 0; }
  unsigned int bucket_count() const { return d_vt_st_wrap.size(); }
  unsigned int not_found() const { return k_allocator_form ? 0xFFFFFFFFu : bucket_count(); }
  Wrap& slot(unsigned int offset) { return d_vt_st_wrap[offset]; }
  const Wrap& slot(unsigned int offset) const { return d_vt_st_wrap[offset]; }

  iterator begin() { return iterator{this, next_used(0)}; }
  iterator end() { return iterator{this, bucket_count()}; }

  unsigned int find_with_hash(const K& key, unsigned int hash) const {
    unsigned int home = hash & d_uint_mask;
    unsigned int end_offset = (home + d_vt_st_wrap[home].uint_probe_limit) & d_uint_mask;
    if (end_offset == home) return not_found();
    unsigned int offset = home;
    do {
      const Wrap& wrap = d_vt_st_wrap[offset];
      if (wrap.uint_hash == hash && wrap.bool_used && E()(wrap.key, key)) return offset;
      offset = (offset + 1) & d_uint_mask;
    } while (offset != end_offset);
    return not_found();
  }
  // The key's home slot when the key stands there, by the acceptance test of find_with_hash
  // (its first step); null says only that the key is not at home. For tables whose keys
  // nearly always are: one slot read instead of computing the probe range. A probe limit of
  // 0 ends find_with_hash before any slot is looked at, and so it does here.
  const Wrap* find_at_home(const K& key, unsigned int hash) const {
    const Wrap& wrap = d_vt_st_wrap[hash & d_uint_mask];
    if (wrap.uint_probe_limit != 0 && wrap.uint_hash == hash && wrap.bool_used && E()(wrap.key, key)) return &wrap;
    return nullptr;
  }
  unsigned int find_offset(const K& key) const { return find_with_hash(key, hash_of(key)); }
  iterator find(const K& key) {
    unsigned int offset = find_offset(key);
    return iterator{this, offset == not_found() ? bucket_count() : offset};
  }

  std::pair<iterator, bool> insert_return_iterator_bool(const K& key, const V& value) {
    K key_copy = key;
    V value_copy = value;
    return insert_return_iterator_bool_move(key_copy, value_copy);
  }
  std::pair<iterator, bool> insert_return_iterator_bool_move(K& key, V& value) {
    unsigned int hash = hash_of(key);
    unsigned int found = find_with_hash(key, hash);
    if (found != not_found()) return {iterator{this, found}, false};
    unsigned int offset = place(hash);
    d_vt_st_wrap[offset].update_move(key, value, hash);
    ++data_count;
    if (data_count > d_uint_max_data_count) {
      K key_again = d_vt_st_wrap[offset].key;
      inner_rehash(bucket_count() * 2);
      offset = find_with_hash(key_again, hash);
    }
    return {iterator{this, offset}, true};
  }

  iterator erase(const_iterator position) {
    unsigned int offset = position.uint_offset;
    if (offset >= bucket_count()) {
      Stack_message<1024>()
          .text("Error: unordered_map_allocator::erase() bad C++ code. uint_offset >= d_vt_st_wrap.size(). uint_offset=")
          .dec(offset)
          .text(", d_vt_st_wrap.size()=")
          .dec(bucket_count())
          .source(k_allocator_form ? "quorla_unordered_map_allocator" : "quorla_unordered_map", __LINE__, "erase")
          .write();
      return end();
    }
    Wrap& wrap = d_vt_st_wrap[offset];
    if (wrap.bool_used) {
      --data_count;
      if (wrap.uint_probe_limit == 1) {
        wrap.uint_probe_limit = 0;
      } else {
        Wrap& home = d_vt_st_wrap[wrap.uint_hash & d_uint_mask];
        if (--home.uint_home_count == 0) home.uint_probe_limit = 0;
      }
      wrap.uint_hash = 0;
      wrap.bool_used = false;
    }
    return iterator{this, next_used(offset + 1)};
  }
  bool erase_key(const K& key) {
    unsigned int offset = find_offset(key);
    if (offset == not_found()) return false;
    erase(iterator{this, offset});
    return true;
  }

  unsigned int get_vt_resize_size(unsigned int requested) const {
    unsigned int wanted = requested > data_count ? requested : data_count;
    unsigned long long result = get_2power_great_or_equal_to(wanted, k_min_bucket_count);
    if (result <= max_bucket_count) return static_cast<unsigned int>(result);
    Stack_message<1024>()
        .text("Error: unordered_map_allocator::get_vt_resize_size() ulong_out too big. ulong_out=")
        .dec(result)
        .text(", max_bucket_count=")
        .dec(max_bucket_count)
        .text(", uint_in=")
        .dec(requested)
        .source(k_allocator_form ? "quorla_unordered_map_allocator" : "quorla_unordered_map", __LINE__,
                "get_vt_resize_size")
        .write_and_abort();
  }

  // The argument is a bucket count, not a number of keys. Never shrinks.
  void reserve(unsigned int requested) {
    unsigned int buckets = get_vt_resize_size(requested);
    if (buckets <= bucket_count()) return;
    inner_rehash(buckets);
  }

  void inner_rehash(unsigned int buckets) {
    if (buckets == bucket_count()) return;
    if (data_count == 0) {
      // Old slots keep whatever home counts they hold.
      d_vt_st_wrap.resize(buckets);
      set_bucket_count(buckets);
      return;
    }
    Vector old_slots;
    old_slots.resize(buckets);
    d_vt_st_wrap.swap(old_slots);
    set_bucket_count(buckets);
    copy_vt_data_move(old_slots);
    if (k_allocator_form) store_fence();
    old_slots.release();
  }

  // Places every used slot of an old array without hashing again. This table is empty.
  void copy_vt_data_move(Vector& old_slots) {
    unsigned int count = 0;
    for (unsigned int i = 0; i < old_slots.size(); ++i) {
      Wrap& old_wrap = old_slots[i];
      if (!old_wrap.bool_used) continue;
      unsigned int offset = place(old_wrap.uint_hash);
      d_vt_st_wrap[offset].update_move(old_wrap.key, old_wrap.value, old_wrap.uint_hash);
      ++count;
    }
    if (count != data_count) {
      Stack_message<1024>()
          .text(k_allocator_form ? "Error: unordered_map_allocator::copy_vt_data_move() find bug. count="
                                 : "Error: unordered_map::copy_from_vt_data_move() find bug. count=")
          .dec(count)
          .text(", data_count=")
          .dec(data_count)
          .end_line()
          .write_and_abort();
    }
  }

  // Empties the table: every slot is reset and the count zeroed, while the slot array keeps
  // its storage and its size, so the registry's ring reuses a map without allocating.
  void clear_count() {
    for (unsigned int i = 0; i < bucket_count(); ++i) d_vt_st_wrap[i] = Wrap();
    data_count = 0;
  }

  Vector d_vt_st_wrap;
  unsigned int data_count = 0;
  unsigned int d_uint_mask = 0;
  unsigned int d_uint_max_data_count = 0;
  unsigned int d_uint_load_factor_256 = 0;
  float d_float_load_factor = 0;

 private:
  static unsigned int hash_of(const K& key) { return static_cast<unsigned int>(H()(key)); }

  void set_bucket_count(unsigned int buckets) {
    d_uint_mask = buckets - 1;
    d_uint_max_data_count =
        static_cast<unsigned int>((static_cast<unsigned long>(buckets) * d_uint_load_factor_256 + 128) >> 8);
  }

  // Records the insertion at the key's home and returns the first free slot from there.
  unsigned int place(unsigned int hash) {
    unsigned int home = hash & d_uint_mask;
    Wrap& home_wrap = d_vt_st_wrap[home];
    ++home_wrap.uint_home_count;
    unsigned int offset = home;
    unsigned int length = 1;
    while (d_vt_st_wrap[offset].bool_used) {
      offset = (offset + 1) & d_uint_mask;
      ++length;
    }
    if (home_wrap.uint_probe_limit < length) home_wrap.uint_probe_limit = length;
    return offset;
  }

  unsigned int next_used(unsigned int offset) const {
    while (offset < bucket_count() && !d_vt_st_wrap[offset].bool_used) ++offset;
    return offset;
  }
};

}  // namespace quorla
