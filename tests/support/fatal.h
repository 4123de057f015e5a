// A step that must end the run: it prints its message and throws
// vesk::Fatal.  The check runs it in process and matches what it printed on
// standard error against an extended regular expression.
#pragma once

#include <gtest/gtest.h>
#include <regex>
#include <string>

#include "base/diag.h"

#define EXPECT_FATAL(stmt, pattern)                                                                   \
  do {                                                                                             \
    ::testing::internal::CaptureStderr();                                                          \
    bool fatal_ = false;                                                                           \
    try {                                                                                          \
      stmt;                                                                                        \
    } catch (const vesk::Fatal &) {                                                                \
      fatal_ = true;                                                                               \
    }                                                                                              \
    std::string err_ = ::testing::internal::GetCapturedStderr();                                   \
    EXPECT_TRUE(fatal_) << #stmt " did not end the run; it printed: " << err_;                    \
    EXPECT_TRUE(std::regex_search(err_, std::regex(std::string(pattern), std::regex::extended)))     \
        << "printed: " << err_ << "expected: " << (pattern);                                         \
  } while (0)
