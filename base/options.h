// The command line of the run, parsed once into the run's options record.
#pragma once

namespace vesk {

struct Options {
  const char *program = nullptr;
  const char *output = nullptr;
  const char **feedback_files = nullptr; // null-terminated
  const char *merge_file = nullptr;
  int flip = 0;
  int verbose = 0;
  int r4000_fix = 0;
  int b_flag = 0;
  int debug = 0;
  const char *interp = nullptr;
};

extern Options option;

} // namespace vesk
