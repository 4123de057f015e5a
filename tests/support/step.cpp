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

void fresh_run() {
  if (bin.in_elf)
    elf_end(bin.in_elf);
  if (bin.out_elf)
    elf_end(bin.out_elf);
  if (bin.in_fd >= 0)
    close(bin.in_fd);
  if (bin.out_fd >= 0)
    close(bin.out_fd);
  bin = Bin{};
  option = Options{};
}

} // namespace vesk::test
