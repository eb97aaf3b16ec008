// Program_config: binds names in a text file to variables of the program. A program
// registers each variable with its type and default text, loads files, and calls apply,
// which converts each text and stores it through the registered pointer. Until apply the
// values are text only: loading alone changes no variable. Free-form groups of lines are
// kept as well.
//
// The order of use: construct, add every key and group, restore_default, load, apply.
// File form: one setting per line, "key = value" (or "key value" with the blank separator);
// '#' or "//" at the start of a line is a comment; "name {" opens a group and '}' closes it.
// Keys and group names are matched without regard to case; values keep theirs.
//
// The engine runs on the library's string, vector and unordered_map and so allocates
// through the exported malloc: it may only run once the allocator is on. It has no lock;
// one thread at a time uses it. Targets are written by plain stores while other threads
// may read them. Errors never stop the program: they are told at the verbosity in
// g_uchar_message_out_level, and the variable keeps its old value.
#pragma once

#include "foundation/quorla_string_class.h"
#include "foundation/quorla_unordered_map.h"
#include "foundation/quorla_vector.h"

namespace quorla {

constexpr unsigned char g_uchar_program_config_type_bool = 0;
constexpr unsigned char g_uchar_program_config_type_uchar = 1;   // above 255 is an error
constexpr unsigned char g_uchar_program_config_type_char = 2;    // above 127 is an error; a low value is cut to 8 bits
constexpr unsigned char g_uchar_program_config_type_ushort = 3;
constexpr unsigned char g_uchar_program_config_type_short = 4;
constexpr unsigned char g_uchar_program_config_type_uint = 5;
constexpr unsigned char g_uchar_program_config_type_int = 6;
constexpr unsigned char g_uchar_program_config_type_ulong = 7;
constexpr unsigned char g_uchar_program_config_type_long = 8;
constexpr unsigned char g_uchar_program_config_type_size = 9;    // size_t, parsed in 32 bits
constexpr unsigned char g_uchar_program_config_type_string = 10;  // a quorla::string, assigned as it stands

// A file above this size is not read at all, like an unreadable one: memory stays bounded
// whatever the path names. Only regular files are read.
constexpr unsigned int k_uint_program_config_file_max_byte = 1048576;

// The record behind a key. A zero-filled record is a valid empty one.
struct Struct_program_config_value {
  Struct_program_config_value() : d_uchar_value_type(0), ptr_value(nullptr) {}
  Struct_program_config_value(unsigned char type, void* ptr, const string& str_default_in)
      : d_uchar_value_type(type), ptr_value(ptr), str_value(str_default_in), str_default(str_default_in) {}

  void equal_value() { str_value = str_default; }
  // Converts str_value and stores it at ptr_value; on an error the target is left alone.
  void store_ptr_value_as_value();

  unsigned char d_uchar_value_type;
  void* ptr_value;  // not owned
  string str_value;
  string str_default;
};

class Program_config {
 public:
  explicit Program_config(bool bool_has_equal);

  void set_line_has_equal(bool bool_has_equal);

  // Keys "key", "group.key" and "group1..group2.key", lower-cased. A key already there
  // keeps its first target and default; false then.
  bool add(const string& key, unsigned char type, void* ptr, const string& str_default);
  bool add(const string& group, const string& key, unsigned char type, void* ptr, const string& str_default);
  bool add(const string& group1, const string& group2, const string& key, unsigned char type, void* ptr,
           const string& str_default);
  bool add_group(const string& group);
  bool add_group(const string& group1, const string& group2);

  // true if the file could be read (its path is then remembered for reloads); a missing,
  // unreadable, non-regular or too big file gives false without a word.
  bool load_from_config_file(const string& path);
  // Parses the text line by line and consumes it.
  void load_from_config_str(string& text);
  void check_one_line(const string& line, unsigned int line_num);
  // The key as given, not lower-cased; false if it is not registered.
  bool set_key_value(const string& key, const string& value);
  bool group_append_line(const string& group, const string& line);
  // false, and out cleared, if there is no such group.
  bool get_group_vt_str(const string& group, vector<string>& out);

  // Stores every value through its pointer, in slot order.
  void apply();
  // Every text back to its default; targets are not touched.
  void restore_default();
  // Loads every remembered file again (each success remembers its path once more); text
  // only: no defaults, no apply. false if no file was ever loaded.
  bool reload_from_config_file();

  vector<string> vt_config_file;
  unordered_map<string, Struct_program_config_value> umap_key_value;
  unordered_map<string, vector<string>> umap_group;
  string str_equal;       // "=" or " "
  string str_group_name;  // the group being read; empty outside any group
  bool bool_line_has_equal;

 private:
  bool insert_key(const string& key, unsigned char type, void* ptr, const string& str_default);
  bool insert_group(const string& group);
};

// The library's one engine, built at start-up with the "=" form of lines.
extern Program_config g_program_config;

// reload_from_config_file() on g_program_config.
bool g_function_reload_config_default();

}  // namespace quorla
