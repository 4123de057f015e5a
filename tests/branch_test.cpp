// Branch and jump fix-up on hand-made texts and layouts.
#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "com/branch.h"
#include "support/rewrite_harness.h"
#include "vesk/bin.h"
#include "vesk/bytes.h"
#include "vesk/mips.h"
#include "vesk/options.h"

using namespace vesk;
using namespace vesk::test;

namespace {

constexpr uint32_t NOP = 0;
uint32_t beq(int16_t off) { return 0x10000000u | uint16_t(off); }           // beq zero,zero
uint32_t bgezal(int16_t off) { return 0x04110000u | uint16_t(off); }        // bal
uint32_t bc1t(int16_t off) { return 0x45010000u | uint16_t(off); }          // bc1t
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

// The words of a text with a leading run, then procedures A (4 words) and
// B (4 words).
std::vector<uint32_t> two_procedures(uint32_t a0, uint32_t a1, uint32_t b0) {
  return {NOP, NOP, a0, a1, NOP, NOP, b0, NOP, NOP, NOP};
}

} // namespace

TEST_F(BranchFixup, BranchesFollowTheirTargetsAcrossMovedProcedures) {
  // A (words 2-5): beq to itself and beq into B; B (words 6-9): bal back to A.
  set_text(0x400000, two_procedures(beq(-1), beq(2), bgezal(-5)));
  lay_out_runs({{0, 2}, {6, 4}, {2, 4}}); // B now in front of A
  update_branch_offset();
  // The self-branch keeps -1; the others are recomputed from the new places.
  EXPECT_EQ(new_word_of(2), beq(-1));
  EXPECT_EQ(mips::branch_target(map[3], new_word_of(3)), map[6]);
  EXPECT_EQ(mips::branch_target(map[6], new_word_of(6)), map[2]);
  // Opcode and registers stay; only bytes 2 and 3 change, big-endian.
  const uint8_t *w = bin.new_text + (map[6] - bin.text_lo);
  EXPECT_EQ(w[0], 0x04);
  EXPECT_EQ(w[1], 0x11);
  EXPECT_EQ(load16(w + 2), uint16_t(int16_t((int64_t(map[2]) - int64_t(map[6]) - 4) / 4)));
}

TEST_F(BranchFixup, WholeProcedureMovesKeepTheirInternalOffsets) {
  // A branches inside A, B inside B; B moves in front of A.
  set_text(0x400000, two_procedures(beq(1), NOP, bc1t(2)));
  lay_out_runs({{6, 4}, {0, 6}});
  update_branch_offset();
  EXPECT_EQ(new_word_of(2), beq(1));
  EXPECT_EQ(new_word_of(6), bc1t(2));
}

TEST_F(BranchFixup, BranchThatCannotReachIsDefusedWithAWarning) {
  // Old: a branch at word 0 to word 100. New: 40000 words lie in between.
  std::vector<uint32_t> words(40104, NOP);
  words[0] = beq(99);
  set_text(0x400000, words);
  lay_out_runs({{0, 4}, {104, 40000}, {4, 96}, {100, 4}});
  testing::internal::CaptureStderr();
  update_branch_offset();
  std::string err = testing::internal::GetCapturedStderr();
  uint32_t far = uint32_t((map[100] - map[0] - 4) >> 2);
  EXPECT_EQ(err, "Warning: branch new offset " + [&] {
    char b[64];
    std::snprintf(b, sizeof b, "%#x at 0x400000 out of range.\n", far);
    return std::string(b);
  }());
  EXPECT_EQ(new_word_of(0), beq(0));
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

TEST_F(BranchFixup, JumpWhoseNewPlaceLeavesTheTargetsRegionIsReported) {
  // .text straddles a 256 MB boundary; the jal moves behind it, its target
  // stays in front.
  uint64_t lo = 0x0fffff00;
  std::vector<uint32_t> words(128, NOP);
  words[0] = jal(lo + 0x10);
  set_text(lo, words);
  lay_out_runs({{2, 126}, {0, 2}});
  testing::internal::CaptureStderr();
  update_branch_offset();
  std::string err = testing::internal::GetCapturedStderr();
  char expect[128];
  std::snprintf(expect, sizeof expect, "Warning: jump at %#llx cannot reach %#llx from its new place.\n",
                (unsigned long long)lo, (unsigned long long)map[4]);
  EXPECT_EQ(err, expect);
}

TEST_F(BranchFixup, RegisterJumpsTrapsAndOtherWordsAreLeftAlone) {
  std::vector<uint32_t> words = {
      0x03e00008, // jr ra
      0x0320f809, // jalr t9
      0x048c0007, // teqi a0,7 (REGIMM rt 12)
      0x44800800, // mtc1 zero,$f1
      0x4c000000, // COP1X
      0x24840001, // addiu a0,a0,1
      0x8c820000, // lw v0,0(a0)
      NOP,
  };
  set_text(0x400000, words);
  lay_out_runs({{4, 4}, {0, 4}});
  update_branch_offset();
  for (uint32_t k = 0; k < words.size(); ++k)
    EXPECT_EQ(new_word_of(k), words[k]) << k;
}

// The opcode table of the fix-up, row by row.
TEST(BranchClassification, FollowsTheOpcodeTable) {
  using mips::Fixup;
  for (uint32_t op = 0; op < 64; ++op)
    for (uint32_t r = 0; r < 32; ++r) {
      uint32_t w = op << 26 | r << 21 | r << 16 | 0x1234;
      Fixup want = Fixup::none;
      if (op == 1 && (r <= 3 || (r >= 16 && r <= 19)))
        want = Fixup::branch; // REGIMM by rt
      else if (op == 2 || op == 3)
        want = Fixup::jump;
      else if ((op >= 4 && op <= 7) || (op >= 20 && op <= 23))
        want = Fixup::branch;
      else if (op >= 16 && op <= 18 && r == 8)
        want = Fixup::branch; // BCzF/T(L) by rs
      EXPECT_EQ(mips::fixup_kind(w), want) << "op " << op << " r " << r;
    }
}
