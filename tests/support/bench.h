// The benches of MIPS executables: the small programs that
// tests/programs/build.sh builds for every ABI, debug format and code model,
// and the real programs of tests/real/build.sh; and whole runs of vesk and
// vesk-annotate on them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support/run.h"

namespace vesk::test {

struct BenchExe {
  std::string path, name;         // absolute path; file name, e.g. calc-o32-mdebug-no-pie
  std::string program, abi, debug, model;
  bool explicit_relocs = true;
  std::vector<std::string> qemu;  // argv prefix that runs it
  std::string expected;           // what it prints (small bench only)
};

// The executables a manifest.tsv in dir lists; empty when there is none.
std::vector<BenchExe> load_manifest(const std::string &dir);
const std::vector<BenchExe> &bench_executables(); // VESK_BENCH_DIR
const std::vector<BenchExe> &real_executables();  // VESK_REAL_DIR
const BenchExe *find_bench(const std::string &program, const std::string &abi, const std::string &debug,
                           const std::string &model);
// Runs exe_path (e itself or a rewritten copy) under e's qemu with args; a
// broken program is killed after a few seconds.
RunResult run_bench(const BenchExe &e, const std::string &exe_path, const std::vector<std::string> &args = {});

// Compiles C source src for o32 with -O2 -Wl,-q and flags into dir/stem;
// returns the executable's path.
std::string compile_o32(const ScratchDir &dir, const std::string &stem, const std::string &src,
                        const std::vector<std::string> &flags);
RunResult run_o32(const std::string &exe);

// One body line of a feedback file.
struct FeedbackLine {
  std::string name, file;
  uint64_t count = 0;
};
extern const char kNoFeedback[]; // a feedback file that names no procedure
std::vector<FeedbackLine> feedback_lines(const std::string &path);
std::string feedback_text(const std::vector<FeedbackLine> &lines);

// A line of the "Procedure Address Mapping" or the "Procedure Table" that
// vesk -debug prints (new_lo is old_addr when the procedure did not move).
struct DebugProc {
  std::string name;
  uint64_t old_addr = 0, size = 0, new_lo = 0, new_hi = 0;
  bool moved = false;
};
std::vector<DebugProc> address_mapping(const std::string &debug_out);
std::vector<DebugProc> procedure_table(const std::string &debug_out);

// An o32 executable annotated by vesk-annotate in a private directory,
// with the procedures vesk finds in it in the order it lays them out
// without feedback (old_addr and size of each; file names in `file`).
struct ListedProc {
  std::string name, file;
  uint64_t old_addr = 0, size = 0;
};
class AnnotatedBench {
public:
  explicit AnnotatedBench(const BenchExe &e);
  // False when vesk-annotate refused (refusal() says why) or the
  // procedures could not be listed (the test has failed then).
  bool ok() const { return ok_; }
  const std::string &refusal() const { return refusal_; }
  const std::string &annotated() const { return annotated_; }
  std::string path(const std::string &name) const { return dir_ / name; }
  const std::vector<ListedProc> &procs() const { return procs_; }
  // Runs vesk on input with a feedback file holding fb, output to out.
  RunResult vesk(const std::string &input, const std::vector<FeedbackLine> &fb, const std::string &out,
                 const std::vector<std::string> &extra = {}) const;

private:
  ScratchDir dir_;
  std::string annotated_, refusal_;
  std::vector<ListedProc> procs_;
  bool ok_ = false;
};

// Orders of the nameable procedures (not ".libstub", not nameless), with
// falling counts: reversed, shuffled (the same on every run for one seed
// text), and the procedures that ran, hottest first, by entry counts.
std::vector<FeedbackLine> reversed_order(const std::vector<ListedProc> &procs);
std::vector<FeedbackLine> random_order(const std::vector<ListedProc> &procs, const std::string &seed_text);
std::vector<FeedbackLine> hot_first_order(const std::vector<ListedProc> &procs, const std::vector<uint64_t> &counts);
// Runs exe (with the text of procs) under e's qemu with a trace of every
// executed block, and counts for each procedure the blocks that start at
// its first word: how often it was entered.  The run goes to *out.
std::vector<uint64_t> entry_counts(const BenchExe &e, const std::string &exe, const std::vector<ListedProc> &procs,
                                   const std::string &log_path, RunResult *out, const std::vector<std::string> &args);

} // namespace vesk::test

#define VESK_REQUIRE_BENCH()                                                                                 \
  do {                                                                                                       \
    if (::vesk::test::bench_executables().empty())                                                           \
      GTEST_SKIP() << "bench of MIPS executables missing (build it with tests/programs/build.sh)";           \
  } while (0)
