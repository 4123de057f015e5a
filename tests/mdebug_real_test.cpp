// The mdebug table of real executables: the calc program of the bench,
// compiled here for o32 and n32 with -Wa,-mdebug -O2 -Wl,-q.
//
// -fno-reorder-functions: at -O2 gcc puts main and constructors into
// .text.startup, and the assembler's mdebug table can only place a
// function relative to its file's .text, so their symbols would carry
// wrong addresses.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fcntl.h>
#include <gelf.h>
#include <map>
#include <set>
#include <string>
#include <unistd.h>
#include <vector>

#include "base/bin.h"
#include "base/proc.h"
#include "com/mdebug.h"
#include "mdebug/symtab.h"
#include "support/elf_file.h"
#include "support/read_bin.h"
#include "support/run.h"
#include "support/synth_elf.h"
#include "vesk/options.h"
#include "vesk/reader.h"

using namespace vesk;
using namespace vesk::test;

namespace {

struct Built {
  std::string exe;
  std::vector<std::string> own_functions; // defined in the program's sources
};

std::vector<ElfSymbol> function_symbols(const std::string &path) { return ElfFile(path).functions(); }

// Compiles the bench's calc program for one ABI; the assembler sees each
// source under its own name, so the file descriptors say main.c etc.
const Built &build_calc(const std::string &abi, const std::string &model_flags) {
  static std::map<std::string, Built> cache;
  std::string key = abi + model_flags;
  auto it = cache.find(key);
  if (it != cache.end())
    return it->second;
  std::string cc = abi == "o32" ? "mips-linux-gnu-gcc" : "mips64-linux-gnuabi64-gcc";
  std::string abi_flag = abi == "n32" ? "-mabi=n32" : "";
  std::string src = VESK_SOURCE_DIR "/tests/programs/calc";
  std::string dir = temp_path("calc-" + abi);
  std::string flags = "-O2 -fno-reorder-functions " + abi_flag + " " + model_flags;
  std::string script = "set -e; mkdir -p " + dir + "; cd " + dir + "; for s in " + src +
                       "/*.c; do b=$(basename $s .c); " + cc + " " + flags + " -S -o $b.s $s; sed -i \"1i # 1 \\\"$b.c\\\"\" $b.s; " +
                       cc + " " + flags + " -Wa,-mdebug -c -o $b.o $b.s; done; " + cc + " " + flags +
                       " -Wl,-q -o calc *.o";
  RunResult r = run_command({"sh", "-c", script});
  EXPECT_EQ(r.status, 0) << r.err;
  Built b;
  b.exe = dir + "/calc";
  std::set<std::string> own;
  for (const char *obj : {"builtins", "eval", "lexer", "main"})
    for (const ElfSymbol &s : function_symbols(dir + "/" + obj + ".o"))
      own.insert(s.name);
  b.own_functions.assign(own.begin(), own.end());
  return cache[key] = b;
}

struct MdebugReal : ::testing::TestWithParam<std::pair<const char *, const char *>> {
  void SetUp() override {
    bin.procs = ProcTable{};


    option = Options{};
    bin = Bin{};
  }
  void TearDown() override { release_input(); }
};

} // namespace

// The table starts with the stubs at the start of .text, is sorted, covers
// the text without gaps, and holds every function of the program's sources
// at its symbol's address, at least as large as the symbol says.
TEST_P(MdebugReal, ProcedureTableCoversTheText) {
  const Built &b = build_calc(GetParam().first, GetParam().second);
  ASSERT_FALSE(b.own_functions.empty());
  option.program = b.exe.c_str();
  read_orig_binary();
  ASSERT_EQ(bin.debug_kind, DEBUG_MDEBUG);

  int n = get_n_procs();
  ASSERT_GT(n, int(b.own_functions.size()));
  EXPECT_STREQ(get_proc_by_index(0)->name, ".libstub");
  EXPECT_EQ(get_proc_by_index(0)->old_addr, bin.text_lo);
  for (int i = 0; i + 1 < n; ++i)
    ASSERT_EQ(get_proc_by_index(i)->old_addr + get_proc_by_index(i)->size, get_proc_by_index(i + 1)->old_addr) << i;
  EXPECT_EQ(get_proc_by_index(n - 1)->old_addr + get_proc_by_index(n - 1)->size, bin.text_hi);

  std::multimap<std::string, ElfSymbol> symbols;
  for (const ElfSymbol &s : function_symbols(b.exe))
    symbols.insert({s.name, s});
  for (const std::string &fn : b.own_functions) {
    auto [lo, hi] = symbols.equal_range(fn);
    ASSERT_NE(lo, hi) << fn;
    int found = 0;
    for (int i = 0; i < n; ++i) {
      const Proc *p = get_proc_by_index(i);
      if (fn != p->name)
        continue;
      ++found;
      bool matches = false;
      for (auto s = lo; s != hi; ++s)
        matches |= s->second.value == p->old_addr && p->size >= s->second.size;
      EXPECT_TRUE(matches) << fn << " at " << std::hex << p->old_addr << " size " << p->size;
      EXPECT_NE(std::string(p->file_name).find(".c"), std::string::npos) << p->file_name;
    }
    EXPECT_EQ(found, 1) << fn;
  }
}

// The update on the real section: with every word moved by 0x10000, the
// code addresses move by 0x10000 and nothing else does.
TEST_P(MdebugReal, UpdateMovesEveryCodeAddress) {
  const Built &b = build_calc(GetParam().first, GetParam().second);
  option.program = b.exe.c_str();
  read_orig_binary();
  std::vector<uint64_t> map(bin.text_words);
  for (uint32_t i = 0; i < bin.text_words; ++i)
    map[i] = bin.text_lo + 4 * uint64_t(i) + 0x10000;
  bin.text_map = map.data();

  uint64_t file_off = ElfFile(b.exe).shdr(".mdebug").sh_offset;
  std::vector<uint8_t> before = ElfFile(b.exe).contents(".mdebug");
  std::vector<uint8_t> after = before;
  fixmdebug(after.data(), after.size(), file_off);
  std::unique_ptr<MdebugHandle> old_handle = mdebug_open_image(before.data(), before.size(), file_off, "before");
  std::unique_ptr<MdebugHandle> new_handle = mdebug_open_image(after.data(), after.size(), file_off, "after");
  MdebugHandle *old_h = old_handle.get(), *new_h = new_handle.get();
  mdebug_read_tables(old_h);
  mdebug_read_tables(new_h);
  const MdebugSymtab &o = old_h->st, &m = new_h->st;
  ASSERT_GT(m.ifd_max, 0u);

  auto shifted = [](uint32_t v) { return in_text(sign_extend32(v)) ? v + 0x10000 : v; };
  for (uint32_t f = 0; f < m.ifd_max; ++f) {
    EXPECT_EQ(uint32_t(m.fdrs[f].adr), 0u);
    for (uint32_t k = 0; k < uint32_t(m.fdrs[f].csym); ++k) {
      const Symr &s = o.syms[uint32_t(o.fdrs[f].isymBase) + k];
      unsigned st = symr_st(s);
      bool code = st == 0 || st == 2 || st == 5 || st == 6 || st == 14 || st == 33;
      uint32_t want = code ? shifted(s.value) : uint32_t(s.value);
      EXPECT_EQ(uint32_t(m.syms[uint32_t(o.fdrs[f].isymBase) + k].value), want);
    }
    for (uint32_t k = 0; k < uint32_t(m.fdrs[f].cpd); ++k) {
      uint32_t i = uint32_t(o.fdrs[f].ipdFirst) + k;
      uint32_t old_adr = o.pdrs[i].adr;
      // The assembler writes descriptor addresses relative to the file
      // even for PIC code, where they are taken as absolute: left alone.
      uint32_t want = bin.pic_kind == 0 ? old_adr : old_adr + uint32_t(o.fdrs[f].adr) + 0x10000;
      EXPECT_EQ(uint32_t(m.pdrs[i].adr), want);
    }
  }
  EXPECT_EQ(bin.mdebug_bad_proc_info, bin.pic_kind == 0);
  for (uint32_t i = 0; i < m.iext_max; ++i) {
    uint32_t v = o.exts[i].asym.value;
    EXPECT_EQ(uint32_t(m.exts[i].asym.value), v == 0 || v == 1 ? v : shifted(v)) << mdebug_external_name(old_h, i);
  }
  EXPECT_EQ(bin.line_size, uint32_t(record_at<Hdrr>(before.data(), 0)->cbLine));
}

INSTANTIATE_TEST_SUITE_P(Abis, MdebugReal,
                         ::testing::Values(std::make_pair("o32", ""), std::make_pair("n32", "-no-pie")),
                         [](const auto &info) { return std::string(info.param.first); });

// The assembler writes the 64-bit form of the table for n64, which this
// tool does not read.
TEST(MdebugRealN64, SixtyFourBitTableIsRefused) {
  std::string dir = temp_path("n64");
  std::string script = "set -e; mkdir -p " + dir + "; cd " + dir +
                       "; printf 'int f(int x){return x+1;}\\nint main(void){return f(0);}\\n' > a.c; "
                       "mips64-linux-gnuabi64-gcc -O2 -Wa,-mdebug -Wl,-q -o a a.c";
  RunResult r = run_command({"sh", "-c", script});
  ASSERT_EQ(r.status, 0) << r.err;
  RunResult v = run_vesk({dir + "/a"}, dir);
  EXPECT_EQ(v.status, 1);
  EXPECT_NE(v.err.find("holds a 64-bit symbolic table (magic 0x1992)"), std::string::npos) << v.err;
}
