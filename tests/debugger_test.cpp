// A debugger on a reordered real program: gdb-multiarch attached to qemu's
// gdb stub sets breakpoints by function name and by file:line in bzip2,
// runs it, steps, and must see the same hits, source lines and backtraces
// (function names and file:line) as in the original build; only the
// addresses differ.
#include <gtest/gtest.h>

#include <cctype>
#include <unistd.h>

#include "support/bench.h"

using namespace vesk::test;

namespace {

bool have(const std::string &tool) { return run_command({"sh", "-c", "command -v " + tool}).status == 0; }

// Breakpoints in three units (blocksort.c, compress.c, huffman.c), one of
// them inside a loop, and a few steps; bzip2 compresses a sample file.
const char kScript[] = R"gdb(set pagination off
set confirm off
set width 0
set print frame-arguments none
break BZ2_hbMakeCodeLengths
break huffman.c:84
break mainSort
break compress.c:450
continue
bt
continue
bt
continue
bt
continue
bt
next
next
next
bt 1
continue
bt
info line *$pc
kill
)gdb";

// text with every hexadecimal number as ADDR and every <symbol+offset> as
// <SYM>.
std::string without_addresses(const std::string &text) {
  std::string out;
  auto ident = [](char c) { return std::isalnum((unsigned char)c) || c == '_' || c == '.'; };
  for (size_t i = 0; i < text.size();) {
    if (text.compare(i, 2, "0x") == 0 && i + 2 < text.size() && std::isxdigit((unsigned char)text[i + 2])) {
      for (i += 2; i < text.size() && std::isxdigit((unsigned char)text[i]); ++i) {
      }
      out += "ADDR";
      continue;
    }
    if (text[i] == '<') {
      size_t j = i + 1;
      while (j < text.size() && ident(text[j]))
        ++j;
      size_t k = j + 1;
      while (k < text.size() && std::isdigit((unsigned char)text[k]))
        ++k;
      if (j > i + 1 && j < text.size() && text[j] == '+' && k > j + 1 && k < text.size() && text[k] == '>') {
        out += "<SYM>";
        i = k + 1;
        continue;
      }
    }
    out += text[i++];
  }
  return out;
}

// Runs exe under qemu's gdb stub and the script in gdb; what gdb printed,
// with every address and symbol offset taken out.
std::string debug_session(const BenchExe &e, const std::string &exe, const std::string &dir) {
  const std::string sysroot = e.qemu[2];
  write_file(dir + "/script.gdb", "set sysroot " + sysroot + "\n" + kScript);
  std::string qemu = e.qemu[0] + " -L " + sysroot;
  std::string input = std::string(VESK_REAL_DIR) + "/data/bzip2/sample1.ref";
  // A port of this process's own, and qemu's stub listening on it before
  // gdb connects.
  int port = 20000 + int(getpid() % 20000);
  std::string sh = "port=" + std::to_string(port) + "; " + qemu + " -g $port " + exe + " -1 -c -k " + input +
                   " >/dev/null 2>&1 & q=$!; hex=$(printf '%04X' $port); i=0; "
                   "while ! grep -qi \":$hex 00000000:0000 0A\" /proc/net/tcp /proc/net/tcp6 2>/dev/null; do "
                   "i=$((i+1)); [ $i -lt 200 ] || { kill $q; exit 3; }; sleep 0.05; done; "
                   "gdb-multiarch -q -batch -ex \"target remote :$port\" -x " + dir + "/script.gdb " + exe +
                   " 2>&1; kill $q 2>/dev/null; wait";
  RunResult r = run_command({"sh", "-c", sh}, "", 300);
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  return without_addresses(r.out);
}

// bzip2 for o32 as the bench builds it, but with DWARF 4 (range lists in
// .debug_ranges, location lists in .debug_loc, GNU call sites), from the
// bench's source cache into dir; empty when the sources are not there.
std::string build_dwarf4(const std::string &dir) {
  RunResult src = run_command({"sh", "-c", "ls -d \"${VESK_CACHE:-$HOME/.cache/vesk}\"/src/bzip2_*/bzip2-*/ | head -1"});
  std::string from = src.out.substr(0, src.out.find('\n'));
  if (src.status != 0 || from.empty())
    return "";
  RunResult r = run_command({"mips-linux-gnu-gcc", "-O2", "-gdwarf-4", "-D_FILE_OFFSET_BITS=64", "-Wl,-q", "-o",
                             dir + "/bzip2-dwarf4", "blocksort.c", "huffman.c", "crctable.c", "randtable.c",
                             "compress.c", "decompress.c", "bzlib.c", "bzip2.c"},
                            from, 300);
  EXPECT_EQ(r.status, 0) << r.err;
  return dir + "/bzip2-dwarf4";
}

class Debugger : public testing::TestWithParam<std::string> {};

} // namespace

TEST_P(Debugger, SeesTheSameHitsLinesAndBacktracesAfterAReversedLayout) {
  if (!have("gdb-multiarch"))
    GTEST_SKIP() << "gdb-multiarch is missing (apt-get install gdb-multiarch)";
  bool dwarf4 = GetParam() == "bzip2-o32-dwarf4";
  const BenchExe *e = bench_named(dwarf4 ? "bzip2-o32-dwarf-pie" : GetParam());
  if (e == nullptr)
    GTEST_SKIP() << GetParam() << " missing (build the real programs with bench/real/build.sh)";
  if (!have(e->qemu[0]))
    GTEST_SKIP() << e->qemu[0] << " is missing (apt-get install qemu-user)";
  ScratchDir built("dwarf4");
  BenchExe own = *e;
  if (dwarf4 && (own.path = build_dwarf4(built.path())).empty())
    GTEST_SKIP() << "the bzip2 sources are missing (build the real programs with bench/real/build.sh)";
  e = &own;
  AnnotatedBench b(*e);
  ASSERT_TRUE(b.ok()) << b.refusal();
  const std::string out = b.path("reversed");
  RunResult r = b.vesk(b.annotated(), reversed_order(b), out);
  ASSERT_EQ(r.status, 0) << r.err;

  std::string before = debug_session(*e, b.annotated(), b.path(""));
  std::string after = debug_session(*e, out, b.path(""));
  // The session got somewhere: each breakpoint was hit, with its line.
  for (const char *hit : {"Breakpoint 1, BZ2_hbMakeCodeLengths", "Breakpoint 2, BZ2_hbMakeCodeLengths",
                          "Breakpoint 3, mainSort", "Breakpoint 4, sendMTFValues", "at huffman.c:87",
                          "in BZ2_blockSort (s=...) at blocksort.c:", "in main (argc=..., argv=...) at bzip2.c:"})
    EXPECT_NE(before.find(hit), std::string::npos) << hit << " in\n" << before;
  EXPECT_EQ(after, before);
}

INSTANTIATE_TEST_SUITE_P(Real, Debugger,
                         testing::Values("bzip2-o32-dwarf-pie", "bzip2-o32-dwarf4", "bzip2-n32-dwarf-pie",
                                         "bzip2-n64-dwarf-pie"),
                         [](const auto &info) {
                           std::string n = info.param;
                           std::replace(n.begin(), n.end(), '-', '_');
                           return n;
                         });

// What the update cannot carry over exactly is refused, naming the section,
// and nothing is written: split DWARF gives its code addresses through
// .debug_addr.
TEST(DwarfUpdate, RefusesAddressesItCannotRepoint) {
  ScratchDir dir("split");
  std::string exe = compile_o32(dir, "split", R"src(#include <stdio.h>
__attribute__((noinline)) int f(int x) { return x * 3 + 1; }
__attribute__((noinline)) int g(int x) { return f(x) - 2; }
int main(int argc, char **argv) { printf("%d\n", g(argc)); return 0; }
)src", {"-g", "-gsplit-dwarf"});
  RunResult r = run_command({annotate_binary(), exe, "-o", dir / "ann"});
  ASSERT_EQ(r.status, 0) << r.err;
  write_file(dir / "ann.fb", std::string(kNoFeedback) + "f split.c 1\ng split.c 2\nmain split.c 3\n");
  r = run_vesk({dir / "ann", dir / "ann.fb", "-o", dir / "out"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("Error: " + dir / "ann" + ": section .debug_"), std::string::npos) << r.err;
  EXPECT_NE(access((dir / "out").c_str(), F_OK), 0);
}
