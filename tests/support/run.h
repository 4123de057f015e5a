// Running vesk (and other programs) as a child process, as a user would.
#pragma once

#include <string>
#include <vector>

namespace vesk::test {

struct RunResult {
  int status = -1; // exit status; 128 + signal when killed by a signal
  std::string out;
  std::string err;
};

// Runs argv[0] with argv (looked up in PATH) in directory cwd ("" = here),
// with a time limit in seconds.
RunResult run_command(const std::vector<std::string> &argv, const std::string &cwd = "", int timeout = 120);
// Runs the vesk executable of this build with the given arguments.
RunResult run_vesk(const std::vector<std::string> &args, const std::string &cwd = "");

std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &contents);

} // namespace vesk::test
