// Whole runs on the bench.  Every o32 executable is annotated, laid out
// anew by vesk in one order (reversed, shuffled, or hottest first from a
// traced run, taken in turn along the bench so that each order meets every
// debug format, code model and relocation style) and must print under qemu
// what the original printed; vesk reading an mdebug output again must find
// every procedure where the first run put it.  vesk keeps the layout of
// n32 and n64 executables: run without feedback, they must still print
// the same.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>

#include "support/bench.h"
#include "support/elf_file.h"

using namespace vesk::test;

namespace {

std::vector<std::string> bench_names() {
  std::vector<std::string> names;
  for (const BenchExe &e : bench_executables())
    names.push_back(e.name);
  return names;
}

// The place of an executable among the o32 ones of the bench.
int o32_index(const std::string &name) {
  int i = 0;
  for (const BenchExe &e : bench_executables()) {
    if (e.name == name)
      break;
    i += e.abi == "o32";
  }
  return i;
}

std::vector<std::string> names_of(const std::vector<FeedbackLine> &lines) {
  std::vector<std::string> out;
  for (const FeedbackLine &l : lines)
    if (l.name != ".libstub")
      out.push_back(l.name);
  return out;
}

class EndToEnd : public testing::TestWithParam<std::string> {};

} // namespace

TEST_P(EndToEnd, LaidOutAnewItPrintsWhatTheOriginalPrinted) {
  VESK_REQUIRE_BENCH();
  const BenchExe *e = bench_named(GetParam());
  ASSERT_NE(e, nullptr);
  if (e->abi != "o32") {
    ScratchDir dir("e2e");
    write_file(dir / "none.fb", kNoFeedback);
    RunResult r = run_vesk({e->path, dir / "none.fb", "-o", dir / "out"});
    ASSERT_EQ(r.status, 0) << r.err;
    r = run_bench(*e, dir / "out");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, e->expected);
    EXPECT_EQ(std::filesystem::status(dir / "out").permissions(), std::filesystem::status(e->path).permissions());
    // An mdebug table lists the procedures in address order, so every code
    // address is rewritten to itself: besides the processed stamp, the
    // normalised mdebug table (file base addresses 0, procedure addresses
    // absolute) and the re-encoded .compact_rel, nothing changes.
    const std::string in = read_file(e->path), written = read_file(dir / "out");
    ASSERT_EQ(in.size(), written.size());
    std::vector<std::pair<uint64_t, uint64_t>> may_change;
    ElfFile f(e->path);
    for (Elf_Scn *s = elf_nextscn(f.e, nullptr); s; s = elf_nextscn(f.e, s)) {
      GElf_Shdr sh;
      gelf_getshdr(s, &sh);
      std::string name = f.name_of(s);
      if (name == ".dynamic" || name == ".mdebug" || name == ".compact_rel")
        may_change.push_back({sh.sh_offset, sh.sh_offset + sh.sh_size});
    }
    for (size_t i = 0; e->debug == "mdebug" && i < in.size(); ++i)
      if (in[i] != written[i]) {
        ASSERT_TRUE(std::any_of(may_change.begin(), may_change.end(),
                                [&](auto r) { return i >= r.first && i < r.second; }))
            << "byte " << i << " changed";
      }
    return;
  }
  AnnotatedBench b(*e);
  ASSERT_TRUE(b.ok()) << "vesk-annotate refused " << e->name << ": " << b.refusal();
  ASSERT_GT(b.procs().size(), 2u);
  const int index = o32_index(e->name), order = (index + index / 3) % 3; // the bench lists three models in a row
  std::vector<FeedbackLine> fb;
  if (order == 0) {
    fb = reversed_order(b);
  } else if (order == 1) {
    fb = random_order(b, e->name);
  } else {
    RunResult traced;
    fb = hot_first_order(b, *e, e->path, {}, &traced);
    ASSERT_EQ(traced.out, e->expected) << traced.err;
    ASSERT_GT(fb.size(), 2u);
  }
  SCOPED_TRACE(order == 0 ? "reversed" : order == 1 ? "shuffled" : "hot first");

  const std::string out = b.path("reordered"), merged = b.path("merged.fb");
  RunResult r = b.vesk(b.annotated(), fb, out, {"-debug", "-v", "-merge", merged});
  ASSERT_EQ(r.status, 0) << r.err;
  // Only position-dependent code with explicit relocation operators calls
  // its local functions with jal; elsewhere calls by bal tie caller and
  // callee with everything in between, and an order may move nothing.
  std::vector<std::string> listed;
  for (const DebugProc &p : b.procs())
    listed.push_back(p.name);
  listed.erase(std::remove(listed.begin(), listed.end(), ".libstub"), listed.end());
  if (e->model == "fno-pie" && e->explicit_relocs) {
    EXPECT_NE(names_of(feedback_lines(merged)), listed);
  }
  // Procedures that ran lead: they touch no more pages than before.
  int total_k = 0, before_k = 0, after_k = 0;
  size_t at = r.out.find("Total text ");
  ASSERT_NE(at, std::string::npos) << r.out;
  EXPECT_EQ(std::sscanf(r.out.c_str() + at, "Total text %dK. Touched text reduced from %dK to %dK", &total_k,
                        &before_k, &after_k), 3);
  EXPECT_TRUE(order != 2 || (after_k > 0 && after_k <= before_k)) << r.out.substr(at, 80);
  RunResult run = run_bench(*e, out);
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, e->expected);
  if (e->debug != "mdebug")
    return;

  // The mdebug symbols followed the code: a second run reads every
  // procedure at its new address, says its input was processed already,
  // and lays it out again.  ".libstub" is no mdebug procedure and always
  // starts the text; the start files' code it stood for is found again by
  // the first of their function symbols.
  std::multimap<std::string, uint64_t> expected, got;
  for (const DebugProc &m : address_mapping(r.out))
    if (m.name != ".libstub")
      expected.emplace(m.name, m.new_lo);
    else if (m.new_lo != m.old_addr)
      expected.emplace("__start", m.new_lo);
  const std::string again = b.path("again");
  r = b.vesk(out, random_order(b, e->name + " again"), again, {"-debug"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.err.find("Warning: " + out + " is a vesked binary.\n"), std::string::npos) << r.err;
  for (const DebugProc &p : procedure_table(r.out))
    if (p.name != ".libstub")
      got.emplace(p.name, p.old_addr);
  EXPECT_EQ(got, expected);
  run = run_bench(*e, again);
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, e->expected);
}

INSTANTIATE_TEST_SUITE_P(Bench, EndToEnd, testing::ValuesIn(bench_names()),
                         [](const testing::TestParamInfo<std::string> &info) {
                           std::string n = info.param;
                           std::replace(n.begin(), n.end(), '-', '_');
                           return n;
                         });
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(EndToEnd);
