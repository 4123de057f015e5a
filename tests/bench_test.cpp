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
