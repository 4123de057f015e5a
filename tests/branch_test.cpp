// Branch and jump fix-up on hand-made texts and layouts.
#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "base/bin.h"
#include "base/bytes.h"
#include "base/mips.h"
#include "com/branch.h"
#include "support/fatal.h"
#include "support/rewrite_harness.h"
#include "vesk/options.h"

using namespace vesk;
using namespace vesk::test;

namespace {

constexpr uint32_t NOP = 0;
uint32_t beq(int16_t off) { return 0x10000000u | uint16_t(off); }           // beq zero,zero
uint32_t jal(uint64_t target) { return 0x0c000000u | uint32_t((target >> 2) & 0x3ffffff); }
uint32_t j(uint64_t target) { return 0x08000000u | uint32_t((target >> 2) & 0x3ffffff); }

// A text of `words` at `lo`, laid out again as the given runs of old word
// indices [first, first + count), in new order.
class BranchFixup : public RewriteTest {
protected:
  std::vector<uint8_t> old_text, new_text_buf;
  std::vector<uint64_t> map;

  void set_text(uint64_t lo, std::vector<uint32_t> words) {
    bin = Bin{};
    option = Options{};
    old_text.assign(words.size() * 4, 0);
    for (size_t k = 0; k < words.size(); ++k)
      set_word_at(old_text.data(), k, words[k]);
    bin.text_lo = lo;
    bin.text_hi = lo + words.size() * 4;
    bin.exec_lo = lo;
    bin.exec_hi = bin.text_hi;
    bin.text_words = uint32_t(words.size());
    bin.text_buf = old_text.data();
    map.assign(words.size(), 0);
    new_text_buf.assign(old_text.size(), 0);
    bin.text_map = map.data();
    bin.new_text = new_text_buf.data();
  }

  void lay_out_runs(const std::vector<std::pair<uint32_t, uint32_t>> &runs) {
    uint32_t fill = 0;
    for (auto [first, count] : runs)
      for (uint32_t k = first; k < first + count; ++k) {
        set_word_at(bin.new_text, fill, word_at(bin.text_buf, k));
        map[k] = bin.text_lo + 4 * uint64_t(fill++);
      }
    ASSERT_EQ(fill, bin.text_words);
  }

  uint32_t new_word_of(uint32_t old_index) const {
    return word_at(bin.new_text, (map[old_index] - bin.text_lo) / 4);
  }
};

} // namespace

TEST_F(BranchFixup, BranchOrJumpThatCannotReachEndsTheRun) {
  // Old: a branch at word 0 to word 100. New: 40000 words lie in between.
  std::vector<uint32_t> words(40104, NOP);
  words[0] = beq(99);
  set_text(0x400000, words);
  lay_out_runs({{0, 4}, {104, 40000}, {4, 96}, {100, 4}});
  EXPECT_FATAL(update_branch_offset(), "^Error: branch new offset 0x[0-9a-f]+ at 0x400000 out of range: from its new place 0x400000 the "
              "branch cannot reach 0x[0-9a-f]+\\.\n$");
  // .text straddles a 256 MB boundary; the jal moves behind it, its target
  // stays in front.
  uint64_t lo = 0x0fffff00;
  std::vector<uint32_t> far(128, NOP);
  far[0] = jal(lo + 0x10);
  set_text(lo, far);
  lay_out_runs({{2, 126}, {0, 2}});
  EXPECT_FATAL(update_branch_offset(), "^Error: jump at 0xfffff00 cannot reach 0x[0-9a-f]+ from its new place 0x[0-9a-f]+ \\(another 256 MB "
              "region\\)\\.\n$");
}

TEST_F(BranchFixup, TargetsOutsideTheTextStayWhereTheyAre) {
  // Words 2 and 3 branch and jump to stubs behind .text at 0x400100.
  set_text(0x400000, {NOP, NOP, beq(int16_t((0x400100 - 0x40000c) / 4)), jal(0x400100), NOP, NOP});
  bin.exec_hi = 0x400200; // .MIPS.stubs behind .text
  lay_out_runs({{4, 2}, {0, 4}});
  update_branch_offset();
  EXPECT_EQ(mips::branch_target(map[2], new_word_of(2)), 0x400100u);
  EXPECT_EQ(new_word_of(3), jal(0x400100));
  // With a text shift the code behind .text moves along.
  set_text(0x400000, {jal(0x400100), NOP});
  bin.exec_hi = 0x400200;
  bin.text_shift = 0x40;
  lay_out_runs({{0, 2}});
  update_branch_offset();
  EXPECT_EQ(new_word_of(0), jal(0x400140));
}

TEST_F(BranchFixup, JumpsFollowTheirTargetsAndOddTargetsAreReported) {
  set_text(0x400000, {jal(0x400010), j(0x400008), NOP, NOP, NOP, jal(0x3ff000), NOP, NOP});
  bin.exec_lo = 0x3ff000; // .init in front of .text: does not move
  lay_out_runs({{4, 4}, {0, 4}});
  option.debug = 1;
  testing::internal::CaptureStderr();
  testing::internal::CaptureStdout();
  update_branch_offset();
  std::string out = testing::internal::GetCapturedStdout();
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(mips::jump_target(map[0], new_word_of(0)), map[4]);
  EXPECT_EQ(mips::jump_target(map[1], new_word_of(1)), map[2]);
  EXPECT_EQ(new_word_of(5), jal(0x3ff000));
  EXPECT_EQ(err, "Warning: jump target 0x3ff000 not in .text or .init.\n");
  EXPECT_EQ(out, "<Debug> jump at 0x400000 changed from 0x400010 to 0x400000\n"
                 "<Debug> jump at 0x400004 changed from 0x400008 to 0x400018\n"
                 "<Debug> jump at 0x400014 changed from 0x3ff000 to 0\n");
}
