// Synthetic mdebug symbol tables: the section bytes for the cases no
// compiler makes (tens of thousands of descriptors, wrapped ipdFirst,
// damaged counts), and a small ELF executable around them.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "mdebug/records.h"

namespace vesk::test {

struct SynthProc {
  std::string name;
  uint32_t value = 0;           // the procedure symbol's value (its address)
  uint32_t pdr_adr = 0;         // the descriptor's adr
  uint32_t isym = 0xFFFFFFFE;   // descriptor's isym; default: its own symbol
  int32_t ln_low = -1;
  int32_t ln_high = -1;
};

struct SynthSym {
  std::string name;
  uint32_t value = 0;
  unsigned st = 0;
  unsigned sc = 1;
};

struct SynthFile {
  std::string name;
  bool has_name = true;          // false: rss is nil
  uint32_t adr = 0;
  std::vector<SynthProc> procs;  // each gets a procedure descriptor and an stProc symbol
  std::vector<SynthSym> syms;    // further local symbols, after the procedures'
  bool ext_bits = true;          // store bits 16..19 of ipdFirst/cpd in the bit-field word
};

struct SynthMdebug {
  std::vector<SynthFile> files;
  std::vector<SynthSym> externals;
  uint32_t line_bytes = 0;       // size of a (zero) line-number table

  // The section contents as they would lie at file offset file_off.
  std::vector<uint8_t> build(uint64_t file_off) const;
};

// Writes an o32-style executable with .text (text_words zero words at
// text_lo) and a .mdebug section whose bytes make(file_off) returns for the
// offset the section gets.  Returns the path.
std::string write_mdebug_elf(const std::string &stem, uint64_t text_lo, uint32_t text_words,
                             const std::function<std::vector<uint8_t>(uint64_t)> &make,
                             uint32_t e_flags = 0x1000);

// The records of a built section, for patching in tests.
inline Hdrr &hdr_of(std::vector<uint8_t> &v) { return *record_at<Hdrr>(v.data(), 0); }
Fdr &fdr_of(std::vector<uint8_t> &v, uint64_t file_off, uint32_t i);
Pdr &pdr_of(std::vector<uint8_t> &v, uint64_t file_off, uint32_t i);
Symr &sym_of(std::vector<uint8_t> &v, uint64_t file_off, uint32_t i);
Extr &ext_of(std::vector<uint8_t> &v, uint64_t file_off, uint32_t i);

} // namespace vesk::test
