// Header, dynamic section, GOT, dynamic relocations and symbols.
#pragma once

#include <cstdint>

namespace vesk {

void update_elf_header();
void update_dynamic();
void update_got();
void update_reldyn();
void update_dynsym();
void update_symtab();

void check_for_text_and_update32(uint32_t *a);
void check_for_text_and_update64(uint64_t *a);
uint64_t got_content_by_gpoffset(int32_t off);
// Offset of addr from the first local GOT entry within 32 KB of it.
int32_t find_local_got_entry_for_addr(uint64_t addr, uint32_t *index);
// new_pc: new address of the instruction to patch; got_index: the page
// entry's current GOT index; low: the pair's old low offset; old_addr: the
// old code address the pair forms.
int32_t update_got_page(uint64_t new_pc, int32_t low, uint32_t got_index, uint64_t old_addr);
int32_t update_got_offset(uint64_t new_pc, int32_t low, uint32_t got_index, uint64_t old_addr);

} // namespace vesk
