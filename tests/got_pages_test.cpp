// Code reached through a GOT page that a layout moves into a stretch of
// .text where the linker made no page entry (the stretch holds only code
// reached in other ways): vesk-annotate gives that stretch a page in one
// of the entries the linker reserved and left unused, and the moved code
// still finds its page.
#include <gtest/gtest.h>

#include <random>

#include "base/bin.h"
#include "base/bytes.h"
#include "com/update.h"
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

// The entry that a moved page load takes: one its gp reaches with a 16-bit
// offset, holding (with every bit of a 64-bit entry) a value within 32 KB
// of the address, never entry 0 (the lazy resolver's) nor entry 1 when the
// linker marked it for the loader's module pointer (as it does here), only a page entry when the gp is a secondary GOT's, and
// the first such.  Random GOTs of both classes, primary and secondary gp,
// addresses taken near the entries' values.
TEST(GotPages, AMovedPageLoadTakesTheFirstEntryItsGpReachesThatReachesTheAddress) {
  for (bool is64 : {false, true}) {
    SCOPED_TRACE(is64 ? "64-bit" : "32-bit");
    std::mt19937_64 rng(is64 ? 64 : 32);
    const uint32_t ws = is64 ? 8 : 4, pltgot = 0x10010;
    const size_t per_got = 0x10000 / ws, n = 3 * per_got; // the primary GOT and two more
    for (int round = 0; round < 20; ++round) {
      vesk::bin = vesk::Bin{};
      vesk::bin.is_elf32 = !is64;
      vesk::bin.pltgot = pltgot;
      vesk::bin.gp_value = pltgot + 0x7ff0;
      vesk::bin.local_gotno = uint32_t(2 + rng() % (per_got - 2));
      // Pages of a few 64 KB regions, some repeated; a 64-bit entry may
      // differ from a nearby address only above its low 32 bits.
      std::vector<uint64_t> value(n);
      std::vector<uint8_t> got(n * ws), page(n);
      for (size_t i = 0; i < n; ++i) {
        value[i] = (0x400000 + (rng() % 24) * 0x10000) | (rng() % 4 == 0 ? rng() % 0x10000 & ~3ull : 0);
        if (is64)
          value[i] += (rng() % 3 == 0 ? 0x200000000ull : 0x120000000ull);
        page[i] = rng() % 3 != 0;
      }
      value[1] = is64 ? 0x8000000000000000ull | value[1] : 0x80000000u | uint32_t(value[1]);
      for (size_t i = 0; i < n; ++i)
        is64 ? vesk::store64(&got[i * ws], value[i]) : vesk::store32(&got[i * 4], uint32_t(value[i]));
      vesk::bin.got_buf = got.data();
      vesk::bin.got_count = uint32_t(n * ws / 4);
      vesk::bin.got_page = page;
      for (int q = 0; q < 400; ++q) {
        // The primary gp, or a secondary GOT's (its gp 0x7ff0 past its start).
        uint64_t start = q % 2 ? 0 : per_got + rng() % per_got;
        uint64_t gp = start == 0 ? 0 : pltgot + start * ws + 0x7ff0 + (is64 ? 0x100000000ull : 0);
        bool secondary = start != 0;
        uint64_t addr = value[rng() % n] + rng() % 0x10000 - 0x8000;
        auto serves = [&](size_t i) {
          int64_t offset = int64_t(i * ws + pltgot) - int64_t(uint32_t(secondary ? gp : vesk::bin.gp_value));
          int64_t d = is64 ? int64_t(addr - value[i]) : int64_t(int32_t(uint32_t(addr) - uint32_t(value[i])));
          return offset >= -32768 && offset <= 32767 && d >= -32768 && d <= 32767 && i >= 2 &&
                 (secondary ? page[i] != 0 : i < vesk::bin.local_gotno);
        };
        size_t first = 0;
        while (first < n && !serves(first))
          ++first;
        uint32_t index = 0;
        int32_t diff = 0;
        bool found = vesk::try_local_got_entry_for_addr(addr, &index, &diff, gp);
        ASSERT_EQ(found, first < n) << std::hex << "address " << addr << " gp " << gp;
        if (found) {
          ASSERT_EQ(index, first) << std::hex << "address " << addr << " gp " << gp;
          EXPECT_EQ(uint32_t(diff), uint32_t(addr - value[index]));
        }
      }
    }
  }
  vesk::bin = vesk::Bin{};
}
