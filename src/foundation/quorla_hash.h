// The hash functors of the library's maps. hash<T> follows the integer identity with a
// small mix for wide types; hash_crc32c hashes a key's bytes with the CRC (large blocks'
// addresses are 2 MB aligned and would crowd a few slots under the identity);
// Hash_thread_id brings the page number of a thread control block into the low bits.
#pragma once

#include <cstddef>

#include "foundation/quorla_crc32c.h"
#include "foundation/quorla_string_class.h"

namespace quorla {

template <typename T>
struct hash;

#define QUORLA_HASH_IDENTITY(T)                                                               \
  template <>                                                                                 \
  struct hash<T> {                                                                            \
    size_t operator()(T value) const { return static_cast<size_t>(value); }                   \
  };
QUORLA_HASH_IDENTITY(bool)
QUORLA_HASH_IDENTITY(unsigned char)
QUORLA_HASH_IDENTITY(char16_t)
QUORLA_HASH_IDENTITY(char32_t)
QUORLA_HASH_IDENTITY(unsigned short)
QUORLA_HASH_IDENTITY(unsigned int)
QUORLA_HASH_IDENTITY(char)
QUORLA_HASH_IDENTITY(signed char)
QUORLA_HASH_IDENTITY(short)
QUORLA_HASH_IDENTITY(int)
QUORLA_HASH_IDENTITY(wchar_t)
#undef QUORLA_HASH_IDENTITY

template <>
struct hash<unsigned long> {
  size_t operator()(unsigned long value) const { return value + (static_cast<unsigned int>(value) >> 3); }
};
template <>
struct hash<long> {
  size_t operator()(long value) const { return hash<unsigned long>()(static_cast<unsigned long>(value)); }
};
template <>
struct hash<unsigned long long> {
  size_t operator()(unsigned long long value) const {
    return value + (value >> 32) + (static_cast<unsigned int>(value) >> 3);
  }
};
template <>
struct hash<long long> {
  size_t operator()(long long value) const { return hash<unsigned long long>()(static_cast<unsigned long long>(value)); }
};
template <>
struct hash<float> {
  size_t operator()(float value) const {
    return static_cast<unsigned int>(static_cast<unsigned long long>(static_cast<long long>(value)));
  }
};
template <>
struct hash<double> {
  size_t operator()(double value) const {
    return hash<unsigned long long>()(static_cast<unsigned long long>(value));
  }
};

// A string's bytes, for its size, through the CRC.
template <>
struct hash<string> {
  size_t operator()(const string& value) const { return g_crc32c.value32(value.data(), value.size()); }
};

template <typename T>
struct hash_crc32c;

template <>
struct hash_crc32c<unsigned long> {
  size_t operator()(const unsigned long& key) const { return g_crc32c.value32_ulong(key); }
};

struct Hash_thread_id {
  size_t operator()(const unsigned long& thread_id) const { return thread_id + (thread_id >> 12); }
};

}  // namespace quorla
