// Pages for the stretches of .text that no GOT page entry reaches.
//
// Code that loads a local function's address through a GOT page entry
// needs, wherever vesk moves the function, an entry within 32 KB of the new
// address; vesk adds none to the GOT, it takes the first that reaches.  The
// linker makes page entries only for the 64 KB pages that page loads name,
// so a stretch of .text holding only code reached in other ways (through
// the GOT's global part, virtual calls, function pointers in data) has
// none, and a layout that puts such a function there could not be
// repaired.  The linker reserves more page entries than it fills (it counts
// them before the pages are known) and leaves the rest 0: those spare
// entries take the missing pages in the annotated copy.
#include <algorithm>
#include <optional>

#include "base/mips.h"
#include "com/annotate/describe.h"

namespace vesk::annotate {

namespace {

// Relocations of code that reads the GOT through a %hi/%lo pair of gp
// offsets (-mxgot): the entries they read cannot be told from one
// instruction.
bool reads_got_in_pairs(uint32_t type) { return type == 22 || type == 23 || type == 30 || type == 31; }

// The local entries that hold 0 and that nothing reads: no load from gp
// in the executable code, nor any entry of used.  In a secondary GOT of a
// position-independent executable none is spare: the loader would not
// relocate a page put there.
std::vector<uint32_t> spare_got_entries(const Image &im, const GpMap &gps, const std::set<uint32_t> &used) {
  if (im.got == nullptr || im.got->raw == nullptr || im.gp_value == 0)
    return {};
  for (const RelSection &rs : im.rel_sections) {
    for (const Elf32_Rel &r : rs.rels)
      if (reads_got_in_pairs(ELF32_R_TYPE(r.r_info)))
        return {};
    for (const Rela &r : rs.relas)
      if (reads_got_in_pairs(r.type) || reads_got_in_pairs(r.type2) || reads_got_in_pairs(r.type3))
        return {};
  }
  uint64_t n = std::min<uint64_t>(im.local_gotno, im.got->sh.sh_size / im.word_size);
  if (gps.multi())
    n = gps.gots().back().end;
  std::vector<bool> read(n, false);
  for (uint32_t i : used)
    if (i < n)
      read[i] = true;
  // Every load from gp in the executable code counts as a reader of the
  // entry it would read, relocated or not (the linker's own stubs have no
  // relocations): a word that only looks like one costs a spare, never a
  // wrong program.
  uint64_t lo = im.got_addr, hi = im.got_addr + n * im.word_size;
  for (const Section &s : im.sections) {
    if ((s.sh.sh_flags & SHF_EXECINSTR) == 0 || s.raw == nullptr)
      continue;
    for (uint64_t a = s.sh.sh_addr; a + 4 <= s.sh.sh_addr + s.sh.sh_size; a += 4) {
      uint32_t w = im.word(s, a);
      if (!mips::is_load(w) || mips::rs(w) != 28)
        continue;
      uint64_t e = (gps.multi() ? gps.gp_at(a) : im.gp_value) + uint64_t(int64_t(mips::simm16(w)));
      if (!im.is_64)
        e = uint32_t(e);
      if (e >= lo && e < hi)
        read[(e - lo) / im.word_size] = true;
    }
  }
  // Entry 0 is the lazy resolver's, entry 1 may be the loader's module
  // pointer, in every GOT.
  std::vector<uint32_t> out;
  for (const Got &g : gps.gots()) {
    if (!g.primary && im.is_pie)
      continue;
    uint64_t end = g.primary ? std::min<uint64_t>(n, std::min<uint64_t>(g.end, im.local_gotno)) : g.end;
    for (uint32_t k = g.first + 2; k < end; ++k)
      if (!read[k] && got_word(im, k) == 0 && !im.dynamically_relocated(im.got_addr + uint64_t(k) * im.word_size))
        out.push_back(k);
  }
  return out;
}

// Spare entries (taken in order) and the 64 KB pages they get so that every
// address of .text lies within 32 KB of one of values or of a page given.
std::vector<std::pair<uint32_t, uint64_t>> cover_text_with_pages(const Image &im, const std::vector<uint32_t> &spares,
                                                                 std::vector<uint64_t> values) {
  std::vector<std::pair<uint32_t, uint64_t>> given;
  size_t next = 0;
  for (uint64_t a = im.text_lo; a < im.text_hi;) {
    // The farthest that an entry reaching a reaches: an entry holding v
    // serves [v - 0x8000, v + 0x7fff].
    std::optional<uint64_t> end;
    for (uint64_t v : values)
      if (a + 0x8000 >= v && a <= v + 0x7fff)
        end = std::max(end.value_or(0), v + 0x8000);
    if (!end) {
      if (next == spares.size())
        break; // vesk refuses a layout that needs a page here
      uint64_t page = (a + 0x8000) & ~uint64_t(0xffff);
      given.push_back({spares[next++], page});
      values.push_back(page);
      end = page + 0x8000;
    }
    a = *end;
  }
  return given;
}

} // namespace

uint64_t got_word(const Image &im, uint32_t index) {
  // DT_PLTGOT need not be where .got starts; an entry outside .got holds
  // no value a page or a spare could have.
  uint64_t a = im.got_addr + uint64_t(index) * im.word_size;
  if (im.got == nullptr || im.section_holding(a, im.word_size) != im.got)
    return ~uint64_t(0);
  return im.address_word(*im.got, a);
}

std::vector<std::pair<uint32_t, uint64_t>> pages_for_spares(const Image &im, const GpMap &gps,
                                                            const std::set<uint32_t> &page_entries,
                                                            const std::set<uint32_t> &used,
                                                            const std::function<uint64_t(uint32_t)> &value) {
  if (im.got == nullptr || im.got->raw == nullptr)
    return {};
  std::vector<uint32_t> spares = spare_got_entries(im, gps, used);
  std::vector<std::pair<uint32_t, uint64_t>> out;
  for (const Got &g : gps.gots()) {
    // vesk takes for a page the primary GOT's local entries whose value
    // stays, and a secondary GOT's page entries.
    std::vector<uint64_t> values;
    uint64_t n = std::min<uint64_t>(g.end, im.got->sh.sh_size / im.word_size);
    if (g.primary)
      n = std::min<uint64_t>(n, im.local_gotno);
    for (uint32_t k = g.first + 2; k < n; ++k)
      if (page_entries.count(k) || (g.primary && !im.in_text(value(k))))
        values.push_back(value(k));
    std::vector<uint32_t> own;
    for (uint32_t k : spares)
      if (k >= g.first && k < g.end)
        own.push_back(k);
    for (const auto &given : cover_text_with_pages(im, own, values))
      out.push_back(given);
  }
  return out;
}

} // namespace vesk::annotate
