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

// References that an entry can describe only up to a point: each program
// is annotated (and then must still print what it printed) or refused with
// the reason, never described wrongly.
TEST(Annotate, DescribesWhatAnEntryCanHoldAndRefusesTheRest) {
  // get() in assembly behind f2, which returns 42; main prints what get
  // returns.
  auto program = [](const std::string &body) {
    return "#include <stdio.h>\nextern int get(void);\n__asm__(\".text\\n .globl f2\\n .ent f2\\nf2:\\n .set "
           "noreorder\\n jr $31\\n li $2,42\\n .end f2\\n .globl get\\n .ent get\\nget:\\n" +
           body + " .end get\\n .set reorder\\n\");\nint main(void) { printf(\"%d\\n\", get()); return 0; }\n";
  };
  // A _gp_disp set-up whose %lo lies `gap` words behind its %hi (gp is
  // saved around it: nothing here reads it), then 42 from f2 called
  // through $25.
  auto gp_disp = [](int gap) {
    return " addiu $sp,$sp,-32\\n sw $31,28($sp)\\n sw $28,24($sp)\\n lui $28,%hi(_gp_disp)\\n"
           " .rept " + std::to_string(gap - 1) + "\\n nop\\n .endr\\n addiu $28,$28,%lo(_gp_disp)\\n"
           " lui $25,%hi(f2)\\n addiu $25,$25,%lo(f2)\\n jalr $25\\n nop\\n lw $28,24($sp)\\n lw $31,28($sp)\\n"
           " jr $31\\n addiu $sp,$sp,32\\n";
  };
  // Two %hi of f2 that form different addresses with a %lo of f2, then a
  // third one that loads $3.
  const std::string two_his = " lui $3,%hi(f2)\\n addiu $9,$3,%lo(f2)\\n lui $3,%hi(f2+0x10000)\\n"
                              " addiu $9,$3,%lo(f2+0x10000)\\n lui $3,%hi(f2)\\n";
  const char *const several = "one of several %hi that form different addresses";
  const struct {
    const char *what;
    std::string body;
    const char *refusal; // empty: annotated, and it prints 42
  } cases[] = {
      // Where the nearest load of a %lo's register cannot be trusted, the
      // %lo is not paired with it; among several candidates it is refused.
      {"a %lo behind a call, which may change its register",
       two_his + " jal f2\\n nop\\n addiu $2,$3,%lo(f2)\\n jr $31\\n nop\\n", several},
      {"a %lo where a jump lands", two_his + " b 1f\\n nop\\n1: addiu $2,$3,%lo(f2)\\n jr $31\\n nop\\n", several},
      // An entry says how far a _gp_disp %lo lies behind its %hi in 8 bits
      // of words.
      {"a _gp_disp pair 255 words apart", gp_disp(255), ""},
      {"a _gp_disp pair 256 words apart", gp_disp(256), "cannot be described"},
      // One %hi whose %lo form f2 and an address outside .text: it cannot
      // follow f2 without taking the other address with it.
      {"a %hi shared by code and other data",
       " lui $3,%hi(f2)\\n addiu $25,$3,%lo(f2)\\n addiu $4,$3,%lo(f2+0x7000)\\n jr $25\\n nop\\n",
       "is shared by references to different addresses"},
      // Two %hi of f2 form different addresses with a %lo whose register
      // came from the stack: the call's own relocation, four words on,
      // tells which one it completes.
      {"a %lo told apart by the call it completes",
       " addiu $sp,$sp,-32\\n sw $31,28($sp)\\n lui $25,%hi(f2)\\n addiu $9,$25,%lo(f2)\\n"
       " lui $25,%hi(f2+0x10000)\\n addiu $9,$25,%lo(f2+0x10000)\\n lui $25,%hi(f2)\\n sw $25,16($sp)\\n"
       " lw $25,16($sp)\\n addiu $25,$25,%lo(f2)\\n nop\\n nop\\n nop\\n .reloc 1f,R_MIPS_JALR,f2\\n1: jalr $25\\n"
       " nop\\n lw $31,28($sp)\\n jr $31\\n addiu $sp,$sp,32\\n",
       ""},
  };
  ScratchDir dir("annotate-limits");
  for (size_t i = 0; i < std::size(cases); ++i) {
    SCOPED_TRACE(cases[i].what);
    std::string exe = compile_o32(dir, "limits" + std::to_string(i), program(cases[i].body), {"-fno-pie", "-no-pie"});
    std::string out = exe + ".ann";
    RunResult r = run_command({annotate_binary(), exe, "-o", out});
    if (*cases[i].refusal != 0) {
      EXPECT_EQ(r.status, 1);
      EXPECT_NE(r.err.find(cases[i].refusal), std::string::npos) << r.err;
    } else {
      ASSERT_EQ(r.status, 0) << r.err;
      EXPECT_EQ(run_o32(out).out, "42\n");
    }
  }
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
