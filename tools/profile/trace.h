// The execution trace that qemu writes with -d page,in_asm,exec,nochain,
// read as it streams: "start_code 0x..." gives the executable's load
// address, an "IN:" paragraph lists the instructions of a block as qemu
// translates it, and "Trace N: host [cs_base/pc/flags/cflags] sym" says
// that the block at pc ran.  Without chaining every block run is logged.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/profile/record.h"

namespace vesk::profile {

class TraceParser {
public:
  explicit TraceParser(Recorder &r) : rec_(r) {}
  // Any number of bytes; lines may be split across calls.
  void feed(const char *data, size_t n);
  // The end of the stream: completes the last line, and ends the run with
  // "Error: ..." when the stream held a line that cannot be read.
  void finish(const std::string &what);

private:
  void line(const char *s, size_t n);
  void end_block();
  void bad(const char *s, size_t n);

  Recorder &rec_;
  std::string partial_;
  bool overlong_ = false;
  bool in_block_ = false;
  uint64_t block_first_ = 0, block_last_ = 0;
  bool block_any_ = false;
  uint64_t lines_ = 0;
  std::string first_bad_;
  uint64_t bad_line_ = 0;
};

// Where the emulator for an ABI is and where its C library lives.
struct Emulator {
  std::string qemu, sysroot;
};
Emulator emulator_for(const std::string &abi);

// Runs argv[0] (the executable) with argv[1..] under the emulator, its
// standard streams those of this process (stdin_fd for its input), and
// streams the trace through a FIFO into the parser.  Returns the wait
// status of the emulator.
int run_traced(const Emulator &em, const std::vector<std::string> &argv, int stdin_fd, int stdout_fd,
               TraceParser &parser);

// Reads a trace saved to a file (for checking a trace by hand).
void read_trace_file(const std::string &path, TraceParser &parser);

} // namespace vesk::profile
