// The two ELF classes as types.  A class-dependent step is written once as
// template <class C> over one of these traits; the ...32 / ...64 names the
// tool uses are thin instantiations, and a dispatcher picks by bin.is_elf32.
//
// Which buffers libelf converted: elf_getdata hands typed sections
// (.dynamic, .dynsym, .symtab, .rel.dyn, .hash) to us in host byte order
// and writes them back in file order; .text, .got, .mdebug, .compact_rel,
// .reginfo, .MIPS.options, the events sections and everything else of type
// PROGBITS or processor-specific stay raw big-endian bytes and are read and
// written only through vesk/bytes.h.
#pragma once

#include <cstdint>
#include <gelf.h>
#include <libelf.h>

namespace vesk {

struct Elf32Class {
  using Ehdr = Elf32_Ehdr;
  using Phdr = Elf32_Phdr;
  using Shdr = Elf32_Shdr;
  using Sym = Elf32_Sym;
  using Dyn = Elf32_Dyn;
  using Rel = Elf32_Rel;
  using Addr = uint32_t;
  static constexpr bool is_64 = false;
  static constexpr unsigned word_size = 4; // GOT entry, address word
  static Ehdr *getehdr(Elf *e) { return elf32_getehdr(e); }
  static Ehdr *newehdr(Elf *e) { return elf32_newehdr(e); }
  static Phdr *getphdr(Elf *e) { return elf32_getphdr(e); }
  static Phdr *newphdr(Elf *e, size_t n) { return elf32_newphdr(e, n); }
  static Shdr *getshdr(Elf_Scn *s) { return elf32_getshdr(s); }
  static uint32_t rel_type(const Rel &r) { return ELF32_R_TYPE(r.r_info); }
};

struct Elf64Class {
  using Ehdr = Elf64_Ehdr;
  using Phdr = Elf64_Phdr;
  using Shdr = Elf64_Shdr;
  using Sym = Elf64_Sym;
  using Dyn = Elf64_Dyn;
  using Rel = Elf64_Rel;
  using Addr = uint64_t;
  static constexpr bool is_64 = true;
  static constexpr unsigned word_size = 8;
  static Ehdr *getehdr(Elf *e) { return elf64_getehdr(e); }
  static Ehdr *newehdr(Elf *e) { return elf64_newehdr(e); }
  static Phdr *getphdr(Elf *e) { return elf64_getphdr(e); }
  static Phdr *newphdr(Elf *e, size_t n) { return elf64_newphdr(e, n); }
  static Shdr *getshdr(Elf_Scn *s) { return elf64_getshdr(s); }
  // MIPS64 r_info, read as one big-endian 64-bit word: r_sym (32 bits),
  // r_ssym, r_type3, r_type2, r_type (8 bits each).
  static uint32_t rel_type(const Rel &r) { return uint32_t(r.r_info & 0xff); }
  static uint32_t rel_type2(const Rel &r) { return uint32_t((r.r_info >> 8) & 0xff); }
  static uint32_t rel_type3(const Rel &r) { return uint32_t((r.r_info >> 16) & 0xff); }
  static uint32_t rel_sym(const Rel &r) { return uint32_t(r.r_info >> 32); }
};

} // namespace vesk
