// Running pieces of vesk inside the test process.  Every test that starts
// a new in-process run, or runs a step that may end the run with an error,
// goes through here.
#pragma once

#include <functional>
#include <string>

namespace vesk::test {

struct StepResult {
  int status = -1; // 0 when fn returned, 1 when it ended the run with an error
  std::string out, err;
};
// Runs fn with standard output and standard error captured; a fatal error
// (vesk::Fatal) ends fn, not the test.
StepResult run_step(const std::function<void()> &fn);

// Ends what an earlier in-process run left open and starts from fresh run
// records.
void fresh_run();

} // namespace vesk::test
