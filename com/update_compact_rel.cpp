// Re-pointing the .compact_rel section of an o32 executable: every entry
// names a place that holds a code address (an instruction pair or a data
// word); the place is repaired for the new layout and the entry re-encoded
// with the new addresses into a rebuilt section.
//
// Values that an entry's instructions form are read from the input text,
// not from the new text: a %hi or GOT page load shared by several entries
// is patched by the first of them, and the later ones must still see the
// value the linker put there.
#include "com/update_compact_rel.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <unordered_map>
#include <vector>

#include "base/bin.h"
#include "base/bytes.h"
#include "base/diag.h"
#include "base/mips.h"
#include "base/options.h"
#include "base/proc.h"
#include "com/compact_rel.h"
#include "com/elf.h"
#include "com/update.h"

namespace vesk {

namespace {

constexpr const char *COMPACT_REL = ".compact_rel";

uint32_t new_addr(uint32_t old) { return uint32_t(text_map_of(old)); }

// An address the entry needs in .text (its partner instruction).
void require_in_text(const CompactRelEntry &e, uint32_t a) {
  if (!in_text(a))
    error("%s: .compact_rel entry of type %u at %#x: its partner instruction %#x lies outside .text", option.program,
          e.type, e.vaddr, a);
}

// The instruction word that lay at old text address a in the input.
uint32_t old_insn(uint32_t a) { return word_at(bin.text_buf, (a - bin.text_lo) >> 2); }

// The new text's word at new address a.
uint8_t *new_insn(uint64_t a) {
  if (bin.new_text == nullptr || a < bin.text_lo || a >= bin.text_lo + uint64_t(bin.text_words) * 4 ||
      (a & 3) != 0)
    error("%s: the new address %#llx of a compact relocation lies outside the new .text", option.program,
          (unsigned long long)a);
  return bin.new_text + (a - bin.text_lo);
}

void patch_imm16(uint8_t *insn, uint32_t imm) { store32(insn, mips::with_imm16(load32(insn), imm)); }

// The data word that an entry of type 2 or 3 describes, in the output.  A
// word inside .text has moved with its procedure.  libelf hands some
// sections over converted to host order (.init_array, .fini_array and the
// other typed ones): their words are written in host order, the raw ones
// big-endian.
// The allocated sections of the output, in section order, read once: an
// executable has tens of thousands of data words to repair.
struct DataSections {
  struct Placed {
    Elf_Scn *scn;
    uint32_t addr, size;
    bool first_of_its_addresses; // no section in front of it shares an address with it
    bool holds(uint32_t a) const { return a >= addr && a - addr < size; }
  };
  std::vector<Placed> sections;
  // Words come in address order, mostly many to a section: the section
  // that held the last one is asked first, when it is the one the walk
  // over the sections would find.
  mutable size_t last = 0;

  DataSections() {
    for (Elf_Scn *scn = elf_nextscn(bin.out_elf, nullptr); scn != nullptr; scn = elf_nextscn(bin.out_elf, scn))
      if (const Elf32_Shdr *sh = elf32_getshdr(scn); sh != nullptr && (sh->sh_flags & SHF_ALLOC) != 0)
        sections.push_back({scn, sh->sh_addr, sh->sh_size, true});
    for (size_t i = 0; i < sections.size(); ++i)
      for (size_t j = 0; j < i; ++j)
        if (uint64_t(sections[j].addr) < uint64_t(sections[i].addr) + sections[i].size &&
            uint64_t(sections[i].addr) < uint64_t(sections[j].addr) + sections[j].size)
          sections[i].first_of_its_addresses = false;
  }
};

void set_data_word(const CompactRelEntry &e, uint32_t value, const DataSections &data) {
  if (in_text(e.vaddr)) {
    store32(new_insn(new_addr(e.vaddr)), value);
    return;
  }
  size_t from = 0;
  if (data.last < data.sections.size() && data.sections[data.last].first_of_its_addresses &&
      data.sections[data.last].holds(e.vaddr))
    from = data.last;
  for (size_t k = from; k < data.sections.size(); ++k) {
    const DataSections::Placed &s = data.sections[k];
    if (!s.holds(e.vaddr))
      continue;
    data.last = k;
    Elf_Data *d = elf_getdata(s.scn, nullptr);
    uint32_t off = e.vaddr - s.addr;
    if (d == nullptr || d->d_buf == nullptr || d->d_size < 4 || off > d->d_size - 4)
      break;
    uint8_t *p = static_cast<uint8_t *>(d->d_buf) + off;
    if (d->d_type == ELF_T_BYTE)
      store32(p, value);
    else
      std::memcpy(p, &value, 4);
    return;
  }
  error("%s: .compact_rel entry of type %u: no section of the output holds the word at %#x", option.program, e.type,
        e.vaddr);
}

// Rewrites a gp set-up pair (lui at lui_new, addiu at addiu_new) for the
// displacement value and records it in the entry.
void patch_gp_pair(CompactRelEntry &e, uint32_t lui_new, uint32_t addiu_new, uint32_t value) {
  patch_imm16(new_insn(lui_new), mips::hi16_adjusted(value));
  patch_imm16(new_insn(addiu_new), value & 0xffff);
  e.konst = value;
  e.vaddr = lui_new;
}

void update_gprel_pair(CompactRelEntry &e) {
  if (!in_text(e.vaddr))
    return;
  uint32_t addiu_old = e.vaddr + e.dist2to;
  require_in_text(e, addiu_old);
  uint32_t lui_new = new_addr(e.vaddr);
  uint32_t addiu_new = new_addr(addiu_old);
  uint32_t new_inst2 = load32(new_insn(addiu_new));
  if (mips::op(new_inst2) != mips::OP_ADDIU)
    error("%s: .compact_rel entry for the gp set-up at %#x names its addiu at %#x, but the word there is %#010x",
          option.program, e.vaddr, addiu_old, new_inst2);
  uint32_t value = (mips::imm16(old_insn(e.vaddr)) << 16) + uint32_t(mips::simm16(old_insn(addiu_old)));
  if (value != e.konst)
    warning("old_offset %#x != entry.konst[%#x] ", value, e.konst);
  // The pair computes gp - base, base being the address the set-up runs
  // at; gp is its GOT's (a program whose GOT the linker split has several).
  uint32_t gp = uint32_t(gp_at(e.vaddr));
  uint32_t base = gp - value;
  uint32_t new_base = in_text(base) ? new_addr(base) : base;
  patch_gp_pair(e, lui_new, addiu_new, gp - new_base);
}

void update_gprel_pair_nokonst(CompactRelEntry &e) {
  if (!in_text(e.vaddr))
    return;
  uint32_t addiu_old = e.vaddr + e.dist2to;
  require_in_text(e, addiu_old);
  uint32_t lui_new = new_addr(e.vaddr);
  uint32_t addiu_new = new_addr(addiu_old);
  patch_gp_pair(e, lui_new, addiu_new, uint32_t(gp_at(e.vaddr)) - addiu_new);
}

// A data word holding a code address: relative to gp (REL32) or absolute
// (WORD).  kind names the entry in the warning when the word itself lies in
// the text and moves with it.
void update_data_word(CompactRelEntry &e, bool gp_relative, const char *kind, const DataSections &data) {
  if (!in_text(e.konst))
    return;
  uint32_t target = new_addr(e.konst);
  set_data_word(e, gp_relative ? target - uint32_t(gp_at(e.vaddr)) : target, data);
  if (in_text(e.vaddr)) {
    uint32_t moved = new_addr(e.vaddr);
    warning("%s %#x updated to %#x", kind, e.vaddr, moved);
    e.vaddr = moved;
  }
  e.konst = target;
}

// %hi/%lo pair: the entry names the LO, the HI lies dist2to bytes before it.
void update_hi_lo(CompactRelEntry &e) {
  if (!in_text(e.vaddr))
    error("%s: .compact_rel %%hi/%%lo entry at %#x lies outside .text", option.program, e.vaddr);
  uint32_t hi_old = e.vaddr - e.dist2to;
  require_in_text(e, hi_old);
  uint32_t value = (mips::imm16(old_insn(hi_old)) << 16) + uint32_t(mips::simm16(old_insn(e.vaddr)));
  if (!in_text(value))
    return;
  if (value != e.konst)
    warning("konst %#x != old_address %#x in CM_R_TYPE_HI_LO", e.konst, value);
  uint32_t target = new_addr(value);
  uint32_t lo_new = new_addr(e.vaddr);
  patch_imm16(new_insn(lo_new), target & 0xffff);
  patch_imm16(new_insn(new_addr(hi_old)), mips::hi16_adjusted(target));
  e.vaddr = lo_new;
  e.konst = target;
}

// The GOT entry that every page load serving the old code address old
// reads once the code has moved to new_addr, and the low half that goes
// with it: the page the linker chose when it still reaches, else the first
// entry that never changes at run time and reaches.  Every page load and
// offset instruction of one address computes the same answer, whichever
// of them vesk meets first.
struct GotPages {
  std::unordered_map<uint32_t, uint32_t> index_of_page; // page value -> first page entry holding it

  GotPages() {
    size_t n = std::min<size_t>(bin.local_gotno, bin.got_count);
    for (size_t i = n; i-- > 1;)
      if (i < bin.got_page.size() && bin.got_page[i])
        index_of_page[load32(bin.got_buf + i * 4)] = uint32_t(i);
  }

  // gp: the one the code uses; the primary GOT's page entries serve only
  // code using the primary gp.
  uint32_t entry_for(uint32_t old, uint32_t new_addr, int32_t *low, uint32_t gp) const {
    auto k = index_of_page.find((old + 0x8000) & 0xffff0000u);
    if (k != index_of_page.end() && gp == bin.gp_value) {
      int32_t d = int32_t(new_addr - load32(bin.got_buf + size_t(k->second) * 4));
      if (d >= -32768 && d <= 32767) {
        *low = d;
        return k->second;
      }
    }
    uint32_t index;
    // A secondary GOT's page entries (which may have taken other pages)
    // are searched as they are now.
    if (!try_local_got_entry_for_addr(new_addr, &index, low, gp)) {
      const Proc *p = get_proc_by_addr(old);
      if (gp != bin.gp_value)
        error("cannot find appropriate got entry for %#x: no page entry of the GOT whose gp is %#x lies within 32 "
              "KB of the new address of %s, which code using that GOT reaches through a GOT page; %s cannot be "
              "laid out there",
              new_addr, gp, p && p->name ? p->name : "a procedure", option.program);
      error("cannot find appropriate got entry for %#x: no GOT entry that stays as it is lies within 32 KB of "
            "the new address of %s, which code reaches through a GOT page; %s cannot be laid out there",
            new_addr, p && p->name ? p->name : "a procedure", option.program);
    }
    return index;
  }
};

// A described instruction must form the address its entry names; one that
// does not means the section is damaged or describes another program, and
// repairing by it would write a wrong program.
void require_match(const CompactRelEntry &e, uint32_t insn, bool matches) {
  if (!matches)
    error("%s: the %s entry for %#x (type %u, address %#x) does not match the instruction there, %#010x",
          option.program, COMPACT_REL, e.vaddr, e.type, e.konst, insn);
}

// One instruction of a GOT page/offset pair, described alone: the page
// load (lw from gp) gets the page entry's gp offset, the offset
// instruction the low half.
void update_got_single(CompactRelEntry &e, const GotPages &pages) {
  if (!in_text(e.vaddr))
    return;
  uint32_t insn = old_insn(e.vaddr);
  bool page_load = mips::op(insn) == mips::OP_LW && mips::rs(insn) == 28;
  uint32_t gp = uint32_t(gp_at(e.vaddr));
  // The offset instruction's low half depends on which page entry the
  // page load reads (a rewritten program may use another than the linker's),
  // so only the page load can be checked on its own.
  if (page_load) {
    int64_t d = int64_t(e.konst) - int64_t(uint32_t(got_content_by_gpoffset(mips::simm16(insn), gp)));
    require_match(e, insn, d >= -32768 && d <= 32767);
  }
  if (!in_text(e.konst))
    return;
  uint32_t target = new_addr(e.konst);
  int32_t low;
  uint32_t index = pages.entry_for(e.konst, target, &low, gp);
  uint32_t moved = new_addr(e.vaddr);
  if (page_load)
    patch_imm16(new_insn(moved), index * 4 + bin.pltgot - gp);
  else
    patch_imm16(new_insn(moved), uint32_t(low));
  e.vaddr = moved;
  e.konst = target;
}

// One instruction of a %hi/%lo pair, described alone.
void update_hi_lo_single(CompactRelEntry &e) {
  if (!in_text(e.vaddr))
    error("%s: .compact_rel %%hi/%%lo entry at %#x lies outside .text", option.program, e.vaddr);
  uint32_t insn = old_insn(e.vaddr);
  bool hi = mips::op(insn) == mips::OP_LUI;
  require_match(e, insn, mips::imm16(insn) == (hi ? mips::hi16_adjusted(e.konst) : e.konst & 0xffff));
  if (!in_text(e.konst))
    return;
  uint32_t target = new_addr(e.konst);
  uint32_t moved = new_addr(e.vaddr);
  patch_imm16(new_insn(moved), hi ? mips::hi16_adjusted(target) : target & 0xffff);
  e.vaddr = moved;
  e.konst = target;
}

// GOT page/offset pair: the entry names the offset instruction, the page
// load lies dist2to bytes before it; konst is the code address formed.
void update_got_pair(CompactRelEntry &e) {
  if (!in_text(e.vaddr))
    return;
  // A pair forming an address outside .text has nothing that moved.
  if (!in_text(e.konst))
    return;
  uint32_t page_old = e.vaddr - e.dist2to;
  require_in_text(e, page_old);
  uint64_t gp = gp_at(page_old);
  uint32_t got_index = got_index_by_gpoffset(mips::simm16(old_insn(page_old)), gp);
  uint32_t offset_new = new_addr(e.vaddr);
  int32_t low = mips::simm16(load32(new_insn(offset_new)));
  update_got_page(new_addr(page_old), low, got_index, e.konst, gp);
  update_got_offset(offset_new, low, got_index, e.konst, gp);
  e.vaddr = offset_new;
  e.konst = new_addr(e.konst);
}

void update_entry(CompactRelEntry &e, const GotPages &pages, const DataSections &data) {
  switch (e.type) {
  case CR_REL32: update_data_word(e, true, "REL32", data); break;
  case CR_WORD: update_data_word(e, false, "WORD", data); break;
  case CR_GP_DISP: update_gprel_pair(e); break;
  case CR_GOT_PAIR: e.dist2to == 0 ? update_got_single(e, pages) : update_got_pair(e); break;
  case CR_GP_DISP_NOKONST: update_gprel_pair_nokonst(e); break;
  case CR_HI_LO: e.dist2to == 0 ? update_hi_lo_single(e) : update_hi_lo(e); break;
  default: error("%s: unknown compact relocation type %d at %#x", option.program, int(e.type), e.vaddr);
  }
}

// Length of the header: the (tag, value) pairs up to and including the
// pair with tag 0.  Tag 1 gives the number of entries.
size_t read_header(const uint8_t *buf, size_t size, uint32_t *count) {
  *count = 0;
  for (size_t off = 0; off + 8 <= size; off += 8) {
    uint32_t tag = load32(buf + off);
    if (tag == 0)
      return off + 8;
    if (tag == 1)
      *count = load32(buf + off + 4);
  }
  error("%s: the %s header has no terminating pair inside the section", option.program, COMPACT_REL);
}

} // namespace

void read_got_page_marks() {
  bin.got_page.clear();
  bin.got_pages_known = false;
  Elf_Data *d = find_section_data_by_name(bin.in_elf, COMPACT_REL);
  if (d == nullptr || d->d_buf == nullptr)
    return;
  const uint8_t *buf = static_cast<const uint8_t *>(d->d_buf);
  uint32_t count;
  size_t header_length = read_header(buf, d->d_size, &count);
  for (size_t off = 0; off + 8 < header_length; off += 8) {
    uint32_t tag = load32(buf + off), value = load32(buf + off + 4);
    if (tag == CR_TAG_GOT_PAGES) {
      bin.got_pages_known = true;
    } else if (tag == CR_TAG_GOT_PAGE) {
      if (value == 0 || value >= bin.got_count)
        error("%s: the %s header names GOT entry %u, which .got does not have", option.program, COMPACT_REL, value);
      if (bin.got_page.size() <= value)
        bin.got_page.resize(size_t(bin.got_count), 0);
      bin.got_page[value] = 1;
    }
  }
}

std::vector<PageUse> compact_rel_page_uses() {
  std::vector<PageUse> out;
  Elf_Data *d = find_section_data_by_name(bin.in_elf, COMPACT_REL);
  if (d == nullptr || d->d_buf == nullptr)
    return out;
  const uint8_t *buf = static_cast<const uint8_t *>(d->d_buf);
  CompactRelCursor cm{};
  size_t header_length = read_header(buf, d->d_size, &cm.rlc_no);
  cm.rlc_ptr = buf + header_length;
  cm.end = buf + d->d_size;
  cm_rlc_reset(&cm);
  CompactRelEntry e;
  while (cm_rlc_get(&cm, &e))
    if (e.type == CR_GOT_PAIR && in_text(e.konst) && in_text(e.vaddr - e.dist2to))
      out.push_back({gp_at(e.vaddr - e.dist2to), new_addr(e.konst)});
  return out;
}

void update_compact_rel() {
  Elf_Scn *scn = find_section_by_name(bin.out_elf, COMPACT_REL);
  if (scn == nullptr)
    error("%s: no %s section and no relocations of .text to describe its code addresses with; link it with -Wl,-q",
          option.program, COMPACT_REL);
  Elf_Data *d = elf_getdata(scn, nullptr);
  if (d == nullptr || (d->d_buf == nullptr && d->d_size != 0))
    error("%s: cannot read the %s section", option.program, COMPACT_REL);
  const uint8_t *buf = static_cast<const uint8_t *>(d->d_buf);
  size_t size = d->d_size;

  CompactRelCursor cm{};
  size_t header_length = read_header(buf, size, &cm.rlc_no);
  cm.rlc_ptr = buf + header_length;
  cm.end = buf + size;
  CompactRelWriter out(buf, header_length);
  cm_rlc_reset(&cm);

  GotPages pages;
  DataSections data;
  CompactRelEntry e;
  // The input's code is read here for the last time, in address order: its
  // pages go behind the walk, a little behind it for the partner
  // instructions in front (one further back is fetched again).
  DropBehind code_read(bin.text_buf, size_t(bin.text_words) * 4);
  constexpr uint32_t kPartnersBehind = 1 << 16;
  while (cm_rlc_get(&cm, &e)) {
    update_entry(e, pages, data);
    out.add_cr(e.type, e.konst, e.dist2to, e.vaddr);
    if (in_text(e.vaddr) && e.vaddr - bin.text_lo > kPartnersBehind)
      code_read.reached(e.vaddr - bin.text_lo - kPartnersBehind);
  }

  // A stream that became shorter is padded: the count in the header says
  // where it ends, and nothing behind the section has to move.
  std::vector<uint8_t> &bytes = bin.out_buffers.emplace_back(std::move(out.bytes()));
  if (bytes.size() < size)
    bytes.resize(size, 0);
  else if (bytes.size() > size)
    expand_section(scn, uint32_t(bytes.size() - size));
  d->d_buf = bytes.data();
  d->d_size = bytes.size();
}

} // namespace vesk
