// The header, dynamic section, GOT, dynamic relocation and symbol updates,
// written once for both ELF classes.  com/update32.cpp and com/update64.cpp
// instantiate them under the ...32 / ...64 names.
#pragma once

#include <algorithm>
#include <ctime>

#include "base/bin.h"
#include "base/bytes.h"
#include "base/diag.h"
#include "base/elf_class.h"
#include "base/options.h"
#include "com/elf.h"
#include "com/update.h"

namespace vesk {

constexpr uint32_t RHF_VESKED = 0x1000; // DT_MIPS_FLAGS: processed by this tool
constexpr uint32_t R_MIPS_REL32_TYPE = 3;
constexpr uint32_t R_MIPS_64_TYPE = 18;

// The re-pointing rule on a 64-bit value (com/update.cpp).
uint64_t repoint_code_address(uint64_t a);
inline void check_for_text_and_update(uint32_t *a) { check_for_text_and_update32(a); }
inline void check_for_text_and_update(uint64_t *a) { check_for_text_and_update64(a); }

// Address word i (4 or 8 bytes by class: a GOT entry, a relocated word) of
// a raw big-endian buffer.
template <class C> uint64_t address_word(const uint8_t *buf, size_t i) {
  if constexpr (C::is_64)
    return load64(buf + i * 8);
  else
    return load32(buf + i * 4);
}

template <class C> void set_address_word(uint8_t *buf, size_t i, uint64_t v) {
  if constexpr (C::is_64)
    store64(buf + i * 8, v);
  else
    store32(buf + i * 4, uint32_t(v));
}

// The first data of the output section `name` when it holds records of the
// given libelf type; null when the section is absent or empty.
inline Elf_Data *typed_output_data(const char *name, Elf_Type type) {
  Elf_Data *d = find_section_data_by_name(bin.out_elf, name);
  if (d == nullptr || d->d_buf == nullptr || d->d_size == 0)
    return nullptr;
  if (d->d_type != type)
    error("%s: section %s does not hold the records its name promises", option.program, name);
  return d;
}

template <class C> void update_elf_header_t() {
  typename C::Ehdr *eh = C::getehdr(bin.out_elf);
  if (eh == nullptr) {
    print_elf_error(option.program);
    error("cannot read the output ELF header");
  }
  uint64_t entry = eh->e_entry, moved;
  if (map_text_address(entry, &moved))
    eh->e_entry = typename C::Addr(moved);
  else if (in_text(entry) || (entry >= bin.exec_lo && entry < bin.exec_hi))
    ; // code outside .text stays where it is
  else
    error("%s: the entry point %#llx lies in no code section", option.program, (unsigned long long)entry);
}

template <class C> void update_dynamic_t() {
  Elf_Data *d = typed_output_data(".dynamic", ELF_T_DYN);
  if (d == nullptr)
    return;
  auto *dyn = static_cast<typename C::Dyn *>(d->d_buf);
  size_t n = d->d_size / sizeof(typename C::Dyn);
  for (size_t i = 0; i < n && dyn[i].d_tag != DT_NULL; ++i) {
    uint64_t v = dyn[i].d_un.d_val, moved;
    switch (uint64_t(dyn[i].d_tag)) {
    case DT_INIT:
    case DT_FINI:
      if (map_text_address(v, &moved))
        dyn[i].d_un.d_ptr = typename C::Addr(moved);
      break;
    case DT_MIPS_TIME_STAMP:
      dyn[i].d_un.d_val = typename C::Addr(uint32_t(std::time(nullptr)));
      break;
    case DT_MIPS_FLAGS:
      bin.mips_flags = uint32_t(v);
      if (v & RHF_VESKED)
        warning("%s is a vesked binary", option.program);
      dyn[i].d_un.d_val = v | RHF_VESKED;
      break;
    default:
      break;
    }
  }
}

template <class C> void update_got_t() {
  Elf_Data *d = find_section_data_by_name(bin.out_elf, ".got");
  if (d == nullptr || d->d_buf == nullptr)
    return;
  auto *got = static_cast<uint8_t *>(d->d_buf);
  size_t n = d->d_size / C::word_size;
  // Page entries serve gp-relative page/offset pairs, which keep their page
  // or take another one and only change the offset; they are never
  // re-pointed.  GNU ld mixes them among the entries that hold exact
  // addresses, so where the annotation lists them that list decides;
  // without it only the leading run of page-aligned entries is taken for
  // pages.
  // A secondary GOT (a program whose GOT the linker split) has page
  // entries behind the primary one's local part.
  auto is_page = [&](size_t i) {
    return (i < bin.local_gotno || !bin.gp_ranges.empty()) && i < bin.got_page.size() && bin.got_page[i] != 0;
  };
  size_t i = 1;
  if (!bin.got_pages_known)
    while (i < bin.local_gotno && i < n && (address_word<C>(got, i) & 0xffff) == 0)
      ++i;
  for (; i < n; ++i) {
    if (bin.got_pages_known && is_page(i))
      continue;
    typename C::Addr v = typename C::Addr(address_word<C>(got, i));
    typename C::Addr old = v;
    check_for_text_and_update(&v);
    if (v != old)
      set_address_word<C>(got, i, v);
  }
}

// Re-points the address word that a dynamic relocation designates.
template <class C> void update_reloc_target(uint64_t where, const char *complaint) {
  uint8_t *p = get_textdata_range(bin.out_elf, where, C::word_size);
  if (p == nullptr) {
    warning("%s", complaint);
    return;
  }
  typename C::Addr v = typename C::Addr(address_word<C>(p, 0));
  typename C::Addr old = v;
  check_for_text_and_update(&v);
  if (v != old)
    set_address_word<C>(p, 0, v);
}

// The address range of the output .got; empty when there is none.
template <class C> void output_got_range(uint64_t *lo, uint64_t *hi) {
  *lo = *hi = 0;
  if (Elf_Scn *scn = find_section_by_name(bin.out_elf, ".got"))
    if (typename C::Shdr *sh = C::getshdr(scn)) {
      *lo = sh->sh_addr;
      *hi = sh->sh_addr + sh->sh_size;
    }
}

template <class C> void update_reldyn_t() {
  Elf_Data *d = typed_output_data(".rel.dyn", ELF_T_REL);
  if (d == nullptr)
    return;
  // The GOT update has already dealt with every GOT entry; a relocation of
  // one must not move it a second time.
  uint64_t got_lo, got_hi;
  output_got_range<C>(&got_lo, &got_hi);
  const auto *rel = static_cast<const typename C::Rel *>(d->d_buf);
  size_t n = d->d_size / sizeof(typename C::Rel);
  for (size_t i = 0; i < n; ++i) {
    uint32_t type = C::rel_type(rel[i]);
    if (type == 0)
      continue;
    if (type != R_MIPS_REL32_TYPE) {
      warning("unknown elf rel type");
      continue;
    }
    if constexpr (C::is_64) {
      if (C::rel_type2(rel[i]) != R_MIPS_64_TYPE) {
        warning("unknown R_MIPS_REL");
        continue;
      }
    }
    if (rel[i].r_offset >= got_lo && rel[i].r_offset < got_hi)
      continue;
    update_reloc_target<C>(rel[i].r_offset, C::is_64 ? "ignoring incorrect R_MIPS_REL64"
                                                     : "ignoring incorrect R_MIPS_REL32");
  }
}

// Re-points the value of every symbol of a symbol table for which keep()
// is true.
template <class C, class Keep> void repoint_symbols(const char *section, Keep keep) {
  Elf_Data *d = typed_output_data(section, ELF_T_SYM);
  if (d == nullptr)
    return;
  auto *sym = static_cast<typename C::Sym *>(d->d_buf);
  size_t n = d->d_size / sizeof(typename C::Sym);
  for (size_t i = 0; i < n; ++i) {
    typename C::Addr v = sym[i].st_value;
    if (!keep(sym[i]))
      continue;
    check_for_text_and_update(&v);
    sym[i].st_value = v;
  }
}

template <class C> void update_dynsym_t() {
  repoint_symbols<C>(".dynsym", [](const typename C::Sym &) { return true; });
}

template <class C> void update_symtab_t() {
  repoint_symbols<C>(".symtab", [](const typename C::Sym &s) {
    if (s.st_shndx == SHN_ABS || s.st_value == 0)
      return false;
    // The value of a common symbol is its alignment; only a large one can
    // be an address.
    return !(s.st_shndx == SHN_COMMON && s.st_value <= 0x10000);
  });
}

// Number of whole entries in the input GOT.
template <class C> size_t input_got_entries() {
  return bin.got_buf ? size_t(bin.got_count) * 4 / C::word_size : 0;
}

// The low 32 bits of gp (0: the primary one), which is what pltgot holds.
inline uint32_t gp_low(uint64_t gp) { return gp == 0 ? bin.gp_value : uint32_t(gp); }

template <class C> uint32_t got_index_by_gpoffset_t(int32_t off, uint64_t gp = 0) {
  int64_t byte = int64_t(off) + int64_t(gp_low(gp)) - int64_t(bin.pltgot);
  if (byte < 0 || uint64_t(byte) / C::word_size >= input_got_entries<C>())
    error("gp offset %d does not designate an entry of .got", off);
  return uint32_t(uint64_t(byte) / C::word_size);
}

template <class C> uint64_t got_content_by_gpoffset_t(int32_t off, uint64_t gp = 0) {
  return address_word<C>(bin.got_buf, got_index_by_gpoffset_t<C>(off, gp));
}

template <class C>
bool try_local_got_entry_for_addr_t(uint64_t addr, uint32_t *index, int32_t *diff_out, uint64_t gp = 0) {
  size_t n = input_got_entries<C>();
  // An entry that the GOT update re-pointed no longer holds its input value
  // at run time, so it cannot serve as a page.
  Elf_Data *out = bin.out_elf ? find_section_data_by_name(bin.out_elf, ".got") : nullptr;
  const uint8_t *out_got = out && out->d_buf ? static_cast<const uint8_t *>(out->d_buf) : nullptr;
  size_t out_n = out_got ? out->d_size / C::word_size : 0;
  // Code using a secondary GOT reaches only the entries its gp reaches,
  // and of those takes only the page entries: only they are known to be
  // local entries, which the loader relocates like the pages.
  size_t first = 1, end = bin.local_gotno;
  bool secondary = gp_low(gp) != bin.gp_value;
  if (secondary) {
    int64_t lo = int64_t(gp_low(gp)) - 0x8000 - int64_t(bin.pltgot);
    first = size_t(std::max<int64_t>(2, (lo + C::word_size - 1) / C::word_size));
    end = size_t(std::max<int64_t>(0, (lo + 0x10000) / C::word_size));
  }
  for (size_t i = first; i < end && i < n; ++i) {
    if (secondary && (i >= bin.got_page.size() || bin.got_page[i] == 0))
      continue;
    uint64_t entry = address_word<C>(bin.got_buf, i);
    // A secondary GOT's page entry may have taken another page
    // (give_free_pages): it serves with the value it holds now.
    if (secondary && out_got && i < out_n)
      entry = address_word<C>(out_got, i);
    else if (out_got && (i >= out_n || address_word<C>(out_got, i) != entry))
      continue;
    // GNU ld marks entry 1 with the top bit for the loader, which puts its
    // module pointer there: it holds no address.
    if (i == 1 && (entry >> (C::word_size * 8 - 1)) != 0)
      continue;
    // A 64-bit entry must reach with all its bits, not only the low half.
    int64_t wide = C::is_64 ? int64_t(addr - entry) : int64_t(int32_t(uint32_t(addr) - uint32_t(entry)));
    int32_t diff = int32_t(wide);
    if (wide >= -32768 && wide <= 32767) {
      *index = uint32_t(i);
      *diff_out = diff;
      return true;
    }
  }
  return false;
}

template <class C> int32_t find_local_got_entry_for_addr_t(uint64_t addr, uint32_t *index, uint64_t gp) {
  int32_t diff;
  if (!try_local_got_entry_for_addr_t<C>(addr, index, &diff, gp)) {
    if (gp_low(gp) != bin.gp_value)
      error("cannot find appropriate got entry for %#llx: no page entry of the GOT whose gp is %#llx lies within "
            "32 KB of it, and code using that GOT reaches it through a GOT page; %s cannot be laid out this way",
            (unsigned long long)addr, (unsigned long long)gp, option.program);
    error("cannot find appropriate got entry for %#llx", (unsigned long long)addr);
  }
  return diff;
}

// The new low offset of a page/offset pair that formed old_addr from the
// page entry got_index; *index receives the page entry to use from now on.
template <class C>
int32_t moved_got_low(int32_t low, uint32_t got_index, uint64_t old_addr, uint32_t *index, uint64_t gp) {
  uint64_t new_addr = old_addr;
  map_text_address(old_addr, &new_addr); // an address outside .text stays
  // The page as the entry holds it at run time: an entry the GOT update
  // re-pointed (a page that is also a procedure's address) holds its new
  // value.
  uint32_t page = uint32_t(old_addr) - uint32_t(low);
  Elf_Data *out = bin.out_elf ? find_section_data_by_name(bin.out_elf, ".got") : nullptr;
  if (out != nullptr && out->d_buf != nullptr && got_index < out->d_size / C::word_size)
    page = uint32_t(address_word<C>(static_cast<const uint8_t *>(out->d_buf), got_index));
  int32_t new_low = int32_t(uint32_t(new_addr) - page);
  *index = got_index;
  if (new_low < -32768 || new_low > 32767)
    new_low = find_local_got_entry_for_addr_t<C>(new_addr, index, gp);
  return new_low;
}

template <class C> uint32_t gp_offset_of_got_index(uint32_t index, uint64_t gp) {
  return index * C::word_size + bin.pltgot - gp_low(gp);
}

inline void patch_low_half(uint64_t new_pc, uint32_t value) {
  uint8_t *w = new_text_word(new_pc);
  if (w == nullptr)
    error("instruction at %#llx lies outside the new .text", (unsigned long long)new_pc);
  store16(w + 2, uint16_t(value));
}

template <class C>
int32_t update_got_page_t(uint64_t new_pc, int32_t low, uint32_t got_index, uint64_t old_addr, uint64_t gp) {
  uint32_t index;
  int32_t new_low = moved_got_low<C>(low, got_index, old_addr, &index, gp);
  patch_low_half(new_pc, gp_offset_of_got_index<C>(index, gp));
  return new_low;
}

template <class C>
int32_t update_got_offset_t(uint64_t new_pc, int32_t low, uint32_t got_index, uint64_t old_addr, uint64_t gp) {
  uint32_t index;
  int32_t new_low = moved_got_low<C>(low, got_index, old_addr, &index, gp);
  patch_low_half(new_pc, uint32_t(new_low));
  return int32_t(gp_offset_of_got_index<C>(index, gp));
}

} // namespace vesk
