// Parsing the command line into the run's options record.
#pragma once

#include "base/options.h"

namespace vesk {

void parse_command_line(int argc, char **argv);
// Appends one path to option.feedback_files, growing the list by ten.
void add_feedback_file(const char *path);

} // namespace vesk
