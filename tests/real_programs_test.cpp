// Real programs from Debian source packages (tests/real/build.sh), built
// as their users build them, reordered by vesk and checked with their own
// tests (tests/real/check.sh).  Every build is annotated and laid out in a
// reversed, a shuffled or a hot-first order (one order per build, taken in
// turn).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <unistd.h>

#include "support/bench.h"
#include "support/elf_file.h"
#include "support/o32_programs.h"
#include "support/o32_reorder.h"
#include "support/run.h"

using namespace vesk::test;

namespace {

std::string real_dir() { return VESK_REAL_DIR; }

const std::vector<BenchExe> &real_executables() {
  static const std::vector<BenchExe> list = load_manifest(real_dir());
  return list;
}

std::vector<std::string> names_where(bool (*keep)(const BenchExe &)) {
  std::vector<std::string> out;
  for (const BenchExe &e : real_executables())
    if (keep(e))
      out.push_back(e.name);
  if (out.empty())
    out.push_back("none");
  return out;
}

const BenchExe *real_named(const std::string &name) {
  for (const BenchExe &e : real_executables())
    if (e.name == name)
      return &e;
  return nullptr;
}

RunResult check(const BenchExe &e, const std::string &exe) {
  return run_command({"env", "VESK_REAL_DIR=" + real_dir(), std::string(VESK_SOURCE_DIR) + "/tests/real/check.sh",
                      e.program, e.abi, exe},
                     "", 600);
}

// A short run of each program, traced for the hot-first order.
std::vector<std::string> profile_args(const BenchExe &e) {
  std::string data = real_dir() + "/data/" + e.program;
  if (e.program == "bzip2")
    return {"-1", "-c", "-k", data + "/sample1.ref"};
  if (e.program == "sqlite3")
    return {":memory:", "create table t(a, b); with recursive c(x) as (select 1 union all select x + 1 from c "
                        "where x < 2000) insert into t select x, printf('%05d', x) from c; "
                        "select count(*), sum(a), max(b) from t where b like '%7%';"};
  if (e.program == "duktape")
    return {"-e", "var s = 0; for (var i = 0; i < 200; i++) s += JSON.stringify({a: [i, 'x' + i]}).length; "
                  "print(s, /a(b+)c/.exec('xabbbc')[1], Math.sqrt(s).toFixed(3));"};
  return {"-e", "set s 0; for {set i 0} {$i < 200} {incr i} {incr s [string length [format %05d $i]]}; puts $s"};
}

// The order a real executable is laid out in: reversed, shuffled or
// hot-first, in turn along the manifest.
int order_of(const std::string &name) {
  const auto &all = real_executables();
  for (size_t i = 0; i < all.size(); ++i)
    if (all[i].name == name)
      return int((i + i / 3) % 3); // the manifest lists three models in a row
  return 0;
}

class RealO32 : public testing::TestWithParam<std::string> {};
class RealN32N64 : public testing::TestWithParam<std::string> {};
class RealDwarf : public testing::TestWithParam<std::string> {};

#define REQUIRE_REAL(e)                                                                                    \
  const BenchExe *e = real_named(GetParam());                                                             \
  if (e == nullptr)                                                                                        \
    GTEST_SKIP() << "real programs missing in " << real_dir() << " (build them with tests/real/build.sh)";

// Every build is annotated without a refusal, laid out anew, and passes
// its own tests exactly as the original does.
void reorder_and_check(const BenchExe *e) {
  AnnotatedBench b(*e);
  ASSERT_TRUE(b.ok()) << "vesk-annotate refused " << e->name << ": " << b.refusal();
  const char *kind[] = {"reversed", "shuffled", "hot-first"};
  // One order per build, in turn; VESK_REAL_ALL_ORDERS=1 runs all three.
  std::vector<int> orders{order_of(e->name)};
  if (std::getenv("VESK_REAL_ALL_ORDERS") != nullptr)
    orders = {0, 1, 2};
  for (int order : orders) {
    SCOPED_TRACE(kind[order]);
    std::vector<FeedbackLine> fb;
    if (order == 0) {
      fb = reversed_order(b.procs());
    } else if (order == 1) {
      fb = random_order(b.procs(), e->name);
    } else {
      RunResult traced;
      std::vector<uint64_t> counts =
          entry_counts(*e, b.annotated(), b.procs(), b.path("trace.log"), &traced, profile_args(*e));
      ASSERT_EQ(traced.status, 0) << traced.err;
      fb = hot_first_order(b.procs(), counts);
      ASSERT_FALSE(fb.empty());
    }
    std::string out = b.path("reordered");
    RunResult r = b.vesk(b.annotated(), fb, out, {"-debug"});
    ASSERT_EQ(r.status, 0) << r.err;
    size_t moved = 0, total = 0;
    for (const MappedProc &m : address_mapping(r.out)) {
      if (m.name == ".libstub")
        continue;
      ++total;
      moved += m.moved && m.new_lo != m.old_addr;
    }
    std::printf("%s: %s order, %zu of %zu procedures moved (%.1f%%)\n", e->name.c_str(), kind[order], moved, total,
                total ? 100.0 * double(moved) / double(total) : 0.0);
    if (order == 1) {
      EXPECT_GT(double(moved), 0.95 * double(total));
    }
    RunResult c = check(*e, out);
    EXPECT_EQ(c.status, 0) << c.err;
  }
}

} // namespace

TEST_P(RealO32, ReorderedProgramPassesItsOwnTests) {
  REQUIRE_REAL(e);
  reorder_and_check(e);
}

TEST_P(RealN32N64, ReorderedProgramPassesItsOwnTests) {
  REQUIRE_REAL(e);
  reorder_and_check(e);
}

// vesk's procedures cover every word of .text that a function symbol
// covers, with no warning about code outside every procedure.
TEST_P(RealDwarf, ProceduresCoverEveryFunctionSymbol) {
  REQUIRE_REAL(e);
  char dir[] = "/tmp/vesk-real-XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  std::string input = std::string(dir) + "/annotated";
  {
    RunResult a = run_command({annotate_binary(), e->path, "-o", input});
    ASSERT_EQ(a.status, 0) << a.err;
  }
  std::string fb = std::string(dir) + "/x.fb";
  write_file(fb, kNoFeedback);
  RunResult r = run_vesk({input, fb, "-o", std::string(dir) + "/out", "-debug", "-v"});
  ASSERT_EQ(r.status, 0) << r.err;
  for (const char *bad : {"no procedure at", "not in any procedure"})
    EXPECT_EQ(r.err.find(bad), std::string::npos) << bad << " in:\n" << r.err.substr(0, 2000);
  ElfFile f(e->path);
  GElf_Shdr text = f.shdr(".text");
  std::vector<uint8_t> covered(text.sh_size / 4, 0);
  for (const TableProc &p : procedure_table(r.out))
    for (uint64_t a = p.addr; a < p.addr + p.size; a += 4)
      if (a >= text.sh_addr && a < text.sh_addr + text.sh_size)
        covered[(a - text.sh_addr) / 4] = 1;
  size_t symbol_words = 0, both = 0;
  std::vector<uint8_t> by_symbol(covered.size(), 0);
  for (const ElfSymbol &s : f.functions(true))
    for (uint64_t a = s.value; a < s.value + s.size; a += 4)
      if (a >= text.sh_addr && a < text.sh_addr + text.sh_size)
        by_symbol[(a - text.sh_addr) / 4] = 1;
  for (size_t i = 0; i < covered.size(); ++i) {
    symbol_words += by_symbol[i];
    both += by_symbol[i] && covered[i];
  }
  std::printf("%s: procedures cover %zu of %zu symbol-covered words (%.2f%%)\n", e->name.c_str(), both,
              symbol_words, symbol_words ? 100.0 * double(both) / double(symbol_words) : 0.0);
  EXPECT_EQ(both, symbol_words);
  run_command({"rm", "-rf", dir});
}

INSTANTIATE_TEST_SUITE_P(Real, RealO32,
                         testing::ValuesIn(names_where([](const BenchExe &e) { return e.abi == "o32"; })));
INSTANTIATE_TEST_SUITE_P(Real, RealN32N64,
                         testing::ValuesIn(names_where([](const BenchExe &e) { return e.abi != "o32"; })));
INSTANTIATE_TEST_SUITE_P(Real, RealDwarf,
                         testing::ValuesIn(names_where([](const BenchExe &e) { return e.debug == "dwarf"; })));
