#include <gtest/gtest.h>

#include "vesk/diag.h"

TEST(Diag, BasenameKeepsStorage) {
  const char *p = "dir/sub/a.out";
  EXPECT_EQ(vesk::basename(p), p + 8);
  EXPECT_STREQ(vesk::basename("a.out"), "a.out");
  EXPECT_STREQ(vesk::basename("dir/"), "");
}
