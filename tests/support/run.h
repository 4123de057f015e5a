// Running programs as a user would, and the files a test works with.
#pragma once

#include <string>
#include <vector>

namespace vesk::test {

struct RunResult {
  int status = -1; // exit status; 128 + signal when killed by a signal
  std::string out, err;
};

// Runs argv (looked up in PATH) in directory cwd ("" = here) with no input;
// it is killed after timeout seconds.
RunResult run_command(const std::vector<std::string> &argv, const std::string &cwd = "", int timeout = 120);
// The vesk and vesk-annotate executables of this build.
RunResult run_vesk(const std::vector<std::string> &args, const std::string &cwd = "");
std::string annotate_binary();

std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &contents);
// A fresh name under the test temporary directory.
std::string temp_path(const std::string &stem);

// A private directory, removed with everything in it at the end of scope.
class ScratchDir {
public:
  explicit ScratchDir(const std::string &stem);
  ~ScratchDir();
  ScratchDir(const ScratchDir &) = delete;
  ScratchDir &operator=(const ScratchDir &) = delete;
  const std::string &path() const { return path_; }
  std::string operator/(const std::string &name) const { return path_ + "/" + name; }

private:
  std::string path_;
};

} // namespace vesk::test
