// The free functions on string: trims that leave untouched strings alone, blank collapsing
// that leaves tabs, replacements with overlapping and empty patterns, cuts whose delimiters
// are missing, quotation ends with escapes, the encoders against known texts, whole-file
// round trips across the read chunk, the address and name grammars, and the numeric
// conversions at their overflow edges.
#include "foundation/quorla_string_function.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <set>
#include <string>
#include <type_traits>

#include "foundation/quorla_string_convert.h"
#include "foundation/quorla_string_file.h"

namespace quorla {
namespace {

std::string str(const string& s) { return std::string(s.c_str(), s.size()); }
string bytes(const std::string& s) { return string(s.data(), static_cast<unsigned int>(s.size())); }

// The version note is a plain array: nothing to construct, nothing to allocate at load.
static_assert(std::is_array<decltype(g_str_quorla_string_version_date)>::value, "the version note is a char array");

// ---------------------------------------------------------------- case and classes

TEST(StringFunctionCase, ChangesOnlyAsciiLetters) {
  string s = bytes("aZ09_\xC3\xA9{@[`");
  to_upper(s);
  EXPECT_EQ(str(s), "AZ09_\xC3\xA9{@[`");
  to_lower(s);
  EXPECT_EQ(str(s), "az09_\xC3\xA9{@[`");
  string empty;
  to_upper(empty);
  EXPECT_EQ(empty.raw_pointer(), nullptr);
}

TEST(StringFunctionClass, MembersAndNonMembers) {
  EXPECT_TRUE(string_is_number("0123456789"));
  EXPECT_FALSE(string_is_number(""));
  EXPECT_FALSE(string_is_number("12a"));
  EXPECT_FALSE(string_is_number("-1"));
  EXPECT_FALSE(string_is_number(bytes(std::string("1\0" "2", 3))));

  EXPECT_TRUE(string_is_valid_long("9223372036854775807"));
  EXPECT_TRUE(string_is_valid_long("-9223372036854775808"));
  EXPECT_TRUE(string_is_valid_long("+0"));
  EXPECT_TRUE(string_is_valid_long("000000000000000000000000042"));
  EXPECT_FALSE(string_is_valid_long("9223372036854775808"));
  EXPECT_FALSE(string_is_valid_long("-9223372036854775809"));
  EXPECT_FALSE(string_is_valid_long("18446744073709551616"));  // 2^64 wraps to 0 in 64 bits
  EXPECT_FALSE(string_is_valid_long("-"));
  EXPECT_FALSE(string_is_valid_long("1 "));
  EXPECT_FALSE(string_is_valid_long(""));

  for (const char* yes : {"1", "-1.5", "+.5", "5.", "1e10", "1.5E-3", "0.0"}) EXPECT_TRUE(string_is_float(yes)) << yes;
  for (const char* no : {"", ".", "-", "e5", "1e", "1e+", "1.2.3", "1,5", "0x10", " 1"}) EXPECT_FALSE(string_is_float(no)) << no;

  EXPECT_TRUE(string_is_hex("09afAF"));
  EXPECT_FALSE(string_is_hex("0x1F"));
  EXPECT_FALSE(string_is_hex("g"));
  EXPECT_TRUE(string_is_bin("0110"));
  EXPECT_FALSE(string_is_bin("012"));
  EXPECT_TRUE(string_is_abc("azAZ"));
  EXPECT_FALSE(string_is_abc("a1"));
  EXPECT_FALSE(string_is_abc("a["));  // '[' follows 'Z', '`' precedes 'a'
  EXPECT_FALSE(string_is_abc("`"));
  EXPECT_TRUE(string_has_number("ab7"));
  EXPECT_FALSE(string_has_number("abc"));
  EXPECT_FALSE(string_has_number(""));
  EXPECT_TRUE(string_has_abc("12z"));
  EXPECT_FALSE(string_has_abc("12@"));
  EXPECT_TRUE(string_is_full_char("!~aZ"));
  EXPECT_FALSE(string_is_full_char("a b"));
  EXPECT_FALSE(string_is_full_char("a\x7F"));
  EXPECT_FALSE(string_is_full_char(bytes("\xC3\xA9")));
}

// ---------------------------------------------------------------- text forms

TEST(StringFunctionForm, IpV4AndNetworks) {
  for (const char* yes : {"0.0.0.0", "255.255.255.255", "192.168.1.10", "10.0.0.1"}) EXPECT_TRUE(string_is_ip_v4(yes)) << yes;
  for (const char* no : {"", "1.2.3", "1.2.3.4.5", "256.1.1.1", "1.2.3.04", "1..3.4", "1.2.3.4.", ".1.2.3", "1.2.3.a",
                         "1.2.3.1000", " 1.2.3.4", "+1.2.3.4", "1.2.3.4/24"}) {
    EXPECT_FALSE(string_is_ip_v4(no)) << no;
  }
  for (const char* yes : {"10.0.0.0/8", "0.0.0.0/0", "192.168.0.0/32", "1.2.3.4/16"}) EXPECT_TRUE(string_is_ip_net_v4(yes)) << yes;
  for (const char* no : {"10.0.0.0", "10.0.0.0/", "10.0.0.0/33", "10.0.0.0/08", "10.0.0.0/100", "10.0.0/8", "10.0.0.0/8a",
                         "300.0.0.0/8", "/8"}) {
    EXPECT_FALSE(string_is_ip_net_v4(no)) << no;
  }
}

TEST(StringFunctionForm, IpV6) {
  for (const char* yes : {"::", "::1", "1::", "2001:db8::8a2e:370:7334", "2001:0db8:0000:0000:0000:ff00:0042:8329",
                          "fe80::1:2", "::ffff:192.0.2.128", "1:2:3:4:5:6:1.2.3.4", "1:2:3:4:5:6:7::", "::2:3:4:5:6:7:8",
                          "ABCD:EF01:2345:6789:ABCD:EF01:2345:6789"}) {
    EXPECT_TRUE(string_is_ip_v6(yes)) << yes;
  }
  for (const char* no : {"", ":", ":::", "1:2", "1:2:3:4:5:6:7", "1:2:3:4:5:6:7:8:9", "1::2::3", "12345::", "1:::2",
                         ":1:2:3:4:5:6:7", "1:2:3:4:5:6:7:", "g::1", "::1.2.3", "1:2:3:4:5:6:7:1.2.3.4",
                         "1:2:3:4:5:6::1.2.3.4", "::256.1.1.1", "[::1]", "fe80::1%eth0", "1.2.3.4"}) {
    EXPECT_FALSE(string_is_ip_v6(no)) << no;
  }
}

TEST(StringFunctionForm, DomainAndHostNames) {
  const std::string label63(63, 'a');
  for (std::string yes : {std::string("example.com"), std::string("a-b.c0.org."), std::string("xn--bcher-kva.example"),
                          label63 + ".com", std::string("1.example.com")}) {
    EXPECT_TRUE(string_is_domain_name(bytes(yes))) << yes;
    EXPECT_TRUE(string_is_host_name(bytes(yes))) << yes;
  }
  std::string long_name;  // 4 * 63 + 3 dots = 255 bytes, above the 253 limit
  for (int i = 0; i < 4; ++i) long_name += (i ? "." : "") + label63;
  for (std::string no : {std::string(""), std::string("."), std::string("localhost"), std::string("-a.com"),
                         std::string("a-.com"), std::string("a..com"), std::string("a_b.com"), std::string("1.2.3.4"),
                         label63 + "a.com", long_name, std::string("a.com.."), std::string("exa mple.com")}) {
    EXPECT_FALSE(string_is_domain_name(bytes(no))) << no;
  }
  EXPECT_TRUE(string_is_host_name("localhost"));
  EXPECT_TRUE(string_is_host_name("db-1"));
  EXPECT_FALSE(string_is_host_name("1234"));
  EXPECT_FALSE(string_is_host_name("-db"));
  EXPECT_FALSE(string_is_host_name(""));
}

// ---------------------------------------------------------------- trims

TEST(StringFunctionTrim, TrimSetIsTabLineFeedReturnBlankOnly) {
  EXPECT_EQ(str(string_trim(" \t\r\nab c\n\r\t ")), "ab c");
  EXPECT_EQ(str(string_trim_left(" \tab ")), "ab ");
  EXPECT_EQ(str(string_trim_right(" ab\t\n")), " ab");
  EXPECT_EQ(str(string_trim("\v a \f")), "\v a \f");  // vertical tab and form feed are not in the set
  EXPECT_EQ(str(string_trim(bytes(std::string("\0 a", 3)))), std::string("\0 a", 3));
  string s(" \t\v\t ");
  trim(s);
  EXPECT_EQ(str(s), "\v");
}

TEST(StringFunctionTrim, InPlaceTrimsMoveNothingWhenEndsAreClean) {
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
  trim_left(empty);
  trim_right(empty);
  EXPECT_EQ(empty.raw_pointer(), nullptr);
  EXPECT_EQ(string_trim(empty).raw_pointer(), nullptr);
  EXPECT_EQ(string_trim("  \t").raw_pointer(), nullptr);
  EXPECT_EQ(string_trim_left(" ").raw_pointer(), nullptr);
  EXPECT_EQ(string_trim_right("\n").raw_pointer(), nullptr);
}

TEST(StringFunctionTrim, InPlaceTrimsKeepTheArray) {
  string s("\r\n  middle part \t");
  const unsigned char* array = s.raw_pointer();
  trim(s);
  EXPECT_EQ(str(s), "middle part");
  EXPECT_EQ(s.raw_pointer(), array);
  EXPECT_EQ(s.c_str()[s.size()], 0);

  string only_right("ab \n");
  trim_left(only_right);
  EXPECT_EQ(str(only_right), "ab \n");
  string_trim_right_this(only_right);
  EXPECT_EQ(str(only_right), "ab");

  string only_left("\t\tab");
  trim_right(only_left);
  EXPECT_EQ(str(only_left), "\t\tab");
  string_trim_left_this(only_left);
  EXPECT_EQ(str(only_left), "ab");

  string all(" \t\r\n ");
  trim(all);
  EXPECT_TRUE(all.empty());
  EXPECT_STREQ(all.c_str(), "");
  string left_all("  ");
  trim_left(left_all);
  EXPECT_TRUE(left_all.empty());
  string one_side(" x");  // only the first byte is a trim byte
  trim(one_side);
  EXPECT_EQ(str(one_side), "x");
}

// ---------------------------------------------------------------- replace and erase

TEST(StringFunctionEdit, ReplaceFirst) {
  string s("one two one");
  EXPECT_TRUE(string_replace(s, "one", "1"));
  EXPECT_EQ(str(s), "1 two one");
  EXPECT_TRUE(string_replace(s, "one", "three", 2));
  EXPECT_EQ(str(s), "1 two three");
  EXPECT_FALSE(string_replace(s, "one", "x"));
  EXPECT_FALSE(string_replace(s, "", "x"));
  EXPECT_FALSE(string_replace(s, "t", "x", 100));  // a start past the end finds nothing, no abort
  EXPECT_EQ(str(s), "1 two three");
  EXPECT_TRUE(string_replace(s, 't', 'T'));
  EXPECT_EQ(str(s), "1 Two three");
  EXPECT_FALSE(string_replace(s, 'z', 'Z'));
}

TEST(StringFunctionEdit, ReplaceAllOverlappingGrowingAndEmpty) {
  string s("aaaa");
  EXPECT_EQ(string_replace_all(s, "aa", "b"), 2u);
  EXPECT_EQ(str(s), "bb");
  s = "aaa";
  EXPECT_EQ(string_replace_all(s, "aa", "b"), 1u);  // left to right, no overlap
  EXPECT_EQ(str(s), "ba");
  s = "abab";
  EXPECT_EQ(string_replace_all(s, "ab", "abab"), 2u);  // the inserted text is not searched again
  EXPECT_EQ(str(s), "abababab");
  s = "x.y.z";
  EXPECT_EQ(string_replace_all(s, ".", ""), 2u);
  EXPECT_EQ(str(s), "xyz");
  EXPECT_EQ(string_replace_all(s, "", "q"), 0u);
  EXPECT_EQ(str(s), "xyz");
  EXPECT_EQ(string_replace_all(s, "xyzw", "q"), 0u);
  s = "cat hat";
  EXPECT_EQ(string_replace_all(s, "at", "og"), 2u);  // same length, in place
  EXPECT_EQ(str(s), "cog hog");
  std::string big;
  for (int i = 0; i < 1000; ++i) big += "k=v;";
  s = bytes(big);
  EXPECT_EQ(string_replace_all(s, ";", "\r\n"), 1000u);
  EXPECT_EQ(s.size(), 5000u);
  EXPECT_EQ(str(s).substr(0, 10), "k=v\r\nk=v\r\n");
  s = "a-b-c";
  EXPECT_EQ(string_replace_all(s, '-', '+'), 2u);
  EXPECT_EQ(str(s), "a+b+c");
  // The pattern is the string itself.
  s = "self";
  EXPECT_EQ(string_replace_all(s, s, "x"), 1u);
  EXPECT_EQ(str(s), "x");
}

TEST(StringFunctionEdit, EraseAllByteAndPattern) {
  string s("a,b,,c,");
  EXPECT_EQ(string_erase_all(s, static_cast<unsigned char>(',')), 4u);
  EXPECT_EQ(str(s), "abc");
  EXPECT_EQ(string_erase_all(s, static_cast<unsigned char>(',')), 0u);
  s = "xabyabab";
  EXPECT_EQ(string_erase_all(s, "ab"), 3u);
  EXPECT_EQ(str(s), "xy");
  s = "aabb";
  EXPECT_EQ(string_erase_all(s, "ab"), 1u);  // one pass: the "ab" formed by the joining stays
  EXPECT_EQ(str(s), "ab");
  s = "abab";
  EXPECT_EQ(string_erase_all(s, "abab"), 1u);
  EXPECT_TRUE(s.empty());
  s = "abc";
  EXPECT_EQ(string_erase_all(s, ""), 0u);
  EXPECT_EQ(string_erase_all(s, s), 1u);
  EXPECT_TRUE(s.empty());
}

TEST(StringFunctionEdit, OneOfDoubleBlankLeavesOneBlankAndTabs) {
  string s("    ");
  EXPECT_EQ(string_erase_one_of_double_blank(s), 3u);
  EXPECT_EQ(str(s), " ");
  s = "a  b   c \t\t d";
  EXPECT_EQ(string_erase_one_of_double_blank(s), 3u);
  EXPECT_EQ(str(s), "a b c \t\t d");
  s = "\t\t";
  EXPECT_EQ(string_erase_one_of_double_blank(s), 0u);
  EXPECT_EQ(str(s), "\t\t");
  s = " \t ";
  EXPECT_EQ(string_erase_one_of_double_blank(s), 0u);
  s = "x  ";
  EXPECT_EQ(string_erase_one_of_double_blank(s), 1u);
  EXPECT_EQ(str(s), "x ");
  string empty;
  EXPECT_EQ(string_erase_one_of_double_blank(empty), 0u);
  // A tab is trimmed but not collapsed: the two functions disagree on it by design.
  string tabbed("\t a  b\t");
  string_erase_one_of_double_blank(tabbed);
  EXPECT_EQ(str(tabbed), "\t a b\t");
  trim(tabbed);
  EXPECT_EQ(str(tabbed), "a b");
}

TEST(StringFunctionEdit, EraseBlankDelimitedPartsAndDoubledChars) {
  string s(" a b\tc ");
  EXPECT_EQ(string_erase_blank(s), 3u);
  EXPECT_EQ(str(s), "ab\tc");

  s = "keep[drop]this[x] and [unclosed";
  EXPECT_EQ(string_erase_char_begin_char_end(s, '[', ']'), 2u);
  EXPECT_EQ(str(s), "keepthis and [unclosed");
  s = "say \"hi\" and \"bye\"!";
  EXPECT_EQ(string_erase_char_begin_char_end(s, '"', '"'), 2u);
  EXPECT_EQ(str(s), "say  and !");
  s = "[]";
  EXPECT_EQ(string_erase_char_begin_char_end(s, '[', ']'), 1u);
  EXPECT_TRUE(s.empty());
  s = "no parts]";
  EXPECT_EQ(string_erase_char_begin_char_end(s, '[', ']'), 0u);
  EXPECT_EQ(str(s), "no parts]");
  s = "[";
  EXPECT_EQ(string_erase_char_begin_char_end(s, '[', ']'), 0u);
  EXPECT_EQ(str(s), "[");

  s = "it''s ''''";
  EXPECT_EQ(string_erase_double_char(s, '\''), 3u);
  EXPECT_EQ(str(s), "it's ''");
  s = "'''";
  EXPECT_EQ(string_erase_double_char(s, '\''), 1u);
  EXPECT_EQ(str(s), "''");
  s = "a'b";
  EXPECT_EQ(string_erase_double_char(s, '\''), 0u);
  EXPECT_EQ(str(s), "a'b");
}

// ---------------------------------------------------------------- encoders

TEST(StringFunctionEncode, HexAgainstKnownText) {
  const string binary = bytes(std::string("\x00\x01\x7F\x80\xAB\xFF", 6));
  EXPECT_EQ(str(string_to_hex_upper(binary)), "00017F80ABFF");
  EXPECT_EQ(str(string_to_hex_lower(binary)), "00017f80abff");
  EXPECT_EQ(str(string_to_hex_upper("quorla")), "71756F726C61");
  EXPECT_EQ(string_to_hex_upper(string()).size(), 0u);

  string out("x=");
  string_to_hex_lower(binary.data() + 4, binary.data() + 6, out);
  EXPECT_EQ(str(out), "x=abff");
  string_to_hex_upper(binary.data(), binary.data() + 2, out);
  EXPECT_EQ(str(out), "x=abff0001");
  EXPECT_EQ(out.c_str()[out.size()], 0);
  // The input is the output's own bytes, which move as it grows.
  string self("AB");
  for (int i = 0; i < 4; ++i) string_to_hex_upper(self.data(), self.data() + self.size(), self);
  EXPECT_EQ(self.size(), 2u * 81u);
  EXPECT_EQ(str(self).substr(0, 8), "AB414241");

  std::string long_text(10000, '\x5A');
  const string long_hex = string_to_hex_lower(bytes(long_text));
  ASSERT_EQ(long_hex.size(), 20000u);
  EXPECT_EQ(str(long_hex).find_first_not_of("5a"), std::string::npos);
}

TEST(StringFunctionEncode, UrlEncodeAgainstKnownText) {
  EXPECT_EQ(str(string_to_url_encode("AZaz09-_.~")), "AZaz09-_.~");
  EXPECT_EQ(str(string_to_url_encode("a b&c=d/e?f+g%")), "a%20b%26c%3Dd%2Fe%3Ff%2Bg%25");
  EXPECT_EQ(str(string_to_url_encode(bytes("caf\xC3\xA9"))), "caf%C3%A9");
  EXPECT_EQ(str(string_to_url_encode(bytes(std::string("\0\n\xFF", 3)))), "%00%0A%FF");
  EXPECT_EQ(string_to_url_encode("").size(), 0u);
  string out("q=");
  const string value("x y");
  string_to_url_encode(value.data(), value.data() + value.size(), out);
  EXPECT_EQ(str(out), "q=x%20y");
}

// ---------------------------------------------------------------- cuts

TEST(StringFunctionCut, ByStringDelimiter) {
  const string line("key := value := more");
  string out("stale");
  EXPECT_TRUE(string_get_value_from_begin_to_find(line, " := ", out));
  EXPECT_EQ(str(out), "key");
  EXPECT_TRUE(string_get_value_after_find(line, " := ", out));
  EXPECT_EQ(str(out), "value := more");
  EXPECT_TRUE(string_get_value_from_find(line, " := ", out));
  EXPECT_EQ(str(out), " := value := more");
  EXPECT_TRUE(string_get_value_after_find_last_of(line, " := ", out));
  EXPECT_EQ(str(out), "more");
  EXPECT_TRUE(string_get_value_after_find_begin_to_find_end(line, ":= ", " :=", out));
  EXPECT_EQ(str(out), "value");
  EXPECT_TRUE(string_get_value_from_find_begin_to_find_end(line, ":= ", " :=", out));
  EXPECT_EQ(str(out), ":= value");
  EXPECT_TRUE(string_get_value_from_offset_begin_to_find(line, 7, " :=", out));
  EXPECT_EQ(str(out), "value");
  string key, value;
  EXPECT_TRUE(string_get_key_value_find(line, " := ", key, value));
  EXPECT_EQ(str(key), "key");
  EXPECT_EQ(str(value), "value := more");
}

TEST(StringFunctionCut, ByByteAndAtTheEdges) {
  const string path("/usr/lib/x.so");
  string out;
  EXPECT_TRUE(string_get_value_from_begin_to_find(path, '/', out));
  EXPECT_TRUE(out.empty());
  EXPECT_EQ(out.raw_pointer(), nullptr) << "an empty cut allocates nothing";
  EXPECT_TRUE(string_get_value_after_find(path, '/', out));
  EXPECT_EQ(str(out), "usr/lib/x.so");
  EXPECT_TRUE(string_get_value_from_find(path, 'l', out));
  EXPECT_EQ(str(out), "lib/x.so");
  EXPECT_TRUE(string_get_value_after_find_last_of(path, '/', out));
  EXPECT_EQ(str(out), "x.so");
  EXPECT_TRUE(string_get_value_after_find_last_of(string("a/"), '/', out));
  EXPECT_TRUE(out.empty());
  EXPECT_TRUE(string_get_value_after_find_begin_to_find_end(string("f(a, b) + g(c)"), '(', ')', out));
  EXPECT_EQ(str(out), "a, b");
  EXPECT_TRUE(string_get_value_from_find_begin_to_find_end(string("f(a, b) + g(c)"), '(', ')', out));
  EXPECT_EQ(str(out), "(a, b");
  // begin and end the same byte: the end is searched after the begin.
  EXPECT_TRUE(string_get_value_after_find_begin_to_find_end(string("x|mid|y"), '|', '|', out));
  EXPECT_EQ(str(out), "mid");
  EXPECT_TRUE(string_get_value_from_offset_begin_to_find(path, 5, '/', out));
  EXPECT_EQ(str(out), "lib");
  EXPECT_TRUE(string_get_value_from_offset_begin_to_find(path, 4, '/', out));
  EXPECT_TRUE(out.empty());
  string key("k"), value("v");
  EXPECT_TRUE(string_get_key_value_find(string("=v"), '=', key, value));
  EXPECT_TRUE(key.empty());
  EXPECT_EQ(str(value), "v");
}

TEST(StringFunctionCut, MissingDelimitersClearTheOutput) {
  const string line("no delimiter here");
  string out("stale");
  EXPECT_FALSE(string_get_value_from_begin_to_find(line, ";", out));
  EXPECT_TRUE(out.empty());
  out = "stale";
  EXPECT_FALSE(string_get_value_after_find(line, ';', out));
  EXPECT_TRUE(out.empty());
  out = "stale";
  EXPECT_FALSE(string_get_value_from_find(line, "; ", out));
  EXPECT_TRUE(out.empty());
  out = "stale";
  EXPECT_FALSE(string_get_value_after_find_last_of(line, ";", out));
  EXPECT_TRUE(out.empty());
  out = "stale";
  EXPECT_FALSE(string_get_value_after_find_last_of(line, "", out)) << "an empty delimiter is never found";
  out = "stale";
  EXPECT_FALSE(string_get_value_after_find(line, "", out));
  EXPECT_TRUE(out.empty());
  // Begin present, end missing; and an end that stands only before the begin.
  out = "stale";
  EXPECT_FALSE(string_get_value_after_find_begin_to_find_end(string("a(b"), '(', ')', out));
  EXPECT_TRUE(out.empty());
  out = "stale";
  EXPECT_FALSE(string_get_value_from_find_begin_to_find_end(string(")a(b"), "(", ")", out));
  EXPECT_TRUE(out.empty());
  out = "stale";
  EXPECT_FALSE(string_get_value_after_find_begin_to_find_end(string("a)b"), '(', ')', out));
  // An offset past the end finds nothing rather than aborting; the delimiter only before the offset is missing.
  out = "stale";
  EXPECT_FALSE(string_get_value_from_offset_begin_to_find(line, 100, ' ', out));
  EXPECT_TRUE(out.empty());
  EXPECT_FALSE(string_get_value_from_offset_begin_to_find(string("a b"), 2, ' ', out));
  string key("k"), value("v");
  EXPECT_FALSE(string_get_key_value_find(line, "=", key, value));
  EXPECT_TRUE(key.empty());
  EXPECT_TRUE(value.empty());
  string empty;
  EXPECT_FALSE(string_get_value_after_find(empty, ';', out));
}

TEST(StringFunctionCut, OutputMayBeTheInput) {
  string s("head:tail");
  EXPECT_TRUE(string_get_value_after_find(s, ':', s));
  EXPECT_EQ(str(s), "tail");
  s = "head:tail";
  EXPECT_TRUE(string_get_value_from_begin_to_find(s, ":", s));
  EXPECT_EQ(str(s), "head");
  s = "key=value";
  string value;
  EXPECT_TRUE(string_get_key_value_find(s, '=', s, value));
  EXPECT_EQ(str(s), "key");
  EXPECT_EQ(str(value), "value");
  // The delimiter is the out string.
  string delimiter("::");
  EXPECT_TRUE(string_get_value_after_find(string("a::b"), delimiter, delimiter));
  EXPECT_EQ(str(delimiter), "b");
}

// ---------------------------------------------------------------- quotation

TEST(StringFunctionQuote, EndOfQuotedPart) {
  const string s("say \"hello\" 'it' \"x");
  EXPECT_EQ(get_quotation_mark_offset(s, 4), 10u);
  EXPECT_EQ(get_quotation_mark_offset(s, 12), 15u);
  EXPECT_EQ(get_quotation_mark_offset(s, 17), string::npos);  // unclosed
  EXPECT_EQ(get_quotation_mark_offset(s, s.size()), string::npos);
  EXPECT_EQ(get_quotation_mark_offset(s, 1000), string::npos);
  EXPECT_EQ(get_quotation_mark_offset(string("\""), 0), string::npos);
  EXPECT_EQ(get_quotation_mark_offset(string("\"\""), 0), 1u);
}

TEST(StringFunctionQuote, EscapesSkipTheNextByte) {
  const std::string text = R"("a\"b" rest)";  // "a\"b" rest
  EXPECT_EQ(get_quotation_mark_offset(bytes(text), 0), 3u) << "without escapes the escaped quote ends it";
  EXPECT_EQ(get_quotation_mark_offset_with_escape(bytes(text), 0), 5u);
  const std::string backslashes = R"("a\\" b")";  // the quote after \\ is not escaped
  EXPECT_EQ(get_quotation_mark_offset_with_escape(bytes(backslashes), 0), 4u);
  const std::string three = R"("\\\"" )";  // \\ then \" then the closing quote
  EXPECT_EQ(get_quotation_mark_offset_with_escape(bytes(three), 0), 5u);
  EXPECT_EQ(get_quotation_mark_offset_with_escape(bytes(R"("abc\")"), 0), string::npos);
  EXPECT_EQ(get_quotation_mark_offset_with_escape(bytes(R"("abc\)"), 0), string::npos) << "a final backslash";
  EXPECT_EQ(get_quotation_mark_offset_with_escape(bytes(R"(x'a\'b'x)"), 1), 6u);
  EXPECT_EQ(get_quotation_mark_offset_with_escape(bytes("\"\""), 2), string::npos);
}

// ---------------------------------------------------------------- delimiters and shifts

TEST(StringFunctionShift, FirstAndLastAndByteArithmetic) {
  string s("[inner]");
  EXPECT_TRUE(string_check_first_and_last(s, '[', ']'));
  EXPECT_EQ(str(s), "inner");
  EXPECT_FALSE(string_check_first_and_last(s, '[', ']'));
  EXPECT_EQ(str(s), "inner");
  s = "\"";
  EXPECT_FALSE(string_check_first_and_last(s, '"', '"')) << "one byte is not both ends";
  EXPECT_EQ(str(s), "\"");
  s = "\"\"";
  EXPECT_TRUE(string_check_first_and_last(s, '"', '"'));
  EXPECT_TRUE(s.empty());
  s = "[x)";
  EXPECT_FALSE(string_check_first_and_last(s, '[', ']'));
  s = "(x]";
  EXPECT_FALSE(string_check_first_and_last(s, '[', ']'));

  string text = bytes(std::string("Az\x00\xFF\x80", 5));
  const std::string original = str(text);
  string_char_plus_char(text, 3);
  EXPECT_EQ(str(text), std::string("D}\x03\x02\x83", 5)) << "adds modulo 256";
  string_char_subtract_char(text, 3);
  EXPECT_EQ(str(text), original);
  string_char_subtract_char(text, 0x81);
  EXPECT_EQ(str(text), std::string("\xC0\xF9\x7F\x7E\xFF", 5));
}

// ---------------------------------------------------------------- files

class StringFunctionFile : public testing::Test {
 protected:
  void SetUp() override {
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr && *base != 0 ? base : "/tmp") + "/quorla_strfn_XXXXXX";
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
  }
  void TearDown() override {
    for (const char* name : {"a", "b", "c", "big", "saved", "appended", "chunks"}) unlink(path(name).c_str());
    rmdir(dir_.c_str());
  }
  std::string path(const char* name) const { return dir_ + "/" + name; }
  string qpath(const char* name) const { return bytes(path(name)); }
  std::string dir_;
};

TEST_F(StringFunctionFile, RoundTripAcrossTheReadChunk) {
  // Sizes around the 4095-byte chunk, up past three chunks, with zero bytes inside.
  for (unsigned int size : {0u, 1u, 4094u, 4095u, 4096u, 4095u * 3u, 4095u * 3u + 1u, 50000u}) {
    std::string content(size, '\0');
    for (unsigned int i = 0; i < size; ++i) content[i] = static_cast<char>((i * 131u + 7u) % 251u);
    ASSERT_TRUE(string_to_file(bytes(content), qpath("chunks"))) << size;
    string read("stale text that must go");
    ASSERT_TRUE(file_to_string(qpath("chunks"), read)) << size;
    ASSERT_EQ(read.size(), size);
    EXPECT_TRUE(str(read) == content) << size;
    EXPECT_EQ(read.c_str()[read.size()], 0);
  }
}

TEST_F(StringFunctionFile, WritersTruncateAppendAndReplace) {
  ASSERT_TRUE(string_to_file("first version, long", qpath("a")));
  ASSERT_TRUE(string_to_file("short", qpath("a")));
  string read;
  ASSERT_TRUE(file_to_string(qpath("a"), read));
  EXPECT_EQ(str(read), "short") << "string_to_file truncates";

  ASSERT_TRUE(string_append_to_file("one,", qpath("appended")));
  ASSERT_TRUE(string_append_to_file("two", qpath("appended")));
  ASSERT_TRUE(file_to_string(qpath("appended"), read));
  EXPECT_EQ(str(read), "one,two");

  ASSERT_TRUE(string_to_file("old contents that are longer", qpath("saved")));
  ASSERT_TRUE(string_save_to_file("new", qpath("saved")));
  ASSERT_TRUE(file_to_string(qpath("saved"), read));
  EXPECT_EQ(str(read), "new");
  const std::string temporary = path("saved") + ".tmp." + std::to_string(getpid());
  EXPECT_NE(access(temporary.c_str(), F_OK), 0) << "the temporary is renamed away";
}

TEST_F(StringFunctionFile, MissingFilesAndDirectories) {
  string read("stale");
  EXPECT_FALSE(file_to_string(qpath("does_not_exist"), read));
  EXPECT_TRUE(read.empty()) << "the string is cleared before the open";
  const string nowhere = qpath("no_such_dir/file");
  EXPECT_FALSE(string_to_file("x", nowhere));
  EXPECT_FALSE(string_append_to_file("x", nowhere));
  EXPECT_FALSE(string_save_to_file("x", nowhere));
  EXPECT_FALSE(file_to_string(string(), read));
}

TEST(StringFunctionPath, FileNameFromPath) {
  EXPECT_EQ(str(get_file_name_from_path_file_name("/usr/lib/libquorlamalloc.so")), "libquorlamalloc.so");
  EXPECT_EQ(str(get_file_name_from_path_file_name("C:\\dir\\name.txt")), "name.txt");
  EXPECT_EQ(str(get_file_name_from_path_file_name("a\\b/c\\d")), "c\\d") << "the slash wins over the backslash";
  EXPECT_EQ(str(get_file_name_from_path_file_name("plain")), "plain");
  EXPECT_EQ(str(get_file_name_from_path_file_name("dir/")), "");
  EXPECT_EQ(str(get_file_name_from_path_file_name("")), "");
}

// ---------------------------------------------------------------- random and printable forms

TEST(StringFunctionRandom, LengthAlphabetAndSpread) {
  EXPECT_EQ(string_make_random(0).size(), 0u);
  const string a = string_make_random(64);
  const string b = string_make_random(64);
  ASSERT_EQ(a.size(), 64u);
  EXPECT_NE(str(a), str(b)) << "two draws of 64 symbols agreeing means the source is stuck";
  // Every one of the 62 symbols shows up in 62 * 200 draws, and nothing else does.
  const string many = string_make_random(62 * 200);
  std::set<char> seen;
  for (char c : str(many)) {
    ASSERT_TRUE(isalnum(static_cast<unsigned char>(c)) != 0) << static_cast<int>(c);
    seen.insert(c);
  }
  EXPECT_EQ(seen.size(), 62u);
  const string custom = string_make_random(3000, "xy\x01");
  const std::string custom_text = str(custom);
  std::set<char> custom_seen(custom_text.begin(), custom_text.end());
  EXPECT_EQ(custom_seen, (std::set<char>{'x', 'y', '\x01'}));
  EXPECT_EQ(string_make_random(10, "").size(), 0u);
}

TEST(StringFunctionShow, PrintableForm) {
  EXPECT_EQ(str(to_string_can_show(bytes(std::string("a b\t\r\n\\\x00\x7F\xE9~", 11)))), "a b\\t\\r\\n\\\\\\x00\\x7F\\xE9~");
  EXPECT_EQ(str(to_string_can_show("plain")), "plain");
  EXPECT_EQ(to_string_can_show(string()).size(), 0u);
}

// ---------------------------------------------------------------- numbers

TEST(StringFunctionConvert, SmallWidths) {
  bool overflow = true;
  EXPECT_EQ(to_char("-128", overflow), static_cast<char>(-128));
  EXPECT_FALSE(overflow);
  EXPECT_EQ(to_char(" +127", overflow), 127);
  EXPECT_FALSE(overflow);
  EXPECT_EQ(to_char("128", overflow), 0);
  EXPECT_TRUE(overflow);
  EXPECT_EQ(to_char("-129", overflow), 0);
  EXPECT_TRUE(overflow);
  EXPECT_EQ(to_uchar("255", overflow), 255);
  EXPECT_FALSE(overflow);
  EXPECT_EQ(to_uchar("256", overflow), 0);
  EXPECT_TRUE(overflow);
  EXPECT_EQ(to_uchar("70000", overflow), 0);
  EXPECT_TRUE(overflow);
  EXPECT_EQ(to_uchar("12x"), 12);
  EXPECT_EQ(hex_to_uchar("ff", overflow), 255);
  EXPECT_FALSE(overflow);
  EXPECT_EQ(hex_to_uchar("0x7F"), 0x7F);
  EXPECT_EQ(hex_to_uchar("100", overflow), 0);
  EXPECT_TRUE(overflow);
  EXPECT_EQ(to_ssize_t("-9223372036854775808", overflow), static_cast<ssize_t>(-9223372036854775807L - 1));
  EXPECT_FALSE(overflow);
  EXPECT_EQ(to_ssize_t("9223372036854775808", overflow), 0);
  EXPECT_TRUE(overflow);
}

TEST(StringFunctionConvert, IntegerFamilyAndOverflow) {
  bool overflow = true;
  EXPECT_EQ(stoi("", overflow), 0);
  EXPECT_FALSE(overflow) << "no digits is 0, not an error";
  EXPECT_EQ(stoi("abc", overflow), 0);
  EXPECT_FALSE(overflow);
  EXPECT_EQ(stoi("\t\r\n +42abc"), 42);
  EXPECT_EQ(stoi("-2147483648", overflow), -2147483647 - 1);
  EXPECT_FALSE(overflow);
  EXPECT_EQ(stoi("2147483648", overflow), 0);
  EXPECT_TRUE(overflow);
  EXPECT_EQ(stoi("--1", overflow), 0);
  EXPECT_TRUE(overflow);
  EXPECT_EQ(stou("4294967295", overflow), 4294967295u);
  EXPECT_FALSE(overflow);
  EXPECT_EQ(stou("4294967296", overflow), 0u);
  EXPECT_TRUE(overflow);
  // The parser's overflow test is "the new value is below the old": this wrap lands above
  // it (477218589 * 10 + 0 wraps to 477218594) and passes unflagged.
  EXPECT_EQ(stou("4772185890", overflow), 477218594u);
  EXPECT_FALSE(overflow);
  EXPECT_EQ(stol("-9223372036854775807", overflow), -9223372036854775807L);
  EXPECT_FALSE(overflow);
  EXPECT_EQ(stoll("9223372036854775807", overflow), 9223372036854775807LL);
  EXPECT_FALSE(overflow);
  EXPECT_EQ(stoll("9223372036854775808", overflow), 0);
  EXPECT_TRUE(overflow);
  EXPECT_EQ(stoull("18446744073709551615", overflow), 18446744073709551615ull);
  EXPECT_FALSE(overflow);

  testing::internal::CaptureStderr();
  EXPECT_EQ(stoul("18446744073709551616", overflow), 0u);
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(overflow);
  EXPECT_EQ(err.rfind("aaaa1 Log: chars_to_ulong() ulong_prior=", 0), 0u) << err;
  EXPECT_EQ(err.size() >= 2 ? err.substr(err.size() - 2) : err, "\r\n");
}

TEST(StringFunctionConvert, FloatingFamily) {
  bool overflow = true;
  EXPECT_DOUBLE_EQ(stod(" +2.5x", overflow), 2.5);
  EXPECT_FALSE(overflow);
  EXPECT_DOUBLE_EQ(stod("-1e-3"), -0.001);
  EXPECT_EQ(stod("abc", overflow), 0.0);
  EXPECT_FALSE(overflow);
  EXPECT_EQ(stod("1e400", overflow), 0.0);
  EXPECT_TRUE(overflow);
  EXPECT_FLOAT_EQ(stof("3.25", overflow), 3.25f);
  EXPECT_FALSE(overflow);
  EXPECT_EQ(stof("1e39", overflow), 0.0f);
  EXPECT_TRUE(overflow) << "beyond float, though within double";
  EXPECT_TRUE(std::isinf(stod("inf")));
  EXPECT_EQ(stold("1e400", overflow), 1e400L) << "within long double";
  EXPECT_FALSE(overflow);
}

// ---------------------------------------------------------------- key-value lines

TEST(StringFunctionKeyValue, LinesIntoMap) {
  vector<string> lines;
  for (const char* line : {" name = quorla ", "version=1.07", "empty=", "no separator", " = no key", "url=a=b",
                           "name=\tsecond\r"}) {
    lines.push_back(string(line));
  }
  unordered_map<string, string> map;
  EXPECT_EQ(vector_string_to_umap_string_key_value(lines, "=", map), 5u);
  EXPECT_EQ(map.size(), 4u);
  auto value_of = [&](const char* key) -> std::string {
    auto found = map.find(string(key));
    return found == map.end() ? std::string("<missing>") : str(found->value);
  };
  EXPECT_EQ(value_of("name"), "second") << "a later key replaces the value";
  EXPECT_EQ(value_of("version"), "1.07");
  EXPECT_EQ(value_of("empty"), "");
  EXPECT_EQ(value_of("url"), "a=b") << "split at the first separator";
  EXPECT_EQ(value_of("no separator"), "<missing>");
  EXPECT_EQ(value_of(""), "<missing>");

  // A separator of several bytes, and many lines through the map's growth.
  vector<string> many;
  for (int i = 0; i < 1000; ++i) many.push_back(bytes("k" + std::to_string(i) + " := v" + std::to_string(i * 2)));
  unordered_map<string, string> big;
  EXPECT_EQ(vector_string_to_umap_string_key_value(many, " := ", big), 1000u);
  ASSERT_EQ(big.size(), 1000u);
  for (int i = 0; i < 1000; i += 97) {
    auto found = big.find(bytes("k" + std::to_string(i)));
    ASSERT_TRUE(found != big.end()) << i;
    EXPECT_EQ(str(found->value), "v" + std::to_string(i * 2));
  }
}

}  // namespace
}  // namespace quorla
