// page_ratio: for every o32 executable of the bench, the pages of text that
// the procedures of a real run touch before and after vesk lays them out
// hottest first, and what vesk costs compared with copying the file.
//
//   build/bench/page_ratio [-n RUNS]
//
// Each executable is annotated, run once under qemu with a trace of the
// blocks it executes (the entry counts give the hot-first feedback), and
// laid out by vesk -v, whose "Touched text reduced from %dK to %dK" gives
// the pages.  The time of vesk on the annotated executable and of cp of the
// same file are each the best of RUNS runs (default 5), taken one after the
// other in this one run of the program.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "support/bench.h"

using namespace vesk::test;

namespace {

// The best wall time of runs runs of argv, in milliseconds; -1 when one
// fails.
double best_ms(const std::vector<std::string> &argv, int runs) {
  double best = -1;
  for (int i = 0; i < runs; ++i) {
    auto t0 = std::chrono::steady_clock::now();
    RunResult r = run_command(argv);
    auto t1 = std::chrono::steady_clock::now();
    if (r.status != 0)
      return -1;
    double ms = std::chrono::duration<double, std::milli>(t1 - t0).count();
    if (best < 0 || ms < best)
      best = ms;
  }
  return best;
}

} // namespace

int main(int argc, char **argv) {
  int runs = 5;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "-n") == 0 && i + 1 < argc && std::atoi(argv[i + 1]) > 0) {
      runs = std::atoi(argv[++i]);
    } else {
      std::fprintf(stderr, "usage: page_ratio [-n RUNS]\n");
      return 2;
    }
  }
  if (bench_executables().empty()) {
    std::fprintf(stderr, "page_ratio: no bench of MIPS executables in %s (build the tests first)\n",
                 VESK_BENCH_DIR);
    return 1;
  }

  std::printf("%-40s %6s %6s %6s %9s %7s %8s\n", "executable", "pages", "hot", "ratio", "vesk ms", "cp ms",
              "vesk/cp");
  int failures = 0;
  for (const BenchExe &e : bench_executables()) {
    if (e.abi != "o32")
      continue;
    AnnotatedBench b(e);
    if (!b.ok()) {
      std::printf("%-40s not annotated: %s\n", e.name.c_str(), b.refusal().c_str());
      ++failures;
      continue;
    }
    RunResult traced;
    std::vector<FeedbackLine> hot = hot_first_order(b, e, e.path, {}, &traced);
    const std::string out = b.path("hot");
    RunResult r = b.vesk(b.annotated(), hot, out, {"-v"});
    int total_k = 0, before_k = 0, after_k = 0;
    size_t at = r.out.find("Total text ");
    if (r.status != 0 || at == std::string::npos ||
        std::sscanf(r.out.c_str() + at, "Total text %dK. Touched text reduced from %dK to %dK", &total_k, &before_k,
                    &after_k) != 3) {
      std::printf("%-40s vesk failed: %s\n", e.name.c_str(), r.err.c_str());
      ++failures;
      continue;
    }
    int before = before_k / 4, after = after_k / 4;
    double vesk_ms = best_ms({VESK_BINARY, b.annotated(), out + ".fb", "-o", out}, runs);
    double cp_ms = best_ms({"cp", b.annotated(), b.path("copy")}, runs);
    std::printf("%-40s %6d %6d %6.2f %9.2f %7.2f %8.1f\n", e.name.c_str(), before, after,
                before ? double(after) / before : 0.0, vesk_ms, cp_ms, cp_ms > 0 ? vesk_ms / cp_ms : 0.0);
  }
  return failures ? 1 : 0;
}
