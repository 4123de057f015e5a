#include "com/update.h"

#include <algorithm>

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
  read_gp_ranges();
  if (is_o32())
    read_got_page_marks();
  else
    read_event_got_pages();
  bin.is_elf32 ? update_got32() : update_got64();
}
void update_reldyn() { bin.is_elf32 ? update_reldyn32() : update_reldyn64(); }
void update_dynsym() { bin.is_elf32 ? update_dynsym32() : update_dynsym64(); }
void update_symtab() { bin.is_elf32 ? update_symtab32() : update_symtab64(); }

void read_gp_ranges() {
  bin.gp_ranges.clear();
  Elf_Data *d = find_section_data_by_name(bin.in_elf, GP_RANGES_SECTION);
  if (d == nullptr)
    return;
  const auto *p = static_cast<const uint8_t *>(d->d_buf);
  if ((p == nullptr && d->d_size != 0) || d->d_size % 24 != 0)
    error("%s: section %s is damaged: its size is not a whole number of records", option.program,
          GP_RANGES_SECTION);
  uint64_t got_lo = bin.pltgot, got_hi = got_lo + uint64_t(bin.got_count) * 4;
  for (size_t off = 0; off < d->d_size; off += 24) {
    Bin::GpRange r{load64(p + off), load64(p + off + 8), load64(p + off + 16)};
    // A gp lies 0x7ff0 behind the start of its GOT, inside .got.
    uint64_t start = uint32_t(r.gp - 0x7ff0);
    if (r.hi <= r.lo || (!bin.gp_ranges.empty() && r.lo < bin.gp_ranges.back().hi) || start < got_lo ||
        start >= got_hi || (start - got_lo) % (bin.is_elf32 ? 4 : 8) != 0)
      error("%s: section %s is damaged: its record %zu is no ascending stretch with the gp of a GOT", option.program,
            GP_RANGES_SECTION, off / 24);
    bin.gp_ranges.push_back(r);
  }
}

uint64_t gp_at(uint64_t a) {
  const auto &rs = bin.gp_ranges;
  auto r = std::upper_bound(rs.begin(), rs.end(), a, [](uint64_t x, const Bin::GpRange &g) { return x < g.lo; });
  if (r != rs.begin() && a < std::prev(r)->hi)
    return std::prev(r)->gp;
  return bin.gp_full;
}

uint32_t got_index_by_gpoffset(int32_t off, uint64_t gp) {
  return bin.is_elf32 ? got_index_by_gpoffset_t<Elf32Class>(off, gp) : got_index_by_gpoffset_t<Elf64Class>(off, gp);
}

uint64_t got_content_by_gpoffset(int32_t off, uint64_t gp) {
  return bin.is_elf32 ? got_content_by_gpoffset_t<Elf32Class>(off, gp)
                      : got_content_by_gpoffset_t<Elf64Class>(off, gp);
}

bool try_local_got_entry_for_addr(uint64_t addr, uint32_t *index, int32_t *diff, uint64_t gp) {
  return bin.is_elf32 ? try_local_got_entry_for_addr_t<Elf32Class>(addr, index, diff, gp)
                      : try_local_got_entry_for_addr_t<Elf64Class>(addr, index, diff, gp);
}

int32_t update_got_page(uint64_t new_pc, int32_t low, uint32_t got_index, uint64_t old_addr, uint64_t gp) {
  return bin.is_elf32 ? update_got_page_t<Elf32Class>(new_pc, low, got_index, old_addr, gp)
                      : update_got_page_t<Elf64Class>(new_pc, low, got_index, old_addr, gp);
}

int32_t update_got_offset(uint64_t new_pc, int32_t low, uint32_t got_index, uint64_t old_addr, uint64_t gp) {
  return bin.is_elf32 ? update_got_offset_t<Elf32Class>(new_pc, low, got_index, old_addr, gp)
                      : update_got_offset_t<Elf64Class>(new_pc, low, got_index, old_addr, gp);
}

} // namespace vesk
