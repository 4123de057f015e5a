#include "support/elf_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "base/bytes.h"
#include "support/rewrite_harness.h"

namespace vesk::test {

ElfFile::ElfFile(const std::string &path) : bytes(file_bytes(path)) {
  elf_version(EV_CURRENT);
  fd_ = open(path.c_str(), O_RDONLY);
  e = fd_ < 0 ? nullptr : elf_begin(fd_, ELF_C_READ, nullptr);
  EXPECT_NE(e, nullptr) << path << " is not an ELF file";
  is64 = e != nullptr && gelf_getclass(e) == ELFCLASS64;
}

ElfFile::~ElfFile() {
  if (e != nullptr)
    elf_end(e);
  if (fd_ >= 0)
    close(fd_);
}

std::vector<std::pair<std::string, std::pair<uint64_t, uint64_t>>> ElfFile::sections() const {
  std::vector<std::pair<std::string, std::pair<uint64_t, uint64_t>>> out;
  size_t shstrndx = 0;
  if (e == nullptr || elf_getshdrstrndx(e, &shstrndx) != 0)
    return out;
  for (Elf_Scn *s = elf_nextscn(e, nullptr); s; s = elf_nextscn(e, s)) {
    GElf_Shdr sh;
    gelf_getshdr(s, &sh);
    const char *n = elf_strptr(e, shstrndx, sh.sh_name);
    out.push_back({n ? n : "", {sh.sh_offset, sh.sh_offset + (sh.sh_type == SHT_NOBITS ? 0 : sh.sh_size)}});
  }
  return out;
}

Elf_Scn *ElfFile::scn(const std::string &name) const {
  size_t shstrndx = 0;
  if (e == nullptr || elf_getshdrstrndx(e, &shstrndx) != 0)
    return nullptr;
  for (Elf_Scn *s = elf_nextscn(e, nullptr); s; s = elf_nextscn(e, s)) {
    GElf_Shdr sh;
    gelf_getshdr(s, &sh);
    const char *n = elf_strptr(e, shstrndx, sh.sh_name);
    if (n != nullptr && name == n)
      return s;
  }
  return nullptr;
}

GElf_Shdr ElfFile::shdr(const std::string &name) const {
  GElf_Shdr sh{};
  if (Elf_Scn *s = scn(name))
    gelf_getshdr(s, &sh);
  return sh;
}

GElf_Ehdr ElfFile::ehdr() const {
  GElf_Ehdr eh{};
  gelf_getehdr(e, &eh);
  return eh;
}

std::vector<uint8_t> ElfFile::contents(const std::string &name) const {
  GElf_Shdr sh = shdr(name);
  if (sh.sh_size == 0 || sh.sh_type == SHT_NOBITS || sh.sh_offset + sh.sh_size > bytes.size())
    return {};
  return std::vector<uint8_t>(bytes.begin() + long(sh.sh_offset), bytes.begin() + long(sh.sh_offset + sh.sh_size));
}

uint64_t ElfFile::offset_of(uint64_t addr) const {
  for (Elf_Scn *s = elf_nextscn(e, nullptr); s; s = elf_nextscn(e, s)) {
    GElf_Shdr sh;
    gelf_getshdr(s, &sh);
    if ((sh.sh_flags & SHF_ALLOC) && sh.sh_type != SHT_NOBITS && addr >= sh.sh_addr && addr < sh.sh_addr + sh.sh_size)
      return sh.sh_offset + (addr - sh.sh_addr);
  }
  return ~uint64_t(0);
}

uint64_t ElfFile::addr_word(uint64_t off) const { return is64 ? load64(&bytes[off]) : load32(&bytes[off]); }

std::vector<GElf_Sym> ElfFile::symbols(const std::string &section) const {
  std::vector<GElf_Sym> v;
  if (Elf_Scn *s = scn(section)) {
    Elf_Data *d = elf_getdata(s, nullptr);
    GElf_Sym sym;
    for (int i = 0; gelf_getsym(d, i, &sym); ++i)
      v.push_back(sym);
  }
  return v;
}

std::vector<GElf_Dyn> ElfFile::dynamic() const {
  std::vector<GElf_Dyn> v;
  if (Elf_Scn *s = scn(".dynamic")) {
    Elf_Data *d = elf_getdata(s, nullptr);
    GElf_Dyn dyn;
    for (int i = 0; gelf_getdyn(d, i, &dyn); ++i)
      v.push_back(dyn);
  }
  return v;
}

std::vector<GElf_Rel> ElfFile::rels(const std::string &section) const {
  std::vector<GElf_Rel> v;
  if (Elf_Scn *s = scn(section)) {
    Elf_Data *d = elf_getdata(s, nullptr);
    GElf_Rel r;
    for (int i = 0; gelf_getrel(d, i, &r); ++i)
      v.push_back(r);
  }
  return v;
}

std::vector<ElfSymbol> ElfFile::functions(bool sized) const {
  std::vector<ElfSymbol> out;
  Elf_Scn *s = scn(".symtab");
  if (s == nullptr)
    return out;
  GElf_Shdr sh;
  gelf_getshdr(s, &sh);
  for (const GElf_Sym &sym : symbols(".symtab"))
    if (GELF_ST_TYPE(sym.st_info) == STT_FUNC && sym.st_shndx != SHN_UNDEF && (!sized || sym.st_size > 0))
      out.push_back({elf_strptr(e, sh.sh_link, sym.st_name), sym.st_value, sym.st_size, sym.st_shndx});
  return out;
}

uint64_t ElfFile::symbol_value(const std::string &name) const {
  Elf_Scn *s = scn(".symtab");
  if (s == nullptr)
    return 0;
  GElf_Shdr sh;
  gelf_getshdr(s, &sh);
  for (const GElf_Sym &sym : symbols(".symtab")) {
    const char *n = elf_strptr(e, sh.sh_link, sym.st_name);
    if (n != nullptr && name == n)
      return sym.st_value;
  }
  return 0;
}

} // namespace vesk::test
