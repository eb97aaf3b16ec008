// CPU binding on machines this one is not: a fake affinity (what the thread may run on, what
// the last change asked for) and a tree of thread_siblings_list files stand in for the
// machine, and g_uint_hardware_concurrency and the CPU-to-node table are set per case. The
// expected sets come from the placement rules: one core's logical CPUs, else two CPUs of the
// node walking upward and wrapping; nothing on 2 CPUs or for a narrowed thread.
#include "topology/quorla_cpu_bind.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "foundation/quorla_machine.h"
#include "startup/quorla_memory_settings.h"

namespace quorla {
namespace {

struct Fake_machine {
  std::set<unsigned int> allowed;  // the thread's current affinity
  bool bool_get_fails = false;
  bool bool_set_fails = false;
  int int_set_calls = 0;
  std::set<unsigned int> last_set;
};
Fake_machine* g_fake = nullptr;

int fake_get(cpu_set_t* set) {
  if (g_fake->bool_get_fails) return 22;
  CPU_ZERO(set);
  for (unsigned int cpu : g_fake->allowed) CPU_SET(cpu, set);
  return 0;
}

int fake_set(const cpu_set_t* set) {
  ++g_fake->int_set_calls;
  g_fake->last_set.clear();
  for (unsigned int cpu = 0; cpu < 1024; ++cpu) {
    if (CPU_ISSET(cpu, set)) g_fake->last_set.insert(cpu);
  }
  if (g_fake->bool_set_fails) return 22;
  g_fake->allowed = g_fake->last_set;
  return 0;
}

class Cpu_bind_test : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(mkdtemp(ar_char_root_), nullptr);
    saved_system_ = g_cpu_bind_system;
    saved_concurrency_ = g_uint_hardware_concurrency;
    saved_offset_ = g_atomic_uint_memory_bind_cpu_offset.load();
    saved_enable_ = g_bool_memory_enable_auto_bind_cpu;
    saved_phy_ = g_uint_memory_auto_bind_phy_cpu_count;
    memcpy(saved_table_, g_ar_uchar_numa_node_offset_cpu, sizeof(saved_table_));
    memset(g_ar_uchar_numa_node_offset_cpu, 0, sizeof(saved_table_));
    g_fake = &fake_;
    g_cpu_bind_system = Cpu_bind_system{&fake_get, &fake_set, ar_char_root_};
  }
  void TearDown() override {
    g_cpu_bind_system = saved_system_;
    g_uint_hardware_concurrency = saved_concurrency_;
    g_atomic_uint_memory_bind_cpu_offset.store(saved_offset_);
    g_bool_memory_enable_auto_bind_cpu = saved_enable_;
    g_uint_memory_auto_bind_phy_cpu_count = saved_phy_;
    memcpy(g_ar_uchar_numa_node_offset_cpu, saved_table_, sizeof(saved_table_));
    g_fake = nullptr;
    std::filesystem::remove_all(ar_char_root_);
  }
  // A machine of n CPUs on which the thread may run everywhere, with the given sibling lists.
  void machine(unsigned int n, const std::map<unsigned int, std::string>& siblings = {}) {
    g_uint_hardware_concurrency = n;
    fake_ = Fake_machine();
    for (unsigned int cpu = 0; cpu < n; ++cpu) fake_.allowed.insert(cpu);
    for (const auto& [cpu, text] : siblings) {
      std::string dir = std::string(ar_char_root_) + "/cpu" + std::to_string(cpu) + "/topology";
      std::filesystem::create_directories(dir);
      std::ofstream(dir + "/thread_siblings_list") << text;
    }
  }

  char ar_char_root_[32] = "/tmp/quorla_cpu_XXXXXX";
  Fake_machine fake_;
  Cpu_bind_system saved_system_{};
  unsigned int saved_concurrency_ = 0;
  unsigned int saved_offset_ = 0;
  bool saved_enable_ = true;
  unsigned int saved_phy_ = 2;
  unsigned char saved_table_[k_max_cpu_count] = {};
};

TEST_F(Cpu_bind_test, SiblingListsCountOnlyCommaSeparatedNumbersOtherThanTheCpu) {
  machine(32, {{0, "0-1\n"}, {1, "0-1\n"}, {3, "3,17\n"}, {5, "5\n"}, {6, "6,22,38,54\n"}, {7, " 7 ,x,23\n"}});
  struct Case { unsigned int cpu; unsigned int count; };
  const Case cases[] = {
      {0, 1},   // "0-1" is one entry: its first number, the CPU itself
      {1, 2},   // the same range on CPU 1 yields 0, a sibling
      {3, 2},   // "3,17"
      {35, 2},  // taken modulo the CPU count: CPU 3
      {5, 1},   // alone on its core
      {6, 4},
      {7, 3},   // "x" does not parse as the CPU's number; blanks are skipped
      {9, 1},   // no file
  };
  for (const Case& c : cases) EXPECT_EQ(get_logic_cpu_count_of_phy_cpu(c.cpu), c.count) << "cpu " << c.cpu;
}

TEST_F(Cpu_bind_test, BindingToOneCoreSetsTheCpuAndItsSiblings) {
  machine(32, {{3, "3,17\n"}});
  EXPECT_EQ(set_this_thread_bind_one_phy_cpu(3), 2u);
  EXPECT_EQ(fake_.last_set, (std::set<unsigned int>{3, 17}));
  EXPECT_EQ(set_this_thread_bind_one_phy_cpu(40), 1u) << "40 mod 32 is 8, which has no file";
  EXPECT_EQ(fake_.last_set, (std::set<unsigned int>{8}));
}

TEST_F(Cpu_bind_test, NodeBindingWalksUpwardFromFirstAndWraps) {
  struct Case {
    unsigned int n;
    std::vector<unsigned char> nodes;  // the CPU-to-node table
    unsigned int first, most;
    std::set<unsigned int> expected;
  };
  const Case cases[] = {
      {3, {0, 0, 0}, 0, 2, {0, 1}},
      {3, {0, 0, 0}, 2, 2, {2, 0}},             // the last CPU wraps to CPU 0
      {8, {0, 0, 0, 0, 1, 1, 1, 1}, 5, 2, {5, 6}},
      {8, {0, 0, 0, 0, 1, 1, 1, 1}, 7, 2, {7, 4}},  // wraps past CPU 0 of another node
      {8, {1, 0, 0, 0, 1, 1, 1, 1}, 7, 2, {7, 0}},  // CPU 0 on the node is taken at the wrap
      {8, {0, 1, 0, 0, 0, 0, 0, 0}, 1, 2, {1}},     // alone on its node
      {6, {0, 0, 0, 0, 0, 0}, 3, 4, {3, 4, 5, 0}},
  };
  for (const Case& c : cases) {
    machine(c.n);
    for (unsigned int cpu = 0; cpu < c.nodes.size(); ++cpu) g_ar_uchar_numa_node_offset_cpu[cpu] = c.nodes[cpu];
    numa_this_thread_bind_cpu_node(c.first, c.most);
    EXPECT_EQ(fake_.last_set, c.expected) << "n=" << c.n << " first=" << c.first;
  }
}

TEST_F(Cpu_bind_test, AutomaticPlacementFollowsTheCounterAndTheCoreShape) {
  // 3 CPUs, one logical CPU each: two consecutive CPUs; the counter's old value counts.
  machine(3);
  g_atomic_uint_memory_bind_cpu_offset.store(1);
  auto_bind_this_thread_two_cpu();
  EXPECT_EQ(fake_.last_set, (std::set<unsigned int>{1, 2}));
  EXPECT_EQ(g_atomic_uint_memory_bind_cpu_offset.load(), 2u);
  // The next thread, on CPU 2, wraps.
  machine(3);
  auto_bind_this_thread_two_cpu();
  EXPECT_EQ(fake_.last_set, (std::set<unsigned int>{2, 0}));
  // With siblings the whole core is taken, by both the two-CPU and the one-core placement.
  machine(8, {{4, "0,4\n"}, {5, "1,5\n"}});
  g_atomic_uint_memory_bind_cpu_offset.store(4);
  auto_bind_this_thread_two_cpu();
  EXPECT_EQ(fake_.last_set, (std::set<unsigned int>{0, 4}));
  machine(8, {{4, "0,4\n"}, {5, "1,5\n"}});
  auto_bind_this_thread_one_cpu();
  EXPECT_EQ(fake_.last_set, (std::set<unsigned int>{1, 5}));
  machine(8);
  EXPECT_EQ(this_thread_auto_bind_one_phy_cpu(), 1u);
  EXPECT_EQ(fake_.last_set, (std::set<unsigned int>{6}));
}

TEST_F(Cpu_bind_test, NothingIsBoundOnTwoCpusOrForANarrowedThread) {
  for (unsigned int n : {1u, 2u}) {
    machine(n);
    g_atomic_uint_memory_bind_cpu_offset.store(0);
    auto_bind_this_thread_two_cpu();
    auto_bind_this_thread_one_cpu();
    EXPECT_EQ(this_thread_auto_bind_one_phy_cpu(), 0u);
    EXPECT_EQ(fake_.int_set_calls, 0) << n << " CPUs";
    EXPECT_EQ(g_atomic_uint_memory_bind_cpu_offset.load(), 0u) << "the counter does not advance";
  }
  // Narrowed beforehand (taskset, a cpuset, an earlier binding): kept, and the counter stays.
  machine(8);
  fake_.allowed = {2, 3, 4, 5, 6, 7, 40};  // a CPU beyond the count does not make it whole
  g_atomic_uint_memory_bind_cpu_offset.store(5);
  auto_bind_this_thread_two_cpu();
  EXPECT_EQ(this_thread_auto_bind_one_phy_cpu(), 0u);
  EXPECT_EQ(fake_.int_set_calls, 0);
  EXPECT_EQ(g_atomic_uint_memory_bind_cpu_offset.load(), 5u);
  // A thread once bound is narrowed: binding never widens it again.
  machine(8);
  auto_bind_this_thread_two_cpu();
  std::set<unsigned int> first = fake_.allowed;
  auto_bind_this_thread_two_cpu();
  EXPECT_EQ(fake_.int_set_calls, 1);
  EXPECT_EQ(fake_.allowed, first);
}

TEST_F(Cpu_bind_test, UnreadableAffinityCountsAsUnrestricted) {
  machine(8);
  fake_.bool_get_fails = true;
  EXPECT_EQ(get_this_thread_cpu_affinity_bind_count(), 8u);
  g_atomic_uint_memory_bind_cpu_offset.store(3);
  auto_bind_this_thread_one_cpu();
  EXPECT_EQ(fake_.last_set, (std::set<unsigned int>{3}));
}

TEST_F(Cpu_bind_test, NewThreadStepFollowsTheSettings) {
  struct Case { bool enable; unsigned int phy; std::set<unsigned int> expected; };
  const Case cases[] = {
      {true, 2, {2, 3}},  // CPU 2 has no siblings: two CPUs of the node
      {true, 1, {2}},     // one core
      {false, 2, {}},     // binding off: untouched
  };
  for (const Case& c : cases) {
    machine(8);
    g_atomic_uint_memory_bind_cpu_offset.store(2);
    g_bool_memory_enable_auto_bind_cpu = c.enable;
    g_uint_memory_auto_bind_phy_cpu_count = c.phy;
    auto_bind_new_thread();
    EXPECT_EQ(fake_.last_set, c.expected) << c.enable << " " << c.phy;
  }
}

TEST_F(Cpu_bind_test, FailedChangesSayOneLineAndLeaveTheThreadAsItWas) {
  machine(8, {{3, "3,17\n"}});
  fake_.bool_set_fails = true;
  const std::set<unsigned int> before = fake_.allowed;
  testing::internal::CaptureStderr();
  EXPECT_EQ(set_this_thread_bind_one_phy_cpu(3), 2u);
  numa_this_thread_bind_cpu_node(6, 2);
  std::string said = testing::internal::GetCapturedStderr();
  EXPECT_EQ(said,
            "Error: set_this_thread_bind_one_phy_cpu() failed. cpu_in=3, bind_cpu_count=2\r\n"
            "Error: numa_this_thread_bind_cpu_node() failed. cpu_offset_begin=6, cpu_max_bind_count=2, numa_node=0\r\n");
  EXPECT_EQ(fake_.allowed, before);
}

TEST(Cpu_bind_machine, OnTwoCpusOrFewerTheRealAffinityIsLeftAsItWas) {
  if (g_uint_hardware_concurrency > 2) GTEST_SKIP() << "this machine has " << g_uint_hardware_concurrency << " CPUs";
  std::thread thread([] {
    cpu_set_t before;
    cpu_set_t after;
    ASSERT_EQ(pthread_getaffinity_np(pthread_self(), sizeof(before), &before), 0);
    auto_bind_this_thread_two_cpu();
    auto_bind_this_thread_one_cpu();
    ASSERT_EQ(pthread_getaffinity_np(pthread_self(), sizeof(after), &after), 0);
    EXPECT_TRUE(CPU_EQUAL(&before, &after));
  });
  thread.join();
}

}  // namespace
}  // namespace quorla
