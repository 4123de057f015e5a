#include "support/synth_elf.h"

#include <atomic>
#include <cstdlib>
#include <fcntl.h>
#include <stdexcept>
#include <unistd.h>

#include "base/bytes.h"

namespace vesk::test {

void put32(std::vector<uint8_t> &v, uint32_t x) {
  for (int shift = 24; shift >= 0; shift -= 8)
    v.push_back(uint8_t(x >> shift));
}
void put64(std::vector<uint8_t> &v, uint64_t x) { put32(v, uint32_t(x >> 32)); put32(v, uint32_t(x)); }

SynthSection text_section(uint64_t addr, const std::vector<uint32_t> &words) {
  SynthSection s;
  s.name = ".text";
  s.flags = SHF_ALLOC | SHF_EXECINSTR;
  s.addr = addr;
  for (uint32_t w : words)
    put32(s.data, w);
  s.align = 16;
  return s;
}

std::string temp_path(const std::string &stem) {
  static std::atomic<int> counter{0};
  const char *dir = std::getenv("TEST_TMPDIR");
  std::string d = dir ? dir : "/tmp";
  return d + "/vesk-" + std::to_string(getpid()) + "-" + std::to_string(counter++) + "-" + stem;
}

namespace {

[[noreturn]] void fail(const char *what) {
  throw std::runtime_error(std::string("synthetic ELF: ") + what + ": " + elf_errmsg(-1));
}

} // namespace

std::string SynthElf::write(const std::string &path) const {
  elf_version(EV_CURRENT);
  int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0755);
  if (fd < 0)
    throw std::runtime_error("cannot create " + path);
  Elf *e = elf_begin(fd, ELF_C_WRITE, nullptr);
  if (!e)
    fail("elf_begin");
  int cls = is64 ? ELFCLASS64 : ELFCLASS32;
  if (!gelf_newehdr(e, cls))
    fail("newehdr");
  GElf_Ehdr eh;
  gelf_getehdr(e, &eh);
  eh.e_ident[EI_DATA] = ELFDATA2MSB;
  eh.e_ident[EI_VERSION] = EV_CURRENT;
  eh.e_type = ET_EXEC;
  eh.e_machine = EM_MIPS;
  eh.e_version = EV_CURRENT;
  eh.e_entry = entry;
  eh.e_flags = e_flags;
  gelf_update_ehdr(e, &eh);
  if (!phdrs.empty() && !gelf_newphdr(e, phdrs.size()))
    fail("newphdr");

  // Section names: index 0 of the table is the empty name.
  std::string names(1, '\0');
  std::vector<size_t> name_off;
  for (const auto &s : sections) {
    name_off.push_back(names.size());
    names += s.name;
    names += '\0';
  }
  size_t shstr_name = names.size();
  names += ".shstrtab";
  names += '\0';

  std::vector<Elf_Scn *> scns;
  for (size_t i = 0; i < sections.size(); ++i) {
    const auto &s = sections[i];
    Elf_Scn *scn = elf_newscn(e);
    scns.push_back(scn);
    GElf_Shdr sh;
    gelf_getshdr(scn, &sh);
    sh.sh_name = name_off[i];
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
    if (s.type == SHT_NOBITS) {
      d->d_buf = nullptr;
      d->d_size = s.nobits_size;
    } else {
      d->d_buf = const_cast<uint8_t *>(s.data.data());
      d->d_size = s.data.size();
    }
  }
  Elf_Scn *str = elf_newscn(e);
  GElf_Shdr sh;
  gelf_getshdr(str, &sh);
  sh.sh_name = shstr_name;
  sh.sh_type = SHT_STRTAB;
  sh.sh_addralign = 1;
  gelf_update_shdr(str, &sh);
  Elf_Data *sd = elf_newdata(str);
  sd->d_buf = names.data();
  sd->d_size = names.size();
  sd->d_type = ELF_T_BYTE;
  sd->d_align = 1;
  gelf_getehdr(e, &eh);
  eh.e_shstrndx = elf_ndxscn(str);
  gelf_update_ehdr(e, &eh);

  if (elf_update(e, ELF_C_NULL) < 0)
    fail("layout");
  for (size_t i = 0; i < phdrs.size(); ++i) {
    const auto &p = phdrs[i];
    GElf_Phdr ph{};
    ph.p_type = p.type;
    ph.p_flags = p.flags;
    ph.p_align = 4;
    GElf_Shdr s2;
    gelf_getshdr(scns[p.section], &s2);
    ph.p_offset = s2.sh_offset;
    ph.p_vaddr = ph.p_paddr = s2.sh_addr;
    ph.p_filesz = s2.sh_type == SHT_NOBITS ? 0 : s2.sh_size;
    ph.p_memsz = s2.sh_size;
    gelf_update_phdr(e, int(i), &ph);
  }
  if (elf_update(e, ELF_C_WRITE) < 0)
    fail("write");
  elf_end(e);
  close(fd);
  return path;
}

} // namespace vesk::test
