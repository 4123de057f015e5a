// Real programs from Debian source packages (bench/real/build.sh), built as
// their users build them, reordered by vesk and checked with their own
// tests (bench/real/check.sh).  Every build, o32, n32 and n64, is laid out
// by vesk directly (it describes the code addresses itself) in a reversed, a
// shuffled or a hot-first order (one order per build, taken in turn;
// VESK_REAL_ALL_ORDERS=1 runs all three), and vesk-annotate then vesk must
// write the same file.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

#include "support/bench.h"

using namespace vesk::test;

namespace {

RunResult check(const BenchExe &e, const std::string &exe) {
  return run_command({"env", "VESK_REAL_DIR=" VESK_REAL_DIR, VESK_SOURCE_DIR "/bench/real/check.sh", e.program, e.abi,
                      exe},
                     "", 600);
}

// A short run of each program, traced for the hot-first order; files it
// writes go to b's directory.
std::vector<std::string> profile_args(const BenchExe &e, const AnnotatedBench &b) {
  std::string data = VESK_REAL_DIR "/data/" + e.program;
  if (e.program == "bzip2")
    return {"-1", "-c", "-k", data + "/sample1.ref"};
  if (e.program == "sqlite3")
    return {":memory:", "create table t(a, b); with recursive c(x) as (select 1 union all select x + 1 from c "
                        "where x < 2000) insert into t select x, printf('%05d', x) from c; "
                        "select count(*), sum(a), max(b) from t where b like '%7%';"};
  if (e.program == "duktape")
    return {"-e", "var s = 0; for (var i = 0; i < 200; i++) s += JSON.stringify({a: [i, 'x' + i]}).length; "
                  "print(s, /a(b+)c/.exec('xabbbc')[1], Math.sqrt(s).toFixed(3));"};
  if (e.program == "jsoncpp_test") // the tests of values, the readers (which throw) and the writers
    return {"--test", "ValueTest/objects", "--test", "CharReaderTest/parseWithStackLimit", "--test",
            "StreamWriterTest/indentation", "--test", "ValueTest/integers"};
  if (e.program == "jsontestrunner") { // writes its outputs beside its input
    write_file(b.path("complex.json"), read_file(data + "/legacy_test_complex_01.json"));
    return {"--json-writer", "BuiltStyledStreamWriter", b.path("complex.json")};
  }
  return {"-e", "set s 0; for {set i 0} {$i < 200} {incr i} {incr s [string length [format %05d $i]]}; puts $s"};
}

class RealBuild : public testing::TestWithParam<size_t> {};

} // namespace

TEST_P(RealBuild, ReorderedProgramPassesItsOwnTests) {
  const BenchExe *e = &real_executables()[GetParam()];
  AnnotatedBench b(*e);
  ASSERT_TRUE(b.ok()) << "vesk-annotate refused " << e->name << ": " << b.refusal();
  std::vector<LayoutOrder> orders{order_of(GetParam())};
  if (std::getenv("VESK_REAL_ALL_ORDERS") != nullptr)
    orders = {REVERSED, SHUFFLED, HOT_FIRST};
  for (LayoutOrder order : orders) {
    SCOPED_TRACE(order_name(order));
    RunResult traced;
    std::vector<FeedbackLine> fb = ordered(order, b, *e, e->path, profile_args(*e, b), &traced);
    if (order == HOT_FIRST) {
      ASSERT_EQ(traced.status, 0) << traced.err;
      ASSERT_FALSE(fb.empty());
    }
    std::string out = b.path("reordered"), via_annotate = b.path("via-annotate");
    RunResult r = b.vesk(e->path, fb, out, {"-debug"});
    ASSERT_EQ(r.status, 0) << r.err;
    ASSERT_EQ(b.vesk(b.annotated(), fb, via_annotate).status, 0);
    EXPECT_TRUE(read_file(out) == read_file(via_annotate)) << "vesk-annotate then vesk wrote another file";
    size_t moved = 0, total = 0;
    for (const DebugProc &m : address_mapping(r.out)) {
      total += m.name != ".libstub";
      moved += m.name != ".libstub" && m.new_lo != m.old_addr;
    }
    EXPECT_TRUE(order != SHUFFLED || double(moved) > 0.95 * double(total));
    RunResult c = check(*e, out);
    EXPECT_EQ(c.status, 0) << c.err;
    if (e->debug == "mdebug")
      check_mdebug_follows_code(e->path, out, address_mapping(r.out));
  }
}

namespace {

// A number from a row of vesk-profile --compare's table: column 0 the
// original, 1 the reordered executable.
uint64_t figure(const std::string &table, const std::string &row, int column) {
  size_t at = table.find("\n" + row);
  unsigned long long a = 0, b = 0;
  constexpr size_t LABEL = 44; // the width of the rows' labels
  if (at == std::string::npos || at + 1 + LABEL > table.size() ||
      std::sscanf(table.c_str() + at + 1 + LABEL, "%llu %llu", &a, &b) != 2)
    ADD_FAILURE() << "no row " << row << " in\n" << table;
  return column == 0 ? a : b;
}

} // namespace

// Feedback from vesk-profile (its default order) names only procedures vesk
// finds; laid out by it, the same run touches at most 1.05 times the pages
// the executed procedures need, and misses half as often in both TLBs.
TEST_P(RealBuild, ProfiledLayoutPacksTheExecutedCode) {
  const BenchExe *e = &real_executables()[GetParam()];
  // One build per program, and bzip2's mdebug build, whose main starts
  // the text behind the table's empty .libstub record (once tied to it and
  // laid out last: a page more than the ideal).
  if (e->abi != "o32" || e->model != "pie" || (e->debug != "dwarf" && e->program != "bzip2"))
    GTEST_SKIP() << "one build per program";
  AnnotatedBench b(*e);
  ASSERT_TRUE(b.ok()) << b.refusal();
  std::vector<std::string> args = profile_args(*e, b);
  std::vector<std::string> argv{profile_binary(), "-o", b.path("run.fb"), "--", e->path};
  argv.insert(argv.end(), args.begin(), args.end());
  RunResult r = run_command(argv, "", 300);
  ASSERT_EQ(r.status, 0) << r.err;
  r = run_vesk({"-v", e->path, b.path("run.fb"), "-o", b.path("profiled")});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err.find("Procedure not found"), std::string::npos) << r.err;
  argv = {profile_binary(), "--compare", e->path, b.path("profiled"), "--"};
  argv.insert(argv.end(), args.begin(), args.end());
  r = run_command(argv, "", 300);
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_LE(100 * figure(r.out, "4 KB pages", 1), 105 * figure(r.out, "ideal", 1)) << r.out;
  uint64_t pages = figure(r.out, "4 KB pages", 1);
  for (auto [tlb, first_touches] : {std::pair{"TLB misses, 16", pages}, std::pair{"TLB misses, 48", pages / 2 + 2}}) {
    uint64_t old_misses = figure(r.out, tlb, 0), new_misses = figure(r.out, tlb, 1);
    EXPECT_TRUE(2 * new_misses <= old_misses || new_misses <= first_touches) << r.out;
  }
}

INSTANTIATE_TEST_SUITE_P(Real, RealBuild, testing::Range(size_t(0), real_executables().size()));
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(RealBuild);
