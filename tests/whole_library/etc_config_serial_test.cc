// The real /etc/libquorlamalloc.conf, read by a fresh program on the library. These tests
// change a file of the whole machine: each moves whatever stands at that path aside first
// and puts it back in every path out (the end of the test, a failed assertion, a crash of
// this process or SIGINT/SIGTERM; the programs that read the file run in child processes, so
// their crashes cannot skip the restore). They run alone (RUN_SERIAL), since every program on the library reads
// the file, and are skipped without the rights to write /etc.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <string>

#include "config_probe_run.h"

namespace {

using config_probe::expected;
using config_probe::held;
using config_probe::Result;
using config_probe::run;

constexpr const char* k_etc_path = "/etc/libquorlamalloc.conf";

class Etc_conf_guard;
Etc_conf_guard* g_ptr_active_guard = nullptr;
// The signals after which the file is put back before the process ends.
constexpr int k_ar_signal[] = {SIGINT, SIGTERM, SIGHUP, SIGABRT, SIGSEGV, SIGBUS, SIGFPE};

class Etc_conf_guard {
 public:
  Etc_conf_guard() : str_backup_(std::string(k_etc_path) + ".quorla-test-backup." + std::to_string(getpid())) {
    struct stat st;
    bool_had_ = lstat(k_etc_path, &st) == 0;
    bool_ready_ = !bool_had_ || rename(k_etc_path, str_backup_.c_str()) == 0;
    g_ptr_active_guard = this;
    for (int signal_number : k_ar_signal) signal(signal_number, restore_and_reraise);
  }
  ~Etc_conf_guard() {
    restore();
    for (int signal_number : k_ar_signal) signal(signal_number, SIG_DFL);
    g_ptr_active_guard = nullptr;
  }
  bool ready() const { return bool_ready_; }

  void write(const std::string& text) const {
    clear();
    std::ofstream(k_etc_path, std::ios::binary) << text;
  }

  // Only system calls, so that the signal handler may run it too.
  void restore() const {
    if (!bool_ready_) return;
    clear();
    if (bool_had_) rename(str_backup_.c_str(), k_etc_path);
  }

 private:
  static void clear() {
    if (unlink(k_etc_path) != 0) rmdir(k_etc_path);
  }
  static void restore_and_reraise(int signal_number) {
    if (g_ptr_active_guard != nullptr) g_ptr_active_guard->restore();
    signal(signal_number, SIG_DFL);
    raise(signal_number);
  }

  std::string str_backup_;
  bool bool_had_ = false;
  bool bool_ready_ = false;
};

class EtcConfig : public ::testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "writing " << k_etc_path << " needs root";
    if (access("/etc", W_OK) != 0) GTEST_SKIP() << "/etc is not writable here";
    guard_.reset(new Etc_conf_guard);
    ASSERT_TRUE(guard_->ready()) << "could not move the existing " << k_etc_path << " aside";
  }
  void TearDown() override { guard_.reset(); }

  std::unique_ptr<Etc_conf_guard> guard_;
};

TEST_F(EtcConfig, SettingsFromTheFileReachTheirGlobalsAndAct) {
  guard_->write(
      "# written by a test\n"
      "uint_microseconds_thread_background_sleep = 10\n"
      "ulong_size_use_thread_background_threshold = 1\n"
      "uint_wait_microseconds_between_release_2m = 7000\n"
      "uint_microseconds_thread_background_force_release_one_2m = 123\n"
      "bool_enable_hugepage2m = no\n"
      "bool_enable_auto_bind_cpu = off\n"
      "uint_auto_bind_phy_cpu_count = 3\n"
      "bool_enable_page_prefault = yes\n");
  Result result = run({"large", "region"}, config_probe::k_unset);
  ASSERT_TRUE(result.exited_cleanly()) << result.str_stderr;
  EXPECT_EQ(held(result), expected(true, {{"uint_microseconds_thread_background_sleep", 50},
                                          {"ulong_size_use_thread_background_threshold", 1},
                                          {"uint_wait_microseconds_between_release_2m", 7000},
                                          {"uint_microseconds_thread_background_force_release_one_2m", 123},
                                          {"bool_enable_hugepage2m", 0},
                                          {"bool_enable_auto_bind_cpu", 0},
                                          {"uint_auto_bind_phy_cpu_count", 2},
                                          {"bool_enable_page_prefault", 1}}));
  EXPECT_EQ(result.at("large_resident_pages"), (3u << 20) / 4096) << "prefault acts on the first large block";
  EXPECT_EQ(result.at("background_after_region"), 1u) << "the threshold of 1 byte is reached";
  EXPECT_EQ(result.str_stderr, "");
}

TEST_F(EtcConfig, SettingsFromTheFileChangeWhatAFreshProgramDoes) {
  // 12 touched regions past a 4 MB threshold start the background thread, whose start asks
  // for huge pages only when the file lets it; the freed regions go back at the file's pace,
  // the first no sooner than five intervals after the last demand.
  struct Case {
    const char* text;
    bool hugepages_asked;
    bool released;  // within one second
  };
  const Case cases[] = {
      {"bool_enable_hugepage2m = no\nuint_wait_microseconds_between_release_2m = 1000000\n", false, false},
      {"bool_enable_hugepage2m = yes\nuint_wait_microseconds_between_release_2m = 2000\n", true, true},
  };
  constexpr unsigned long k_page_block = 1500000;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    guard_->write(std::string("ulong_size_use_thread_background_threshold = 4194304\n"
                              "uint_microseconds_thread_background_force_release_one_2m = 0\n") +
                  c.text);
    Result result = run({"128", "burst", "12", "tasks", "2000", "hugepages", "2000", "released", "1000"},
                        config_probe::k_unset);
    ASSERT_TRUE(result.exited_cleanly()) << result.str_stderr;
    EXPECT_EQ(result.at("tasks"), 2u);
    ASSERT_EQ(result.at("hugepage_probe_run"), 1u);
    if (c.hugepages_asked) {
      EXPECT_GE(result.at("hugetlb_mmap_calls"), 1u);
    } else {
      EXPECT_EQ(result.at("hugetlb_mmap_calls"), 0u);
    }
    if (c.released) {
      EXPECT_GE(result.at("released_bytes"), 5 * k_page_block);
    } else {
      EXPECT_LT(result.at("released_bytes"), k_page_block);
    }
    EXPECT_EQ(result.str_stderr, "");
  }
}

TEST_F(EtcConfig, TheVariableNamesTheFileReadInstead) {
  guard_->write("uint_wait_microseconds_between_release_2m = 1111\n");
  char other_path[] = "/tmp/quorla_conf_other_XXXXXX";
  int fd = mkstemp(other_path);
  ASSERT_GE(fd, 0);
  const std::string other = "uint_wait_microseconds_between_release_2m = 2222\n";
  ASSERT_EQ(::write(fd, other.data(), other.size()), static_cast<ssize_t>(other.size()));
  close(fd);
  struct Case { const char* conf; unsigned long wait; };
  const Case cases[] = {
      {config_probe::k_unset, 1111},
      {"", 1111},  // set but empty: the /etc file as without it
      {other_path, 2222},
      {"/nonexistent/libquorlamalloc.conf", 4000},  // the named file alone counts, even missing
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.conf == nullptr ? "unset" : c.conf);
    Result result = run({"128"}, c.conf);
    ASSERT_TRUE(result.exited_cleanly());
    EXPECT_EQ(result.at("uint_wait_microseconds_between_release_2m"), c.wait);
  }
  unlink(other_path);
}

TEST_F(EtcConfig, AProcessThatDiesWhileItsFileStandsPutsTheOldOneBack) {
  // The file this test found stands for the machine's own; a child moves it aside, writes its
  // own, and dies of a signal with the file still in place.
  guard_->write("# the machine's own\n");
  for (int signal_number : {SIGSEGV, SIGABRT, SIGTERM}) {
    SCOPED_TRACE(signal_number);
    pid_t pid = fork();
    if (pid == 0) {
      Etc_conf_guard inner;
      if (!inner.ready()) _exit(2);
      inner.write("bool_enable_hugepage2m = no\n");
      raise(signal_number);
      _exit(3);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == signal_number) << status;
    std::ifstream in(k_etc_path);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(text, "# the machine's own\n");
  }
}

}  // namespace
