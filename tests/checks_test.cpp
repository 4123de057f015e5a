#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/mips.h"
#include "planning_fixture.h"
#include "support/fatal.h"

using namespace vesk;
using namespace vesk::test;

namespace {


// Procedures p0..pN-1 of four words each (a frame, a nop, a return and its
// delay slot); `patch` changes single words before the table is built.
struct Checks : Planning {
  std::vector<Proc *> p;
  std::vector<uint32_t> words;

  void procs(int n) {
    words.clear();
    for (int i = 0; i < n; ++i)
      words.insert(words.end(), {ADDIU_SP, NOP, JR_RA, NOP});
  }
  // Builds the table and links the list in the given order of indexes.
  void build(const std::vector<int> &list_order) {
    bin.procs = ProcTable{};
    set_text(LO, words);
    p.clear();
    for (size_t i = 0; i < words.size() / 4; ++i)
      p.push_back(make(numbered("p", i), LO + 16 * i, 16));
    std::vector<Proc *> fed;
    for (int i : list_order)
      fed.push_back(p[size_t(i)]);
    attach(fed);
  }
  static uint64_t addr(int proc, int word) { return LO + 16 * uint64_t(proc) + 4 * uint64_t(word); }
  // A branch in word w of procedure `from` to word 0 of procedure `to`.
  void branch(int from, int w, int to) {
    words[size_t(4 * from + w)] = beq_zero(int32_t((addr(to, 0) - addr(from, w) - 4) / 4));
  }
};

TEST_F(Checks, ForwardBranchTiesEveryProcedureInBetween) {
  procs(6);
  branch(1, 1, 4);
  build({4, 5, 2, 0, 1, 3});
  option.verbose = 1;
  testing::internal::CaptureStderr();
  check_branch_out_of_procedure();
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(order(), (Order{"p5", "p0", "p1", "p2", "p3", "p4"}));
  for (int i = 0; i < 6; ++i)
    EXPECT_EQ(p[size_t(i)]->tied, i >= 1 && i <= 3) << i;
  // A note for each pair the list had to change for.
  EXPECT_EQ(err, "Note: p1 and p2 tied, branch in p1[0x400014]\nNote: p3 and p4 tied, branch in p1[0x400014]\n");
  EXPECT_EQ(bin.procs.order_head->prev, nullptr);
  for (Proc *q = bin.procs.order_head; q->next; q = q->next)
    EXPECT_EQ(q->next->prev, q);
}

TEST_F(Checks, BranchOpcodesThatTie) {
  // REGIMM (traps included) and COP2 branches tie; COP1 branches and jumps
  // do not.
  const uint32_t regimm_trap = 0x04880000; // tgei a0,0
  const uint32_t bc2f = 0x49000000;
  const uint32_t bc1f = 0x45000000;
  const uint32_t j = 0x08000000;
  EXPECT_TRUE(mips::ties_as_branch(regimm_trap));
  EXPECT_TRUE(mips::ties_as_branch(bc2f));
  EXPECT_TRUE(mips::ties_as_branch(0x54000000)); // bnel
  EXPECT_FALSE(mips::ties_as_branch(bc1f));
  EXPECT_FALSE(mips::ties_as_branch(0x4a000000)); // cop2 with rs 16
  EXPECT_FALSE(mips::ties_as_branch(j));
  EXPECT_FALSE(mips::ties_as_branch(JR_RA));

  procs(4);
  words[1] = regimm_trap | 7; // to p2
  words[9] = bc1f | 0x10;     // not a tie
  build({2, 0, 3, 1});
  check_branch_out_of_procedure();
  EXPECT_EQ(order(), (Order{"p0", "p1", "p2", "p3"}));
  EXPECT_EQ(p[2]->tied, 0);
}

TEST_F(Checks, CallAtTheEndAndFallThroughTie) {
  procs(6);
  words[4 * 0 + 2] = jal(addr(5, 0)); // p0 ends in a call: returns into p1
  words[4 * 2 + 2] = JALR_T9;         // p2 ends in a call through a register
  words[4 * 3 + 2] = BREAK0;          // p3 ends in a break: no tie
  words[4 * 4 + 2] = NOP;             // p4 falls through into p5
  build({4, 2, 0, 5, 3, 1});
  option.verbose = 1;
  testing::internal::CaptureStderr();
  tie_procedures_ending_in_a_call();
  tie_procedures_without_a_return();
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(order(), (Order{"p4", "p5", "p2", "p3", "p0", "p1"}));
  EXPECT_EQ(err, "Note: p2 and p3 tied, jal/jalr\nNote: p0 and p1 tied, jal/jalr\nNote: p4 and p5 tied, no jr\n");
  // Calls and fall-through make no tie when the procedure returns or stops
  // with a break before its end.
  EXPECT_EQ(p[3]->tied, 0);
  EXPECT_EQ(p[5]->tied, 0);
}

TEST_F(Checks, TyingErrors) {
  procs(4);
  build({0, 2, 1, 3});
  EXPECT_FATAL(put_proc_together(p[0], p[2]), "^Error: internal in put_proc_together\\.\n$");
  p[0]->tied = 1;
  EXPECT_FATAL(put_proc_together(p[0], p[1]), "^Error: p0 already tied\\.\n$");
  // A chain that already holds a cannot move behind a.
  build({1, 0, 2, 3});
  p[1]->tied = 1;
  EXPECT_FATAL(put_proc_together(p[0], p[1]), "^Error: cannot tie p1 behind p0: p0 is tied behind p1 already\\.\n$");
}

TEST_F(Checks, BranchMessages) {
  procs(3);
  words.push_back(beq_zero(0)); // a branch that no procedure holds
  build({});
  EXPECT_FATAL(check_branch_out_of_procedure(), "^Error: cannot find procedure for branch target 0x400030\\.\n$");

  procs(3);
  words[1] = beq_zero(0x100); // far outside every procedure
  build({});
  testing::internal::CaptureStderr();
  check_branch_out_of_procedure();
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Warning: branch target 0x400408 from 0x400004 not in any procedure.\n");

  // A successor that starts below its predecessor (overlapping ranges).
  procs(4);
  branch(1, 1, 3);
  build({});
  p[2]->old_addr = addr(0, 3);
  p[2]->size = 36;
  EXPECT_FATAL(check_branch_out_of_procedure(), "^Error: branch p1.addr > p2.addr\\.\n$");

  // A gap between the procedures: nothing to tie across it.
  procs(3);
  branch(0, 1, 2);
  build({2, 1, 0});
  p[1]->old_addr += 4;
  p[1]->size -= 4;
  testing::internal::CaptureStderr();
  check_branch_out_of_procedure();
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Warning: no procedure at 0x400010 behind p0: branch in p0[0x400004] ties nothing further.\n");
  EXPECT_EQ(order(), (Order{"p2", "p1", "p0"}));
}

TEST_F(Checks, CoverageAndLibraryStubs) {
  // Two stub words, p0, an uncovered padding word and an uncovered other
  // word, then p1.
  words = {0x8f998010, 0x03200008, ADDIU_SP, JR_RA, NOP, 0x24020001, ADDIU_SP, NOP, JR_RA, NOP};
  set_text(LO, words);
  make("a", LO + 8, 12);
  make("b", LO + 24, 16);
  attach_proc_with_no_feedback();
  option.debug = 1;
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  verify_proc();
  std::string out = testing::internal::GetCapturedStdout();
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(out, "these instruction are likely lib stubs: [0-1] 0x400000 - 0x400008\n");
  EXPECT_EQ(err, "Warning: instruction count 10\n.\n"
                 "Warning: instruction 5 at 0x400014 not covered in debug section.\n");
  EXPECT_EQ(bin.libstub_lo, LO);
  EXPECT_EQ(bin.libstub_hi, LO + 8);
  // A word that two procedures claim would be moved twice.
  make("c", LO + 32, 4);
  attach_proc_list(get_proc_by_index(2));
  EXPECT_FATAL(verify_proc(), "instruction 8 at 0x400020 covered twice \\(procedure c overlaps another\\)");

  // Without stubs the first uncovered run is the first gap; a later gap
  // that holds a no-op is expected padding.
  bin.procs = ProcTable{};
  make("a", LO, 12);
  make("b", LO + 16, 20);
  attach_proc_with_no_feedback();
  option.debug = 0;
  testing::internal::CaptureStderr();
  verify_proc();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Warning: instruction count 10\n.\n");
  EXPECT_EQ(bin.libstub_lo, LO + 12);
  EXPECT_EQ(bin.libstub_hi, LO + 16);
}

} // namespace
