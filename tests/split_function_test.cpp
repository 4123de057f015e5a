// A function GCC splits into a hot and a cold part: the parts are placed on
// their own, and a layout that would put them out of a branch's reach of
// each other is repaired by moving the cold part behind the hot one.
#include <gtest/gtest.h>

#include "support/bench.h"

using namespace vesk::test;

namespace {

// check() has a cold part; filler() is 160 KB of code, so that the hot
// and the cold part end up more than 128 KB apart when the order puts
// filler between them.
const char *const kSplitProgram = R"(
#include <stdio.h>
volatile int sink;
__attribute__((cold, noinline)) void report(int x) { fprintf(stderr, "negative %d\n", x); }
__attribute__((noinline)) int check(int x) {
  int r = x * 3 + sink;
  if (__builtin_expect(x < 0, 0)) {
    report(x);
    sink = r = -x - 1;
  }
  return r;
}
__attribute__((noinline)) void filler(void) { __asm__ volatile(".rept 40000\n nop\n .endr"); }
int main(int argc, char **argv) {
  if (argc > 5) filler();
  printf("%d %d\n", check(argc), check(-argc));
  return 0;
}
)";

} // namespace

TEST(SplitFunction, ColdPartFarFromItsHotPartIsBroughtBackInReach) {
  ScratchDir dir("split");
  for (std::string debug : {"-g", "-Wa,-mdebug"}) {
    SCOPED_TRACE(debug);
    std::string exe = compile_o32(dir, "split" + debug, kSplitProgram, {debug, "-freorder-blocks-and-partition"});
    std::string ann = exe + ".ann", fb = exe + ".fb", merged = exe + ".merged";
    ASSERT_EQ(run_command({annotate_binary(), exe, "-o", ann}).status, 0);
    // The file names come from the debug information: a first run lists
    // them in its merged feedback.
    write_file(fb, kNoFeedback);
    RunResult r = run_vesk({ann, fb, "-o", exe + ".list", "-merge", merged});
    ASSERT_EQ(r.status, 0) << r.err;
    // check first, filler next, check.cold last.
    std::vector<FeedbackLine> lines;
    for (const std::string name : {"check", "filler", "check.cold"})
      for (const FeedbackLine &l : feedback_lines(merged))
        if (l.name == name)
          lines.push_back({name, l.file, uint64_t(4 - lines.size())});
    ASSERT_EQ(lines.size(), 3u);
    write_file(fb, feedback_text(lines));
    r = run_vesk({ann, fb, "-o", exe + ".vesk", "-v"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.err.find("check.cold placed behind check to keep their branches in reach"), std::string::npos)
        << r.err;
    EXPECT_EQ(run_o32(exe + ".vesk").out, run_o32(exe).out);
  }
}
