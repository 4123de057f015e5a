// Running pieces of vesk inside the test process.  Everything a test needs
// to start a new in-process run, or to run a step that may end the run with
// an error, goes through here.
#pragma once

#include <functional>
#include <string>

namespace vesk::test {

struct StepResult {
  int status = -1; // 0 when fn returned, 1 when it ended the run with an error
  std::string out, err;
};

// Runs fn with standard output and standard error captured.  What fn
// records in vesk's run state is not seen afterwards.
StepResult run_step(const std::function<void()> &fn);

// Forgets everything an earlier in-process run recorded (the input, the
// options, the procedure table and list, the mdebug walk), so that the next
// step starts as a new run does.
void fresh_run();

} // namespace vesk::test
