// Planning on the bench of real MIPS executables, with procedure tables
// made from their symbol tables: one as the mdebug reader makes it (sorted,
// each procedure reaching to the next), one as the DWARF reader makes it
// (the compiler's sizes, padding between procedures left uncovered, table
// in no particular order).
#include <gtest/gtest.h>


#include <algorithm>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "base/text_words.h"
#include "planning_fixture.h"
#include "support/bench.h"
#include "support/elf_file.h"
#include "support/o32_programs.h"
#include "support/scratch.h"
#include "vesk/feedback.h"
#include "vesk/order.h"
#include "vesk/r4000.h"

using namespace vesk;
using namespace vesk::test;

namespace {

struct RealPlanning : Planning {
  // Builds the table from the text and the function symbols of e.
  void load(const BenchExe &e, bool dwarf_like, std::mt19937 &rng) {
    bin.procs = ProcTable{};
    ElfFile f(e.path);
    std::vector<uint8_t> v = f.contents(".text");
    std::vector<uint32_t> words;
    for (size_t i = 0; i + 4 <= v.size(); i += 4)
      words.push_back(load32(&v[i]));
    set_text(f.shdr(".text").sh_addr, words);
    // One record per address: the compiler's size where it gives one, else
    // (and always for the mdebug-like table) up to the next symbol.
    std::map<uint64_t, ElfSymbol> by_addr;
    for (const ElfSymbol &s : f.functions())
      if (in_text(s.value) && (!by_addr.count(s.value) || s.size != 0))
        by_addr[s.value] = s;
    if (!dwarf_like) {
      for (const auto &[addr, s] : by_addr)
        make(keep(s.name), addr, 0, "x.c");
      mdebug_derive_proc_highpc();
      return;
    }
    std::vector<ElfSymbol> recs;
    for (auto it = by_addr.begin(); it != by_addr.end(); ++it) {
      ElfSymbol s = it->second;
      auto next = std::next(it);
      if (s.size == 0)
        s.size = (next == by_addr.end() ? bin.text_hi : next->first) - s.value;
      recs.push_back(s);
    }
    std::shuffle(recs.begin(), recs.end(), rng);
    for (const ElfSymbol &s : recs)
      make(keep(s.name), s.value, uint32_t(s.size), "x.c");
  }

  static std::vector<Proc *> by_address() {
    std::vector<Proc *> v;
    for (int i = 0; i < get_n_procs(); ++i)
      v.push_back(get_proc_by_index(i));
    std::stable_sort(v.begin(), v.end(), [](Proc *a, Proc *b) { return a->old_addr < b->old_addr; });
    return v;
  }

  // Plans the layout with a feedback file that names `fed` in order.
  void plan(const std::vector<Proc *> &fed, bool r4000) {
    std::string path = ::testing::TempDir() + "vesk_real_plan.fb";
    std::string text = "$magic 269680640\n$version 2\n$start\n";
    for (size_t i = 0; i < fed.size(); ++i)
      text += std::string(fed[i]->name) + " x.c " + std::to_string(fed.size() - i) + "\n";
    write_file(path, text);
    const char *files[] = {path.c_str(), nullptr};
    option.feedback_files = files;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    read_reorder_files();
    option.feedback_files = nullptr;
    size_t i = 0;
    for (Proc *p = bin.procs.order_head; p != nullptr && i < fed.size(); p = p->next, ++i)
      EXPECT_STREQ(p->name, fed[i]->name);
    run_checks();
    if (r4000)
      fix_r4000_bug();
    reorder_procedures();
    testing::internal::GetCapturedStderr();
    testing::internal::GetCapturedStdout();
  }
};

TEST_F(RealPlanning, ReversedAndHalfFeedbackOnTheBench) {
  VESK_REQUIRE_BENCH();
  std::mt19937 rng(7);
  // Every program, ABI and debug format, in one code model each (the
  // models differ in how calls are made: jal or jalr).
  int plans = 0, exes = 0;
  for (const BenchExe &e : bench_executables()) {
    if (!e.explicit_relocs || e.model != (e.abi == "o32" ? "fno-pie" : e.abi == "n32" ? "pie" : "no-pie"))
      continue;
    ++exes;
    for (bool dwarf_like : {false, true}) {
      for (int variant = 0; variant < 2; ++variant) {
        SCOPED_TRACE(e.name + (dwarf_like ? " dwarf-like" : " mdebug-like") +
                     (variant ? " random half" : " reversed"));
        load(e, dwarf_like, rng);
        std::vector<Proc *> procs = by_address();
        ASSERT_GT(procs.size(), 10u);
        std::vector<Proc *> fed;
        if (variant == 0) {
          fed.assign(procs.rbegin(), procs.rend());
        } else {
          for (Proc *p : procs)
            if (rng() % 2)
              fed.push_back(p);
          std::shuffle(fed.begin(), fed.end(), rng);
        }
        plan(fed, variant == 1);
        expect_layout_invariants();
        if (HasFatalFailure())
          return;
        // Every procedure stays whole: its words are consecutive in the
        // new text.
        for (Proc *p : procs) {
          TextSpan s = text_span(p);
          for (uint64_t i = s.first; i + 1 < s.end; ++i)
            ASSERT_EQ(map[i + 1], map[i] + 4) << p->name;
        }
        ++plans;
      }
    }
  }
  EXPECT_GE(exes, 15);
  EXPECT_EQ(plans, exes * 4);
}

// Whole runs: the merged feedback of a first run, turned round (the stubs
// in front of the first procedure stay first), orders a second run whose
// output still prints what the input prints.  These programs take no code
// addresses that only the relocation sections could repair.
TEST(WholeRun, ReversedProcedureOrderStillRuns) {
  VESK_REQUIRE_BENCH();
  // o32 executables get their .compact_rel from vesk-annotate first; the
  // n32 and n64 ones need the events update, which is not there yet.
  const char *const kinds[][4] = {{"shapes", "o32", "mdebug", "fno-pie"},
                                  {"textstats", "o32", "mdebug", "pie"},
                                  {"calc", "o32", "dwarf", "no-pie"}};
  for (const auto &k : kinds) {
    const BenchExe *e = find_bench(k[0], k[1], k[2], k[3]);
    ASSERT_NE(e, nullptr) << k[0] << " " << k[1];
    SCOPED_TRACE(e->name);
    ScratchDir dir("plan");
    RunResult a = run_command({annotate_binary(), e->path, "-o", dir / "prog"});
    ASSERT_EQ(a.status, 0) << a.err;
    write_file(dir / "prog.fb", "$magic 1\n$version 2\n$start\n");
    RunResult r = run_vesk({"-merge", "all.fb", "prog"}, dir.path());
    ASSERT_EQ(r.status, 0) << r.err;

    std::istringstream merged(read_file(dir / "all.fb"));
    std::vector<std::string> lines;
    for (std::string line; std::getline(merged, line);)
      if (!line.empty() && line[0] != '$' && line[0] != '#')
        lines.push_back(line);
    std::string reversed = "$magic 1\n$version 2\n$start\n.libstub .libstub 1\n";
    for (auto it = lines.rbegin(); it != lines.rend(); ++it) {
      std::istringstream f(*it);
      std::string name, file;
      f >> name >> file;
      if (name != ".libstub")
        reversed += name + " " + file + " 1\n";
    }
    write_file(dir / "rev.fb", reversed);
    r = run_vesk({"-o", "out", "prog", "rev.fb"}, dir.path());
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(read_file(dir / "out"), read_file(e->path)) << "nothing moved";
    RunResult run = run_bench(*e, dir / "out");
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, e->expected);
  }
}

} // namespace
