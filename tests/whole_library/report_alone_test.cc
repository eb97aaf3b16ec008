// The allocator's reports in a whole process on the library: malloc_stats after a known
// workload (every section in order, exact prefixes and separators, numbers consistent with
// what the test holds), malloc_stats while other threads allocate and free hard (no crash, no
// deadlock, no allocation from the reporting thread), and the misuse lines of quorla_free_fail
// and of an alignment that cannot be served, with the program going on.
//
// This binary interposes the allocation names to count the calls of one armed thread; every
// call still goes to the library's quorla_ twins, so the whole process stays on the library.
#include <malloc.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <new>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "quorlamalloc.h"
#include "library_symbol.h"

namespace {
thread_local bool t_bool_armed = false;
std::atomic<unsigned long> g_armed_calls{0};
inline void note_call() {
  if (t_bool_armed) g_armed_calls.fetch_add(1, std::memory_order_relaxed);
}
}  // namespace

extern "C" {
void* malloc(size_t size) noexcept { return note_call(), quorla_malloc(size); }
void free(void* ptr) noexcept { quorla_free(ptr); }
void* calloc(size_t count, size_t size) noexcept { return note_call(), quorla_calloc(count, size); }
void* realloc(void* ptr, size_t size) noexcept { return note_call(), quorla_realloc(ptr, size); }
void* memalign(size_t alignment, size_t size) noexcept { return note_call(), quorla_memalign(alignment, size); }
void* aligned_alloc(size_t alignment, size_t size) noexcept { return note_call(), quorla_aligned_alloc(alignment, size); }
int posix_memalign(void** out, size_t alignment, size_t size) noexcept {
  return note_call(), quorla_posix_memalign(out, alignment, size);
}
}
void* operator new(size_t size) {
  note_call();
  void* ptr = quorla_malloc(size);
  if (ptr == nullptr) throw std::bad_alloc();
  return ptr;
}
void* operator new[](size_t size) { return operator new(size); }
void operator delete(void* ptr) noexcept { quorla_free(ptr); }
void operator delete[](void* ptr) noexcept { quorla_free(ptr); }
void operator delete(void* ptr, size_t) noexcept { quorla_free(ptr); }
void operator delete[](void* ptr, size_t) noexcept { quorla_free(ptr); }

namespace {

template <class T>
T read_global(const char* name) {
  void* address = library_symbol::quorla_global(name);
  if (address == nullptr) ADD_FAILURE() << "no symbol " << name;
  return address == nullptr ? T() : *static_cast<T*>(address);
}

// What one stream received while body ran: the descriptor points at an anonymous file.
std::string capture(int fd, FILE* stream, const std::function<void()>& body) {
  fflush(stream);
  int saved = dup(fd);
  int file = memfd_create("report", 0);
  dup2(file, fd);
  body();
  fflush(stream);
  dup2(saved, fd);
  close(saved);
  std::string text;
  char buffer[4096];
  off_t at = 0;
  for (ssize_t n; (n = pread(file, buffer, sizeof(buffer), at)) > 0; at += n) text.append(buffer, size_t(n));
  close(file);
  return text;
}

std::vector<std::string> split_lines(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  for (size_t end; (end = text.find("\r\n", start)) != std::string::npos; start = end + 2) lines.push_back(text.substr(start, end - start));
  EXPECT_EQ(start, text.size()) << "the report ends in \\r\\n";
  return lines;
}

// The bytes of an amount, from its first bracketed form ("( 1.5 KiB )..."), within the six
// decimals of the form; -1 if the text is no amount.
double amount_bytes(const std::string& text) {
  std::smatch match;
  static const std::regex form(R"(^\( ([0-9]+(?:\.[0-9]{1,6})?) (B|KiB|MiB|GiB) \))");
  if (!std::regex_search(text, match, form)) return -1;
  double unit = match[2] == "B" ? 1 : match[2] == "KiB" ? 1024.0 : match[2] == "MiB" ? 1048576.0 : 1073741824.0;
  return std::stod(match[1]) * unit;
}

// The text after ", key=" (or " key=" for a line's first field) up to the next ", ".
// Amounts contain ", " nowhere, so the next ", " ends the field.
std::string field(const std::string& line, const std::string& key) {
  size_t start = line.find(", " + key + "=");
  if (start != std::string::npos) {
    start += key.size() + 3;
  } else {
    start = line.find(" " + key + "=");
    if (start == std::string::npos) return "";
    start += key.size() + 2;
  }
  size_t end = line.find(", ", start);
  return line.substr(start, end == std::string::npos ? std::string::npos : end - start);
}

std::string hex16(unsigned long value) {
  char text[32];
  snprintf(text, sizeof(text), "%016lx", value);
  return text;
}

bool starts_with(const std::string& text, const std::string& prefix) { return text.compare(0, prefix.size(), prefix) == 0; }

// all_bit, use_bit, free_bit and free_rate of a line agree: use + free = all and the rate is
// free * 100 / all, an integer percentage.
void expect_bits_consistent(const std::string& line) {
  SCOPED_TRACE(line);
  unsigned long all = std::stoul(field(line, "all_bit"));
  unsigned long use = std::stoul(field(line, "use_bit"));
  unsigned long free_bits = std::stoul(field(line, "free_bit"));
  EXPECT_EQ(use + free_bits, all);
  ASSERT_GT(all, 0u);
  EXPECT_EQ(field(line, "free_rate"), std::to_string(free_bits * 100 / all) + "%");
}

constexpr size_t k_large = 5242880;  // a large block: a mapping of its own, 3 regions
constexpr size_t k_large_mapped = 6291456;

// Three threads hold known blocks while the main thread takes the report.
TEST(MallocStats, KnownWorkloadGivesEverySectionInOrderWithConsistentNumbers) {
  constexpr int k_threads = 3;
  constexpr int k_small = 200;       // 100-byte blocks: one piece of the 112-byte class
  constexpr int k_page_blocks = 20;  // 16000 bytes: 4 pages each
  std::atomic<int> ready{0};
  std::atomic<bool> done{false};
  std::vector<unsigned long> thread_ids(k_threads);
  std::vector<std::thread> threads;
  for (int t = 0; t < k_threads; ++t) {
    threads.emplace_back([&, t] {
      thread_ids[t] = static_cast<unsigned long>(pthread_self());
      std::vector<void*> blocks;
      for (int i = 0; i < k_small; ++i) blocks.push_back(malloc(100));
      for (int i = 0; i < k_page_blocks; ++i) blocks.push_back(malloc(16000));
      ready.fetch_add(1);
      while (!done.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
      for (void* block : blocks) free(block);
    });
  }
  void* large[2] = {malloc(k_large), malloc(k_large)};
  memset(large[0], 1, k_large);
  memset(large[1], 2, k_large);
  while (ready.load() != k_threads) std::this_thread::sleep_for(std::chrono::milliseconds(1));

  std::string report = capture(1, stdout, [] { malloc_stats(); });
  done.store(true);
  for (std::thread& thread : threads) thread.join();
  free(large[0]);
  free(large[1]);

  ASSERT_TRUE(starts_with(report, "\r\nLibquorlamalloc os_byte=( ")) << report;
  std::vector<std::string> lines = split_lines(report.substr(2));
  ASSERT_GE(lines.size(), 3u) << report;
  size_t i = 0;

  // 1. Mapped memory: at least the large blocks alive; the page part is the whole without
  // huge pages; the huge-page field only where huge pages are used.
  const std::string& os = lines[i++];
  ASSERT_TRUE(starts_with(os, "Libquorlamalloc os_byte=")) << os;
  double os_byte = amount_bytes(field(os, "os_byte"));
  EXPECT_GE(os_byte, 2.0 * k_large_mapped * (1 - 1e-6)) << os;
  EXPECT_GT(amount_bytes(field(os, "os_page_byte")), 0) << os;
  bool hugepage2m = read_global<bool>("g_bool_memory_use_hugepage2m");
  EXPECT_EQ(os.find(", os_hugepage_2M_byte=( ") != std::string::npos, hugepage2m) << os;
  if (!hugepage2m) EXPECT_EQ(field(os, "os_page_byte"), field(os, "os_byte")) << os;

  // 2. The before-init heap: three amounts and a rate.
  const std::string& shared = lines[i++];
  EXPECT_TRUE(std::regex_match(shared, std::regex(R"(Libquorlamalloc shared_page all_byte=(\( [^)]+ \))+, use_byte=(\( [^)]+ \))+, free_byte=(\( [^)]+ \))+, free_rate=[0-9]+%)")))
      << shared;
  double all_byte = amount_bytes(field(shared, "all_byte"));
  double use_byte = amount_bytes(field(shared, "use_byte"));
  double free_byte = amount_bytes(field(shared, "free_byte"));
  EXPECT_NEAR(use_byte + free_byte, all_byte, all_byte * 1e-5 + 2) << shared;

  // 3. The root pool, at most one line; 4. and 5. the per-CPU pools, then the page supplies,
  // each entry at most once and in rising order.
  if (i < lines.size() && starts_with(lines[i], "Libquorlamalloc metadata_shared_tiny_block all_byte=")) {
    const std::string& root = lines[i++];
    expect_bits_consistent(root);
    EXPECT_EQ(std::stoul(field(root, "all_bit")) % 512, 0u) << root;
    EXPECT_NEAR(amount_bytes(field(root, "all_byte")), std::stoul(field(root, "all_bit")) * 128.0, 1) << root;
  }
  for (const char* prefix : {"Libquorlamalloc metadata_cpu_tiny_block cpu=", "Libquorlamalloc metadata_cpu_page_block cpu="}) {
    int last_cpu = -1;
    while (i < lines.size() && starts_with(lines[i], prefix)) {
      const std::string& line = lines[i++];
      std::smatch match;
      ASSERT_TRUE(std::regex_search(line, match, std::regex("cpu=([0-7]), all_byte=\\( "))) << line;
      int cpu = std::stoi(match[1]);
      EXPECT_GT(cpu, last_cpu) << line;
      last_cpu = cpu;
      expect_bits_consistent(line);
    }
    EXPECT_GE(last_cpu, 0) << "no line of " << prefix << "\n" << report;
  }

  // 6. The region cache: only once the background thread runs.
  if (read_global<bool>("g_bool_memory_use_thread_background")) {
    ASSERT_LT(i, lines.size());
    EXPECT_EQ(lines[i++], "Libquorlamalloc numa_node_count=" + std::to_string(read_global<unsigned int>("g_uint_numa_node_count")));
    if (i < lines.size() && starts_with(lines[i], "Libquorlamalloc numa_node_2m_block_queue all_byte=")) ++i;
  }

  // 7. The heaps: the count line, then one line per heap that holds a region, among them each
  // worker's with at least the pages it holds.
  ASSERT_LT(i, lines.size());
  std::smatch count_match;
  ASSERT_TRUE(std::regex_match(lines[i], count_match,
                               std::regex("libquorlamalloc thread_local_data vt_all_size=([0-9]+)(, vt_wait_reuse_size=[0-9]+)?")))
      << lines[i];
  EXPECT_GE(std::stoul(count_match[1]), static_cast<unsigned long>(k_threads + 1));
  ++i;
  std::vector<int> worker_lines(k_threads, 0);
  for (; i < lines.size(); ++i) {
    const std::string& line = lines[i];
    SCOPED_TRACE(line);
    ASSERT_TRUE(std::regex_match(line, std::regex("libquorlamalloc thread_id=[0-9a-f]{16}, ptr_thread_local=[0-9a-f]{16}, all_byte=.*")));
    expect_bits_consistent(line);
    unsigned long all_bit = std::stoul(field(line, "all_bit"));
    EXPECT_EQ(all_bit % 512, 0u);
    EXPECT_NEAR(amount_bytes(field(line, "all_byte")), all_bit * 4096.0, 1);
    double pages = field(line, "page_byte").empty() ? 0 : amount_bytes(field(line, "page_byte"));
    double huge = field(line, "byte_hugepage2M").empty() ? 0 : amount_bytes(field(line, "byte_hugepage2M"));
    EXPECT_NEAR(pages + huge, all_bit * 4096.0, 1);
    for (int t = 0; t < k_threads; ++t) {
      if (field(line, "thread_id") != hex16(thread_ids[t])) continue;
      ++worker_lines[t];
      // 20 runs of 4 pages, and the 14 pages of the 112-byte class's backing block.
      EXPECT_GE(std::stoul(field(line, "use_bit")), static_cast<unsigned long>(k_page_blocks * 4 + 14));
    }
  }
  for (int t = 0; t < k_threads; ++t) EXPECT_EQ(worker_lines[t], 1) << "worker " << t << "\n" << report;
}

// With the background flag up, the cache's lines come before the heaps: the node count, then
// the regions waiting, which include those the test emptied.
TEST(MallocStats, RegionsWaitingInTheCacheAreReportedOnceTheBackgroundRuns) {
  pid_t pid = fork();
  if (pid == 0) {
    bool* flag = static_cast<bool*>(library_symbol::quorla_global("g_bool_memory_use_thread_background"));
    if (flag == nullptr) _exit(2);
    *flag = true;  // only in this child: no background thread is asked for here
    constexpr int k_regions = 4;
    void* blocks[k_regions];
    for (void*& block : blocks) block = malloc(1500000);  // a page block that needs a region of its own
    for (void* block : blocks) free(block);
    std::string report = capture(1, stdout, [] { malloc_stats(); });
    std::vector<std::string> lines = split_lines(report.substr(2));
    std::string count_line = "Libquorlamalloc numa_node_count=" + std::to_string(read_global<unsigned int>("g_uint_numa_node_count"));
    for (size_t i = 0; i + 1 < lines.size(); ++i) {
      if (lines[i] != count_line) continue;
      const std::string& queue = lines[i + 1];
      if (!starts_with(queue, "Libquorlamalloc numa_node_2m_block_queue all_byte=")) _exit(4);
      double bytes = amount_bytes(field(queue, "all_byte"));
      // At least the emptied regions but the one kept as the only searched piece.
      if (bytes < (k_regions - 1) * 2097152.0 || std::fmod(bytes, 2097152.0) != 0) _exit(5);
      if (!starts_with(lines[i + 2], "libquorlamalloc thread_local_data vt_all_size=")) _exit(6);
      _exit(0);
    }
    _exit(3);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0) << "2: no flag; 3: no node count line; 4: no queue line; 5: bytes; 6: order";
}

// Four threads allocate and free hard, large blocks and blocks of other threads included,
// while the main thread takes the report again and again: it ends every time, whole, and the
// reporting thread calls no allocation function while it reports.
TEST(MallocStats, ReportDuringHardChurnNeitherCrashesNorDeadlocksNorAllocates) {
  std::atomic<bool> stop{false};
  std::atomic<void*> handed{nullptr};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      unsigned int seed = 12345u + t;
      std::vector<void*> live(64, nullptr);
      while (!stop.load(std::memory_order_relaxed)) {
        seed = seed * 1103515245u + 12345u;
        unsigned int slot = (seed >> 8) & 63;
        free(live[slot]);
        unsigned int kind = (seed >> 16) % 100;
        size_t size = kind < 70 ? 8 + (seed >> 20) % 1024 : kind < 95 ? 4096 + (seed >> 12) % 60000 : 2100000 + (seed >> 10) % 3000000;
        live[slot] = malloc(size);
        static_cast<unsigned char*>(live[slot])[0] = 1;
        if (kind == 42) free(handed.exchange(malloc(200)));  // a block freed by another thread
      }
      for (void* block : live) free(block);
    });
  }
  // The first report writes through stdout's buffer, which stdio takes once: not the report's.
  capture(1, stdout, [] { malloc_stats(); });
  unsigned long calls_before = g_armed_calls.load();
  std::string reports = capture(1, stdout, [] {
    t_bool_armed = true;
    for (int round = 0; round < 30; ++round) malloc_stats();
    t_bool_armed = false;
  });
  unsigned long armed_calls = g_armed_calls.load() - calls_before;
  stop.store(true);
  for (std::thread& thread : threads) thread.join();
  free(handed.exchange(nullptr));

  EXPECT_EQ(armed_calls, 0u) << "the report called an allocation function";
  size_t reports_seen = 0;
  for (size_t at = 0; (at = reports.find("\r\nLibquorlamalloc os_byte=", at)) != std::string::npos; ++at) ++reports_seen;
  EXPECT_EQ(reports_seen, 30u);
  EXPECT_NE(reports.rfind("libquorlamalloc thread_local_data vt_all_size="), std::string::npos);
}

TEST(MisuseReport, FreeFailWritesOneLineAndTheProgramGoesOn) {
  int marker = 0;
  std::string err = capture(2, stderr, [&marker] { quorla_free_fail(&marker, 7); });
  char expected[160];
  snprintf(expected, sizeof(expected), "Error: quorla_free() failed. error point. ptr=%016lx, error_number=7, thread_id_this=%016lx\r\n",
           reinterpret_cast<unsigned long>(&marker), static_cast<unsigned long>(pthread_self()));
  EXPECT_EQ(err, expected);
}

TEST(MisuseReport, AnAlignmentAboveARegionIsReportedAndStillServed) {
  constexpr size_t k_alignment = 4194304;  // above 2 MB: no promise of alignment
  void* block = nullptr;
  std::string err = capture(2, stderr, [&block] { block = memalign(k_alignment, 100); });
  EXPECT_EQ(err, "Error: quorla_aligned_alloc() fail. align too big. size_in=100, alignment_in=4194304\r\n");
  ASSERT_NE(block, nullptr) << "the request goes on after the line";
  memset(block, 7, 100);
  free(block);
}

}  // namespace
