// Memory_pool_without_lock<A, B>: blocks of one pitch, 512 to a piece, found through a
// bitmap. A block's first 8 bytes hold the address of its piece and the caller gets the
// address 8 bytes further, so a release needs neither a search nor a size. A records the
// pieces themselves, B gives each piece its area of 512 blocks and the vectors.
//
// Rules: a pool allocates from its first piece only (no search over pieces); a piece leaves
// vt_normal only at 0 free and comes back at 64 free; an empty piece goes at once while
// vt_normal keeps more than uint_min_normal_count pieces. The first write to each page of
// a new area happens under g_mutex_mmap (ptr_byte_touch); prefault or a huge page switch
// that off.
//
// No lock of its own: the owner (a thread heap) or the wrapper's mutex serialises.
#pragma once

#include <new>

#include "foundation/quorla_memory_size_out.h"
#include "foundation/quorla_unique_ptr.h"
#include "foundation/quorla_vector_allocator.h"
#include "startup/quorla_memory_settings.h"
#include "os_memory/quorla_os_mmap.h"
#include "os_memory/quorla_region.h"
#include "page_heap/quorla_piece_list.h"

namespace quorla {

template <class A, class B>
class Memory_pool_without_lock;

template <class A, class B>
struct Memory_pool_without_lock_bitmap_piece {
  Memory_pool_without_lock_bitmap_piece(unsigned int offset_normal, unsigned int block_byte, Memory_pool_without_lock<A, B>* pool)
      : uint_free_bit(512),
        uint_next_free_bit(0),
        uint_block_byte(block_byte),
        uint_all_byte(512 * block_byte),
        uint_offset_full(piece_list::k_not_listed),
        uint_offset_normal(offset_normal),
        ptr_byte_block(nullptr),
        ptr_byte_touch(0),
        ptr_pool(pool),
        ptr_ulong{} {}
  // The area goes back with the piece.
  ~Memory_pool_without_lock_bitmap_piece() {
    if (ptr_byte_block != nullptr) B().free(ptr_byte_block, uint_all_byte);
    store_fence();
  }

  unsigned int uint_free_bit;       // 512: empty
  unsigned int uint_next_free_bit;  // no free bit lies below it
  unsigned int uint_block_byte;     // pitch
  unsigned int uint_all_byte;       // 512 x pitch
  unsigned int uint_offset_full;
  unsigned int uint_offset_normal;
  unsigned char* ptr_byte_block;
  unsigned long ptr_byte_touch;     // at or below: known resident; all ones: never care
  Memory_pool_without_lock<A, B>* ptr_pool;
  unsigned long long ptr_ulong[8];
};

template <class A, class B>
class Memory_pool_without_lock {
 public:
  using Piece = Memory_pool_without_lock_bitmap_piece<A, B>;
  using Piece_entry = unique_ptr_allocator<Piece, A>;
  using Piece_vector = vector_allocator<Piece_entry, B>;
  using Page_type_function = unsigned char (*)(void*);

  // The pitch, the pieces kept at least, the page-type probe (null: none) and the entry
  // index; a zero-filled pool plus this set-up is a usable pool.
  void set_up(unsigned int block_byte, unsigned int min_normal_count, Page_type_function get_page_type,
              unsigned int part_cpu_offset) {
    uint_block_byte = block_byte;
    uint_min_normal_count = min_normal_count;
    fn_get_page_type = get_page_type;
    uint_part_cpu_offset = part_cpu_offset;
  }

  void append_vt_normal() {
    unsigned int count = vt_normal.size();
    unsigned long record_size = sizeof(Piece);
    auto* piece = new (A().malloc(record_size)) Piece(count, uint_block_byte, this);
    unsigned long area = piece->uint_all_byte;
    piece->ptr_byte_block = static_cast<unsigned char*>(B().malloc(area));
    if (g_bool_memory_enable_page_prefault || (fn_get_page_type != nullptr && fn_get_page_type(piece->ptr_byte_block) != 0)) {
      piece->ptr_byte_touch = ~0ul;
    }
    store_fence();
    if (count == 0) ptr_first_normal = piece;
    vt_normal.push_back(Piece_entry(piece));
  }

  // The take: the first piece's lowest free block from its cursor.
  QUORLA_INLINE void* pool_malloc() {
    Piece* piece = piece_list::first_with_free(*this);
    unsigned int bit = piece->uint_next_free_bit;
    unsigned long long mask = 1ull << (bit & 63);
    if (QUORLA_LIKELY(bit < 512 && (piece->ptr_ulong[bit >> 6] & mask) == 0)) {
      piece->ptr_ulong[bit >> 6] |= mask;
    } else {
      unsigned int word = bit >> 6;
      while (piece->ptr_ulong[word] == ~0ull) ++word;
      unsigned long long value = piece->ptr_ulong[word];
      piece->ptr_ulong[word] = value | (value + 1);
      bit = word * 64 + static_cast<unsigned int>(__builtin_ctzll(~value));
    }
    --piece->uint_free_bit;
    piece->uint_next_free_bit = bit + 1;
    unsigned char* block = piece->ptr_byte_block + static_cast<unsigned long>(bit) * piece->uint_block_byte;
    if (QUORLA_UNLIKELY(reinterpret_cast<unsigned long>(block) > piece->ptr_byte_touch)) {
      // First write to this page of a new area: taken under the mapping lock.
      piece->ptr_byte_touch = reinterpret_cast<unsigned long>(block) | (k_page_byte - 1);
      g_mutex_mmap.lock();
      *reinterpret_cast<Piece**>(block) = piece;
      g_mutex_mmap.unlock();
    } else {
      *reinterpret_cast<Piece**>(block) = piece;
    }
    return block + 8;
  }

  static QUORLA_INLINE Piece* piece_of_block(void* ptr) { return *reinterpret_cast<Piece**>(static_cast<unsigned char*>(ptr) - 8); }
  static QUORLA_INLINE Memory_pool_without_lock* pool_of_block(void* ptr) { return piece_of_block(ptr)->ptr_pool; }

  // The release, from the block alone.
  static void free(void* ptr) {
    Piece* piece = piece_of_block(ptr);
    Memory_pool_without_lock* pool = piece->ptr_pool;
    unsigned int bit = static_cast<unsigned int>(
        static_cast<unsigned int>(static_cast<unsigned char*>(ptr) - 8 - piece->ptr_byte_block) / piece->uint_block_byte);
    if (bit < piece->uint_next_free_bit) piece->uint_next_free_bit = bit;
    piece->ptr_ulong[bit >> 6] &= ~(1ull << (bit & 63));
    unsigned int free_bit = ++piece->uint_free_bit;
    if (free_bit < 64) return;
    if (free_bit == 512) {
      // The entry destroys the piece and its area.
      if (pool->vt_normal.size() > pool->uint_min_normal_count) piece_list::remove_normal(*pool, piece);
      return;
    }
    // Back at the end of vt_normal; no piece takes the lead here.
    if (piece->uint_offset_normal == piece_list::k_not_listed) piece_list::move_full_to_normal(*pool, piece);
  }

  // The take's setting aside, always of the first piece when it is used up: it goes to
  // vt_full, the next one (or a new one) leads.
  void move_normal_piece_to_vt_full(unsigned int offset) { piece_list::move_normal_to_full(*this, offset); }

  // Gives back the storage of an empty vt_full.
  void trim_vt_full() {
    if (vt_full.size() == 0 && vt_full.capacity() != 0) vt_full.release();
  }

  unsigned long get_free_bit_count() const {
    unsigned long count = 0;
    for (unsigned int i = 0; i < vt_normal.size(); ++i) count += vt_normal[i].ptr_t->uint_free_bit;
    for (unsigned int i = 0; i < vt_full.size(); ++i) count += vt_full[i].ptr_t->uint_free_bit;
    return count;
  }
  unsigned int get_piece_count() const { return vt_normal.size() + vt_full.size(); }

  // One line on standard output: prefix, entry number, bytes and bits; nothing without
  // pieces. The caller holds whatever serialises the pool.
  void print_use_byte(const char* prefix) const {
    unsigned long pieces = get_piece_count();
    if (pieces == 0) return;
    Stack_message<1024> line;
    line.text(prefix).dec(uint_part_cpu_offset).text(", all_byte=");
    append_memory_size(line, (static_cast<unsigned long>(uint_block_byte) << 9) * pieces);
    append_bits_end(line, pieces << 9, get_free_bit_count()).write(stdout);
  }

  Piece* ptr_first_normal;
  Page_type_function fn_get_page_type;
  unsigned int uint_block_byte;
  unsigned int uint_min_normal_count;
  unsigned int uint_part_cpu_offset;
  Piece_vector vt_normal;
  Piece_vector vt_full;
};

}  // namespace quorla
