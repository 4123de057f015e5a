// The procedure table of GNU-built executables covers their code: every word
// of a sized function symbol of .text lies in a procedure, the procedures
// follow each other without a gap, one that starts where a function symbol
// does has that symbol's name, and a run of vesk -v on the executable has
// nothing to say about procedures it could not find.  The executables: the
// bench, tests/support/gnu_functions.c built here for the three ABIs (DWARF
// 4 and 5, and mdebug without -fno-reorder-functions), and every executable
// in $VESK_COVERAGE_DIR (larger programs built by hand).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <set>

#include "base/bin.h"
#include "base/proc.h"
#include "support/bench.h"
#include "support/elf_file.h"
#include "support/o32_programs.h"
#include "support/read_bin.h"
#include "support/scratch.h"
#include "vesk/options.h"
#include "vesk/reader.h"

using namespace vesk;
using namespace vesk::test;

namespace {

struct Exe {
  std::string path, abi;
};

std::vector<Exe> executables(const ScratchDir &dir) {
  std::vector<Exe> list;
  for (const BenchExe &e : bench_executables())
    list.push_back({e.path, e.abi});
  const std::string src = VESK_SOURCE_DIR "/tests/support/gnu_functions.c";
  for (std::string abi : {"o32", "n32", "n64"})
    for (std::string debug : {"-gdwarf-4", "-gdwarf-5", "mdebug"}) {
      if (abi == "n64" && debug == "mdebug")
        continue; // its 64-bit mdebug form is refused
      std::string out = dir / ("gnu-" + abi + debug), cc = abi == "o32" ? "mips-linux-gnu-gcc" : "mips64-linux-gnuabi64-gcc";
      cc += std::string(abi == "n32" ? " -mabi=n32" : "") + " -O2 -freorder-blocks-and-partition ";
      std::string cmd = debug != "mdebug" ? cc + debug + " -Wl,-q -o " + out + " " + src
                                          : cc + "-S -o " + out + ".s " + src + " && " + cc + "-Wa,-mdebug -Wl,-q -o " + out + " " + out + ".s";
      RunResult r = run_command({"sh", "-c", cmd});
      EXPECT_EQ(r.status, 0) << cmd << "\n" << r.err;
      list.push_back({out, abi});
    }
  const char *extra = std::getenv("VESK_COVERAGE_DIR");
  if (extra == nullptr)
    return list;
  for (const auto &f : std::filesystem::directory_iterator(extra)) {
    std::string head = f.is_regular_file() ? read_file(f.path()).substr(0, 6) : "";
    if (head == "\177ELF\002\002")
      list.push_back({f.path(), "n64"});
    else if (head == "\177ELF\001\002")
      list.push_back({f.path(), ElfFile(f.path()).ehdr().e_flags & EF_MIPS_ABI2 ? "n32" : "o32"});
  }
  return list;
}

struct Rec {
  std::string name;
  uint64_t addr, size;
};

// The records of the run's procedure table with a size, by address; what
// discovery printed goes to *err.
std::vector<Rec> discover(const std::string &path, std::string *err) {
  bin.procs = ProcTable{};
  option = Options{};
  option.program = path.c_str();
  bin = Bin{};
  testing::internal::CaptureStderr();
  read_orig_binary();
  *err = testing::internal::GetCapturedStderr();
  std::vector<Rec> out;
  for (int i = 0; i < get_n_procs(); ++i) {
    const Proc *p = get_proc_by_index(i);
    if (p->size != 0)
      out.push_back({p->name ? p->name : "(null)", p->old_addr, p->size});
  }
  release_input();
  std::sort(out.begin(), out.end(), [](const Rec &a, const Rec &b) { return a.addr < b.addr; });
  return out;
}

} // namespace

TEST(Coverage, EveryWordOfEveryFunctionSymbolLiesInANamedProcedure) {
  ScratchDir dir("coverage");
  write_file(dir / "empty.fb", "$magic 1\n$version 2\n$start\n");
  for (const Exe &e : executables(dir)) {
    SCOPED_TRACE(e.path);
    std::string err;
    std::vector<Rec> recs = discover(e.path, &err);
    EXPECT_EQ(err, "");
    ASSERT_FALSE(recs.empty());
    std::set<uint64_t> starts;
    for (size_t i = 0; i < recs.size(); ++i) {
      starts.insert(recs[i].addr);
      EXPECT_TRUE(i == 0 || recs[i].addr == recs[i - 1].addr + recs[i - 1].size) << "gap before " << recs[i].name;
    }

    // The stubs' pseudo procedure of an mdebug table may start at a symbol.
    ElfFile f(e.path);
    size_t text = elf_ndxscn(f.scn(".text"));
    GElf_Shdr sh = f.shdr(".text");
    std::map<uint64_t, std::set<std::string>> names{{sh.sh_addr, {".libstub"}}};
    for (const ElfSymbol &s : f.functions())
      names[s.value].insert(s.name);
    for (const Rec &r : recs)
      EXPECT_TRUE(!names.count(r.addr) || names[r.addr].count(r.name)) << r.name << " at 0x" << std::hex << r.addr;
    // A size beyond .text is the assembler's (mdebug) of a function with a
    // part in another section.
    uint64_t words = 0, covered = 0;
    for (const ElfSymbol &s : f.functions(true)) {
      if (s.shndx != text || s.value + s.size > sh.sh_addr + sh.sh_size)
        continue;
      EXPECT_TRUE(starts.count(s.value)) << s.name << " starts no procedure";
      for (uint64_t a = s.value; a < s.value + s.size; a += 4, ++words) {
        auto r = std::upper_bound(recs.begin(), recs.end(), a, [](uint64_t x, const Rec &q) { return x < q.addr; });
        covered += r != recs.begin() && a < r[-1].addr + r[-1].size;
      }
    }
    std::printf("%-60s %7llu / %7llu words of function symbols in procedures\n", e.path.c_str(),
                (unsigned long long)covered, (unsigned long long)words);
    EXPECT_EQ(covered, words);

    // o32 is rewritten only once vesk-annotate has given it its relocations.
    std::string input = e.path;
    if (e.abi == "o32" && run_command({annotate_binary(), e.path, "-o", dir / "annotated"}).status == 0)
      input = dir / "annotated";
    else if (e.abi == "o32")
      continue;
    RunResult v = run_vesk({"-v", input, dir / "empty.fb", "-o", dir / "out"});
    EXPECT_LE(v.status, 1) << v.err; // the layout is checked before moved n32/n64 code may be refused
    for (const char *complaint : {"is ignored", "no procedure at", "not in any procedure"})
      EXPECT_EQ(v.err.find(complaint), std::string::npos) << v.err;
  }
}
