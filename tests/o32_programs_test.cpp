// Small o32 programs built by the cross compiler for what the bench does
// not show: the references vesk-annotate describes, to the instruction, and
// a function GCC splits into a hot and a cold part.
#include <gtest/gtest.h>

#include "com/compact_rel.h"
#include "support/bench.h"
#include "base/bytes.h"

using namespace vesk;
using namespace vesk::test;

namespace {

RunResult run_o32(const std::string &exe) { return run_command({"qemu-mips", "-L", "/usr/mips-linux-gnu", exe}, "", 10); }

// Functions in assembly, so that the instruction pairs are known exactly,
// and a word and a GP-relative word holding code addresses.
const char *const kAsmProgram = R"(
#include <stdio.h>
extern int f2(void), f3(void);
extern void *get_f2(void);
__asm__(".text\n .globl get_f2\n .ent get_f2\nget_f2:\n .set noreorder\n lui $3,%hi(f2)\n"
        " addiu $2,$3,%lo(f2)\n jr $31\n nop\n .end get_f2\n"
        " .globl f2\n .ent f2\nf2:\n jr $31\n li $2,42\n .end f2\n"
        " .globl f3\n .ent f3\nf3:\n jr $31\n li $2,43\n .end f3\n .set reorder\n"
        " .data\n .globl wordref\nwordref: .word f3\n .section .rodata\n .globl gpref\ngpref: .gpword f2\n");
extern void *wordref;
int main(void) {
  int (*f)(void) = (int (*)(void))get_f2();
  printf("%d %d\n", f(), ((int (*)(void))wordref)());
  return 0;
}
)";

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

TEST(Annotate, DescribesPairsWordsAndGpRelativeWords) {
  ScratchDir dir("annotate");
  std::string exe = compile_o32(dir, "asm", kAsmProgram, {"-fno-pie", "-no-pie"}), out = exe + ".ann";
  RunResult r = run_command({annotate_binary(), exe, "-o", out});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "");
  // The entries follow the header, whose pair with tag 1 holds their count
  // and (0, 0) ends it.
  std::vector<uint8_t> v = ElfFile(out).contents(".compact_rel");
  CompactRelCursor cm{};
  size_t off = 0;
  for (; off + 8 <= v.size() && load32(&v[off]) != 0; off += 8)
    cm.rlc_no = load32(&v[off]) == 1 ? load32(&v[off + 4]) : cm.rlc_no;
  ASSERT_LT(off, v.size());
  cm.rlc_ptr = v.data() + off + 8;
  cm.end = v.data() + v.size();
  cm_rlc_reset(&cm);
  auto entry = [](uint32_t type, uint64_t at, uint64_t konst, uint32_t dist2to = 0) {
    return std::to_string(type) + " " + std::to_string(at) + " " + std::to_string(konst) + " " + std::to_string(dist2to);
  };
  std::vector<std::string> got;
  ElfFile f(exe);
  uint64_t get_f2 = f.symbol_value("get_f2"), f2 = f.symbol_value("f2"), f3 = f.symbol_value("f3");
  for (CompactRelEntry e; cm_rlc_get(&cm, &e);)
    if (e.konst == f2 || e.konst == f3)
      got.push_back(entry(e.type, e.vaddr, e.konst, e.dist2to));
  // The %hi and the %lo each described alone with the address they form,
  // the GP-relative word, the word; in ascending order.
  EXPECT_EQ(got, (std::vector<std::string>{entry(7, get_f2, f2), entry(7, get_f2 + 4, f2),
                                           entry(2, f.symbol_value("gpref"), f2),
                                           entry(3, f.symbol_value("wordref"), f3)}));
  EXPECT_EQ(run_o32(out).out, "42 43\n");
}

// The parts are placed on their own, and a layout that puts them out of a
// branch's reach of each other is repaired by moving the cold part behind
// the hot one.
TEST(SplitFunction, ColdPartFarFromItsHotPartIsBroughtBackInReach) {
  ScratchDir dir("split");
  for (std::string debug : {"-g", "-Wa,-mdebug"}) {
    SCOPED_TRACE(debug);
    std::string exe = compile_o32(dir, "split" + debug, kSplitProgram, {debug, "-freorder-blocks-and-partition"});
    std::string ann = exe + ".ann", fb = exe + ".fb", merged = exe + ".merged";
    ASSERT_EQ(run_command({annotate_binary(), exe, "-o", ann}).status, 0);
    // The file names come from the debug information: a first run lists
    // them in its merged feedback.  check first, filler next, check.cold last.
    write_file(fb, kNoFeedback);
    RunResult r = run_vesk({ann, fb, "-o", exe + ".list", "-merge", merged});
    ASSERT_EQ(r.status, 0) << r.err;
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
