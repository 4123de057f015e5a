// How the kept relocations become .compact_rel entries.
//
// The words of the executable hold final values, not the addends the
// relocations were made with, so every address is computed from the
// instruction and data words themselves; the relocations only tell what
// kind of reference a word is.
//
// Each %hi (or GOT page load) and each %lo is described on its own, with
// the address it helps to form, so vesk can rewrite it without knowing its
// partner: every instruction that serves one address gets the same new
// page and low half.  What a %hi serves is what the linker computed it
// for: the %lo that the assembler placed behind its relocation in the
// table (same symbol and addend).  What a %lo serves follows from the
// instruction that loads its base register: the nearest writer of that
// register before it in the function, or, when that is not a %hi (a loop
// whose set-up the compiler placed behind it, a cold part that uses what
// the hot part loaded, a page kept on the stack), the %hi of the same
// symbol in the same function whose address agrees with the %lo.
#include "com/annotate/describe.h"

#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "base/diag.h"
#include "base/mips.h"

namespace vesk::annotate {

namespace {

constexpr uint32_t MAX_DIST = 255 * 4; // what an entry's 8-bit word distance can say
constexpr const char *KEEP_TOGETHER = "compile with -mno-explicit-relocs, which keeps each address pair together";
constexpr uint32_t GP = 28;

struct Hi {
  uint32_t offset; // address of the %hi or GOT page load
  uint32_t sym;
  bool got;
  const Section *sec;
  std::optional<uint32_t> formed; // the address the linker computed it for
};

struct Lo {
  uint32_t offset;
  uint32_t sym;
  const Section *sec;
};

const char *hi_kind(bool got) { return got ? "GOT page load" : "%hi"; }

// A function of the symbol table; cold parts share the group of their
// hot part (foo and foo.cold), since the cold part uses what the hot part
// loaded.
struct Function {
  uint32_t lo, hi;
  size_t group;
};

class Describer {
public:
  explicit Describer(const Image &im) : im_(im), gps_(im) { index_functions(); }

  // The gp set-ups, before anything else: which GOT a function's code
  // reads follows from them.  PIC code adds _gp_disp (gp minus the lui's
  // address) to $25; position-dependent code loads __gnu_local_gp, which
  // the linker sets to the gp of each object's GOT.
  void find_setups(const RelSection &rs) {
    if ((rs.target->sh.sh_flags & SHF_EXECINSTR) == 0 || rs.target->raw == nullptr || !gps_.multi())
      return;
    rs_ = &rs;
    uint32_t hi = 0; // the pending lui, 0 when none
    bool absolute = false;
    for (const Elf32_Rel &r : rs.rels) {
      uint32_t type = ELF32_R_TYPE(r.r_info);
      if (type != R_MIPS_HI16 && type != R_MIPS_LO16)
        continue;
      std::string_view name = im_.symbol_name(ELF32_R_SYM(r.r_info));
      if (name != "_gp_disp" && name != "__gnu_local_gp")
        continue;
      uint32_t at = checked(r.r_offset);
      if (type == R_MIPS_HI16) {
        hi = at;
        absolute = name == "__gnu_local_gp";
        continue;
      }
      if (hi == 0 || absolute != (name == "__gnu_local_gp"))
        continue;
      uint32_t gp = (absolute ? 0 : hi) + (mips::imm16(word(hi)) << 16) + uint32_t(mips::simm16(word(at)));
      if (gps_.got_of_gp(gp) == nullptr)
        error("%s: the gp set-up at %s computes the gp %#x, which is no GOT's; vesk cannot tell which GOT "
              "its function reads",
              path(), im_.where(hi).c_str(), gp);
      if (gp != im_.gp_value && !gps_.set_function_gp(hi, gp))
        error("%s: the gp set-up at %s computes a secondary GOT's gp outside every function symbol", path(),
              im_.where(hi).c_str());
      setups_.push_back({hi, gp});
      hi = 0;
    }
  }

  void setups_found() {
    if (!gps_.multi())
      return;
    gps_.freeze();
    for (const auto &[at, gp] : setups_)
      if (gps_.gp_at(at) != gp)
        error("%s: the gp set-up at %s computes the gp %#x, but other code of its function uses another GOT",
              path(), im_.where(at).c_str(), gp);
  }

  void add(const RelSection &rs) {
    // vesk re-points the unwind tables itself, whatever their pointers'
    // encoding: an absolute FDE location need not be a whole word there.
    if (rs.target->name == ".eh_frame" || rs.target->name == ".debug_frame")
      return;
    rs_ = &rs;
    std::vector<size_t> pending;   // %hi waiting for the %lo behind them in the table
    std::vector<Hi> pending_gp;    // _gp_disp %hi
    bool code = (rs.target->sh.sh_flags & SHF_EXECINSTR) != 0;
    for (const Elf32_Rel &r : rs.rels) {
      uint32_t type = ELF32_R_TYPE(r.r_info);
      uint32_t sym = ELF32_R_SYM(r.r_info);
      switch (type) {
      case R_MIPS_32: data_word(r.r_offset, false); break;
      case R_MIPS_GPREL32:
        // Relative to the gp of the code that reads it, which is known
        // once every table load has been seen.
        if (rs_->target->raw != nullptr)
          gp_words_.push_back({checked(r.r_offset), rs_->target});
        break;
      case R_MIPS_CALL16:
        if (code && gps_.multi())
          exact_reads_.push_back(got_index_at(checked(r.r_offset)));
        break;
      case R_MIPS_HI16:
      case R_MIPS_GOT16:
        if (type == R_MIPS_GOT16 && code && gps_.multi() && !im_.symbol_is_local(sym))
          exact_reads_.push_back(got_index_at(checked(r.r_offset)));
        if (Hi h; code && hi_of(r, &h)) {
          if (!h.got && im_.symbol_name(sym) == "_gp_disp") {
            pending_gp.push_back(h);
          } else {
            his_.push_back(h);
            hi_at_.push_back({h.offset, his_.size() - 1});
            his_of_sym_.push_back({h.sym, his_.size() - 1});
            pending.push_back(his_.size() - 1);
          }
        }
        break;
      case R_MIPS_LO16:
        if (code)
          lo(checked(r.r_offset), sym, pending, pending_gp);
        break;
      case R_MIPS_JALR:
        if (code) {
          unrelax(checked(r.r_offset));
          if (sym < im_.symbols.size() && im_.symbols[sym].st_shndx != SHN_UNDEF)
            call_target_.push_back({r.r_offset, uint32_t(im_.symbols[sym].st_value)});
        }
        break;
      default: break;
      }
    }
  }

  Description finish() {
    index_his();
    gp_relative_words();
    // The address every %lo serves, and which %hi feed it.
    std::vector<std::optional<uint32_t>> lo_formed(los_.size());
    for (size_t i = 0; i < los_.size(); ++i)
      lo_formed[i] = serve(i);
    // Each %hi's users together, the %hi in order, each one's users in
    // the order they were found.
    std::stable_sort(users_.begin(), users_.end(), [](const auto &a, const auto &b) { return a.first < b.first; });
    // A %hi that the table paired with no %lo serves what its users serve.
    for_each_users([&](size_t h, const std::pair<size_t, size_t> *first, const std::pair<size_t, size_t> *last) {
      Hi &hi = his_[h];
      if (hi.formed)
        return;
      std::optional<uint32_t> seen;
      bool several = false;
      for (auto *u = first; u != last; ++u)
        if (lo_formed[u->second]) {
          several = several || (seen && *seen != *lo_formed[u->second]);
          seen = *lo_formed[u->second];
        }
      if (seen && !several)
        hi.formed = *seen;
    });
    check_shared_his(lo_formed);

    std::vector<uint32_t> pages;
    for (const Hi &h : his_) {
      if (h.got)
        pages.push_back(got_index(h));
      if (!h.formed || !im_.in_text(*h.formed))
        continue;
      if (!im_.in_text(h.offset))
        error("%s: the %s at %s forms the code address %#x outside .text, where it cannot be repaired", path(),
              hi_kind(h.got), im_.where(h.offset).c_str(), *h.formed);
      out_.push_back({h.got ? CR_GOT_PAIR : CR_HI_LO, *h.formed, 0, h.offset});
    }
    for (size_t i = 0; i < los_.size(); ++i) {
      if (!lo_formed[i] || !im_.in_text(*lo_formed[i]))
        continue;
      if (!im_.in_text(los_[i].offset))
        error("%s: the %%lo at %s forms the code address %#x outside .text, where it cannot be repaired", path(),
              im_.where(los_[i].offset).c_str(), *lo_formed[i]);
      out_.push_back({got_lo_[i] ? CR_GOT_PAIR : CR_HI_LO, *lo_formed[i], 0, los_[i].offset});
    }

    got_pages_ = as_set(pages);

    std::stable_sort(out_.begin(), out_.end(),
                     [](const CompactRelEntry &a, const CompactRelEntry &b) { return a.vaddr < b.vaddr; });
    auto same = [](const CompactRelEntry &a, const CompactRelEntry &b) {
      return a.vaddr == b.vaddr && a.type == b.type && a.dist2to == b.dist2to && a.konst == b.konst;
    };
    out_.erase(std::unique(out_.begin(), out_.end(), same), out_.end());
    Description d;
    d.entries = std::move(out_);
    give_spares_pages(d);
    d.gp_ranges = gps_.ranges();
    d.got_pages.assign(got_pages_.begin(), got_pages_.end());
    {
      // Entries something else than a described page load of code reads.
      std::vector<uint32_t> fixed = std::move(exact_reads_);
      for (const Hi &h : his_)
        if (h.got && (!im_.in_text(h.offset) || !h.formed || !im_.in_text(*h.formed)))
          fixed.push_back(got_index(h));
      d.free_pages =
          free_page_entries(im_, gps_, got_pages_, as_set(fixed), [this](uint32_t k) { return got_word(im_, k); });
    }
    d.patches = std::move(patches_);
    return d;
  }

private:
  const Image &im_;
  GpMap gps_;
  std::vector<std::pair<uint32_t, uint32_t>> setups_; // _gp_disp lui -> the gp it computes
  std::vector<std::pair<uint32_t, const Section *>> gp_words_; // gp-relative data words
  std::vector<uint32_t> exact_reads_; // GOT entries that loads of global symbols' addresses read (repeats too)
  const RelSection *rs_ = nullptr;
  std::vector<Function> functions_; // by start address
  std::vector<Hi> his_;
  // Lookups by address or symbol come once every relocation is read: these
  // are filled as pairs and sorted then (index_his), which costs far less
  // than a node per %hi.
  std::vector<std::pair<uint32_t, size_t>> hi_at_;      // address -> %hi (the last at an address)
  std::vector<std::pair<uint32_t, size_t>> his_of_sym_; // symbol -> its %hi, in the order read
  std::vector<Lo> los_;
  std::vector<bool> got_lo_;                          // the %lo adds to a GOT page
  std::vector<std::pair<size_t, size_t>> users_;      // %hi -> a %lo it feeds
  std::set<uint32_t> got_pages_;
  std::vector<std::pair<uint32_t, uint32_t>> call_target_; // jalr $25 -> the function its relocation names (the last)

  // Sorts the lookups of the %hi and the calls.  Of several entries for
  // one address the last read counts.
  void index_his() {
    auto last_wins = [](auto &v) {
      std::stable_sort(v.begin(), v.end(), [](const auto &a, const auto &b) { return a.first < b.first; });
      size_t out = 0;
      for (size_t i = 0; i < v.size(); ++i) {
        if (i + 1 < v.size() && v[i + 1].first == v[i].first)
          continue;
        v[out++] = v[i];
      }
      v.resize(out);
    };
    last_wins(hi_at_);
    last_wins(call_target_);
    std::stable_sort(his_of_sym_.begin(), his_of_sym_.end(),
                     [](const auto &a, const auto &b) { return a.first < b.first; });
  }

  template <class V> static auto find_key(const V &v, uint32_t key) {
    auto it = std::lower_bound(v.begin(), v.end(), key, [](const auto &e, uint32_t k) { return e.first < k; });
    return it != v.end() && it->first == key ? &*it : nullptr;
  }

  // Calls f(h, first, last) for each %hi h with users, over its run of
  // users_ (sorted by %hi).
  template <class F> void for_each_users(F f) const {
    for (size_t i = 0; i < users_.size();) {
      size_t j = i;
      while (j < users_.size() && users_[j].first == users_[i].first)
        ++j;
      f(users_[i].first, users_.data() + i, users_.data() + j);
      i = j;
    }
  }
  std::vector<std::pair<uint64_t, uint32_t>> patches_;
  std::vector<CompactRelEntry> out_;

  const char *path() const { return im_.path.c_str(); }

  // The set of the indexes in v, built in one pass from them sorted (a
  // node per relocation inserted one by one cost more than the rest of
  // the description).
  static std::set<uint32_t> as_set(std::vector<uint32_t> &v) {
    std::sort(v.begin(), v.end());
    v.erase(std::unique(v.begin(), v.end()), v.end());
    return std::set<uint32_t>(v.begin(), v.end());
  }

  // Spare GOT entries take the pages of the stretches of .text that no
  // page entry reaches.
  void give_spares_pages(Description &d) {
    auto value = [this](uint32_t k) { return got_word(im_, k); };
    for (const auto &[index, page] : pages_for_spares(im_, gps_, got_pages_, got_pages_, value)) {
      d.got_entries.push_back({index, page});
      d.page_spares.push_back(index);
      got_pages_.insert(index);
    }
  }

  void index_functions() {
    for (size_t i = 0; i < im_.symbols.size(); ++i) {
      uint32_t g = im_.function_group[i];
      if (g == Image::kNoGroup)
        continue;
      const GElf_Sym &s = im_.symbols[i];
      functions_.push_back({uint32_t(s.st_value), uint32_t(s.st_value + s.st_size), g});
    }
    std::sort(functions_.begin(), functions_.end(),
              [](const Function &a, const Function &b) { return a.lo < b.lo; });
  }

  const Function *function_at(uint32_t addr) const {
    auto it = std::upper_bound(functions_.begin(), functions_.end(), addr,
                               [](uint32_t a, const Function &f) { return a < f.lo; });
    if (it == functions_.begin())
      return nullptr;
    --it;
    return addr < it->hi ? &*it : nullptr;
  }

  // A relocated word must lie inside the section the relocations patch.
  uint32_t checked(uint32_t addr) const {
    const GElf_Shdr &sh = rs_->target->sh;
    if (rs_->target->raw == nullptr || addr < sh.sh_addr || uint64_t(addr) + 4 > uint64_t(sh.sh_addr) + sh.sh_size ||
        (addr & 3) != 0)
      error("%s: a relocation of %s names %#x, which is not a word of %s", path(), rs_->section->name.c_str(), addr,
            rs_->target->name.c_str());
    return addr;
  }

  uint32_t word(const Section &s, uint32_t addr) const { return im_.word(s, addr); }
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

  // The gp-relative words (jump tables).  With several GOTs a word is
  // relative to the gp of the code that loads its table through a GOT
  // page: the table that starts nearest in front of it in its section.
  void gp_relative_words() {
    std::map<uint32_t, uint32_t> table_gp; // table start -> gp of the code loading it
    if (gps_.multi())
      for (const Hi &h : his_)
        if (h.got && h.formed && !im_.in_text(*h.formed))
          table_gp.emplace(*h.formed, uint32_t(gps_.gp_at(h.offset)));
    for (const auto &[addr, sec] : gp_words_) {
      uint32_t gp = uint32_t(im_.gp_value);
      auto t = table_gp.upper_bound(addr);
      if (t != table_gp.begin() && std::prev(t)->first >= sec->sh.sh_addr) {
        gp = std::prev(t)->second;
        gps_.set_data_gp(addr, 4, gp);
      }
      if (gp == 0)
        error("%s: a gp-relative word at %#x, but the executable has no gp value", path(), addr);
      uint32_t v = im_.word(*sec, addr) + gp;
      if (im_.in_text(v))
        out_.push_back({CR_REL32, v, 0, addr});
    }
  }

  // The relocation as a %hi or GOT page load.  Against a global symbol
  // the GOT entry holds the whole address, which vesk repairs in the GOT
  // itself: such a load pairs with nothing.
  bool hi_of(const Elf32_Rel &r, Hi *h) const {
    uint32_t type = ELF32_R_TYPE(r.r_info);
    uint32_t sym = ELF32_R_SYM(r.r_info);
    if (type == R_MIPS_HI16)
      *h = {checked(r.r_offset), sym, false, rs_->target, std::nullopt};
    else if (type == R_MIPS_GOT16 && im_.symbol_is_local(sym))
      *h = {checked(r.r_offset), sym, true, rs_->target, std::nullopt};
    else
      return false;
    return true;
  }

  void lo(uint32_t lo_addr, uint32_t sym, std::vector<size_t> &pending, std::vector<Hi> &pending_gp) {
    bool gp_disp = false;
    for (auto h = pending_gp.begin(); h != pending_gp.end();) {
      if (h->sym == sym) {
        describe_gp_disp(*h, lo_addr);
        h = pending_gp.erase(h);
        gp_disp = true;
      } else {
        ++h;
      }
    }
    if (gp_disp || im_.symbol_name(sym) == "_gp_disp")
      return;
    for (auto h = pending.begin(); h != pending.end();) {
      Hi &hi = his_[*h];
      if (hi.sym == sym) {
        if (!hi.formed)
          hi.formed = formed(hi, *rs_->target, lo_addr);
        h = pending.erase(h);
      } else {
        ++h;
      }
    }
    if (!symbol_in_text(sym))
      return; // a %lo of a symbol outside .text cannot form a code address
    los_.push_back({lo_addr, sym, rs_->target});
    got_lo_.push_back(false);
  }

  // The address that a %hi (or GOT page load) and a %lo form together.
  uint32_t formed(const Hi &h, const Section &lo_sec, uint32_t lo_addr) const {
    int32_t low = mips::simm16(word(lo_sec, lo_addr));
    if (!h.got)
      return (mips::imm16(word(*h.sec, h.offset)) << 16) + uint32_t(low);
    uint32_t entry = got_entry_address(h); // checks that .got holds it
    return im_.word(*im_.got, entry) + uint32_t(low);
  }

  uint32_t got_entry_address(const Hi &h) const {
    if (im_.gp_value == 0)
      error("%s: a GOT page load at %s, but the executable has no gp value", path(), im_.where(h.offset).c_str());
    uint32_t entry = uint32_t(gps_.gp_at(h.offset)) + uint32_t(mips::simm16(word(*h.sec, h.offset)));
    const Section *got = im_.section_holding(entry, 4);
    if (got == nullptr || im_.got == nullptr || got != im_.got)
      error("%s: the GOT page load at %s reads %#x, which is not in .got", path(), im_.where(h.offset).c_str(), entry);
    if (gps_.multi() && entry >= im_.got_addr &&
        &gps_.got_of_entry((entry - uint32_t(im_.got_addr)) / 4) != &gps_.got_at(h.offset))
      error("%s: the GOT page load at %s reads %#x, outside the GOT of the gp its function sets up", path(),
            im_.where(h.offset).c_str(), entry);
    return entry;
  }

  uint32_t got_index(const Hi &h) const { return (got_entry_address(h) - im_.got_addr) / 4; }

  // The entry a load from gp at addr reads, in .got or not.
  uint32_t got_index_at(uint32_t addr) const {
    return (uint32_t(gps_.gp_at(addr)) + uint32_t(mips::simm16(word(addr))) - uint32_t(im_.got_addr)) / 4;
  }

  // lui/addiu of _gp_disp: gp minus the address the set-up runs at.  Only a
  // set-up inside .text moves.
  void describe_gp_disp(const Hi &h, uint32_t lo_addr) {
    if (!im_.in_text(h.offset))
      return;
    if (!im_.in_text(lo_addr) || lo_addr <= h.offset || lo_addr - h.offset > MAX_DIST)
      error("%s: the _gp_disp set-up at %s has its %%lo at %s, which cannot be described; %s", path(),
            im_.where(h.offset).c_str(), im_.where(lo_addr).c_str(), KEEP_TOGETHER);
    uint32_t value = (mips::imm16(word(h.offset)) << 16) + uint32_t(mips::simm16(word(lo_addr)));
    out_.push_back({CR_GP_DISP, value, lo_addr - h.offset, h.offset});
  }

  // A call the linker turned into a branch works only while its target is
  // within reach; given back its jalr/jr form, it calls through $25, which
  // the code in front of it still loads, wherever the target moves.
  void unrelax(uint32_t addr) {
    if (rs_->target->raw == nullptr)
      return;
    uint32_t w = word(addr);
    if (mips::is_bal(w))
      patches_.push_back({addr, mips::JALR_T9});
    else if (mips::is_b(w))
      patches_.push_back({addr, mips::JR_T9});
  }

  bool symbol_in_text(uint32_t sym) const {
    return sym < im_.symbols.size() && im_.symbols[sym].st_shndx == im_.text->index;
  }

  // The %hi that loads the register a %lo adds to: the nearest instruction
  // before the %lo in its function that writes the register, when that is
  // a %hi of the same symbol.
  std::optional<size_t> nearest_hi(const Lo &l) const {
    uint32_t reg = mips::rs(word(*l.sec, l.offset));
    const Function *f = function_at(l.offset);
    uint32_t floor = f ? f->lo : (l.offset > 4096 ? l.offset - 4096 : 0);
    floor = std::max<uint32_t>(floor, l.sec->sh.sh_addr);
    for (uint32_t a = l.offset; a >= floor + 4;) {
      // Code behind the delay slot of an unconditional jump or branch is
      // reached only by a jump to it: what lies in front says nothing.
      if (a >= floor + 8 && mips::is_unconditional(word(*l.sec, a - 8)))
        return std::nullopt;
      a -= 4;
      int written = mips::gpr_written(word(*l.sec, a));
      if (written == mips::kUnknownWrite)
        return std::nullopt;
      if (written == mips::kClobbersCallerSaved) {
        if (mips::caller_saved(reg))
          return std::nullopt;
        continue;
      }
      if (written != int(reg))
        continue;
      auto h = find_key(hi_at_, a);
      if (h != nullptr && his_[h->second].sym == l.sym)
        return h->second;
      return std::nullopt;
    }
    return std::nullopt;
  }

  // The address %lo i serves, and the %hi that feed it.
  std::optional<uint32_t> serve(size_t i) {
    const Lo &l = los_[i];
    if (auto h = nearest_hi(l)) {
      users_.push_back({*h, i});
      got_lo_[i] = his_[*h].got;
      return formed(his_[*h], *l.sec, l.offset);
    }
    // The %hi of the symbol in the same function group whose address
    // agrees with the %lo (the register may have been kept on the stack in
    // between).
    const Function *f = function_at(l.offset);
    std::set<uint32_t> addresses;
    std::vector<size_t> feeding;
    auto of_sym = std::equal_range(his_of_sym_.begin(), his_of_sym_.end(), std::pair<uint32_t, size_t>{l.sym, 0},
                                   [](const auto &a, const auto &b) { return a.first < b.first; });
    if (of_sym.first == of_sym.second)
      error("%s: the %%lo at %s refers to code, but no %%hi or GOT page load that feeds it was found; %s", path(),
            im_.where(l.offset).c_str(), KEEP_TOGETHER);
    for (auto e = of_sym.first; e != of_sym.second; ++e) {
      size_t h = e->second;
      const Hi &hi = his_[h];
      if (hi.sec != l.sec || !hi.formed)
        continue;
      const Function *g = function_at(hi.offset);
      if (f != nullptr && (g == nullptr || g->group != f->group))
        continue;
      if (f == nullptr && (hi.offset > l.offset + 4096 || l.offset > hi.offset + 4096))
        continue;
      uint32_t a = formed(hi, *l.sec, l.offset);
      if (*hi.formed != a)
        continue;
      addresses.insert(a);
      feeding.push_back(h);
    }
    if (addresses.empty())
      error("%s: the %%lo at %s refers to code, but no %%hi or GOT page load that feeds it was found; %s", path(),
            im_.where(l.offset).c_str(), KEEP_TOGETHER);
    if (addresses.size() > 1) {
      // A %lo that completes $25 for a call: the call's relocation names
      // the function, which tells the %hi apart.
      std::optional<uint32_t> callee;
      if (mips::rt(word(*l.sec, l.offset)) == 25)
        for (uint32_t a = l.offset + 4; a <= l.offset + 16 && !callee; a += 4)
          if (auto t = find_key(call_target_, a))
            callee = t->second;
      if (!callee || addresses.count(*callee) == 0)
        error("%s: the %%lo at %s refers to code through one of several %%hi that form different addresses; %s",
              path(), im_.where(l.offset).c_str(), KEEP_TOGETHER);
      addresses = {*callee};
      feeding.erase(std::remove_if(feeding.begin(), feeding.end(),
                                   [&](size_t h) { return formed(his_[h], *l.sec, l.offset) != *callee; }),
                    feeding.end());
    }
    for (size_t h : feeding)
      users_.push_back({h, i});
    got_lo_[i] = his_[feeding.front()].got;
    return *addresses.begin();
  }

  // A %hi (or page load) shared by references to different addresses
  // cannot follow them when one of them is code that moves.
  void check_shared_his(const std::vector<std::optional<uint32_t>> &lo_formed) const {
    for_each_users([&](size_t h, const std::pair<size_t, size_t> *first, const std::pair<size_t, size_t> *last) {
      const Hi &hi = his_[h];
      if (!hi.formed)
        return;
      for (auto *e = first; e != last; ++e) {
        size_t u = e->second;
        uint32_t f = lo_formed[u].value_or(*hi.formed);
        if (f == *hi.formed || (!im_.in_text(f) && !im_.in_text(*hi.formed)))
          continue;
        error("%s: the %s at %s is shared by references to different addresses (%#x, and %#x by the %%lo at %s); %s",
              path(), hi_kind(hi.got), im_.where(hi.offset).c_str(), *hi.formed, f,
              im_.where(los_[u].offset).c_str(), KEEP_TOGETHER);
      }
    });
  }
};

} // namespace

Description describe_references(const Image &im) { return describe_with<Describer>(im); }

Description describe(const Image &im) { return im.is_o32() ? describe_references(im) : describe_events(im); }

} // namespace vesk::annotate
