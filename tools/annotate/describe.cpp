// How the kept relocations become .compact_rel entries.
//
// The words of the executable hold final values, not the addends the
// relocations were made with, so every address is computed from the
// instruction and data words themselves; the relocations only tell what
// kind of reference a word is and which instructions pair up.
//
// Pairing of %hi (or GOT page loads) with %lo follows the assembler's
// ordering of the relocation table: every R_MIPS_HI16 / local R_MIPS_GOT16
// is placed directly in front of the R_MIPS_LO16 it matches.  A further
// %lo that reuses a %hi has no relocation of it in front (the %hi's own may
// even come later in the table); its %hi is the nearest one before it in
// the code, of the same symbol, that loads the register the %lo uses.
#include "tools/annotate/describe.h"

#include <algorithm>
#include <map>
#include <set>

#include "vesk/diag.h"
#include "vesk/mips.h"

namespace vesk::annotate {

namespace {

constexpr uint32_t CR_REL32 = 2, CR_WORD = 3, CR_GP_DISP = 4, CR_GOT_PAIR = 5, CR_HI_LO = 7;
constexpr uint32_t MAX_DIST = 255 * 4; // what the entry's 8-bit word distance can say
constexpr const char *KEEP_TOGETHER = "compile with -mno-explicit-relocs, which keeps each address pair together";

struct Hi {
  uint32_t offset; // address of the %hi or GOT page load
  uint32_t sym;
  bool got;
};

struct Use {
  uint32_t lo;
  uint32_t formed;
};

const char *hi_kind(bool got) { return got ? "GOT page load" : "%hi"; }

class Describer {
public:
  explicit Describer(const Image &im) : im_(im) {}

  void add(const RelSection &rs) {
    rs_ = &rs;
    pending_.clear();
    seen_.clear();
    bool code = (rs.target->sh.sh_flags & SHF_EXECINSTR) != 0;
    if (code)
      for (const Elf32_Rel &r : rs.rels)
        if (Hi h; hi_of(r, &h))
          seen_[h.sym][h.offset] = h;
    for (const Elf32_Rel &r : rs.rels) {
      uint32_t type = ELF32_R_TYPE(r.r_info);
      uint32_t sym = ELF32_R_SYM(r.r_info);
      switch (type) {
      case R_MIPS_32: data_word(r.r_offset, false); break;
      case R_MIPS_GPREL32: data_word(r.r_offset, true); break;
      case R_MIPS_HI16:
      case R_MIPS_GOT16:
        if (Hi h; code && hi_of(r, &h))
          pending_.push_back(h);
        break;
      case R_MIPS_LO16:
        if (code)
          lo(checked(r.r_offset), sym);
        break;
      default: break;
      }
    }
  }

  std::vector<CompactRelEntry> finish() {
    check_shared_his();
    std::stable_sort(out_.begin(), out_.end(),
                     [](const CompactRelEntry &a, const CompactRelEntry &b) { return a.vaddr < b.vaddr; });
    auto same = [](const CompactRelEntry &a, const CompactRelEntry &b) {
      return a.vaddr == b.vaddr && a.type == b.type && a.dist2to == b.dist2to && a.konst == b.konst;
    };
    out_.erase(std::unique(out_.begin(), out_.end(), same), out_.end());
    return out_;
  }

private:
  const Image &im_;
  const RelSection *rs_ = nullptr;
  std::vector<Hi> pending_;                               // %hi waiting for their %lo
  std::map<uint32_t, std::map<uint32_t, Hi>> seen_;       // every %hi of the section, by symbol and address
  std::map<uint32_t, std::vector<Use>> uses_;             // what each %hi helps to form
  std::vector<CompactRelEntry> out_;

  const char *path() const { return im_.path.c_str(); }

  // A relocated word must lie inside the section the relocations patch.
  uint32_t checked(uint32_t addr) const {
    const Elf32_Shdr &sh = rs_->target->sh;
    if (addr < sh.sh_addr || uint64_t(addr) + 4 > uint64_t(sh.sh_addr) + sh.sh_size || (addr & 3) != 0)
      error("%s: a relocation of %s names %#x, which is not a word of %s", path(), rs_->section->name.c_str(), addr,
            rs_->target->name.c_str());
    return addr;
  }

  uint32_t word(uint32_t addr) const { return im_.word(*rs_->target, addr); }

  void data_word(uint32_t addr, bool gp_relative) {
    if (rs_->target->raw == nullptr)
      return; // .bss and the like hold nothing yet
    uint32_t v = word(checked(addr));
    if (gp_relative) {
      if (im_.gp_value == 0)
        error("%s: a gp-relative word at %#x, but the executable has no gp value", path(), addr);
      v += im_.gp_value;
    }
    if (im_.in_text(v))
      out_.push_back({gp_relative ? CR_REL32 : CR_WORD, v, 0, addr});
  }

  // The relocation as a %hi or GOT page load.  Against a global symbol
  // the GOT entry holds the whole address, which vesk repairs in the GOT
  // itself: such a load pairs with nothing.
  bool hi_of(const Elf32_Rel &r, Hi *h) const {
    uint32_t type = ELF32_R_TYPE(r.r_info);
    uint32_t sym = ELF32_R_SYM(r.r_info);
    if (type == R_MIPS_HI16)
      *h = {checked(r.r_offset), sym, false};
    else if (type == R_MIPS_GOT16 && im_.symbol_is_local(sym))
      *h = {checked(r.r_offset), sym, true};
    else
      return false;
    return true;
  }

  void lo(uint32_t lo_addr, uint32_t sym) {
    std::vector<Hi> his;
    auto keep = pending_.begin();
    for (const Hi &h : pending_) {
      if (h.sym == sym)
        his.push_back(h);
      else
        *keep++ = h;
    }
    pending_.erase(keep, pending_.end());
    if (his.empty()) {
      unpaired_lo(lo_addr, sym);
      return;
    }
    for (const Hi &h : his)
      pair(h, lo_addr);
  }

  // The address that a %hi (or GOT page load) and a %lo form together.
  uint32_t formed(const Hi &h, uint32_t lo_addr) const {
    int32_t low = mips::simm16(word(lo_addr));
    if (!h.got)
      return (mips::imm16(word(h.offset)) << 16) + uint32_t(low);
    if (im_.gp_value == 0)
      error("%s: a GOT page load at %s, but the executable has no gp value", path(), im_.where(h.offset).c_str());
    uint32_t entry = im_.gp_value + uint32_t(mips::simm16(word(h.offset)));
    const Section *got = im_.section_holding(entry, 4);
    if (got == nullptr || im_.got == nullptr || got != im_.got)
      error("%s: the GOT page load at %s reads %#x, which is not in .got", path(), im_.where(h.offset).c_str(), entry);
    return im_.word(*got, entry) + uint32_t(low);
  }

  void pair(const Hi &h, uint32_t lo_addr) {
    if (!h.got && im_.symbol_name(h.sym) == "_gp_disp") {
      gp_disp(h, lo_addr);
      return;
    }
    uint32_t f = formed(h, lo_addr);
    uses_[h.offset].push_back({lo_addr, f});
    if (!im_.in_text(f))
      return;
    const char *kind = hi_kind(h.got);
    if (!im_.in_text(h.offset) || !im_.in_text(lo_addr))
      error("%s: the %s at %s and the %%lo at %s form the code address %#x outside .text, where they cannot be "
            "repaired",
            path(), kind, im_.where(h.offset).c_str(), im_.where(lo_addr).c_str(), f);
    if (h.offset >= lo_addr)
      error("%s: the %%lo at %s pairs with a %s at %s that lies after it; %s", path(), im_.where(lo_addr).c_str(),
            kind, im_.where(h.offset).c_str(), KEEP_TOGETHER);
    if (lo_addr - h.offset > MAX_DIST)
      error("%s: the %%lo at %s pairs with a %s at %s, %u words before it (at most 255 can be described); %s",
            path(), im_.where(lo_addr).c_str(), kind, im_.where(h.offset).c_str(), (lo_addr - h.offset) / 4,
            KEEP_TOGETHER);
    out_.push_back({h.got ? CR_GOT_PAIR : CR_HI_LO, f, lo_addr - h.offset, lo_addr});
  }

  // lui/addiu of _gp_disp: gp minus the address the set-up runs at.  Only a
  // set-up inside .text moves.
  void gp_disp(const Hi &h, uint32_t lo_addr) {
    if (!im_.in_text(h.offset))
      return;
    if (!im_.in_text(lo_addr) || lo_addr <= h.offset || lo_addr - h.offset > MAX_DIST)
      error("%s: the _gp_disp set-up at %s has its %%lo at %s, which cannot be described; %s", path(),
            im_.where(h.offset).c_str(), im_.where(lo_addr).c_str(), KEEP_TOGETHER);
    uint32_t value = (mips::imm16(word(h.offset)) << 16) + uint32_t(mips::simm16(word(lo_addr)));
    out_.push_back({CR_GP_DISP, value, lo_addr - h.offset, h.offset});
  }

  bool symbol_in_text(uint32_t sym) const {
    return sym < im_.symbols.size() && im_.symbols[sym].st_shndx == im_.text->index;
  }

  // A %lo with no relocation of its own %hi in front of it reuses a %hi of
  // the same symbol before it in the code: one that loads the register the
  // %lo adds to, within reach.  A %lo of a symbol outside .text cannot form a
  // code address and needs no %hi.
  void unpaired_lo(uint32_t lo_addr, uint32_t sym) {
    if (!symbol_in_text(sym))
      return;
    uint32_t base = mips::rs(word(lo_addr));
    const Hi *nearest = nullptr;
    std::set<uint32_t> addresses;
    auto it = seen_.find(sym);
    if (it != seen_.end()) {
      uint32_t from = lo_addr > MAX_DIST ? lo_addr - MAX_DIST : 0;
      for (auto h = it->second.lower_bound(from); h != it->second.end() && h->first < lo_addr; ++h) {
        if (mips::rt(word(h->first)) != base)
          continue;
        nearest = &h->second;
        addresses.insert(formed(h->second, lo_addr));
      }
    }
    if (nearest == nullptr)
      error("%s: the %%lo at %s refers to code, but no %%hi or GOT page load for it lies within 255 words before "
            "it; %s",
            path(), im_.where(lo_addr).c_str(), KEEP_TOGETHER);
    if (addresses.size() > 1)
      error("%s: the %%lo at %s refers to code through one of several %%hi that form different addresses; %s",
            path(), im_.where(lo_addr).c_str(), KEEP_TOGETHER);
    pair(*nearest, lo_addr);
  }

  // A %hi (or page load) shared by references to different addresses
  // cannot follow them when one of them is code that moves.
  void check_shared_his() const {
    for (const auto &[hi, uses] : uses_) {
      for (const Use &u : uses) {
        const Use &first = uses.front();
        if (u.formed == first.formed || (!im_.in_text(u.formed) && !im_.in_text(first.formed)))
          continue;
        bool got = mips::op(im_.word(*im_.section_holding(hi, 4), hi)) != mips::OP_LUI;
        error("%s: the %s at %s is shared by references to different addresses (%#x by the %%lo at %s, %#x by the "
              "%%lo at %s); %s",
              path(), hi_kind(got), im_.where(hi).c_str(), first.formed, im_.where(first.lo).c_str(), u.formed,
              im_.where(u.lo).c_str(), KEEP_TOGETHER);
      }
    }
  }
};

} // namespace

std::vector<CompactRelEntry> describe_references(const Image &im) {
  Describer d(im);
  for (const RelSection &rs : im.rel_sections)
    d.add(rs);
  return d.finish();
}

} // namespace vesk::annotate
