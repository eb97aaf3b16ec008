// memory_size_out: the forms of a byte amount. Whole numbers come from ulong_to_chars,
// fractions from double_to_chars (six decimals, trailing zeros dropped).
#include "foundation/quorla_memory_size_out.h"

#include <cstring>

#include "foundation/quorla_conversion.h"

namespace quorla {

namespace {

constexpr unsigned long k_kib = 1024;
constexpr unsigned long k_mib = 1048576;
constexpr unsigned long k_gib = 1073741824;

void append_form(char* out, const char* number, const char* unit) {
  char* end = out + strlen(out);
  const char* parts[] = {"( ", number, " ", unit, " )"};
  for (const char* part : parts) {
    unsigned long length = strlen(part);
    memcpy(end, part, length);
    end += length;
  }
  *end = 0;
}

void append_whole(char* out, unsigned long count, const char* unit) {
  char number[k_number_chars];
  append_form(out, ulong_to_chars(count, number), unit);
}

void append_fraction(char* out, unsigned long value, unsigned long unit_byte, const char* unit) {
  char number[k_number_chars];
  append_form(out, double_to_chars(static_cast<double>(value) / static_cast<double>(unit_byte), number), unit);
}

void append_mib(char* out, unsigned long value) {
  if (value % k_mib == 0) {
    append_whole(out, value >> 20, "MiB");
  } else {
    append_fraction(out, value, k_mib, "MiB");
  }
}

}  // namespace

void memory_size_out(unsigned long value, char* out) {
  if (value < k_kib) {
    append_whole(out, value, "B");
    return;
  }
  if (value < k_gib) {
    if (value % k_kib != 0) {
      append_fraction(out, value, k_kib, "KiB");
      if (value >= k_mib) append_mib(out, value);
    } else if (value < k_mib) {
      append_whole(out, value >> 10, "KiB");
    } else {
      append_mib(out, value);
    }
    return;
  }
  if (value <= 0xFFFFFFFFul && value % k_mib != 0) append_fraction(out, value, k_mib, "MiB");
  if (value % k_gib == 0) {
    append_whole(out, value >> 30, "GiB");
  } else {
    append_fraction(out, value, k_gib, "GiB");
  }
}

}  // namespace quorla
