#include "support/run.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <sstream>
#include <stdexcept>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

namespace vesk::test {

RunResult run_command(const std::vector<std::string> &argv, const std::string &cwd, int timeout) {
  int out_pipe[2], err_pipe[2];
  if (pipe(out_pipe) != 0 || pipe(err_pipe) != 0)
    throw std::runtime_error("pipe");
  pid_t pid = fork();
  if (pid < 0)
    throw std::runtime_error("fork");
  if (pid == 0) {
    dup2(out_pipe[1], 1);
    dup2(err_pipe[1], 2);
    for (int fd : {out_pipe[0], out_pipe[1], err_pipe[0], err_pipe[1]})
      close(fd);
    int devnull = open("/dev/null", O_RDONLY);
    dup2(devnull, 0);
    if (!cwd.empty() && chdir(cwd.c_str()) != 0)
      _exit(126);
    std::vector<char *> args;
    for (const auto &a : argv)
      args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    execvp(args[0], args.data());
    _exit(127);
  }
  close(out_pipe[1]);
  close(err_pipe[1]);
  RunResult r;
  struct pollfd fds[2] = {{out_pipe[0], POLLIN, 0}, {err_pipe[0], POLLIN, 0}};
  time_t deadline = time(nullptr) + timeout;
  char buf[65536];
  for (int open_fds = 2; open_fds > 0;) {
    if (time(nullptr) >= deadline)
      kill(pid, SIGKILL); // the pipes close as it dies
    if (poll(fds, 2, 1000) < 0 && errno != EINTR)
      break;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR)))
        continue;
      ssize_t got = read(fds[i].fd, buf, sizeof buf);
      if (got > 0) {
        (i == 0 ? r.out : r.err).append(buf, size_t(got));
      } else {
        close(fds[i].fd);
        fds[i].fd = -1;
        --open_fds;
      }
    }
  }
  int st = 0;
  waitpid(pid, &st, 0);
  r.status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
  return r;
}

RunResult run_vesk(const std::vector<std::string> &args, const std::string &cwd) {
  std::vector<std::string> argv{VESK_BINARY};
  argv.insert(argv.end(), args.begin(), args.end());
  return run_command(argv, cwd);
}

std::string annotate_binary() {
  std::string v = VESK_BINARY;
  return v.substr(0, v.rfind('/') + 1) + "vesk-annotate";
}

std::string read_file(const std::string &path) {
  std::ifstream f(path, std::ios::binary);
  std::stringstream ss;
  ss << f.rdbuf();
  return ss.str();
}

void write_file(const std::string &path, const std::string &contents) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << contents;
}

std::string temp_path(const std::string &stem) {
  static std::atomic<int> counter{0};
  const char *dir = std::getenv("TEST_TMPDIR");
  return std::string(dir ? dir : "/tmp") + "/vesk-" + std::to_string(getpid()) + "-" + std::to_string(counter++) +
         "-" + stem;
}

ScratchDir::ScratchDir(const std::string &stem) : path_(temp_path(stem)) {
  std::filesystem::remove_all(path_);
  std::filesystem::create_directories(path_);
}

ScratchDir::~ScratchDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

} // namespace vesk::test
