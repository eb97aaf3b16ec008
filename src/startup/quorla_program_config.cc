#include "startup/quorla_program_config.h"

#include <sys/stat.h>

#include <cstring>

#include "diagnostics/quorla_error_message.h"
#include "foundation/quorla_conversion.h"
#include "foundation/quorla_string_file.h"
#include "foundation/quorla_string_function.h"

namespace quorla {

namespace {

constexpr const char* k_file = "quorla_program_config";

// The constant suffix of each type code, as the warnings name it.
constexpr const char* k_ar_type_suffix[] = {"bool", "uchar", "char",  "ushort", "short", "uint",
                                            "int",  "ulong", "long",  "size",   "string"};

bool is_bool_word(const string& word, const char* a, const char* b, const char* c, const char* d) {
  return word == a || word == b || word == c || word == d;
}

// Only a regular file is read. A directory, a device or a pipe counts as unreadable: the
// open of a pipe could wait for ever for a writer, and a device need never end.
bool is_regular_file(const string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

constexpr long k_long_no_bound = 0x7FFFFFFFFFFFFFFF;

// Parses the text and stores the value through ptr, unless the parser reports an overflow
// or the value lies above the bound. An unsigned 64-bit value above the signed range reads
// as negative here and so passes, as it should: only the narrow types have a bound.
template <class T, class V>
bool parse_and_store(void* ptr, V (*parse)(const char*, unsigned long, bool&), const char* text, unsigned long length,
                     long bound = k_long_no_bound) {
  bool overflow = false;
  const V value = parse(text, length, overflow);
  if (overflow || static_cast<long>(value) > bound) return false;
  *static_cast<T*>(ptr) = static_cast<T>(value);
  return true;
}

}  // namespace

void Struct_program_config_value::store_ptr_value_as_value() {
  // Every parser but the size type's measures the text up to its first 0 byte.
  const char* text = str_value.c_str();
  const unsigned long length = strlen(text);
  bool stored = false;
  switch (d_uchar_value_type) {
    case g_uchar_program_config_type_bool: {
      string word(str_value);
      to_lower(word);
      bool value = is_bool_word(word, "true", "1", "on", "yes");
      if (value || is_bool_word(word, "false", "0", "off", "no")) {
        *static_cast<bool*>(ptr_value) = value;
        stored = true;
      }
      break;
    }
    case g_uchar_program_config_type_uchar:
      stored = parse_and_store<unsigned char>(ptr_value, chars_to_ushort, text, length, 255);
      break;
    case g_uchar_program_config_type_char:
      // No lower bound: a low value is cut to 8 bits.
      stored = parse_and_store<signed char>(ptr_value, chars_to_short, text, length, 127);
      break;
    case g_uchar_program_config_type_ushort:
      stored = parse_and_store<unsigned short>(ptr_value, chars_to_ushort, text, length);
      break;
    case g_uchar_program_config_type_short:
      stored = parse_and_store<short>(ptr_value, chars_to_short, text, length);
      break;
    case g_uchar_program_config_type_uint:
      stored = parse_and_store<unsigned int>(ptr_value, chars_to_uint, text, length);
      break;
    case g_uchar_program_config_type_int:
      stored = parse_and_store<int>(ptr_value, chars_to_int, text, length);
      break;
    case g_uchar_program_config_type_ulong:
      stored = parse_and_store<unsigned long>(ptr_value, chars_to_ulong, text, length);
      break;
    case g_uchar_program_config_type_long:
      stored = parse_and_store<long>(ptr_value, chars_to_long, text, length);
      break;
    case g_uchar_program_config_type_size:
      // The one type whose parser is given the string's own size; the range is 32-bit.
      stored = parse_and_store<size_t>(ptr_value, chars_to_uint, text, str_value.size());
      break;
    case g_uchar_program_config_type_string:
      *static_cast<string*>(ptr_value) = str_value;
      stored = true;
      break;
    default:
      // The code's digits are not part of this line: it goes straight on with the value.
      if (g_uchar_message_out_level > 1) {
        warning_message_str1(k_file, __LINE__, "store_ptr_value_as_value",
                             string("unknow d_uchar_value_type, d_uchar_value_type=, str_value=").append(str_value));
      }
      return;
  }
  if (stored || g_uchar_message_out_level <= 1) return;
  warning_message_str1(k_file, __LINE__, "store_ptr_value_as_value",
                       string("while d_uchar_value_type == g_uchar_program_config_type_")
                           .append(k_ar_type_suffix[d_uchar_value_type])
                           .append(", Can not get value. str_value=")
                           .append(str_value));
}

Program_config::Program_config(bool bool_has_equal) : bool_line_has_equal(bool_has_equal) {
  set_line_has_equal(bool_has_equal);
}

void Program_config::set_line_has_equal(bool bool_has_equal) {
  bool_line_has_equal = bool_has_equal;
  str_equal = bool_has_equal ? "=" : " ";
}

bool Program_config::insert_key(const string& key, unsigned char type, void* ptr, const string& str_default) {
  string lower(key);
  to_lower(lower);
  return umap_key_value.insert_return_iterator_bool(lower, Struct_program_config_value(type, ptr, str_default)).second;
}

bool Program_config::insert_group(const string& group) {
  string lower(group);
  to_lower(lower);
  return umap_group.insert_return_iterator_bool(lower, vector<string>()).second;
}

bool Program_config::add(const string& key, unsigned char type, void* ptr, const string& str_default) {
  if (insert_key(key, type, ptr, str_default)) return true;
  if (g_uchar_message_out_level > 1) warning_message_str1(k_file, __LINE__, "add", "find same. str_key=" + key);
  return false;
}

bool Program_config::add(const string& group, const string& key, unsigned char type, void* ptr,
                         const string& str_default) {
  if (insert_key(group + "." + key, type, ptr, str_default)) return true;
  if (g_uchar_message_out_level > 1) {
    warning_message_str1(k_file, __LINE__, "add", "find same. str_group_name=" + group + ", str_key=" + key);
  }
  return false;
}

bool Program_config::add(const string& group1, const string& group2, const string& key, unsigned char type,
                         void* ptr, const string& str_default) {
  if (insert_key(group1 + ".." + group2 + "." + key, type, ptr, str_default)) return true;
  if (g_uchar_message_out_level > 1) {
    warning_message_str1(k_file, __LINE__, "add",
                         "find same. str_group_name1=" + group1 + ", str_group_name2=" + group2 + ", str_key=" + key);
  }
  return false;
}

bool Program_config::add_group(const string& group) {
  if (insert_group(group)) return true;
  if (g_uchar_message_out_level > 1) warning_message_str1(k_file, __LINE__, "add_group", "find same. str_group_name=" + group);
  return false;
}

bool Program_config::add_group(const string& group1, const string& group2) {
  if (insert_group(group1 + ".." + group2)) return true;
  if (g_uchar_message_out_level > 1) {
    // The leading blank is part of this message.
    warning_message_str1(k_file, __LINE__, "add_group",
                         " find same. str_group_name1=" + group1 + ", str_group_name2=" + group2);
  }
  return false;
}

bool Program_config::load_from_config_file(const string& path) {
  // By copy: a reload passes an element of vt_config_file, which grows below.
  const string path_copy(path);
  string text;
  if (!is_regular_file(path_copy)) return false;
  // One byte past the bound tells a file that is too big from one that just fits.
  if (!file_to_string(path_copy, text, k_uint_program_config_file_max_byte + 1)) return false;
  if (text.size() > k_uint_program_config_file_max_byte) return false;
  load_from_config_str(text);
  vt_config_file.push_back(path_copy);
  return true;
}

void Program_config::load_from_config_str(string& text) {
  // Lines are taken off the front by offset; the text is consumed at the end.
  unsigned int line_num = 0;
  unsigned int begin = 0;
  const unsigned int size = text.size();
  while (begin < size) {
    unsigned int end = text.find(static_cast<unsigned char>('\n'), begin);
    if (end == string::npos) end = size;
    check_one_line(string(text, begin, end - begin), ++line_num);
    begin = end + 1;
  }
  text.clear();
}

void Program_config::check_one_line(const string& line_in, unsigned int line_num) {
  if (line_in.empty()) return;
  string line = string_trim(line_in);
  // Runs of blanks become one, values included; tabs stay.
  string_erase_one_of_double_blank(line);
  if (line.empty()) return;
  if (line[0] == '#' || (line.size() > 1 && line[0] == '/' && line[1] == '/')) return;
  if (line[0] == '}') {
    // No nesting: one '}' leaves every group.
    str_group_name.clear();
    return;
  }
  // A '{' anywhere makes a group line, even inside what would be a value.
  unsigned int brace = line.find(static_cast<unsigned char>('{'));
  if (brace != string::npos) {
    string name(line, 0, brace);
    to_lower(name);
    trim(name);
    string_replace_all(name, " ", "..");
    if (name.empty()) {
      if (g_uchar_message_out_level >= 1) {
        char number[k_number_chars];
        error_message_str1(k_file, __LINE__, "check_one_line",
                           string("find {, but group_name is empty. group name should in same line. line_num=")
                               .append(uint_to_chars(line_num, number))
                               .append(", str_line=(")
                               .append(line_in)
                               .append(")"));
      }
      return;
    }
    // A group opened inside another replaces it.
    str_group_name = name;
    if (g_uchar_message_out_level > 2) {
      log_message_str1(k_file, __LINE__, "check_one_line", "read config get group_name=" + str_group_name);
    }
    return;
  }
  unsigned int separator = line.find(str_equal);
  if (separator == string::npos) {
    group_append_line(str_group_name, line);
    return;
  }
  string key(line, 0, separator);
  to_lower(key);
  trim(key);
  string value(line, separator + str_equal.size());
  trim(value);
  if (str_group_name.empty()) {
    set_key_value(key, value);
  } else if (value.find(str_equal) != string::npos) {
    group_append_line(str_group_name, line);
  } else {
    set_key_value(str_group_name + "." + key, value);
  }
}

bool Program_config::set_key_value(const string& key, const string& value) {
  if (g_uchar_message_out_level > 4) {
    log_message_str1(k_file, __LINE__, "set_key_value", "str_key=" + key + ", str_value=" + value);
  }
  auto it = umap_key_value.find(key);
  if (it == umap_key_value.end()) {
    if (g_uchar_message_out_level > 1) {
      warning_message_str1(k_file, __LINE__, "set_key_value",
                           "not find str_name_in, str_key=" + key + ", str_value=" + value);
    }
    return false;
  }
  it->value.str_value = value;
  return true;
}

bool Program_config::group_append_line(const string& group, const string& line) {
  if (g_uchar_message_out_level > 4) {
    log_message_str1(k_file, __LINE__, "group_append_line", "str_group_name=" + group + ", str_line=" + line);
  }
  auto it = umap_group.find(group);
  if (it == umap_group.end()) {
    if (g_uchar_message_out_level > 1) {
      warning_message_str1(k_file, __LINE__, "group_append_line",
                           "not find, str_group_name=" + group + ", str_line=(" + line + ")");
    }
    return false;
  }
  it->value.push_back(line);
  return true;
}

bool Program_config::get_group_vt_str(const string& group, vector<string>& out) {
  string lower(group);
  to_lower(lower);
  auto it = umap_group.find(lower);
  if (it == umap_group.end()) {
    out.clear();
    if (g_uchar_message_out_level > 1) {
      warning_message_str1(k_file, __LINE__, "get_group_vt_str", "not find. str_group_name=" + lower);
    }
    return false;
  }
  out = it->value;
  return true;
}

void Program_config::apply() {
  if (umap_key_value.empty()) return;
  for (auto it = umap_key_value.begin(); it != umap_key_value.end(); ++it) {
    Struct_program_config_value& value = it->value;
    value.store_ptr_value_as_value();
    if (g_uchar_message_out_level > 2 && value.str_value != value.str_default) {
      char number[k_number_chars];
      log_message_str1(k_file, __LINE__, "apply",
                       string("uchar_value_type_in=")
                           .append(uchar_to_chars(value.d_uchar_value_type, number))
                           .append(", value=")
                           .append(value.str_value)
                           .append(", default_value=")
                           .append(value.str_default)
                           .append(", name=")
                           .append(it->key));
    }
  }
}

void Program_config::restore_default() {
  for (auto it = umap_key_value.begin(); it != umap_key_value.end(); ++it) it->value.equal_value();
}

bool Program_config::reload_from_config_file() {
  if (vt_config_file.empty()) return false;
  // Only the paths known at the start; each success appends its path again.
  const unsigned int count = vt_config_file.size();
  for (unsigned int i = 0; i < count; ++i) load_from_config_file(vt_config_file[i]);
  return true;
}

bool g_function_reload_config_default() { return g_program_config.reload_from_config_file(); }

}  // namespace quorla
