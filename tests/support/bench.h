// The benches of MIPS executables (the small programs tests/programs/build.sh
// builds for every ABI, debug format and code model, and the real programs
// of tests/real/build.sh), and whole runs of vesk and vesk-annotate on them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support/run.h"

namespace vesk::test {

struct BenchExe {
  std::string path, name; // name: the file name, e.g. calc-o32-mdebug-no-pie
  std::string program, abi, debug, model;
  bool explicit_relocs = true;
  std::vector<std::string> qemu; // argv prefix that runs it
  std::string expected;          // what it prints (small bench only)
};

const std::vector<BenchExe> &bench_executables(); // empty when not built
const std::vector<BenchExe> &real_executables();
const BenchExe *bench_named(const std::string &name); // in either bench; nullptr when absent
// Runs exe (e itself or a rewritten copy) under e's qemu; a broken program
// is killed after a few seconds.
RunResult run_bench(const BenchExe &e, const std::string &exe);

// Compiles C source src for o32 with -O2 -Wl,-q and flags into dir/stem.
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

// A line of the "Procedure Address Mapping" or the "Procedure Table" of
// vesk -debug; new_lo is old_addr for a procedure that did not move.
struct DebugProc {
  std::string name;
  uint64_t old_addr = 0, new_lo = 0, new_hi = 0;
};
std::vector<DebugProc> address_mapping(const std::string &debug_out);
std::vector<DebugProc> procedure_table(const std::string &debug_out);

// An o32 executable annotated by vesk-annotate in a private directory, and
// its procedures in the order vesk lays them out without feedback.
class AnnotatedBench {
public:
  explicit AnnotatedBench(const BenchExe &e);
  // False when vesk-annotate refused (refusal() says why) or the procedures
  // could not be listed (the test has failed then).
  bool ok() const { return !procs_.empty(); }
  const std::string &refusal() const { return refusal_; }
  const std::string &annotated() const { return annotated_; }
  std::string path(const std::string &name) const { return dir_ / name; }
  const std::vector<DebugProc> &procs() const { return procs_; }
  const std::vector<std::string> &files() const { return files_; } // of procs(), from the merged feedback
  // Runs vesk on input with a feedback file holding fb, output to out.
  RunResult vesk(const std::string &input, const std::vector<FeedbackLine> &fb, const std::string &out,
                 const std::vector<std::string> &extra = {}) const;

private:
  ScratchDir dir_;
  std::string annotated_, refusal_;
  std::vector<DebugProc> procs_;
  std::vector<std::string> files_;
};

// Orders of the procedures a feedback file can name, with falling counts:
// reversed, shuffled (the same on every run for one seed text), and those
// that ran hottest first by the entry counts that a run of exe (with b's
// text) under qemu, traced block by block, gives; that run goes to *run.
std::vector<FeedbackLine> reversed_order(const AnnotatedBench &b);
std::vector<FeedbackLine> random_order(const AnnotatedBench &b, const std::string &seed_text);
std::vector<FeedbackLine> hot_first_order(const AnnotatedBench &b, const BenchExe &e, const std::string &exe,
                                          const std::vector<std::string> &args, RunResult *run);

} // namespace vesk::test

#define VESK_REQUIRE_BENCH()                                                                                 \
  do {                                                                                                       \
    if (::vesk::test::bench_executables().empty())                                                           \
      GTEST_SKIP() << "bench of MIPS executables missing (build it with tests/programs/build.sh)";           \
  } while (0)
