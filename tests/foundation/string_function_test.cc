// The free functions on string: trims, blank collapsing, replacements, cuts, quotation ends,
// encoders, whole-file round trips, the text grammars and numeric conversions at their edges.
#include "foundation/quorla_string_function.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <set>
#include <string>

#include "foundation/quorla_string_convert.h"
#include "foundation/quorla_string_file.h"

namespace quorla {
namespace {

std::string str(const string& s) { return std::string(s.c_str(), s.size()); }
string bytes(const std::string& s) { return string(s.data(), static_cast<unsigned int>(s.size())); }

// Runs `call`, which edits the string `s` made from `in`, and checks its count and the text left.
#define EXPECT_EDIT(in, call, count, out) \
  do { string s = bytes(in); EXPECT_EQ(call, count) << in; EXPECT_EQ(str(s), out) << in; } while (0)

// Runs `call`, which cuts into `out` (stale beforehand), and checks its answer and out.
#define EXPECT_CUT(call, found, text) \
  do { string out("stale"); EXPECT_EQ(call, found); EXPECT_EQ(str(out), text); } while (0)

template <class F>
void expect_each(F is, std::initializer_list<std::string> texts, bool expected) {
  for (const std::string& text : texts) EXPECT_EQ(is(bytes(text)), expected) << '"' << text << '"';
}

TEST(StringFunction, CaseAndCharacterClasses) {
  string s = bytes("aZ09_\xC3\xA9{@[`");
  EXPECT_EQ(str(to_upper(s)) + str(to_lower(s)), "AZ09_\xC3\xA9{@[`az09_\xC3\xA9{@[`");

  expect_each(string_is_number, {"", "12a", "-1", std::string("1\0" "2", 3)}, false);
  expect_each(string_is_valid_long, {"9223372036854775807", "-9223372036854775808", "000000000000000000000042"}, true);
  // 2^64 wraps to 0 in 64 bits.
  expect_each(string_is_valid_long, {"9223372036854775808", "18446744073709551616", "-", ""}, false);
  expect_each(string_is_float, {"1", "+.5", "5.", "1.5E-3"}, true);
  expect_each(string_is_float, {"", ".", "e5", "1e+", "1.2.3", " 1"}, false);
  EXPECT_TRUE(string_is_number("0123456789") && string_is_hex("09afAF") && string_is_abc("azAZ"));
  EXPECT_FALSE(string_is_abc("a[") || string_is_abc("`"));  // '[' follows 'Z', '`' precedes 'a'
  expect_each(string_is_full_char, {"a b", "a\x7F", "\xC3\xA9"}, false);
  EXPECT_TRUE(string_is_full_char("!~aZ") && string_is_bin("0110") && string_has_number("ab7") && string_has_abc("12z"));
  EXPECT_FALSE(string_is_hex("0x1F") || string_is_bin("012") || string_has_number("abc") || string_has_abc("12@"));
}

TEST(StringFunction, AddressAndNameGrammars) {
  expect_each(string_is_ip_v4, {"0.0.0.0", "255.255.255.255"}, true);
  expect_each(string_is_ip_v4, {"1.2.3", "1.2.3.4.5", "256.1.1.1", "1.2.3.04", "1..3.4"}, false);
  expect_each(string_is_ip_net_v4, {"10.0.0.0/8", "192.168.0.0/32"}, true);
  expect_each(string_is_ip_net_v4, {"10.0.0.0", "10.0.0.0/33", "10.0.0.0/08", "300.0.0.0/8"}, false);
  expect_each(string_is_ip_v6, {"::", "1::", "2001:db8::8a2e:370:7334", "::ffff:192.0.2.128"}, true);
  expect_each(string_is_ip_v6, {":::", "1:2:3:4:5:6:7", "1:2:3:4:5:6:7:8:9", "1::2::3", "12345::", "::1.2.3"}, false);
  const std::string label63(63, 'a');
  std::string long_name = label63 + "." + label63 + "." + label63 + "." + label63;  // 255 bytes, above 253
  expect_each(string_is_domain_name, {"example.com", "a-b.c0.org.", label63 + ".com"}, true);
  expect_each(string_is_domain_name, {"localhost", "-a.com", "a-.com", "a..com", label63 + "a.com", long_name}, false);
  expect_each(string_is_host_name, {"localhost", "db-1", "example.com"}, true);
  expect_each(string_is_host_name, {"1234", "-db", ""}, false);
}

TEST(StringFunction, TrimSetIsTabLineFeedReturnBlankOnly) {
  EXPECT_EQ(str(string_trim(" \t\r\nab c\n\r\t ")), "ab c");
  EXPECT_EQ(str(string_trim_left(" \tab ")) + "|" + str(string_trim_right(" ab\t\n")), "ab | ab");
  EXPECT_EQ(str(string_trim("\v a \f")), "\v a \f");  // vertical tab and form feed are not in the set

  // In place: the array stays; one side is left alone by the other side's trim.
  string s("\r\n  middle part \t");
  const unsigned char* array = s.raw_pointer();
  trim(s);
  EXPECT_EQ(str(s), "middle part");
  EXPECT_EQ(s.raw_pointer(), array);
  string right("ab \n"), left("\t\tab");
  trim_left(right);
  trim_right(left);
  EXPECT_EQ(str(right) + "|" + str(left), "ab \n|\t\tab");
  string_trim_right_this(right);
  string_trim_left_this(left);
  EXPECT_EQ(str(right) + "|" + str(left), "ab|ab");
}

TEST(StringFunction, TrimsOfCleanOrEmptyStringsCopyNothing) {
  string s("a \t b");
  const unsigned char* array = s.raw_pointer();
  const unsigned int capacity = s.capacity();
  trim(s);
  trim_left(s);
  trim_right(s);
  string_trim_left_this(s);
  string_trim_right_this(s);
  EXPECT_EQ(s.raw_pointer(), array);
  EXPECT_EQ(s.capacity(), capacity);
  EXPECT_EQ(str(s), "a \t b");
  // A string that never held anything stays without an array, in place and as a copy.
  string empty;
  trim(empty);
  to_upper(empty);
  EXPECT_EQ(empty.raw_pointer(), nullptr);
  EXPECT_EQ(string_trim(empty).raw_pointer(), nullptr);
  EXPECT_EQ(string_trim("  \t").raw_pointer(), nullptr);
  EXPECT_EQ(string_trim_left(" ").raw_pointer(), nullptr);
  EXPECT_EQ(string_trim_right("\n").raw_pointer(), nullptr);
}

TEST(StringFunction, ReplaceFirstAndAll) {
  EXPECT_EDIT("one two one", string_replace(s, "one", "1"), true, "1 two one");
  EXPECT_EDIT("1 two one", string_replace(s, "one", "three", 2), true, "1 two three");
  EXPECT_EDIT("1 two", string_replace(s, "", "x"), false, "1 two");
  EXPECT_EDIT("1 two", string_replace(s, "t", "x", 100), false, "1 two");  // a start past the end: no abort
  EXPECT_EDIT("aaaa", string_replace_all(s, "aa", "b"), 2u, "bb");
  EXPECT_EDIT("aaa", string_replace_all(s, "aa", "b"), 1u, "ba");  // left to right, no overlap
  EXPECT_EDIT("abab", string_replace_all(s, "ab", "abab"), 2u, "abababab");  // inserted text not searched again
  EXPECT_EDIT("xyz", string_replace_all(s, "", "q"), 0u, "xyz");
  EXPECT_EDIT("cat hat", string_replace_all(s, "at", "og"), 2u, "cog hog");  // same length, in place
  EXPECT_EDIT("a-b-c", string_replace_all(s, '-', '+'), 2u, "a+b+c");
  EXPECT_EDIT("self", string_replace_all(s, s, "x"), 1u, "x");  // the pattern is the string itself
  string s = bytes(std::string(1000, ';'));
  EXPECT_EQ(string_replace_all(s, ";", "\r\n"), 1000u);
  EXPECT_EQ(str(s).substr(1994), "\r\n\r\n\r\n");
}

TEST(StringFunction, Erasures) {
  EXPECT_EDIT("a,b,,c,", string_erase_all(s, static_cast<unsigned char>(',')), 4u, "abc");
  EXPECT_EDIT("xabyabab", string_erase_all(s, "ab"), 3u, "xy");
  EXPECT_EDIT("aabb", string_erase_all(s, "ab"), 1u, "ab");  // one pass: the "ab" formed by the joining stays
  EXPECT_EDIT("abc", string_erase_all(s, ""), 0u, "abc");
  EXPECT_EDIT("    ", string_erase_one_of_double_blank(s), 3u, " ");
  EXPECT_EDIT("a  b   c \t\t d", string_erase_one_of_double_blank(s), 3u, "a b c \t\t d");
  // A tab is trimmed but not collapsed: the two functions disagree on it by design.
  EXPECT_EDIT("\t a  b\t", string_erase_one_of_double_blank(s), 1u, "\t a b\t");
  EXPECT_EQ(str(string_trim("\t a b\t")), "a b");
  EXPECT_EDIT(" a b\tc ", string_erase_blank(s), 3u, "ab\tc");
  EXPECT_EDIT("keep[drop]this[x] and [unclosed", string_erase_char_begin_char_end(s, '[', ']'), 2u, "keepthis and [unclosed");
  EXPECT_EDIT("say \"hi\" and \"bye\"!", string_erase_char_begin_char_end(s, '"', '"'), 2u, "say  and !");
  EXPECT_EDIT("it''s '''", string_erase_double_char(s, '\''), 2u, "it's ''");
}

TEST(StringFunction, EncodersAgainstKnownText) {
  const string binary = bytes(std::string("\x00\x01\x7F\x80\xAB\xFF", 6));
  EXPECT_EQ(str(string_to_hex_upper(binary)) + str(string_to_hex_lower(binary)), "00017F80ABFF00017f80abff");
  // The input is the output's own bytes, which move as it grows.
  string self("AB");
  for (int i = 0; i < 4; ++i) string_to_hex_upper(self.data(), self.data() + self.size(), self);
  EXPECT_EQ(self.size(), 2u * 81u);
  EXPECT_EQ(str(self).substr(0, 8), "AB414241");
  EXPECT_EQ(str(string_to_url_encode(bytes(std::string("Az09-_.~ &/%\0\xFF", 14)))), "Az09-_.~%20%26%2F%25%00%FF");
  EXPECT_EQ(str(to_string_can_show(bytes(std::string("a b\t\r\n\\\x00\x7F\xE9~", 11)))), "a b\\t\\r\\n\\\\\\x00\\x7F\\xE9~");
}

TEST(StringFunction, CutsByStringAndByte) {
  const string line("key := value := more");
  EXPECT_CUT(string_get_value_from_begin_to_find(line, " := ", out), true, "key");
  EXPECT_CUT(string_get_value_after_find(line, " := ", out), true, "value := more");
  EXPECT_CUT(string_get_value_after_find_last_of(line, " := ", out), true, "more");
  EXPECT_CUT(string_get_value_after_find_begin_to_find_end(line, ":= ", " :=", out), true, "value");
  EXPECT_CUT(string_get_value_from_find_begin_to_find_end(line, ":= ", " :=", out), true, ":= value");
  EXPECT_CUT(string_get_value_from_offset_begin_to_find(line, 7, " :=", out), true, "value");
  // Begin and end the same byte: the end is searched after the begin.
  EXPECT_CUT(string_get_value_after_find_begin_to_find_end(string("x|mid|y"), '|', '|', out), true, "mid");
  string key("k"), value("v");
  // Missing delimiters clear the output.
  EXPECT_CUT(string_get_value_from_begin_to_find(line, ";", out), false, "");
  EXPECT_CUT(string_get_value_after_find(line, "", out), false, "");  // an empty delimiter is never found
  EXPECT_CUT(string_get_value_from_find_begin_to_find_end(string(")a(b"), "(", ")", out), false, "");
  EXPECT_CUT(string_get_value_from_offset_begin_to_find(line, 100, ' ', out), false, "");  // no abort
  EXPECT_FALSE(string_get_key_value_find(string("no delimiter"), "=", key, value));
  EXPECT_TRUE(key.empty() && value.empty());

  // The output may be the input, or the delimiter.
  string s("key=value");
  EXPECT_TRUE(string_get_key_value_find(s, '=', s, value));
  EXPECT_EQ(str(s) + "|" + str(value), "key|value");
  string delimiter("::");
  EXPECT_TRUE(string_get_value_after_find(string("a::b"), delimiter, delimiter));
  EXPECT_EQ(str(delimiter), "b");
}

TEST(StringFunction, QuotationEndsAndEscapes) {
  const string s("say \"hello\" 'it' \"x");
  EXPECT_EQ(get_quotation_mark_offset(s, 12), 15u);
  EXPECT_EQ(get_quotation_mark_offset(s, 17), string::npos);  // unclosed
  EXPECT_EQ(get_quotation_mark_offset(bytes(R"("a\"b" rest)"), 0), 3u) << "without escapes the escaped quote ends it";
  EXPECT_EQ(get_quotation_mark_offset_with_escape(bytes(R"("a\"b" rest)"), 0), 5u);
  EXPECT_EQ(get_quotation_mark_offset_with_escape(bytes(R"("a\\" b")"), 0), 4u);  // the quote after \\ is not escaped
  EXPECT_EQ(get_quotation_mark_offset_with_escape(bytes(R"("abc\)"), 0), string::npos) << "a final backslash";
}

TEST(StringFunction, EndsAndByteShifts) {
  EXPECT_EDIT("[inner]", string_check_first_and_last(s, '[', ']'), true, "inner");
  EXPECT_EDIT("\"", string_check_first_and_last(s, '"', '"'), false, "\"");  // one byte is not both ends
  string text = bytes(std::string("Az\x00\xFF\x80", 5));
  string_char_plus_char(text, 3);
  EXPECT_EQ(str(text), std::string("D}\x03\x02\x83", 5)) << "adds modulo 256";
  EXPECT_EQ(str(get_file_name_from_path_file_name("/usr/lib/libquorlamalloc.so")), "libquorlamalloc.so");
  EXPECT_EQ(str(get_file_name_from_path_file_name("a\\b/c\\d")), "c\\d") << "the slash wins over the backslash";
}

class StringFunctionFile : public testing::Test {
 protected:
  void SetUp() override {
    dir_ = testing::TempDir() + "quorla_strfn_XXXXXX";
    ASSERT_NE(mkdtemp(dir_.data()), nullptr);
  }
  void TearDown() override {
    for (const char* name : {"a", "saved", "chunks"}) unlink(path(name).c_str());
    rmdir(dir_.c_str());
  }
  std::string path(const char* name) const { return dir_ + "/" + name; }
  string qpath(const char* name) const { return bytes(path(name)); }
  std::string read(const char* name) const {
    string text;
    EXPECT_TRUE(file_to_string(qpath(name), text)) << name;
    return str(text);
  }
  std::string dir_;
};

TEST_F(StringFunctionFile, RoundTripAcrossTheReadChunk) {
  // Sizes around the 4095-byte chunk, up past three chunks, with zero bytes inside.
  for (unsigned int size : {0u, 4095u, 4096u, 4095u * 3u + 1u}) {
    std::string content(size, '\0');
    for (unsigned int i = 0; i < size; ++i) content[i] = static_cast<char>((i * 131u + 7u) % 251u);
    ASSERT_TRUE(string_to_file(bytes(content), qpath("chunks"))) << size;
    string text("stale text that must go");
    ASSERT_TRUE(file_to_string(qpath("chunks"), text)) << size;
    EXPECT_TRUE(str(text) == content) << size;
    EXPECT_EQ(text.c_str()[text.size()], 0);
    // A bound stops the read there, across a chunk or inside one; the rest stays unread.
    for (unsigned int bound : {0u, 1u, 4095u, 5000u, size + 1}) {
      ASSERT_TRUE(file_to_string(qpath("chunks"), text, bound)) << size << " " << bound;
      EXPECT_TRUE(str(text) == content.substr(0, bound)) << size << " " << bound;
      EXPECT_EQ(text.c_str()[text.size()], 0);
    }
  }
}

TEST_F(StringFunctionFile, WritersTruncateAppendAndReplaceAndMissingFilesFail) {
  ASSERT_TRUE(string_to_file("first version, long", qpath("a")));
  ASSERT_TRUE(string_to_file("short", qpath("a")));
  ASSERT_TRUE(string_append_to_file(",two", qpath("a")));
  EXPECT_EQ(read("a"), "short,two") << "string_to_file truncates";
  ASSERT_TRUE(string_to_file("old contents that are longer", qpath("saved")));
  ASSERT_TRUE(string_save_to_file("new", qpath("saved")));
  EXPECT_EQ(read("saved"), "new");
  const std::string temporary = path("saved") + ".tmp." + std::to_string(getpid());
  EXPECT_NE(access(temporary.c_str(), F_OK), 0) << "the temporary is renamed away";

  string text("stale");
  EXPECT_FALSE(file_to_string(qpath("does_not_exist"), text));
  EXPECT_TRUE(text.empty()) << "the string is cleared before the open";
  const string nowhere = qpath("no_such_dir/file");
  EXPECT_FALSE(string_to_file("x", nowhere) || string_append_to_file("x", nowhere) || string_save_to_file("x", nowhere));
}

TEST(StringFunction, RandomTextUsesTheWholeAlphabetAndNothingElse) {
  EXPECT_NE(str(string_make_random(64)), str(string_make_random(64))) << "two equal draws: the source is stuck";
  const std::string many = str(string_make_random(62 * 200));
  std::set<char> seen(many.begin(), many.end());
  EXPECT_EQ(seen.size(), 62u);
  EXPECT_TRUE(std::all_of(many.begin(), many.end(), [](char c) { return isalnum(static_cast<unsigned char>(c)) != 0; }));
  const std::string custom = str(string_make_random(3000, "xy\x01"));
  EXPECT_EQ(std::set<char>(custom.begin(), custom.end()), (std::set<char>{'x', 'y', '\x01'}));
}

// Runs a conversion with a stale flag and gives "value" or "value overflow".
#define CONVERTED(call) \
  [&] {                                                                                   \
    bool overflow = true;                                                                 \
    auto value = call;                                                                    \
    return std::to_string(static_cast<long long>(value)) + (overflow ? " overflow" : ""); \
  }()

TEST(StringFunction, ConversionsAtTheirOverflowEdges) {
  EXPECT_EQ(CONVERTED(to_char("128", overflow)), "0 overflow");
  EXPECT_EQ(CONVERTED(hex_to_uchar("0x7F", overflow)), "127");
  EXPECT_EQ(CONVERTED(hex_to_uchar("100", overflow)), "0 overflow");
  EXPECT_EQ(CONVERTED(stoi("\t\r\n +42abc", overflow)), "42");
  EXPECT_EQ(CONVERTED(stoi("2147483648", overflow)), "0 overflow");
  // The overflow test is "the new value is below the old": this wrap lands above it
  // (477218589 * 10 + 0 wraps to 477218594) and passes unflagged.
  EXPECT_EQ(CONVERTED(stou("4772185890", overflow)), "477218594");
  EXPECT_EQ(CONVERTED(stoll("9223372036854775808", overflow)), "0 overflow");
  bool overflow = true;
  EXPECT_EQ(stoull("18446744073709551615", overflow), 18446744073709551615ull);
  EXPECT_FALSE(overflow);
  testing::internal::CaptureStderr();
  EXPECT_EQ(stoul("18446744073709551616", overflow), 0u);
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(overflow);
  EXPECT_EQ(err.rfind("aaaa1 Log: chars_to_ulong() ulong_prior=", 0), 0u) << err;
  EXPECT_EQ(err.size() >= 2 ? err.substr(err.size() - 2) : err, "\r\n");
  EXPECT_DOUBLE_EQ(stod(" +2.5x", overflow), 2.5);
  EXPECT_FALSE(overflow);
  EXPECT_EQ(stof("1e39", overflow), 0.0f);
  EXPECT_TRUE(overflow) << "beyond float, though within double";
  EXPECT_TRUE(std::isinf(stod("inf")));
}

TEST(StringFunction, KeyValueLinesIntoMap) {
  vector<string> lines;
  for (const char* line : {" name = quorla ", "version=1.07", "empty=", "no separator", " = no key", "url=a=b",
                           "name=\tsecond\r"})
    lines.push_back(string(line));
  unordered_map<string, string> map;
  EXPECT_EQ(vector_string_to_umap_string_key_value(lines, "=", map), 5u);
  std::string all;
  for (const char* key : {"name", "version", "empty", "url", "no separator", ""}) {
    auto found = map.find(string(key));
    all += found == map.end() ? std::string("<missing>;") : str(found->value) + ";";
  }
  // A later key replaces the value; the split is at the first separator.
  EXPECT_EQ(all, "second;1.07;;a=b;<missing>;<missing>;");
  EXPECT_EQ(map.size(), 4u);
}

}  // namespace
}  // namespace quorla
