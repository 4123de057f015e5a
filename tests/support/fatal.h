// A step that must end the run: its message is printed and vesk::Fatal
// thrown; the check runs it in a death-test child that exits with 1 then.
#pragma once

#include <cstdlib>
#include <gtest/gtest.h>

#include "base/diag.h"

#define EXPECT_FATAL(stmt, matcher, regex)                                                                   \
  EXPECT_EXIT(                                                                                               \
      {                                                                                                      \
        try {                                                                                                \
          stmt;                                                                                              \
        } catch (const vesk::Fatal &) {                                                                      \
          std::exit(1);                                                                                      \
        }                                                                                                    \
      },                                                                                                     \
      matcher, regex)
