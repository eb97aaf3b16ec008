// Whole-file reads and writes through string, and the file-name part of a path. These
// open, read, write and close with the plain system calls, retrying on EINTR and on short
// writes, and allocate through string, so only code above the allocator may call them.
// Files are created with mode 0644 (less the umask). Reentrant; the caller owns the strings.
#pragma once

#include "foundation/quorla_string_class.h"

namespace quorla {

// Size of each read of file_to_string.
constexpr unsigned int k_file_to_string_chunk = 4095;

// Creates or truncates the file and writes str; true if every byte was written and the file closed cleanly.
bool string_to_file(const string& str, const string& path_file_name);
// Writes str to "<path>.tmp.<pid>", syncs it and renames it over the path, so a reader sees the old file or the whole new one; the temporary is removed on failure.
bool string_save_to_file(const string& str, const string& path_file_name);
// Appends str to the file, creating it if needed; true if every byte was written.
bool string_append_to_file(const string& str, const string& path_file_name);
// Clears str, opens the file and reads it in chunks of 4095 bytes, at most uint_max_byte bytes (the rest stays unread); false if it could not be opened or a read failed (str then holds what was read).
bool file_to_string(const string& path_file_name, string& str, unsigned int uint_max_byte = string::max_size());
// The part after the last '/', else after the last '\', else the whole text.
string get_file_name_from_path_file_name(const string& path_file_name);

}  // namespace quorla
