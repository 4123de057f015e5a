// A written executable read back with libelf.
#pragma once

#include <cstdint>
#include <gelf.h>
#include <string>
#include <vector>

namespace vesk::test {

struct ElfSymbol {
  std::string name;
  uint64_t value = 0, size = 0;
  uint16_t shndx = 0;
};

class ElfFile {
public:
  explicit ElfFile(const std::string &path); // fails the test when path is no ELF file
  ~ElfFile();
  ElfFile(const ElfFile &) = delete;
  ElfFile &operator=(const ElfFile &) = delete;

  std::vector<uint8_t> bytes; // the whole file
  Elf *e = nullptr;
  bool is64 = false;

  Elf_Scn *scn(const std::string &name) const; // nullptr when absent
  GElf_Shdr shdr(const std::string &name) const; // zeroes when absent
  std::string name_of(Elf_Scn *s) const;
  std::vector<uint8_t> contents(const std::string &name) const; // empty when absent
  // File offset of a virtual address through the allocated sections, ~0 when none holds it.
  uint64_t offset_of(uint64_t addr) const;
  unsigned addr_size() const { return is64 ? 8 : 4; }
  uint64_t addr_word(uint64_t off) const; // an address-sized word of the file
  // The records of a section of symbols, dynamic entries or relocations.
  std::vector<GElf_Sym> symbols(const std::string &section) const;
  std::vector<GElf_Dyn> dynamic() const;
  std::vector<GElf_Rel> rels(const std::string &section) const;
  // STT_FUNC symbols of .symtab with a section (and a size, when sized).
  std::vector<ElfSymbol> functions(bool sized = false) const;
  uint64_t symbol_value(const std::string &name) const; // 0 when absent

private:
  int fd_ = -1;
};

} // namespace vesk::test
