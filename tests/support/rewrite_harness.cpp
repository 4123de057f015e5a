#include "support/rewrite_harness.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gelf.h>
#include <set>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

#include "base/bin.h"
#include "base/diag.h"
#include "base/bytes.h"
#include "com/elf.h"
#include "support/run.h"
#include "support/synth_elf.h"
#include "vesk/driver.h"
#include "vesk/options.h"
#include "vesk/reader.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#define VESK_LSAN_DISABLE() __lsan_disable()
#define VESK_LSAN_ENABLE() __lsan_enable()
#else
#define VESK_LSAN_DISABLE() (void)0
#define VESK_LSAN_ENABLE() (void)0
#endif

namespace vesk::test {

RewriteTest::RewriteTest() { VESK_LSAN_DISABLE(); }
RewriteTest::~RewriteTest() { VESK_LSAN_ENABLE(); }

const char *abi_name(Abi abi) {
  switch (abi) {
  case Abi::o32: return "o32";
  case Abi::n32: return "n32";
  case Abi::n64: return "n64";
  }
  return "?";
}

namespace {

std::vector<std::string> compiler(Abi abi) {
  switch (abi) {
  case Abi::o32: return {"mips-linux-gnu-gcc"};
  case Abi::n32: return {"mips64-linux-gnuabi64-gcc", "-mabi=n32"};
  case Abi::n64: return {"mips64-linux-gnuabi64-gcc"};
  }
  return {};
}

bool have_program(const std::string &name) {
  return run_command({"sh", "-c", "command -v " + name + " >/dev/null"}).status == 0;
}

std::string cache_dir() {
  std::string d = VESK_BENCH_DIR;
  d = d.substr(0, d.find_last_of('/')) + "/rewrite-programs";
  mkdir(d.c_str(), 0755);
  return d;
}

[[noreturn]] void fail(const std::string &what) { throw std::runtime_error("rewrite harness: " + what); }

} // namespace

std::string cross_compile(Abi abi, const std::string &source, const std::vector<std::string> &flags) {
  std::vector<std::string> cmd = compiler(abi);
  if (!have_program(cmd[0]))
    return "";
  std::string key = std::string(abi_name(abi)) + "\n" + source;
  for (const auto &f : flags)
    key += "\n" + f;
  char hex[32];
  std::snprintf(hex, sizeof hex, "%016zx", std::hash<std::string>{}(key));
  std::string exe = cache_dir() + "/" + abi_name(abi) + "-" + hex;
  struct stat st;
  if (stat(exe.c_str(), &st) == 0)
    return exe;
  std::string src = temp_path("prog.c");
  write_file(src, source);
  std::string tmp = temp_path("prog");
  cmd.insert(cmd.end(), flags.begin(), flags.end());
  cmd.insert(cmd.end(), {src, "-o", tmp});
  RunResult r = run_command(cmd);
  unlink(src.c_str());
  if (r.status != 0)
    fail("compiling for " + std::string(abi_name(abi)) + " failed: " + r.err);
  // Another test process may build the same program at the same time.
  if (rename(tmp.c_str(), exe.c_str()) != 0)
    fail("cannot store " + exe);
  return exe;
}

std::vector<std::string> qemu_command(Abi abi) {
  std::vector<std::string> q;
  switch (abi) {
  case Abi::o32: q = {"qemu-mips", "-L", "/usr/mips-linux-gnu"}; break;
  case Abi::n32: q = {"qemu-mipsn32", "-L", "/usr/mips64-linux-gnuabi64"}; break;
  case Abi::n64: q = {"qemu-mips64", "-L", "/usr/mips64-linux-gnuabi64"}; break;
  }
  if (!have_program(q[0]))
    return {};
  return q;
}

void load_input(const std::string &path, const std::string &output) {
  static std::string program, out; // option keeps pointers to them
  program = path;
  out = output;
  bin = Bin{};
  option = Options{};
  option.program = program.c_str();
  option.output = out.c_str();

  try {
    read_input();
  } catch (const Fatal &) {
    fail("the input reader refuses " + path);
  }
}

void begin_output() {
  bin.out_fd = open(option.output, O_WRONLY | O_CREAT | O_TRUNC, 0755);
  if (bin.out_fd < 1)
    fail(std::string("cannot create ") + option.output);
  bin_copy(bin.in_fd, bin.out_fd);
  bin.text_map = static_cast<uint64_t *>(std::calloc(bin.text_words + 1, sizeof(uint64_t)));
  duplicate_elf();
}

void finish_output() {
  write_it();
  elf_end(bin.in_elf);
  bin.in_elf = nullptr;
  close(bin.in_fd);
  close(bin.out_fd);
}

std::vector<TextBlock> text_blocks() {
  std::set<uint64_t> cuts{bin.text_lo, bin.text_hi};
  std::vector<std::pair<uint64_t, std::string>> names;
  for (Elf_Scn *scn = elf_nextscn(bin.in_elf, nullptr); scn; scn = elf_nextscn(bin.in_elf, scn)) {
    GElf_Shdr sh;
    gelf_getshdr(scn, &sh);
    if (sh.sh_type != SHT_SYMTAB)
      continue;
    Elf_Data *d = elf_getdata(scn, nullptr);
    size_t n = sh.sh_entsize ? sh.sh_size / sh.sh_entsize : 0;
    for (size_t i = 0; i < n; ++i) {
      GElf_Sym s;
      gelf_getsym(d, int(i), &s);
      int type = GELF_ST_TYPE(s.st_info);
      const char *name = elf_strptr(bin.in_elf, sh.sh_link, s.st_name);
      if ((type != STT_FUNC && type != STT_NOTYPE) || !name || !*name || name[0] == '$' || !in_text(s.st_value))
        continue;
      cuts.insert(s.st_value & ~uint64_t(3));
      if (s.st_size && in_text(s.st_value + s.st_size))
        cuts.insert((s.st_value + s.st_size + 3) & ~uint64_t(3));
      names.push_back({s.st_value, name});
    }
  }
  std::vector<TextBlock> blocks;
  for (auto it = cuts.begin(); std::next(it) != cuts.end(); ++it) {
    TextBlock b{*it, *std::next(it) - *it, ""};
    for (const auto &[a, n] : names)
      if (a == b.addr && (b.name.empty() || n.size() < b.name.size() || n[0] != '_'))
        b.name = n;
    blocks.push_back(b);
  }
  return blocks;
}

void lay_out(const std::vector<TextBlock> &order) {
  uint64_t covered = 0;
  bin.new_text_fill = 0;
  for (const TextBlock &b : order) {
    uint64_t first = (b.addr - bin.text_lo) / 4;
    for (uint64_t k = 0; k < b.size / 4; ++k) {
      set_word_at(bin.new_text, bin.new_text_fill, word_at(bin.text_buf, first + k));
      bin.text_map[first + k] = bin.text_lo + 4 * uint64_t(bin.new_text_fill);
      ++bin.new_text_fill;
    }
    covered += b.size / 4;
  }
  if (covered != bin.text_words)
    fail("the layout does not cover .text exactly once");
}

void lay_out_unchanged() {
  for (uint32_t k = 0; k < bin.text_words; ++k)
    bin.text_map[k] = bin.text_lo + 4 * uint64_t(k);
  bin.new_text_fill = bin.text_words;
}

std::vector<uint8_t> file_bytes(const std::string &path) {
  std::string s = read_file(path);
  return std::vector<uint8_t>(s.begin(), s.end());
}

} // namespace vesk::test
