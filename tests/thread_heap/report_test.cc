// The reports of small-block pieces and groups and of page pieces and groups: leak checks,
// the misuse line of a release that found no block, and the single-structure prints. Each
// report runs in a child whose standard error is captured and whose allocation calls are
// counted (none is allowed: these run below malloc); the child goes on after every report.
// The expected lines are built from the blocks the test took and the written rules of each
// line, never from the report's own output.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "os_memory/malloc_call_counter.h"
#include "thread_heap/own_heap.h"
#include "thread_heap/quorla_bitmap_group.h"

namespace quorla {
namespace {

constexpr unsigned long k_thread = 0x4242;  // no thread has it: the heap is only looked at

std::string hex16(unsigned long value) {
  char text[32];
  snprintf(text, sizeof(text), "%016lx", value);
  return text;
}
std::string hex16(const void* ptr) { return hex16(reinterpret_cast<unsigned long>(ptr)); }

// The report ran to its end (the child went on to exit 0) without one allocation.
malloc_call_counter::Child_outcome report_of(const std::function<void()>& body) {
  malloc_call_counter::Child_outcome outcome = malloc_call_counter::run_in_child([&body] {
    body();
    fputs("<went on>", stderr);
  });
  EXPECT_TRUE(WIFEXITED(outcome.int_status) && WEXITSTATUS(outcome.int_status) == 0);
  EXPECT_EQ(outcome.ulong_allocations, 0u) << "a report allocated";
  const std::string tail = "<went on>";
  if (outcome.str_stderr.size() >= tail.size() &&
      outcome.str_stderr.compare(outcome.str_stderr.size() - tail.size(), tail.size(), tail) == 0) {
    outcome.str_stderr.resize(outcome.str_stderr.size() - tail.size());
  } else {
    ADD_FAILURE() << "the program did not go on after the report";
  }
  return outcome;
}

struct Taken_block {
  void* ptr;
  unsigned int offset;
  unsigned int bit_size;
};

class SmallBlockReport : public ::testing::Test {
 protected:
  void SetUp() override {
    group = &own.heap->ar_group[6];  // 112-byte blocks, class 6
    for (unsigned int bit_size : {1u, 1u, 3u, 1u}) {
      void* ptr = bit_size == 1 ? group->take_one_block() : group->malloc_bit_size(bit_size);
      piece = group->ptr_piece_first;
      taken.push_back({ptr, static_cast<unsigned int>((static_cast<unsigned char*>(ptr) - piece->ptr_block) / 112), bit_size});
    }
  }
  void TearDown() override {
    for (const Taken_block& block : taken) piece->release_block(block.ptr);
  }
  std::string leak_line(const Taken_block& block, unsigned int count) const {
    return "Warn: Memory_bitmap_piece::check_memory_leak(), leak_ptr=" + hex16(block.ptr) +
           ", byte_size=" + std::to_string(112 * block.bit_size) + ", bit_size=" + std::to_string(block.bit_size) +
           ", bit_offset=" + std::to_string(block.offset) + ", count_num=" + std::to_string(count) + "\r\n";
  }

  Own_heap own{k_thread};
  Memory_bitmap_group* group = nullptr;
  Memory_bitmap_piece* piece = nullptr;
  std::vector<Taken_block> taken;
};

TEST_F(SmallBlockReport, LeakCheckListsEveryLiveBlockInOffsetOrderAfterItsHeader) {
  std::vector<Taken_block> by_offset = taken;
  std::sort(by_offset.begin(), by_offset.end(), [](const Taken_block& a, const Taken_block& b) { return a.offset < b.offset; });
  std::string expected = "\r\nWarn: Memory_bitmap_piece::check_memory_leak(). block_type=6, bit_ref_size=112, bit_size=6" +
                         std::string(", thread_id=") + hex16(k_thread) + ", ptr_block=" + hex16(piece->ptr_block) +
                         ", this=" + hex16(piece) + "\r\n";
  for (unsigned int i = 0; i < by_offset.size(); ++i) expected += leak_line(by_offset[i], i + 1);
  EXPECT_EQ(report_of([this] { piece->check_memory_leak(); }).str_stderr, expected);
}

TEST_F(SmallBlockReport, LeakCheckOfAPieceWithNothingLiveStillWritesItsHeader) {
  for (const Taken_block& block : taken) piece->release_block(block.ptr);
  taken.clear();
  // The piece gave its memory back with its last block and stays as the group's only piece.
  ASSERT_EQ(group->ptr_piece_first, piece);
  std::string expected = "\r\nWarn: Memory_bitmap_piece::check_memory_leak(). block_type=6, bit_ref_size=112, bit_size=0" +
                         std::string(", thread_id=") + hex16(k_thread) + ", ptr_block=" + hex16(nullptr) +
                         ", this=" + hex16(piece) + "\r\n";
  EXPECT_EQ(report_of([this] { piece->check_memory_leak(); }).str_stderr, expected);
}

TEST_F(SmallBlockReport, FreeFailNamesTheBytesOrSuspectsADoubleFree) {
  const Taken_block& run = taken[2];
  std::string with_size = "Error: Memory_bitmap_piece::free_fail(). ptr=" + hex16(run.ptr) + ", bit_offset=" +
                          std::to_string(run.offset) + ", bit_size=3, bit_ref_size=112, block_type=6, free_byte_size=336\r\n";
  EXPECT_EQ(report_of([this, run] { piece->free_fail(run.ptr, run.offset, 3); }).str_stderr, with_size);
  std::string double_free = "Error: Memory_bitmap_piece::free_fail(). ptr=" + hex16(run.ptr) + ", bit_offset=" +
                            std::to_string(run.offset) + ", bit_size=0, bit_ref_size=112, block_type=6, maybe double free.\r\n";
  EXPECT_EQ(report_of([this, run] { piece->free_fail(run.ptr, run.offset, 0); }).str_stderr, double_free);
}

TEST_F(SmallBlockReport, PiecePrintGivesItsCountsItsBitmapAndOneLinePerBlockInUse) {
  unsigned long word0 = 0;
  for (const Taken_block& block : taken) {
    for (unsigned int i = 0; i < block.bit_size; ++i) word0 |= 1ul << (block.offset + i);
  }
  std::vector<Taken_block> by_offset = taken;
  std::sort(by_offset.begin(), by_offset.end(), [](const Taken_block& a, const Taken_block& b) { return a.offset < b.offset; });
  std::string expected = "Log: Memory_bitmap_piece::print() 1, block_type=6, bit_ref_byte=112, free_bit_size=506, offset_normal=0" +
                         std::string(", ptr_block=") + hex16(piece->ptr_block) + "\r\n" +
                         "Log: Memory_bitmap_piece::print() 2, ptr_ulong[0]=" + hex16(word0) + "\r\n";
  for (unsigned int i = 0; i < by_offset.size(); ++i) {
    const Taken_block& block = by_offset[i];
    expected += "Log: Memory_bitmap_page_piece::print() 3. ptr=" + hex16(block.ptr) + ", offset=" + std::to_string(block.offset) +
                ", byte_size=" + std::to_string(112 * block.bit_size) + ", bit_size=" + std::to_string(block.bit_size) +
                ", count_num=" + std::to_string(i + 1) + "\r\n";
  }
  EXPECT_EQ(report_of([this] { piece->print(); }).str_stderr, expected);
}

TEST_F(SmallBlockReport, GroupPrintCountsThePiecesWithMemoryAndIsSilentWithout) {
  // One piece with memory: 512 blocks, 6 of them in use; rates are integer percentages.
  std::string expected = "Log: Memory_bitmap_group thread_id=" + hex16(k_thread) +
                         " type=6, bit_ref_size=112, piece_normal=1, piece_full=0, free_rate=98%, use_rate=1%," +
                         " bit_capacity=512, bit_use=6, bit_free=506\r\n";
  EXPECT_EQ(report_of([this] { group->print(); }).str_stderr, expected);
  const Memory_bitmap_group* unused = &own.heap->ar_group[9];
  EXPECT_EQ(report_of([unused] { unused->print(); }).str_stderr, "");
}

class PageReport : public ::testing::Test {
 protected:
  Own_heap own{k_thread};
  Memory_bitmap_page_group& page_group = own.heap->page_group;
};

TEST_F(PageReport, LeakCheckOfAnEmptyRegionIsSilentAndListsPageBlocksInRisingOrder) {
  Memory_bitmap_page_piece* piece = page_group.ptr_first_normal;
  ASSERT_EQ(piece->uint_free_bit, 511u) << "a new heap holds an empty region";
  EXPECT_EQ(report_of([piece] { piece->check_memory_leak(); }).str_stderr, "");

  unsigned char* run = page_group.malloc_bit_size(3);
  unsigned char* page = page_group.take_one_page();
  ASSERT_EQ(page_group.ptr_first_normal, piece);
  unsigned char* region = piece->ptr_byte_block;
  struct Leak {
    unsigned char* ptr;
    unsigned long bit_size;
  };
  std::vector<Leak> leaks = {{run, 3}, {page, 1}};
  std::sort(leaks.begin(), leaks.end(), [](const Leak& a, const Leak& b) { return a.ptr < b.ptr; });
  std::string expected = "\r\nWarn: Memory_bitmap_page_piece::check_memory_leak(), bit_size=4, page_type=" +
                         std::to_string(piece->uchar_page_type) + ", ptr_block=" + hex16(region) + ", thread_id=" +
                         hex16(k_thread) + "\r\n";
  for (unsigned int i = 0; i < leaks.size(); ++i) {
    unsigned long offset = static_cast<unsigned long>(leaks[i].ptr - region) >> 12;
    expected += "Warn: Memory_bitmap_page_piece::check_memory_leak() leak_ptr=" + hex16(leaks[i].ptr) +
                ", bit_offset=" + std::to_string(offset) + ", byte_size=" + std::to_string(leaks[i].bit_size * 4096) +
                ", bit_size=" + std::to_string(leaks[i].bit_size) + ", count_num=" + std::to_string(i + 1) + "\r\n";
  }
  EXPECT_EQ(report_of([piece] { piece->check_memory_leak(); }).str_stderr, expected);

  // The print: counts, list index, region and the bitmap words that are not 0 (bit 0 is the
  // head page, always taken).
  unsigned long word0 = 1;
  for (const Leak& leak : leaks) {
    unsigned long offset = static_cast<unsigned long>(leak.ptr - region) >> 12;
    for (unsigned long i = 0; i < leak.bit_size; ++i) word0 |= 1ul << (offset + i);
  }
  std::string printed = "Log: Memory_bitmap_page_piece::print(). page_type=" + std::to_string(piece->uchar_page_type) +
                        ", free_bit=507, use_bit=4, offset_normal=0, ptr_byte_block=" + hex16(region) +
                        ", ptr_ulong[0]=" + hex16(word0) + "\r\n";
  EXPECT_EQ(report_of([piece] { piece->print(); }).str_stderr, printed);
  EXPECT_EQ(report_of([this] { page_group.print(); }).str_stderr,
            "Log: Memory_bitmap_page_group::print() vt_normal_size=1, vt_full_size=0, thread_id=" + hex16(k_thread) + "\r\n");

  Memory_bitmap_page_group::release_pages(piece, 3, static_cast<unsigned int>((run - region) >> 12));
  Memory_bitmap_page_group::release_pages(piece, 1, static_cast<unsigned int>((page - region) >> 12));
}

}  // namespace
}  // namespace quorla
