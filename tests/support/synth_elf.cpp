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

  std::string names(1, '\0');
  std::vector<Elf_Scn *> scns;
  auto section = [&](const SynthSection &s, const void *buf, size_t size) {
    Elf_Scn *scn = elf_newscn(e);
    GElf_Shdr sh;
    gelf_getshdr(scn, &sh);
    sh.sh_name = names.size();
    names += s.name + '\0';
    sh.sh_type = s.type;
    sh.sh_flags = s.flags;
    sh.sh_addr = s.addr;
    sh.sh_link = s.link;
    sh.sh_info = s.info;
    sh.sh_addralign = s.align;
    sh.sh_entsize = s.entsize;
    gelf_update_shdr(scn, &sh);
    Elf_Data *d = elf_newdata(scn);
    d->d_type = s.dtype;
    d->d_align = s.align ? s.align : 1;
    d->d_version = EV_CURRENT;
    d->d_buf = const_cast<void *>(buf);
    d->d_size = size;
    scns.push_back(scn);
  };
  for (const auto &s : sections)
    section(s, s.data.data(), s.data.size());
  SynthSection strtab{.name = ".shstrtab", .type = SHT_STRTAB, .align = 1};
  section(strtab, nullptr, 0);
  Elf_Data *sd = elf_getdata(scns.back(), nullptr); // names is complete now
  sd->d_buf = names.data();
  sd->d_size = names.size();

  GElf_Ehdr eh;
  gelf_getehdr(e, &eh);
  eh.e_ident[EI_DATA] = ELFDATA2MSB;
  eh.e_ident[EI_VERSION] = EV_CURRENT;
  eh.e_type = ET_EXEC;
  eh.e_machine = EM_MIPS;
  eh.e_version = EV_CURRENT;
  eh.e_entry = entry;
  eh.e_flags = 0x1000;
  eh.e_shstrndx = elf_ndxscn(scns.back());
  gelf_update_ehdr(e, &eh);
  check(elf_update(e, ELF_C_WRITE) >= 0, "write");
  elf_end(e);
  close(fd);
  return path;
}

} // namespace vesk::test
