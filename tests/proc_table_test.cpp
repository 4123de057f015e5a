#include <gtest/gtest.h>

#include <chrono>
#include <random>
#include <string>
#include <vector>

#include "vesk/bin.h"
#include "vesk/options.h"
#include "vesk/proc.h"

using namespace vesk;

namespace {

struct ProcTable : ::testing::Test {
  void SetUp() override {
    reset_proc_table();
    option = Options{};
    bin = Bin{};
  }
  void TearDown() override { reset_proc_table(); }

  Proc *make(const char *name, const char *file, uint64_t addr, uint32_t size) {
    Proc *p = new_proc();
    p->name = name;
    p->file_name = file;
    p->old_addr = addr;
    p->size = size;
    return p;
  }
  void attach_all() { attach_proc_with_no_feedback(); }
};

// The lookup as the list walk defines it, for comparison with the index.
Proc *reference_lookup(Proc *&last, uint64_t addr) {
  auto holds = [&](Proc *p) { return p->old_addr <= addr && addr < p->old_addr + p->size; };
  for (Proc *p = last; p; p = p->next)
    if (holds(p))
      return last = p;
  for (Proc *p = order_head; p; p = p->next)
    if (holds(p))
      return last = p;
  return last = nullptr;
}

} // namespace

TEST_F(ProcTable, BadIndexAndEmptyMapAreInternalErrors) {
  make("f", "a.c", 0x1000, 4);
  EXPECT_EXIT(get_proc_by_index(-1), ::testing::ExitedWithCode(1),
              "^Error: vesk internal: get_proc By index gets -1, valid is 0 thru 1\n\\.\n$");
  EXPECT_EXIT(get_proc_by_index(1), ::testing::ExitedWithCode(1), "gets 1, valid is 0 thru 1");
  reset_proc_table();
  EXPECT_EXIT(alloc_proc_map(), ::testing::ExitedWithCode(1), "^Error: internal\\.\n$");
}

TEST_F(ProcTable, NameLookupFollowsFileAndCursor) {
  Proc *a1 = make("f", "a.c", 0x1000, 8);
  Proc *b = make("f", "b.c", 0x1008, 8);
  Proc *a2 = make("f", "a.c", 0x1010, 8);
  make(nullptr, "a.c", 0x1018, 8);
  EXPECT_EQ(find_proc_by_name("f", "b.c"), b);
  // From the last hit (index 1) onwards first: the second a.c record.
  EXPECT_EQ(find_proc_by_name("f", "a.c"), a2);
  a2->placed = 1;
  EXPECT_EQ(find_proc_by_name("f", "a.c"), a1);
  a1->placed = 1;
  EXPECT_EQ(status, 0);
  EXPECT_EQ(find_proc_by_name("f", "a.c"), nullptr);
  EXPECT_EQ(status, 1);
  EXPECT_EQ(find_proc_by_name("f", "c.c"), nullptr);
}

TEST_F(ProcTable, UnmatchedNamesWarnOnlyWhenVerbose) {
  make("f", "a.c", 0x1000, 8);
  option.verbose = 1;
  testing::internal::CaptureStderr();
  find_proc_by_name("g", "a.c");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Warning: Procedure not found. g(a.c) feedback ignored.\n");
  testing::internal::CaptureStderr();
  attach_all();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Warning: No feedback data. f(a.c) placed at the end.\n");
}

TEST_F(ProcTable, IndexAgreesWithListWalkEvenWithOverlaps) {
  std::mt19937 rng(7);
  for (int i = 0; i < 300; ++i)
    make("p", "x.c", 0x1000 + 4 * (rng() % 400), 4 * (rng() % 6));
  // A shuffled list order.
  std::vector<Proc *> order;
  for (int i = 0; i < get_n_procs(); ++i)
    order.push_back(get_proc_by_index(i));
  std::shuffle(order.begin(), order.end(), rng);
  for (Proc *p : order) {
    attach_proc_list(p);
    p->placed = 1;
  }
  Proc *last = nullptr;
  for (int k = 0; k < 5000; ++k) {
    uint64_t addr = 0xff0 + 4 * (rng() % 420);
    Proc *want = reference_lookup(last, addr);
    ASSERT_EQ(get_proc_by_addr(addr), want) << std::hex << addr;
  }
}

TEST_F(ProcTable, DerivedSizesCoverTheText) {
  bin.text_hi = 0x2000;
  make("c", "x.c", 0x1800, 0);
  make("a", "x.c", 0x1000, 0);
  make("b", "x.c", 0x1400, 0);
  mdebug_derive_proc_highpc();
  EXPECT_STREQ(get_proc_by_index(0)->name, "a");
  EXPECT_EQ(get_proc_by_index(0)->size, 0x400u);
  EXPECT_EQ(get_proc_by_index(1)->size, 0x400u);
  EXPECT_EQ(get_proc_by_index(2)->size, 0x800u);
}

TEST_F(ProcTable, DerivingSizesRefusesDisorderAndOverrun) {
  bin.text_hi = 0x1000;
  make("a", "x.c", 0x1800, 0);
  EXPECT_EXIT(mdebug_derive_proc_highpc(), ::testing::ExitedWithCode(1),
              "^Error: \\[0\\]a 0x1800 > bin.text_hi 0x1000\\.\n$");
  reset_proc_table();
  bin.text_hi = 0x200000000;
  make("hi", "x.c", 0x100001000, 0); // sorts by the low half only
  make("lo", "x.c", 0x2000, 0);
  EXPECT_EXIT(mdebug_derive_proc_highpc(), ::testing::ExitedWithCode(1),
              "^Error: \\[0\\]hi 0x1000 > \\[1\\]lo 0x2000\\.\n$");
  reset_proc_table();
  EXPECT_EXIT(mdebug_derive_proc_highpc(), ::testing::ExitedWithCode(1), "^Error: no procedure in mdebug\\.\n$");
}

TEST_F(ProcTable, LookupsStayLinearOverFiftyThousandProcedures) {
  const int n = 50000;
  std::vector<std::string> names;
  names.reserve(n);
  for (int i = 0; i < n; ++i)
    names.push_back("f" + std::to_string(i));
  for (int i = 0; i < n; ++i)
    make(names[i].c_str(), "big.c", 0x10000 + 16 * uint64_t(i), 16);
  auto start = std::chrono::steady_clock::now();
  // Feedback in reverse order, then lookups by address in address order.
  for (int i = n - 1; i >= 0; --i) {
    Proc *p = find_proc_by_name(names[i].c_str(), "big.c");
    ASSERT_NE(p, nullptr);
    p->placed = 1;
    attach_proc_list(p);
  }
  for (int i = 0; i < n; ++i)
    ASSERT_EQ(get_proc_by_addr(0x10000 + 16 * uint64_t(i) + 8), get_proc_by_index(i));
  double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_LT(secs, 5.0); // generous under sanitizers; linear cost is well under a second
}
