// The library's string: zero default, the one growth rule, moves, 32-bit limits, the
// search and edit semantics where they differ from std::string, self-referencing
// arguments, and the range aborts with their lines.
#include "foundation/quorla_string.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "foundation/quorla_unordered_map.h"
#include "foundation/quorla_vector.h"

namespace quorla {
namespace {

std::string str(const string& s) { return std::string(s.c_str(), s.size()); }

TEST(String, DefaultIsThreeZeroWordsAndReadsEmpty) {
  string s;
  unsigned char zero[sizeof(string)] = {};
  EXPECT_EQ(memcmp(&s, zero, sizeof(string)), 0);
  EXPECT_EQ(s.raw_pointer(), nullptr);
  ASSERT_NE(s.c_str(), nullptr);
  EXPECT_STREQ(s.c_str(), "");
  EXPECT_EQ(s.size(), 0u);
  EXPECT_EQ(s[0], 0);
  // A zero-filled object is a valid string that can be written to.
  alignas(string) unsigned char raw[sizeof(string)] = {};
  auto* made = reinterpret_cast<string*>(raw);
  made->append("abc");
  EXPECT_EQ(str(*made), "abc");
  made->~string();
}

TEST(String, GrowthDoublesFrom16AndReserveIsStrict) {
  string s;
  s.push_back('a');
  EXPECT_EQ(s.capacity(), 16u);
  for (int i = 1; i < 15; ++i) s.push_back('a');
  EXPECT_EQ(s.size(), 15u);
  EXPECT_EQ(s.capacity(), 16u) << "15 bytes and the terminator fill 16";
  s.push_back('a');
  EXPECT_EQ(s.capacity(), 32u);
  string t;
  t.reserve(10);
  EXPECT_EQ(t.capacity(), 16u);
  t.reserve(15);
  EXPECT_EQ(t.capacity(), 16u);
  t.reserve(16);
  EXPECT_EQ(t.capacity(), 32u) << "capacity equal to the request has no room for the terminator";
  EXPECT_EQ(t.c_str()[0], 0);
  s.append(string(100, 'b'));
  EXPECT_EQ(s.capacity(), 128u);
  EXPECT_EQ(s.c_str()[s.size()], 0);
}

TEST(String, ClearKeepsReleaseFreesShrinkFits) {
  string s("hello world, a longer text");
  const unsigned int capacity = s.capacity();
  s.clear();
  EXPECT_EQ(s.size(), 0u);
  EXPECT_EQ(s.capacity(), capacity);
  EXPECT_NE(s.raw_pointer(), nullptr);
  EXPECT_STREQ(s.c_str(), "");
  s.release();
  EXPECT_EQ(s.capacity(), 0u);
  EXPECT_EQ(s.raw_pointer(), nullptr);
  string empty;
  empty.clear();
  EXPECT_EQ(empty.raw_pointer(), nullptr);
  string from_empty_text("");
  EXPECT_EQ(from_empty_text.raw_pointer(), nullptr) << "an empty text takes no array";

  string big;
  big.reserve(1000);
  big.append("abc");
  big.shrink_to_fit();
  EXPECT_EQ(big.capacity(), 16u);
  EXPECT_EQ(str(big), "abc");
  big.clear();
  big.shrink_to_fit();
  EXPECT_EQ(big.raw_pointer(), nullptr);
  EXPECT_EQ(big.capacity(), 0u);
}

TEST(String, MovesLeaveZeroAndBytewiseRelocationIsSafe) {
  string a("moved text");
  unsigned char* array = a.raw_pointer();
  string b(static_cast<string&&>(a));
  EXPECT_EQ(b.raw_pointer(), array);
  EXPECT_EQ(a.raw_pointer(), nullptr);
  EXPECT_EQ(a.size(), 0u);
  EXPECT_EQ(a.capacity(), 0u);
  string c("x");
  c = static_cast<string&&>(b);
  EXPECT_EQ(str(c), "moved text");
  EXPECT_EQ(b.capacity(), 0u);

  // The containers grow arrays of strings by realloc: many strings survive it.
  vector<string> strings;
  for (unsigned int i = 0; i < 300; ++i) strings.push_back(string(i % 40, static_cast<unsigned char>('a' + i % 26)));
  for (unsigned int i = 0; i < 300; ++i) {
    ASSERT_EQ(strings[i].size(), i % 40);
    if (i % 40 != 0) {
      ASSERT_EQ(strings[i][0], 'a' + i % 26);
    }
  }
}

TEST(String, CopiesAreDeepAndSelfAssignmentHolds) {
  string a("original");
  string b(a);
  b[0] = 'O';
  EXPECT_EQ(str(a), "original");
  EXPECT_EQ(str(b), "Original");
  a = a;
  EXPECT_EQ(str(a), "original");
  a.assign(a, 2, 3);
  EXPECT_EQ(str(a), "igi");
  string from_list{'x', 0, 'y'};
  EXPECT_EQ(from_list.size(), 3u) << "bytes are bytes: a zero inside counts";
  EXPECT_EQ(from_list[1], 0);
}

TEST(String, FindDiffersFromStdOnTheEmptyNeedle) {
  string s("abcabc");
  EXPECT_EQ(s.find(""), string::npos);
  EXPECT_EQ(s.find("", 3), string::npos);
  EXPECT_EQ(s.find("c"), 2u);
  EXPECT_EQ(s.find("bc", 2), 4u);
  EXPECT_EQ(s.find("abcd"), string::npos);
  EXPECT_EQ(s.find('a', 6), string::npos) << "pos equal to the size is empty";
  EXPECT_EQ(s.rfind("abc"), 3u);
  EXPECT_EQ(s.rfind('b', 3), 1u);
  EXPECT_EQ(s.rfind("x"), string::npos);
  EXPECT_EQ(s.find_first_of("cx"), 2u);
  EXPECT_EQ(s.find_first_not_of("ab"), 2u);
  EXPECT_EQ(s.find_last_of("ab"), 4u);
  EXPECT_EQ(s.find_last_not_of("c"), 4u);
  EXPECT_EQ(s.find_last_of('a', 2), 0u);
  EXPECT_EQ(string("aaaa").find_first_not_of('a'), string::npos);
  string none;
  EXPECT_EQ(none.find('a'), string::npos);
  EXPECT_EQ(none.rfind("a"), string::npos);
  EXPECT_EQ(none.find_last_of("a"), string::npos);
}

TEST(String, EditsAgreeWithStdStringOnRandomOperations) {
  std::mt19937 random(7);
  string s;
  std::string model;
  auto piece = [&](unsigned int length) {
    std::string p;
    for (unsigned int i = 0; i < length; ++i) p.push_back(static_cast<char>('a' + random() % 4));
    return p;
  };
  for (int step = 0; step < 20000; ++step) {
    const unsigned int length = random() % (step % 100 == 0 ? 200 : 12);
    const std::string p = piece(length);
    const unsigned int pos = model.empty() ? 0 : random() % (model.size() + 1);
    switch (random() % 7) {
      case 0:
        s.append(p.c_str());
        model.append(p);
        break;
      case 1:
        s.insert(pos, p.c_str());
        model.insert(pos, p);
        break;
      case 2:
        if (pos < model.size()) {
          s.erase(pos, length);
          model.erase(pos, length);
        }
        break;
      case 3:
        s.replace(pos, length, p.c_str());
        model.replace(pos, length, p);
        break;
      case 4:
        s.resize(length * 3, 'z');
        model.resize(length * 3, 'z');
        break;
      case 5:  // arguments taken from the string itself
        if (!model.empty()) {
          const unsigned int from = random() % model.size();
          const unsigned int count = random() % (model.size() - from + 1);
          const std::string own = model.substr(from, count);
          s.insert(pos, s.c_str() + from, count);
          model.insert(pos, own);
        }
        break;
      case 6:
        if (!model.empty()) {
          const unsigned int from = random() % model.size();
          s.append(s.c_str() + from, s.size() - from);
          model.append(model.substr(from));
        }
        break;
    }
    ASSERT_EQ(str(s), model) << "step " << step;
    ASSERT_EQ(s.c_str()[s.size()], 0) << "step " << step;
    if (s.raw_pointer() != nullptr) {
      ASSERT_GT(s.capacity(), s.size());
    }
    if (model.size() > 4000) {
      s.clear();
      model.clear();
    }
    if (!model.empty() && step % 50 == 0) {
      const std::string needle = piece(1 + random() % 3);
      const unsigned int from = random() % model.size();
      const auto expected = model.find(needle, from);
      ASSERT_EQ(s.find(needle.c_str(), from), expected == std::string::npos ? string::npos : expected);
      const auto expected_r = model.rfind(needle, from);
      ASSERT_EQ(s.rfind(needle.c_str(), from), expected_r == std::string::npos ? string::npos : expected_r);
    }
  }
}

TEST(String, InsertAtTheEndIsAnAppendAndTheMiddleGetsANewArray) {
  string s("abc");
  s.insert(3, "def");
  EXPECT_EQ(str(s), "abcdef");
  s.insert(0, 2, '-');
  EXPECT_EQ(str(s), "--abcdef");
  string full("0123456789abcde");  // 15 bytes: capacity 16 is full
  unsigned char* before = full.raw_pointer();
  full.insert(5, "XY");
  EXPECT_EQ(str(full), "01234XY56789abcde");
  EXPECT_EQ(full.capacity(), 32u);
  EXPECT_NE(full.raw_pointer(), before);
  auto it = full.insert(full.begin() + 1, '+');
  EXPECT_EQ(*it, '+');
  EXPECT_EQ(str(full), "0+1234XY56789abcde");
}

TEST(String, IteratorFormsAndNumbersDoNotMix) {
  string s("0123456789");
  EXPECT_EQ(*s.erase(s.begin() + 2), '3');
  EXPECT_EQ(str(s), "013456789");
  s.erase(s.begin(), s.begin() + 3);
  EXPECT_EQ(str(s), "456789");
  s.erase(s.begin() + 1, s.begin() + 1);
  EXPECT_EQ(str(s), "456789") << "an empty range erases nothing";
  s.replace(s.begin(), s.begin() + 2, "ab");
  EXPECT_EQ(str(s), "ab6789");
  s.erase(0);  // a position, not a null iterator
  EXPECT_EQ(str(s), "");
  s = "xyz";
  s.replace(0, 0, "w");
  EXPECT_EQ(str(s), "wxyz");
  std::string reversed(s.rbegin(), s.rend());
  EXPECT_EQ(reversed, "zyxw");
}

TEST(String, CompareIsBytesThenTheLengthDifference) {
  string a("abc");
  EXPECT_LT(a.compare("abd"), 0);
  EXPECT_EQ(a.compare("ab"), 1);
  EXPECT_EQ(string("ab").compare("abcd"), -2);
  EXPECT_TRUE(a == "abc" && "abc" == a && a != string("abd") && a < string("abd"));
  EXPECT_TRUE(string() == "");
  EXPECT_EQ(str(a + "-" + string("x") + 'y'), "abc-xy");
  EXPECT_EQ(a.compare(1, 2, "bc"), 0);
}

TEST(String, SubstrCopyAndResizeAtTheEdges) {
  string s("hello");
  EXPECT_EQ(str(s.substr(1, 3)), "ell");
  EXPECT_EQ(s.substr(5).size(), 0u) << "a position equal to the size is empty";
  char out[8] = {};
  EXPECT_EQ(s.copy(out, 10, 3), 2u);
  EXPECT_STREQ(out, "lo");
  EXPECT_EQ(s.copy(out, 1, 5), 0u);
  s.resize(20, 'q');
  EXPECT_EQ(str(s), "hello" + std::string(15, 'q'));
  const unsigned int capacity = s.capacity();
  s.resize(3);
  EXPECT_EQ(str(s), "hel");
  EXPECT_EQ(s.capacity(), capacity) << "cutting keeps the array";
  s.resize_no_fill(10);
  EXPECT_EQ(s.c_str()[10], 0);
}

TEST(String, HashesItsBytesAndKeysAMapThroughRehashes) {
  // The CRC takes 8-byte aligned buffers only, as a string's array and an empty string's
  // size word are.
  alignas(8) const char digits[] = "123456789";
  string s(digits);
  EXPECT_EQ(hash<string>()(s), g_crc32c.value32(digits, 9));
  EXPECT_EQ(hash<string>()(string("12345678")), g_crc32c.value32(digits, 8)) << "the size, not the array";
  EXPECT_EQ(hash<string>()(string()), g_crc32c.value32(digits, 0));

  unordered_map<string, string> map;
  for (unsigned int i = 0; i < 5000; ++i) {
    string key("key-");
    key.append(string(i % 7 + 1, static_cast<unsigned char>('a' + i % 26)));
    key.append(std::to_string(i).c_str());
    ASSERT_TRUE(map.insert_return_iterator_bool(key, string(std::to_string(i * 3).c_str())).second);
  }
  ASSERT_EQ(map.size(), 5000u);
  for (unsigned int i = 0; i < 5000; i += 37) {
    string key("key-");
    key.append(string(i % 7 + 1, static_cast<unsigned char>('a' + i % 26)));
    key.append(std::to_string(i).c_str());
    auto found = map.find(key);
    ASSERT_TRUE(found != map.end()) << i;
    ASSERT_EQ(str(found->value), std::to_string(i * 3));
  }
  EXPECT_TRUE(map.find(string("key-")) == map.end());
}

TEST(StringDeathTest, RangeErrorsAbortWithTheirLines) {
  string s("abc");
  EXPECT_DEATH(s.erase(3, 1),
               "Error: out_of_range\\. uint_pos_in=3, size\\(\\)=3, File=quorla_string, Line=[0-9]+, Func=erase\r\n");
  EXPECT_DEATH(s.erase(s.begin() + 1, s.begin() + 5),
               "Error: out_of_range\\. uint_offset_it_first=1, uint_offset_it_last=5, size\\(\\)=3, "
               "File=quorla_string, Line=[0-9]+, Func=erase\r\n");
  EXPECT_DEATH(s.erase(s.begin() + 2, s.begin() + 1), "uint_offset_it_first=2, uint_offset_it_last=1");
  EXPECT_DEATH(s.insert(4, "x"), "uint_pos_in=4, size\\(\\)=3, File=quorla_string, Line=[0-9]+, Func=insert_prepare\r\n");
  EXPECT_DEATH(s.replace(4, 1, "x"), "uint_pos_in=4, size\\(\\)=3, File=quorla_string, Line=[0-9]+, Func=replace_prepare\r\n");
  EXPECT_DEATH((void)s[4], "uint_pos_in=4, size\\(\\)=3, File=quorla_string, Line=[0-9]+, Func=operator\\[\\]\r\n");
  EXPECT_DEATH((void)s.find('a', 4), "uint_pos_in=4, size\\(\\)=3, .*Func=find\r\n");
  EXPECT_DEATH((void)s.substr(4), "Func=substr\r\n");
  EXPECT_DEATH(string(s, 4, 1), "Error: out_of_range\\. uint_subpos_in=4, size\\(\\)=3, File=quorla_string, .*Func=assign\r\n");
  EXPECT_DEATH(s.replace(s.begin() + 2, s.begin() + 4, "x"),
               "Error: out_of_range\\. it1_offset=2, it2_offset=4, size\\(\\)=3, .*Func=replace\r\n");
  string empty;
  EXPECT_DEATH(empty.erase(), "uint_pos_in=0, size\\(\\)=0, .*Func=erase\r\n");
}

TEST(StringDeathTest, CapacityBeyondTheRuleAborts) {
  EXPECT_EQ(string::get_new_capacity(2147483647u), 2147483648u) << "the largest size a string can hold";
  EXPECT_DEATH(string::get_new_capacity(2147483648u, 5, 16),
               "Error: string::get_new_capacity\\(\\) reach max size\\. uint_size_in=2147483648, "
               "ulong_return=4294967296, size\\(\\)=5, capacity\\(\\)=16\r\n");
  string s("ab");
  EXPECT_DEATH(s.append(0xFFFFFFFFu, 'x'), "reach max size\\. uint_size_in=4294967297, ");
}

}  // namespace
}  // namespace quorla
