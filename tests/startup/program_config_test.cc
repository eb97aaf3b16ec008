// The configuration engine on its own: lines of text against the rules of the file form
// (case of keys, both separators, blanks, comments, groups), registration, every value type's
// conversion on good and bad text, apply and its companions, and which words each level lets
// through. Expected values come from the rules of the form, written out per case.
#include "startup/quorla_program_config.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <functional>
#include <string>

#include "diagnostics/quorla_error_message.h"

namespace quorla {
namespace {

std::string str(const string& s) { return std::string(reinterpret_cast<const char*>(s.data()), s.size()); }

std::string capture(const std::function<void()>& body) {
  testing::internal::CaptureStderr();
  body();
  return testing::internal::GetCapturedStderr();
}

size_t count(const std::string& text, const std::string& word) {
  size_t n = 0;
  for (size_t at = 0; (at = text.find(word, at)) != std::string::npos; at += word.size()) ++n;
  return n;
}

// The messages of a case are told at level 2 unless the case says otherwise.
class ProgramConfig : public testing::Test {
 protected:
  void SetUp() override { level_ = g_uchar_message_out_level; g_uchar_message_out_level = 2; }
  void TearDown() override { g_uchar_message_out_level = level_; }

  // Feeds the text as a file's contents; returns what was written to standard error.
  std::string load(Program_config& config, const std::string& text) {
    string owned(text.c_str(), static_cast<unsigned int>(text.size()));
    return capture([&] { config.load_from_config_str(owned); });
  }
  std::string value_of(Program_config& config, const char* key) {
    auto it = config.umap_key_value.find(string(key));
    return it == config.umap_key_value.end() ? "<none>" : str(it->value.str_value);
  }
  unsigned char level_ = 0;
};

TEST_F(ProgramConfig, KeysIgnoreCaseBlanksAreFoldedValuesKeepTheirText) {
  Program_config config(true);
  string target;
  ASSERT_TRUE(config.add("Mixed_KEY", g_uchar_program_config_type_string, &target, "d"));
  EXPECT_EQ(value_of(config, "mixed_key"), "d") << "registered lower-cased";
  struct Case { const char* line; const char* value; };
  const Case cases[] = {
      {"mixed_key=Value", "Value"},
      {"mixed_key = Value", "Value"},
      {"  MIXED_KEY   =    Value  ", "Value"},
      {"\tMiXeD_kEy\t=\tTab\tKept\t", "Tab\tKept"},
      {"mixed_key = b  c", "b c"},           // a run of blanks inside a value is one blank
      {"mixed_key = b # c", "b # c"},        // no comment at the end of a line
      {"mixed_key = left = right", "left = right"},  // the first separator splits
      {"mixed_key = trailing cr\r", "trailing cr"},
      {"mixed_key =", ""},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(load(config, c.line), "") << c.line;
    EXPECT_EQ(value_of(config, "mixed_key"), c.value) << c.line;
  }
  // Loading alone converts nothing: the target changes at apply only.
  EXPECT_EQ(str(target), "");
  config.apply();
  EXPECT_EQ(str(target), "");  // the last value was empty
  load(config, "mixed_key = Final Text");
  config.apply();
  EXPECT_EQ(str(target), "Final Text");
}

TEST_F(ProgramConfig, TheBlankSeparatorTakesTheFirstBlank) {
  Program_config config(false);
  EXPECT_EQ(str(config.str_equal), " ");
  string target;
  config.add("key", g_uchar_program_config_type_string, &target, "");
  EXPECT_EQ(load(config, "KEY   some  value = x\n"), "");
  EXPECT_EQ(value_of(config, "key"), "some value = x");
  config.set_line_has_equal(true);
  EXPECT_EQ(str(config.str_equal), "=");
  EXPECT_TRUE(config.bool_line_has_equal);
}

TEST_F(ProgramConfig, CommentsEmptyLinesAndTheLastLineWithoutLineFeed) {
  Program_config config(true);
  unsigned int a = 0, b = 0;
  config.add("a", g_uchar_program_config_type_uint, &a, "1");
  config.add("b", g_uchar_program_config_type_uint, &b, "2");
  const std::string text =
      "# a = 10\n"
      "   // a = 11\n"
      "\n"
      "  \t \r\n"
      "}\n"                 // outside a group: clears nothing, no error
      "/ a = 12\n"          // one slash is no comment: the key is "/ a"
      "a = 13\n"
      "b = 14";             // no line feed at the end
  const std::string err = load(config, text);
  EXPECT_EQ(count(err, "Warn:"), 1u) << err;
  EXPECT_NE(err.find("Msg=\"not find str_name_in, str_key=/ a, str_value=12\""), std::string::npos) << err;
  EXPECT_EQ(value_of(config, "a"), "13");
  EXPECT_EQ(value_of(config, "b"), "14");
}

TEST_F(ProgramConfig, GroupsNameTheirKeysAndCollectTheirLines) {
  Program_config config(true);
  unsigned int plain_x = 0, grouped = 0, inner = 0;
  config.add("x", g_uchar_program_config_type_uint, &plain_x, "0");
  config.add("Plain", "Group", "Key", g_uchar_program_config_type_uint, &grouped, "0");  // plain..group.key
  config.add("inner", "k", g_uchar_program_config_type_uint, &inner, "0");               // inner.k
  ASSERT_TRUE(config.add_group("plain", "group"));
  ASSERT_TRUE(config.add_group("INNER"));
  const std::string err = load(config,
                               "Plain  Group { anything after the brace is dropped\n"
                               "  key = 5\n"
                               "  a line with no separator\n"
                               "  left = right = other\n"
                               "  x = 1\n"          // only the plain x exists: warns with the group's key
                               "inner {\n"          // opened inside the other: replaces it
                               "  k = 6\n"
                               "  loose line\n"
                               "}\n"
                               "x = 7\n"            // outside again
                               "{\n"                // no name: an error with its line number
                               "x = 8\n"            // the group stays as it was: outside
                               "value with { brace = 9\n");  // a brace makes a group line
  EXPECT_EQ(value_of(config, "plain..group.key"), "5");
  EXPECT_EQ(value_of(config, "inner.k"), "6");
  EXPECT_EQ(value_of(config, "x"), "8");
  vector<string> lines;
  ASSERT_TRUE(config.get_group_vt_str("PLAIN..GROUP", lines));
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(str(lines[0]), "a line with no separator");
  EXPECT_EQ(str(lines[1]), "left = right = other");
  ASSERT_TRUE(config.get_group_vt_str("inner", lines));
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(str(lines[0]), "loose line");
  EXPECT_EQ(str(config.str_group_name), "value..with") << "the last brace line opened a group";

  EXPECT_NE(err.find("Msg=\"not find str_name_in, str_key=plain..group.x, str_value=1\""), std::string::npos) << err;
  EXPECT_NE(err.find("Err: Time="), std::string::npos);
  EXPECT_NE(err.find("Func=\"check_one_line\", Msg=\"find {, but group_name is empty. group name should in same "
                     "line. line_num=11, str_line=({)\""),
            std::string::npos)
      << err;
  EXPECT_EQ(count(err, "\r\n"), 2u) << "the two messages and nothing else at level 2: " << err;

  // A plain line outside any group finds no group with an empty name.
  config.str_group_name.clear();
  const std::string plain = load(config, "no separator here\n");
  EXPECT_NE(plain.find("Func=\"group_append_line\", Msg=\"not find, str_group_name=, str_line=(no separator here)\""),
            std::string::npos)
      << plain;
  // An unknown group clears what the caller passed in.
  std::string miss = capture([&] { EXPECT_FALSE(config.get_group_vt_str("No_Such", lines)); });
  EXPECT_EQ(lines.size(), 0u);
  EXPECT_NE(miss.find("Msg=\"not find. str_group_name=no_such\""), std::string::npos) << miss;
  EXPECT_TRUE(config.group_append_line(string("inner"), string("appended")));
}

TEST_F(ProgramConfig, ASecondRegistrationKeepsTheFirstAndWarnsInItsOwnWords) {
  Program_config config(true);
  unsigned int first = 0, second = 0, group_first = 0, groups_first = 0;
  ASSERT_TRUE(config.add("Key", g_uchar_program_config_type_uint, &first, "1"));
  ASSERT_TRUE(config.add("g", "k", g_uchar_program_config_type_uint, &group_first, "1"));
  ASSERT_TRUE(config.add("g1", "g2", "k", g_uchar_program_config_type_uint, &groups_first, "1"));
  ASSERT_TRUE(config.add_group("grp"));
  ASSERT_TRUE(config.add_group("a", "b"));
  struct Case { std::function<bool()> call; const char* func; const char* msg; };
  const Case cases[] = {
      {[&] { return config.add("KEY", g_uchar_program_config_type_uint, &second, "2"); }, "add",
       "find same. str_key=KEY"},
      {[&] { return config.add("G", "K", g_uchar_program_config_type_uint, &second, "2"); }, "add",
       "find same. str_group_name=G, str_key=K"},
      {[&] { return config.add("g1", "G2", "k", g_uchar_program_config_type_uint, &second, "2"); }, "add",
       "find same. str_group_name1=g1, str_group_name2=G2, str_key=k"},
      {[&] { return config.add_group("Grp"); }, "add_group", "find same. str_group_name=Grp"},
      {[&] { return config.add_group("A", "b"); }, "add_group", " find same. str_group_name1=A, str_group_name2=b"},
  };
  for (const Case& c : cases) {
    bool added = true;
    const std::string err = capture([&] { added = c.call(); });
    EXPECT_FALSE(added) << c.msg;
    EXPECT_NE(err.find(std::string("Func=\"") + c.func + "\", Msg=\"" + c.msg + "\""), std::string::npos) << err;
  }
  load(config, "key = 9\n");
  config.apply();
  EXPECT_EQ(first, 9u) << "the first target stays bound";
  EXPECT_EQ(group_first, 1u);
  EXPECT_EQ(groups_first, 1u);
  EXPECT_EQ(second, 0u);
  config.restore_default();
  EXPECT_EQ(value_of(config, "key"), "1") << "and the first default";
}

// One value type on many texts: the target holds `stored` afterwards, or keeps its marker if
// the text is refused, and only a refusal warns.
struct Parse_case {
  unsigned char type;
  const char* text;
  bool ok;
  long long stored;  // the value as the target's type holds it, widened
};

template <class T>
long long read_as(const void* p) { return static_cast<long long>(*static_cast<const T*>(p)); }

TEST_F(ProgramConfig, EveryNumberTypeParsesAndRefusesByItsRules) {
  const Parse_case cases[] = {
      {g_uchar_program_config_type_uchar, "255", true, 255},
      {g_uchar_program_config_type_uchar, "256", false, 0},
      {g_uchar_program_config_type_uchar, "+7", true, 7},
      {g_uchar_program_config_type_uchar, "65536", false, 0},
      {g_uchar_program_config_type_char, "127", true, 127},
      {g_uchar_program_config_type_char, "128", false, 0},
      {g_uchar_program_config_type_char, "-128", true, -128},
      {g_uchar_program_config_type_char, "-200", true, 56},  // no lower bound: cut to 8 bits
      {g_uchar_program_config_type_ushort, "65535", true, 65535},
      {g_uchar_program_config_type_ushort, "65536", false, 0},
      {g_uchar_program_config_type_short, "-32768", true, -32768},
      {g_uchar_program_config_type_short, "32768", false, 0},
      {g_uchar_program_config_type_short, "--1", false, 0},
      {g_uchar_program_config_type_uint, "12abc", true, 12},
      {g_uchar_program_config_type_uint, "", true, 0},
      {g_uchar_program_config_type_uint, "abc", true, 0},
      {g_uchar_program_config_type_uint, "+7", true, 7},
      {g_uchar_program_config_type_uint, "-1", true, 0},  // no sign for unsigned: no digits
      {g_uchar_program_config_type_uint, "4294967295", true, 4294967295ll},
      {g_uchar_program_config_type_uint, "4294967296", false, 0},
      {g_uchar_program_config_type_int, "-7", true, -7},
      {g_uchar_program_config_type_int, "2147483648", false, 0},
      {g_uchar_program_config_type_int, "-2147483648", true, INT_MIN},
      {g_uchar_program_config_type_ulong, "18446744073709551615", true, -1},  // all bits set
      {g_uchar_program_config_type_ulong, "99999999999999999999", false, 0},
      {g_uchar_program_config_type_long, "-9223372036854775808", true, LLONG_MIN},
      {g_uchar_program_config_type_long, "9223372036854775808", false, 0},
      {g_uchar_program_config_type_size, "4294967295", true, 4294967295ll},
      {g_uchar_program_config_type_size, "4294967296", false, 0},  // a 32-bit range, stored widened
      {g_uchar_program_config_type_size, "12abc", true, 12},
  };
  const char* const suffix[] = {"bool", "uchar", "char", "ushort", "short", "uint", "int", "ulong", "long", "size"};
  for (const Parse_case& c : cases) {
    SCOPED_TRACE(std::string(suffix[c.type]) + " '" + c.text + "'");
    // Marker bytes: a refused text must leave every byte of the target alone.
    alignas(8) unsigned char target[8];
    memset(target, 0xA5, sizeof(target));
    Program_config config(true);
    config.add("v", c.type, target, c.text);
    const std::string err = capture([&] { config.apply(); });
    long long held = 0;
    switch (c.type) {
      case g_uchar_program_config_type_uchar: held = read_as<unsigned char>(target); break;
      case g_uchar_program_config_type_char: held = read_as<signed char>(target); break;
      case g_uchar_program_config_type_ushort: held = read_as<unsigned short>(target); break;
      case g_uchar_program_config_type_short: held = read_as<short>(target); break;
      case g_uchar_program_config_type_uint: held = read_as<unsigned int>(target); break;
      case g_uchar_program_config_type_int: held = read_as<int>(target); break;
      case g_uchar_program_config_type_ulong: held = read_as<unsigned long>(target); break;
      case g_uchar_program_config_type_long: held = read_as<long>(target); break;
      case g_uchar_program_config_type_size: held = read_as<size_t>(target); break;
    }
    if (c.ok) {
      EXPECT_EQ(held, c.stored);
      EXPECT_EQ(count(err, "Warn:"), 0u) << err;
    } else {
      for (unsigned char byte : target) EXPECT_EQ(byte, 0xA5);
      EXPECT_NE(err.find(std::string("Func=\"store_ptr_value_as_value\", Msg=\"while d_uchar_value_type == "
                                     "g_uchar_program_config_type_") +
                         suffix[c.type] + ", Can not get value. str_value=" + c.text + "\""),
                std::string::npos)
          << err;
    }
  }
}

TEST_F(ProgramConfig, BooleanWordsStringsAndAnUnknownType) {
  struct Case { const char* text; int stored; };  // -1: refused
  const Case cases[] = {{"true", 1}, {"TRUE", 1}, {"1", 1}, {"On", 1}, {"yes", 1},
                        {"false", 0}, {"False", 0}, {"0", 0}, {"OFF", 0}, {"no", 0},
                        {"", -1}, {"maybe", -1}, {"yes please", -1}, {"2", -1}};
  for (const Case& c : cases) {
    for (bool start : {false, true}) {
      bool target = start;
      Program_config config(true);
      config.add("b", g_uchar_program_config_type_bool, &target, c.text);
      const std::string err = capture([&] { config.apply(); });
      EXPECT_EQ(target, c.stored < 0 ? start : c.stored == 1) << c.text;
      const bool warned =
          err.find(std::string("g_uchar_program_config_type_bool, Can not get value. str_value=") + c.text + "\"") !=
          std::string::npos;
      EXPECT_EQ(warned, c.stored < 0) << c.text << ": " << err;
    }
  }
  string text_target("old");
  Program_config config(true);
  config.add("s", g_uchar_program_config_type_string, &text_target, "  Kept As  It Stands");
  config.apply();
  EXPECT_EQ(str(text_target), "  Kept As  It Stands") << "a default is not trimmed: only file lines are";

  unsigned int untouched = 3;
  config.add("odd", 11, &untouched, "x");
  const std::string err = capture([&] { config.apply(); });
  EXPECT_EQ(untouched, 3u);
  // The code's digits are not in the line: it goes straight on with the value.
  EXPECT_NE(err.find("Msg=\"unknow d_uchar_value_type, d_uchar_value_type=, str_value=x\""), std::string::npos) << err;
}

TEST_F(ProgramConfig, ApplyWritesEveryTargetRestoreTouchesNoneReloadReadsTextOnly) {
  Program_config config(true);
  const unsigned int k_count = 300;  // enough keys to spread the table over many slots
  std::vector<unsigned int> targets(k_count, 0);
  for (unsigned int i = 0; i < k_count; ++i) {
    config.add(string(("key" + std::to_string(i)).c_str()), g_uchar_program_config_type_uint, &targets[i],
               string(std::to_string(i * 7).c_str()));
  }
  config.apply();
  for (unsigned int i = 0; i < k_count; ++i) ASSERT_EQ(targets[i], i * 7) << i;
  // Applying again stores again, with the same result.
  std::fill(targets.begin(), targets.end(), 1);
  config.apply();
  for (unsigned int i = 0; i < k_count; ++i) ASSERT_EQ(targets[i], i * 7) << i;

  char path[] = "/tmp/quorla_config_XXXXXX";
  int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  const std::string first = "key1 = 100\nkey2 = 200\n";
  ASSERT_EQ(write(fd, first.data(), first.size()), static_cast<ssize_t>(first.size()));
  close(fd);
  EXPECT_FALSE(config.reload_from_config_file()) << "no file loaded yet";
  ASSERT_TRUE(config.load_from_config_file(path));
  EXPECT_EQ(targets[1], 7u) << "loading converts nothing";
  config.apply();
  EXPECT_EQ(targets[1], 100u);
  EXPECT_EQ(targets[2], 200u);

  // The file drops key2: a reload leaves its last text, runs no apply and no defaults.
  std::string second = "key1 = 111\n";
  FILE* file = fopen(path, "w");
  fputs(second.c_str(), file);
  fclose(file);
  EXPECT_TRUE(config.reload_from_config_file());
  EXPECT_EQ(value_of(config, "key1"), "111");
  EXPECT_EQ(value_of(config, "key2"), "200");
  EXPECT_EQ(targets[1], 100u);
  EXPECT_EQ(config.vt_config_file.size(), 2u) << "each success remembers its path again";
  EXPECT_TRUE(config.reload_from_config_file());
  EXPECT_EQ(config.vt_config_file.size(), 4u);

  config.restore_default();
  EXPECT_EQ(value_of(config, "key1"), "7");
  EXPECT_EQ(targets[1], 100u) << "restore_default touches no target";
  unlink(path);

  // Missing, a directory, or bigger than the engine reads: false, without a word.
  const std::string err = capture([&] {
    EXPECT_FALSE(config.load_from_config_file("/nonexistent/quorla.conf"));
    EXPECT_FALSE(config.load_from_config_file("/tmp"));
  });
  EXPECT_EQ(err, "");
  char big[] = "/tmp/quorla_config_big_XXXXXX";
  fd = mkstemp(big);
  ASSERT_GE(fd, 0);
  const std::string line = "key1 = 5\n";
  ASSERT_EQ(write(fd, line.data(), line.size()), static_cast<ssize_t>(line.size()));
  ASSERT_EQ(ftruncate(fd, k_uint_program_config_file_max_byte + 1), 0);
  close(fd);
  EXPECT_FALSE(config.load_from_config_file(big));
  ASSERT_EQ(truncate(big, k_uint_program_config_file_max_byte), 0);
  // The rest of the file is one line of NUL bytes, a plain line outside any group.
  const std::string nul_line = capture([&] { EXPECT_TRUE(config.load_from_config_file(big)); });
  EXPECT_EQ(count(nul_line, "Warn:"), 1u);
  EXPECT_NE(nul_line.find("Msg=\"not find, str_group_name=, str_line=("), std::string::npos);
  EXPECT_EQ(value_of(config, "key1"), "5");
  unlink(big);
}

TEST_F(ProgramConfig, EachLevelLetsThroughItsOwnWords) {
  // error from 1, warnings above 1, log lines above 2, traces above 4.
  const std::string text = "{\nunknown = 1\nloose line\ngrp {\nk = 2\n}\nv = 3\n";
  struct Case { unsigned char level; size_t errors, warnings; };
  const Case cases[] = {{0, 0, 0}, {1, 1, 0}, {2, 1, 2}, {3, 1, 2}, {4, 1, 2}, {5, 1, 2}};
  for (const Case& c : cases) {
    SCOPED_TRACE(static_cast<int>(c.level));
    Program_config config(true);
    unsigned int v = 0, k = 0;
    config.add("v", g_uchar_program_config_type_uint, &v, "0");
    config.add("grp", "k", g_uchar_program_config_type_uint, &k, "0");
    g_uchar_message_out_level = c.level;
    std::string err = load(config, text);
    err += capture([&] { config.apply(); });
    g_uchar_message_out_level = 2;
    EXPECT_EQ(count(err, "Err: "), c.errors) << err;
    EXPECT_EQ(count(err, "Warn:"), c.warnings) << err;
    // Log lines: the group read, and the two values that differ from their defaults after
    // apply; traces: every set_key_value and group_append_line.
    const size_t logs = count(err, "Log: ");
    if (c.level > 2) {
      EXPECT_NE(err.find("Msg=\"read config get group_name=grp\""), std::string::npos) << err;
      EXPECT_NE(err.find("Func=\"apply\", Msg=\"uchar_value_type_in=5, value=3, default_value=0, name=v\""),
                std::string::npos)
          << err;
    }
    if (c.level > 4) {
      EXPECT_NE(err.find("Func=\"set_key_value\", Msg=\"str_key=grp.k, str_value=2\""), std::string::npos) << err;
      EXPECT_NE(err.find("Func=\"group_append_line\", Msg=\"str_group_name=, str_line=loose line\""),
                std::string::npos)
          << err;
    }
    EXPECT_EQ(logs, c.level > 4 ? 3u + 4u : c.level > 2 ? 3u : 0u) << err;
    EXPECT_EQ(v, 3u) << "the level changes the words, not the values";
    EXPECT_EQ(k, 2u);
  }
}

}  // namespace
}  // namespace quorla
