// The formatted message lines of the code above the allocator (the configuration engine, the
// start-up of threads): a fixed prefix, the local time in microseconds, the source position,
// the message and the thread id, one line on standard error ending in "\r\n".
//
//   Warn:Time=2021-03-09T14:18:05.123456, Line=593, File="quorla_program_config",
//       Func="set_key_value", Msg="not find ...", thread_id=00007f1c2a0b5740
//
// These build strings and so call malloc: code below malloc, or code holding an allocator
// lock, must use the stack-built lines of foundation/quorla_stack_message.h instead.
// The functions always write; the verbosity g_uchar_message_out_level is tested by the
// callers (0 nothing, 1 errors, above 1 warnings, above 2 log lines, above 4 traces).
// message_out holds g_lock_cout for one line, so lines of different threads never mix.
#pragma once

#include <mutex>

#include "foundation/quorla_string_class.h"

namespace quorla {

extern bool g_bool_message_to_screen;          // message_out writes only while true
extern bool g_bool_message_to_file;            // reserved: no code reads it
extern unsigned char g_uchar_message_out_level;  // 2 at load; 0 once the settings are read
extern std::mutex g_lock_cout;                 // one line of message_out
extern std::mutex g_lock_message_file;         // reserved: no code takes it
extern bool g_bool_crash;                      // reserved: no code reads or writes it

// Reserved names of a crash log: built at start-up, read by nothing yet.
extern string g_str_crash_log_path;        // "/tmp"
extern string g_str_crash_log_file;        // "crash.log"
extern string g_str_crash_path_file_name;  // "crash.log"

// Each takes the source file name (its directories are dropped), the line and the function.
void error_message1(const char* file, unsigned int line, const char* func, const char* msg);
void error_message1(const char* file, unsigned int line, const char* func, const unsigned char* msg);
void error_message_str1(const char* file, unsigned int line, const char* func, const string& msg);
void warning_message1(const char* file, unsigned int line, const char* func, const char* msg);
void warning_message1(const char* file, unsigned int line, const char* func, const unsigned char* msg);
void warning_message_str1(const char* file, unsigned int line, const char* func, const string& msg);
void log_message1(const char* file, unsigned int line, const char* func, const char* msg);
void log_message1(const char* file, unsigned int line, const char* func, const unsigned char* msg);
void log_message_str1(const char* file, unsigned int line, const char* func, const string& msg);
// A line like the others: the program goes on.
void fatal_message1(const char* file, unsigned int line, const char* func, const char* msg);
void fatal_message1(const char* file, unsigned int line, const char* func, const unsigned char* msg);
void fatal_message_str1(const char* file, unsigned int line, const char* func, const string& msg);

// Msg is the text, "=" and the value in decimal.
void log_message_ulong1(const char* file, unsigned int line, const char* func, const char* msg, unsigned long value);
void log_message_long1(const char* file, unsigned int line, const char* func, const char* msg, long value);
void log_message_int1(const char* file, unsigned int line, const char* func, const char* msg, int value);
void log_message_uint1(const char* file, unsigned int line, const char* func, const char* msg, unsigned int value);

// The line without its end, as the functions above write it.
string message_line(const char* prefix, const char* file, unsigned int line, const char* func,
                    const unsigned char* msg, unsigned int msg_size);

// One line on standard error and "\r\n": nothing for an empty text or while
// g_bool_message_to_screen is false. A failure to lock throws std::system_error.
void message_out(const string& text);

// Appends size bytes to the file (binary); an error line if it cannot be opened.
void file_append(const char* path, const char* data, unsigned int size);

}  // namespace quorla
