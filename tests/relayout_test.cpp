// Real executables of the three ABIs, their procedures laid out again by
// the test, rewritten by the header, dynamic, GOT, relocation, symbol and
// branch steps, and checked in the written file with an independent
// decoder: every stored code address that these steps own must follow its
// code, and nothing else may change.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <fcntl.h>
#include <gelf.h>
#include <map>
#include <set>
#include <unistd.h>

#include "base/bin.h"
#include "base/bytes.h"
#include "com/branch.h"
#include "com/update.h"
#include "support/bench.h"
#include "support/elf_file.h"
#include "support/rewrite_harness.h"
#include "support/run.h"
#include "support/synth_elf.h"

using namespace vesk;
using namespace vesk::test;

namespace {

// Only calls, branches and jumps between the procedures that move.
const char *const kPlainProgram = R"(
#include <stdio.h>
__attribute__((noinline)) int fib(int n) { return n < 2 ? n : fib(n - 1) + fib(n - 2); }
__attribute__((noinline)) int collatz(int n) {
  int s = 0;
  while (n != 1) {
    n = (n & 1) ? 3 * n + 1 : n / 2;
    s++;
  }
  return s;
}
__attribute__((noinline)) int mix(int a, int b) { return fib(a % 15) ^ collatz(b + 1); }
__attribute__((noinline)) int walk(int n) {
  int t = 0;
  for (int i = 0; i < n; i++)
    t += mix(i, n - i);
  return t;
}
int main(void) {
  printf("%d %d %d\n", fib(20), collatz(27), walk(30));
  return 0;
}
)";

// ---- an independent reading of MIPS control transfers ----

enum class Kind { other, branch, jump };

Kind kind_of(uint32_t w) {
  uint32_t op = w >> 26, rs = (w >> 21) & 31, rt = (w >> 16) & 31;
  if (op == 2 || op == 3)
    return Kind::jump;
  if ((op >= 4 && op <= 7) || (op >= 20 && op <= 23))
    return Kind::branch;
  if (op == 1 && (rt < 4 || (rt >= 16 && rt < 20)))
    return Kind::branch;
  if (op >= 16 && op <= 18 && rs == 8)
    return Kind::branch;
  return Kind::other;
}

uint64_t target_of(uint32_t w, uint64_t pc) {
  if (kind_of(w) == Kind::jump)
    return ((pc + 4) & ~uint64_t(0xfffffff)) | uint64_t(w & 0x3ffffff) << 2;
  return pc + 4 + uint64_t(int64_t(int16_t(w & 0xffff)) * 4);
}

// The layout the test made, as the steps see it.
struct Layout {
  uint64_t lo = 0, hi = 0;
  std::vector<uint64_t> map;
  bool in_text(uint64_t a) const { return a >= lo && a < hi; }
  uint64_t repoint(uint64_t a) const { return in_text(a) ? map[(a - lo) / 4] : a; }
};

// Rewrites exe with the blocks of .text in the order `arrange` gives them;
// returns the output path and the layout.
template <class Arrange> std::string rewrite(const std::string &exe, Arrange arrange, Layout *layout) {
  std::string out = temp_path("relaid");
  load_input(exe, out);
  begin_output();
  std::vector<TextBlock> blocks = text_blocks();
  lay_out(arrange(blocks));
  layout->lo = bin.text_lo;
  layout->hi = bin.text_hi;
  layout->map.assign(bin.text_map, bin.text_map + bin.text_words);
  update_elf_header();
  update_dynamic();
  update_got();
  update_reldyn();
  update_dynsym();
  update_symtab();
  update_branch_offset();
  finish_output();
  return out;
}

std::vector<TextBlock> reversed(std::vector<TextBlock> b) {
  std::reverse(b.begin(), b.end());
  return b;
}

std::vector<TextBlock> shuffled(std::vector<TextBlock> b) {
  std::mt19937 rng(uint32_t(b.size()) * 2654435761u);
  std::shuffle(b.begin(), b.end(), rng);
  return b;
}

// Checks the written file `out` against its input `in` under `layout`.
void check_rewrite(const std::string &in_path, const std::string &out_path, const Layout &L) {
  ElfFile in(in_path), out(out_path);
  ASSERT_EQ(in.bytes.size(), out.bytes.size());
  std::vector<std::pair<uint64_t, uint64_t>> may_change; // file ranges
  auto allow_section = [&](const char *name) {
    GElf_Shdr sh = in.shdr(name);
    if (sh.sh_size)
      may_change.push_back({sh.sh_offset, sh.sh_offset + sh.sh_size});
  };
  for (const char *name : {".text", ".got", ".dynamic", ".dynsym", ".symtab"})
    allow_section(name);
  may_change.push_back({24, 24 + in.addr_size()}); // e_entry

  // Text: moved words are the old words, except the offset or target of a
  // branch or jump, which reaches the new place of its old target.
  GElf_Shdr text = in.shdr(".text");
  int transfers = 0;
  for (uint64_t k = 0; k < L.map.size(); ++k) {
    uint64_t old_pc = L.lo + 4 * k, new_pc = L.map[k];
    uint32_t ow = load32(&in.bytes[text.sh_offset + 4 * k]);
    uint32_t nw = load32(&out.bytes[text.sh_offset + (new_pc - L.lo)]);
    Kind kind = kind_of(ow);
    if (kind == Kind::other) {
      EXPECT_EQ(nw, ow) << std::hex << "word at " << old_pc;
      continue;
    }
    ++transfers;
    uint64_t t = target_of(ow, old_pc);
    EXPECT_EQ(nw >> (kind == Kind::jump ? 26 : 16), ow >> (kind == Kind::jump ? 26 : 16));
    EXPECT_EQ(target_of(nw, new_pc), L.repoint(t)) << std::hex << "transfer at " << old_pc << " to " << t;
  }
  EXPECT_GT(transfers, 10);

  GElf_Ehdr ieh, oeh;
  gelf_getehdr(in.e, &ieh);
  gelf_getehdr(out.e, &oeh);
  EXPECT_EQ(oeh.e_entry, L.repoint(ieh.e_entry));

  auto idyn = in.dynamic(), odyn = out.dynamic();
  ASSERT_EQ(idyn.size(), odyn.size());
  uint32_t local_gotno = 0;
  for (size_t i = 0; i < idyn.size(); ++i) {
    if (idyn[i].d_tag == DT_MIPS_LOCAL_GOTNO)
      local_gotno = uint32_t(idyn[i].d_un.d_val);
    uint64_t want = idyn[i].d_un.d_val;
    if (idyn[i].d_tag == DT_INIT || idyn[i].d_tag == DT_FINI)
      want = L.repoint(want);
    else if (idyn[i].d_tag == DT_MIPS_FLAGS)
      want |= 0x1000;
    else if (idyn[i].d_tag == DT_MIPS_TIME_STAMP)
      continue; // the time of the run
    EXPECT_EQ(odyn[i].d_un.d_val, want) << "tag " << idyn[i].d_tag;
  }

  // GOT: the leading page entries stay, every later entry follows its code.
  GElf_Shdr got = in.shdr(".got");
  size_t n_got = got.sh_size / in.addr_size();
  bool pages = true;
  for (size_t i = 1; i < n_got; ++i) {
    uint64_t v = in.addr_word(got.sh_offset + i * in.addr_size());
    pages = pages && i < local_gotno && (v & 0xffff) == 0;
    EXPECT_EQ(out.addr_word(got.sh_offset + i * in.addr_size()), pages ? v : L.repoint(v)) << "GOT " << i;
  }

  for (const GElf_Rel &rel : in.rels(".rel.dyn")) {
    if ((rel.r_info & 0xff) != 3) // R_MIPS_REL32
      continue;
    uint64_t where = rel.r_offset;
    uint64_t off = in.offset_of(where);
    ASSERT_NE(off, ~uint64_t(0));
    EXPECT_EQ(out.addr_word(off), L.repoint(in.addr_word(off))) << std::hex << "REL32 at " << where << " old " << in.addr_word(off);
    may_change.push_back({off, off + in.addr_size()});
  }

  auto isym = in.symbols(".dynsym"), osym = out.symbols(".dynsym");
  ASSERT_EQ(isym.size(), osym.size());
  for (size_t i = 0; i < isym.size(); ++i)
    EXPECT_EQ(osym[i].st_value, L.repoint(isym[i].st_value)) << "dynsym " << i;
  isym = in.symbols(".symtab");
  osym = out.symbols(".symtab");
  ASSERT_EQ(isym.size(), osym.size());
  for (size_t i = 0; i < isym.size(); ++i) {
    bool kept = isym[i].st_shndx == SHN_ABS || isym[i].st_value == 0 ||
                (isym[i].st_shndx == SHN_COMMON && isym[i].st_value <= 0x10000);
    EXPECT_EQ(osym[i].st_value, kept ? isym[i].st_value : L.repoint(isym[i].st_value)) << "symtab " << i;
  }

  // Nothing outside those places changed.
  for (size_t off = 0; off < in.bytes.size(); ++off) {
    if (in.bytes[off] == out.bytes[off])
      continue;
    bool allowed = std::any_of(may_change.begin(), may_change.end(),
                               [&](auto r) { return off >= r.first && off < r.second; });
    EXPECT_TRUE(allowed) << std::hex << "byte at file offset " << off << " changed";
    if (!allowed)
      break;
  }

  // The written file reads cleanly.
  RunResult ro = run_command({"readelf", "-a", "-W", out_path});
  EXPECT_EQ(ro.status, 0);
  EXPECT_EQ(ro.err, "");
  EXPECT_EQ(ro.out.find("Warning"), std::string::npos);
  EXPECT_EQ(ro.out.find("Error"), std::string::npos);
}

// Calls into the PLT, which lies in front of .text, are the only jumps
// that the fix-up leaves alone, with a warning.
void expect_only_calls_in_front_of_text(const std::string &err) {
  size_t pos = 0;
  while (pos < err.size()) {
    size_t eol = err.find('\n', pos);
    std::string line = err.substr(pos, eol - pos);
    pos = eol == std::string::npos ? err.size() : eol + 1;
    unsigned long long target = 0;
    char tail[64] = "";
    int n = std::sscanf(line.c_str(), "Warning: jump target %llx not in .text or .init%63s", &target, tail);
    EXPECT_TRUE(n == 2 && std::string(tail) == "." && target >= bin.exec_lo && target < bin.text_lo) << line;
  }
}

using Relayout = RewriteTest;

} // namespace

TEST_F(Relayout, BenchExecutablesWithReversedOrShuffledProceduresKeepEveryOwnedCodeAddressRight) {
  VESK_REQUIRE_BENCH();
  for (const BenchExe &e : bench_executables()) {
    for (auto order : {reversed, shuffled}) {
      SCOPED_TRACE(e.name + (order == reversed ? " reversed" : " shuffled"));
      Layout layout;
      testing::internal::CaptureStderr();
      std::string out = rewrite(e.path, order, &layout);
      expect_only_calls_in_front_of_text(testing::internal::GetCapturedStderr());
      check_rewrite(e.path, out, layout);
      unlink(out.c_str());
    }
  }
}

// Procedures whose only references are calls, branches, jumps, the GOT and
// dynamic relocations run unchanged after the move, as long as the code
// that moves does not compute gp from its own address.
TEST_F(Relayout, MovedProceduresOfNonPicProgramsStillRun) {
  for (Abi abi : {Abi::o32, Abi::n32}) {
    SCOPED_TRACE(abi_name(abi));
    std::string exe = cross_compile(abi, kPlainProgram, {"-O2", "-Wl,-q", "-fno-pie", "-no-pie", "-fno-jump-tables"});
    std::vector<std::string> qemu = qemu_command(abi);
    if (exe.empty() || qemu.empty())
      GTEST_SKIP() << "no cross compiler or qemu";
    // fib, collatz, mix and walk lie together; they are laid out backwards,
    // the run-time start-up code and main stay where they are.
    const std::set<std::string> user = {"fib", "collatz", "mix", "walk"};
    auto arrange = [&](std::vector<TextBlock> b) {
      auto first = std::find_if(b.begin(), b.end(), [&](const TextBlock &t) { return user.count(t.name); });
      auto last = std::find_if(b.rbegin(), b.rend(), [&](const TextBlock &t) { return user.count(t.name); }).base();
      EXPECT_EQ(std::count_if(first, last, [&](const TextBlock &t) { return user.count(t.name); }), 4);
      std::reverse(first, last);
      return b;
    };
    Layout layout;
    std::string out = rewrite(exe, arrange, &layout);
    check_rewrite(exe, out, layout);
    EXPECT_NE(file_bytes(out), file_bytes(exe));

    std::vector<std::string> cmd = qemu, cmd_out = qemu;
    cmd.push_back(exe);
    cmd_out.push_back(out);
    RunResult want = run_command(cmd, "", 60), got = run_command(cmd_out, "", 60);
    EXPECT_EQ(want.status, 0);
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.out, want.out);
    unlink(out.c_str());
  }
}
