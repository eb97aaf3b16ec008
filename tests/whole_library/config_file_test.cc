// The configuration file on the whole library, each case in a fresh process (config_probe)
// that reads the file named by QUORLAMALLOC_CONF: which allocations bring the file in and
// that many racing triggers read it once; every key reaching its global, the limits applied
// after reading, the words of each boolean; the settings that act today acting from the
// first allocation that read them; and a table of malformed files, after each of which the
// process goes on with the defaults and standard error holds only the engine's lines.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <random>
#include <regex>
#include <string>

#include "config_probe_run.h"

namespace {

using namespace std::string_literals;
using config_probe::expected;
using config_probe::held;
using config_probe::Result;
using config_probe::run;

// A configuration file (or directory, or other node) under a fresh temporary directory,
// removed with it.
class Conf_file {
 public:
  Conf_file() {
    char pattern[] = "/tmp/quorla_conf_XXXXXX";
    str_dir_ = mkdtemp(pattern);
    str_path_ = str_dir_ + "/libquorlamalloc.conf";
  }
  explicit Conf_file(const std::string& text) : Conf_file() { write(text); }
  ~Conf_file() { (void)!system(("rm -rf '" + str_dir_ + "'").c_str()); }
  void write(const std::string& text) const { std::ofstream(str_path_, std::ios::binary) << text; }
  const char* path() const { return str_path_.c_str(); }

 private:
  std::string str_dir_, str_path_;
};

// The head of one formatted line of the engine: prefix, local time with microseconds, the
// source position, up to the message. The message itself may run for a megabyte (or stop at
// a NUL byte), so only the head is matched.
const std::regex k_engine_line_head(
    "^(Err: |Warn:|Log: )Time=[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{6}, Line=[0-9]+, "
    "File=\"quorla_program_config\", Func=\"(add|add_group|apply|check_one_line|get_group_vt_str|"
    "group_append_line|set_key_value|store_ptr_value_as_value)\", Msg=\"");

// Every line of standard error is one of the engine's, or the number parser's overflow line.
void expect_only_engine_lines(const Result& result) {
  for (const std::string& line : result.stderr_lines()) {
    if (line.rfind("aaaa1 Log: chars_to_ulong() ulong_prior=", 0) == 0) continue;
    EXPECT_TRUE(std::regex_search(line.substr(0, 300), k_engine_line_head)) << line.substr(0, 300);
  }
}

const char* const k_unknown_key_warning = "Msg=\"not find str_name_in, str_key=no_such_key, str_value=1\"";

// ---- when the file is read

TEST(ConfigTrigger, EachTriggerReadsTheFileOnceAndOtherAllocationsDoNot) {
  Conf_file file("uint_wait_microseconds_between_release_2m = 1234\nno_such_key = 1\n");
  // The gate counts every large allocation and the first 128-byte request, whoever makes it:
  // once the reader has run from a large request, its own allocations may hold that first
  // 128-byte request. A background request counts once more, after the thread is enabled.
  struct Case {
    std::vector<std::string> actions;
    bool read;
    unsigned long large;  // large allocations among the actions
    bool program_128;     // the program itself made the first 128-byte request
    bool background;      // a background request may have passed the gate too
  };
  const Case cases[] = {
      {{}, false, 0, false, false},
      {{"small", "small"}, false, 0, false, false},
      {{"128"}, true, 0, true, false},
      {{"small", "128", "128"}, true, 0, true, false},  // the second 128-byte request passes no gate
      {{"large"}, true, 1, false, false},
      {{"large", "large", "large"}, true, 3, false, false},  // every large allocation counts
      {{"region"}, true, 1, false, false},
      {{"thread"}, true, 0, false, true},  // the second thread's heap asks for the background start
  };
  for (const Case& c : cases) {
    std::string name;
    for (const std::string& action : c.actions) name += action + " ";
    SCOPED_TRACE(name);
    Result result = run(c.actions, file.path());
    ASSERT_TRUE(result.exited_cleanly()) << result.str_stderr;
    EXPECT_EQ(held(result), expected(c.read, c.read ? std::map<std::string, unsigned long>{
                                                          {"uint_wait_microseconds_between_release_2m", 1234}}
                                                    : std::map<std::string, unsigned long>{}));
    EXPECT_EQ(result.count_in_stderr(k_unknown_key_warning), c.read ? 1u : 0u) << result.str_stderr;
    EXPECT_EQ(result.at("message_level"), c.read ? 0u : 2u) << "2 at load, 0 once the settings are read";
    const unsigned long first_128 = result.at("first_128");
    if (!c.read) EXPECT_EQ(first_128, 0u);
    if (c.program_128) EXPECT_EQ(first_128, 1u);
    EXPECT_LE(first_128, 1u);
    const unsigned long gate = c.large + first_128;
    if (c.background) {
      EXPECT_GE(result.at("gate_count"), 1u);
      EXPECT_LE(result.at("gate_count"), gate + 1);
    } else {
      EXPECT_EQ(result.at("gate_count"), gate);
    }
    expect_only_engine_lines(result);
  }
}

TEST(ConfigTrigger, ManyThreadsRacingIntoTheGateReadTheFileOnce) {
  // A second reading would warn again of the unknown key and of sixteen keys registered twice.
  Conf_file file("NO_SUCH_KEY = 1\nuint_vt_thread_local_wait_reuse_limit_size = 5\n");
  for (const char* race : {"race", "race128"}) {
    SCOPED_TRACE(race);
    for (int round = 0; round < 3; ++round) {
      Result result = run({race, "16"}, file.path());
      ASSERT_TRUE(result.exited_cleanly()) << result.str_stderr;
      EXPECT_EQ(result.count_in_stderr("not find str_name_in"), 1u) << result.str_stderr;
      EXPECT_EQ(result.count_in_stderr("find same"), 0u) << result.str_stderr;
      EXPECT_EQ(result.at("uint_vt_thread_local_wait_reuse_limit_size"), 5u);
      EXPECT_EQ(result.at("message_level"), 0u);
      // Sixteen large requests count sixteen at least, beside the first 128-byte request and
      // the background request of the new threads, which any number of them may find still
      // set. Of the 128-byte requests only those that found the plain flag still 0 pass the
      // gate, and so may those that found the background request set: at most two a thread.
      if (race[4] == 0) {
        EXPECT_GE(result.at("gate_count"), 16u);
      } else {
        EXPECT_GE(result.at("gate_count"), 1u);
        EXPECT_LE(result.at("gate_count"), 2u * 16 + 2);  // and the main thread's own
      }
    }
  }
}

// ---- what the file sets

TEST(ConfigFile, EveryKeyReachesItsGlobalWhateverTheCaseOfTheKey) {
  // No value here is the default; the keys come in mixed case, the blanks vary.
  const std::map<std::string, unsigned long> values{
      {"uint_microseconds_thread_background_sleep", 750},
      {"ulong_size_use_thread_background_threshold", 12345678901ul},
      {"bool_enable_thread_background", 0},
      {"bool_enable_thread_background_use_page_prefault", 1},
      {"uint_thread_background_div_number_calc_prepare_2m", 5},
      {"uint_thread_background_need_prepare_2m_count_limt", 3},
      {"uint_microseconds_thread_background_force_release_one_2m", 250000},
      {"uint_vt_thread_local_wait_reuse_limit_size", 7},
      {"uint_wait_microseconds_between_release_2m", 9000},
      {"bool_enable_numa_memory_bind", 1},
      {"uint_auto_bind_phy_cpu_count", 1},
      {"bool_enable_auto_bind_cpu", 0},
      {"bool_enable_hugepage2m", 0},
      {"bool_enable_page_prefault", 1},
      {"bool_enable_thread_background_clear_cpu_cache", 1},
      {"uint_max_wait_milliseconds_before_clear_cpu_cache", 300},
  };
  std::string text = "# every setting\n";
  int n = 0;
  for (const auto& entry : values) {
    std::string key = entry.first;
    if (n % 3 == 1) for (char& c : key) c = static_cast<char>(toupper(c));
    if (n % 3 == 2) key[0] = static_cast<char>(toupper(key[0]));
    std::string value = entry.first.rfind("bool", 0) == 0 ? (entry.second != 0 ? "true" : "false")
                                                          : std::to_string(entry.second);
    text += (n % 2 == 0 ? key + "=" + value : "\t  " + key + "   =    " + value + "  ") + "\n";
    ++n;
  }
  Conf_file file(text);
  Result result = run({"128"}, file.path());
  ASSERT_TRUE(result.exited_cleanly());
  EXPECT_EQ(held(result), values);
  EXPECT_EQ(result.str_stderr, "");
}

TEST(ConfigFile, TheDocumentedExampleReadsCleanlyAndHoldsTheDefaults) {
  Result result = run({"128"}, QUORLA_EXAMPLE_CONF);
  ASSERT_TRUE(result.exited_cleanly());
  EXPECT_EQ(held(result), expected(true));
  EXPECT_EQ(result.str_stderr, "") << "every key of the example is known and every value good";
}

TEST(ConfigFile, LimitsApplyAfterReading) {
  // Sleep below 50 becomes 50; the divisor below 2 becomes 2; a binding count other than
  // 1 or 2 becomes 2.
  struct Case { unsigned long sleep, sleep_held, divisor, divisor_held, bind, bind_held; };
  const Case cases[] = {
      {10, 50, 0, 2, 0, 2},
      {49, 50, 1, 2, 1, 1},
      {50, 50, 2, 2, 2, 2},
      {51, 51, 3, 3, 3, 2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.sleep);
    Conf_file file("uint_microseconds_thread_background_sleep = " + std::to_string(c.sleep) +
                   "\nuint_thread_background_div_number_calc_prepare_2m = " + std::to_string(c.divisor) +
                   "\nuint_auto_bind_phy_cpu_count = " + std::to_string(c.bind) + "\n");
    Result result = run({"large"}, file.path());
    ASSERT_TRUE(result.exited_cleanly());
    EXPECT_EQ(held(result), expected(true, {{"uint_microseconds_thread_background_sleep", c.sleep_held},
                                            {"uint_thread_background_div_number_calc_prepare_2m", c.divisor_held},
                                            {"uint_auto_bind_phy_cpu_count", c.bind_held}}));
  }
}

TEST(ConfigFile, BooleanWordsAndABadWordKeepsTheValueFromBeforeReading) {
  // The false words turn huge pages off, the true words turn prefault on, in any case. A word
  // outside both lists leaves its global as it stood before the file: the clear-cache flag,
  // whose initial value is true and whose default is false, stays true.
  const char* false_words[] = {"no", "0", "off", "False", "FALSE"};
  const char* true_words[] = {"yes", "1", "on", "True", "TRUE"};
  for (int i = 0; i < 5; ++i) {
    SCOPED_TRACE(false_words[i]);
    Conf_file file(std::string("bool_enable_hugepage2m = ") + false_words[i] + "\nbool_enable_page_prefault = " +
                   true_words[i] + "\nbool_enable_thread_background_clear_cpu_cache = maybe\n");
    Result result = run({"128"}, file.path());
    ASSERT_TRUE(result.exited_cleanly());
    EXPECT_EQ(held(result), expected(true, {{"bool_enable_hugepage2m", 0},
                                            {"bool_enable_page_prefault", 1},
                                            {"bool_enable_thread_background_clear_cpu_cache", 1}}));
    EXPECT_EQ(result.count_in_stderr("Msg=\"while d_uchar_value_type == g_uchar_program_config_type_bool, "
                                     "Can not get value. str_value=maybe\""),
              1u)
        << result.str_stderr;
    expect_only_engine_lines(result);
  }
}

// ---- settings that act today

TEST(ConfigFile, PrefaultFromTheFileFillsTheFirstLargeAllocation) {
  // The large path reads the file before it maps, so its own block is already prefaulted:
  // every page resident before the program touches it. Without the setting only what the
  // mapping layer wrote (the tag's page, or the huge page around it) is resident.
  constexpr unsigned long k_pages = (3u << 20) / 4096;
  Conf_file on("bool_enable_page_prefault = on\n");
  Conf_file off("bool_enable_page_prefault = off\n");
  Result with = run({"large"}, on.path());
  Result without = run({"large"}, off.path());
  ASSERT_TRUE(with.exited_cleanly() && without.exited_cleanly());
  EXPECT_EQ(with.at("large_resident_pages"), k_pages);
  EXPECT_LT(without.at("large_resident_pages"), k_pages);
}

TEST(ConfigFile, ThresholdAndEnableFlagDecideTheBackgroundRequestOfARegion) {
  // A one-region large allocation starts (or asks for) the background thread once the mapped bytes reach
  // the threshold, if the thread is enabled; the file is read before that test is made.
  struct Case { const char* text; unsigned long requested; };
  const Case cases[] = {
      {"ulong_size_use_thread_background_threshold = 1\n", 1},
      {"ulong_size_use_thread_background_threshold = 1\nbool_enable_thread_background = false\n", 0},
      {"ulong_size_use_thread_background_threshold = 1099511627776\n", 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    Conf_file file(c.text);
    Result result = run({"region"}, file.path());
    ASSERT_TRUE(result.exited_cleanly());
    EXPECT_EQ(result.at("background_after_region"), c.requested);
  }
}

// ---- malformed files

std::string garbage_bytes(size_t size) {
  std::mt19937 random(21);
  std::string text(size, '\0');
  for (char& c : text) c = static_cast<char>(random());
  return text;
}

TEST(ConfigFile, MalformedFilesLeaveTheProcessRunningWithDefaults) {
  struct Case {
    const char* name;
    std::function<void(Conf_file&)> make;  // writes or builds the file
    std::map<std::string, unsigned long> overrides;  // settings the file still sets
    std::vector<std::string> words;  // each must stand in standard error
    bool silent;  // nothing on standard error at all
  };
  const std::string blanks(500000, ' ');
  std::string ten_thousand_lines;
  for (int i = 1; i <= 10000; ++i) ten_thousand_lines += "uint_wait_microseconds_between_release_2m = " + std::to_string(i) + "\n";
  const Case cases[] = {
      {"empty file", [](Conf_file& f) { f.write(""); }, {}, {}, true},
      {"only blanks and comments", [](Conf_file& f) { f.write("\n \t \r\n# x = 1\n// y = 2\n}\n"); }, {}, {}, true},
      {"missing file", [](Conf_file&) {}, {}, {}, true},
      {"a directory", [](Conf_file& f) { mkdir(f.path(), 0755); }, {}, {}, true},
      {"CRLF line ends",
       [](Conf_file& f) { f.write("uint_wait_microseconds_between_release_2m = 1234\r\nbool_enable_hugepage2m = off\r\n"); },
       {{"uint_wait_microseconds_between_release_2m", 1234}, {"bool_enable_hugepage2m", 0}}, {}, true},
      {"missing separator", [](Conf_file& f) { f.write("bool_enable_hugepage2m off\n"); }, {},
       {"Msg=\"not find, str_group_name=, str_line=(bool_enable_hugepage2m off)\""}, false},
      {"number too long for its type",
       [](Conf_file& f) { f.write("uint_wait_microseconds_between_release_2m = 99999999999999999999\n"); }, {},
       {"Msg=\"while d_uchar_value_type == g_uchar_program_config_type_uint, Can not get value. "
        "str_value=99999999999999999999\""},
       false},
      {"64-bit number overflowing",
       [](Conf_file& f) { f.write("ulong_size_use_thread_background_threshold = 99999999999999999999\n"); }, {},
       {"aaaa1 Log: chars_to_ulong() ulong_prior=", "g_uchar_program_config_type_ulong, Can not get value."}, false},
      {"a key of a megabyte", [](Conf_file& f) { f.write(std::string(1000000, 'k') + " = 1\n"); }, {},
       {"Msg=\"not find str_name_in, str_key=kkkkkkkk"}, false},
      {"a line of a megabyte, blanks around a value",
       [&](Conf_file& f) { f.write("uint_wait_microseconds_between_release_2m =" + blanks + "77" + blanks + "\n"); },
       {{"uint_wait_microseconds_between_release_2m", 77}}, {}, true},
      {"10000 lines, the last one wins", [&](Conf_file& f) { f.write(ten_thousand_lines); },
       {{"uint_wait_microseconds_between_release_2m", 10000}}, {}, true},
      {"NUL byte inside a number (parsed as far as the NUL)",
       [](Conf_file& f) { f.write("uint_wait_microseconds_between_release_2m = 77\0 9\n"s); },
       {{"uint_wait_microseconds_between_release_2m", 77}}, {}, true},
      {"garbage bytes", [](Conf_file& f) { f.write(garbage_bytes(65536)); }, {}, {"Time="}, false},
      {"group opened with no name", [](Conf_file& f) { f.write("{\nbool_enable_hugepage2m = no\n"); },
       {{"bool_enable_hugepage2m", 0}}, {"Err: Time=", "line_num=1, str_line=({)"}, false},
      {"a setting inside a group", [](Conf_file& f) { f.write("plain group {\nbool_enable_hugepage2m = no\n}\n"); }, {},
       {"str_key=plain..group.bool_enable_hugepage2m, str_value=no"}, false},
      {"a sparse file of 300 MB", [](Conf_file& f) { f.write("bool_enable_hugepage2m = no\n"); (void)!truncate(f.path(), 300l << 20); },
       {}, {}, false},
      {"/dev/zero", [](Conf_file& f) { (void)!symlink("/dev/zero", f.path()); }, {}, {}, false},
      {"a FIFO with no writer", [](Conf_file& f) { mkfifo(f.path(), 0644); }, {}, {}, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Conf_file file;
    c.make(file);
    Result result = run({"128"}, file.path(), false, 60);
    ASSERT_FALSE(result.bool_hung) << "the first 128-byte malloc did not return";
    ASSERT_TRUE(result.exited_cleanly()) << result.str_stderr.substr(0, 1000);
    EXPECT_EQ(held(result), expected(true, c.overrides));
    EXPECT_EQ(result.at("message_level"), 0u);
    if (c.silent) {
      EXPECT_EQ(result.str_stderr, "");
    }
    for (const std::string& word : c.words) EXPECT_NE(result.str_stderr.find(word), std::string::npos) << word;
    expect_only_engine_lines(result);
  }
}

TEST(ConfigFile, AFileThatMayNotBeReadIsLikeNoFile) {
  Conf_file file("bool_enable_hugepage2m = no\n");
  ASSERT_EQ(chmod(file.path(), 0), 0);
  // As root the probe drops to nobody first, for whom the mode binds.
  Result result = run({"128"}, file.path(), true);
  ASSERT_TRUE(result.exited_cleanly()) << "exit " << WEXITSTATUS(result.int_status) << " " << result.str_stderr;
  EXPECT_EQ(held(result), expected(true));
  EXPECT_EQ(result.str_stderr, "");
}

}  // namespace
