// The bench itself: every executable is there and prints what was recorded.
#include <gtest/gtest.h>

#include <set>

#include "support/bench.h"

using namespace vesk::test;

TEST(Bench, CoversEveryAbiDebugAndModel) {
  VESK_REQUIRE_BENCH();
  std::set<std::string> seen;
  for (const auto &e : bench_executables()) {
    seen.insert(e.abi + "/" + e.debug + "/" + e.model + (e.explicit_relocs ? "" : "/noexplicit"));
    EXPECT_FALSE(e.expected.empty()) << e.name;
  }
  for (const char *abi : {"o32", "n32", "n64"})
    for (const char *debug : {"mdebug", "dwarf"})
      for (const char *model : {"pie", "no-pie", "fno-pie"}) {
        if (std::string(abi) == "n64" && std::string(debug) == "mdebug")
          continue; // the 64-bit form of the mdebug table is not read
        EXPECT_TRUE(seen.count(std::string(abi) + "/" + debug + "/" + model)) << abi << debug << model;
      }
  EXPECT_TRUE(seen.count("o32/mdebug/no-pie/noexplicit"));
  EXPECT_NE(find_bench("calc", "n64", "dwarf", "fno-pie"), nullptr);
}

TEST(Bench, OneExecutablePerAbiRunsUnderQemu) {
  VESK_REQUIRE_BENCH();
  for (const char *abi : {"o32", "n32", "n64"}) {
    const BenchExe *e = find_bench("shapes", abi, "dwarf", "pie");
    ASSERT_NE(e, nullptr) << abi;
    RunResult r = run_bench(*e, e->path);
    EXPECT_EQ(r.status, 0) << e->name << r.err;
    EXPECT_EQ(r.out, e->expected) << e->name;
  }
}
