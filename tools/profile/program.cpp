#include "tools/profile/program.h"

#include <algorithm>
#include <cstring>
#include <gelf.h>
#include <unistd.h>

#include "base/bin.h"
#include "base/diag.h"
#include "base/options.h"
#include "com/reader.h"

namespace vesk::profile {

namespace {

bool one_word(const char *s) {
  if (s == nullptr || *s == '\0')
    return false;
  for (; *s != '\0'; ++s)
    if (*s == ' ' || *s == '\t' || *s == '\n' || *s == '\r' || *s == '\v' || *s == '\f')
      return false;
  return true;
}

// The reader fills the run records; they are reset around it so that
// several executables can be read in one process.
struct ReaderRun {
  explicit ReaderRun(const char *path) {
    bin = Bin{};
    option = Options{};
    option.program = path;
  }
  ~ReaderRun() { end_run(); }
  ReaderRun(const ReaderRun &) = delete;
  ReaderRun &operator=(const ReaderRun &) = delete;
};

} // namespace

Program load_program(const std::string &path) {
  Program p;
  p.path = path;
  ReaderRun run(p.path.c_str());
  read_orig_binary();
  p.abi = bin.is_elf32 == 0 ? "n64" : bin.is_n32 ? "n32" : "o32";
  p.pie = bin.in_ehdr.e_type == ET_DYN;
  p.text_lo = bin.text_lo;
  p.text_hi = bin.text_hi;
  size_t nph = 0;
  if (elf_getphdrnum(bin.in_elf, &nph) != 0)
    error("%s: cannot read its program headers", path.c_str());
  bool any = false;
  for (size_t i = 0; i < nph; ++i) {
    GElf_Phdr ph;
    if (gelf_getphdr(bin.in_elf, int(i), &ph) == nullptr)
      error("%s: cannot read its program headers", path.c_str());
    if (ph.p_type == PT_LOAD && (!any || ph.p_vaddr < p.first_load)) {
      p.first_load = ph.p_vaddr;
      any = true;
    }
  }
  if (!any)
    error("%s has no loadable segment", path.c_str());
  p.first_load &= ~uint64_t(0xfff);
  for (const Proc &r : bin.procs.records) {
    ProcInfo info;
    info.name = r.name ? r.name : "";
    info.file = r.file_name ? r.file_name : "";
    info.addr = r.old_addr;
    info.size = r.size;
    info.nameable = one_word(r.name) && one_word(r.file_name) && std::strcmp(r.name, ".libstub") != 0;
    p.procs.push_back(std::move(info));
  }
  std::stable_sort(p.procs.begin(), p.procs.end(),
                   [](const ProcInfo &a, const ProcInfo &b) { return a.addr < b.addr; });
  uint64_t end = 0;
  for (const ProcInfo &r : p.procs) {
    end = std::max(end, r.addr + r.size);
    p.max_end.push_back(end);
  }
  return p;
}

int Program::proc_at(uint64_t addr) const {
  auto it = std::upper_bound(procs.begin(), procs.end(), addr,
                             [](uint64_t a, const ProcInfo &r) { return a < r.addr; });
  for (size_t i = size_t(it - procs.begin()); i-- > 0 && max_end[i] > addr;)
    if (addr < procs[i].addr + procs[i].size)
      return int(i);
  return -1;
}

} // namespace vesk::profile
