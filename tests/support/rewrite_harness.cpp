#include "support/rewrite_harness.h"

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <gelf.h>
#include <set>
#include <stdexcept>
#include <unistd.h>

#include "com/elf.h"
#include "support/step.h"
#include "vesk/bin.h"
#include "vesk/bytes.h"
#include "vesk/driver.h"
#include "vesk/options.h"
#include "vesk/reader.h"

namespace vesk::test {

void load_input(const std::string &path, const std::string &output) {
  static std::string program, out; // option keeps pointers to them
  fresh_run();
  program = path;
  out = output;
  option.program = program.c_str();
  option.output = out.c_str();
  bin.in_fd = open(path.c_str(), O_RDONLY);
  elf_version(EV_CURRENT);
  bin.in_elf = elf_begin(bin.in_fd, ELF_C_READ, nullptr);
  if (Elf64_Ehdr *h = elf64_getehdr(bin.in_elf)) {
    in_ehdr = h;
  } else if (Elf32_Ehdr *h32 = elf32_getehdr(bin.in_elf)) {
    bin.is_elf32 = 1;
    in_ehdr = copy_elf_header_to64(h32);
  } else {
    throw std::runtime_error("not an ELF file: " + path);
  }
  elf_errno();
  bin.is_n32 = (in_ehdr->e_flags & EF_MIPS_ABI2) ? 1 : 0;
  bin.pic_kind = (in_ehdr->e_flags & EF_MIPS_PIC) ? 0 : (in_ehdr->e_flags & EF_MIPS_CPIC) ? 1 : 2;
  bin.entry = in_ehdr->e_entry;
  bin.exec_lo = bin.stubs_lo = ~uint64_t(0);

  size_t shstrndx;
  elf_getshdrstrndx(bin.in_elf, &shstrndx);
  for (Elf_Scn *scn = elf_nextscn(bin.in_elf, nullptr); scn; scn = elf_nextscn(bin.in_elf, scn)) {
    GElf_Shdr sh;
    gelf_getshdr(scn, &sh);
    std::string n = elf_strptr(bin.in_elf, shstrndx, sh.sh_name);
    Elf_Data *d = elf_getdata(scn, nullptr);
    auto *bytes = static_cast<const uint8_t *>(d->d_buf);
    if (sh.sh_flags & SHF_EXECINSTR) {
      bin.exec_lo = std::min<uint64_t>(bin.exec_lo, sh.sh_addr);
      bin.exec_hi = std::max<uint64_t>(bin.exec_hi, sh.sh_addr + sh.sh_size);
    }
    if (n == ".text") {
      bin.text_lo = sh.sh_addr;
      bin.text_hi = sh.sh_addr + sh.sh_size;
      bin.text_words = uint32_t(sh.sh_size / 4);
      bin.text_buf = bytes;
    } else if (n == ".MIPS.stubs") {
      bin.stubs_lo = sh.sh_addr;
    } else if (n == ".dynamic") {
      GElf_Dyn dyn;
      for (int i = 0; gelf_getdyn(d, i, &dyn); ++i) {
        uint32_t v = uint32_t(dyn.d_un.d_val);
        switch (dyn.d_tag) {
        case DT_PLTGOT: bin.pltgot = v; break;
        case DT_STRTAB: bin.strtab_addr = v; break;
        case DT_MIPS_TIME_STAMP: bin.time_stamp = v; break;
        case DT_MIPS_LOCAL_GOTNO: bin.local_gotno = v; break;
        case DT_MIPS_GOTSYM: bin.gotsym = v; break;
        default: break;
        }
      }
    } else if (n == ".reginfo") {
      bin.gp_value = load32(bytes + 20);
    } else if (n == ".MIPS.options" && d->d_size >= 40 && bytes[0] == 1) {
      bin.gp_value = load32(bytes + 36);
    } else if (n == ".got") {
      bin.got_buf = bytes;
      bin.got_count = uint32_t(d->d_size / 4);
    } else if (n == ".dynsym") {
      bin.dynsym_buf = d->d_buf;
    }
  }
  bin.stubs_lo = std::min(bin.stubs_lo, bin.text_lo);

  bin.out_fd = open(option.output, O_WRONLY | O_CREAT | O_TRUNC, 0755);
  bin_copy(bin.in_fd, bin.out_fd);
  bin.text_map = static_cast<uint64_t *>(std::calloc(bin.text_words + 1, sizeof(uint64_t)));
  duplicate_elf();
}

void finish_output() {
  write_it();
  close(bin.out_fd);
}

std::vector<TextBlock> text_blocks() {
  std::set<uint64_t> cuts{bin.text_lo, bin.text_hi};
  for (Elf_Scn *scn = elf_nextscn(bin.in_elf, nullptr); scn; scn = elf_nextscn(bin.in_elf, scn)) {
    GElf_Shdr sh;
    gelf_getshdr(scn, &sh);
    Elf_Data *d = sh.sh_type == SHT_SYMTAB ? elf_getdata(scn, nullptr) : nullptr;
    GElf_Sym s;
    for (int i = 0; d && gelf_getsym(d, i, &s); ++i) {
      int type = GELF_ST_TYPE(s.st_info);
      const char *name = elf_strptr(bin.in_elf, sh.sh_link, s.st_name);
      if ((type != STT_FUNC && type != STT_NOTYPE) || !name || !*name || name[0] == '$' || !in_text(s.st_value))
        continue;
      cuts.insert(s.st_value & ~uint64_t(3));
      if (s.st_size && in_text(s.st_value + s.st_size))
        cuts.insert((s.st_value + s.st_size + 3) & ~uint64_t(3));
    }
  }
  std::vector<TextBlock> blocks;
  for (auto it = cuts.begin(); std::next(it) != cuts.end(); ++it)
    blocks.push_back({*it, *std::next(it) - *it});
  return blocks;
}

void lay_out(const std::vector<TextBlock> &order) {
  bin.new_text_fill = 0;
  for (const TextBlock &b : order) {
    uint64_t first = (b.addr - bin.text_lo) / 4;
    for (uint64_t k = 0; k < b.size / 4; ++k) {
      set_word_at(bin.new_text, bin.new_text_fill, word_at(bin.text_buf, first + k));
      bin.text_map[first + k] = bin.text_lo + 4 * uint64_t(bin.new_text_fill++);
    }
  }
  if (bin.new_text_fill != bin.text_words)
    throw std::runtime_error("the layout does not cover .text exactly once");
}

} // namespace vesk::test
