#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/mips.h"
#include "planning_fixture.h"
#include "vesk/order.h"
#include "vesk/r4000.h"

using namespace vesk;
using namespace vesk::test;

namespace {

constexpr uint32_t LO32 = uint32_t(LO);
const std::string CANNOT_FIX = "Warning: cannot fix R4000 eop bug.\n";

// Procedures given by their words, laid end to end from LO.
struct R4000 : Planning {
  std::vector<std::vector<uint32_t>> bodies;
  std::vector<Proc *> p;

  static std::vector<uint32_t> body(size_t words, std::vector<std::pair<size_t, uint32_t>> set = {}) {
    std::vector<uint32_t> b(words, ADDIU_SP);
    b[words - 2] = JR_RA;
    b[words - 1] = NOP;
    for (auto [i, w] : set)
      b[i] = w;
    return b;
  }
  void build(const std::vector<int> &list_order, std::vector<uint32_t> stubs = {}) {
    bin.procs = ProcTable{};
    std::vector<uint32_t> words = stubs;
    std::vector<uint64_t> starts;
    for (auto &b : bodies) {
      starts.push_back(LO + 4 * words.size());
      words.insert(words.end(), b.begin(), b.end());
    }
    set_text(LO, words);
    for (size_t i = 0; i < bodies.size(); ++i)
      make(numbered("r", i), starts[i], uint32_t(4 * bodies[i].size()));
    p.clear();
    for (size_t i = 0; i < bodies.size(); ++i)
      p.push_back(get_proc_by_index(long(i)));
    std::vector<Proc *> fed;
    for (int i : list_order)
      fed.push_back(p[size_t(i)]);
    attach(fed);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    verify_proc();
    testing::internal::GetCapturedStderr();
    testing::internal::GetCapturedStdout();
  }
  // Faulty page ends of the real new text, judged here from its words.
  uint32_t faults_in_new_text() const {
    uint32_t n = 0;
    for (uint64_t i = 1023; i < bin.new_text_fill; i += 1024) {
      uint32_t w = new_word(i);
      int r1, r2;
      if (mips::r4000_is_divide(w))
        ++n;
      else if (mips::r4000_is_branch(w, r1, r2) && i >= 2) {
        uint32_t x = new_word(i - 2);
        n += mips::r4000_is_memory_access(x) || mips::is_mfc1(x);
      }
    }
    return n;
  }
};

TEST_F(R4000, FaultsInOneBlock) {
  std::vector<uint32_t> w(2048, ADDIU_SP);
  w[1023] = DIV_A0_A1;
  set_text(LO, w);
  EXPECT_EQ(check_r4000_bug_per_block(0, LO32, LO32, 16), 0u); // ends before its page does
  EXPECT_EQ(check_r4000_bug_per_block(0, LO32, LO32, 8192), 1u);
  EXPECT_EQ(check_r4000_bug_per_block(0, LO32 + 4, LO32, 8192), 0u);
  EXPECT_EQ(check_r4000_bug_per_block(0, LO32 + 0x1000, LO32, 8192), 1u);
  // A block that reaches beyond the text reads nothing there.
  EXPECT_EQ(check_r4000_bug_per_block(0, LO32, LO32, 0x10000), 1u);
  EXPECT_EQ(check_r4000_bug_per_block(0, LO32, LO32 - 0x2000, 0x3000), 1u);

  // A branch ending a page is a fault only after a memory access or MFC1.
  w[1023] = JR_RA;
  set_text(LO, w);
  EXPECT_EQ(check_r4000_bug_per_block(0, LO32, LO32, 8192), 0u);
  for (uint32_t before : {LW_T0, MFC1_T0, 0xafbf0010u /* sw */, 0xbc800000u /* cache */}) {
    w[1021] = before;
    set_text(LO, w);
    EXPECT_EQ(check_r4000_bug_per_block(0, LO32, LO32, 8192), 1u) << std::hex << before;
  }
  w[1021] = LW_T0;
  w[1022] = LW_T0; // the word right before does not matter
  w[1023] = beq_zero(5);
  set_text(LO, w);
  EXPECT_EQ(check_r4000_bug_per_block(0, LO32, LO32, 8192), 1u);
  w[1021] = ADDIU_SP;
  set_text(LO, w);
  EXPECT_EQ(check_r4000_bug_per_block(0, LO32, LO32, 8192), 0u);
}

TEST_F(R4000, FaultyProceduresGetAnotherInFront) {
  // r1 ends the first page with a divide: r2 goes in front of it.
  bodies = {body(1020), body(8, {{3, DIV_A0_A1}}), body(8), body(8)};
  build({0, 1, 2, 3});
  EXPECT_EQ(check_r4000_bug_per_block(0, LO32 + 0xff0, LO32 + 0xff0, 32), 1u);
  fix_r4000_bug();
  EXPECT_EQ(order(), (Order{"r0", "r2", "r1", "r3"}));
  option.debug = 1;
  testing::internal::CaptureStderr();
  check_r4000_bug();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  testing::internal::CaptureStdout();
  reorder_procedures();
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(faults_in_new_text(), 0u);
  expect_layout_invariants();

  // r1 would end the first page with a jr whose second word before is a
  // load; r2 is faulty at r1's place too; r3 and r4 are tied and move as
  // one.
  option.debug = 0;
  bodies = {body(1016),
            body(16, {{5, LW_T0}, {7, JR_RA}}),
            body(8, {{7, DIV_A0_A1}}),
            body(8, {{6, NOP}}), // falls through into r4
            body(8)};
  build({0, 1, 2, 3, 4});
  tie_procedures_without_a_return();
  ASSERT_EQ(p[3]->tied, 1);
  fix_r4000_bug();
  EXPECT_EQ(order(), (Order{"r0", "r3", "r4", "r1", "r2"}));
  testing::internal::CaptureStdout();
  reorder_procedures();
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(faults_in_new_text(), 0u);
  expect_layout_invariants();
}

TEST_F(R4000, UnfixableFaults) {
  // At the head of the list nothing can go in front: a warning with -v only.
  bodies = {body(1024, {{1023, DIV_A0_A1}}), body(8)};
  build({0, 1});
  testing::internal::CaptureStderr();
  fix_r4000_bug();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  option.verbose = 1;
  testing::internal::CaptureStderr();
  fix_r4000_bug();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), CANNOT_FIX);
  EXPECT_EQ(order(), (Order{"r0", "r1"}));

  // No candidate fits: two warnings, and the prediction moves on by twice
  // the faulty procedure's size, which makes r2 faulty at its predicted
  // place (and unfixable in turn).
  option.verbose = 0;
  bodies = {body(1020), body(8, {{3, DIV_A0_A1}}), body(1024, {{3, DIV_A0_A1}, {1011, DIV_A0_A1}})};
  build({0, 1, 2});
  testing::internal::CaptureStderr();
  fix_r4000_bug();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), CANNOT_FIX + CANNOT_FIX + CANNOT_FIX + CANNOT_FIX);
  EXPECT_EQ(order(), (Order{"r0", "r1", "r2"}));
}

TEST_F(R4000, PredictionStartsBehindLeadingStubsElseAtTheText) {
  // r1 leads the list; its divide is its word 1021, which ends the first
  // page when r1 starts two words into the text.
  bodies = {body(2), body(1024, {{1021, DIV_A0_A1}})};
  option.debug = 1;
  build({1, 0}, {0x1111, 0x2222});
  ASSERT_EQ(bin.libstub_lo, LO);
  testing::internal::CaptureStderr();
  check_r4000_bug();
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Warning: R4000 eop bug. old[0x401004] = new[0x400ffc]= 0x85001a .\n");

  // Stubs that do not start the text are not kept in front: r1 starts the
  // text and its divide ends no page.
  build({1, 0});
  bin.libstub_lo = LO + 0x2000;
  bin.libstub_hi = LO + 0x2008;
  testing::internal::CaptureStderr();
  check_r4000_bug();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  // Reports need -debug.
  option.debug = 0;
  build({1, 0}, {0x1111, 0x2222});
  testing::internal::CaptureStderr();
  check_r4000_bug();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

} // namespace
