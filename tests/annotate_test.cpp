// vesk-annotate on small o32 programs built by the cross compiler: the
// code references it describes in .compact_rel.
#include <gtest/gtest.h>

#include "com/compact_rel.h"
#include "support/bench.h"
#include "support/elf_file.h"
#include "vesk/bytes.h"

using namespace vesk;
using namespace vesk::test;

namespace {

// Functions in assembly so that the instruction pairs are known exactly.
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

// A static function whose address position-independent code takes through
// a GOT page entry.
const char *const kPicProgram = R"(
#include <stdio.h>
static int __attribute__((noinline)) hidden(int x) { return x * 3; }
int (*__attribute__((noinline)) get(void))(int) { return hidden; }
int main(void) { printf("%d\n", get()(14)); return 0; }
)";

// The entries of an executable's .compact_rel of one type, or of every
// type; the header's pair with tag 1 holds the count, (0, 0) ends it.
std::vector<CompactRelEntry> entries(const std::string &exe, uint32_t type = ~0u) {
  std::vector<uint8_t> v = ElfFile(exe).contents(".compact_rel");
  CompactRelCursor cm{};
  size_t off = 0;
  for (; off + 8 <= v.size() && load32(&v[off]) != 0; off += 8)
    if (load32(&v[off]) == 1)
      cm.rlc_no = load32(&v[off + 4]);
  EXPECT_LT(off, v.size()) << exe;
  cm.rlc_ptr = v.data() + off + 8;
  cm.end = v.data() + v.size();
  cm_rlc_reset(&cm);
  std::vector<CompactRelEntry> out;
  for (CompactRelEntry e; off < v.size() && cm_rlc_get(&cm, &e);)
    if (type == ~0u || e.type == type)
      out.push_back(e);
  return out;
}

} // namespace

TEST(Annotate, DescribesPairsAndWordsOfNonPicCode) {
  ScratchDir dir("annotate");
  std::string exe = compile_o32(dir, "asm", kAsmProgram, {"-fno-pie", "-no-pie"});
  std::string out = exe + ".ann";
  auto r = run_command({annotate_binary(), exe, "-o", out});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "");
  auto es = entries(out);
  ElfFile f(exe);
  uint32_t get_f2 = f.symbol_value("get_f2"), f2 = f.symbol_value("f2"), f3 = f.symbol_value("f3");
  // The %hi and the %lo, each described alone with the address they form.
  auto hilo = entries(out, 7);
  ASSERT_EQ(hilo.size(), 2u);
  for (size_t i = 0; i < 2; ++i) {
    EXPECT_EQ(hilo[i].vaddr, get_f2 + 4 * i);
    EXPECT_EQ(hilo[i].dist2to, 0u);
    EXPECT_EQ(hilo[i].konst, f2);
  }
  auto gprel = entries(out, 2);
  ASSERT_EQ(gprel.size(), 1u);
  EXPECT_EQ(gprel[0].vaddr, f.symbol_value("gpref"));
  EXPECT_EQ(gprel[0].konst, f2);
  bool word_found = false;
  for (const auto &e : entries(out, 3))
    word_found |= e.vaddr == f.symbol_value("wordref") && e.konst == f3;
  EXPECT_TRUE(word_found);
  // Ascending addresses, as the reader walks them cheapest.
  for (size_t i = 1; i < es.size(); ++i)
    EXPECT_LE(es[i - 1].vaddr, es[i].vaddr);
  EXPECT_EQ(run_o32(out).out, "42 43\n");
}

TEST(Annotate, DescribesGpSetUpsAndGotPagePairsOfPicCode) {
  ScratchDir dir("annotate");
  std::string exe = compile_o32(dir, "pic", kPicProgram, {});
  std::string out = exe + ".ann";
  auto r = run_command({annotate_binary(), exe, "-o", out});
  ASSERT_EQ(r.status, 0) << r.err;
  ElfFile f(exe);
  uint32_t get = f.symbol_value("get"), hidden = f.symbol_value("hidden");
  uint32_t gp = load32(f.contents(".reginfo").data() + 20);
  bool setup = false, page = false;
  for (const auto &e : entries(out)) {
    setup |= e.type == 4 && e.vaddr == get && e.dist2to == 4 && e.konst == gp - get;
    page |= e.type == 5 && e.konst == hidden && e.vaddr > get && e.dist2to == 0;
  }
  EXPECT_TRUE(setup);
  EXPECT_TRUE(page);
  EXPECT_EQ(run_o32(out).out, "42\n");
}
