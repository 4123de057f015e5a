#include "support/step.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "base/bin.h"
#include "base/diag.h"
#include "base/options.h"

namespace vesk::test {

StepResult run_step(const std::function<void()> &fn) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  StepResult r;
  try {
    fn();
    r.status = 0;
  } catch (const Fatal &) {
    r.status = 1;
  }
  r.out = testing::internal::GetCapturedStdout();
  r.err = testing::internal::GetCapturedStderr();
  return r;
}

void fresh_run() { end_run(); }

} // namespace vesk::test
