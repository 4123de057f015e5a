// Runs the input reader in a forked child on one file and reports what it
// recorded in bin, whether or not the run then ended in a fatal error.
#pragma once

#include <map>
#include <string>

#include "support/run.h"

namespace vesk::test {

struct ReadResult {
  RunResult run;                            // status and messages of the child
  std::map<std::string, std::string> field; // bin field name -> value ("0x..." or decimal)
  // The field as a number; fails the test when it was not reported.
  unsigned long long num(const std::string &name) const;
};

// Sets option.program = path (other options cleared, -debug when debug),
// clears bin and calls read_orig_binary in a child.
ReadResult read_binary_in_child(const std::string &path, bool debug = false);

// Gives back what an in-process read_orig_binary keeps to the end of a run
// (libelf handle, descriptor, widened header) and clears bin, option and the
// procedure tables, so that the next reading in this process starts clean.
void release_input();

} // namespace vesk::test
