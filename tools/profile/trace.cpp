#include "tools/profile/trace.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "base/diag.h"

namespace vesk::profile {

namespace {

// Lines longer than this are read by their start alone: every field the
// parser needs lies within the first hundred bytes.
constexpr size_t LONGEST_LINE = 4096;
// qemu ends a block after at most 512 instructions.
constexpr uint64_t LONGEST_BLOCK = 512 * 4;

bool starts(const char *s, size_t n, const char *prefix) {
  size_t k = std::strlen(prefix);
  return n >= k && std::memcmp(s, prefix, k) == 0;
}

// Up to 16 hexadecimal digits from s[*i], moving *i behind them.
bool hex(const char *s, size_t n, size_t *i, uint64_t *v) {
  size_t start = *i;
  uint64_t x = 0;
  for (; *i < n && *i - start < 17; ++*i) {
    char c = s[*i];
    int d = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
    if (d < 0)
      break;
    x = x << 4 | uint64_t(d);
  }
  size_t digits = *i - start;
  *v = x;
  return digits > 0 && digits <= 16;
}

} // namespace

void TraceParser::feed(const char *data, size_t n) {
  while (n > 0) {
    const char *nl = static_cast<const char *>(std::memchr(data, '\n', n));
    size_t len = nl ? size_t(nl - data) : n;
    if (partial_.empty() && !overlong_ && nl != nullptr) {
      line(data, std::min(len, LONGEST_LINE));
    } else {
      size_t room = LONGEST_LINE - std::min(LONGEST_LINE, partial_.size());
      partial_.append(data, std::min(len, room));
      overlong_ = overlong_ || len > room;
      if (nl != nullptr) {
        line(partial_.data(), partial_.size());
        partial_.clear();
        overlong_ = false;
      }
    }
    if (nl == nullptr)
      return;
    data += len + 1;
    n -= len + 1;
  }
}

void TraceParser::line(const char *s, size_t n) {
  ++lines_;
  if (starts(s, n, "Trace ")) {
    end_block();
    const char *open = static_cast<const char *>(std::memchr(s, '[', n));
    size_t i = open ? size_t(open - s) + 1 : n;
    uint64_t cs_base = 0, pc = 0;
    if (!hex(s, n, &i, &cs_base) || i >= n || s[i] != '/' || (++i, !hex(s, n, &i, &pc)) || i >= n || s[i] != '/')
      return bad(s, n);
    rec_.ran(pc);
  } else if (starts(s, n, "IN:")) {
    end_block();
    in_block_ = true;
  } else if (in_block_ && starts(s, n, "0x")) {
    size_t i = 2;
    uint64_t addr = 0;
    if (!hex(s, n, &i, &addr) || i >= n || s[i] != ':')
      return bad(s, n);
    if (!block_any_)
      block_first_ = addr;
    else if (addr != block_last_ + 4)
      return bad(s, n);
    block_last_ = addr;
    block_any_ = true;
  } else if (starts(s, n, "start_code")) {
    end_block();
    size_t i = 10;
    while (i < n && (s[i] == ' ' || s[i] == '\t'))
      ++i;
    uint64_t addr = 0;
    if (!starts(s + i, n - i, "0x") || (i += 2, !hex(s, n, &i, &addr)))
      return bad(s, n);
    rec_.start_code(addr);
  } else {
    end_block();
  }
}

void TraceParser::end_block() {
  if (in_block_ && block_any_) {
    uint64_t bytes = block_last_ - block_first_ + 4;
    if (bytes > LONGEST_BLOCK) {
      std::string what = "a block of " + std::to_string(bytes) + " bytes";
      bad(what.data(), what.size());
    } else {
      rec_.translated(block_first_, uint32_t(bytes));
    }
  }
  in_block_ = false;
  block_any_ = false;
}

void TraceParser::bad(const char *s, size_t n) {
  in_block_ = block_any_ = false;
  if (!first_bad_.empty())
    return;
  first_bad_.assign(s, std::min<size_t>(n, 120));
  for (char &c : first_bad_)
    if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) > 0x7e)
      c = '?';
  if (first_bad_.empty())
    first_bad_ = "(empty)";
  bad_line_ = lines_;
}

void TraceParser::finish(const std::string &what) {
  if (!partial_.empty()) {
    line(partial_.data(), partial_.size());
    partial_.clear();
  }
  end_block();
  if (!first_bad_.empty())
    error("%s: line %llu of the trace cannot be read: %s", what.c_str(), (unsigned long long)bad_line_,
          first_bad_.c_str());
  if (!rec_.placed())
    error("%s: the trace does not say where the executable was loaded (no start_code line)", what.c_str());
}

Emulator emulator_for(const std::string &abi) {
  if (abi == "o32")
    return {"qemu-mips", "/usr/mips-linux-gnu"};
  if (abi == "n32")
    return {"qemu-mipsn32", "/usr/mips64-linux-gnuabi64"};
  return {"qemu-mips64", "/usr/mips64-linux-gnuabi64"};
}

namespace {

bool runnable(const std::string &cmd) {
  if (cmd.find('/') != std::string::npos)
    return access(cmd.c_str(), X_OK) == 0;
  const char *path = std::getenv("PATH");
  std::string dirs = path ? path : "/usr/bin:/bin";
  for (size_t at = 0; at <= dirs.size();) {
    size_t colon = dirs.find(':', at);
    if (colon == std::string::npos)
      colon = dirs.size();
    std::string dir = dirs.substr(at, colon - at);
    if (access(((dir.empty() ? "." : dir) + "/" + cmd).c_str(), X_OK) == 0)
      return true;
    at = colon + 1;
  }
  return false;
}

// A private directory that holds the FIFO, removed with it at the end.
class FifoDir {
public:
  FifoDir() {
    const char *tmp = std::getenv("TMPDIR");
    std::string tmpl = std::string(tmp && *tmp ? tmp : "/tmp") + "/vesk-profile-XXXXXX";
    std::vector<char> name(tmpl.begin(), tmpl.end());
    name.push_back('\0');
    if (mkdtemp(name.data()) == nullptr)
      sysfatal("cannot make a directory for the trace in %s", tmp && *tmp ? tmp : "/tmp");
    dir_ = name.data();
    fifo_ = dir_ + "/trace";
    if (mkfifo(fifo_.c_str(), 0600) != 0)
      sysfatal("cannot make the FIFO %s", fifo_.c_str());
  }
  ~FifoDir() {
    unlink(fifo_.c_str());
    rmdir(dir_.c_str());
  }
  FifoDir(const FifoDir &) = delete;
  FifoDir &operator=(const FifoDir &) = delete;
  const std::string &fifo() const { return fifo_; }

private:
  std::string dir_, fifo_;
};

// Like system(): while the program runs, an interrupt from the terminal is
// the program's to handle; the profiler waits for it and writes its files.
class IgnoreInterrupts {
public:
  IgnoreInterrupts() {
    struct sigaction ign {};
    ign.sa_handler = SIG_IGN;
    sigemptyset(&ign.sa_mask);
    sigaction(SIGINT, &ign, &int_);
    sigaction(SIGQUIT, &ign, &quit_);
  }
  ~IgnoreInterrupts() { restore(); }
  void restore() const {
    sigaction(SIGINT, &int_, nullptr);
    sigaction(SIGQUIT, &quit_, nullptr);
  }
  IgnoreInterrupts(const IgnoreInterrupts &) = delete;
  IgnoreInterrupts &operator=(const IgnoreInterrupts &) = delete;

private:
  struct sigaction int_ {}, quit_ {};
};

void pause_briefly() {
  struct timespec ts {0, 2000000};
  nanosleep(&ts, nullptr);
}

} // namespace

int run_traced(const Emulator &em, const std::vector<std::string> &argv, int stdin_fd, int stdout_fd,
               TraceParser &parser) {
  if (!runnable(em.qemu))
    error("%s is not installed (it is in Debian's qemu-user package; scripts/setup installs it)", em.qemu.c_str());
  FifoDir dir;
  // Opened before the emulator starts and without waiting for a writer, so
  // that an emulator that fails before it opens its log cannot hang us.
  int fd = open(dir.fifo().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0)
    sysfatal("cannot open the FIFO %s", dir.fifo().c_str());
  std::vector<std::string> args{em.qemu, "-L", em.sysroot, "-d", "page,in_asm,exec,nochain", "-D", dir.fifo()};
  args.insert(args.end(), argv.begin(), argv.end());
  std::vector<char *> cargs;
  for (std::string &a : args)
    cargs.push_back(a.data());
  cargs.push_back(nullptr);
  std::fflush(stdout);
  std::fflush(stderr);
  IgnoreInterrupts ignoring;
  pid_t pid = fork();
  if (pid < 0) {
    close(fd);
    sysfatal("cannot start %s", em.qemu.c_str());
  }
  if (pid == 0) {
    ignoring.restore();
    if ((stdin_fd != 0 && dup2(stdin_fd, 0) < 0) || (stdout_fd != 1 && dup2(stdout_fd, 1) < 0))
      _exit(127);
    execvp(cargs[0], cargs.data());
    std::fprintf(stderr, "Error: cannot run %s: %s.\n", cargs[0], std::strerror(errno));
    _exit(127);
  }
  std::vector<char> buf(1 << 20);
  int status = 0;
  bool exited = false;
  for (;;) {
    ssize_t n = read(fd, buf.data(), buf.size());
    if (n > 0) {
      parser.feed(buf.data(), size_t(n));
      continue;
    }
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0 && errno != EAGAIN) {
      int e = errno;
      close(fd);
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      errno = e;
      sysfatal("cannot read the trace of %s", argv[0].c_str());
    }
    // Nothing to read now: the emulator is busy, has not opened the FIFO
    // yet (read gives 0) or has ended (drain what it left, then stop).
    if (exited)
      break;
    pid_t w = waitpid(pid, &status, WNOHANG);
    if (w == pid) {
      exited = true;
      continue;
    }
    if (n == 0) {
      pause_briefly();
    } else {
      struct pollfd p {fd, POLLIN, 0};
      poll(&p, 1, 100);
    }
  }
  close(fd);
  return status;
}

void read_trace_file(const std::string &path, TraceParser &parser) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0)
    sysfatal("cannot open %s", path.c_str());
  std::vector<char> buf(1 << 20);
  for (;;) {
    ssize_t n = read(fd, buf.data(), buf.size());
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0) {
      close(fd);
      sysfatal("cannot read %s", path.c_str());
    }
    if (n == 0)
      break;
    parser.feed(buf.data(), size_t(n));
  }
  close(fd);
}

} // namespace vesk::profile
