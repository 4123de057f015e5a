// How the kept relocations of an n32 or n64 executable become events and
// content records.
//
// Every instruction that holds part of a code address gets a record of its
// own carrying what vesk needs of its partner (the other half, the page
// entry, the whole 64-bit address), so no pairing of instructions is
// needed.  Every value is checked against the instruction or data word the
// linker wrote: the addends that ld -q leaves are not always the ones the
// linker computed with (gp-relative ones are shifted by gp), and a record
// that does not match what is there would break the program when it moves.
#include "com/annotate/describe.h"

#include <algorithm>
#include <map>
#include <optional>
#include <set>

#include "base/diag.h"
#include "base/mips.h"
#include "events/reader.h"

namespace vesk::annotate {

namespace {

// Relocation types (the MIPS psABI numbers).
enum : uint32_t {
  R_NONE = 0, R_32 = 2, R_26 = 4, R_HI16 = 5, R_LO16 = 6, R_GPREL16 = 7, R_GOT16 = 9, R_PC16 = 10,
  R_CALL16 = 11, R_GPREL32 = 12, R_64 = 18, R_GOT_DISP = 19, R_GOT_PAGE = 20, R_GOT_OFST = 21,
  R_GOT_HI16 = 22, R_GOT_LO16 = 23, R_SUB = 24, R_HIGHER = 28, R_HIGHEST = 29, R_CALL_HI16 = 30,
  R_CALL_LO16 = 31, R_JALR = 37,
};

constexpr const char *NO_EXPLICIT = "compile it with -mno-explicit-relocs or keep it out of .text";

int64_t sext16(uint64_t v) { return int64_t(int16_t(uint16_t(v))); }
uint64_t high_half(int64_t v) { return uint64_t((v - sext16(uint64_t(v))) >> 16) & 0xffff; }

// One relocated place: n32's composed records at one offset joined, n64's
// three types unpacked.
struct Site {
  uint64_t offset;
  uint32_t sym;
  int64_t addend;
  uint32_t t[3];
  bool is(uint32_t a, uint32_t b = R_NONE, uint32_t c = R_NONE) const { return t[0] == a && t[1] == b && t[2] == c; }
};

std::vector<Site> sites_of(const RelSection &rs) {
  std::vector<Site> out;
  for (size_t i = 0; i < rs.relas.size(); ++i) {
    const Rela &r = rs.relas[i];
    Site s{r.offset, r.sym, r.addend, {r.type, r.type2, r.type3}};
    // n32 writes a composed relocation as records at one offset, the later
    // ones naming no symbol.
    for (int k = 1; k < 3 && s.t[k] == R_NONE && i + 1 < rs.relas.size() && rs.relas[i + 1].offset == r.offset &&
                    rs.relas[i + 1].sym == 0 && rs.relas[i + 1].type2 == R_NONE;
         ++k)
      s.t[k] = rs.relas[++i].type;
    out.push_back(s);
  }
  return out;
}

class EventsDescriber {
public:
  explicit EventsDescriber(const Image &im) : im_(im), gps_(im) {}

  // The gp set-ups, before anything else: which GOT a function's code
  // reads follows from them.
  void find_setups(const RelSection &rs) {
    if ((rs.target->sh.sh_flags & SHF_EXECINSTR) == 0)
      return;
    rs_ = &rs;
    std::vector<Site> his;
    for (const Site &s : sites_of(rs)) {
      if (s.is(R_GPREL16, R_SUB, R_HI16)) {
        his.push_back(s);
      } else if (s.is(R_GPREL16, R_SUB, R_LO16)) {
        // Both halves name the function the same way; the high half is
        // the nearest one in front.
        for (size_t k = his.size(); k-- > 0;)
          if (his[k].sym == s.sym && his[k].addend == s.addend) {
            pair_setup(his[k], s);
            his.erase(his.begin() + long(k));
            break;
          }
      }
    }
  }

  void setups_found() {
    for (const auto &[at, setup] : setups_)
      if (setup.gp != im_.gp_value && !gps_.set_function_gp(at, setup.gp))
        refuse(at, "gp set-up", setup.gp, "it computes a secondary GOT's gp outside every function symbol");
    if (gps_.multi())
      gps_.freeze();
    for (const auto &[at, setup] : setups_)
      if (gps_.gp_at(at) != setup.gp)
        refuse(at, "gp set-up", setup.gp, "another gp set-up of its function computes another GOT's gp");
  }

  void add(const RelSection &rs) {
    rs_ = &rs;
    bool code = (rs.target->sh.sh_flags & SHF_EXECINSTR) != 0;
    for (const Site &s : sites_of(rs))
      code ? code_site(s) : data_site(s);
  }

  Description finish() {
    // A GOT entry that page loads read holds a 64 KB page, which vesk never
    // re-points; one that also serves an exact address would keep it stale.
    // The linker keeps one local entry per value, so a page that is also
    // the start of a function is the entry its address is loaded from.
    // That entry follows the function; a spare entry (one the linker
    // reserved for a page it did not need) takes over the page, and the
    // page loads read it instead.
    for (uint32_t i : exact_entries_)
      if (page_entries_.count(i) && im_.in_text(got_value(i)))
        move_page(i);
    for (const auto &[i, at] : outside_pages_)
      if (!page_entries_.count(i) && im_.in_text(got_value(i)))
        error("%s: the GOT page load at %s, outside .text, reads a page inside .text that no record marks; %s",
              path(), im_.where(at).c_str(), NO_EXPLICIT);
    for (const PendingOffset &o : offsets_) {
      std::optional<uint32_t> e = page_entry_holding(o.page, gps_.got_at(o.at));
      if (!e)
        refuse(o.at, "GOT offset", o.x, "no GOT page entry holds the page it adds to");
      int64_t off = int64_t(im_.got_addr + uint64_t(*e) * im_.word_size - gps_.gp_at(o.at));
      events_.push_back({EK_GOT_OFST, o.at, uint64_t(off)});
    }
    la25_stubs();
    Description d;
    give_spares_pages(d);
    d.gp_ranges = gps_.ranges();
    std::sort(events_.begin(), events_.end(), [](const EventRef &a, const EventRef &b) { return a.addr < b.addr; });
    d.events = std::move(events_);
    d.data = group_words();
    d.got_pages.assign(page_entries_.begin(), page_entries_.end());
    {
      // Entries something else than a described page load of code reads.
      std::set<uint32_t> fixed = data_pages_;
      fixed.insert(exact_entries_.begin(), exact_entries_.end());
      for (const auto &[i, at] : outside_pages_)
        fixed.insert(i);
      d.free_pages = free_page_entries(im_, gps_, page_entries_, fixed, [this](uint32_t k) { return got_value(k); });
    }
    d.patches = std::move(patches_);
    d.got_entries = std::move(got_entries_);
    return d;
  }

private:
  const Image &im_;
  GpMap gps_;
  struct Setup {
    uint64_t function, gp;
  };
  std::map<uint64_t, Setup> setups_; // by the address of either half
  const RelSection *rs_ = nullptr;
  std::vector<EventRef> events_;
  std::vector<EventRef> words_; // one per data word, count 1
  std::set<uint32_t> page_entries_, exact_entries_;
  std::set<uint32_t> data_pages_; // page entries that page loads of addresses outside .text read
  std::map<uint32_t, uint64_t> outside_pages_; // page entry -> a page load outside .text reading it
  std::vector<std::pair<uint64_t, uint32_t>> patches_;
  std::vector<std::pair<uint32_t, uint64_t>> got_entries_;
  std::map<uint32_t, std::vector<uint64_t>> page_loads_; // GOT entry -> the page loads reading it
  std::set<uint32_t> used_entries_;                      // every entry some instruction reads
  bool got_pairs_ = false;                               // entries formed by %got_hi/%got_lo pairs
  struct PendingOffset {
    uint64_t at, x, page;
  };
  std::vector<PendingOffset> offsets_;

  const char *path() const { return im_.path.c_str(); }

  [[noreturn]] void refuse(uint64_t at, const char *what, uint64_t value, const char *advice) const {
    error("%s: the %s at %s (%#llx) cannot be described for vesk; %s", path(), what, im_.where(at).c_str(),
          (unsigned long long)value, advice);
  }

  uint64_t symbol_value(uint32_t sym) const { return sym < im_.symbols.size() ? im_.symbols[sym].st_value : 0; }

  uint32_t insn(uint64_t at) const {
    const Section &t = *rs_->target;
    if (at < t.sh.sh_addr || at - t.sh.sh_addr + 4 > t.sh.sh_size || (at & 3) != 0 || t.raw == nullptr)
      error("%s: a relocation of %s names %#llx, which is not a word of %s", path(), rs_->section->name.c_str(),
            (unsigned long long)at, t.name.c_str());
    return im_.word(t, at);
  }

  // The entry's value in the annotated copy.
  uint64_t got_value(uint32_t index) const {
    for (const auto &[i, v] : got_entries_)
      if (i == index)
        return v;
    return got_word(im_, index);
  }

  // The GOT entry that a gp-relative load at `at` reads.
  uint32_t got_entry(uint64_t at) {
    if (im_.got == nullptr || im_.gp_value == 0)
      error("%s: a GOT load at %s, but the executable has no GOT or gp value", path(), im_.where(at).c_str());
    uint64_t e = width(gps_.gp_at(at) + uint64_t(int64_t(mips::simm16(insn(at)))));
    if (e < im_.got_addr || (e - im_.got_addr) % im_.word_size != 0 || im_.section_holding(e, im_.word_size) != im_.got)
      error("%s: the GOT load at %s reads %#llx, which is no entry of .got", path(), im_.where(at).c_str(),
            (unsigned long long)e);
    uint32_t index = uint32_t((e - im_.got_addr) / im_.word_size);
    if (gps_.multi() && &gps_.got_of_entry(index) != &gps_.got_at(at))
      error("%s: the GOT load at %s reads %#llx, outside the GOT of the gp its function sets up", path(),
            im_.where(at).c_str(), (unsigned long long)e);
    used_entries_.insert(index);
    return index;
  }

  // Spare GOT entries take the pages of the stretches of .text that no
  // page entry reaches.
  void give_spares_pages(Description &d) {
    auto value = [this](uint32_t k) { return got_value(k); };
    for (const auto &[index, page] : pages_for_spares(im_, gps_, page_entries_, used_entries_, value)) {
      got_entries_.push_back({index, page});
      d.page_spares.push_back(index);
      page_entries_.insert(index);
    }
  }

  void move_page(uint32_t i) {
    uint64_t value = got_value(i);
    std::optional<uint32_t> spare;
    const Got &g = gps_.got_of_entry(i);
    uint64_t n = std::min<uint64_t>(g.end, im_.got->sh.sh_size / im_.word_size);
    if (g.primary)
      n = std::min<uint64_t>(n, im_.local_gotno);
    bool relocated_only = !g.primary && im_.is_pie; // the loader relocates no entry put there
    for (uint32_t k = g.first + 2; k < n && !spare && !got_pairs_ && !relocated_only; ++k)
      if (got_value(k) == 0 && !used_entries_.count(k) &&
          !im_.dynamically_relocated(im_.got_addr + uint64_t(k) * im_.word_size))
        spare = k;
    if (!is_function_start(value) || !spare)
      error("%s: GOT entry %u serves both as a 64 KB page and as the address %#llx, which moves, and no spare "
            "entry can take over the page; %s", path(), i, (unsigned long long)value, NO_EXPLICIT);
    used_entries_.insert(*spare);
    got_entries_.push_back({*spare, value});
    page_entries_.erase(i);
    page_entries_.insert(*spare);
    for (uint64_t at : page_loads_[i]) {
      uint32_t gp_offset = uint32_t(im_.got_addr + uint64_t(*spare) * im_.word_size - gps_.gp_at(at));
      patches_.push_back({at, mips::with_imm16(im_.word(*im_.text, at), gp_offset)});
    }
  }

  uint64_t width(uint64_t v) const { return im_.is_64 ? v : uint64_t(uint32_t(v)); }

  void event(uint32_t kind, uint64_t at, uint64_t value) {
    if (!im_.in_text(at))
      refuse(at, event_kind_string(kind).c_str(), value, "only code in .text can be repaired when it moves");
    events_.push_back({kind, at, value});
  }

  // The value a gp set-up's two halves add to $25 together.
  int64_t setup_value(uint32_t hi_word, uint32_t lo_word) const {
    int64_t v = sext16(mips::imm16(hi_word)) * 65536 + mips::simm16(lo_word);
    return im_.is_64 ? v : int64_t(int32_t(uint32_t(v)));
  }

  // The function a gp set-up serves and the gp it computes: gp minus the
  // function's address is what the pair adds to $25.  The addend ld -q
  // leaves on these is shifted by gp in some builds, so the function is
  // the candidate that the instructions agree with; in a program with
  // several GOTs the gp is the one of the function's object, the start of
  // one of the GOTs + 0x7ff0.
  void pair_setup(const Site &hi, const Site &lo) {
    int64_t v = setup_value(insn(hi.offset), insn(lo.offset));
    uint64_t sa = symbol_value(hi.sym) + uint64_t(hi.addend);
    uint64_t candidates[4] = {sa, sa + im_.gp_value, function_start(hi.offset), function_start(lo.offset)};
    for (uint64_t f : candidates) {
      uint64_t gp = width(f + uint64_t(v));
      if (!im_.in_text(f) || f == 0)
        continue;
      if (gp == width(im_.gp_value) || (gps_.got_of_gp(gp) != nullptr && f == function_start(hi.offset))) {
        setups_[hi.offset] = {f, gp};
        setups_[lo.offset] = {f, gp};
        return;
      }
    }
  }

  // The function a set-up half serves, and its gp: from its pair, or for
  // a half whose partner was not found, the candidate that the primary gp
  // and the instruction agree with.
  std::optional<Setup> gp_setup_function(const Site &s, bool hi, uint32_t w) const {
    if (auto p = setups_.find(s.offset); p != setups_.end())
      return p->second;
    uint64_t sa = symbol_value(s.sym) + uint64_t(s.addend);
    uint64_t candidates[3] = {sa, sa + im_.gp_value, function_start(s.offset)};
    for (uint64_t f : candidates) {
      int64_t v = int64_t(width(im_.gp_value - f));
      if (!im_.is_64)
        v = int32_t(uint32_t(v));
      if ((hi ? high_half(v) : uint64_t(v) & 0xffff) == mips::imm16(w) && im_.in_text(f))
        return Setup{f, im_.gp_value};
    }
    return std::nullopt;
  }

  // The function symbols by start, asked once for every gp set-up and
  // table word: a walk over the symbol table each time would make the
  // description quadratic in the size of the program.
  struct FunctionIndex {
    std::vector<std::pair<uint64_t, uint64_t>> by_start; // start, size
    uint64_t max_size = 0;
    std::vector<uint64_t> defined; // starts of functions the executable defines
  };
  mutable std::optional<FunctionIndex> functions_;

  const FunctionIndex &functions() const {
    if (!functions_) {
      FunctionIndex ix;
      for (const GElf_Sym &s : im_.symbols) {
        if (GELF_ST_TYPE(s.st_info) != STT_FUNC)
          continue;
        ix.by_start.push_back({s.st_value, s.st_size});
        ix.max_size = std::max<uint64_t>(ix.max_size, s.st_size);
        if (s.st_shndx != SHN_UNDEF)
          ix.defined.push_back(s.st_value);
      }
      std::sort(ix.by_start.begin(), ix.by_start.end());
      std::sort(ix.defined.begin(), ix.defined.end());
      functions_ = std::move(ix);
    }
    return *functions_;
  }

  bool is_function_start(uint64_t a) const {
    const std::vector<uint64_t> &d = functions().defined;
    return std::binary_search(d.begin(), d.end(), a);
  }

  // The stubs the linker puts in front of a PIC function that non-PIC code
  // calls (".pic.NAME": lui $25 / addiu $25 of the function's address, then
  // a jump to it or the function itself) have no relocations; their %hi and
  // %lo must follow the function all the same.
  void la25_stubs() {
    const Section *text = im_.text;
    for (size_t k = 0; k < im_.symbols.size(); ++k) {
      const GElf_Sym &s = im_.symbols[k];
      if (im_.symbol_names[k].rfind(".pic.", 0) != 0 || !im_.in_text(s.st_value) || s.st_size > 16 ||
          s.st_value + s.st_size > im_.text_hi)
        continue;
      uint64_t hi_at = 0, lo_at = 0;
      for (uint64_t a = s.st_value; a < s.st_value + s.st_size; a += 4) {
        uint32_t w = im_.word(*text, a);
        if (mips::op(w) == mips::OP_LUI && mips::rt(w) == 25)
          hi_at = a;
        else if ((mips::op(w) == mips::OP_ADDIU || mips::op(w) == mips::OP_DADDIU) && mips::rs(w) == 25 &&
                 mips::rt(w) == 25)
          lo_at = a;
      }
      if (hi_at == 0 || lo_at == 0)
        error("%s: the stub %s is not the lui/addiu of $25 vesk knows how to repair", path(),
              std::string(im_.symbol_names[k]).c_str());
      uint64_t x = width(uint64_t(sext16(im_.word(*text, hi_at))) * 65536 + uint64_t(mips::simm16(im_.word(*text, lo_at))));
      if (!im_.in_text(x))
        continue;
      if (im_.is_64)
        refuse(hi_at, "stub", x, "64-bit stubs forming a code address are not described");
      events_.push_back({EK_HI, hi_at, uint64_t(sext16(x))});
      events_.push_back({EK_LO, lo_at, uint64_t(sext16(high_half(int64_t(x))))});
    }
  }

  // The highest start of a function symbol whose extent holds at (0 for
  // none).
  uint64_t function_start(uint64_t at) const {
    const FunctionIndex &ix = functions();
    auto it = std::upper_bound(ix.by_start.begin(), ix.by_start.end(), std::pair<uint64_t, uint64_t>{at, UINT64_MAX});
    // Going down from the last start at or below at; none further down
    // than the largest size can reach it.
    while (it != ix.by_start.begin()) {
      --it;
      if (at - it->first >= ix.max_size || it->first == 0)
        break;
      if (at - it->first < it->second)
        return it->first;
    }
    return 0;
  }

  void code_site(const Site &s) {
    uint64_t at = s.offset;
    uint64_t x = width(symbol_value(s.sym) + uint64_t(s.addend));
    bool in_text_code = rs_->target == im_.text;
    if (s.is(R_GPREL16, R_SUB, R_HI16) || s.is(R_GPREL16, R_SUB, R_LO16)) {
      bool hi = s.t[2] == R_HI16;
      uint32_t w = insn(at);
      std::optional<Setup> setup = gp_setup_function(s, hi, w);
      // A set-up lies in the function whose address it starts from: outside
      // .text, that code does not move.
      if (!in_text_code)
        return;
      if (!setup)
        refuse(at, "gp set-up", mips::imm16(w),
               gps_.multi() ? "its function could not be told from its relocation, nor its gp from the GOTs"
                            : "its function could not be told from its relocation");
      if (gps_.gp_at(at) != setup->gp)
        refuse(at, "gp set-up", mips::imm16(w), "the gp it computes is not the one the rest of its function uses");
      int64_t v = int64_t(width(setup->gp - setup->function));
      if (!im_.is_64)
        v = int32_t(uint32_t(v));
      if (hi)
        event(EK_GP_PROLOG_HI, at, uint64_t(sext16(uint64_t(v))));
      else
        event(EK_GP_PROLOG_LO, at, uint64_t(sext16(high_half(v))));
      return;
    }
    switch (s.t[0]) {
    case R_HI16:
    case R_LO16:
    case R_HIGHER:
    case R_HIGHEST:
      if (s.t[1] == R_NONE)
        address_half(s, x);
      else if (im_.in_text(x))
        refuse(at, "composed relocation", x, NO_EXPLICIT);
      return;
    case R_GOT_PAGE: {
      uint32_t e = got_entry(at);
      if (!in_text_code) {
        outside_pages_.emplace(e, at);
        if (im_.in_text(x))
          refuse(at, "GOT page load", x, "only code in .text can be repaired when it moves");
        return;
      }
      page_entries_.insert(e);
      page_loads_[e].push_back(at);
      if (!im_.in_text(x))
        data_pages_.insert(e);
      int64_t low = int64_t(x - got_value(e));
      if (!im_.is_64)
        low = int32_t(uint32_t(low));
      if (low < -32768 || low > 32767) {
        if (im_.in_text(x))
          refuse(at, "GOT page load", x, "its page entry does not reach the address its relocation names");
        low = 0; // an address outside .text: only the page mark matters
      }
      events_.push_back({EK_GOT_PAGE, at, uint64_t(low)});
      return;
    }
    case R_GOT_OFST: {
      if (!im_.in_text(x))
        return;
      uint64_t page = width(x - uint64_t(int64_t(mips::simm16(insn(at)))));
      offsets_.push_back({at, x, page}); // its page entry is known once every page load has been seen
      return;
    }
    case R_GOT_DISP:
    case R_CALL16:
    case R_GOT16:
      exact_entries_.insert(got_entry(at));
      return;
    case R_JALR:
      unrelax(at);
      return;
    case R_GOT_HI16:
    case R_GOT_LO16:
    case R_CALL_HI16:
    case R_CALL_LO16:
      got_pairs_ = true; // the entries they read are repaired in the GOT
      return;
    case R_NONE:
    case R_26:
    case R_PC16:
      return; // branches and jumps vesk repairs itself
    default:
      if (im_.in_text(x))
        refuse(at, "relocation", x, NO_EXPLICIT);
      return;
    }
  }

  // %hi/%lo of an n32 address, or one slice of an n64 address build.
  void address_half(const Site &s, uint64_t x) {
    if (!im_.in_text(x))
      return;
    uint32_t w = insn(s.offset);
    uint64_t expect;
    switch (s.t[0]) {
    case R_HIGHEST: expect = (x + 0x800080008000ull) >> 48; break;
    case R_HIGHER: expect = (x + 0x80008000ull) >> 32; break;
    case R_HI16: expect = (x + 0x8000) >> 16; break;
    default: expect = x; break;
    }
    if ((expect & 0xffff) != mips::imm16(w))
      refuse(s.offset, "address half", x, "its instruction does not hold what its relocation names");
    uint32_t kind;
    uint64_t value = x;
    if (!im_.is_64) {
      kind = s.t[0] == R_HI16 ? EK_HI : EK_LO;
      value = kind == EK_HI ? uint64_t(sext16(x)) : uint64_t(sext16(high_half(int64_t(x))));
    } else {
      kind = s.t[0] == R_HIGHEST ? EK_64_HIGHEST : s.t[0] == R_HIGHER ? EK_64_HIGHER
             : s.t[0] == R_HI16  ? EK_64_HIGH    : EK_64_LOW;
    }
    event(kind, s.offset, value);
  }

  // The entry of GOT g holding page: a page entry first.
  std::optional<uint32_t> page_entry_holding(uint64_t page, const Got &g) const {
    bool any = !gps_.multi();
    for (uint32_t i : page_entries_)
      if (got_value(i) == page && (any || (i >= g.first && i < g.end)))
        return i;
    if (im_.got == nullptr || im_.got->raw == nullptr)
      return std::nullopt;
    uint64_t n = im_.got->sh.sh_size / im_.word_size;
    for (uint32_t i = any ? 1 : std::max<uint32_t>(g.first, 1); i < (any ? n : std::min<uint64_t>(n, g.end)); ++i)
      if (got_value(i) == page)
        return i;
    return std::nullopt;
  }

  void unrelax(uint64_t at) {
    uint32_t w = insn(at);
    if (mips::is_bal(w))
      patches_.push_back({at, mips::JALR_T9});
    else if (mips::is_b(w))
      patches_.push_back({at, mips::JR_T9});
  }

  void data_site(const Site &s) {
    const Section &sec = *rs_->target;
    if (sec.raw == nullptr)
      return; // .bss and the like hold nothing yet
    unsigned n;
    uint32_t kind;
    if (!im_.is_64 && s.is(R_32)) {
      n = 4, kind = CK_SADDR_32;
    } else if (im_.is_64 && s.is(R_64)) {
      n = 8, kind = CK_SADDR_64;
    } else if (!im_.is_64 && s.is(R_GPREL32)) {
      n = 4, kind = CK_GADDR_32;
    } else if (im_.is_64 && s.is(R_GPREL32, R_64)) {
      n = 8, kind = CK_GADDR_64;
    } else {
      uint64_t x = width(symbol_value(s.sym) + uint64_t(s.addend));
      if (im_.in_text(x) && s.t[0] != R_NONE)
        refuse(s.offset, "data relocation", x, "vesk repairs only address words and gp-relative words");
      return;
    }
    if (s.offset < sec.sh.sh_addr || s.offset - sec.sh.sh_addr + n > sec.sh.sh_size)
      error("%s: a relocation of %s names %#llx, outside %s", path(), rs_->section->name.c_str(),
            (unsigned long long)s.offset, sec.name.c_str());
    uint64_t v = n == 8 ? im_.address_word(sec, s.offset) : im_.word(sec, s.offset);
    if (kind == CK_GADDR_32)
      v = uint64_t(int64_t(int32_t(uint32_t(v))));
    uint64_t gp = im_.gp_value;
    if ((kind == CK_GADDR_32 || kind == CK_GADDR_64) && gps_.multi()) {
      // A word relative to a secondary GOT's gp: the relocation names the
      // address it holds (shifted by the primary gp in some builds).
      uint64_t sa = symbol_value(s.sym) + uint64_t(s.addend);
      const Got *found = nullptr;
      for (uint64_t target : {sa, sa + im_.gp_value})
        if (const Got *g = gps_.got_of_gp(width(target - v)); g != nullptr && im_.in_text(width(target)))
          found = g;
      if (found == nullptr)
        for (const Got &g : gps_.gots())
          if (im_.in_text(width(v + g.gp)))
            refuse(s.offset, "gp-relative word", v, "its relocation does not tell which GOT's gp it is relative to");
      if (found != nullptr)
        gp = found->gp;
      gps_.set_data_gp(s.offset, n, gp);
    }
    uint64_t x = width(kind == CK_GADDR_32 || kind == CK_GADDR_64 ? v + gp : v);
    if (im_.in_text(x))
      words_.push_back({kind, s.offset, 1});
  }

  // Runs of adjacent words of one kind become one record with a count.
  std::vector<EventRef> group_words() {
    std::sort(words_.begin(), words_.end(), [](const EventRef &a, const EventRef &b) { return a.addr < b.addr; });
    std::vector<EventRef> out;
    for (const EventRef &w : words_) {
      uint64_t n = w.kind == CK_SADDR_64 || w.kind == CK_GADDR_64 ? 8 : 4;
      if (!out.empty() && out.back().kind == w.kind && out.back().addr + out.back().value * n == w.addr)
        ++out.back().value;
      else if (out.empty() || out.back().addr + out.back().value * n <= w.addr)
        out.push_back(w);
    }
    return out;
  }
};

} // namespace

Description describe_events(const Image &im) { return describe_with<EventsDescriber>(im); }

} // namespace vesk::annotate
