// A whole run of vesk on an executable: reading, the description of its
// code addresses, discovery, a layout that moves every procedure (the
// procedures in reverse), and every repair of the output, the DWARF and
// unwind tables included.  The output goes to a file in memory.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "vesk/driver.h"

namespace {

// A feedback file naming no procedure: vesk lays the procedures out in
// the order of its table, which moves code in most executables.
const char kFeedback[] = "$magic 1\n$version 2\n$start\n";

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  vesk::fuzz::MemFile program(data, size);
  vesk::fuzz::MemFile feedback(reinterpret_cast<const uint8_t *>(kFeedback), sizeof kFeedback - 1);
  static const std::string out = [] {
    const char *dir = std::getenv("TMPDIR");
    return std::string(dir ? dir : "/tmp") + "/vesk-fuzz-rewrite-" + std::to_string(getpid());
  }();
  std::vector<std::string> args{"vesk", program.path(), feedback.path(), "-o", out};
  std::vector<char *> argv;
  for (std::string &a : args)
    argv.push_back(a.data());
  argv.push_back(nullptr);
  // Messages go to the run's standard streams; a refusal is a clean end.
  vesk::vesk_main(int(args.size()), argv.data());
  std::remove(out.c_str());
  return 0;
}
