#include "support/step.h"

#include <cstdio>
#include <cstdlib>
#include <sys/wait.h>
#include <unistd.h>

#include "com/mdebug.h"
#include "vesk/bin.h"
#include "vesk/checks.h"
#include "vesk/options.h"
#include "vesk/proc.h"

// The tool allocates once per run and frees nothing: in-process steps would
// flood a sanitizer build with leak reports.
#if defined(__SANITIZE_ADDRESS__)
extern "C" const char *__lsan_default_options() { return "detect_leaks=0"; }
#endif

namespace vesk::test {

// A fatal error ends the process for now, so the step runs in a child; its
// output goes to unlinked files, which cannot fill up as a pipe would.
StepResult run_step(const std::function<void()> &fn) {
  FILE *out = std::tmpfile(), *err = std::tmpfile();
  std::fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    dup2(fileno(out), 1);
    dup2(fileno(err), 2);
    fn();
    std::fflush(nullptr);
    _exit(0);
  }
  int st = 0;
  waitpid(pid, &st, 0);
  StepResult r{WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st), "", ""};
  for (auto [f, s] : {std::pair{out, &r.out}, {err, &r.err}}) {
    std::rewind(f);
    char buf[4096];
    for (size_t n; (n = std::fread(buf, 1, sizeof buf, f)) > 0;)
      s->append(buf, n);
    std::fclose(f);
  }
  return r;
}

void fresh_run() {
  if (bin.in_elf)
    elf_end(bin.in_elf);
  if (bin.in_fd > 0)
    close(bin.in_fd);
  if (bin.is_elf32)
    std::free(in_ehdr);
  in_ehdr = nullptr;
  bin = Bin{};
  option = Options{};
  libstub_lo = libstub_hi = 0;
  reset_proc_table();
  reset_mdebug_discovery();
  reset_mdebug_update();
}

} // namespace vesk::test
