#include "support/child.h"

#include "base/diag.h"

#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace vesk::test {

namespace {

// The child writes into unlinked temporary files: no pipe can fill up
// while the parent waits.
FILE *scratch() {
  FILE *f = std::tmpfile();
  if (f == nullptr)
    throw std::runtime_error("tmpfile");
  return f;
}

std::string contents(FILE *f) {
  std::string s;
  std::rewind(f);
  char buf[4096];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0)
    s.append(buf, n);
  std::fclose(f);
  return s;
}

void finish(int status) {
  std::fflush(stdout);
  std::fflush(stderr);
  _exit(status);
}

} // namespace

RunResult run_in_child(const std::function<void()> &fn) {
  FILE *out = scratch(), *err = scratch();
  std::fflush(stdout);
  std::fflush(stderr);
  pid_t pid = fork();
  if (pid < 0)
    throw std::runtime_error("fork");
  if (pid == 0) {
    dup2(fileno(out), 1);
    dup2(fileno(err), 2);
    try {
      fn();
    } catch (const vesk::Fatal &) {
      finish(1);
    }
    finish(0);
  }
  int st = 0;
  waitpid(pid, &st, 0);
  RunResult r;
  if (WIFEXITED(st))
    r.status = WEXITSTATUS(st);
  else if (WIFSIGNALED(st))
    r.status = 128 + WTERMSIG(st);
  r.out = contents(out);
  r.err = contents(err);
  return r;
}

} // namespace vesk::test
