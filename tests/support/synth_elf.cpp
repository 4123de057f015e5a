#include "support/synth_elf.h"

#include <fcntl.h>
#include <stdexcept>
#include <unistd.h>

namespace vesk::test {

void put32(std::vector<uint8_t> &v, uint32_t x) {
  for (int shift = 24; shift >= 0; shift -= 8)
    v.push_back(uint8_t(x >> shift));
}
void put64(std::vector<uint8_t> &v, uint64_t x) { put32(v, uint32_t(x >> 32)); put32(v, uint32_t(x)); }

SynthSection text_section(uint64_t addr, const std::vector<uint32_t> &words) {
  SynthSection s{.name = ".text", .flags = SHF_ALLOC | SHF_EXECINSTR, .addr = addr, .align = 16};
  for (uint32_t w : words)
    put32(s.data, w);
  return s;
}

std::string SynthElf::write(const std::string &path) const {
  auto check = [](bool ok, const char *what) {
    if (!ok)
      throw std::runtime_error(std::string("synthetic ELF: ") + what + ": " + elf_errmsg(-1));
  };
  elf_version(EV_CURRENT);
  int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0755);
  check(fd >= 0, "open");
  Elf *e = elf_begin(fd, ELF_C_WRITE, nullptr);
  check(e && gelf_newehdr(e, is64 ? ELFCLASS64 : ELFCLASS32), "header");

  // Section 0 and the name table around the given sections; libelf reads
  // the contents when the file is written.
  std::vector<SynthSection> all = sections;
  all.push_back({.name = ".shstrtab", .type = SHT_STRTAB, .align = 1});
  std::string names(1, '\0');
  std::vector<size_t> name_at;
  for (const SynthSection &s : all)
    name_at.push_back(names.size()), names += s.name + '\0';
  all.back().data.assign(names.begin(), names.end());
  for (size_t i = 0; i < all.size(); ++i) {
    const SynthSection &s = all[i];
    Elf_Scn *scn = elf_newscn(e);
    GElf_Shdr sh{};
    sh.sh_name = name_at[i];
    sh.sh_type = s.type;
    sh.sh_flags = s.flags;
    sh.sh_addr = s.addr;
    sh.sh_link = s.link;
    sh.sh_addralign = s.align;
    sh.sh_entsize = s.entsize;
    gelf_update_shdr(scn, &sh);
    Elf_Data *d = elf_newdata(scn);
    d->d_type = s.dtype;
    d->d_align = s.align ? s.align : 1;
    d->d_version = EV_CURRENT;
    d->d_buf = const_cast<uint8_t *>(s.data.data());
    d->d_size = s.data.size();
  }

  GElf_Ehdr eh;
  gelf_getehdr(e, &eh);
  eh.e_ident[EI_DATA] = ELFDATA2MSB;
  eh.e_ident[EI_VERSION] = EV_CURRENT;
  eh.e_type = ET_EXEC;
  eh.e_machine = EM_MIPS;
  eh.e_version = EV_CURRENT;
  eh.e_entry = entry;
  eh.e_flags = 0x1000;
  eh.e_shstrndx = all.size();
  gelf_update_ehdr(e, &eh);
  check(elf_update(e, ELF_C_WRITE) >= 0, "write");
  elf_end(e);
  close(fd);
  return path;
}

} // namespace vesk::test
