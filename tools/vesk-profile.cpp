// vesk-profile [options] -o FEEDBACK -- EXECUTABLE [ARGS...]
// vesk-profile [options] --compare ORIGINAL REORDERED -- [ARGS...]
//
// Runs a MIPS executable under qemu's user mode with a trace of every block
// it executes, streamed through a FIFO and consumed as it comes, and writes
// the feedback file that vesk reads: the procedures that vesk itself
// discovers in the executable, in the order they should be laid out, with
// their entry counts.  The program's standard input, output and exit status
// pass through unchanged.
//
// With --compare it runs two builds of a program (the original and the one
// vesk laid out) on the same arguments and input and prints what the new
// layout bought: pages of text touched, misses of simulated instruction
// TLBs and I-cache, and whether both runs printed the same.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "base/diag.h"
#include "tools/profile/order.h"
#include "tools/profile/output.h"
#include "tools/profile/program.h"
#include "tools/profile/record.h"
#include "tools/profile/trace.h"

namespace {

using namespace vesk::profile;

constexpr const char USAGE[] =
    "usage: vesk-profile [options] -o feedback -- executable [args...]\n"
    "       vesk-profile [options] --compare original reordered -- [args...]\n"
    "options:\n"
    "  --order temporal|hot|c3\n"
    "                     order of the feedback: procedures run close together in\n"
    "                     time placed together (the default), hottest first by entry\n"
    "                     count, or call-chain clusters\n"
    "  --cluster-size N   largest chain (temporal, default 8192) or cluster (c3,\n"
    "                     default 4096), in bytes\n"
    "  --heatmap FILE     write an SVG heat map of the text\n"
    "  --figures          print the run's figures on standard error\n"
    "  --itlb N           entries of the simulated TLB of 4 KB pages (default 16)\n"
    "  --jtlb N           entries of the simulated joint TLB of page pairs (default 48)\n"
    "  --icache BYTES     simulated direct-mapped I-cache (default 8192)\n"
    "  --line BYTES       its line size (default 32)\n"
    "  --all-code         library code also occupies the simulated TLBs and cache\n"
    "  --qemu PROGRAM     the emulator (default by ABI: qemu-mips, qemu-mipsn32, qemu-mips64)\n"
    "  --sysroot DIR      its -L directory (default /usr/mips-linux-gnu or /usr/mips64-linux-gnuabi64)\n"
    "  --trace FILE       read a saved trace (-d page,in_asm,exec,nochain) instead of running\n";

[[noreturn]] void usage() {
  std::fputs(USAGE, stderr);
  std::exit(1);
}

struct Args {
  std::string output, heatmap, trace, qemu, sysroot;
  std::vector<std::string> compare; // original, reordered
  // The temporal order gave the fewest TLB misses on every real program of
  // the bench, and as many I-cache misses as hottest first (geometric
  // mean; see bench/profile_figures.sh and README).
  Order order = Order::temporal;
  uint64_t cluster_size = 0; // 0: the order's own
  bool figures = false;
  Machine machine;
  std::vector<std::string> command; // behind "--"
};

unsigned number(const char *opt, const char *s, unsigned lo) {
  char *end = nullptr;
  errno = 0;
  unsigned long v = std::strtoul(s, &end, 10);
  if (end == s || *end != '\0' || errno != 0 || v < lo || v > (1u << 30))
    vesk::error("%s wants a number of at least %u, not %s", opt, lo, s);
  return unsigned(v);
}

Args parse(int argc, char **argv) {
  Args a;
  int i = 1;
  auto value = [&](const char *opt) -> const char * {
    if (i + 1 >= argc)
      vesk::error("%s wants a value", opt);
    return argv[++i];
  };
  for (; i < argc; ++i) {
    std::string o = argv[i];
    if (o == "--") {
      ++i;
      break;
    } else if (o == "-o") {
      a.output = value("-o");
    } else if (o == "--order") {
      std::string v = value("--order");
      if (v == "temporal")
        a.order = Order::temporal;
      else if (v == "hot")
        a.order = Order::hot;
      else if (v == "c3")
        a.order = Order::c3;
      else
        vesk::error("--order is temporal, hot or c3, not %s", v.c_str());
    } else if (o == "--cluster-size") {
      a.cluster_size = number("--cluster-size", value("--cluster-size"), 4);
    } else if (o == "--heatmap") {
      a.heatmap = value("--heatmap");
    } else if (o == "--figures") {
      a.figures = true;
    } else if (o == "--itlb") {
      a.machine.itlb_entries = number("--itlb", value("--itlb"), 1);
    } else if (o == "--jtlb") {
      a.machine.jtlb_entries = number("--jtlb", value("--jtlb"), 1);
    } else if (o == "--icache") {
      a.machine.icache_bytes = number("--icache", value("--icache"), 4);
    } else if (o == "--line") {
      a.machine.line_bytes = number("--line", value("--line"), 4);
    } else if (o == "--all-code") {
      a.machine.all_code = true;
    } else if (o == "--qemu") {
      a.qemu = value("--qemu");
    } else if (o == "--sysroot") {
      a.sysroot = value("--sysroot");
    } else if (o == "--trace") {
      a.trace = value("--trace");
    } else if (o == "--compare") {
      a.compare.push_back(value("--compare"));
      a.compare.push_back(value("--compare"));
    } else if (o == "-h" || o == "--help") {
      std::fputs(USAGE, stdout);
      std::exit(0);
    } else {
      usage();
    }
  }
  for (; i < argc; ++i)
    a.command.push_back(argv[i]);
  if (!a.compare.empty() && !a.trace.empty())
    vesk::error("--compare runs both executables; it reads no saved trace");
  if (a.machine.line_bytes > a.machine.icache_bytes)
    vesk::error("the I-cache line (%u bytes) is larger than the cache (%u bytes)", a.machine.line_bytes,
                a.machine.icache_bytes);
  return a;
}

bool same_file(const std::string &a, const std::string &b) {
  struct stat sa, sb;
  return stat(a.c_str(), &sa) == 0 && stat(b.c_str(), &sb) == 0 && sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

Emulator emulator(const Args &a, const Program &p) {
  Emulator em = emulator_for(p.abi);
  if (!a.qemu.empty())
    em.qemu = a.qemu;
  if (!a.sysroot.empty())
    em.sysroot = a.sysroot;
  return em;
}

// One traced run of an executable.
struct Run {
  HeatColumn column;
  int status = 0;
};

Run trace_run(const Args &a, const Program &p, const std::string &title, const std::vector<std::string> &args,
              int stdin_fd, int stdout_fd, Recorder *keep = nullptr) {
  Recorder local(p, a.machine);
  Recorder &rec = keep ? *keep : local;
  TraceParser parser(rec);
  Run r;
  if (!a.trace.empty()) {
    read_trace_file(a.trace, parser);
  } else {
    std::vector<std::string> argv{p.path};
    argv.insert(argv.end(), args.begin(), args.end());
    Emulator em = emulator(a, p);
    r.status = run_traced(em, argv, stdin_fd, stdout_fd, parser);
    if (rec.blocks_run() == 0)
      vesk::error("%s did not run under %s", p.path.c_str(), em.qemu.c_str());
  }
  parser.finish(p.path);
  r.column = {title, &p, rec.heat(), rec.heat_owner(), rec.proc_counts(), rec.figures()};
  return r;
}

void print_figures(FILE *f, const std::vector<const Run *> &runs, const Machine &m) {
  auto row = [&](const char *what, auto get) {
    std::fprintf(f, "%-44s", what);
    for (const Run *r : runs)
      std::fprintf(f, " %12llu", (unsigned long long)get(r->column.figures));
    if (runs.size() == 2) {
      double x = double(get(runs[0]->column.figures)), y = double(get(runs[1]->column.figures));
      if (x > 0)
        std::fprintf(f, " %9.3f", y / x);
    }
    std::fputc('\n', f);
  };
  std::fprintf(f, "%-44s", "");
  for (const Run *r : runs)
    std::fprintf(f, " %12s", r->column.title.c_str());
  std::fprintf(f, runs.size() == 2 ? " %9s\n" : "\n", "new/old");
  char tlb1[64], tlb2[64], cache[80];
  std::snprintf(tlb1, sizeof tlb1, "TLB misses, %u x 4 KB pages", m.itlb_entries);
  std::snprintf(tlb2, sizeof tlb2, "TLB misses, %u x 8 KB page pairs", m.jtlb_entries);
  std::snprintf(cache, sizeof cache, "I-cache misses, %u KB direct-mapped, %u B lines", m.icache_bytes / 1024,
                m.line_bytes);
  row("executed instructions in .text", [](const Figures &x) { return x.instructions; });
  row("4 KB pages of .text touched", [](const Figures &x) { return x.pages; });
  row("ideal: executed procedures packed", [](const Figures &x) { return x.ideal_pages; });
  row(tlb1, [](const Figures &x) { return x.itlb_misses; });
  row(tlb2, [](const Figures &x) { return x.jtlb_misses; });
  row(cache, [](const Figures &x) { return x.icache_misses; });
}

// Ends this process as the traced program ended.
[[noreturn]] void pass_status(int status) {
  std::fflush(stdout);
  std::fflush(stderr);
  if (WIFSIGNALED(status)) {
    int sig = WTERMSIG(status);
    signal(sig, SIG_DFL);
    raise(sig);
    std::_Exit(128 + sig);
  }
  std::exit(WIFEXITED(status) ? WEXITSTATUS(status) : 1);
}

int profile(const Args &a) {
  if (a.command.empty() || a.output.empty())
    usage();
  const std::string &exe = a.command[0];
  if (same_file(exe, a.output) || exe == a.output)
    vesk::error("the feedback file %s would overwrite the executable", a.output.c_str());
  Program p = load_program(exe);
  Recorder rec(p, a.machine);
  // The window is the reach of the simulated TLB of 4 KB pages.
  if (a.order == Order::temporal)
    rec.track_affinity(uint64_t(a.machine.itlb_entries) * 4096);
  Run r = trace_run(a, p, "run", {a.command.begin() + 1, a.command.end()}, 0, 1, &rec);
  std::vector<ProcCount> &counts = r.column.counts;
  std::vector<int> order;
  const char *how = "hot";
  switch (a.order) {
  case Order::hot:
    order = hot_order(p, counts);
    break;
  case Order::c3:
    order = c3_order(p, counts, rec.calls(), a.cluster_size ? a.cluster_size : 4096);
    how = "c3";
    break;
  case Order::temporal:
    // Two pages: measured on the bench, where one page let too few
    // procedures share and longer chains set hot code apart again.
    order = temporal_order(p, counts, rec.affinity(), a.cluster_size ? a.cluster_size : 8192);
    how = "temporal";
    break;
  }
  write_file_atomically(a.output, feedback_text(p, counts, order, how));
  if (!a.heatmap.empty())
    write_file_atomically(a.heatmap, heatmap_svg({r.column}));
  if (a.figures)
    print_figures(stderr, {&r}, a.machine);
  pass_status(r.status);
}

// A file that can be read from its start again: standard input itself when
// it can be rewound, else a copy of it.
int rewindable_stdin() {
  if (lseek(0, 0, SEEK_CUR) >= 0 || isatty(0))
    return 0;
  FILE *copy = std::tmpfile();
  if (copy == nullptr)
    vesk::sysfatal("cannot keep a copy of standard input");
  std::vector<char> buf(1 << 16);
  for (;;) {
    ssize_t n = read(0, buf.data(), buf.size());
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0)
      vesk::sysfatal("cannot read standard input");
    if (n == 0)
      break;
    if (std::fwrite(buf.data(), 1, size_t(n), copy) != size_t(n))
      vesk::sysfatal("cannot keep a copy of standard input");
  }
  std::fflush(copy);
  return fileno(copy);
}

std::string contents(FILE *f) {
  std::string s;
  std::rewind(f);
  std::vector<char> buf(1 << 16);
  size_t n;
  while ((n = std::fread(buf.data(), 1, buf.size(), f)) > 0)
    s.append(buf.data(), n);
  return s;
}

int compare(const Args &a) {
  if (a.compare.size() != 2 || !a.output.empty())
    usage();
  Program old_p = load_program(a.compare[0]);
  Program new_p = load_program(a.compare[1]);
  if (old_p.abi != new_p.abi)
    vesk::error("%s is %s and %s is %s", old_p.path.c_str(), old_p.abi.c_str(), new_p.path.c_str(),
                new_p.abi.c_str());
  int in = rewindable_stdin();
  off_t start = in == 0 && !isatty(0) ? lseek(0, 0, SEEK_CUR) : 0;
  std::vector<Run> runs;
  std::vector<std::string> outputs;
  const char *titles[2] = {"original", "reordered"};
  const Program *progs[2] = {&old_p, &new_p};
  for (int k = 0; k < 2; ++k) {
    if (!isatty(in) && lseek(in, start, SEEK_SET) < 0)
      vesk::sysfatal("cannot rewind standard input");
    FILE *out = std::tmpfile();
    if (out == nullptr)
      vesk::sysfatal("cannot keep the output of %s", progs[k]->path.c_str());
    std::fprintf(stderr, "vesk-profile: running %s (%s)\n", progs[k]->path.c_str(), titles[k]);
    runs.push_back(trace_run(a, *progs[k], titles[k], a.command, in, fileno(out)));
    outputs.push_back(contents(out));
    std::fclose(out);
  }
  print_figures(stdout, {&runs[0], &runs[1]}, a.machine);
  bool same = outputs[0] == outputs[1] && runs[0].status == runs[1].status;
  std::printf("%-44s %12d %12d\n", "exit status", WIFEXITED(runs[0].status) ? WEXITSTATUS(runs[0].status) : -1,
              WIFEXITED(runs[1].status) ? WEXITSTATUS(runs[1].status) : -1);
  std::printf("%-44s %s (%zu bytes)\n", "standard output", outputs[0] == outputs[1] ? "identical" : "DIFFERENT",
              outputs[0].size());
  if (!a.heatmap.empty())
    write_file_atomically(a.heatmap, heatmap_svg({runs[0].column, runs[1].column}));
  if (!same)
    vesk::error("the two runs differ in their output or exit status");
  return 0;
}

} // namespace

int main(int argc, char **argv) {
  try {
    Args a = parse(argc, argv);
    return a.compare.empty() ? profile(a) : compare(a);
  } catch (const vesk::Fatal &) {
    return 1;
  }
}
