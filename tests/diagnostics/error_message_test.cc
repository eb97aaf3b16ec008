// Message lines: the formatted family against the line format (prefix, local time with six
// decimals, line, file without directories, function, message, big-endian thread id, "\r\n"),
// the switch of message_out, whole lines across threads, file_append; and the lines built
// on the stack, which must not call malloc when the allocator is at its limits.
#include "diagnostics/quorla_error_message.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <climits>
#include <ctime>
#include <fstream>
#include <functional>
#include <regex>
#include <thread>
#include <vector>

#include "foundation/quorla_conversion.h"
#include "foundation/quorla_stack_message.h"
#include "os_memory/malloc_call_counter.h"
#include "startup/quorla_before_init.h"

namespace quorla {
namespace {

std::string capture(const std::function<void()>& body) {
  testing::internal::CaptureStderr();
  body();
  return testing::internal::GetCapturedStderr();
}

std::string this_thread_hex() {
  char hex[32];
  snprintf(hex, sizeof(hex), "%016lx", static_cast<unsigned long>(pthread_self()));
  return hex;
}

std::string local_now() {
  time_t now = time(nullptr);
  tm parts;
  localtime_r(&now, &parts);
  char text[32];
  strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S", &parts);
  return text;
}

// The whole line; the time is handed back for the caller to judge.
std::regex line_format(const std::string& prefix, const std::string& file, const std::string& msg) {
  return std::regex("^" + prefix + "Time=([0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2})\\.[0-9]{6}, Line=77, File=\"" +
                    file + "\", Func=\"fn\", Msg=\"" + msg + "\", thread_id=([0-9a-f]{16})\r\n$");
}

TEST(MessageLines, EveryFunctionWritesItsPrefixAndTheLineFormat) {
  const unsigned char* u = reinterpret_cast<const unsigned char*>("u text");
  struct Case { std::function<void()> call; const char* prefix; const char* msg; };
  const Case cases[] = {
      {[] { error_message1("/a/b/c.cc", 77, "fn", "m"); }, "Err: ", "m"},
      {[u] { error_message1("c.cc", 77, "fn", u); }, "Err: ", "u text"},
      {[] { error_message_str1("a\\b\\c.cc", 77, "fn", string("s")); }, "Err: ", "s"},
      {[] { warning_message1("/c.cc", 77, "fn", "m"); }, "Warn:", "m"},
      {[u] { warning_message1("c.cc", 77, "fn", u); }, "Warn:", "u text"},
      {[] { warning_message_str1("c.cc", 77, "fn", string("s")); }, "Warn:", "s"},
      {[] { log_message1("c.cc", 77, "fn", "m"); }, "Log: ", "m"},
      {[u] { log_message1("c.cc", 77, "fn", u); }, "Log: ", "u text"},
      {[] { log_message_str1("c.cc", 77, "fn", string("s")); }, "Log: ", "s"},
      {[] { fatal_message1("c.cc", 77, "fn", "m"); }, "Fatal: ", "m"},
      {[u] { fatal_message1("c.cc", 77, "fn", u); }, "Fatal: ", "u text"},
      {[] { fatal_message_str1("c.cc", 77, "fn", string("s")); }, "Fatal: ", "s"},
      {[] { log_message_ulong1("c.cc", 77, "fn", "x", 5); }, "Log: ", "x=5"},
      {[] { log_message_ulong1("c.cc", 77, "fn", "x", ULONG_MAX); }, "Log: ", "x=18446744073709551615"},
      {[] { log_message_long1("c.cc", 77, "fn", "x", LONG_MIN); }, "Log: ", "x=-9223372036854775808"},
      {[] { log_message_int1("c.cc", 77, "fn", "x", -7); }, "Log: ", "x=-7"},
      {[] { log_message_uint1("c.cc", 77, "fn", "x", 4294967295u); }, "Log: ", "x=4294967295"},
  };
  for (const Case& c : cases) {
    const std::string before = local_now();
    const std::string text = capture(c.call);
    const std::string after = local_now();
    std::smatch match;
    ASSERT_TRUE(std::regex_match(text, match, line_format(c.prefix, "c\\.cc", c.msg))) << text;
    EXPECT_LE(before, match[1].str()) << "the local time of the moment";
    EXPECT_GE(after, match[1].str());
    EXPECT_EQ(match[2].str(), this_thread_hex()) << "the id's 8 bytes, most significant first";
  }
  // A name without a separator stands whole; one ending in '/' has an empty name.
  EXPECT_TRUE(std::regex_match(capture([] { log_message1("plain", 77, "fn", "m"); }), line_format("Log: ", "plain", "m")));
  EXPECT_TRUE(std::regex_match(capture([] { log_message1("dir/", 77, "fn", "m"); }), line_format("Log: ", "", "m")));
}

TEST(MessageLines, TheScreenSwitchSilencesMessageOutButNotTheStackLines) {
  EXPECT_EQ(capture([] { message_out(string()); }), "") << "an empty text writes nothing, not even the line end";
  EXPECT_EQ(capture([] { message_out(string("x")); }), "x\r\n");
  const std::string text = capture([] {
    g_bool_message_to_screen = false;
    warning_message1("c.cc", 1, "fn", "silenced");
    message_out(string("silenced"));
    Stack_message<1024>().text("Error: still written.").end_line().write();
    g_bool_message_to_screen = true;
  });
  EXPECT_EQ(text, "Error: still written.\r\n");
}

TEST(MessageLines, LinesOfManyThreadsStayWhole) {
  const std::string text = capture([] {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([] {
        for (int i = 0; i < 200; ++i) warning_message1("c.cc", 77, "fn", "a message long enough to be torn if lines could mix");
      });
    }
    for (std::thread& thread : threads) thread.join();
  });
  const std::regex one(line_format("Warn:", "c\\.cc", "a message long enough to be torn if lines could mix"));
  size_t lines = 0;
  for (size_t begin = 0, end; (end = text.find("\r\n", begin)) != std::string::npos; begin = end + 2, ++lines) {
    ASSERT_TRUE(std::regex_match(text.substr(begin, end + 2 - begin), one)) << text.substr(begin, end + 2 - begin);
  }
  EXPECT_EQ(lines, 800u);
}

TEST(MessageLines, FileAppendAddsBytesOrTellsWhy) {
  char path[] = "/tmp/quorla_append_XXXXXX";
  close(mkstemp(path));
  file_append(path, "ab\0", 3);
  file_append(path, "cd", 2);
  std::ifstream file(path, std::ios::binary);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), std::string("ab\0cd", 5));
  unlink(path);
  const std::string text = capture([] { file_append("/nonexistent/quorla/x", "a", 1); });
  EXPECT_TRUE(std::regex_search(text, std::regex("^Err: Time=.*, File=\"quorla_error_message\", Func=\"file_append\", "
                                                 "Msg=\"write open file /nonexistent/quorla/x failed\\.\"")))
      << text;
}

// Each body writes one stack-built line, the first three at the allocator's limits: its
// start-up heap exhausted, a number without end, a capacity beyond any power of two.
TEST(StackLines, WrittenWithoutCallingMalloc) {
  static Memory_before_init_data heap;  // zero, as the global is at load
  const std::string long_number(5000, '9');
  struct Case { std::function<void()> body; std::string line; bool aborts; };
  const Case cases[] = {
      {[] { for (;;) heap.malloc(60000); }, "Error: Memory_before_init_data::add_use_byte() over size.\r\n", true},
      {[&long_number] {
         bool overflow = false;
         chars_to_ulong(long_number.data(), long_number.size(), overflow);
       },
       "aaaa1 Log: chars_to_ulong() ulong_prior=9999999999999999999, ulong_out=7766279631452241919, chars_in=" +
           long_number.substr(0, 1023 - 2 - 101) + "\r\n",
       false},
      {[] { get_2power_great_or_equal_to_uint(0x80000001u, 4); },
       "Error: get_2power_great_or_equal_to_uint() overflow. uint_in=2147483649\r\n", true},
  };
  for (const Case& c : cases) {
    malloc_call_counter::Child_outcome outcome = malloc_call_counter::run_in_child(c.body);
    EXPECT_EQ(outcome.ulong_allocations, 0u) << c.line;
    EXPECT_EQ(outcome.str_stderr, c.line);
    EXPECT_EQ(WIFSIGNALED(outcome.int_status) && WTERMSIG(outcome.int_status) == SIGABRT, c.aborts) << c.line;
  }
  // The counter does see allocations: a formatted line builds strings.
  EXPECT_GT(malloc_call_counter::run_in_child([] { warning_message1("c.cc", 1, "fn", "m"); }).ulong_allocations, 0u);
}

}  // namespace
}  // namespace quorla
