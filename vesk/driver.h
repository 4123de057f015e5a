// The command line and the fixed run sequence.
#pragma once

namespace vesk {

// The whole run: parse, read, plan, rewrite, write, post-process.  When
// the process ends with the run (the command itself), a successful run
// ends it without freeing what it holds.
int vesk_main(int argc, char **argv, bool process_ends = false);
void reorder_it();
// Refuses an output path that names the input file itself.
void check_output_is_not_input();
// Opens a temporary file beside the output (bin.out_fd); it is removed if
// the run ends early, and renamed over the output by commit_output.
void open_output();
void commit_output();

} // namespace vesk
