#include "support/bench.h"

#include <fstream>
#include <sstream>

namespace vesk::test {

std::string bench_dir() { return VESK_BENCH_DIR; }

static std::vector<std::string> qemu_for(const std::string &abi) {
  if (abi == "o32")
    return {"qemu-mips", "-L", "/usr/mips-linux-gnu"};
  if (abi == "n32")
    return {"qemu-mipsn32", "-L", "/usr/mips64-linux-gnuabi64"};
  return {"qemu-mips64", "-L", "/usr/mips64-linux-gnuabi64"};
}

std::vector<BenchExe> load_manifest(const std::string &dir) {
  std::vector<BenchExe> list;
  std::ifstream in(dir + "/manifest.tsv");
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    BenchExe e;
    std::string expl = "yes";
    if (!std::getline(fields, e.path, '\t') || !std::getline(fields, e.program, '\t') ||
        !std::getline(fields, e.abi, '\t') || !std::getline(fields, e.debug, '\t') ||
        !std::getline(fields, e.model, '\t'))
      continue;
    std::getline(fields, expl);
    e.name = e.path.substr(e.path.rfind('/') + 1);
    e.explicit_relocs = expl == "yes";
    e.qemu = qemu_for(e.abi);
    if (std::ifstream(e.path + ".expected"))
      e.expected = read_file(e.path + ".expected");
    list.push_back(std::move(e));
  }
  return list;
}

const std::vector<BenchExe> &bench_executables() {
  static const std::vector<BenchExe> list = load_manifest(bench_dir());
  return list;
}

RunResult run_bench(const BenchExe &e, const std::string &exe_path) {
  std::vector<std::string> argv = e.qemu;
  argv.push_back(exe_path);
  return run_command(argv, "", 60);
}

const BenchExe *find_bench(const std::string &program, const std::string &abi,
                           const std::string &debug, const std::string &model,
                           bool explicit_relocs) {
  for (const auto &e : bench_executables())
    if ((program.empty() || e.program == program) && (abi.empty() || e.abi == abi) &&
        (debug.empty() || e.debug == debug) && (model.empty() || e.model == model) &&
        e.explicit_relocs == explicit_relocs)
      return &e;
  return nullptr;
}

} // namespace vesk::test
