// vesk-profile: the counts it writes against counts known from the source,
// the program's input, output and exit status passed through, and traces
// it must refuse.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <unistd.h>

#include "support/bench.h"
#include "tools/profile/order.h"

using namespace vesk::test;

namespace {

// Each 'x' on standard input calls mid once and leaf 100 times; never
// does not run; the exit status is 7.
const char kCounted[] = R"(#include <stdio.h>
__attribute__((noipa)) int leaf(int x) { return x * 3 + 1; }
__attribute__((noipa)) int mid(int n) { int s = 0; for (int i = 0; i < n; ++i) s += leaf(i); return s; }
__attribute__((noipa)) int never(int x) { return x - 1; }
int main(void) {
  int n = 0, c, total = 0;
  while ((c = getchar()) != EOF)
    if (c == 'x') { total += mid(100); ++n; }
  printf("%d %d\n", n, total);
  return n == 1000 ? never(0) : 7;
}
)";

int position(const std::vector<FeedbackLine> &fb, const std::string &name) {
  auto it = std::find_if(fb.begin(), fb.end(), [&](const FeedbackLine &l) { return l.name == name; });
  return it == fb.end() ? -1 : int(it - fb.begin());
}

} // namespace

TEST(Profile, CountsAgreeWithTheSourceAndTheProgramsStreamsAndStatusPassThrough) {
  ScratchDir dir("profile");
  struct Case {
    const char *debug, *order;
  } cases[] = {{"-g", "hot"}, {"-g", "c3"}, {"-gdwarf-4", "c3"}, {"-g", "temporal"}};
  std::string input(37, 'x');
  input += "yyy\n";
  write_file(dir / "input", input);
  std::string exe = compile_o32(dir, "counted", kCounted, {cases[0].debug});
  std::string ann = dir / "counted.ann";
  ASSERT_EQ(run_command({annotate_binary(), exe, "-o", ann}).status, 0);
  for (const Case &c : cases) {
    SCOPED_TRACE(std::string(c.debug) + " " + c.order);
    if (std::string(c.debug) != "-g") {
      exe = compile_o32(dir, "counted", kCounted, {c.debug});
      ASSERT_EQ(run_command({annotate_binary(), exe, "-o", ann}).status, 0);
    }
    std::string fb = dir / (std::string("counted.") + c.order + ".fb");
    RunResult r = run_command({"sh", "-c", "\"$0\" --order $1 -o $2 -- $3 <$4", profile_binary(), c.order, fb, ann,
                               dir / "input"});
    EXPECT_EQ(r.status, 7) << r.err;
    EXPECT_EQ(r.out, "37 " + std::to_string(37 * (3 * 4950 + 100)) + "\n");
    std::vector<FeedbackLine> lines = feedback_lines(fb);
    auto count = [&](const std::string &name) {
      int i = position(lines, name);
      return i < 0 ? ~uint64_t(0) : lines[size_t(i)].count;
    };
    EXPECT_EQ(count("leaf"), 3700u);
    EXPECT_EQ(count("mid"), 37u);
    EXPECT_EQ(count("main"), 1u);
    EXPECT_EQ(count("never"), 0u);
    if (std::string(c.order) == "hot")
      EXPECT_LT(position(lines, "leaf"), position(lines, "mid"));
    else if (std::string(c.order) == "c3") // leaf's cluster goes behind its caller's
      EXPECT_EQ(position(lines, "leaf"), position(lines, "mid") + 1);
    else // leaf runs between every two runs of mid
      EXPECT_EQ(std::abs(position(lines, "leaf") - position(lines, "mid")), 1);
    r = run_vesk({"-v", ann, fb, "-o", dir / "counted.vesk"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err.find("Procedure not found"), std::string::npos) << r.err;
  }
}

// The temporal order (the default) on a saved trace of two phases: op_add
// and op_mul take turns, then op_sub and keep do.  Hottest first would
// list op_add, op_sub, keep, op_mul; the temporal order puts each phase's
// pair together, chains of at most 16 bytes (two of these 8-byte
// procedures) keep the phases apart, and the pair that executed more
// instructions (op_sub and keep: 95 + 80 against 100 + 70) leads.
TEST(Profile, TemporalOrderPlacesTheProceduresOfEachPhaseTogether) {
  const BenchExe *e = bench_named("calc-o32-dwarf-pie");
  if (e == nullptr)
    GTEST_SKIP() << "bench of MIPS executables missing";
  ElfFile f(e->path);
  std::string trace = "start_code  0x40000000\n";
  auto at = [&](const char *name) {
    char s[32];
    std::snprintf(s, sizeof s, "%08llx", (unsigned long long)(0x40000000 + f.symbol_value(name)));
    return std::string(s);
  };
  auto run = [&](const char *name, int times) {
    for (int i = 0; i < times; ++i)
      trace += "Trace 0: 0x7f00 [00000000/" + at(name) + "/000000e2/00000200] " + name + "\n";
  };
  for (const char *name : {"op_add", "op_mul", "op_sub", "keep"})
    trace += std::string("IN: ") + name + "\n0x" + at(name) + ":  nop\n\n";
  for (int i = 0; i < 70; ++i)
    run("op_add", 1), run("op_mul", 1);
  run("op_add", 30);
  for (int i = 0; i < 80; ++i)
    run("op_sub", 1), run("keep", 1);
  run("op_sub", 15);
  ScratchDir dir("temporal");
  write_file(dir / "trace", trace);
  std::string fb = dir / "calc.fb";
  RunResult r = run_command({profile_binary(), "--trace", dir / "trace", "--cluster-size", "16", "-o", fb, "--", e->path});
  ASSERT_EQ(r.status, 0) << r.err;
  std::vector<FeedbackLine> lines = feedback_lines(fb);
  ASSERT_GE(lines.size(), 4u);
  std::vector<std::string> first{lines[0].name, lines[1].name}, second{lines[2].name, lines[3].name};
  std::sort(first.begin(), first.end());
  std::sort(second.begin(), second.end());
  EXPECT_EQ(first, (std::vector<std::string>{"keep", "op_sub"}));
  EXPECT_EQ(second, (std::vector<std::string>{"op_add", "op_mul"}));
  EXPECT_EQ(lines[0].count + lines[1].count, 95u + 80u);
}

// Traces read from a file: one that gives main's entry five times, and
// damaged ones, refused with one error and no feedback file written.
TEST(Profile, SavedTracesAreReadOrRefused) {
  const BenchExe *e = bench_named("calc-o32-dwarf-pie");
  if (e == nullptr)
    GTEST_SKIP() << "bench of MIPS executables missing";
  ElfFile f(e->path);
  char main_at[32];
  std::snprintf(main_at, sizeof main_at, "%08llx", (unsigned long long)(0x40000000 + f.symbol_value("main")));
  std::string in_main = std::string("IN: main\n0x") + main_at + ":  nop\n\n";
  std::string ran = std::string("Trace 0: 0x7f00 [00000000/") + main_at + "/000000e2/00000200] main\n";
  struct Case {
    const char *what;
    std::string trace, error; // error "": read, main counted 5 times
  } cases[] = {
      {"good", "start_code  0x40000000\n" + in_main + ran + ran + ran + ran + ran, ""},
      {"a line without an address", "start_code  0x40000000\nTrace 0: 0x7f00 [zz/]\n", "line 2 of the trace"},
      {"an address of 17 digits",
       "start_code  0x40000000\nTrace 0: 0x7f00 [00000000/10000000000000000/0/0]\n", "line 2 of the trace"},
      {"instructions out of sequence", "start_code  0x40000000\nIN:\n0x00400000:  nop\n0x00400010:  nop\n",
       "line 4 of the trace"},
      {"no load address for a PIE", in_main + ran, "does not say where"},
      {"binary noise", "start_code  0x40000000\nTrace 0: [" + std::string("\xff\0\x01/", 4) + "\n", "line 2"},
  };
  ScratchDir dir("trace");
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    write_file(dir / "trace", c.trace);
    std::string fb = dir / "calc.fb";
    unlink(fb.c_str());
    RunResult r = run_command({profile_binary(), "--trace", dir / "trace", "-o", fb, "--", e->path});
    if (c.error.empty()) {
      ASSERT_EQ(r.status, 0) << r.err;
      std::vector<FeedbackLine> lines = feedback_lines(fb);
      ASSERT_FALSE(lines.empty());
      EXPECT_EQ(lines[0].name, "main");
      EXPECT_EQ(lines[0].count, 5u);
    } else {
      EXPECT_EQ(r.status, 1);
      EXPECT_EQ(r.err.rfind("Error: ", 0), 0u) << r.err;
      EXPECT_NE(r.err.find(c.error), std::string::npos) << r.err;
      EXPECT_NE(access(fb.c_str(), F_OK), 0) << "no feedback file after a refusal";
    }
  }
}

// The three orders on made-up counts of five procedures of 16 bytes (p4:
// 4096): p0 calls p1 a hundred times and p2 once, p3 calls p4 once.
TEST(Profile, OrdersOnMadeUpCounts) {
  using namespace vesk::profile;
  Program p;
  for (uint32_t size : {16u, 16u, 16u, 16u, 4096u})
    p.procs.push_back({"", "", 0, size, true});
  std::vector<ProcCount> counts = {{5, 100}, {5, 1000}, {1, 600}, {9, 5000}, {1, 1}};
  std::unordered_map<uint64_t, uint64_t> calls = {{Recorder::call_key(0, 1), 100}, {Recorder::call_key(0, 2), 1},
                                                  {Recorder::call_key(3, 4), 1}};
  // Most entries first, executed instructions between equal entries; a
  // procedure that was entered but ran no instruction of its own still ran.
  counts[4].instructions = 0;
  EXPECT_EQ(hot_order(p, counts), (std::vector<int>{3, 1, 0, 2, 4}));
  counts[4].instructions = 1;
  // p1 and p2 go behind their caller p0, unless the cluster would grow
  // past the limit; p4 would thin p3's cluster out more than eightfold:
  // alone, the least dense, it comes last.
  EXPECT_EQ(c3_order(p, counts, calls, 1 << 20), (std::vector<int>{3, 0, 1, 2, 4}));
  EXPECT_EQ(c3_order(p, counts, calls, 40), (std::vector<int>{3, 2, 0, 1, 4}));
  counts[2] = {};
  EXPECT_EQ(hot_order(p, counts), (std::vector<int>{3, 1, 0, 4}));
}
