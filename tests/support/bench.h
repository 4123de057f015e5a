// The bench of real MIPS executables built by tests/programs/build.sh:
// every program for o32, n32 and n64, with mdebug and DWARF debug
// information, in three code models.
#pragma once

#include <string>
#include <vector>

#include "support/run.h"

namespace vesk::test {

struct BenchExe {
  std::string path;    // absolute path of the executable
  std::string name;    // file name, e.g. calc-o32-mdebug-no-pie
  std::string program; // calc, textstats, shapes
  std::string abi;     // o32, n32, n64
  std::string debug;   // mdebug, dwarf
  std::string model;   // pie, no-pie, fno-pie
  bool explicit_relocs = true;
  std::vector<std::string> qemu; // argv prefix that runs it
  std::string expected;          // what it prints
};

// The directory the bench is built into.
std::string bench_dir();
// The executables a manifest.tsv in dir lists (path program abi debug
// model [explicit-relocs]); empty when there is none.
std::vector<BenchExe> load_manifest(const std::string &dir);
// Every executable of the bench; empty when the bench has not been built.
const std::vector<BenchExe> &bench_executables();
// Runs exe_path (the executable itself or a rewritten copy) under e's qemu.
RunResult run_bench(const BenchExe &e, const std::string &exe_path);
// The first executable matching the given fields ("" matches anything).
const BenchExe *find_bench(const std::string &program, const std::string &abi,
                           const std::string &debug, const std::string &model,
                           bool explicit_relocs = true);

} // namespace vesk::test

// Skips the current test when the bench is missing.
#define VESK_REQUIRE_BENCH()                                                                     \
  do {                                                                                           \
    if (::vesk::test::bench_executables().empty())                                               \
      GTEST_SKIP() << "bench of MIPS executables missing in " << ::vesk::test::bench_dir()       \
                   << " (build it with tests/programs/build.sh)";                              \
  } while (0)
