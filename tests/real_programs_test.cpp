// Real programs from Debian source packages (tests/real/build.sh), built as
// their users build them, reordered by vesk and checked with their own
// tests (tests/real/check.sh).  Every build, o32, n32 and n64, is annotated
// and laid out in a reversed, a shuffled or a hot-first order (one order per
// build, taken in turn; VESK_REAL_ALL_ORDERS=1 runs all three).
#include <gtest/gtest.h>

#include <cstdlib>

#include "support/bench.h"

using namespace vesk::test;

namespace {

RunResult check(const BenchExe &e, const std::string &exe) {
  return run_command({"env", "VESK_REAL_DIR=" VESK_REAL_DIR, VESK_SOURCE_DIR "/tests/real/check.sh", e.program, e.abi,
                      exe},
                     "", 600);
}

// A short run of each program, traced for the hot-first order.
std::vector<std::string> profile_args(const BenchExe &e) {
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
  return {"-e", "set s 0; for {set i 0} {$i < 200} {incr i} {incr s [string length [format %05d $i]]}; puts $s"};
}

class RealBuild : public testing::TestWithParam<size_t> {};

} // namespace

TEST_P(RealBuild, ReorderedProgramPassesItsOwnTests) {
  const BenchExe *e = &real_executables()[GetParam()];
  AnnotatedBench b(*e);
  ASSERT_TRUE(b.ok()) << "vesk-annotate refused " << e->name << ": " << b.refusal();
  const char *kind[] = {"reversed", "shuffled", "hot-first"};
  std::vector<int> orders{int((GetParam() + GetParam() / 3) % 3)}; // the manifest lists three models in a row
  if (std::getenv("VESK_REAL_ALL_ORDERS") != nullptr)
    orders = {0, 1, 2};
  for (int order : orders) {
    SCOPED_TRACE(kind[order]);
    std::vector<FeedbackLine> fb;
    if (order == 0) {
      fb = reversed_order(b);
    } else if (order == 1) {
      fb = random_order(b, e->name);
    } else {
      RunResult traced;
      fb = hot_first_order(b, *e, b.annotated(), profile_args(*e), &traced);
      ASSERT_EQ(traced.status, 0) << traced.err;
      ASSERT_FALSE(fb.empty());
    }
    std::string out = b.path("reordered");
    RunResult r = b.vesk(b.annotated(), fb, out, {"-debug"});
    ASSERT_EQ(r.status, 0) << r.err;
    size_t moved = 0, total = 0;
    for (const DebugProc &m : address_mapping(r.out)) {
      total += m.name != ".libstub";
      moved += m.name != ".libstub" && m.new_lo != m.old_addr;
    }
    EXPECT_TRUE(order != 1 || double(moved) > 0.95 * double(total));
    RunResult c = check(*e, out);
    EXPECT_EQ(c.status, 0) << c.err;
  }
}

INSTANTIATE_TEST_SUITE_P(Real, RealBuild, testing::Range(size_t(0), real_executables().size()));
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(RealBuild);
