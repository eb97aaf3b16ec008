#include "foundation/quorla_stack_message.h"

namespace quorla {

void append_source_file_name(const char* path, char* out, unsigned int out_size) {
  const char* begin = path;
  const char* slash = strrchr(path, '/');
  if (slash != nullptr) {
    begin = slash + 1;
  } else {
    const char* backslash = strrchr(path, '\\');
    if (backslash != nullptr) begin = backslash + 1;
  }
  const char* dot = strrchr(begin, '.');
  unsigned int length = static_cast<unsigned int>(dot != nullptr ? dot - begin : strlen(begin));
  if (length >= out_size) length = out_size - 1;
  memcpy(out, begin, length);
  out[length] = 0;
}

void write_line(const char* text) {
  const int error_number = errno;
  fwrite(text, 1, strlen(text), stderr);
  errno = error_number;
}

void write_and_abort(const char* text) {
  fwrite(text, 1, strlen(text), stderr);
  abort();
}

}  // namespace quorla
