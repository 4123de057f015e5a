// vesk-annotate's view of its input: an o32 executable linked with its
// relocations kept (-Wl,-q), read whole and checked before use.
#pragma once

#include <cstdint>
#include <gelf.h>
#include <string>
#include <vector>

namespace vesk::annotate {

struct Section {
  size_t index = 0;
  std::string name;
  Elf32_Shdr sh{};           // host order
  const uint8_t *raw = nullptr; // big-endian contents in the file, null for SHT_NOBITS
};

struct RelSection {
  const Section *section = nullptr; // the SHT_REL section
  const Section *target = nullptr;  // the section it patches (sh_info)
  std::vector<Elf32_Rel> rels;      // host order, in table order
};

struct Image {
  std::string path;
  std::vector<uint8_t> file; // the whole input
  std::vector<Section> sections;
  std::vector<RelSection> rel_sections;
  std::vector<Elf32_Sym> symbols;        // .symtab, host order
  std::vector<std::string> symbol_names;
  const Section *text = nullptr;
  const Section *got = nullptr;
  uint32_t text_lo = 0, text_hi = 0;
  uint32_t gp_value = 0;
  uint32_t got_addr = 0; // DT_PLTGOT, else the address of .got

  bool in_text(uint32_t a) const { return a >= text_lo && a < text_hi; }
  // The section whose addresses hold [addr, addr + n), with contents.
  const Section *section_holding(uint32_t addr, uint32_t n) const;
  // The 32-bit word at addr inside section s (addr checked by the caller).
  uint32_t word(const Section &s, uint32_t addr) const;
  // "0x400123 (main+0x1c)" for messages.
  std::string where(uint32_t addr) const;
  bool symbol_is_local(uint32_t index) const;
  const std::string &symbol_name(uint32_t index) const;
};

// Reads and checks path; refuses (with a clear error) anything that is not
// a big-endian o32 MIPS executable with kept relocations.
Image read_image(const std::string &path);

} // namespace vesk::annotate
