// Code reached through a GOT page that a layout moves into a stretch of
// .text where the linker made no page entry (the stretch holds only code
// reached in other ways): vesk-annotate gives that stretch a page in one
// of the entries the linker reserved and left unused, and the moved code
// still finds its page.
#include <gtest/gtest.h>

#include "support/bench.h"

using namespace vesk::test;

namespace {

// twice is static: PIC code calls it through a GOT page and offset.  The
// fillers, 64 KB each, are reached only through a table of pointers, so
// the linker makes no page entry for the stretch of .text they fill.
const char kProgram[] = R"(#include <stdio.h>
__attribute__((noipa)) static int twice(int x) { return 2 * x + 1; }
void filler1(void) { __asm__ volatile(".rept 16000\n nop\n .endr"); }
void filler2(void) { __asm__ volatile(".rept 16000\n nop\n .endr"); }
void filler3(void) { __asm__ volatile(".rept 16000\n nop\n .endr"); }
void (*const fillers[])(void) = {filler1, filler2, filler3};
int main(int argc, char **argv) {
  if (argc > 5)
    fillers[argc % 3]();
  printf("%d\n", twice(argc));
  return 0;
}
)";

} // namespace

TEST(GotPages, CodeMovedWhereTheLinkerMadeNoPageEntryFindsASpareOne) {
  ScratchDir dir("gotpages");
  write_file(dir / "got.c", kProgram);
  for (std::string abi : {"o32", "n32", "n64"}) {
    SCOPED_TRACE(abi);
    BenchExe e;
    e.path = dir / ("got-" + abi);
    e.name = "got-" + abi;
    e.abi = abi;
    e.qemu = {abi == "o32" ? "qemu-mips" : abi == "n32" ? "qemu-mipsn32" : "qemu-mips64", "-L",
              abi == "o32" ? "/usr/mips-linux-gnu" : "/usr/mips64-linux-gnuabi64"};
    std::string cc = abi == "o32" ? "mips-linux-gnu-gcc" : "mips64-linux-gnuabi64-gcc";
    RunResult r = run_command({"sh", "-c", cc + (abi == "n32" ? " -mabi=n32" : "") + " -O2 -g -Wl,-q -o $0 $1",
                               e.path, dir / "got.c"});
    ASSERT_EQ(r.status, 0) << r.err;
    AnnotatedBench b(e);
    ASSERT_TRUE(b.ok()) << b.refusal();
    // filler1 first, then twice: twice lands 64 KB into the text.
    r = b.vesk(b.annotated(), {{"filler1", "got.c", 2}, {"twice", "got.c", 1}}, b.path("out"), {"-debug"});
    ASSERT_EQ(r.status, 0) << r.err;
    uint64_t moved = 0;
    for (const DebugProc &p : address_mapping(r.out))
      moved = p.name == "twice" ? p.new_lo : moved;
    ASSERT_NE(moved, 0u) << r.out;
    // No entry the linker filled reaches it there.
    ElfFile in(e.path);
    uint64_t local = 0;
    for (const GElf_Dyn &d : in.dynamic())
      local = d.d_tag == DT_MIPS_LOCAL_GOTNO ? d.d_un.d_val : local;
    GElf_Shdr got = in.shdr(".got");
    for (uint64_t i = 1; i < local; ++i) {
      uint64_t v = in.addr_word(got.sh_offset + i * in.addr_size());
      EXPECT_FALSE(v != 0 && moved + 0x8000 >= v && moved <= v + 0x7fff) << "GOT entry " << i << " reaches it";
    }
    RunResult run = run_bench(e, b.path("out"));
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "3\n");
  }
}
