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
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "../os_memory/malloc_call_counter.h"
#include "foundation/quorla_machine.h"

namespace quorla {
namespace {

// A node tree in a temporary directory, removed again by the destructor. Node i gets a
// vmstat with free[i] free pages and cpumaps[i] ("1\n" past the list's end); a null cpumap
// leaves the node out.
struct Node_tree {
  char ar_char_root[32] = "/tmp/quorla_numa_XXXXXX";
  explicit Node_tree(const std::vector<unsigned long>& free = {}, const std::vector<const char*>& cpumaps = {}) {
    EXPECT_NE(mkdtemp(ar_char_root), nullptr);
    for (unsigned int node = 0; node < free.size(); ++node) {
      if (node < cpumaps.size() && cpumaps[node] == nullptr) continue;
      write(node, "cpumap", node < cpumaps.size() ? cpumaps[node] : "1\n");
      write(node, "vmstat", "nr_free_pages " + std::to_string(free[node]) + "\nnr_zone_inactive_anon 2555\n");
    }
  }
  ~Node_tree() { std::filesystem::remove_all(ar_char_root); }
  void write(unsigned int node, const std::string& relative, const std::string& text) {
    std::filesystem::path path = std::filesystem::path(ar_char_root) / ("node" + std::to_string(node)) / relative;
    std::filesystem::create_directories(path.parent_path());
    EXPECT_TRUE(std::ofstream(path) << text) << path;
  }
};

// Each test starts from empty tables and sets the CPU count it needs; nothing else in this
// binary reads them. The marker shows which entries the scan leaves alone.
struct Numa_test : ::testing::Test {
  void SetUp() override { clear_tables(); }
  static void clear_tables(unsigned char marker = 0) {
    memset(g_ar_uchar_numa_node_offset_cpu, marker, sizeof(g_ar_uchar_numa_node_offset_cpu));
    memset(g_ar_uchar_numa_node_memory_offset_cpu, marker, sizeof(g_ar_uchar_numa_node_memory_offset_cpu));
    for (Memory_numa_node_bitmask& mask : g_ar_memory_numa_node_bitmask) mask = Memory_numa_node_bitmask();
  }
  static unsigned long mask_word(unsigned int node) { return g_ar_memory_numa_node_bitmask[node].ar_ulong_mask[0]; }
};

// Chunk i is parsed from index 16 * i up to the first non-hex digit and names CPUs 64 * i
// and up; commas are not special, a blank ends the first chunk below, and a kernel cpumap
// of one 32-bit group is read whole.
TEST_F(Numa_test, CpumapTextIsReadInSixteenDigitChunksLowestCpusFirst) {
  for (auto [text, node, first, last, extra] :  // node gets CPUs first..last and extra
       {std::tuple{"00000000000000f0 000000000000001", 2u, 4u, 7u, 64u}, {"  0x3", 1u, 0u, 1u, 0u},
        {"00000300\n", 4u, 8u, 9u, 8u}, {"000000000000000,000000000000000,ffffffffffffffff", 5u, 128u, 135u, 128u}}) {
    clear_tables();
    std::string copy = text;
    set_ar_numa_node_offset_cpu_from_hex_txt(node, &copy[0]);
    for (unsigned int cpu = 0; cpu < k_max_cpu_count; ++cpu) {
      bool on = (cpu >= first && cpu <= last) || cpu == extra;
      ASSERT_EQ(g_ar_uchar_numa_node_offset_cpu[cpu], on ? node : 0) << text << " cpu " << cpu;
      ASSERT_EQ(g_ar_uchar_numa_node_memory_offset_cpu[cpu], 0) << text;
    }
  }
}

TEST_F(Numa_test, FreePageReadersParseTheirFilesAndTreatShortOrMissingAsZero) {
  Node_tree tree;
  tree.write(0, "vmstat", "nr_free_pages 935029\nnr_free_pages_blocks 805376\n");
  tree.write(1, "vmstat", "nr_free_pages\n");  // 14 characters: too short
  tree.write(2, "vmstat", "nr_free_pages 7");  // exactly 15
  tree.write(0, "hugepages/hugepages-2048kB/free_hugepages", "12\n");
  for (auto [node, pages, huge] : {std::tuple{0u, 935029ul, 12ul}, {1u, 0ul, 0ul}, {2u, 7ul, 0ul}, {3u, 0ul, 0ul}}) {
    EXPECT_EQ(get_numa_node_free_page_count_in(tree.ar_char_root, node), pages) << node;
    EXPECT_EQ(get_numa_node_free_hugepage2m_count_in(tree.ar_char_root, node), huge) << node;
  }
}

// The scan stops at the first node without a cpumap. Afterwards every CPU below the
// count is on node 0 and takes memory from node 0's choice; entries above the count keep
// what the scan (or nobody) wrote. Each node's mask names the node it takes memory from:
// its own, else its lower neighbour (max - 1 for node 0), else the upper one (wrapping to
// 0), else the first with free pages, else node 0.
TEST_F(Numa_test, ScanOfFixtureTrees) {
  struct Case {
    std::vector<unsigned long> free;   // free pages per node
    std::vector<const char*> cpumaps;  // as Node_tree takes them
    unsigned int uint_cpu_count, uint_max;
    std::vector<unsigned long> masks;  // for nodes 0 .. max + 1
    unsigned char uchar_memory_node;
    std::vector<std::pair<unsigned int, unsigned char>> above;  // CPU >= count the scan wrote
  } const cases[] = {
      {{1000}, {"00000003\n"}, k_max_cpu_count, 0, {1, 0}, 0, {}},  // one node, the maximum CPU count
      {{1000, 1000}, {"00000003\n", "0000000c\n"}, 3, 1, {1, 2, 0}, 0, {{3, 1}}},
      {{0, 50, 60, 0},  // kernel format, hungry nodes 0 and 3
       {"00000000,000000ff\n", "00000000,0000ff00\n", "00000000,00ff0000\n", "00000000,ff000000\n"},
       32, 3, {4, 2, 4, 4, 0}, 2, {{64, 0}, {65, 0}, {66, 0}, {67, 0}}},
      {{1000, 0, 1000}, {"00000001\n", nullptr, "00000010\n"}, 2, 0, {1, 0, 0}, 0, {}},  // a gap
      {std::vector<unsigned long>(9, 10), {}, 1, 8, {1, 2, 4, 8, 16, 32, 64, 128, 256}, 0, {}},
      {{0, 5, 0, 5}, {}, 1, 3, {2, 2, 2, 8, 0}, 1, {}},  // node 0 asks 2, then 1
      {{0, 0, 0, 5}, {}, 1, 3, {8, 8, 8, 8, 0}, 3, {}},  // then all from 0
      {{5, 5, 0, 0}, {}, 1, 3, {1, 2, 2, 1, 0}, 0, {}},  // node 3 asks 2, then wraps to 0
      {{0, 0, 0, 0}, {}, 1, 3, {1, 1, 1, 1, 0}, 0, {}},  // nobody: node 0
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(&c - cases);
    Node_tree tree(c.free, c.cpumaps);
    g_uint_cpu_count = c.uint_cpu_count;
    clear_tables(0x77);
    EXPECT_EQ(numa_data_init_in(tree.ar_char_root), c.uint_max);
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

TEST(Numa_DeathTest, TooManyCpusOrNodesAbortWithTheirLines) {
  Node_tree tree(std::vector<unsigned long>(10, 10));
  EXPECT_DEATH((g_uint_cpu_count = 137, numa_data_init_in(tree.ar_char_root)),
               "^Error: get_numa_max_node\\(\\) find too many cpu\\. max_support_cpu_count=136\r\n$");
  EXPECT_DEATH((g_uint_cpu_count = 1, numa_data_init_in(tree.ar_char_root)),
               "^Error: get_numa_max_node\\(\\) find too many numa node\\. max_support_numa_node=7\r\n$");
}

// The policy of the page at ptr (get_mempolicy with MPOL_F_ADDR): mode and first mask word.
bool policy_of(void* ptr, int& mode, unsigned long (&words)[16]) {
  return syscall(SYS_get_mempolicy, &mode, words, 1024UL, ptr, 2UL) == 0;
}

// The machine's own /sys; with its masks a binding to node 0 takes.
TEST_F(Numa_test, MachineTopologyAndBinding) {
  if (!std::filesystem::exists(k_numa_node_root)) GTEST_SKIP() << k_numa_node_root << " does not exist here";
  unsigned int expected_max = 0;  // nodes contiguous from 0, each with a non-empty cpumap
  while (std::filesystem::exists(std::string(k_numa_node_root) + "/node" + std::to_string(expected_max + 1))) ++expected_max;
  g_uint_cpu_count = static_cast<unsigned int>(sysconf(_SC_NPROCESSORS_ONLN));
  ASSERT_LE(g_uint_cpu_count, k_max_cpu_count) << "this machine has more CPUs than the library supports";
  EXPECT_EQ(numa_data_init(), expected_max);
  for (unsigned int node = 0; node <= expected_max; ++node) {  // one node each, and one that exists
    EXPECT_TRUE(__builtin_popcountl(mask_word(node)) == 1 && __builtin_ctzl(mask_word(node)) <= int(expected_max)) << node;
  }
  EXPECT_GT(get_numa_node_free_page_count(0), 0u);  // node 0 of a running machine has some

  void* ptr = mmap(nullptr, 8 * 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(ptr, MAP_FAILED);
  std::shared_ptr<void> unmap(ptr, [](void* mapping) { munmap(mapping, 8 * 4096); });
  int mode = -1;
  unsigned long mask[16] = {};
  if (!policy_of(ptr, mode, mask)) GTEST_SKIP() << "get_mempolicy is not available: " << strerror(errno);
  EXPECT_EQ(mode, 0);  // MPOL_DEFAULT before
  testing::internal::CaptureStderr();
  numa_memory_page_bind_node(static_cast<unsigned char*>(ptr), 8 * 4096, 0);
  std::string said = testing::internal::GetCapturedStderr();
  if (said.find("errno=1,") != std::string::npos) GTEST_SKIP() << "mbind is not permitted here: " << said;
  EXPECT_EQ(said, "");
  ASSERT_TRUE(policy_of(ptr, mode, mask));
  EXPECT_EQ(mode, 2);  // MPOL_BIND
  EXPECT_EQ(mask[0], mask_word(0));
}


// With every mask empty the kernel refuses: the line is built without allocating and the
// call returns with errno as it was (the child exits with 3 otherwise); a node beyond the masks
// fails the same way; the fit test lets a request under one page through to an absent node.
TEST_F(Numa_test, FailedBindingReportsWithoutAllocating) {
  alignas(4096) static unsigned char ptr[8 * 4096];
  char hex[32];
  snprintf(hex, sizeof(hex), "%016lx", reinterpret_cast<unsigned long>(ptr));
  struct Case { bool bool_fit_test; unsigned long ulong_size; unsigned int uint_node; bool bool_said; };
  for (Case c : {Case{false, sizeof(ptr), 5, true}, {false, sizeof(ptr), 40, true}, {true, 4095, 7, true}, {true, 4096, 7, false}}) {
    auto outcome = malloc_call_counter::run_in_child([c] {
      errno = EDOM;
      c.bool_fit_test ? numa_memory_page_bind_node(ptr, c.ulong_size, c.uint_node) : numa_mem_bind_to_node(ptr, c.ulong_size, c.uint_node);
      if (errno != EDOM) _exit(3);
    });
    EXPECT_EQ(outcome.int_status, 0);
    EXPECT_EQ(outcome.str_stderr, !c.bool_said ? "" : std::string("Error: numa_mem_bind_to_node() failed. ptr_void_in=") + hex +
                                  ", size_in=" + std::to_string(c.ulong_size) + ", node_in=" + std::to_string(c.uint_node) +
                                  ", errno=22, strerror=" + strerror(EINVAL) + "\r\n") << c.uint_node;
    EXPECT_EQ(outcome.ulong_allocations, 0u);
  }
}

}  // namespace
}  // namespace quorla
