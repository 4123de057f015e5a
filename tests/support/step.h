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
// Runs fn with standard output and standard error captured; what fn
// records in vesk's run state is not seen afterwards.
StepResult run_step(const std::function<void()> &fn);

// Forgets what an earlier in-process run recorded (input, options,
// procedure table and list, mdebug walk): the next step starts a new run.
void fresh_run();

} // namespace vesk::test
