// The topology scan on fixture trees (one, two, four, nine and ten nodes, gaps, the
// kernel's cpumap formats), the cpumap text parser, the free-page readers and the choice
// of a memory node, the limits that stop the process, the machine's own /sys, and node
// binding through mbind with its failure line (built without allocating).
#include "topology/quorla_numa.h"

#include <dirent.h>
#include <ftw.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "../os_memory/malloc_call_counter.h"
#include "foundation/quorla_machine.h"

namespace quorla {
namespace {

// A node tree in a temporary directory: node<n>/cpumap and node<n>/vmstat and the
// huge-page count, removed again by the destructor.
class Node_tree {
 public:
  Node_tree() {
    char pattern[] = "/tmp/quorla_numa_XXXXXX";
    char* dir = mkdtemp(pattern);
    if (dir == nullptr) abort();
    str_root_ = dir;
  }
  ~Node_tree() {
    nftw(str_root_.c_str(), [](const char* path, const struct stat*, int, struct FTW*) { return remove(path); }, 16,
         FTW_DEPTH | FTW_PHYS);
  }
  const char* root() const { return str_root_.c_str(); }

  void write(unsigned int node, const std::string& relative, const std::string& text) {
    std::string dir = str_root_ + "/node" + std::to_string(node);
    std::string path = dir + "/" + relative;
    for (size_t slash = dir.size(); slash != std::string::npos; slash = path.find('/', slash + 1)) {
      mkdir(path.substr(0, slash).c_str(), 0755);
    }
    FILE* f = fopen(path.c_str(), "w");
    ASSERT_NE(f, nullptr) << path;
    fwrite(text.data(), 1, text.size(), f);
    fclose(f);
  }
  // A node with a cpumap and a vmstat that starts with its free-page line.
  void node(unsigned int node, const std::string& cpumap, unsigned long free_pages) {
    write(node, "cpumap", cpumap);
    write(node, "vmstat", "nr_free_pages " + std::to_string(free_pages) + "\nnr_zone_inactive_anon 2555\n");
  }

 private:
  std::string str_root_;
};

// Saves and restores every global that the scan writes.
class Numa_test : public ::testing::Test {
 protected:
  void SetUp() override {
    uint_cpu_count_saved_ = g_uint_cpu_count;
    memcpy(ar_cpu_saved_, g_ar_uchar_numa_node_offset_cpu, sizeof(ar_cpu_saved_));
    memcpy(ar_memory_saved_, g_ar_uchar_numa_node_memory_offset_cpu, sizeof(ar_memory_saved_));
    memcpy(static_cast<void*>(ar_mask_saved_), static_cast<const void*>(g_ar_memory_numa_node_bitmask),
           sizeof(ar_mask_saved_));
    clear_tables();
  }
  void TearDown() override {
    g_uint_cpu_count = uint_cpu_count_saved_;
    memcpy(g_ar_uchar_numa_node_offset_cpu, ar_cpu_saved_, sizeof(ar_cpu_saved_));
    memcpy(g_ar_uchar_numa_node_memory_offset_cpu, ar_memory_saved_, sizeof(ar_memory_saved_));
    memcpy(static_cast<void*>(g_ar_memory_numa_node_bitmask), static_cast<const void*>(ar_mask_saved_),
           sizeof(ar_mask_saved_));
  }
  // Tables as the static initialiser leaves them before the scan: fresh masks, zero tables,
  // except a marker value that shows which entries the scan leaves alone.
  static void clear_tables(unsigned char marker = 0) {
    memset(g_ar_uchar_numa_node_offset_cpu, marker, sizeof(g_ar_uchar_numa_node_offset_cpu));
    memset(g_ar_uchar_numa_node_memory_offset_cpu, marker, sizeof(g_ar_uchar_numa_node_memory_offset_cpu));
    for (Memory_numa_node_bitmask& mask : g_ar_memory_numa_node_bitmask) mask = Memory_numa_node_bitmask();
  }
  static unsigned long mask_word(unsigned int node) { return g_ar_memory_numa_node_bitmask[node].ar_ulong_mask[0]; }

 private:
  unsigned int uint_cpu_count_saved_ = 0;
  unsigned char ar_cpu_saved_[k_max_cpu_count];
  unsigned char ar_memory_saved_[k_max_cpu_count];
  Memory_numa_node_bitmask ar_mask_saved_[k_uint_numa_node_mask_count];
};

using Numa_DeathTest = Numa_test;

// ---- the cpumap text --------------------------------------------------------------------

TEST_F(Numa_test, CpumapTextIsReadInSixteenDigitGroupsLowestCpusFirst) {
  char single[] = "0000000f\n";
  set_ar_numa_node_offset_cpu_from_hex_txt(3, single);
  for (unsigned int cpu = 0; cpu < 4; ++cpu) EXPECT_EQ(g_ar_uchar_numa_node_offset_cpu[cpu], 3) << cpu;
  EXPECT_EQ(g_ar_uchar_numa_node_offset_cpu[4], 0);

  clear_tables();
  // Chunk i is parsed from index 16 * i up to the first non-digit: a blank ends the first
  // group, and the second group (starting at the blank) names CPUs 64 and up.
  char two_groups[] = "00000000000000f0 000000000000001";
  set_ar_numa_node_offset_cpu_from_hex_txt(2, two_groups);
  for (unsigned int cpu = 0; cpu < k_max_cpu_count; ++cpu) {
    bool expected = (cpu >= 4 && cpu < 8) || cpu == 64;
    EXPECT_EQ(g_ar_uchar_numa_node_offset_cpu[cpu], expected ? 2 : 0) << cpu;
  }

  clear_tables();
  char prefixed[] = "  0x3";
  set_ar_numa_node_offset_cpu_from_hex_txt(1, prefixed);
  EXPECT_EQ(g_ar_uchar_numa_node_offset_cpu[0], 1);
  EXPECT_EQ(g_ar_uchar_numa_node_offset_cpu[1], 1);
  EXPECT_EQ(g_ar_uchar_numa_node_offset_cpu[2], 0);
}

TEST_F(Numa_test, KernelCommaFormatIsNotTreatedSpecially) {
  // "00000000,0000000f\n" is 18 characters, two chunks. The first stops at the comma with
  // the value 0; the second starts at index 16, "f\n", and so names CPUs 64 to 67.
  char kernel[] = "00000000,0000000f\n";
  set_ar_numa_node_offset_cpu_from_hex_txt(1, kernel);
  for (unsigned int cpu = 0; cpu < k_max_cpu_count; ++cpu) {
    EXPECT_EQ(g_ar_uchar_numa_node_offset_cpu[cpu], (cpu >= 64 && cpu < 68) ? 1 : 0) << cpu;
  }
  clear_tables();
  // One 32-bit group, as the kernel writes it for up to 32 CPUs.
  char small[] = "00000300\n";
  set_ar_numa_node_offset_cpu_from_hex_txt(4, small);
  for (unsigned int cpu = 0; cpu < 16; ++cpu) {
    EXPECT_EQ(g_ar_uchar_numa_node_offset_cpu[cpu], (cpu == 8 || cpu == 9) ? 4 : 0) << cpu;
  }
}

TEST_F(Numa_test, CpumapBitsBeyondTheTableAreIgnored) {
  // Three chunks: the third holds CPUs 128-191; only 128-135 have entries.
  unsigned char sentinel_before = g_ar_uchar_numa_node_memory_offset_cpu[0];
  char three[] = "000000000000000," "000000000000000," "ffffffffffffffff";
  set_ar_numa_node_offset_cpu_from_hex_txt(5, three);
  for (unsigned int cpu = 0; cpu < k_max_cpu_count; ++cpu) {
    EXPECT_EQ(g_ar_uchar_numa_node_offset_cpu[cpu], cpu >= 128 ? 5 : 0) << cpu;
  }
  EXPECT_EQ(g_ar_uchar_numa_node_memory_offset_cpu[0], sentinel_before);
}

// ---- free pages and the memory node ---------------------------------------------------

TEST_F(Numa_test, FreePageReadersParseTheirFilesAndTreatShortOrMissingAsZero) {
  Node_tree tree;
  tree.write(0, "vmstat", "nr_free_pages 935029\nnr_free_pages_blocks 805376\n");
  tree.write(1, "vmstat", "nr_free_pages\n");   // 14 characters: too short
  tree.write(2, "vmstat", "nr_free_pages 7");   // exactly 15
  tree.write(0, "hugepages/hugepages-2048kB/free_hugepages", "12\n");
  EXPECT_EQ(get_numa_node_free_page_count_in(tree.root(), 0), 935029u);
  EXPECT_EQ(get_numa_node_free_page_count_in(tree.root(), 1), 0u);
  EXPECT_EQ(get_numa_node_free_page_count_in(tree.root(), 2), 7u);
  EXPECT_EQ(get_numa_node_free_page_count_in(tree.root(), 3), 0u);
  EXPECT_EQ(get_numa_node_free_hugepage2m_count_in(tree.root(), 0), 12u);
  EXPECT_EQ(get_numa_node_free_hugepage2m_count_in(tree.root(), 1), 0u);
}

TEST_F(Numa_test, NodeWithoutFreePagesAsksItsNeighboursInOrder) {
  // Free pages per node for max node 3; each case names the expected answer.
  struct Case {
    unsigned long ar_free[4];
    unsigned int uint_node;
    unsigned int uint_expected;
  };
  const Case cases[] = {
      {{5, 5, 5, 5}, 2, 2},  // the node itself
      {{0, 5, 5, 5}, 0, 2},  // node 0 asks max - 1 = 2 first, not max
      {{0, 5, 0, 5}, 0, 1},  // then node + 1
      {{0, 0, 0, 5}, 0, 3},  // then all from 0: only 3 is left
      {{5, 5, 5, 0}, 3, 2},  // node 3 asks 2 first
      {{5, 5, 0, 0}, 3, 0},  // then node + 1 wraps to 0
      {{0, 5, 0, 0}, 3, 1},  // then all from 0
      {{0, 0, 0, 0}, 1, 0},  // nobody: 0
      {{0, 0, 5, 5}, 1, 2},  // node 1 asks 0, then 2
  };
  for (const Case& c : cases) {
    Node_tree tree;
    for (unsigned int node = 0; node < 4; ++node) tree.node(node, "1\n", c.ar_free[node]);
    EXPECT_EQ(get_numa_node_has_free_memory_in(tree.root(), c.uint_node, 3), c.uint_expected)
        << "node " << c.uint_node << " free " << c.ar_free[0] << "," << c.ar_free[1] << "," << c.ar_free[2] << ","
        << c.ar_free[3];
  }
}

// ---- the scan ---------------------------------------------------------------------------

TEST_F(Numa_test, OneNodeMachine) {
  Node_tree tree;
  tree.node(0, "00000003\n", 1000);
  g_uint_cpu_count = 2;
  clear_tables(0x77);
  EXPECT_EQ(numa_data_init_in(tree.root()), 0u);
  EXPECT_EQ(g_ar_uchar_numa_node_offset_cpu[0], 0);
  EXPECT_EQ(g_ar_uchar_numa_node_offset_cpu[1], 0);
  EXPECT_EQ(g_ar_uchar_numa_node_memory_offset_cpu[0], 0);
  EXPECT_EQ(g_ar_uchar_numa_node_memory_offset_cpu[1], 0);
  // Entries at and above the CPU count keep what was there.
  EXPECT_EQ(g_ar_uchar_numa_node_offset_cpu[2], 0x77);
  EXPECT_EQ(g_ar_uchar_numa_node_memory_offset_cpu[2], 0x77);
  EXPECT_EQ(mask_word(0), 1u);
  EXPECT_EQ(g_ar_memory_numa_node_bitmask[0].ulong_size, 1u);
  EXPECT_EQ(mask_word(1), 0u);
}

TEST_F(Numa_test, TwoNodesAllCpusStillOnNodeZeroAndEntriesAboveTheCountKeepTheScan) {
  Node_tree tree;
  tree.node(0, "00000003\n", 1000);
  tree.node(1, "0000000c\n", 1000);
  g_uint_cpu_count = 3;
  EXPECT_EQ(numa_data_init_in(tree.root()), 1u);
  // CPUs 0-2 are erased to node 0 after the scan; CPU 3 is above the count and keeps node 1.
  for (unsigned int cpu = 0; cpu < 3; ++cpu) {
    EXPECT_EQ(g_ar_uchar_numa_node_offset_cpu[cpu], 0) << cpu;
    EXPECT_EQ(g_ar_uchar_numa_node_memory_offset_cpu[cpu], 0) << cpu;
  }
  EXPECT_EQ(g_ar_uchar_numa_node_offset_cpu[3], 1);
  EXPECT_EQ(mask_word(0), 1u << 0);
  EXPECT_EQ(mask_word(1), 1u << 1);
}

TEST_F(Numa_test, GapInNodeNumbersStopsTheScan) {
  Node_tree tree;
  tree.node(0, "00000001\n", 1000);
  tree.node(2, "00000010\n", 1000);
  g_uint_cpu_count = 2;
  EXPECT_EQ(numa_data_init_in(tree.root()), 0u);
  EXPECT_EQ(g_ar_uchar_numa_node_offset_cpu[4], 0);  // node 2's cpumap was never read
  EXPECT_EQ(mask_word(2), 0u);
}

TEST_F(Numa_test, EmptyCpumapOrMissingTreeMeansNoMoreNodes) {
  Node_tree tree;
  tree.node(0, "00000001\n", 1000);
  tree.node(1, "", 1000);
  tree.node(2, "00000004\n", 1000);
  g_uint_cpu_count = 1;
  EXPECT_EQ(numa_data_init_in(tree.root()), 0u);
  EXPECT_EQ(numa_data_init_in("/nonexistent/quorla/node"), 0u);
  EXPECT_EQ(mask_word(0), 1u);
}

TEST_F(Numa_test, FourNodesInKernelFormatWithAHungryNodeZero) {
  Node_tree tree;
  tree.node(0, "00000000,000000ff\n", 0);
  tree.node(1, "00000000,0000ff00\n", 50);
  tree.node(2, "00000000,00ff0000\n", 60);
  tree.node(3, "00000000,ff000000\n", 0);
  g_uint_cpu_count = 32;
  clear_tables(0x77);
  EXPECT_EQ(numa_data_init_in(tree.root()), 3u);
  // Node 0 has nothing and asks max - 1 = 2; node 3 asks 2 as well.
  EXPECT_EQ(mask_word(0), 1u << 2);
  EXPECT_EQ(mask_word(1), 1u << 1);
  EXPECT_EQ(mask_word(2), 1u << 2);
  EXPECT_EQ(mask_word(3), 1u << 2);
  // Every CPU is on node 0 after the erase, so every CPU takes memory from node 0's choice.
  for (unsigned int cpu = 0; cpu < 32; ++cpu) {
    EXPECT_EQ(g_ar_uchar_numa_node_offset_cpu[cpu], 0) << cpu;
    EXPECT_EQ(g_ar_uchar_numa_node_memory_offset_cpu[cpu], 2) << cpu;
  }
  // Above the count the scan's writes survive. In this format the second chunk starts at
  // index 16, so only each text's last digit counts, as CPUs 64 to 67: node 0's "f"
  // writes node 0 there, the other nodes' "0" writes nothing.
  for (unsigned int cpu = 32; cpu < k_max_cpu_count; ++cpu) {
    EXPECT_EQ(g_ar_uchar_numa_node_offset_cpu[cpu], (cpu >= 64 && cpu < 68) ? 0 : 0x77) << cpu;
    EXPECT_EQ(g_ar_uchar_numa_node_memory_offset_cpu[cpu], 0x77) << cpu;
  }
}

TEST_F(Numa_test, NoFreePagesAnywhereGivesEveryMaskBitZero) {
  Node_tree tree;
  for (unsigned int node = 0; node < 4; ++node) tree.node(node, "1\n", 0);
  g_uint_cpu_count = 4;
  EXPECT_EQ(numa_data_init_in(tree.root()), 3u);
  for (unsigned int node = 0; node < 4; ++node) EXPECT_EQ(mask_word(node), 1u) << node;
}

TEST_F(Numa_test, NineNodesPassAndUseANinthMask) {
  Node_tree tree;
  for (unsigned int node = 0; node <= 8; ++node) tree.node(node, "1\n", 10);
  g_uint_cpu_count = 1;
  EXPECT_EQ(numa_data_init_in(tree.root()), 8u);
  EXPECT_EQ(mask_word(8), 1u << 8);
}

TEST_F(Numa_test, ExactlyTheMaximumCpuCountPasses) {
  Node_tree tree;
  tree.node(0, "1\n", 10);
  g_uint_cpu_count = 136;
  EXPECT_EQ(numa_data_init_in(tree.root()), 0u);
  for (unsigned int cpu = 0; cpu < k_max_cpu_count; ++cpu) EXPECT_EQ(g_ar_uchar_numa_node_memory_offset_cpu[cpu], 0);
}

TEST_F(Numa_DeathTest, TooManyCpusOrNodesAbortWithTheirLines) {
  Node_tree tree;
  for (unsigned int node = 0; node <= 9; ++node) tree.node(node, "1\n", 10);
  EXPECT_DEATH(
      {
        g_uint_cpu_count = 137;
        numa_data_init_in(tree.root());
      },
      "^Error: get_numa_max_node\\(\\) find too many cpu\\. max_support_cpu_count=136\r\n$");
  EXPECT_DEATH(
      {
        g_uint_cpu_count = 1;
        numa_data_init_in(tree.root());
      },
      "^Error: get_numa_max_node\\(\\) find too many numa node\\. max_support_numa_node=7\r\n$");
}

// ---- the machine's own tree -------------------------------------------------------------

TEST_F(Numa_test, MachineTopology) {
  struct stat st;
  if (stat(k_numa_node_root, &st) != 0) GTEST_SKIP() << k_numa_node_root << " does not exist here";
  // Count the nodes the way the scan must: contiguous from 0, with a readable cpumap.
  unsigned int expected_max = 0;
  for (unsigned int node = 0;; ++node) {
    std::string path = std::string(k_numa_node_root) + "/node" + std::to_string(node) + "/cpumap";
    FILE* f = fopen(path.c_str(), "r");
    if (f == nullptr) break;
    int c = fgetc(f);
    fclose(f);
    if (c == EOF) break;
    expected_max = node;
  }
  g_uint_cpu_count = static_cast<unsigned int>(sysconf(_SC_NPROCESSORS_ONLN));
  ASSERT_LE(g_uint_cpu_count, k_max_cpu_count) << "this machine has more CPUs than the library supports";
  EXPECT_EQ(numa_data_init(), expected_max);
  for (unsigned int cpu = 0; cpu < g_uint_cpu_count; ++cpu) EXPECT_EQ(g_ar_uchar_numa_node_offset_cpu[cpu], 0);
  // Every node's mask names exactly one node, within the machine.
  for (unsigned int node = 0; node <= expected_max; ++node) {
    unsigned long word = mask_word(node);
    EXPECT_EQ(__builtin_popcountl(word), 1) << node;
    EXPECT_LE(static_cast<unsigned int>(__builtin_ctzl(word)), expected_max) << node;
  }
  // Node 0 of a running machine has free pages, and the vmstat line agrees with our reader.
  FILE* f = fopen((std::string(k_numa_node_root) + "/node0/vmstat").c_str(), "r");
  ASSERT_NE(f, nullptr);
  unsigned long free_pages = 0;
  ASSERT_EQ(fscanf(f, "nr_free_pages %lu", &free_pages), 1);
  fclose(f);
  unsigned long ours = get_numa_node_free_page_count(0);
  EXPECT_GT(ours, 0u);
  // The count moves between two reads; both are of the same machine, so within a wide margin.
  EXPECT_LT(ours > free_pages ? ours - free_pages : free_pages - ours, free_pages / 2 + 1024);
}

// ---- binding ----------------------------------------------------------------------------

constexpr long k_get_mempolicy = 239;
constexpr int k_mpol_f_addr = 2;

// The policy of the page at ptr: mode and first mask word.
bool policy_of(void* ptr, int& mode, unsigned long& mask) {
  unsigned long words[16] = {};
  mode = -1;
  if (syscall(k_get_mempolicy, &mode, words, 1024UL, ptr, static_cast<unsigned long>(k_mpol_f_addr)) != 0) return false;
  mask = words[0];
  return true;
}

std::string bind_failure_line(void* ptr, unsigned long size, unsigned int node, int error_number) {
  char hex[32];
  snprintf(hex, sizeof(hex), "%016lx", reinterpret_cast<unsigned long>(ptr));
  return std::string("Error: numa_mem_bind_to_node() failed. ptr_void_in=") + hex + ", size_in=" +
         std::to_string(size) + ", node_in=" + std::to_string(node) + ", errno=" + std::to_string(error_number) +
         ", strerror=" + strerror(error_number) + "\r\n";
}

TEST_F(Numa_test, BindToNodeSetsTheKernelPolicyOrSaysWhyNot) {
  g_uint_cpu_count = static_cast<unsigned int>(sysconf(_SC_NPROCESSORS_ONLN));
  if (g_uint_cpu_count > k_max_cpu_count) GTEST_SKIP() << "more CPUs than the library supports";
  numa_data_init();
  unsigned long size = 8 * 4096;
  unsigned char* ptr =
      static_cast<unsigned char*>(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(ptr, MAP_FAILED);
  int mode = -1;
  unsigned long mask = 0;
  if (!policy_of(ptr, mode, mask)) GTEST_SKIP() << "get_mempolicy is not available: " << strerror(errno);
  EXPECT_EQ(mode, 0);  // MPOL_DEFAULT before

  // Too many pages for the node's free memory: nothing happens, silently.
  testing::internal::CaptureStderr();
  numa_memory_page_bind_node(ptr, (get_numa_node_free_page_count(0) + 1) << 12, 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  ASSERT_TRUE(policy_of(ptr, mode, mask));
  EXPECT_EQ(mode, 0);

  testing::internal::CaptureStderr();
  numa_memory_page_bind_node(ptr, size, 0);
  std::string said = testing::internal::GetCapturedStderr();
  if (said.find("errno=1,") != std::string::npos) GTEST_SKIP() << "mbind is not permitted here: " << said;
  EXPECT_EQ(said, "");
  ASSERT_TRUE(policy_of(ptr, mode, mask));
  EXPECT_EQ(mode, 2);  // MPOL_BIND
  EXPECT_EQ(mask, mask_word(0));
  munmap(ptr, size);
}

TEST_F(Numa_test, FailedBindIsReportedWithoutAllocatingAndReturns) {
  unsigned long size = 4 * 4096;
  unsigned char* ptr =
      static_cast<unsigned char*>(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(ptr, MAP_FAILED);
  clear_tables();  // every mask empty: the kernel refuses an empty node set
  malloc_call_counter::Child_outcome outcome =
      malloc_call_counter::run_in_child([ptr, size] { numa_mem_bind_to_node(ptr, size, 5); });
  ASSERT_TRUE(WIFEXITED(outcome.int_status));
  EXPECT_EQ(WEXITSTATUS(outcome.int_status), 0);
  EXPECT_EQ(outcome.str_stderr, bind_failure_line(ptr, size, 5, EINVAL));
  EXPECT_EQ(outcome.ulong_allocations, 0u);

  // A node beyond the masks fails the same way instead of reading past them.
  testing::internal::CaptureStderr();
  numa_mem_bind_to_node(ptr, size, 40);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), bind_failure_line(ptr, size, 40, EINVAL));

  // The fit test compares pages with "not above": a node with no free pages (an absent
  // node reads 0) still takes a request of less than one page, and refuses one page.
  testing::internal::CaptureStderr();
  numa_memory_page_bind_node(ptr, 4095, 7);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), bind_failure_line(ptr, 4095, 7, EINVAL));
  testing::internal::CaptureStderr();
  numa_memory_page_bind_node(ptr, 4096, 7);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  munmap(ptr, size);
}

}  // namespace
}  // namespace quorla
