// Whole runs of vesk on the o32 executables of the bench: an executable
// annotated for vesk in a private directory, the procedures vesk finds in
// it, feedback files in chosen orders, procedure entry counts from a traced
// run under qemu, and what vesk's -v and -debug output says.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "support/bench.h"
#include "support/o32_programs.h"
#include "support/run.h"

namespace vesk::test {

// A procedure as vesk lists it: name, source file, input start and size.
struct ListedProc {
  std::string name, file;
  uint64_t old_addr = 0, size = 0;
};

// One body line of a feedback file.
struct FeedbackLine {
  std::string name, file;
  uint64_t count = 0;
};

// The body lines of a feedback file (such as one written with -merge), in
// file order.
std::vector<FeedbackLine> feedback_lines(const std::string &path);
// A version 2 feedback file with the given body lines.
std::string feedback_text(const std::vector<FeedbackLine> &lines);
// A feedback file that names no procedure.
extern const char kNoFeedback[];

// One line of the "Procedure Address Mapping" that vesk -debug prints.
struct MappedProc {
  std::string name;
  uint64_t old_addr = 0;
  bool moved = false; // false for "not changed"
  uint64_t new_lo = 0, new_hi = 0;
};
std::vector<MappedProc> address_mapping(const std::string &debug_out);

// One line of the first "Procedure Table" that vesk -debug prints (the
// table as read from the input, in index order).
struct TableProc {
  std::string name;
  uint64_t addr = 0, size = 0, freq = 0;
};
std::vector<TableProc> procedure_table(const std::string &debug_out);

// The page statistics of vesk -v: "Total text %dK. Touched text reduced
// from %dK to %dK".
struct TouchedText {
  int total_k = 0, before_k = 0, after_k = 0;
};
std::optional<TouchedText> touched_text(const std::string &verbose_out);

// An o32 bench executable annotated by vesk-annotate in a private
// directory, with the procedures vesk finds in it.
class AnnotatedBench {
public:
  explicit AnnotatedBench(const BenchExe &e);
  // False when vesk-annotate refused the executable (refusal() says why) or
  // the procedure list could not be taken (the test has failed then).
  bool ok() const { return ok_; }
  const std::string &refusal() const { return refusal_; }
  const BenchExe &exe() const { return exe_; }
  const std::string &annotated() const { return annotated_; }
  std::string path(const std::string &name) const { return tmp_.dir() + "/" + name; }
  // Every procedure in the order vesk lays them out without feedback.
  const std::vector<ListedProc> &procs() const { return procs_; }
  // Runs vesk on input with a feedback file holding fb (written next to the
  // output as out + ".fb") and the extra arguments.
  RunResult vesk(const std::string &input, const std::vector<FeedbackLine> &fb, const std::string &out,
                 const std::vector<std::string> &extra = {}) const;

private:
  const BenchExe &exe_;
  O32Build tmp_;
  std::string annotated_, refusal_;
  std::vector<ListedProc> procs_;
  bool ok_ = false;
};

// The procedures in the reverse of the listed order, with falling counts.
// ".libstub" and nameless procedures are left out.
std::vector<FeedbackLine> reversed_order(const std::vector<ListedProc> &procs);
// The procedures (".libstub" and nameless ones left out) shuffled by a
// generator seeded from seed_text, with falling counts: the same order on
// every run.
std::vector<FeedbackLine> random_order(const std::vector<ListedProc> &procs, const std::string &seed_text);

// Runs exe (the input of procs, or a copy with the same text) under e's
// qemu with a trace of every executed block written to log_path, and counts
// for each procedure the blocks that start at its first word: how often it
// was entered.  The run's output goes to *out when given.
std::vector<uint64_t> entry_counts(const BenchExe &e, const std::string &exe, const std::vector<ListedProc> &procs,
                                   const std::string &log_path, RunResult *out = nullptr,
                                   const std::vector<std::string> &args = {}, const std::string &cwd = "");
// The procedures that ran, hottest first (ties in listed order), with their
// counts; nameless procedures cannot be named in feedback and are left out.
std::vector<FeedbackLine> hot_first_order(const std::vector<ListedProc> &procs, const std::vector<uint64_t> &counts);

// The mdebug line-number table of an executable: where its header places
// it in the file and its bytes.
struct LineTable {
  uint32_t offset = 0, size = 0;
  std::vector<uint8_t> bytes;
};
LineTable mdebug_line_table(const std::string &exe);

} // namespace vesk::test
