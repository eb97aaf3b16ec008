// The route of small requests. ar_uchar_size_route is indexed by (size + 15) >> 4 for sizes
// 225 to 3408: the low four bits of an entry name a group of the thread heap (ar_group,
// whose block sizes are k_ar_group_block_byte), the high four bits how many blocks of it to
// take. The table is a fixed fact of the
// allocator, not the output of a least-waste rule (1265..1280 takes 3 x 512, for instance);
// malloc_size of a block follows from it. Indexes 214 and 215 repeat the last row.
#pragma once

#include "foundation/quorla_base.h"
#include "os_memory/quorla_region.h"

namespace quorla {

constexpr unsigned long k_small_route_limit_byte = 3408;
constexpr unsigned long k_group_1024_limit_byte = 10240;
constexpr unsigned long k_arithmetic_route_limit_byte = 224;
constexpr unsigned long k_group_8byte_limit_byte = 8;
constexpr unsigned long k_config_trigger_byte = 128;

namespace size_route_detail {

struct Row {
  unsigned int first_index;
  unsigned int last_index;
  unsigned int group;
  unsigned int bits;
};

// First index, last index, group, blocks.
constexpr Row k_rows[] = {
    {0, 1, 0, 1},      {2, 2, 1, 1},       {3, 3, 2, 1},       {4, 4, 3, 1},
    {5, 5, 4, 1},      {6, 6, 5, 1},       {7, 7, 6, 1},       {8, 8, 7, 1},
    {9, 9, 8, 1},      {10, 10, 9, 1},     {11, 11, 10, 1},    {12, 12, 11, 1},
    {13, 13, 12, 1},   {14, 16, 13, 1},    {17, 18, 8, 2},     {19, 20, 9, 2},
    {21, 22, 10, 2},   {23, 24, 11, 2},    {25, 26, 12, 2},    {27, 32, 14, 1},
    {33, 33, 10, 3},   {34, 36, 11, 3},    {37, 39, 12, 3},    {40, 48, 13, 3},
    {49, 52, 12, 4},   {53, 53, 10, 5},    {54, 64, 15, 1},    {65, 65, 12, 5},
    {66, 66, 10, 6},   {67, 79, 13, 5},    {80, 96, 14, 3},    {97, 106, 13, 7},
    {107, 128, 15, 2}, {129, 133, 13, 9},  {134, 159, 14, 5},  {160, 192, 15, 3},
    {193, 215, 14, 7},
};

struct Table {
  unsigned char entry[216];
};

constexpr Table make_table() {
  Table table{};
  for (const Row& row : k_rows) {
    for (unsigned int index = row.first_index; index <= row.last_index; ++index) {
      table.entry[index] = static_cast<unsigned char>((row.bits << 4) | row.group);
    }
  }
  return table;
}

}  // namespace size_route_detail

inline constexpr size_route_detail::Table k_size_route_table = size_route_detail::make_table();
inline constexpr const unsigned char (&ar_uchar_size_route)[216] = k_size_route_table.entry;

}  // namespace quorla
