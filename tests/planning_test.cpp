// The planning steps on small synthetic texts: the ties the checks make,
// the layout with its leading stub run, the R4000 end-of-page patterns, and
// the feedback files that give the order.
#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "support/bench.h"
#include "support/step.h"
#include "base/bin.h"
#include "base/bytes.h"
#include "base/mips.h"
#include "base/flat_index.h"
#include "base/key_sort.h"
#include "vesk/checks.h"
#include "vesk/feedback.h"
#include "vesk/options.h"
#include "vesk/order.h"
#include "base/proc.h"
#include "vesk/r4000.h"

using namespace vesk;
using namespace vesk::test;

namespace {

constexpr uint32_t NOP = 0, JR_RA = 0x03e00008, BREAK0 = 0x0000000d, JALR_T9 = 0x0320f809, ADDIU_SP = 0x27bdffe0;
constexpr uint32_t DIV = 0x0085001a, LW = 0x8c880000, SW = 0xafbf0010, MFC1 = 0x44084000;
constexpr uint64_t LO = 0x400000;
using Order = std::vector<std::string>;

uint32_t beq_zero(int32_t words) { return 0x10000000u | (uint32_t(words) & 0xffff); }
uint32_t jal(uint64_t target) { return 0x0c000000u | (uint32_t(target >> 2) & 0x03ffffff); }

struct Planning : testing::Test {
  std::vector<uint8_t> text, out;
  std::vector<uint32_t> map;

  void SetUp() override { fresh_run(); }

  void set_text(const std::vector<uint32_t> &words) {
    text.assign(words.size() * 4, 0);
    for (size_t i = 0; i < words.size(); ++i)
      store32(&text[4 * i], words[i]);
    bin.text_lo = LO;
    bin.text_hi = LO + 4 * words.size();
    bin.text_words = uint32_t(words.size());
    bin.text_buf = text.data();
    map.assign(words.size(), ~uint32_t(0));
    out.assign(words.size() * 4, 0);
    bin.text_map = map.data();
    bin.new_text = out.data();
  }
  Proc *make(const std::string &name, uint64_t addr, uint32_t size, const char *file = "a.c") {
    Proc *p = new_proc();
    p->name = strdup(name.c_str()); // kept to the end of the process, as the run keeps it
    p->file_name = file;
    p->old_addr = addr;
    p->size = size;
    return p;
  }
  // Procedures p0.. laid end to end from LO, one per body.
  std::vector<Proc *> make_all(const std::vector<std::vector<uint32_t>> &bodies) {
    std::vector<uint32_t> words;
    for (const auto &b : bodies)
      words.insert(words.end(), b.begin(), b.end());
    set_text(words);
    std::vector<Proc *> p;
    uint64_t at = LO;
    for (size_t i = 0; i < bodies.size(); at += 4 * bodies[i++].size())
      make("p" + std::to_string(i), at, uint32_t(4 * bodies[i].size()));
    for (size_t i = 0; i < bodies.size(); ++i) // the table may move while it grows
      p.push_back(get_proc_by_index(long(i)));
    return p;
  }
  // Attaches the given procedures as the feedback would, the rest behind.
  static void attach(const std::vector<Proc *> &fed) {
    for (Proc *p : fed) {
      attach_proc_list(p);
      p->listed = 1;
    }
    attach_proc_with_no_feedback();
  }
  static Order order() {
    Order v;
    for (Proc *p = bin.procs.order_head; p != nullptr; p = p->next)
      v.push_back(p->name);
    return v;
  }
};

std::vector<uint32_t> body(size_t words, std::vector<std::pair<size_t, uint32_t>> set = {}) {
  std::vector<uint32_t> b(words, ADDIU_SP);
  b[words - 2] = JR_RA;
  b[words - 1] = NOP;
  for (auto [i, w] : set)
    b[i] = w;
  return b;
}

} // namespace

TEST_F(Planning, ABranchOutOfAProcedureTiesEveryProcedureInBetween) {
  std::vector<std::vector<uint32_t>> b(6, body(4));
  b[1][1] = beq_zero(10); // from p1 word 1 to p4 word 0
  std::vector<Proc *> p = make_all(b);
  attach({p[4], p[5], p[2], p[0], p[1], p[3]});
  check_branch_out_of_procedure();
  EXPECT_EQ(order(), (Order{"p5", "p0", "p1", "p2", "p3", "p4"}));
  for (int i = 0; i < 6; ++i)
    EXPECT_EQ(p[size_t(i)]->tied, i >= 1 && i <= 3) << i;

  // Backwards: from p4 word 1 to p1 word 2, the same procedures in between.
  fresh_run();
  b.assign(6, body(4));
  b[4][1] = beq_zero(-12);
  p = make_all(b);
  attach({p[5], p[3], p[0], p[2], p[4], p[1]});
  check_branch_out_of_procedure();
  EXPECT_EQ(order(), (Order{"p5", "p0", "p1", "p2", "p3", "p4"}));
  for (int i = 0; i < 6; ++i)
    EXPECT_EQ(p[size_t(i)]->tied, i >= 1 && i <= 3) << i;
}

TEST_F(Planning, ACallOrNoReturnAtTheEndTiesTheNextProcedure) {
  std::vector<std::vector<uint32_t>> b(6, body(4));
  // p0 and p2 end in calls (p2's through a register); an earlier jr keeps either from falling through.
  b[0] = b[2] = {JR_RA, NOP, jal(LO + 80), NOP};
  b[2][2] = JALR_T9;
  b[1][2] = beq_zero(-3); // p1 has no jr but ends in a jump back (a cold part into its hot one): no tie
  b[3][2] = BREAK0;       // p3 stops with a break: no tie
  b[4][2] = NOP;          // p4 falls through into p5
  std::vector<Proc *> p = make_all(b);
  attach({p[4], p[2], p[0], p[5], p[3], p[1]});
  tie_procedures_ending_in_a_call();
  tie_procedures_without_a_return();
  EXPECT_EQ(order(), (Order{"p4", "p5", "p2", "p3", "p0", "p1"}));
  EXPECT_EQ(p[0]->tied, 1); // p5, its callee, returns
  EXPECT_EQ(p[1]->tied, 0);
  EXPECT_EQ(p[3]->tied, 0);
  EXPECT_EQ(p[5]->tied, 0);

  // A call to a function that never returns (p2 ends in an endless loop,
  // without a jr) does not run on into the next procedure.
  fresh_run();
  p = make_all({{JR_RA, NOP, jal(LO + 32), NOP}, body(4), {ADDIU_SP, ADDIU_SP, beq_zero(-1), NOP}, body(4)});
  attach({p[3], p[1], p[0], p[2]});
  tie_procedures_ending_in_a_call();
  tie_procedures_without_a_return();
  EXPECT_EQ(order(), (Order{"p3", "p1", "p0", "p2"}));
}

// A branch in a word no procedure holds ends the run.
TEST_F(Planning, ABranchOutsideEveryProcedureEndsTheRun) {
  std::vector<uint32_t> words = body(8);
  words.push_back(beq_zero(0));
  set_text(words);
  make("p0", LO, 32);
  attach({});
  StepResult r = run_step(check_branch_out_of_procedure);
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("Error: cannot find procedure for branch target"), std::string::npos) << r.err;
}

// Procedures that share words end the run, the message naming the one
// the list reaches second: the order of the list, not of the table.
TEST_F(Planning, OverlappingProceduresEndTheRunAtTheSecondInTheList) {
  set_text(body(12));
  make("p0", LO, 16);
  make("p1", LO + 8, 16); // words 2 to 5, over the end of p0
  make("p2", LO + 24, 24);
  attach({get_proc_by_index(1), get_proc_by_index(0)});
  StepResult r = run_step(verify_proc);
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("instruction 2 at 0x400008 covered twice (procedure p0 overlaps another)"),
            std::string::npos)
      << r.err;
}

// Two stub words start the text, then a, an uncovered word, b, and two
// uncovered words at the end.  The stubs stay in front, the procedures
// follow in list order, the uncovered words behind them in input order.
// Without stubs the first uncovered run follows the procedures too.
TEST_F(Planning, LeadingStubsStayAndUncoveredWordsFollowTheProcedures) {
  set_text({0x1111, 0x2222, ADDIU_SP, JR_RA, NOP, 0x3333, ADDIU_SP, JR_RA, NOP, 0x4444, 0x5555});
  Proc *a = make("a", LO + 8, 12);
  Proc *b = make("b", LO + 24, 12);
  attach({b, a});
  testing::internal::CaptureStderr();
  verify_proc();
  reorder_procedures();
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(bin.libstub_lo, LO);
  EXPECT_EQ(map, (std::vector<uint32_t>{0, 1, 5, 6, 7, 8, 2, 3, 4, 9, 10}));
  EXPECT_EQ(load32(&out[4 * map[5]]), 0x3333u);

  fresh_run();
  set_text({ADDIU_SP, JR_RA, NOP, 0x3333, ADDIU_SP, JR_RA, NOP});
  make("a", LO, 12);
  make("b", LO + 16, 12);
  attach({});
  testing::internal::CaptureStderr();
  verify_proc();
  reorder_procedures();
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(bin.libstub_lo, LO + 12);
  EXPECT_EQ(map, (std::vector<uint32_t>{0, 1, 2, 6, 3, 4, 5}));
}

// Procedures that share words (which the checks refuse before the layout)
// still give a text that holds every word once: a word goes with the first
// procedure of the list that covers it.
TEST_F(Planning, SharedWordsAreLaidOutOnceWithTheFirstProcedure) {
  set_text({0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16});
  make("p0", LO, 16);     // words 0 to 3
  make("p1", LO + 8, 16); // words 2 to 5
  attach({get_proc_by_index(1), get_proc_by_index(0)});
  testing::internal::CaptureStderr();
  reorder_procedures();
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(map, (std::vector<uint32_t>{4, 5, 0, 1, 2, 3, 6}));
  EXPECT_EQ(load32(&out[4 * 4]), 0x10u);
}

// An empty text has nothing to lay out and nothing to copy from or to (a
// damaged input the fuzzer found: the copies were handed null pointers).
TEST_F(Planning, EmptyTextLaysNothingOut) {
  set_text({});
  attach({});
  testing::internal::CaptureStderr();
  reorder_procedures();
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(bin.new_text_fill, 0u);
}

// A divide ending a page is a fault; so is a branch ending a page whose
// second word before is a memory access or an MFC1 (the word right before
// does not matter).
TEST_F(Planning, R4000PageEndPatterns) {
  const struct {
    uint32_t w1021, w1022, w1023, faults;
  } cases[] = {{ADDIU_SP, ADDIU_SP, DIV, 1}, {ADDIU_SP, ADDIU_SP, JR_RA, 0}, {LW, ADDIU_SP, JR_RA, 1},
               {MFC1, ADDIU_SP, JR_RA, 1},   {SW, ADDIU_SP, JR_RA, 1},       {ADDIU_SP, LW, beq_zero(5), 0},
               {LW, LW, beq_zero(5), 1},     {0xbc800000 /* cache */, NOP, JR_RA, 1}};
  for (const auto &c : cases) {
    std::vector<uint32_t> w(2048, ADDIU_SP);
    w[1021] = c.w1021;
    w[1022] = c.w1022;
    w[1023] = c.w1023;
    set_text(w);
    const uint32_t lo = uint32_t(LO);
    EXPECT_EQ(check_r4000_bug_per_block(0, lo, lo, 8192), c.faults) << std::hex << c.w1021 << " " << c.w1023;
    EXPECT_EQ(check_r4000_bug_per_block(0, lo + 4, lo, 8192), 0u); // the word now ends no page
    EXPECT_EQ(check_r4000_bug_per_block(0, lo, lo, 16), 0u);       // the block ends before the page does
  }

  // p1's divide would end the first page: p2, which faults nowhere, goes in
  // front of it, and p3 stays behind.
  fresh_run();
  std::vector<Proc *> p = make_all({body(1020), body(8, {{3, DIV}}), body(4), body(4)});
  attach({p[0], p[1], p[2], p[3]});
  testing::internal::CaptureStderr();
  fix_r4000_bug();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(order(), (Order{"p0", "p2", "p1", "p3"}));
}

namespace {

const char *const kHeader = "$magic 269680640\n$version 2\n$start\n";

struct Feedback : Planning {
  ScratchDir dir{"feedback"};
  std::vector<std::string> paths;
  std::vector<const char *> files;

  std::string err; // what reading them printed

  // Procedures a..e of a.c and a of b.c, then the given feedback files read
  // (each behind the header), for a program with DWARF or mdebug.
  void read(const std::vector<std::string> &contents, bool dwarf = false, const std::string &header = kHeader) {
    fresh_run();
    bin.debug_kind = dwarf ? DEBUG_DWARF : DEBUG_MDEBUG;
    option.program = "/some/where/prog";
    for (const char *n : {"a", "b", "c", "d", "e"})
      make(n, 0x10000 + 16 * uint64_t(n[0] - 'a'), 16);
    make("a", 0x20000, 16, "b.c");
    paths.clear();
    paths.reserve(contents.size()); // files point into it
    files.clear();
    for (const std::string &c : contents) {
      paths.push_back(dir / ("f" + std::to_string(paths.size()) + ".fb"));
      write_file(paths.back(), header + c);
      files.push_back(paths.back().c_str());
    }
    files.push_back(nullptr);
    option.feedback_files = files.data();
    testing::internal::CaptureStderr();
    read_reorder_files();
    err = testing::internal::GetCapturedStderr();
  }
  // The list as "name(file) count".
  static Order counted() {
    Order v;
    for (Proc *p = bin.procs.order_head; p != nullptr; p = p->next)
      v.push_back(std::string(p->name) + "(" + p->file_name + ") " + std::to_string(p->freq));
    return v;
  }
};

} // namespace

TEST_F(Feedback, FilesGiveTheOrderAndTheRestFollowsInTableOrder) {
  const std::pair<std::vector<std::string>, Order> cases[] = {
      // Zero counts keep their place in a single file.
      {{"# comment\nd a.c 9\nb a.c 0\nc a.c 4\n"},
       {"d(a.c) 9", "b(a.c) 0", "c(a.c) 4", "a(a.c) 0", "e(a.c) 0", "a(b.c) 0"}},
      // Two files: the first one's counted procedures (counts of both
      // summed), the second one's, the first one's zero counts, the rest.
      {{"b a.c 5\nd a.c 0\nc a.c 3\n", "c a.c 4\ne a.c 7\na a.c 0\n"},
       {"b(a.c) 5", "c(a.c) 7", "e(a.c) 7", "d(a.c) 0", "a(a.c) 0", "a(b.c) 0"}},
      // A name alone takes the file and count before it; a procedure named
      // twice in one file counts once.
      {{"c a.c 3\nd\nc a.c 100\na b.c\n"},
       {"c(a.c) 3", "d(a.c) 3", "a(b.c) 100", "a(a.c) 0", "b(a.c) 0", "e(a.c) 0"}},
      // A count is read as far as it is digits; past 32 bits it saturates,
      // however many digits it has.
      {{"b a.c 4294967296\nc a.c 12x\nd a.c 0007\ne a.c 99999999999999999999999\n"},
       {"b(a.c) 4294967295", "c(a.c) 12", "d(a.c) 7", "e(a.c) 4294967295", "a(a.c) 0", "a(b.c) 0"}},
      // A line without a word repeats the one before (its name, listed
      // already, counts once): a name alone behind many of them still
      // takes the file and count of the last line that had them.
      {{"b a.c 5\n" + std::string(254, '\n') + "c a.c 7\nd\n"},
       {"b(a.c) 5", "c(a.c) 7", "d(a.c) 7", "a(a.c) 0", "e(a.c) 0", "a(b.c) 0"}},
      // A comment line is passed over: a name alone behind it takes the
      // file and count of the line before.
      {{"d a.c 9\n# b.c 50\nb\n"}, {"d(a.c) 9", "b(a.c) 9", "a(a.c) 0", "c(a.c) 0", "e(a.c) 0", "a(b.c) 0"}},
  };
  for (const auto &[files, expected] : cases) {
    read(files);
    EXPECT_EQ(counted(), expected) << files[0];
  }
  // DWARF names a unit by its file alone: a line's directories do not
  // count.  A file written for a program of another name says so.
  read({"e /some/dir/a.c 9\n"}, true);
  EXPECT_EQ(counted().front(), "e(a.c) 9");
  const std::string named = "$magic 269680640\n$version 2\n$name /else/where/";
  read({"c a.c 1\n"}, false, named + "prog\n$start\n");
  EXPECT_EQ(err.find("derived from"), std::string::npos) << err;
  read({"c a.c 1\n"}, false, named + "other\n$start\n");
  EXPECT_NE(err.find("Warning: feedback file " + paths[0] + " derived from /else/where/other !!!"), std::string::npos)
      << err;
}

// Feedback lines find the first unlisted record of a name at or behind the
// one found last; the index must hand a name's records over in table order,
// skip items without a key, and stop when asked to.  Keys that share a hash
// share a chain and are told apart by the caller.
TEST(FlatIndexTest, ItemsOfAHashComeInTableOrder) {
  const std::vector<std::string> keys = {"x", "y", "", "x", "z", "x", "y"};
  vesk::FlatIndex index;
  index.build(keys.size(), [&](size_t i, size_t &h) {
    h = keys[i] == "z" ? vesk::hash_of("x") : vesk::hash_of(keys[i]); // z collides with x
    return !keys[i].empty();
  });
  auto visited = [&](const std::string &key, size_t stop_after) {
    std::vector<size_t> v;
    index.visit(vesk::hash_of(key), [&](size_t i) {
      if (keys[i] == key || key == "x")
        v.push_back(i);
      return v.size() < stop_after;
    });
    return v;
  };
  // A name that could not be read is an empty view, which may have no
  // data at all: it hashes as the empty name.
  EXPECT_EQ(vesk::hash_of(std::string_view()), vesk::hash_of(""));
  EXPECT_EQ(visited("x", 10), (std::vector<size_t>{0, 3, 4, 5}));
  EXPECT_EQ(visited("y", 10), (std::vector<size_t>{1, 6}));
  EXPECT_EQ(visited("x", 2), (std::vector<size_t>{0, 3}));
  EXPECT_TRUE(visited("w", 10).empty());
}

// The scan of the text skips words by their opcode before it decodes them:
// no branch or jump that the fix-up or the ties look at may be skipped.
TEST(Scanning, TheOpcodeFilterLetsEveryBranchAndJumpThrough) {
  for (uint32_t op = 0; op < 64; ++op)
    for (uint32_t rs = 0; rs < 32; ++rs)
      for (uint32_t rt = 0; rt < 32; ++rt) {
        uint32_t w = op << 26 | rs << 21 | rt << 16 | 0x1234;
        if (mips::fixup_kind(w) != mips::Fixup::none || mips::ties_as_branch(w)) {
          ASSERT_TRUE(mips::may_branch_or_jump(w)) << std::hex << w;
        }
      }
}

// Starts are sorted by their digits; equal starts keep their order, as a
// stable comparison sort keeps it.
TEST(Sorting, KeysSortAsAStableComparisonSortsThem) {
  std::mt19937_64 rng(5);
  for (uint64_t mask : {uint64_t(0xfff), uint64_t(0x7ffffc), ~uint64_t(0)})
    for (size_t n : {size_t(10), size_t(5000)}) {
      std::vector<KeyValue> v(n);
      for (size_t i = 0; i < n; ++i)
        v[i] = {(rng() & mask) | 0x400000, i};
      std::vector<KeyValue> want = v;
      std::stable_sort(want.begin(), want.end(), [](const KeyValue &a, const KeyValue &b) { return a.first < b.first; });
      stable_sort_by_key(v);
      EXPECT_EQ(v, want) << std::hex << mask << " " << n;
    }
}

// The run scan compares blocks of words at once: against the word-by-word
// definition, on layouts of runs of every length from 1 to 40 words, from
// every start and to every end inside a block.
TEST(Scanning, RunsOfTheTextMapEndWhereAWordNoLongerFollows) {
  std::mt19937 rng(3);
  std::vector<uint32_t> map;
  for (uint32_t next = 0; map.size() < 600;) {
    uint32_t len = 1 + rng() % 40;
    next += rng() % 3; // 0: the run follows the one before, and they join
    for (uint32_t i = 0; i < len; ++i)
      map.push_back(next++);
  }
  vesk::bin = vesk::Bin{};
  vesk::bin.text_map = map.data();
  vesk::bin.text_words = uint32_t(map.size());
  for (uint64_t k = 0; k < map.size(); ++k)
    for (uint64_t end = k + 1; end <= std::min<uint64_t>(map.size(), k + 70); ++end) {
      uint64_t want = k + 1;
      while (want < end && map[want] == map[want - 1] + 1)
        ++want;
      ASSERT_EQ(text_map_run_end(k, end), want) << k << " " << end;
    }
  vesk::bin = vesk::Bin{};
}
