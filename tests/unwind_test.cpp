// Unwinding after a new layout: C++ exceptions thrown through moved
// functions and their cold parts, backtrace() in C, every FDE still
// starting where its function now starts, procedures under one FDE tied,
// damaged unwind tables refused, and the pointer encodings of the tables.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <regex>
#include <set>

#include "base/bin.h"
#include "base/bytes.h"
#include "base/diag.h"
#include "com/eh_frame.h"
#include "support/bench.h"

using namespace vesk::test;

namespace {

// extern "C" keeps the names of the hot and cold parts alike (check and
// check.cold), so vesk places them apart as it would a C function's.
const char kThrow[] = R"src(#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>
struct Guard { const char *what; ~Guard() { std::printf("unwound %s\n", what); } };
extern "C" __attribute__((noinline)) int check(int x) {
  if (__builtin_expect(x % 7 == 3, 0)) { Guard g{"check"}; throw std::out_of_range("bad " + std::to_string(x)); }
  return x * 2;
}
extern "C" __attribute__((noinline)) int middle(std::vector<int> &v, int x) {
  Guard g{"middle"};
  v.push_back(check(x));
  return v.back();
}
extern "C" __attribute__((noinline)) long outer(int n) {
  std::vector<int> v;
  long s = 0;
  for (int i = 0; i < n; i++)
    try { s += middle(v, i); } catch (const std::out_of_range &e) { std::printf("caught %s\n", e.what()); s--; }
  return s;
}
int main(int argc, char **) {
  try { std::printf("sum %ld\n", outer(12 + argc)); throw std::runtime_error("to main"); }
  catch (const std::exception &e) { std::printf("main caught %s\n", e.what()); }
})src";

const char kBacktrace[] = R"src(#include <execinfo.h>
#include <stdio.h>
#include <string.h>
__attribute__((noinline)) void show(void) {
  void *pcs[16];
  int n = backtrace(pcs, 16);
  char **names = backtrace_symbols(pcs, n);
  for (int i = 0; i < n && i < 4; i++) {
    const char *s = strchr(names[i], '(');
    printf("%.*s\n", (int)strcspn(s ? s + 1 : "?", "+)"), s ? s + 1 : "?");
  }
}
__attribute__((noinline)) int inner(int x) { if (x > 1) show(); return x + 1; }
__attribute__((noinline)) int outer(int x) { return inner(x * 2) + 1; }
int main(int argc, char **argv) { (void)argv; return outer(argc) == 0; })src";

// Two functions under one FDE (of .debug_frame, as C without unwind
// tables gets it).
const char kPair[] = R"src(#include <stdio.h>
int pair_a(int), pair_b(int);
asm(".text\n.set push\n.set noreorder\n"
    ".globl pair_a\n.type pair_a,@function\npair_a:\n.cfi_startproc\n"
    "  jr $31\n  addiu $2,$4,1\n.size pair_a,.-pair_a\n"
    ".globl pair_b\n.type pair_b,@function\npair_b:\n"
    "  jr $31\n  addiu $2,$4,2\n.cfi_endproc\n.size pair_b,.-pair_b\n.set pop\n");
__attribute__((noinline)) int twice(int x) { return pair_a(x) + pair_b(x); }
int main(int argc, char **argv) { (void)argv; printf("%d\n", twice(argc)); return 0; })src";

// kPair with code that no symbol names between the two functions, under
// the same FDE: that code goes behind every procedure, so the FDE cannot
// stay whole.
std::string torn_program() {
  std::string s = kPair;
  const std::string after = R"(.size pair_a,.-pair_a\n")";
  s.insert(s.find(after) + after.size(), R"(
    "  addiu $2,$2,7\n  addiu $2,$2,7\n")");
  return s;
}

struct Program {
  const char *stem, *src;
  bool cxx;
  std::vector<std::string> flags;
};

const Program kPrograms[] = {
    {"throw", kThrow, true, {"-g", "-freorder-blocks-and-partition"}},
    {"throw-nodebug-nopie", kThrow, true, {"-Wa,-mdebug", "-fno-reorder-functions", "-no-pie"}},
    {"backtrace", kBacktrace, false, {"-g", "-rdynamic", "-funwind-tables"}},
    {"pair", kPair, false, {"-g"}},
};

// The names of the functions whose start an FDE names, as readelf reads
// the frame tables.
std::set<std::string> fde_functions(const std::string &exe) {
  RunResult r = run_command({"mips-linux-gnu-readelf", "--debug-dump=frames", exe});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "") << exe;
  std::map<uint64_t, std::string> at;
  for (const ElfSymbol &s : ElfFile(exe).functions())
    at[s.value] = s.name;
  std::set<std::string> out;
  std::regex fde(" FDE cie=[0-9a-f]+ pc=([0-9a-f]+)\\.\\.");
  for (std::sregex_iterator m(r.out.begin(), r.out.end(), fde), end; m != end; ++m)
    if (auto it = at.find(std::stoull((*m)[1], nullptr, 16)); it != at.end())
      out.insert(it->second);
  return out;
}

std::vector<FeedbackLine> cold_parts_apart(const AnnotatedBench &b) {
  // The cold parts lead, their hot parts come last: as far apart as the
  // text allows.
  std::vector<FeedbackLine> cold, rest;
  for (const FeedbackLine &l : reversed_order(b))
    (l.name.find(".cold") != std::string::npos ? cold : rest).push_back(l);
  cold.insert(cold.end(), rest.begin(), rest.end());
  for (size_t i = 0; i < cold.size(); ++i)
    cold[i].count = 1000 - i;
  return cold;
}

} // namespace

TEST(Unwinding, ThrowAndBacktraceThroughEveryLayout) {
  ScratchDir dir("unwind");
  for (const Program &p : kPrograms) {
    SCOPED_TRACE(p.stem);
    BenchExe e;
    e.path = compile_o32(dir, p.stem, p.src, p.flags, p.cxx);
    e.name = e.program = p.stem;
    e.abi = "o32";
    e.qemu = {"qemu-mips", "-L", "/usr/mips-linux-gnu"};
    RunResult original = run_bench(e, e.path);
    ASSERT_EQ(original.status, 0) << original.err;
    AnnotatedBench b(e);
    ASSERT_TRUE(b.ok()) << b.refusal();
    std::set<std::string> fdes = fde_functions(b.annotated());
    ASSERT_FALSE(fdes.empty());
    const std::pair<const char *, std::vector<FeedbackLine>> layouts[] = {
        {"reversed", reversed_order(b)}, {"shuffled", random_order(b, p.stem)}, {"cold apart", cold_parts_apart(b)}};
    for (const auto &[kind, fb] : layouts) {
      SCOPED_TRACE(kind);
      std::string out = b.path(std::string("out-") + kind);
      RunResult r = b.vesk(b.annotated(), fb, out, {"-v"});
      ASSERT_EQ(r.status, 0) << r.err;
      if (std::string(p.stem) == "pair") {
        EXPECT_NE(r.err.find("pair_a and pair_b tied, one FDE of .debug_frame describes both"), std::string::npos);
      }
      RunResult moved = run_bench(e, out);
      EXPECT_EQ(moved.status, original.status) << moved.err;
      EXPECT_EQ(moved.out, original.out);
      EXPECT_EQ(fde_functions(out), fdes);
    }
  }
}

TEST(Unwinding, DamagedTablesAreRefused) {
  ScratchDir dir("unwind-damaged");
  BenchExe e;
  e.path = compile_o32(dir, "throw", kThrow, {"-g"}, true);
  std::string ann = e.path + ".ann";
  ASSERT_EQ(run_command({annotate_binary(), e.path, "-o", ann}).status, 0);
  ElfFile f(ann);
  uint64_t eh = f.shdr(".eh_frame").sh_offset, hdr = f.shdr(".eh_frame_hdr").sh_offset;
  uint64_t fde = eh + 4 + vesk::load32(&f.bytes[eh]); // behind the first CIE
  const struct {
    uint64_t at;
    uint32_t word;
    const char *message;
  } cases[] = {
      {fde, 0x7ffffff0, "section .eh_frame is damaged: a record runs past the end of the section"},
      {fde + 4, 0x7ffffff0, "section .eh_frame is damaged: an FDE's CIE pointer leads before the section"},
      {hdr + 16, 0x12345678, "section .eh_frame_hdr is damaged: a search table entry that names no FDE"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.message);
    std::vector<uint8_t> bytes = f.bytes;
    vesk::store32(&bytes[c.at], c.word);
    std::string bad = dir / "bad";
    write_file(bad, std::string(bytes.begin(), bytes.end()));
    write_file(bad + ".fb", kNoFeedback);
    RunResult r = run_vesk({bad, bad + ".fb", "-o", dir / "bad.out"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("Error: " + bad + ": " + c.message), std::string::npos) << r.err;
  }
}

// A layout that tears the code of one FDE apart is refused, and leaves no
// output: the unwinder would not find the frames of the moved part.
TEST(Unwinding, CodeOfOneFdeLaidOutInPiecesIsRefused) {
  ScratchDir dir("unwind-torn");
  std::string exe = compile_o32(dir, "torn", torn_program(), {"-g"}, false);
  std::string ann = exe + ".ann", out = dir / "out";
  ASSERT_EQ(run_command({annotate_binary(), exe, "-o", ann}).status, 0);
  write_file(dir / "fb", kNoFeedback);
  RunResult r = run_vesk({ann, dir / "fb", "-o", out});
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(std::regex_search(r.err, std::regex("Error: " + ann + ": the code \\[0x[0-9a-f]+, 0x[0-9a-f]+\\) that "
                                                  "the FDE at offset 0x[0-9a-f]+ of .debug_frame describes was not "
                                                  "laid out in one piece")))
      << r.err;
  EXPECT_FALSE(std::filesystem::exists(out));
}

// Every pointer encoding GCC and GNU ld write: stored and read back at a
// field address, or refused when the field cannot hold the value.
TEST(Unwinding, PointerEncodingsRoundTrip) {
  using namespace vesk;
  const struct {
    uint8_t enc;
    unsigned addr_size, len;
    uint64_t field, value;
    bool fits;
  } cases[] = {
      {EH_PE_absptr, 4, 4, 0x1000, 0x400123, true},
      {EH_PE_absptr, 8, 8, 0x1000, 0x120000abcull, true},
      {EH_PE_pcrel | EH_PE_sdata4, 4, 4, 0x401000, 0x400010, true},
      {EH_PE_pcrel | EH_PE_sdata4, 8, 4, 0x120001000ull, 0x120000010ull, true},
      {EH_PE_pcrel | EH_PE_sdata4, 8, 4, 0x1000, 0x200000000ull, false},
      {EH_PE_datarel | EH_PE_sdata4, 4, 4, 0x5000, 0x4f00, true},
      {EH_PE_udata4, 4, 4, 0, 0xfffffff0, true},
      {EH_PE_udata2, 4, 2, 0, 0x10000, false},
      {EH_PE_pcrel | EH_PE_sdata2, 4, 2, 0x9000, 0x8004, true},
      {EH_PE_uleb128, 4, 3, 0, 0x3fff, true},
      {EH_PE_uleb128, 4, 2, 0, 0x4000, false},
      {EH_PE_pcrel | EH_PE_sleb128, 4, 2, 0x100, 0x80, true},
      {EH_PE_pcrel | EH_PE_udata8, 8, 8, 0x10, 0x120000000ull, true},
      {EH_PE_pcrel | EH_PE_sdata8, 4, 8, 0x8000, 0x10, true},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message() << std::hex << int(c.enc) << " " << c.value);
    uint8_t buf[8] = {};
    uint64_t data_base = 0x5000; // where data-relative values count from
    ASSERT_EQ(store_eh_pointer(buf, c.len, c.enc, c.addr_size, c.field, c.value, data_base), c.fits);
    if (c.fits) {
      SectionCursor cur(buf, c.len, c.field, "test");
      EXPECT_EQ(cur.pointer(c.enc, c.addr_size, data_base), c.value);
      EXPECT_EQ(cur.pos, c.len);
    }
  }
}

// A span moved as one piece when every word of it kept its distance to
// the span's start; only .text moves, and the part of a word that ends an
// odd-sized .text stays where it was.  Every span over a text cut in four
// and reordered, against that definition word by word.
TEST(Unwinding, SpansThatMovedInOnePiece) {
  vesk::bin = vesk::Bin{};
  std::vector<uint32_t> map = {8, 9, 10, 11, 0, 1, 2, 3, 12, 13, 14, 15, 4, 5, 6, 7};
  vesk::bin.text_lo = 0x400000;
  vesk::bin.text_words = map.size();
  vesk::bin.text_hi = vesk::bin.text_lo + 4 * map.size() + 2;
  vesk::bin.text_map = map.data();
  auto new_addr = [&](uint64_t a) {
    uint64_t k = (a - vesk::bin.text_lo) / 4;
    return a >= vesk::bin.text_lo && k < map.size() ? vesk::bin.text_lo + 4 * map[k] + (a & 3) : a;
  };
  int one_piece = 0, torn = 0;
  for (uint64_t lo = vesk::bin.text_lo - 6; lo < vesk::bin.text_hi + 4; lo += 1)
    for (uint64_t hi = lo + 1; hi < vesk::bin.text_hi + 8; hi += 3) {
      bool expected = true;
      uint64_t from = std::max(lo, vesk::bin.text_lo), to = std::min(hi, vesk::bin.text_hi);
      for (uint64_t a = from; a < to; a = (a | 3) + 1)
        expected = expected && new_addr(a) == new_addr(lo) + (a - lo);
      vesk::UnwindSpan s{lo, hi, ".eh_frame", 0};
      ASSERT_EQ(vesk::moved_in_one_piece(s), expected) << std::hex << lo << "-" << hi;
      ++(expected ? one_piece : torn);
    }
  EXPECT_GT(one_piece, 100);
  EXPECT_GT(torn, 100);
  vesk::bin = vesk::Bin{};
}
