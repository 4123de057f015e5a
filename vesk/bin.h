// The executable being rewritten: one process-wide record, filled by the
// input reader and completed by the rewriting steps.
#pragma once

#include <cstdint>
#include <libelf.h>
#include <string>
#include <vector>

namespace vesk {

enum DebugKind { DEBUG_NONE = 0, DEBUG_MDEBUG = 1, DEBUG_DWARF = 2 };

struct Bin {
  int pic_kind;        // 0 EF_MIPS_PIC, 1 EF_MIPS_CPIC, 2 neither
  int is_elf32;        // 1 ELFCLASS32, 0 ELFCLASS64
  int is_n32;          // EF_MIPS_ABI2
  int debug_kind;      // DebugKind
  Elf *in_elf;
  uint64_t text_hi;    // end of .text (exclusive)
  uint64_t text_lo;    // start of .text
  uint64_t exec_hi;    // highest end of an executable section
  uint64_t exec_lo;    // lowest start of an executable section
  uint64_t stubs_lo;   // .MIPS.stubs, lowered to text_lo
  uint64_t entry;      // e_entry
  uint64_t *text_map;  // new address of every input .text word
  uint32_t text_words; // 4-byte words in .text
  const uint8_t *text_buf; // input .text, raw big-endian, text_words * 4 bytes
  uint32_t gp_value;
  uint32_t local_gotno;
  uint32_t local_gotidx;
  uint32_t gotsym;
  uint32_t pltgot;
  uint32_t mips_flags; // DT_MIPS_FLAGS as found (set by the dynamic update)
  uint32_t strtab_addr;
  uint32_t time_stamp;
  uint32_t feedback_time_stamp;
  const uint8_t *got_buf; // input .got, raw big-endian
  uint32_t got_count;     // .got size / 4
  const void *dynsym_buf; // input .dynsym, host order
  Elf *out_elf;
  uint32_t new_text_fill; // words laid out in new_text
  uint8_t *new_text;      // output .text, raw big-endian; word n at text_lo + 4n
  int rpt_in_file;
  uint32_t rpt_offset;
  uint32_t rpt_size;
  uint32_t line_offset;
  uint32_t line_size;
  uint32_t text_shift;
  uint32_t text_grow;
  int in_fd;
  int out_fd;
  // got_page[i] != 0: GOT entry i holds a 64 KB page that page loads read,
  // never a code address.  Known when the annotation lists them.
  std::string output_temp; // the output being written, until it is renamed into place
  bool got_pages_known;
  std::vector<uint8_t> got_page;
};

extern Bin bin;

// The input's ELF header, widened to the 64-bit layout for a 32-bit input.
extern Elf64_Ehdr *in_ehdr;

// A .text whose size is not a multiple of 4 ends in a partial word that
// has no text_map entry; it counts as outside.
inline bool in_text(uint64_t a) {
  return a >= bin.text_lo && a < bin.text_hi && ((a - bin.text_lo) >> 2) < bin.text_words;
}
inline bool is_o32() { return bin.is_elf32 == 1 && bin.is_n32 == 0; }
// The new address of an old .text address (caller checks in_text).
inline uint64_t text_map_of(uint64_t a) { return bin.text_map[(a - bin.text_lo) >> 2]; }

} // namespace vesk
