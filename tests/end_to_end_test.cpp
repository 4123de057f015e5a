// Whole runs on the bench.  Every executable, o32, n32 and n64, is laid
// out anew by vesk directly (vesk-annotate then vesk must write the same
// file) in one order (reversed, shuffled, or
// hottest first from a traced run, taken in turn along the bench so that
// each order meets every ABI, debug format, code model and relocation
// style) and must print under qemu what the original printed; the mdebug
// tables must name the new places of the code, and vesk reading an o32
// mdebug output again must find every procedure where the first run put
// it; pinned to one core, vesk writes and says the same, and written to
// another file system, vesk and vesk-annotate write the same bytes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

#include "mdebug/records.h"
#include "support/bench.h"

using namespace vesk::test;

namespace {

class EndToEnd : public testing::TestWithParam<size_t> {}; // the index in the bench

} // namespace

TEST_P(EndToEnd, LaidOutAnewItPrintsWhatTheOriginalPrinted) {
  const BenchExe *e = &bench_executables()[GetParam()];
  AnnotatedBench b(*e);
  ASSERT_TRUE(b.ok()) << "vesk-annotate refused " << e->name << ": " << b.refusal();
  const LayoutOrder order = order_of(GetParam());
  SCOPED_TRACE(order_name(order));
  RunResult traced;
  std::vector<FeedbackLine> fb = ordered(order, b, *e, e->path, {}, &traced);
  if (order == HOT_FIRST) {
    ASSERT_EQ(traced.out, e->expected) << traced.err;
    ASSERT_GT(fb.size(), 2u);
  }

  const std::string out = b.path("reordered"), merged = b.path("merged.fb");
  const auto program = read_file(e->path), annotated = read_file(b.annotated());
  RunResult r = b.vesk(e->path, fb, out, {"-debug", "-merge", merged});
  ASSERT_EQ(r.status, 0) << r.err;
  // On one core the work of the second runs in its turn: the same bytes
  // and the same messages, whichever core got where first.
  if (run_command({"taskset", "-c", "0", "true"}).status == 0) {
    const std::string both = read_file(out), both_merged = read_file(merged);
    RunResult alone =
        run_command({"taskset", "-c", "0", VESK_BINARY, e->path, out + ".fb", "-o", out, "-debug", "-merge", merged});
    EXPECT_EQ(alone.status, 0) << alone.err;
    EXPECT_EQ(alone.err, r.err);
    EXPECT_TRUE(alone.out == r.out) << "the -debug listing depends on the second core";
    EXPECT_TRUE(read_file(out) == both && read_file(merged) == both_merged) << "the output depends on the second core";
  }
  // Written to another file system, where the unchanged sections cannot be
  // copied from file to file, the same bytes.
  struct stat shm, here;
  if (stat("/dev/shm", &shm) == 0 && stat(out.c_str(), &here) == 0 && shm.st_dev != here.st_dev) {
    const std::string elsewhere = "/dev/shm/vesk-e2e-" + std::to_string(getpid()) + "-" + std::to_string(GetParam());
    RunResult there = run_vesk({e->path, out + ".fb", "-o", elsewhere});
    EXPECT_EQ(there.status, 0) << there.err;
    EXPECT_TRUE(read_file(elsewhere) == read_file(out)) << "the output depends on the file system it is written to";
    EXPECT_EQ(run_command({annotate_binary(), e->path, "-o", elsewhere}).status, 0);
    EXPECT_TRUE(read_file(elsewhere) == annotated) << "vesk-annotate's copy depends on the file system";
    unlink(elsewhere.c_str());
  }
  // Given twice, every count counts twice: the merged feedback holds each
  // procedure's sum.  (Two files that together name every procedure of
  // the table are refused: one is left out.)
  if (fb.size() > 1) {
    std::vector<FeedbackLine> most(fb.begin(), fb.end() - 1);
    std::map<std::pair<std::string, std::string>, uint64_t> fed;
    for (const FeedbackLine &l : most)
      fed[{l.name, l.file}] += l.count;
    const std::string twice = b.path("merged-twice.fb"), most_fb = b.path("most.fb");
    write_file(most_fb, feedback_text(most));
    RunResult t = run_vesk({e->path, most_fb, most_fb, "-o", b.path("twice"), "-merge", twice});
    ASSERT_EQ(t.status, 0) << t.err;
    for (const FeedbackLine &l : feedback_lines(twice)) {
      auto it = fed.find({l.name, l.file});
      EXPECT_EQ(l.count, it == fed.end() ? 0 : 2 * it->second) << l.name << " " << l.file;
    }
  }
  // Under -v, the pages the counted procedures touch now: the merged
  // feedback and the address mapping list the procedures in the same
  // order, with their counts and new places.
  {
    std::vector<FeedbackLine> counted = feedback_lines(merged);
    std::vector<DebugProc> placed = address_mapping(r.out);
    ASSERT_EQ(counted.size(), placed.size());
    std::set<uint64_t> pages;
    for (size_t i = 0; i < placed.size(); ++i)
      if (counted[i].count != 0 && placed[i].new_hi >= placed[i].new_lo + 4)
        for (uint64_t page = placed[i].new_lo / 4096; page <= (placed[i].new_hi - 4) / 4096; ++page)
          pages.insert(page);
    RunResult v = run_vesk({e->path, out + ".fb", "-o", b.path("verbose"), "-v"});
    unsigned total = 0, before = 0, after = 0;
    size_t at = v.out.find("Total text ");
    ASSERT_NE(at, std::string::npos) << v.out << v.err;
    ASSERT_EQ(std::sscanf(v.out.c_str() + at, "Total text %uK. Touched text reduced from %uK to %uK", &total, &before,
                          &after),
              3);
    EXPECT_EQ(after, 4 * pages.size());
  }
  ASSERT_EQ(b.vesk(b.annotated(), fb, b.path("via-annotate")).status, 0);
  EXPECT_TRUE(read_file(out) == read_file(b.path("via-annotate"))) << "vesk-annotate then vesk wrote another file";
  // The output's contents start as views of the input's pages: neither
  // input may have changed by a byte.
  EXPECT_TRUE(read_file(e->path) == program && read_file(b.annotated()) == annotated) << "an input was written";
  // Only o32 position-dependent code with explicit relocation operators
  // calls its local functions with jal; elsewhere calls by bal tie caller
  // and callee with everything in between (and n32/n64 code ends some
  // procedures without a jr, which ties them), and an order may move
  // nothing.
  if (e->abi == "o32" && e->model == "fno-pie" && e->explicit_relocs) {
    std::vector<std::string> listed, laid_out;
    for (const DebugProc &p : b.procs())
      listed.push_back(p.name);
    for (const FeedbackLine &l : feedback_lines(merged))
      laid_out.push_back(l.name);
    EXPECT_NE(laid_out, listed);
  }
  RunResult run = run_bench(*e, out);
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, e->expected);
  if (e->debug == "mdebug")
    check_mdebug_follows_code(e->path, out, address_mapping(r.out));
  if (e->debug != "mdebug")
    return;

  // A second run reads every procedure at its new address, says its input
  // was processed already, and lays it out again.  ".libstub" is no mdebug
  // procedure and always starts the text; the start files' code it stood
  // for is found again by the first of their function symbols.
  std::multimap<std::string, uint64_t> expected, got;
  for (const DebugProc &m : address_mapping(r.out)) {
    if (m.name != ".libstub")
      expected.emplace(m.name, m.new_lo);
    else if (m.new_lo != m.old_addr)
      expected.emplace("__start", m.new_lo);
  }
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

INSTANTIATE_TEST_SUITE_P(Bench, EndToEnd, testing::Range(size_t(0), bench_executables().size()));
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(EndToEnd);

// A PIE reaches its local code addresses through GOT entries that hold
// 64 KB pages, and the linker makes entries only for the pages the code
// used: here page 0, for the start files' code at the start of the text.
// Laid out in the middle of 170 KB of text, that code lies far from every
// page the linker held and from the data, where only a page the
// description gave a spare entry reaches it.
TEST(EndToEndPie, CodeMovedBeyondEveryPageTheLinkerHeld) {
  ScratchDir dir("pie-pages");
  RunResult gen = run_command({"awk", "-v", "N=400", "-f", VESK_SOURCE_DIR "/examples/spread.awk"});
  ASSERT_EQ(gen.status, 0);
  BenchExe e;
  e.path = compile_o32(dir, "spread", gen.out, {"-g"});
  e.name = "spread";
  e.qemu = {"qemu-mips", "-L", "/usr/mips-linux-gnu"};
  e.expected = run_bench(e, e.path).out;
  AnnotatedBench b(e);
  ASSERT_TRUE(b.ok()) << b.refusal();
  std::vector<FeedbackLine> fb = reversed_order(b);
  std::rotate(fb.begin(), fb.begin() + fb.size() / 2, fb.end());
  RunResult r = b.vesk(e.path, fb, b.path("reversed"));
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(run_bench(e, b.path("reversed")).out, e.expected);
}
