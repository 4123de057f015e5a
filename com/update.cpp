#include "com/update.h"

#include "com/events.h"
#include "com/update_compact_rel.h"
#include "com/update_impl.h"

namespace vesk {

uint64_t repoint_code_address(uint64_t a) {
  uint64_t moved;
  if (map_text_address(a, &moved))
    return moved;
  if (in_text(a) || a < bin.exec_lo || a >= bin.exec_hi)
    return a;
  if (a <= bin.text_hi)
    return a; // executable code in front of .text does not move
  return a + bin.text_shift;
}

bool map_text_address(uint64_t a, uint64_t *new_addr) {
  if (!in_text(a) || bin.text_map == nullptr)
    return false;
  uint64_t k = (a - bin.text_lo) >> 2;
  if (k >= bin.text_words)
    return false; // the partial word at the end of an odd-sized .text
  *new_addr = bin.text_map[k];
  return true;
}

uint8_t *new_text_word(uint64_t new_addr) {
  if (bin.new_text == nullptr || new_addr < bin.text_lo)
    return nullptr;
  uint64_t k = (new_addr - bin.text_lo) >> 2;
  if (k >= bin.text_words)
    return nullptr;
  return bin.new_text + k * 4;
}

void update_elf_header() { bin.is_elf32 ? update_elf_header32() : update_elf_header64(); }
void update_dynamic() { bin.is_elf32 ? update_dynamic32() : update_dynamic64(); }
void update_got() {
  if (is_o32())
    read_got_page_marks();
  else
    read_event_got_pages();
  bin.is_elf32 ? update_got32() : update_got64();
}
void update_reldyn() { bin.is_elf32 ? update_reldyn32() : update_reldyn64(); }
void update_dynsym() { bin.is_elf32 ? update_dynsym32() : update_dynsym64(); }
void update_symtab() { bin.is_elf32 ? update_symtab32() : update_symtab64(); }

uint32_t got_index_by_gpoffset(int32_t off) {
  return bin.is_elf32 ? got_index_by_gpoffset_t<Elf32Class>(off) : got_index_by_gpoffset_t<Elf64Class>(off);
}

uint64_t got_content_by_gpoffset(int32_t off) {
  return bin.is_elf32 ? got_content_by_gpoffset_t<Elf32Class>(off)
                      : got_content_by_gpoffset_t<Elf64Class>(off);
}

bool try_local_got_entry_for_addr(uint64_t addr, uint32_t *index, int32_t *diff) {
  return bin.is_elf32 ? try_local_got_entry_for_addr_t<Elf32Class>(addr, index, diff)
                      : try_local_got_entry_for_addr_t<Elf64Class>(addr, index, diff);
}

int32_t update_got_page(uint64_t new_pc, int32_t low, uint32_t got_index, uint64_t old_addr) {
  return bin.is_elf32 ? update_got_page_t<Elf32Class>(new_pc, low, got_index, old_addr)
                      : update_got_page_t<Elf64Class>(new_pc, low, got_index, old_addr);
}

int32_t update_got_offset(uint64_t new_pc, int32_t low, uint32_t got_index, uint64_t old_addr) {
  return bin.is_elf32 ? update_got_offset_t<Elf32Class>(new_pc, low, got_index, old_addr)
                      : update_got_offset_t<Elf64Class>(new_pc, low, got_index, old_addr);
}

} // namespace vesk
