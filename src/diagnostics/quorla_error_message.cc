#include "diagnostics/quorla_error_message.h"

#include <cstdio>
#include <cstring>

#include "foundation/quorla_conversion.h"
#include "foundation/quorla_string_file.h"
#include "foundation/quorla_thread_self.h"
#include "foundation/quorla_time_string.h"
#include "foundation/quorla_time_string_form.h"

namespace quorla {

bool g_bool_message_to_screen = true;
bool g_bool_message_to_file = true;
unsigned char g_uchar_message_out_level = 2;
std::mutex g_lock_cout;
std::mutex g_lock_message_file;
bool g_bool_crash = false;

namespace {

unsigned int length_of(const unsigned char* text) {
  return static_cast<unsigned int>(strlen(reinterpret_cast<const char*>(text)));
}
const unsigned char* bytes(const char* text) { return reinterpret_cast<const unsigned char*>(text); }

void write_line(const char* prefix, const char* file, unsigned int line, const char* func, const unsigned char* msg,
                unsigned int msg_size) {
  message_out(message_line(prefix, file, line, func, msg, msg_size));
}

void write_number_line(const char* file, unsigned int line, const char* func, const char* msg, const char* number) {
  string text(msg);
  text.append("=").append(number);
  write_line("Log: Time=", file, line, func, text.data(), text.size());
}

}  // namespace

string message_line(const char* prefix, const char* file, unsigned int line, const char* func,
                    const unsigned char* msg, unsigned int msg_size) {
  char number[k_number_chars];
  string text(prefix);
  utc_microseconds_append_local_string(get_utc_microsecond(), text);
  text.append(", Line=").append(uint_to_chars(line, number));
  text.append(", File=\"").append(get_file_name_from_path_file_name(string(file)));
  text.append("\", Func=\"").append(func).append("\", Msg=\"").append(msg, msg_size).append("\"");
  unsigned long thread_id = thread_self();
  if (thread_id != 0) {
    unsigned long big_endian = __builtin_bswap64(thread_id);
    text.append(", thread_id=").append(ptr_void_to_hex_lower(&big_endian, 8, 0, number));
  }
  return text;
}

#define QUORLA_MESSAGE_FORMS(name, str_name, prefix)                                                      \
  void name(const char* file, unsigned int line, const char* func, const char* msg) {                     \
    write_line(prefix, file, line, func, bytes(msg), length_of(bytes(msg)));                              \
  }                                                                                                       \
  void name(const char* file, unsigned int line, const char* func, const unsigned char* msg) {            \
    write_line(prefix, file, line, func, msg, length_of(msg));                                            \
  }                                                                                                       \
  void str_name(const char* file, unsigned int line, const char* func, const string& msg) {               \
    write_line(prefix, file, line, func, msg.data(), msg.size());                                         \
  }
QUORLA_MESSAGE_FORMS(error_message1, error_message_str1, "Err: Time=")
QUORLA_MESSAGE_FORMS(warning_message1, warning_message_str1, "Warn:Time=")
QUORLA_MESSAGE_FORMS(log_message1, log_message_str1, "Log: Time=")
QUORLA_MESSAGE_FORMS(fatal_message1, fatal_message_str1, "Fatal: Time=")
#undef QUORLA_MESSAGE_FORMS

void log_message_ulong1(const char* file, unsigned int line, const char* func, const char* msg, unsigned long value) {
  char number[k_number_chars];
  write_number_line(file, line, func, msg, ulong_to_chars(value, number));
}
void log_message_long1(const char* file, unsigned int line, const char* func, const char* msg, long value) {
  char number[k_number_chars];
  write_number_line(file, line, func, msg, long_to_chars(value, number));
}
void log_message_int1(const char* file, unsigned int line, const char* func, const char* msg, int value) {
  char number[k_number_chars];
  write_number_line(file, line, func, msg, int_to_chars(value, number));
}
void log_message_uint1(const char* file, unsigned int line, const char* func, const char* msg, unsigned int value) {
  char number[k_number_chars];
  write_number_line(file, line, func, msg, uint_to_chars(value, number));
}

void message_out(const string& text) {
  if (text.empty()) return;
  if (!g_bool_message_to_screen) return;
  // Taken whether or not other threads exist: uncontended it costs next to nothing, and a
  // line is never torn by a thread that started a moment ago.
  std::lock_guard<std::mutex> lock(g_lock_cout);
  fputs(text.c_str(), stderr);
  fwrite("\r\n", 1, 2, stderr);
}

void file_append(const char* path, const char* data, unsigned int size) {
  FILE* file = fopen(path, "ab");
  if (file == nullptr) {
    error_message_str1("quorla_error_message", __LINE__, "file_append",
                       string("write open file ").append(path).append(" failed."));
    return;
  }
  fwrite(data, 1, size, file);
  fclose(file);
}

}  // namespace quorla
