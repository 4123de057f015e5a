// vesk-annotate's view of its input: an o32, n32 or n64 executable linked
// with its relocations kept (-Wl,-q), read whole and checked before use.
// Headers, symbols and relocations are widened to the 64-bit forms.
#pragma once

#include <cstdint>
#include <gelf.h>
#include <string>
#include <string_view>
#include <vector>

#include "base/bytes.h"
#include "base/file_io.h"

namespace vesk::annotate {

struct Section {
  size_t index = 0;
  std::string name;
  GElf_Shdr sh{};            // host order
  const uint8_t *raw = nullptr; // big-endian contents in the file, null for SHT_NOBITS
};

// A relocation with an addend (n32, n64).  n32 spells a composed
// relocation as up to three records at one offset; n64 packs the three
// types into one record (type, then type2 and type3 applied to its result).
struct Rela {
  uint64_t offset = 0;
  uint32_t sym = 0;
  uint32_t type = 0, type2 = 0, type3 = 0;
  int64_t addend = 0;
};

struct RelSection {
  const Section *section = nullptr; // the SHT_REL or SHT_RELA section
  const Section *target = nullptr;  // the section it patches (sh_info)
  std::vector<Elf32_Rel> rels;      // o32: host order, in table order
  std::vector<Rela> relas;          // n32, n64: in table order
};

// The whole input: the file mapped privately where it can be (its pages
// stay the file cache's until a patch writes one, and only that page is
// copied), else read.
struct FileBytes {
  PrivateMap map;
  std::vector<uint8_t> copy;
  uint8_t *data() { return map.data() != nullptr ? map.data() : copy.data(); }
  const uint8_t *data() const { return map.data() != nullptr ? map.data() : copy.data(); }
  size_t size() const { return map.data() != nullptr ? map.size() : copy.size(); }
};

struct Image {
  std::string path;
  FileBytes file; // the whole input
  std::vector<Section> sections;
  std::vector<RelSection> rel_sections;
  std::vector<GElf_Sym> symbols;         // .symtab, host order
  std::vector<std::string_view> symbol_names; // into .strtab in `file`; empty when unreadable
  // For each defined function symbol with a size, the number of its group
  // (function_group_name), numbered as the groups first appear in the table;
  // kNoGroup for every other symbol.
  std::vector<uint32_t> function_group;
  uint32_t function_groups = 0;
  static constexpr uint32_t kNoGroup = ~uint32_t(0);
  const Section *text = nullptr;
  const Section *got = nullptr;
  uint64_t text_lo = 0, text_hi = 0;
  uint64_t gp_value = 0;
  uint64_t got_addr = 0; // DT_PLTGOT, else the address of .got
  uint64_t local_gotno = 0; // DT_MIPS_LOCAL_GOTNO
  uint64_t gotsym = 0, symtabno = 0; // DT_MIPS_GOTSYM, DT_MIPS_SYMTABNO: the primary GOT's global part
  std::vector<uint64_t> dyn_reloc_offsets; // the words .rel.dyn relocates, ascending
  bool is_64 = false;    // ELFCLASS64 (n64)
  bool is_n32 = false;
  bool pic = false;      // EF_MIPS_PIC: vesk reads no content sections then
  bool is_pie = false;   // ET_DYN: the loader moves it, and the words of .got with it
  unsigned word_size = 4; // an address word, a GOT entry

  bool is_o32() const { return !is_64 && !is_n32; }
  bool in_text(uint64_t a) const { return a >= text_lo && a < text_hi; }
  // The section whose addresses hold [addr, addr + n), with contents.
  const Section *section_holding(uint64_t addr, uint64_t n) const;
  // The last section section_holding found, asked first when no two
  // sections with contents share an address (then at most one holds any);
  // -1 before the sections were looked at, 1 when some overlap.
  mutable size_t last_held_ = 0;
  mutable int sections_overlap_ = -1;
  // The 32-bit word at addr inside section s (addr checked by the caller).
  uint32_t word(const Section &s, uint64_t addr) const { return load32(s.raw + (addr - s.sh.sh_addr)); }
  // The address word (4 or 8 bytes) at addr inside section s.
  uint64_t address_word(const Section &s, uint64_t addr) const;
  // "0x400123 (main+0x1c)" for messages.
  std::string where(uint64_t addr) const;
  bool symbol_is_local(uint32_t index) const;
  bool dynamically_relocated(uint64_t addr) const;
  std::string_view symbol_name(uint32_t index) const;
};

// The name of the function that a function symbol is part of: foo for
// foo, foo.cold and foo.cold.1 (the cold part uses what the hot part
// loaded).  A view into name.
inline std::string_view function_group_name(std::string_view name) { return name.substr(0, name.find(".cold")); }

// Reads and checks path; refuses (with a clear error) anything that is not
// a big-endian MIPS executable with kept relocations.
Image read_image(const std::string &path);
// The same, from a descriptor open on it (read from its start).
Image read_image(const std::string &path, int fd);

} // namespace vesk::annotate
