// The procedures vesk finds cover the code of GNU-built executables: they
// follow each other without a gap, one that starts at a function symbol
// has that symbol's name, every word of a sized function symbol of .text
// lies in one, and vesk -v has nothing to say about code outside them.
// The executables: the bench, tests/support/gnu_functions.c (split hot and
// cold parts) built here for the three ABIs with DWARF 4, DWARF 5 and
// mdebug, and the real programs with DWARF.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>

#include "mdebug/records.h"
#include "support/bench.h"

using namespace vesk::test;

namespace {

std::vector<std::string> coverage_names() {
  std::vector<std::string> names;
  for (const BenchExe &e : bench_executables())
    names.push_back(e.name);
  for (std::string abi : {"o32", "n32", "n64"})
    for (std::string debug : {"dwarf4", "dwarf5", "mdebug"})
      names.push_back("gnu-" + abi + "-" + debug);
  for (const BenchExe &e : real_executables())
    if (e.debug == "dwarf")
      names.push_back(e.name);
  return names;
}

// Builds gnu_functions.c as "gnu-<abi>-<debug>" names it.
std::string build_gnu(const std::string &name, const ScratchDir &dir) {
  std::string abi = name.substr(4, 3), debug = name.substr(8), out = dir / name;
  std::string cc = abi == "o32" ? "mips-linux-gnu-gcc" : "mips64-linux-gnuabi64-gcc";
  cc += std::string(abi == "n32" ? " -mabi=n32" : "") + " -O2 -freorder-blocks-and-partition ";
  std::string src = VESK_SOURCE_DIR "/tests/support/gnu_functions.c";
  std::string cmd = debug != "mdebug" ? cc + "-gdwarf-" + debug.substr(5) + " -Wl,-q -o " + out + " " + src
                                      : cc + "-S -o " + out + ".s " + src + " && " + cc + "-Wa,-mdebug -Wl,-q -o " +
                                            out + " " + out + ".s";
  RunResult r = run_command({"sh", "-c", cmd});
  EXPECT_EQ(r.status, 0) << cmd << "\n" << r.err;
  return out;
}

class Coverage : public testing::TestWithParam<std::string> {};

} // namespace

TEST_P(Coverage, EveryWordOfEveryFunctionSymbolLiesInANamedProcedure) {
  ScratchDir dir("coverage");
  const BenchExe *e = bench_named(GetParam());
  std::string path = e ? e->path : GetParam().rfind("gnu-", 0) == 0 ? build_gnu(GetParam(), dir) : "";
  if (path.empty())
    GTEST_SKIP() << GetParam() << " has not been built";
  write_file(dir / "none.fb", kNoFeedback);
  // Only the procedure listing matters here; a refusal after it is no fault of coverage.
  RunResult v = run_vesk({"-v", "-debug", path, dir / "none.fb", "-o", dir / "out"});
  if (GetParam() == "gnu-n64-mdebug") {
    EXPECT_EQ(v.status, 1);
    EXPECT_NE(v.err.find("holds a 64-bit symbolic table (magic 0x1992)"), std::string::npos) << v.err;
    return;
  }
  EXPECT_LE(v.status, 1) << v.err;
  // A real program's DWARF may describe subprograms GCC removed; vesk
  // ignores them, with a warning.
  bool real = e && e->path.rfind(VESK_REAL_DIR, 0) == 0;
  for (const char *complaint : {"is ignored", "no procedure at", "not in any procedure"})
    EXPECT_TRUE((real && complaint[0] == 'i') || v.err.find(complaint) == std::string::npos) << v.err.substr(0, 2000);
  std::vector<DebugProc> procs = procedure_table(v.out);
  std::erase_if(procs, [](const DebugProc &p) { return p.new_hi == p.new_lo; });
  std::sort(procs.begin(), procs.end(), [](const auto &a, const auto &b) { return a.old_addr < b.old_addr; });
  ASSERT_FALSE(procs.empty()) << v.err;

  ElfFile f(path);
  GElf_Shdr text = f.shdr(".text");
  size_t text_index = elf_ndxscn(f.scn(".text"));
  std::map<uint64_t, std::set<std::string>> names{{text.sh_addr, {".libstub"}}}; // the stubs of an mdebug table
  for (const ElfSymbol &s : f.functions())
    names[s.value].insert(s.name);
  std::set<uint64_t> starts;
  for (size_t i = 0; i < procs.size(); ++i) {
    const DebugProc &p = procs[i];
    starts.insert(p.old_addr);
    EXPECT_TRUE(i == 0 || p.old_addr == procs[i - 1].new_hi) << "gap before " << p.name;
    EXPECT_TRUE(!names.count(p.old_addr) || names[p.old_addr].count(p.name)) << p.name << " at " << std::hex
                                                                              << p.old_addr;
  }
  // The procedures follow each other without a gap: a function symbol lies
  // in them when it lies between the first and the end of the last.  A size
  // beyond .text is the assembler's (mdebug) for a function with a part in
  // another section.
  for (const ElfSymbol &s : f.functions(true))
    if (s.shndx == text_index && s.value + s.size <= text.sh_addr + text.sh_size) {
      EXPECT_TRUE(starts.count(s.value)) << s.name << " starts no procedure";
      EXPECT_TRUE(s.value >= procs.front().old_addr && s.value + s.size <= procs.back().new_hi) << s.name;
    }
}

INSTANTIATE_TEST_SUITE_P(Executables, Coverage, testing::ValuesIn(coverage_names()));

// A file's first procedure descriptor is 16 bits wide: in a program of more
// than 65,535 procedures the files' values start again from 0, which the
// walk over the files counts as one more 64 K (not for a file without
// procedures, nor one whose extension bits are set); with -B the linker's
// extension bits are taken instead.
TEST(MdebugFiles, ProcedureRangesPastSixtyFourThousandDescriptors) {
  using namespace vesk;
  struct Case {
    uint32_t first, count, bits;
    ProcRange walked, with_b;
  } cases[] = {
      {0, 0xfff0, 0, {0, 0xfff0}, {0, 0xfff0}},
      {0xfff0, 0x20, 0, {0xfff0, 0x20}, {0xfff0, 0x20}},
      {0x10, 0, 0, {0x10, 0}, {0x10, 0}},                  // no procedures: no wrap
      {0x8, 5, 0, {0x10008, 5}, {0x8, 5}},                 // a wrap
      {0x3, 2, 1u << 17, {0x10003, 2}, {0x10003, 2}},      // extension bits: no wrap
      {0x4, 1, 1u << 13, {0x10004, 1}, {0x4, 0x10001}},    // a count's extension bits
  };
  IpdCarry walk, with_b;
  for (const Case &c : cases) {
    Fdr f{};
    f.ipdFirst = uint16_t(c.first), f.cpd = uint16_t(c.count), f.bits = c.bits;
    ProcRange r = fdr_proc_range(f, false, walk), b = fdr_proc_range(f, true, with_b);
    EXPECT_TRUE(r.first == c.walked.first && r.count == c.walked.count) << std::hex << c.first << ": " << r.first;
    EXPECT_TRUE(b.first == c.with_b.first && b.count == c.with_b.count) << std::hex << c.first << ": " << b.first;
  }
}
