// The library's string: zero default, the one growth rule, moves, 32-bit limits, the
// search and edit semantics where they differ from std::string, self-referencing
// arguments, and the range aborts with their lines.
#include "foundation/quorla_string_class.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "foundation/quorla_unordered_map.h"
#include "foundation/quorla_vector.h"

namespace quorla {
namespace {

std::string str(const string& s) { return std::string(s.c_str(), s.size()); }

// A string that owns nothing is three zero fields, so a zero-filled object is one too.
bool is_zero(const string& s) {
  const unsigned char zero[sizeof(string)] = {};
  return memcmp(&s, zero, sizeof(string)) == 0;
}

TEST(String, OneStringsLifeGrowthByTheRuleClearCutReleaseAndShrink) {
  string s;
  EXPECT_TRUE(is_zero(s));
  EXPECT_STREQ(s.c_str(), "");
  for (unsigned int size = 1; size <= 16; ++size) {
    s.push_back('a');
    EXPECT_EQ(s.capacity(), size < 16 ? 16u : 32u) << size << " bytes and the terminator";
  }
  s.append(string(100, 'b'));
  EXPECT_EQ(s.capacity(), 128u);
  s.clear();
  EXPECT_EQ(s.capacity(), 128u);
  EXPECT_STREQ(s.c_str(), "");
  s.release();
  EXPECT_TRUE(is_zero(s));
  EXPECT_TRUE(is_zero(string(""))) << "an empty text takes no array";
  s.reserve(15);
  EXPECT_EQ(s.capacity(), 16u);
  s.reserve(16);
  EXPECT_EQ(s.capacity(), 32u) << "capacity equal to the request has no room for the terminator";
  s.reserve(1000);
  s.append("abc");
  s.shrink_to_fit();
  EXPECT_EQ(s.capacity(), 16u);
  EXPECT_EQ(str(s), "abc");
  s.resize(20, 'q');
  s.resize(3);
  EXPECT_EQ(s.capacity(), 32u) << "cutting keeps the array";
  s.resize_no_fill(10);
  EXPECT_EQ(s.c_str()[10], 0);
  s.clear();
  s.shrink_to_fit();
  EXPECT_TRUE(is_zero(s));
}

TEST(String, CopiesAreDeepMovesLeaveZeroAndRelocationIsSafe) {
  string a("moved text");
  string copy(a);
  copy[0] = 'M';
  EXPECT_EQ(str(a), "moved text");
  unsigned char* array = a.raw_pointer();
  string b(static_cast<string&&>(a));
  EXPECT_EQ(b.raw_pointer(), array);
  EXPECT_TRUE(is_zero(a));
  string c("x");
  c = static_cast<string&&>(b);
  EXPECT_EQ(str(c), "moved text");
  EXPECT_TRUE(is_zero(b));
  c.assign(c, 2, 3);
  EXPECT_EQ(str(c), "ved");
  EXPECT_EQ(string({'x', 0, 'y'}).size(), 3u) << "bytes are bytes: a zero inside counts";

  // The containers grow arrays of strings by moving them: many strings survive it.
  vector<string> strings;
  for (unsigned int i = 0; i < 300; ++i) strings.push_back(string(i % 40 + 1, 'a' + i % 26));
  for (unsigned int i = 0; i < 300; ++i) ASSERT_EQ(str(strings[i]), std::string(i % 40 + 1, 'a' + i % 26));
}

TEST(String, SearchCompareSubstrAndCopyAtTheEdges) {
  string s("abcabc");
  EXPECT_EQ(s.find(""), string::npos) << "the empty needle is not found";
  EXPECT_EQ(s.find('a', 6), string::npos) << "pos equal to the size is empty";
  EXPECT_EQ(s.find_first_of("cx"), 2u);
  EXPECT_EQ(s.find_first_not_of("ab"), 2u);
  EXPECT_EQ(s.find_last_of("ab"), 4u);
  EXPECT_EQ(s.find_last_not_of("c"), 4u);
  EXPECT_EQ(s.find_last_of('a', 2), 0u);
  EXPECT_EQ(string("aaaa").find_first_not_of('a'), string::npos);
  EXPECT_EQ(string().find('a'), string::npos);
  EXPECT_EQ(string().rfind("a"), string::npos);
  EXPECT_LT(s.compare("abd"), 0);
  EXPECT_EQ(s.compare("abcab"), 1) << "equal bytes: the length difference";
  EXPECT_EQ(string("ab").compare("abcd"), -2);
  EXPECT_EQ(s.compare(1, 2, "bc"), 0);
  EXPECT_EQ(str(s.substr(1, 3)), "bca");
  EXPECT_EQ(s.substr(6).size(), 0u) << "a position equal to the size is empty";
  char out[8] = {};
  EXPECT_EQ(s.copy(out, 10, 4), 2u);
  EXPECT_STREQ(out, "bc");
  EXPECT_EQ(s.copy(out, 1, 6), 0u);
  EXPECT_EQ(str(s + "-" + string("x") + 'y'), "abcabc-xy");
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
    const unsigned int from = model.empty() ? 0 : random() % model.size();
    switch (random() % 7) {
      case 0: s.append(p.c_str()), model.append(p); break;
      case 1: s.insert(pos, p.c_str()), model.insert(pos, p); break;
      case 2: if (pos < model.size()) s.erase(pos, length), model.erase(pos, length); break;
      case 3: s.replace(pos, length, p.c_str()), model.replace(pos, length, p); break;
      case 4: s.resize(length * 3, 'z'), model.resize(length * 3, 'z'); break;
      case 5: {  // arguments taken from the string itself
        const unsigned int count = random() % (model.size() - from + 1);
        s.insert(pos, s.c_str() + from, count), model.insert(pos, model.substr(from, count));
        break;
      }
      case 6: s.append(s.c_str() + from, s.size() - from), model.append(model.substr(from)); break;
    }
    ASSERT_EQ(str(s), model) << "step " << step;
    ASSERT_EQ(s.c_str()[s.size()], 0) << "step " << step;
    ASSERT_TRUE(s.raw_pointer() == nullptr || s.capacity() > s.size()) << "step " << step;
    if (model.size() > 4000) {
      s.clear();
      model.clear();
    }
    if (!model.empty() && step % 50 == 0) {
      const std::string needle = piece(1 + random() % 3);
      const unsigned int at = random() % model.size();
      // The model's npos cut to 32 bits is ours; its indices stay far below that.
      ASSERT_EQ(s.find(needle.c_str(), at), static_cast<unsigned int>(model.find(needle, at))) << "step " << step;
      ASSERT_EQ(s.rfind(needle.c_str(), at), static_cast<unsigned int>(model.rfind(needle, at))) << "step " << step;
    }
  }
}

TEST(String, IteratorFormsAndAnInsertIntoAFullArray) {
  string full("0123456789abcde");  // 15 bytes: capacity 16 is full
  full.insert(5, "XY");
  EXPECT_EQ(full.capacity(), 32u);
  EXPECT_EQ(*full.insert(full.begin() + 1, '+'), '+');
  EXPECT_EQ(*full.erase(full.begin() + 2), '2');
  full.erase(full.begin(), full.begin() + 3);
  full.erase(full.begin() + 1, full.begin() + 1);
  full.replace(full.begin(), full.begin() + 2, "ab");
  EXPECT_EQ(str(full), "abXY56789abcde");
  EXPECT_EQ(std::string(full.rbegin(), full.rend()), "edcba98765YXba");
  full.erase(0);  // a position, not a null iterator
  EXPECT_EQ(str(full), "");
}

TEST(String, HashesItsBytesAndKeysAMapThroughRehashes) {
  // The CRC takes 8-byte aligned buffers only, as a string's array and an empty string's
  // size word are.
  alignas(8) const char digits[] = "123456789";
  EXPECT_EQ(hash<string>()(string(digits)), g_crc32c.value32(digits, 9));
  EXPECT_EQ(hash<string>()(string("12345678")), g_crc32c.value32(digits, 8)) << "the size, not the array";
  EXPECT_EQ(hash<string>()(string()), g_crc32c.value32(digits, 0));

  auto key = [](unsigned int i) {
    return string(("key-" + std::string(i % 7 + 1, static_cast<char>('a' + i % 26)) + std::to_string(i)).c_str());
  };
  unordered_map<string, string> map;
  for (unsigned int i = 0; i < 5000; ++i) {
    ASSERT_TRUE(map.insert_return_iterator_bool(key(i), string(std::to_string(i * 3).c_str())).second);
  }
  for (unsigned int i = 0; i < 5000; i += 37) {
    auto found = map.find(key(i));
    ASSERT_TRUE(found != map.end()) << i;
    ASSERT_EQ(str(found->value), std::to_string(i * 3));
  }
}

TEST(StringDeathTest, RangeErrorsAbortWithTheirLines) {
  string s("abc");
  EXPECT_DEATH(s.erase(3, 1),
               "Error: out_of_range\\. uint_pos_in=3, size\\(\\)=3, File=quorla_string_class, Line=[0-9]+, Func=erase\r\n");
  EXPECT_DEATH(s.erase(s.begin() + 1, s.begin() + 5),
               "Error: out_of_range\\. uint_offset_it_first=1, uint_offset_it_last=5, size\\(\\)=3, "
               "File=quorla_string_class, Line=[0-9]+, Func=erase\r\n");
  EXPECT_DEATH(s.erase(s.begin() + 2, s.begin() + 1), "uint_offset_it_first=2, uint_offset_it_last=1");
  EXPECT_DEATH(s.insert(4, "x"), "uint_pos_in=4, size\\(\\)=3, .*Func=insert_prepare\r\n");
  EXPECT_DEATH(s.replace(4, 1, "x"), "uint_pos_in=4, size\\(\\)=3, .*Func=replace_prepare\r\n");
  EXPECT_DEATH((void)s[4], "uint_pos_in=4, size\\(\\)=3, .*Func=operator\\[\\]\r\n");
  EXPECT_DEATH((void)s.find('a', 4), "uint_pos_in=4, size\\(\\)=3, .*Func=find\r\n");
  EXPECT_DEATH((void)s.substr(4), "Func=substr\r\n");
  EXPECT_DEATH(string(s, 4, 1), "Error: out_of_range\\. uint_subpos_in=4, size\\(\\)=3, .*Func=assign\r\n");
  EXPECT_DEATH(s.replace(s.begin() + 2, s.begin() + 4, "x"),
               "Error: out_of_range\\. it1_offset=2, it2_offset=4, size\\(\\)=3, .*Func=replace\r\n");
  EXPECT_DEATH(string().erase(), "uint_pos_in=0, size\\(\\)=0, .*Func=erase\r\n");
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
