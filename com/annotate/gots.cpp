// The GOTs of a program that GNU ld gave several, and which of them each
// function and data word uses.
//
// Nothing in the executable says where the secondary GOTs lie or which
// object uses which: each starts like the primary one (the lazy resolver's
// entry, 0, then the module pointer's, which the linker marks with the top
// bit), and a function's gp set-up computes its GOT's gp.  A set-up whose
// gp is no GOT's start + 0x7ff0 is refused by the describers.
#include <algorithm>
#include <map>
#include <string>
#include <unordered_map>

#include "base/diag.h"
#include "base/mips.h"
#include "com/annotate/describe.h"

namespace vesk::annotate {

namespace {

constexpr uint64_t GP_BIAS = 0x7ff0;

std::vector<Got> got_list(const Image &im) {
  if (im.got == nullptr || im.got->raw == nullptr || im.gp_value == 0)
    return {};
  // The entries from DT_PLTGOT to the end of .got; none when it points
  // elsewhere (the describers refuse the loads that read there).
  uint64_t n = im.got->sh.sh_size / im.word_size;
  if (im.got_addr < im.got->sh.sh_addr || (im.got_addr - im.got->sh.sh_addr) % im.word_size != 0 ||
      (im.got_addr - im.got->sh.sh_addr) / im.word_size >= n)
    return {};
  n -= (im.got_addr - im.got->sh.sh_addr) / im.word_size;
  uint64_t primary_end = n;
  if (im.symtabno >= im.gotsym && im.local_gotno + (im.symtabno - im.gotsym) < n)
    primary_end = im.local_gotno + (im.symtabno - im.gotsym);
  std::vector<Got> out{{0, uint32_t(primary_end), im.gp_value, true}};
  // Without the primary GOT's extent from .dynamic no other can be told.
  if (im.local_gotno == 0)
    return out;
  uint64_t mark = uint64_t(1) << (im.word_size * 8 - 1);
  for (uint64_t i = std::max<uint64_t>(primary_end, 2); i + 1 < n; ++i)
    if (got_word(im, uint32_t(i)) == 0 && got_word(im, uint32_t(i + 1)) == mark) {
      out.back().end = uint32_t(i);
      uint64_t gp = im.got_addr + i * im.word_size + GP_BIAS;
      out.push_back({uint32_t(i), uint32_t(n), im.is_64 ? gp : uint32_t(gp), false});
    }
  return out;
}

} // namespace

GpMap::GpMap(const Image &im) : im_(im), gots_(got_list(im)), whole_{0, ~uint32_t(0), im.gp_value, true} {
  if (!multi())
    return;
  functions_.reserve(im.symbols.size());
  for (size_t i = 0; i < im.symbols.size(); ++i) {
    uint32_t group = im.function_group[i];
    if (group == Image::kNoGroup)
      continue;
    const GElf_Sym &s = im.symbols[i];
    functions_.push_back({s.st_value, s.st_value + s.st_size, group});
  }
  group_gp_.assign(im.function_groups, 0);
  std::sort(functions_.begin(), functions_.end(), [](const Function &a, const Function &b) { return a.lo < b.lo; });
}

const Got *GpMap::got_of_gp(uint64_t gp) const {
  for (const Got &g : gots_)
    if (g.gp == gp)
      return &g;
  return nullptr;
}

const Got &GpMap::got_of_entry(uint32_t index) const {
  for (const Got &g : gots_)
    if (index >= g.first && index < g.end)
      return g;
  return gots_.empty() ? whole_ : gots_.front();
}

// Calls f for every function holding addr (aliases, and symbols inside a
// function, share its code), the nearest start first; says whether there
// was one.
template <class F> bool GpMap::for_each_holding(uint64_t addr, F f) const {
  bool any = false;
  auto it = std::upper_bound(functions_.begin(), functions_.end(), addr,
                             [](uint64_t a, const Function &f) { return a < f.lo; });
  for (size_t looked = 0; it != functions_.begin() && looked < 64; ++looked) {
    --it;
    if (addr < it->hi) {
      f(*it);
      any = true;
    }
  }
  return any;
}

bool GpMap::set_function_gp(uint64_t addr, uint64_t gp) {
  return for_each_holding(addr, [&](const Function &fn) {
    const Function *f = &fn;
    uint64_t &slot = group_gp_[f->group];
    if (slot != 0 && slot != gp)
      error("%s: the code at %s sets up the gp %#llx, but other code of its function uses %#llx; vesk cannot tell "
            "which GOT it reads",
            im_.path.c_str(), im_.where(addr).c_str(), (unsigned long long)gp, (unsigned long long)slot);
    slot = gp;
  });
}

void GpMap::set_data_gp(uint64_t addr, uint64_t n, uint64_t gp) {
  if (gp == im_.gp_value)
    return;
  known_ = Known{};
  if (!data_.empty() && data_.back().hi == addr && data_.back().gp == gp && data_.back().lo <= addr) {
    data_.back().hi = addr + n;
    return;
  }
  bool in_order = data_.empty() || data_.back().lo < addr;
  data_.push_back({addr, addr + n, gp});
  if (!in_order)
    std::sort(data_.begin(), data_.end(), [](const GpRange &a, const GpRange &b) { return a.lo < b.lo; });
}

namespace {

const GpRange *range_holding(const std::vector<GpRange> &rs, uint64_t addr) {
  auto r = std::upper_bound(rs.begin(), rs.end(), addr, [](uint64_t a, const GpRange &x) { return a < x.lo; });
  return r != rs.begin() && addr < std::prev(r)->hi ? &*std::prev(r) : nullptr;
}

} // namespace

// The gp of code is read from the stretches that the description will
// carry, so that what the describers decide is what vesk will see.
uint64_t GpMap::gp_at(uint64_t addr) const {
  // Loads ask about the code of one function after another: the stretch
  // of addresses that the last answer holds for is asked first.
  if (addr >= known_.lo && addr < known_.hi)
    return known_.gp;
  auto first_behind = [](const std::vector<GpRange> &rs, uint64_t a) {
    return std::upper_bound(rs.begin(), rs.end(), a, [](uint64_t x, const GpRange &r) { return x < r.lo; });
  };
  // Where the answer stays the same: up to the next start, and, outside a
  // stretch, from the end of the one before.
  uint64_t lo = 0, hi = ~uint64_t(0);
  auto d = first_behind(data_, addr);
  if (d != data_.end())
    hi = d->lo;
  if (d != data_.begin()) {
    auto r = std::prev(d);
    if (addr < r->hi) {
      known_ = {r->lo, std::min(hi, r->hi), r->gp};
      return r->gp;
    }
    lo = r->hi;
  }
  auto c = first_behind(code_, addr);
  if (c != code_.end())
    hi = std::min(hi, c->lo);
  uint64_t gp = im_.gp_value;
  if (c != code_.begin()) {
    auto r = std::prev(c);
    if (addr < r->hi) {
      lo = std::max(lo, r->lo), hi = std::min(hi, r->hi), gp = r->gp;
    } else {
      lo = std::max(lo, r->hi);
    }
  }
  known_ = {lo, hi, gp};
  return gp;
}

const Got &GpMap::got_at(uint64_t addr) const {
  const Got *g = got_of_gp(gp_at(addr));
  return g ? *g : gots_.empty() ? whole_ : gots_.front();
}

bool GpMap::leaves_gp_alone(uint64_t lo, uint64_t hi) const {
  if (im_.text == nullptr || im_.text->raw == nullptr || lo < im_.text_lo || hi > im_.text_hi)
    return false;
  for (uint64_t a = lo & ~uint64_t(3); a + 4 <= hi; a += 4) {
    uint32_t w = im_.word(*im_.text, a);
    if (mips::rs(w) == 28 || mips::rt(w) == 28 || ((w >> 11) & 31) == 28)
      return false;
  }
  return true;
}

void GpMap::freeze() {
  if (multi() && std::none_of(group_gp_.begin(), group_gp_.end(),
                              [this](uint64_t gp) { return gp != 0 && gp != im_.gp_value; }))
    error("%s: the linker split its GOT in %zu, but no code sets up the gp of a secondary one; vesk cannot tell "
          "which GOT the code reads",
          im_.path.c_str(), gots_.size());
  std::vector<GpRange> out;
  for (const Function &f : functions_) {
    uint64_t gp = group_gp_[f.group];
    if (gp != 0 && gp != im_.gp_value)
      out.push_back({f.lo, f.hi, gp});
  }
  // Neighbours with one gp become one stretch, across code between them
  // that never touches gp (padding, leaf functions).
  code_.clear();
  known_ = Known{};
  for (const GpRange &r : out) {
    if (!code_.empty() && code_.back().gp == r.gp && (r.lo <= code_.back().hi || leaves_gp_alone(code_.back().hi, r.lo))) {
      code_.back().hi = std::max(code_.back().hi, r.hi);
      continue;
    }
    if (!code_.empty() && r.lo < code_.back().hi)
      error("%s: the code at %s uses two GOTs, which vesk cannot describe", im_.path.c_str(),
            im_.where(r.lo).c_str());
    code_.push_back(r);
  }
  // A function of the primary GOT inside one of a secondary GOT could not
  // be told apart.
  for (const Function &f : functions_)
    if (group_gp_[f.group] == im_.gp_value && range_holding(code_, f.lo) != nullptr)
      error("%s: the code at %s uses two GOTs, which vesk cannot describe", im_.path.c_str(),
            im_.where(f.lo).c_str());
}

std::vector<uint32_t> free_page_entries(const Image &im, const GpMap &gps, const std::set<uint32_t> &pages,
                                        const std::set<uint32_t> &fixed,
                                        const std::function<uint64_t(uint32_t)> &value) {
  std::vector<uint32_t> out;
  if (!gps.multi())
    return out;
  // How many entries of each GOT hold each value, counted once per GOT.
  std::map<uint32_t, std::unordered_map<uint64_t, uint32_t>> holders; // by the GOT's first entry
  for (uint32_t i : pages) {
    const Got &g = gps.got_of_entry(i);
    if (g.primary || fixed.count(i) || i < g.first + 2)
      continue;
    auto [counts, fresh] = holders.try_emplace(g.first);
    if (fresh)
      for (uint32_t k = g.first; k < g.end; ++k)
        ++counts->second[value(k)];
    if (counts->second[value(i)] == 1) // no other entry of its GOT holds its value
      out.push_back(i);
  }
  (void)im;
  return out;
}

std::vector<GpRange> GpMap::ranges() const {
  std::vector<GpRange> out = code_;
  out.insert(out.end(), data_.begin(), data_.end());
  std::sort(out.begin(), out.end(), [](const GpRange &a, const GpRange &b) { return a.lo < b.lo; });
  return out;
}

} // namespace vesk::annotate
