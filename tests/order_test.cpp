#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "base/diag.h"
#include "base/mips.h"
#include "planning_fixture.h"
#include "support/fatal.h"
#include "support/run.h"
#include "vesk/feedback.h"
#include "vesk/noreturn.h"
#include "vesk/order.h"

using namespace vesk;
using namespace vesk::test;

namespace {

constexpr uint64_t PAGE = 4096;

struct Layout : Planning {
  // A random program: procedures of 2 to 60 words, most ending in a
  // return, some falling through or ending in a call, some branching into
  // a neighbour.  Returns the procedures in address order.
  std::vector<Proc *> random_program(std::mt19937 &rng, int n, uint64_t lo = LO, int returns_in_10 = 8,
                                     int branches_in_8 = 1, int span = 3) {
    std::vector<uint32_t> w;
    std::vector<std::pair<uint64_t, uint32_t>> ranges;
    for (int i = 0; i < n; ++i) {
      uint32_t words = 2 + rng() % 59;
      uint64_t start = w.size();
      for (uint32_t k = 0; k < words; ++k)
        w.push_back(ADDIU_SP + k);
      int kind = int(rng() % 10);
      if (kind < returns_in_10)
        w[start + words - 2] = JR_RA;
      else if (kind % 2 && words >= 3)
        w[start + words - 2] = JALR_T9;
      ranges.push_back({start, words});
    }
    // Branches into neighbours, forwards and backwards.
    for (int i = 0; i < n; ++i) {
      if (int(rng() % 8) >= branches_in_8)
        continue;
      int j = std::clamp(i + int(rng() % unsigned(2 * span + 1)) - span, 0, n - 1);
      if (j == i)
        continue;
      uint64_t from = ranges[size_t(i)].first;
      uint64_t to = ranges[size_t(j)].first + rng() % ranges[size_t(j)].second;
      w[from] = beq_zero(int32_t(int64_t(to) - int64_t(from) - 1));
    }
    set_text(lo, w);
    for (int i = 0; i < n; ++i)
      make(numbered("f", i), lo + 4 * ranges[size_t(i)].first, 4 * ranges[size_t(i)].second);
    return all_procs();
  }

  // Records move while the table grows: pointers are taken once it is full.
  static std::vector<Proc *> all_procs() {
    std::vector<Proc *> v;
    for (int i = 0; i < get_n_procs(); ++i)
      v.push_back(get_proc_by_index(i));
    return v;
  }

  static std::string plan(bool verbose = true) {
    run_checks();
    option.verbose = verbose;
    testing::internal::CaptureStdout();
    reorder_procedures();
    option.verbose = 0;
    return testing::internal::GetCapturedStdout();
  }
};

TEST_F(Layout, StubsAndUncoveredWords) {
  // Two stub words at the start, a procedure, an uncovered word, another
  // procedure, two uncovered words at the end.
  set_text(LO, {0x1111, 0x2222, ADDIU_SP, JR_RA, NOP, 0x3333, ADDIU_SP, JR_RA, NOP, 0x4444, 0x5555});
  Proc *a = make("a", LO + 8, 12);
  Proc *b = make("b", LO + 24, 12);
  attach({b, a});
  testing::internal::CaptureStderr();
  plan(false);
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(bin.libstub_lo, LO);
  // Stubs stay, then b, a, then the uncovered words in input order.
  std::vector<uint64_t> expect = {LO, LO + 4, LO + 20, LO + 24, LO + 28, LO + 32, LO + 8, LO + 12, LO + 16,
                                  LO + 36, LO + 40};
  EXPECT_EQ(map, expect);
  EXPECT_EQ(bin.new_text_fill, 11u);
  expect_layout_invariants();

  // Without stubs at the start, the first uncovered run is not kept in
  // front: it follows the procedures like every other uncovered word.
  bin.procs = ProcTable{};
  set_text(LO, {ADDIU_SP, JR_RA, NOP, 0x3333, ADDIU_SP, JR_RA, NOP});
  make("a", LO, 12);
  make("b", LO + 16, 12);
  attach({});
  testing::internal::CaptureStderr();
  plan(false);
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(bin.libstub_lo, LO + 12);
  expect = {LO, LO + 4, LO + 8, LO + 24, LO + 12, LO + 16, LO + 20};
  EXPECT_EQ(map, expect);
}

TEST_F(Layout, PageStatistics) {
  // Six one-page procedures; the hot ones (1, 3, 5) come first.
  std::vector<uint32_t> w(6 * 1024, ADDIU_SP);
  for (int i = 0; i < 6; ++i)
    w[size_t(1024 * i + 1022)] = JR_RA;
  set_text(LO, w);
  std::vector<Proc *> p;
  for (int i = 0; i < 6; ++i)
    p.push_back(make(numbered("page", i), LO + PAGE * uint64_t(i), PAGE));
  p[1]->freq = p[3]->freq = p[5]->freq = 1;
  attach({p[5], p[3], p[1]});
  testing::internal::CaptureStderr();
  // Pages 1, 3 and 5 plus page 0, which counts whenever it is not touched;
  // then the three first pages.  The end of the text counts as a page.
  EXPECT_EQ(plan(), "Total text 28K. Touched text reduced from 16K to 12K\n");
  testing::internal::GetCapturedStderr();

  // When page 0 is touched, the old count gets nothing added; a text that
  // ends inside its page has no extra page.
  bin.procs = ProcTable{};
  w.resize(1024 + 512);
  set_text(LO, w);
  Proc *hot = make("hot", LO, PAGE);
  make("cold", LO + PAGE, 2048);
  hot->freq = 3;
  attach({hot});
  testing::internal::CaptureStderr();
  EXPECT_EQ(plan(), "Total text 8K. Touched text reduced from 4K to 4K\n");
  testing::internal::GetCapturedStderr();
}

TEST_F(Layout, PageMessagesAndAddressMapping) {
  set_text(LO, {ADDIU_SP, JR_RA, NOP, ADDIU_SP, JR_RA, NOP});
  Proc *a = make("a", LO, 12);
  Proc *b = make("b", LO + 12, 12);
  Proc *empty = make("empty", LO + 12, 0);
  Proc *outside = make("outside", 0x10000, 16);
  a->freq = b->freq = empty->freq = outside->freq = 1;
  attach({b, outside, empty, a});
  option.debug = 1;
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  verify_proc();
  reorder_procedures();
  std::string out = testing::internal::GetCapturedStdout();
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(err, "Warning: instruction count 6\n.\nWarning: empty size 0.\n");
  EXPECT_EQ(out, "<Debug> Procedure Address Mapping\n"
                 "<Debug> [0]                    b old(0x40000c) new(0x400000 - 0x40000c)\n"
                 "<Debug> [1]              outside old(0x10000) not changed\n"
                 "<Debug> [2]                empty old(0x40000c) new(0x400000 - 0x400000)\n"
                 "<Debug> [3]                    a old(0x400000) new(0x40000c - 0x400018)\n");

  // A procedure with feedback that reaches beyond the last page of the text.
  bin.procs = ProcTable{};
  set_text(LO, {ADDIU_SP, JR_RA, NOP, ADDIU_SP, JR_RA, NOP});
  Proc *huge = make("huge", LO + 12, 2 * PAGE);
  huge->freq = 1;
  attach({});
  EXPECT_FATAL(reorder_procedures(), "^Error: procedure huge \\(0x40000c, 8192 bytes\\) reaches beyond the end of \\.text\\.\n$");

  bin.new_text = nullptr;
  EXPECT_FATAL(reorder_procedures(), "^Error: internal: no output text");
}

TEST_F(Layout, MergedFeedbackIsWrittenFromTheTiedList) {
  set_text(LO, {ADDIU_SP, NOP, NOP, ADDIU_SP, JR_RA, NOP});
  Proc *a = make("a", LO, 12); // falls through into b
  Proc *b = make("b", LO + 12, 12);
  b->freq = 5;
  attach({b, a});
  std::string path = ::testing::TempDir() + "vesk_order_merge.fb";
  option.merge_file = path.c_str();
  testing::internal::CaptureStderr();
  plan(false);
  testing::internal::GetCapturedStderr();
  std::string text = read_file(path);
  EXPECT_NE(text.find("a                  a.c          0\n"), std::string::npos);
  EXPECT_LT(text.find(" a "), text.find(" b ")); // a leads: b is tied behind it
  std::remove(path.c_str());
}

// 50,000 procedures and a million branch words plan in about a second.
TEST_F(Layout, PlanningStaysLinear) {
  const int n = 50000;
  const int words = 24;
  std::vector<uint32_t> w;
  w.reserve(size_t(n) * words);
  for (int i = 0; i < n; ++i) {
    w.push_back(ADDIU_SP);
    for (int k = 1; k <= 20; ++k)
      w.push_back(beq_zero(1)); // within the procedure
    w.insert(w.end(), {NOP, JR_RA, NOP});
    if (i % 97 == 5 && i + 1 < n) // now and then a branch into the next one
      w[w.size() - 4] = beq_zero(4);
  }
  set_text(0x10000000, w);
  for (int i = 0; i < n; ++i)
    make("p", 0x10000000 + uint64_t(i) * words * 4, words * 4)->freq = uint32_t(i % 3);
  std::vector<Proc *> procs = all_procs();
  std::vector<Proc *> fed(procs.rbegin(), procs.rend());
  attach(fed);
  auto start = std::chrono::steady_clock::now();
  testing::internal::CaptureStderr();
  plan();
  testing::internal::GetCapturedStderr();
  double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  RecordProperty("seconds", std::to_string(secs));
  EXPECT_LT(secs, 6.0); // sanitizer builds run several times slower
  expect_layout_invariants();
}

// The list walks of the checks pass examined chains in one step; the
// result, notes and traces are those of the plain walk, here written out.
void plain_walk(bool calls) {
  NoReturn never;
  for (Proc &p : bin.procs.records)
    p.examined = false;
  for (Proc *p = bin.procs.order_head; p != nullptr; p = p->next) {
    if (p->examined)
      continue;
    p->examined = true;
    if (p->old_addr < bin.text_lo || p->old_addr >= bin.text_hi)
      continue;
    uint64_t first = (p->old_addr - bin.text_lo) / 4, n = p->size / 4;
    bool tie;
    if (calls) {
      uint32_t w = n >= 2 ? load32(bin.text_buf + 4 * (first + n - 2)) : 0;
      tie = n >= 2 && (mips::is_jal(w) || mips::is_jalr(w)) && !never.ends_in_call_that_never_returns(p);
    } else {
      tie = !(n >= 2 && mips::is_unconditional(load32(bin.text_buf + 4 * (first + n - 2)))) &&
            !never.ends_in_call_that_never_returns(p);
      for (uint64_t k = 0; k < n; ++k) {
        uint32_t w = load32(bin.text_buf + 4 * (first + k));
        if (mips::is_jr(w) || mips::is_break0(w))
          tie = false;
      }
    }
    Proc *q = tie ? get_proc_by_addr(p->old_addr + p->size) : nullptr;
    if (q != nullptr && put_proc_together(p, q) == 1)
      note("%s and %s tied, %s", p->name, q->name, calls ? "jal/jalr" : "no jr");
  }
}

void plain_branch_walk() {
  for (uint64_t i = 0; i < bin.text_words; ++i) {
    uint32_t w = load32(bin.text_buf + 4 * i);
    if (!mips::ties_as_branch(w))
      continue;
    uint64_t a = bin.text_lo + 4 * i, t = mips::branch_target(a, w);
    Proc *p = get_proc_by_addr(a);
    if (t >= p->old_addr && t < p->old_addr + p->size)
      continue;
    Proc *q = get_proc_by_addr(t);
    if (q == nullptr)
      continue;
    Proc *cur = mips::simm16(w) > 0 ? p : q, *to = mips::simm16(w) > 0 ? q : p;
    for (Proc *n = get_proc_by_addr(cur->old_addr + cur->size); cur != to && n != nullptr;
         cur = n, n = get_proc_by_addr(n->old_addr + n->size))
      if (put_proc_together(cur, n) == 1)
        note("%s and %s tied, branch in %s[%#llx]", cur->name, n->name, p->name, (unsigned long long)a);
  }
}

TEST_F(Layout, ListWalksMatchThePlainWalk) {
  int fall_through_notes = 0, branch_notes = 0;
  for (unsigned seed = 1; seed <= 30; ++seed) {
    SCOPED_TRACE(seed);
    std::string results[2];
    for (int plain = 0; plain < 2; ++plain) {
      bin.procs = ProcTable{};
      std::mt19937 rng(seed);
      std::vector<Proc *> procs =
          random_program(rng, 60 + int(rng() % 100), LO, int(rng() % 8), 1 + int(seed % 8), 1 + int(seed % 12));
      if (seed % 3 == 0)
        std::reverse(procs.begin(), procs.end());
      else
        std::shuffle(procs.begin(), procs.end(), rng);
      procs.resize(procs.size() / (1 + seed % 2));
      attach(procs);
      option.verbose = 1;
      option.debug = seed % 5 == 0;
      testing::internal::CaptureStdout();
      testing::internal::CaptureStderr();
      if (plain) {
        plain_branch_walk();
        plain_walk(true);
        plain_walk(false);
      } else {
        check_branch_out_of_procedure();
        tie_procedures_ending_in_a_call();
        tie_procedures_without_a_return();
      }
      results[plain] = testing::internal::GetCapturedStderr() + testing::internal::GetCapturedStdout();
      for (Proc *p = bin.procs.order_head; p; p = p->next)
        results[plain] += std::string(p->name) + (p->tied ? "+" : " ");
      option.verbose = option.debug = 0;
    }
    EXPECT_EQ(results[0], results[1]);
    fall_through_notes += results[0].find("no jr") != std::string::npos;
    branch_notes += results[0].find("branch in") != std::string::npos;
  }
  EXPECT_GT(fall_through_notes, 10);
  EXPECT_GT(branch_notes, 20);
}

// Calls by bal tie every procedure between caller and callee; many calls
// over the same stretch of text cost no more than the first.
TEST_F(Layout, ManyCallsAcrossTheSameProceduresTieQuickly) {
  const int n = 50000;
  const int words = 24;
  std::mt19937 rng(3);
  std::vector<uint32_t> w;
  for (int i = 0; i < n; ++i) {
    w.push_back(ADDIU_SP);
    for (int k = 1; k < words - 2; ++k) {
      int callee = i + 50 + int(rng() % 250);
      if (k % 4 == 1 && callee < n) // bal: bgezal zero
        w.push_back(0x04110000u | (uint32_t((callee - i) * words - k - 1) & 0xffff));
      else
        w.push_back(NOP);
    }
    w.insert(w.end(), {JR_RA, NOP});
  }
  set_text(0x10000000, w);
  for (int i = 0; i < n; ++i)
    make("p", 0x10000000 + uint64_t(i) * words * 4, words * 4);
  attach({});
  auto start = std::chrono::steady_clock::now();
  check_branch_out_of_procedure();
  double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_LT(secs, 3.0);
  // Everything up to the last callee is tied, in address order.
  Proc *q = bin.procs.order_head;
  for (int i = 0; i < n; ++i, q = q->next)
    ASSERT_EQ(q, get_proc_by_index(i));
  EXPECT_EQ(get_proc_by_index(0)->tied, 1);
  EXPECT_EQ(get_proc_by_index(n - 1)->tied, 0);
}

// Procedures that all fall through, met from the last to the first: every
// tie moves the chain built so far.
TEST_F(Layout, GrowingChainsTieInLinearTime) {
  const int n = 50000;
  std::vector<uint32_t> w(size_t(n) * 4, ADDIU_SP);
  set_text(0x10000000, w);
  for (int i = 0; i < n; ++i)
    make("p", 0x10000000 + uint64_t(i) * 16, 16);
  std::vector<Proc *> procs = all_procs();
  attach(std::vector<Proc *>(procs.rbegin(), procs.rend()));
  auto start = std::chrono::steady_clock::now();
  tie_procedures_without_a_return();
  double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_LT(secs, 3.0);
  Proc *q = bin.procs.order_head;
  for (int i = 0; i < n; ++i, q = q->next)
    ASSERT_EQ(q, procs[size_t(i)]);
  EXPECT_EQ(q, nullptr);
}

} // namespace
