// The command line and the fixed run sequence.
#pragma once

namespace vesk {

// The whole run: parse, read, plan, rewrite, write, post-process.
int vesk_main(int argc, char **argv);
void bin_copy(int in_fd, int out_fd);
void reorder_it();
// Refuses an output path that names the input file itself.
void check_output_is_not_input();

} // namespace vesk
