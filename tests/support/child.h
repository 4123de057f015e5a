// Runs a piece of the tool in a forked child, as the tool would run it:
// process-wide records start from the parent's state, fatal errors end only
// the child, and what it prints is captured.
#pragma once

#include <functional>

#include "support/run.h"

namespace vesk::test {

// Runs fn in a child process with standard output and standard error
// captured. The status is fn's exit status (0 when fn returns), or 128 +
// signal. The child leaves through _exit, so no destructors or exit
// handlers of the test program run twice.
RunResult run_in_child(const std::function<void()> &fn);

} // namespace vesk::test
