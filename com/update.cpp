#include "com/update.h"

#include <algorithm>

#include "base/background.h"
#include "base/bytes.h"
#include "base/key_sort.h"
#include "base/diag.h"
#include "base/options.h"
#include "com/elf.h"

#include "com/events.h"
#include "com/update_compact_rel.h"
#include "com/update_impl.h"

namespace vesk {

uint64_t repoint_code_address(uint64_t a) {
  uint64_t moved;
  return map_text_address(a, &moved) ? moved : a; // code outside .text does not move
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
  give_free_pages();
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
  uint64_t got_lo = bin.pltgot, got_hi = got_lo + uint64_t(bin.got_count) * 4, ws = bin.is_elf32 ? 4 : 8;
  uint64_t mark = uint64_t(1) << (ws * 8 - 1);
  auto entry = [ws](uint64_t i) { return ws == 4 ? uint64_t(load32(bin.got_buf + i * 4)) : load64(bin.got_buf + i * 8); };
  for (size_t off = 0; off < d->d_size; off += 24) {
    Bin::GpRange r{load64(p + off), load64(p + off + 8), load64(p + off + 16)};
    // A gp lies 0x7ff0 behind the start of its GOT, inside .got, where the
    // lazy resolver's entry (0) and the marked module pointer's lie.
    uint64_t start = uint32_t(r.gp - 0x7ff0);
    if (r.hi <= r.lo || (!bin.gp_ranges.empty() && r.lo < bin.gp_ranges.back().hi) || start < got_lo ||
        start + 2 * ws > got_hi || (start - got_lo) % ws != 0 || bin.got_buf == nullptr ||
        entry((start - got_lo) / ws) != 0 || entry((start - got_lo) / ws + 1) != mark)
      error("%s: section %s is damaged: its record %zu is no ascending stretch with the gp of a GOT", option.program,
            GP_RANGES_SECTION, off / 24);
    bin.gp_ranges.push_back(r);
  }
}

namespace {

// The stretches of .text in the description follow the code, so that the
// output can be laid out again: each is cut into the runs of its words that
// stayed together.  Reads only the layout and the stretches given.
void lay_out_gp_ranges(const std::vector<Bin::GpRange> &ranges, std::vector<uint8_t> &bytes) {
  std::vector<Bin::GpRange> out;
  for (const Bin::GpRange &r : ranges) {
    uint64_t lo = std::max(r.lo, bin.text_lo), hi = std::min(r.hi, bin.text_hi);
    if (lo >= hi) {
      out.push_back(r); // data, or code outside .text, stays where it is
      continue;
    }
    if (r.lo < lo)
      out.push_back({r.lo, lo, r.gp});
    if (hi < r.hi)
      out.push_back({hi, r.hi, r.gp});
    // The words of the stretch, read straight from the text map: a run
    // ends where the next word no longer follows in the new layout.
    bool open = false;
    Bin::GpRange run{0, 0, r.gp};
    auto add_words = [&](uint64_t moved, uint64_t n) {
      if (open && moved == run.hi) {
        run.hi += 4 * n;
        return;
      }
      if (open)
        out.push_back(run);
      run = {moved, moved + 4 * n, r.gp};
      open = true;
    };
    uint64_t first = ((lo & ~uint64_t(3)) - bin.text_lo) >> 2;
    uint64_t words = std::min<uint64_t>(bin.text_words, (hi - bin.text_lo + 3) >> 2);
    for (uint64_t k = first, j; k < words; k = j) {
      j = bin.text_map != nullptr ? text_map_run_end(k, words) : words;
      add_words(bin.text_map != nullptr ? text_map_word(k) : bin.text_lo + 4 * k, j - k);
    }
    // The partial word at the end of an odd-sized .text stays.
    for (uint64_t a = bin.text_lo + 4 * std::max(first, words); a < hi; a += 4)
      add_words(a, 1);
    if (open)
      out.push_back(run);
  }
  // By start: a shuffled layout cuts the stretches into tens of thousands.
  std::vector<KeyValue> by_lo(out.size());
  for (size_t i = 0; i < out.size(); ++i)
    by_lo[i] = {out[i].lo, i};
  stable_sort_by_key(by_lo);
  bytes.reserve(24 * out.size());
  const Bin::GpRange *last = nullptr;
  for (const KeyValue &k : by_lo) {
    const Bin::GpRange &r = out[k.second];
    if (last != nullptr && r.lo < last->hi)
      error("%s: the new layout puts code of two GOTs at %#llx", option.program, (unsigned long long)r.lo);
    if (last != nullptr && r.lo == last->hi && r.gp == last->gp) {
      store64(bytes.data() + bytes.size() - 16, r.hi);
    } else {
      uint8_t b[24];
      store64(b, r.lo);
      store64(b + 8, r.hi);
      store64(b + 16, r.gp);
      bytes.insert(bytes.end(), b, b + 24);
    }
    last = &r;
  }
}

Elf_Scn *gp_ranges_output(Elf_Data **d) {
  Elf_Scn *scn = bin.gp_ranges.empty() ? nullptr : find_section_by_name(bin.out_elf, GP_RANGES_SECTION);
  *d = scn ? elf_getdata(scn, nullptr) : nullptr;
  return *d != nullptr ? scn : nullptr;
}

} // namespace

void start_gp_ranges_update() {
  Elf_Data *d = nullptr;
  if (gp_ranges_output(&d) == nullptr)
    return;
  std::vector<uint8_t> &bytes = bin.out_buffers.emplace_back();
  bin.gp_ranges_bytes = &bytes;
  // A copy: the GOT update reads the stretches again meanwhile.
  bin.gp_ranges_task = std::make_unique<Background>(
      [ranges = bin.gp_ranges, &bytes] { lay_out_gp_ranges(ranges, bytes); });
}

void update_gp_ranges() {
  Elf_Data *d = nullptr;
  Elf_Scn *scn = gp_ranges_output(&d);
  if (scn == nullptr)
    return;
  std::vector<uint8_t> *laid_out = bin.gp_ranges_bytes;
  if (bin.gp_ranges_task != nullptr) {
    bin.gp_ranges_task->collect();
    bin.gp_ranges_task.reset();
    bin.gp_ranges_bytes = nullptr;
  } else {
    laid_out = &bin.out_buffers.emplace_back();
    lay_out_gp_ranges(bin.gp_ranges, *laid_out);
  }
  std::vector<uint8_t> &bytes = *laid_out;
  if (bytes.size() > d->d_size)
    expand_section(scn, uint32_t(bytes.size() - d->d_size));
  else if (bin.is_elf32)
    elf32_getshdr(scn)->sh_size = uint32_t(bytes.size());
  else
    elf64_getshdr(scn)->sh_size = bytes.size();
  d->d_buf = bytes.data();
  d->d_size = bytes.size();
}

void give_free_pages() {
  bin.got_free.clear();
  Elf_Data *d = find_section_data_by_name(bin.in_elf, FREE_PAGES_SECTION);
  Elf_Data *got = find_section_data_by_name(bin.out_elf, ".got");
  if (d == nullptr || got == nullptr || got->d_buf == nullptr)
    return;
  const auto *p = static_cast<const uint8_t *>(d->d_buf);
  size_t ws = bin.is_elf32 ? 4 : 8, entries = got->d_size / ws;
  if ((p == nullptr && d->d_size != 0) || d->d_size % 4 != 0)
    error("%s: section %s is damaged: its size is not a whole number of entries", option.program, FREE_PAGES_SECTION);
  for (size_t off = 0; off < d->d_size; off += 4) {
    uint32_t index = load32(p + off);
    if (index >= entries || index >= bin.got_page.size() || bin.got_page[index] == 0 || bin.gp_ranges.empty())
      error("%s: section %s names GOT entry %u, which is no page entry of a secondary GOT", option.program,
            FREE_PAGES_SECTION, index);
    bin.got_free.push_back(index);
  }
  if (bin.got_free.empty())
    return;
  std::vector<std::pair<uint64_t, uint64_t>> uses; // gp, new target
  if (is_o32())
    for (const PageUse &u : compact_rel_page_uses())
      uses.push_back({u.gp, u.target});
  else
    for (const EventPageUse &u : event_page_uses())
      uses.push_back({u.gp, u.target});
  auto *buf = static_cast<uint8_t *>(got->d_buf);
  auto value = [&](size_t i) { return ws == 4 ? uint64_t(load32(buf + i * 4)) : load64(buf + i * 8); };
  auto reaches = [](uint64_t v, uint64_t t) { return t + 0x8000 >= v && t <= v + 0x7fff; };
  std::vector<uint64_t> gps;
  for (const Bin::GpRange &r : bin.gp_ranges)
    if (std::find(gps.begin(), gps.end(), r.gp) == gps.end())
      gps.push_back(r.gp);
  for (uint64_t gp : gps) {
    // The entries this gp reaches: the free ones, and the page entries that
    // keep their pages.
    uint64_t lo = uint32_t(gp) - 0x8000, hi = uint32_t(gp) + 0x8000;
    std::vector<size_t> free, kept;
    for (size_t i = 0; i < entries && i < bin.got_page.size(); ++i) {
      uint64_t at = uint64_t(bin.pltgot) + i * ws;
      if (bin.got_page[i] == 0 || at < lo || at + ws > hi)
        continue;
      (std::find(bin.got_free.begin(), bin.got_free.end(), uint32_t(i)) != bin.got_free.end() ? free : kept)
          .push_back(i);
    }
    std::vector<uint64_t> missing;
    for (const auto &use : uses)
      if (use.first == gp &&
          std::none_of(kept.begin(), kept.end(), [&](size_t i) { return reaches(value(i), use.second); }))
        missing.push_back(use.second);
    if (missing.empty() || free.empty())
      continue;
    // Pages from the lowest target up, each reaching as far as a 64 KB
    // page does; all of them, or none (the repair then refuses the layout
    // with the address no entry reaches).
    std::sort(missing.begin(), missing.end());
    std::vector<uint64_t> pages;
    for (uint64_t t : missing)
      if (pages.empty() || !reaches(pages.back(), t))
        pages.push_back((t + 0x8000) & ~uint64_t(0xffff));
    if (pages.size() > free.size())
      continue;
    for (size_t k = 0; k < pages.size(); ++k)
      ws == 4 ? store32(buf + free[k] * 4, uint32_t(pages[k])) : store64(buf + free[k] * 8, pages[k]);
  }
}

uint64_t gp_at(uint64_t a) {
  const auto &rs = bin.gp_ranges;
  auto r = std::upper_bound(rs.begin(), rs.end(), a, [](uint64_t x, const Bin::GpRange &g) { return x < g.lo; });
  if (r != rs.begin() && a < std::prev(r)->hi)
    return std::prev(r)->gp;
  return bin.gp_full != 0 ? bin.gp_full : bin.gp_value;
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
