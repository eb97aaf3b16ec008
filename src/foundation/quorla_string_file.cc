// Whole-file reads and writes through string. Short writes and EINTR are retried; any other
// error ends the operation with false and the descriptor closed.
#include "foundation/quorla_string_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "foundation/quorla_conversion.h"

namespace quorla {

namespace {

bool write_all(int fd, const unsigned char* p, unsigned long n) {
  while (n != 0) {
    const long written = ::write(fd, p, n);
    if (written < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    p += written;
    n -= static_cast<unsigned long>(written);
  }
  return true;
}

// Opens with flags, writes str, optionally syncs, closes; true only if all of it succeeded.
bool write_file(const char* path, int flags, const string& str, bool sync) {
  const int fd = ::open(path, flags | O_WRONLY | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  bool ok = write_all(fd, str.data(), str.size());
  if (ok && sync && ::fsync(fd) != 0) ok = false;
  if (::close(fd) != 0) ok = false;
  return ok;
}

}  // namespace

bool string_to_file(const string& str, const string& path_file_name) {
  return write_file(path_file_name.c_str(), O_CREAT | O_TRUNC, str, false);
}

bool string_save_to_file(const string& str, const string& path_file_name) {
  char pid[k_number_chars];
  string temporary(path_file_name);
  temporary.append(".tmp.");
  temporary.append(long_to_chars(static_cast<long>(::getpid()), pid));
  if (!write_file(temporary.c_str(), O_CREAT | O_TRUNC, str, true)) {
    ::unlink(temporary.c_str());
    return false;
  }
  if (::rename(temporary.c_str(), path_file_name.c_str()) != 0) {
    ::unlink(temporary.c_str());
    return false;
  }
  return true;
}

bool string_append_to_file(const string& str, const string& path_file_name) {
  return write_file(path_file_name.c_str(), O_CREAT | O_APPEND, str, false);
}

bool file_to_string(const string& path_file_name, string& str, unsigned int uint_max_byte) {
  str.clear();
  const int fd = ::open(path_file_name.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  while (str.size() < uint_max_byte) {
    const unsigned int left = uint_max_byte - str.size();
    const unsigned int chunk = left < k_file_to_string_chunk ? left : k_file_to_string_chunk;
    // Capacity above size + chunk leaves room for the chunk and the terminator.
    str.reserve(str.size() + chunk);
    const long got = ::read(fd, str.data() + str.size(), chunk);
    if (got > 0) {
      str.resize_no_fill(str.size() + static_cast<unsigned int>(got));
    } else if (got == 0) {
      break;
    } else if (errno != EINTR) {
      ::close(fd);
      return false;
    }
  }
  ::close(fd);
  return true;
}

string get_file_name_from_path_file_name(const string& path_file_name) {
  unsigned int separator = path_file_name.rfind('/');
  if (separator == string::npos) separator = path_file_name.rfind('\\');
  if (separator == string::npos) return path_file_name;
  const unsigned int start = separator + 1;
  if (start == path_file_name.size()) return string();
  return string(path_file_name.data() + start, path_file_name.size() - start);
}

}  // namespace quorla
