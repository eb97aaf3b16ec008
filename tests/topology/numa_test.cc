// The topology scan on fixture trees and on the machine's own /sys, the cpumap parser, the
// free-page readers, the choice of a memory node, the limits that abort, and node binding
// with its failure line (built without allocating).
#include "topology/quorla_numa.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "../os_memory/malloc_call_counter.h"
#include "foundation/quorla_machine.h"

namespace quorla {
namespace {

// A node tree in a temporary directory, removed again by the destructor.
struct Node_tree {
  char ar_char_root[32] = "/tmp/quorla_numa_XXXXXX";
  Node_tree() { EXPECT_NE(mkdtemp(ar_char_root), nullptr); }
  ~Node_tree() { std::filesystem::remove_all(ar_char_root); }
  const char* root() const { return ar_char_root; }
  void write(unsigned int node, const std::string& relative, const std::string& text) {
    std::filesystem::path path = std::filesystem::path(ar_char_root) / ("node" + std::to_string(node)) / relative;
    std::filesystem::create_directories(path.parent_path());
    EXPECT_TRUE(std::ofstream(path) << text) << path;
  }
  void node(unsigned int node, const std::string& cpumap, unsigned long free_pages) {
    write(node, "cpumap", cpumap);
    write(node, "vmstat", "nr_free_pages " + std::to_string(free_pages) + "\nnr_zone_inactive_anon 2555\n");
  }
};

// Each test starts from empty tables and sets the CPU count it needs; nothing else in this
// binary reads them. The marker shows which entries the scan leaves alone.
class Numa_test : public ::testing::Test {
 protected:
  void SetUp() override { clear_tables(); }
  static void clear_tables(unsigned char marker = 0) {
    memset(g_ar_uchar_numa_node_offset_cpu, marker, sizeof(g_ar_uchar_numa_node_offset_cpu));
    memset(g_ar_uchar_numa_node_memory_offset_cpu, marker, sizeof(g_ar_uchar_numa_node_memory_offset_cpu));
    for (Memory_numa_node_bitmask& mask : g_ar_memory_numa_node_bitmask) mask = Memory_numa_node_bitmask();
  }
  static unsigned long mask_word(unsigned int node) { return g_ar_memory_numa_node_bitmask[node].ar_ulong_mask[0]; }
};

using Numa_DeathTest = Numa_test;

// Chunk i is parsed from index 16 * i up to the first non-hex digit and names CPUs 64 * i
// and up; commas are not special.
TEST_F(Numa_test, CpumapTextIsReadInSixteenDigitChunksLowestCpusFirst) {
  struct Case {
    const char* ptr_text;
    unsigned int uint_node, uint_first, uint_last, uint_extra;  // CPUs first..last and extra
  } const cases[] = {
      {"00000000000000f0 000000000000001", 2, 4, 7, 64},  // a blank ends the first chunk
      {"  0x3", 1, 0, 1, 0},
      {"00000300\n", 4, 8, 9, 8},                         // one 32-bit kernel group
      {"000000000000000,000000000000000,ffffffffffffffff", 5, 128, 135, 128},
  };
  for (const Case& c : cases) {
    clear_tables();
    std::string text = c.ptr_text;
    set_ar_numa_node_offset_cpu_from_hex_txt(c.uint_node, &text[0]);
    for (unsigned int cpu = 0; cpu < k_max_cpu_count; ++cpu) {
      bool on = (cpu >= c.uint_first && cpu <= c.uint_last) || cpu == c.uint_extra;
      ASSERT_EQ(g_ar_uchar_numa_node_offset_cpu[cpu], on ? c.uint_node : 0) << c.ptr_text << " cpu " << cpu;
      ASSERT_EQ(g_ar_uchar_numa_node_memory_offset_cpu[cpu], 0) << c.ptr_text;
    }
  }
}

TEST_F(Numa_test, FreePageReadersParseTheirFilesAndTreatShortOrMissingAsZero) {
  Node_tree tree;
  tree.write(0, "vmstat", "nr_free_pages 935029\nnr_free_pages_blocks 805376\n");
  tree.write(1, "vmstat", "nr_free_pages\n");  // 14 characters: too short
  tree.write(2, "vmstat", "nr_free_pages 7");  // exactly 15
  tree.write(0, "hugepages/hugepages-2048kB/free_hugepages", "12\n");
  EXPECT_EQ(get_numa_node_free_page_count_in(tree.root(), 0), 935029u);
  EXPECT_EQ(get_numa_node_free_page_count_in(tree.root(), 1), 0u);
  EXPECT_EQ(get_numa_node_free_page_count_in(tree.root(), 2), 7u);
  EXPECT_EQ(get_numa_node_free_page_count_in(tree.root(), 3), 0u);
  EXPECT_EQ(get_numa_node_free_hugepage2m_count_in(tree.root(), 0), 12u);
  EXPECT_EQ(get_numa_node_free_hugepage2m_count_in(tree.root(), 1), 0u);
}

// The node itself and its lower neighbour are seen in the four-node scan below.
TEST_F(Numa_test, NodeWithoutFreePagesAsksItsNeighboursInOrder) {
  struct Case {
    unsigned long ar_free[4];  // per node, max node 3
    unsigned int uint_node, uint_expected;
  } const cases[] = {
      {{0, 5, 0, 5}, 0, 1},  // node 0 asks max - 1 = 2, then node + 1
      {{0, 0, 0, 5}, 0, 3},  // then all from 0
      {{5, 5, 0, 0}, 3, 0},  // node 3 asks 2, then node + 1 wraps to 0
      {{0, 0, 0, 0}, 1, 0},  // nobody: 0
  };
  for (const Case& c : cases) {
    Node_tree tree;
    for (unsigned int node = 0; node < 4; ++node) tree.node(node, "1\n", c.ar_free[node]);
    EXPECT_EQ(get_numa_node_has_free_memory_in(tree.root(), c.uint_node, 3), c.uint_expected) << &c - cases;
  }
}

// The scan stops at the first node without a cpumap. Afterwards every CPU below the
// count is on node 0 and takes memory from node 0's choice; entries above the count keep
// what the scan (or nobody) wrote. Each node's mask names the node it takes memory from.
TEST_F(Numa_test, ScanOfFixtureTrees) {
  struct Case {
    const char* ptr_name;
    std::vector<std::pair<const char*, unsigned long>> nodes;  // cpumap (null: no node), free
    unsigned int uint_cpu_count, uint_max;
    std::vector<unsigned long> masks;  // for nodes 0 .. max + 1
    unsigned char uchar_memory_node;
    std::vector<std::pair<unsigned int, unsigned char>> above;  // CPU >= count the scan wrote
  } const cases[] = {
      {"one node, the maximum CPU count", {{"00000003\n", 1000}}, k_max_cpu_count, 0, {1, 0}, 0, {}},
      {"two nodes", {{"00000003\n", 1000}, {"0000000c\n", 1000}}, 3, 1, {1, 2, 0}, 0, {{3, 1}}},
      {"four nodes, kernel format, hungry node 0 and 3",
       {{"00000000,000000ff\n", 0}, {"00000000,0000ff00\n", 50}, {"00000000,00ff0000\n", 60}, {"00000000,ff000000\n", 0}},
       32, 3, {4, 2, 4, 4, 0}, 2, {{64, 0}, {65, 0}, {66, 0}, {67, 0}}},
      {"gap", {{"00000001\n", 1000}, {nullptr, 0}, {"00000010\n", 1000}}, 2, 0, {1, 0, 0}, 0, {}},
      {"nine nodes", std::vector<std::pair<const char*, unsigned long>>(9, {"1\n", 10}), 1, 8,
       {1, 2, 4, 8, 16, 32, 64, 128, 256}, 0, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.ptr_name);
    Node_tree tree;
    for (unsigned int node = 0; node < c.nodes.size(); ++node) {
      if (c.nodes[node].first != nullptr) tree.node(node, c.nodes[node].first, c.nodes[node].second);
    }
    g_uint_cpu_count = c.uint_cpu_count;
    clear_tables(0x77);
    EXPECT_EQ(numa_data_init_in(tree.root()), c.uint_max);
    for (unsigned int node = 0; node < c.masks.size(); ++node) EXPECT_EQ(mask_word(node), c.masks[node]) << node;
    for (unsigned int cpu = 0; cpu < k_max_cpu_count; ++cpu) {
      unsigned char scanned = 0x77;
      for (const auto& [above_cpu, node] : c.above) scanned = above_cpu == cpu ? node : scanned;
      bool below = cpu < c.uint_cpu_count;
      ASSERT_EQ(g_ar_uchar_numa_node_offset_cpu[cpu], below ? 0 : scanned) << cpu;
      ASSERT_EQ(g_ar_uchar_numa_node_memory_offset_cpu[cpu], below ? c.uchar_memory_node : 0x77) << cpu;
    }
  }
  EXPECT_EQ(numa_data_init_in("/nonexistent/quorla/node"), 0u);
}

TEST_F(Numa_DeathTest, TooManyCpusOrNodesAbortWithTheirLines) {
  Node_tree tree;
  for (unsigned int node = 0; node <= 9; ++node) tree.node(node, "1\n", 10);
  EXPECT_DEATH((g_uint_cpu_count = 137, numa_data_init_in(tree.root())),
               "^Error: get_numa_max_node\\(\\) find too many cpu\\. max_support_cpu_count=136\r\n$");
  EXPECT_DEATH((g_uint_cpu_count = 1, numa_data_init_in(tree.root())),
               "^Error: get_numa_max_node\\(\\) find too many numa node\\. max_support_numa_node=7\r\n$");
}

// The policy of the page at ptr (get_mempolicy with MPOL_F_ADDR): mode and first mask word.
bool policy_of(void* ptr, int& mode, unsigned long& mask) {
  unsigned long words[16] = {};
  bool ok = syscall(SYS_get_mempolicy, &mode, words, 1024UL, ptr, 2UL) == 0;
  mask = words[0];
  return ok;
}

// The machine's own /sys; with its masks a binding to node 0 takes.
TEST_F(Numa_test, MachineTopologyAndBinding) {
  if (!std::filesystem::exists(k_numa_node_root)) GTEST_SKIP() << k_numa_node_root << " does not exist here";
  unsigned int expected_max = 0;  // nodes contiguous from 0 (a sysfs cpumap is never empty)
  auto cpumap = [](unsigned int node) { return std::string(k_numa_node_root) + "/node" + std::to_string(node) + "/cpumap"; };
  while (std::filesystem::exists(cpumap(expected_max + 1))) ++expected_max;
  g_uint_cpu_count = static_cast<unsigned int>(sysconf(_SC_NPROCESSORS_ONLN));
  ASSERT_LE(g_uint_cpu_count, k_max_cpu_count) << "this machine has more CPUs than the library supports";
  EXPECT_EQ(numa_data_init(), expected_max);
  for (unsigned int cpu = 0; cpu < g_uint_cpu_count; ++cpu) EXPECT_EQ(g_ar_uchar_numa_node_offset_cpu[cpu], 0);
  for (unsigned int node = 0; node <= expected_max; ++node) {
    EXPECT_EQ(__builtin_popcountl(mask_word(node)), 1) << node;
    EXPECT_LE(static_cast<unsigned int>(__builtin_ctzl(mask_word(node))), expected_max) << node;
  }
  EXPECT_GT(get_numa_node_free_page_count(0), 0u);  // node 0 of a running machine has some

  void* ptr = mmap(nullptr, 8 * 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(ptr, MAP_FAILED);
  struct Unmap {
    void* ptr;
    ~Unmap() { munmap(ptr, 8 * 4096); }
  } unmap{ptr};
  int mode = -1;
  unsigned long mask = 0;
  if (!policy_of(ptr, mode, mask)) GTEST_SKIP() << "get_mempolicy is not available: " << strerror(errno);
  EXPECT_EQ(mode, 0);  // MPOL_DEFAULT before
  testing::internal::CaptureStderr();
  numa_memory_page_bind_node(static_cast<unsigned char*>(ptr), 8 * 4096, 0);
  std::string said = testing::internal::GetCapturedStderr();
  if (said.find("errno=1,") != std::string::npos) GTEST_SKIP() << "mbind is not permitted here: " << said;
  EXPECT_EQ(said, "");
  ASSERT_TRUE(policy_of(ptr, mode, mask));
  EXPECT_EQ(mode, 2);  // MPOL_BIND
  EXPECT_EQ(mask, mask_word(0));
}


// With every mask empty the kernel refuses: the line is built without allocating and the
// call returns; a node beyond the masks fails the same way; the fit test lets a request under
// one page through to an absent node.
TEST_F(Numa_test, FailedBindingReportsWithoutAllocating) {
  alignas(4096) static unsigned char ptr[8 * 4096];
  unsigned long size = sizeof(ptr);
  auto line = [](unsigned long bytes, unsigned int node) {
    char hex[32];
    snprintf(hex, sizeof(hex), "%016lx", reinterpret_cast<unsigned long>(ptr));
    return std::string("Error: numa_mem_bind_to_node() failed. ptr_void_in=") + hex + ", size_in=" +
           std::to_string(bytes) + ", node_in=" + std::to_string(node) + ", errno=22, strerror=" + strerror(EINVAL) +
           "\r\n";
  };
  auto outcome = malloc_call_counter::run_in_child([size] { numa_mem_bind_to_node(ptr, size, 5); });
  EXPECT_EQ(outcome.int_status, 0);
  EXPECT_EQ(outcome.str_stderr, line(size, 5));
  EXPECT_EQ(outcome.ulong_allocations, 0u);
  for (auto [fit_test, bytes, node, said] : {std::tuple{false, size, 40u, true}, {true, 4095ul, 7u, true}, {true, 4096ul, 7u, false}}) {
    testing::internal::CaptureStderr();
    fit_test ? numa_memory_page_bind_node(ptr, bytes, node) : numa_mem_bind_to_node(ptr, bytes, node);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), said ? line(bytes, node) : "");
  }
}

}  // namespace
}  // namespace quorla
