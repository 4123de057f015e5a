#include "support/o32_programs.h"

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <gelf.h>
#include <stdexcept>
#include <unistd.h>

#include "base/bytes.h"
#include "support/elf_file.h"
#include "support/synth_elf.h"

namespace vesk::test {

bool have_o32_toolchain() {
  static bool ok = run_command({"mips-linux-gnu-gcc", "--version"}).status == 0 &&
                   run_command({"qemu-mips", "-version"}).status == 0;
  return ok;
}

O32Build::O32Build() {
  std::string t = temp_path("o32") + "-XXXXXX";
  if (mkdtemp(t.data()) == nullptr)
    throw std::runtime_error("mkdtemp");
  dir_ = t;
}

O32Build::~O32Build() {
  std::error_code ec;
  std::filesystem::remove_all(dir_, ec);
}

std::string O32Build::compile(const std::string &stem, const std::string &src, const std::vector<std::string> &flags,
                              bool keep_relocs) {
  std::string c = dir_ + "/" + stem + ".c", exe = dir_ + "/" + stem;
  write_file(c, src);
  std::vector<std::string> argv = {"mips-linux-gnu-gcc", "-O2"};
  if (keep_relocs)
    argv.push_back("-Wl,-q");
  argv.insert(argv.end(), flags.begin(), flags.end());
  argv.insert(argv.end(), {c, "-o", exe});
  RunResult r = run_command(argv);
  if (r.status != 0)
    throw std::runtime_error("compiling " + stem + ": " + r.err);
  return exe;
}

std::string annotate_binary() {
  std::string v = VESK_BINARY;
  return v.substr(0, v.rfind('/') + 1) + "vesk-annotate";
}

RunResult run_o32(const std::string &exe, const std::vector<std::string> &args) {
  std::vector<std::string> argv = {"qemu-mips", "-L", "/usr/mips-linux-gnu", exe};
  argv.insert(argv.end(), args.begin(), args.end());
  return run_command(argv, "", 60);
}

std::vector<CompactRelEntry> compact_rel_entries(const std::string &exe) {
  std::vector<CompactRelEntry> out;
  std::vector<uint8_t> v = ElfFile(exe).contents(".compact_rel");
  const uint8_t *p = v.data();
  CompactRelCursor cm{};
  size_t off = 0;
  for (; off + 8 <= v.size(); off += 8) { // header pairs up to (0, 0); pair 1 holds the count
    if (load32(p + off) == 1)
      cm.rlc_no = load32(p + off + 4);
    if (load32(p + off) == 0)
      break;
  }
  if (v.empty())
    return out;
  cm.rlc_ptr = p + off + 8;
  cm.end = p + v.size();
  cm_rlc_reset(&cm);
  CompactRelEntry entry;
  while (cm_rlc_get(&cm, &entry))
    out.push_back(entry);
  return out;
}

uint32_t symbol_value(const std::string &exe, const std::string &name) {
  return uint32_t(ElfFile(exe).symbol_value(name));
}

uint32_t gp_value(const std::string &exe) {
  std::vector<uint8_t> v = ElfFile(exe).contents(".reginfo");
  return v.size() >= 24 ? load32(v.data() + 20) : 0;
}

std::string last_section_in_file(const std::string &exe) {
  std::string best;
  uint64_t best_end = 0;
  for (const auto &[name, range] : ElfFile(exe).sections())
    if (range.second > range.first && range.second >= best_end) {
      best_end = range.second;
      best = name;
    }
  return best;
}

} // namespace vesk::test
