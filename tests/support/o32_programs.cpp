#include "support/o32_programs.h"

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <gelf.h>
#include <stdexcept>
#include <unistd.h>

#include "support/synth_elf.h"
#include "vesk/bytes.h"

namespace vesk::test {

namespace {

// Calls f with the executable opened by libelf.
template <class F> auto with_elf(const std::string &exe, F f) {
  elf_version(EV_CURRENT);
  int fd = open(exe.c_str(), O_RDONLY);
  if (fd < 0)
    throw std::runtime_error("cannot open " + exe);
  Elf *e = elf_begin(fd, ELF_C_READ, nullptr);
  if (e == nullptr)
    throw std::runtime_error("not ELF: " + exe);
  auto result = f(e);
  elf_end(e);
  close(fd);
  return result;
}

Elf_Scn *section_named(Elf *e, const std::string &name) {
  size_t shstrndx;
  elf_getshdrstrndx(e, &shstrndx);
  for (Elf_Scn *s = elf_nextscn(e, nullptr); s; s = elf_nextscn(e, s)) {
    GElf_Shdr sh;
    gelf_getshdr(s, &sh);
    const char *n = elf_strptr(e, shstrndx, sh.sh_name);
    if (n && name == n)
      return s;
  }
  return nullptr;
}

} // namespace

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
  return with_elf(exe, [](Elf *e) {
    std::vector<CompactRelEntry> out;
    Elf_Scn *s = section_named(e, ".compact_rel");
    if (s == nullptr)
      return out;
    Elf_Data *d = elf_getdata(s, nullptr);
    auto *p = static_cast<const uint8_t *>(d->d_buf);
    CompactRelCursor cm{};
    size_t off = 0;
    for (; off + 8 <= d->d_size; off += 8) {
      if (load32(p + off) == 1)
        cm.rlc_no = load32(p + off + 4);
      if (load32(p + off) == 0)
        break;
    }
    cm.rlc_ptr = p + off + 8;
    cm.end = p + d->d_size;
    cm_rlc_reset(&cm);
    CompactRelEntry entry;
    while (cm_rlc_get(&cm, &entry))
      out.push_back(entry);
    return out;
  });
}

uint32_t symbol_value(const std::string &exe, const std::string &name) {
  return with_elf(exe, [&](Elf *e) {
    Elf_Scn *s = section_named(e, ".symtab");
    if (s == nullptr)
      return uint32_t(0);
    GElf_Shdr sh;
    gelf_getshdr(s, &sh);
    Elf_Data *d = elf_getdata(s, nullptr);
    for (size_t i = 0; i < d->d_size / sh.sh_entsize; ++i) {
      GElf_Sym sym;
      gelf_getsym(d, int(i), &sym);
      const char *n = elf_strptr(e, sh.sh_link, sym.st_name);
      if (n && name == n)
        return uint32_t(sym.st_value);
    }
    return uint32_t(0);
  });
}

uint32_t gp_value(const std::string &exe) {
  return with_elf(exe, [](Elf *e) {
    Elf_Scn *s = section_named(e, ".reginfo");
    if (s == nullptr)
      return uint32_t(0);
    Elf_Data *d = elf_getdata(s, nullptr);
    return d->d_size >= 24 ? load32(static_cast<const uint8_t *>(d->d_buf) + 20) : uint32_t(0);
  });
}

std::string last_section_in_file(const std::string &exe) {
  return with_elf(exe, [](Elf *e) {
    size_t shstrndx;
    elf_getshdrstrndx(e, &shstrndx);
    std::string best;
    uint64_t best_end = 0;
    for (Elf_Scn *s = elf_nextscn(e, nullptr); s; s = elf_nextscn(e, s)) {
      GElf_Shdr sh;
      gelf_getshdr(s, &sh);
      if (sh.sh_type == SHT_NOBITS)
        continue;
      if (sh.sh_offset + sh.sh_size >= best_end) {
        best_end = sh.sh_offset + sh.sh_size;
        best = elf_strptr(e, shstrndx, sh.sh_name);
      }
    }
    return best;
  });
}

} // namespace vesk::test
