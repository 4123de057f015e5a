#include <gtest/gtest.h>

#include "support/run.h"

using namespace vesk::test;

TEST(CommandLine, RefusesMissingProgramAndBadOptions) {
  auto r = run_vesk({});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "Error: program name not specified.\n");
  r = run_vesk({"-x"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "Error: Incorrect option -x.\n");
}
