// Settings read from the configuration file change what the allocator does, each case a
// fresh program on the library (config_probe) reading the file named by QUORLAMALLOC_CONF:
// the threshold and the enable flag decide whether a burst of regions starts the background
// thread (counted in /proc/self/task); the sleep key sets how often that thread wakes
// (its voluntary context switches); the release interval paces how fast freed regions leave
// resident memory (/proc/self/statm); huge pages off means no MAP_HUGETLB mapping is ever
// asked of the kernel (the probe's mmap sees every request); binding off means no affinity
// change, and the CPU count per binding, clamped, decides how many CPUs a new thread gets
// (on a machine of 8 CPUs shown to the library through its binding seam, since on 2 CPUs
// nothing is bound); the divisor, clamped, decides how many regions are prepared ahead.
// Bounds on time are one-sided: what the pace forbids, or what must happen within seconds.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "config_probe_run.h"

namespace {

using config_probe::Result;
using config_probe::run;

constexpr unsigned long k_region = 2097152;
constexpr unsigned long k_page_block = 1500000;  // the probe's page block, touched whole by a burst

class Conf_file {
 public:
  explicit Conf_file(const std::string& text) {
    char pattern[] = "/tmp/quorla_conf_behaviour_XXXXXX";
    int fd = mkstemp(pattern);
    str_path_ = pattern;
    if (fd >= 0) close(fd);
    std::ofstream(str_path_, std::ios::binary) << text;
  }
  ~Conf_file() { unlink(str_path_.c_str()); }
  const char* path() const { return str_path_.c_str(); }

 private:
  std::string str_path_;
};

Result run_with(const std::string& text, const std::vector<std::string>& actions) {
  Conf_file file(text);
  Result result = run(actions, file.path());
  EXPECT_TRUE(result.exited_cleanly()) << result.str_stderr;
  EXPECT_EQ(result.str_stderr, "") << "every key and value of the file is good";
  return result;
}

TEST(ConfigBehaviour, ThresholdAndEnableFlagDecideWhetherABurstStartsTheBackgroundThread) {
  // The first 128-byte request reads the file; then 12 regions (24 MB) are mapped, touched
  // and freed by the one thread of the program.
  struct Case {
    const char* text;
    unsigned long tasks;
  };
  const Case cases[] = {
      {"ulong_size_use_thread_background_threshold = 1099511627776\n", 1},  // 1 TB: never reached
      {"ulong_size_use_thread_background_threshold = 4194304\n", 2},
      {"", 2},  // the default of 8 MB is passed too
      {"ulong_size_use_thread_background_threshold = 4194304\nbool_enable_thread_background = no\n", 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    Result result = run_with(c.text, {"128", "burst", "12", "tasks", "300"});
    EXPECT_EQ(result.at("tasks"), c.tasks);
  }
}

TEST(ConfigBehaviour, SleepKeySetsHowOftenTheCalmBackgroundThreadWakes) {
  // A calm round sleeps the key's time. Over one second a sleep of 200 ms allows about 5
  // rounds; a key of 10, clamped to 50 us, gives thousands. The bounds are far apart so that
  // a loaded machine (fewer wake-ups) or timer slack cannot move a case across.
  struct Case {
    unsigned long sleep;
    bool short_sleep;
  };
  const Case cases[] = {{200000, false}, {10, true}, {50, true}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.sleep);
    Result result = run_with("uint_microseconds_thread_background_sleep = " + std::to_string(c.sleep) +
                                 "\nulong_size_use_thread_background_threshold = 1\n"
                                 "uint_microseconds_thread_background_force_release_one_2m = 0\n",
                             {"region", "wakeups", "1000"});
    ASSERT_EQ(result.at("wakeups_thread"), 1u) << "the region past a 1-byte threshold starts the thread";
    EXPECT_EQ(result.at("uint_microseconds_thread_background_sleep"), c.sleep < 50 ? 50u : c.sleep);
    const unsigned long wakeups = result.at("background_wakeups");
    if (c.short_sleep) {
      EXPECT_GE(wakeups, 200u);
    } else {
      EXPECT_LE(wakeups, 20u);
    }
  }
}

TEST(ConfigBehaviour, ReleaseIntervalKeyPacesTheReturnOfFreedRegions) {
  // 24 touched regions are freed into the cache, far above its target, and the surplus goes
  // back one region per interval, the first no sooner than 5 intervals after the last demand.
  // With 1 s nothing can leave within 1.5 s; with 2 ms most of the surplus is gone by then.
  const std::string common =
      "ulong_size_use_thread_background_threshold = 4194304\n"
      "uint_microseconds_thread_background_force_release_one_2m = 0\n";
  Result slow = run_with(common + "uint_wait_microseconds_between_release_2m = 1000000\n",
                         {"128", "burst", "24", "released", "1500"});
  Result fast = run_with(common + "uint_wait_microseconds_between_release_2m = 2000\n",
                         {"128", "burst", "24", "released", "1500"});
  EXPECT_GT(slow.at("burst_resident_after_free"), 24 * k_page_block) << "the freed regions wait, resident";
  EXPECT_LT(slow.at("released_bytes"), k_page_block) << "no region before five intervals have passed";
  EXPECT_GE(fast.at("released_bytes"), 10 * k_page_block) << "the surplus leaves at the short pace";
}

TEST(ConfigBehaviour, HugePagesOffMeansNoHugePageMappingIsAskedFor) {
  // The background thread's start runs the huge-page probe when the key allows it: one
  // MAP_HUGETLB request at least, whether or not the machine has huge pages reserved. With
  // the key off no request is made, so no region is ever a huge page.
  struct Case {
    const char* value;
    bool asked;
  };
  const Case cases[] = {{"yes", true}, {"no", false}, {"0", false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.value);
    Result result = run_with(std::string("bool_enable_hugepage2m = ") + c.value +
                                 "\nulong_size_use_thread_background_threshold = 1\n",
                             {"region", "burst", "4", "hugepages", "2000"});
    ASSERT_EQ(result.at("hugepage_probe_run"), 1u) << "the background thread started";
    if (c.asked) {
      EXPECT_GE(result.at("hugetlb_mmap_calls"), 1u);
    } else {
      EXPECT_EQ(result.at("hugetlb_mmap_calls"), 0u);
      EXPECT_EQ(result.at("use_hugepage2m"), 0u);
      EXPECT_EQ(result.at("hugepage2m_count"), 0u);
    }
  }
}

TEST(ConfigBehaviour, BindingKeysDecideWhetherAndHowWideNewThreadsAreBound) {
  // A machine of 8 CPUs with no sibling files: a new thread bound by the CPU count 2 gets two
  // CPUs of its node, by the count 1 one core, that is one CPU; the background thread always
  // two. Any count but 1 or 2 counts as 2. Binding off: no affinity change at all. The wait
  // for the huge-page probe is a wait for the background thread to have passed its binding.
  struct Case {
    const char* text;
    unsigned long second_calls, second_cpus, other_calls, other_cpus;
  };
  const Case cases[] = {
      {"", 1, 2, 1, 2},
      {"uint_auto_bind_phy_cpu_count = 1\n", 1, 1, 1, 2},
      {"uint_auto_bind_phy_cpu_count = 3\n", 1, 2, 1, 2},
      {"uint_auto_bind_phy_cpu_count = 0\n", 1, 2, 1, 2},
      {"bool_enable_auto_bind_cpu = off\n", 0, 0, 0, 0},
      {"bool_enable_auto_bind_cpu = off\nuint_auto_bind_phy_cpu_count = 1\n", 0, 0, 0, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    Result result = run_with(c.text, {"fake_cpus", "8", "128", "thread", "tasks", "2000", "hugepages", "2000"});
    ASSERT_EQ(result.at("tasks"), 2u) << "the second thread asked for the background thread";
    ASSERT_EQ(result.at("hugepage_probe_run"), 1u);
    EXPECT_EQ(result.at("bind_calls_second_thread"), c.second_calls);
    EXPECT_EQ(result.at("bind_cpus_second_thread"), c.second_cpus);
    EXPECT_EQ(result.at("bind_calls_other"), c.other_calls) << "the background thread, never the main one";
    EXPECT_EQ(result.at("bind_cpus_other"), c.other_cpus);
  }
}

TEST(ConfigBehaviour, DivisorKeyClampedDecidesHowManyRegionsArePreparedAhead) {
  // Without a background thread (a threshold never reached) 40 regions are mapped and kept,
  // every one a miss of the empty cache, the last of which sets the target: the regions
  // mapped then, divided by the divisor. A second thread then starts the background thread,
  // which prepares the target and, with no forced release, keeps it. A divisor of 0 or 1
  // counts as 2: the stock is that of 2, not of 1 (every region again) nor of the fallback
  // for 0 (an eighth).
  const std::string common =
      "ulong_size_use_thread_background_threshold = 1099511627776\n"
      "uint_thread_background_need_prepare_2m_count_limt = 64\n"
      "uint_microseconds_thread_background_force_release_one_2m = 0\n";
  struct Case {
    unsigned long divisor, effective;
  };
  const Case cases[] = {{2, 2}, {0, 2}, {1, 2}, {8, 8}, {4, 4}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.divisor);
    Result result =
        run_with(common + "uint_thread_background_div_number_calc_prepare_2m = " + std::to_string(c.divisor) + "\n",
                 {"128", "hold", "40", "thread", "stock", "5000"});
    ASSERT_EQ(result.at("stock_settled"), 1u);
    const unsigned long mapped = result.at("hold_mapped_regions");
    ASSERT_GE(mapped, 40u);
    const unsigned long target = mapped / c.effective;
    // Regions prepared since the hold; the new thread's heap may add a region's worth.
    const unsigned long stock = result.at("stock_bytes") / k_region;
    EXPECT_GE(stock + 2, target) << "mapped " << mapped;
    EXPECT_LE(stock, target + 2) << "mapped " << mapped;
  }
}

}  // namespace
