#include "support/elf_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "support/run.h"
#include "vesk/bytes.h"

namespace vesk::test {

ElfFile::ElfFile(const std::string &path) {
  std::string s = read_file(path);
  bytes.assign(s.begin(), s.end());
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

std::string ElfFile::name_of(Elf_Scn *s) const {
  size_t shstrndx = 0;
  GElf_Shdr sh;
  const char *n = elf_getshdrstrndx(e, &shstrndx) == 0 && gelf_getshdr(s, &sh) ? elf_strptr(e, shstrndx, sh.sh_name)
                                                                                : nullptr;
  return n ? n : "";
}

Elf_Scn *ElfFile::scn(const std::string &name) const {
  for (Elf_Scn *s = e ? elf_nextscn(e, nullptr) : nullptr; s; s = elf_nextscn(e, s))
    if (name_of(s) == name)
      return s;
  return nullptr;
}

GElf_Shdr ElfFile::shdr(const std::string &name) const {
  GElf_Shdr sh{};
  if (Elf_Scn *s = scn(name))
    gelf_getshdr(s, &sh);
  return sh;
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

namespace {

// Every record of a section through one of libelf's typed getters.
template <class T, class Get> std::vector<T> records(Elf_Scn *s, Get get) {
  std::vector<T> v;
  Elf_Data *d = s ? elf_getdata(s, nullptr) : nullptr;
  T r;
  for (int i = 0; d && get(d, i, &r); ++i)
    v.push_back(r);
  return v;
}

} // namespace

std::vector<GElf_Sym> ElfFile::symbols(const std::string &section) const {
  return records<GElf_Sym>(scn(section), gelf_getsym);
}
std::vector<GElf_Dyn> ElfFile::dynamic() const { return records<GElf_Dyn>(scn(".dynamic"), gelf_getdyn); }
std::vector<GElf_Rel> ElfFile::rels(const std::string &section) const {
  return records<GElf_Rel>(scn(section), gelf_getrel);
}

std::vector<ElfSymbol> ElfFile::functions(bool sized) const {
  std::vector<ElfSymbol> out;
  GElf_Shdr sh = shdr(".symtab");
  for (const GElf_Sym &sym : symbols(".symtab"))
    if (GELF_ST_TYPE(sym.st_info) == STT_FUNC && sym.st_shndx != SHN_UNDEF && (!sized || sym.st_size > 0))
      out.push_back({elf_strptr(e, sh.sh_link, sym.st_name), sym.st_value, sym.st_size, sym.st_shndx});
  return out;
}

uint64_t ElfFile::symbol_value(const std::string &name) const {
  GElf_Shdr sh = shdr(".symtab");
  for (const GElf_Sym &sym : symbols(".symtab")) {
    const char *n = elf_strptr(e, sh.sh_link, sym.st_name);
    if (n != nullptr && name == n)
      return sym.st_value;
  }
  return 0;
}

} // namespace vesk::test
