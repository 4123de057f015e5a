// Header, dynamic section, GOT, dynamic relocations and symbols.
#pragma once

#include <cstdint>

#include "base/bin.h"

namespace vesk {

// Run steps; each picks its ELF class by bin.is_elf32 and returns quietly
// when the output has no such section.
void update_elf_header();
void update_dynamic();
void update_got();
void update_reldyn();
void update_dynsym();
void update_symtab();

void update_elf_header32();
void update_dynamic32();
void update_got32();
void update_reldyn32();
void update_dynsym32();
void update_symtab32();
void update_elf_header64();
void update_dynamic64();
void update_got64();
void update_reldyn64();
void update_dynsym64();
void update_symtab64();

// The new address of the old .text address a, through bin.text_map; false
// (and *new_addr untouched) when a is not in .text.  Inline: the branch
// fix-up and the repairs ask for every word.
inline bool map_text_address(uint64_t a, uint64_t *new_addr) {
  if (!in_text(a) || bin.text_map == nullptr)
    return false;
  // in_text leaves out the partial word at the end of an odd-sized .text.
  *new_addr = text_map_word((a - bin.text_lo) >> 2);
  return true;
}
// The output .text word whose new address is new_addr (low two bits
// ignored); null when new_addr lies outside the new text.
inline uint8_t *new_text_word(uint64_t new_addr) {
  if (bin.new_text == nullptr || new_addr < bin.text_lo)
    return nullptr;
  uint64_t k = (new_addr - bin.text_lo) >> 2;
  if (k >= bin.text_words)
    return nullptr;
  return bin.new_text + k * 4;
}

// Re-points one stored code address in place (host-order value): .text
// through the text map, everything else unchanged.
void check_for_text_and_update32(uint32_t *a);
void check_for_text_and_update64(uint64_t *a);

// The section where the description lists the stretches of code and data
// that use a secondary GOT's gp (a program whose GOT the linker split):
// records of three 64-bit words, first address, end and gp.
constexpr const char *GP_RANGES_SECTION = ".vesk.gp";
// The page entries of secondary GOTs that only described page loads of code
// addresses read (32-bit indices): when the code they serve moves beyond
// them, they take the pages it needs.  A position-independent executable's
// secondary GOT has no spare entries to give pages to (the loader would not
// relocate them), so its own page entries must serve.
constexpr const char *FREE_PAGES_SECTION = ".vesk.got_free";
// Gives the free page entries of each secondary GOT the pages that the new
// places of the code they serve need, as far as they go (after the GOT
// update, before the page loads are repaired).
void give_free_pages();
// Reads it into bin.gp_ranges (empty without it).
void read_gp_ranges();
// Re-points its stretches of .text for the new layout (bin.text_map): begun
// on the second core once the layout is final, finished in its turn.
void start_gp_ranges_update();
void update_gp_ranges();
// The gp that the code or data word at old address a uses.
uint64_t gp_at(uint64_t a);

// GOT helpers for the compact relocation and events updates.  All of them
// read the input GOT (bin.got_buf); a gp offset or index that designates no
// entry of it ends the run with an error.
//
// The index of the GOT entry at gp-relative offset off.
// gp is the one the instruction uses (gp_at), the primary one by default.
uint32_t got_index_by_gpoffset(int32_t off, uint64_t gp = 0);
// The entry (4 or 8 bytes by class, returned whole) at gp-relative offset off.
uint64_t got_content_by_gpoffset(int32_t off, uint64_t gp = 0);
// The first local GOT entry, from index 1, whose value lies within a signed
// 16-bit offset of addr (every bit of a 64-bit entry counts): sets *index
// and *diff (addr - value).
// Entries that the GOT update re-pointed are passed over.  False when none
// qualifies.  For code using a secondary GOT's gp, only the page entries
// that gp reaches qualify.
bool try_local_got_entry_for_addr(uint64_t addr, uint32_t *index, int32_t *diff, uint64_t gp = 0);
// Re-point one GOT page/offset pair that formed the old code address
// old_addr as (GOT[got_index] + low).  Arguments, in this order:
//   new_pc     new address of the instruction to patch (in bin.new_text)
//   low        the pair's old signed 16-bit low offset
//   got_index  the GOT index the page load uses now
//              (got_index_by_gpoffset of its immediate)
//   old_addr   the old code address the pair forms
// When the new offset no longer fits 16 bits another local page entry is
// chosen (the GOT itself never changes).
// update_got_page patches the page load's immediate with the page entry's gp
// offset and returns the new low offset; update_got_offset patches the
// offset instruction's immediate with the new low offset and returns the
// page entry's gp offset.
// gp is the one the pair's code uses.
int32_t update_got_page(uint64_t new_pc, int32_t low, uint32_t got_index, uint64_t old_addr, uint64_t gp);
int32_t update_got_offset(uint64_t new_pc, int32_t low, uint32_t got_index, uint64_t old_addr, uint64_t gp);

} // namespace vesk
