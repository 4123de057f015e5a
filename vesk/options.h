// The command line, parsed once into a process-wide record.
#pragma once

namespace vesk {

struct Options {
  const char *program;
  const char *output;
  const char **feedback_files; // null-terminated
  const char *merge_file;
  int flip;
  int verbose;
  int r4000_fix;
  int b_flag;
  int debug;
  const char *interp;
};

extern Options option;

void parse_command_line(int argc, char **argv);
// Appends one path to option.feedback_files, growing the list by ten.
void add_feedback_file(const char *path);

} // namespace vesk
