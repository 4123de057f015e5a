#include "support/run.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
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
    close(out_pipe[0]);
    close(err_pipe[0]);
    close(out_pipe[1]);
    close(err_pipe[1]);
    int devnull = open("/dev/null", O_RDONLY);
    if (devnull >= 0)
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
  int open_fds = 2;
  time_t deadline = time(nullptr) + timeout;
  bool killed = false;
  char buf[65536];
  while (open_fds > 0) {
    int left = int(deadline - time(nullptr));
    if (left <= 0 && !killed) {
      kill(pid, SIGKILL);
      killed = true;
    }
    int n = poll(fds, 2, 1000);
    if (n < 0 && errno != EINTR)
      break;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR)))
        continue;
      ssize_t got = read(fds[i].fd, buf, sizeof buf);
      if (got <= 0) {
        close(fds[i].fd);
        fds[i].fd = -1;
        --open_fds;
      } else {
        (i == 0 ? r.out : r.err).append(buf, size_t(got));
      }
    }
  }
  int st = 0;
  waitpid(pid, &st, 0);
  if (WIFEXITED(st))
    r.status = WEXITSTATUS(st);
  else if (WIFSIGNALED(st))
    r.status = 128 + WTERMSIG(st);
  return r;
}

RunResult run_vesk(const std::vector<std::string> &args, const std::string &cwd) {
  std::vector<std::string> argv{VESK_BINARY};
  argv.insert(argv.end(), args.begin(), args.end());
  return run_command(argv, cwd);
}

std::string read_file(const std::string &path) {
  std::ifstream f(path, std::ios::binary);
  std::stringstream ss;
  ss << f.rdbuf();
  return ss.str();
}

void write_file(const std::string &path, const std::string &contents) {
  std::ofstream f(path, std::ios::binary | std::ios::trunc);
  f << contents;
}

} // namespace vesk::test
