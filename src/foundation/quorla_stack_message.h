// Failure lines of the code below malloc: built in a fixed stack buffer with the number
// conversions, one fputs to standard error, no allocation and no lock. A message that
// would overrun its buffer stops the process (the bounds check).
//
//   Stack_message<1024>().text("Error: x failed. size=").dec(size)
//       .source(__FILE__, __LINE__, __func__).write_and_abort();
#pragma once

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "foundation/quorla_conversion.h"

namespace quorla {

// The file part of a path, without directories and extension, for ", File=".
void append_source_file_name(const char* path, char* out, unsigned int out_size);

template <unsigned int N>
class Stack_message {
 public:
  Stack_message() { d_ar_char[0] = 0; }

  Stack_message& text(const char* chars) { return append(chars, static_cast<unsigned int>(strlen(chars))); }
  Stack_message& append(const char* chars, unsigned int length) {
    if (d_uint_size + length >= N) abort();
    memcpy(d_ar_char + d_uint_size, chars, length);
    d_uint_size += length;
    d_ar_char[d_uint_size] = 0;
    return *this;
  }
  // As much of the text as leaves reserve bytes free; the rest is dropped. For echoes of
  // outside input, whose length the caller cannot bound.
  Stack_message& append_cut(const char* chars, unsigned long length, unsigned int reserve) {
    unsigned long room = N - 1 - d_uint_size;
    room = room > reserve ? room - reserve : 0;
    return append(chars, static_cast<unsigned int>(length < room ? length : room));
  }
  Stack_message& dec(unsigned long value) {
    char scratch[k_number_chars];
    return text(ulong_to_chars(value, scratch));
  }
  Stack_message& dec_signed(long value) {
    char scratch[k_number_chars];
    return text(long_to_chars(value, scratch));
  }
  // A pointer-sized value as 16 lower-case hex digits, most significant first.
  Stack_message& hex_lower(unsigned long value) {
    char scratch[k_number_chars];
    unsigned long big_endian = __builtin_bswap64(value);
    return text(ptr_void_to_hex_lower(&big_endian, 8, 0, scratch));
  }
  Stack_message& hex_lower(const void* ptr) { return hex_lower(reinterpret_cast<unsigned long>(ptr)); }
  Stack_message& hex_upper(unsigned long value) {
    char scratch[k_number_chars];
    unsigned long big_endian = __builtin_bswap64(value);
    return text(ptr_void_to_hex_upper(&big_endian, 8, 0, scratch));
  }
  // ", File=" file ", Line=" line ", Func=" func "\r\n"
  Stack_message& source(const char* file, unsigned int line, const char* func) {
    char name[256];
    append_source_file_name(file, name, sizeof(name));
    return text(", File=").text(name).text(", Line=").dec(line).text(", Func=").text(func).text("\r\n");
  }
  Stack_message& end_line() { return text("\r\n"); }
  // ", errno=" n ", strerror=" text "\r\n": the close of every failed system call's line.
  Stack_message& errno_end_line(int error_number) {
    return text(", errno=").dec_signed(error_number).text(", strerror=").text(strerror(error_number)).end_line();
  }

  const char* c_str() const { return d_ar_char; }
  unsigned int size() const { return d_uint_size; }
  // The report lines of the statistics go to standard output, the others to standard error.
  // errno stays as it was: a message on a path that succeeds or only warns must not show.
  void write(FILE* stream) const {
    const int error_number = errno;
    fputs(d_ar_char, stream);
    errno = error_number;
  }
  void write() const { write(stderr); }
  [[noreturn]] void write_and_abort() const {
    write();
    abort();
  }

 private:
  char d_ar_char[N];
  unsigned int d_uint_size = 0;
};

// A fixed text by one fwrite to standard error, then abort().
[[noreturn]] void write_and_abort(const char* text);
// A fixed text by one fwrite to standard error; the caller goes on.
void write_line(const char* text);

}  // namespace quorla
