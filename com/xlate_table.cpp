#include "com/xlate_table.h"

#include <algorithm>
#include <cstring>
#include <gelf.h>
#include <memory>

#include "base/bin.h"
#include "base/diag.h"
#include "base/elf_class.h"
#include "base/options.h"
#include "com/dwarf_update.h"
#include "com/elf.h"

namespace vesk {

using namespace xlate;

namespace {

constexpr uint64_t round_up(uint64_t v, uint64_t a) { return (v + a - 1) / a * a; }

template <class C> Elf_Scn *find_section_by_type(Elf *elf, uint32_t type) {
  for (size_t i = 1;; ++i) {
    Elf_Scn *s = elf_getscn(elf, i);
    if (s == nullptr) {
      elf_errno();
      return nullptr;
    }
    if (typename C::Shdr *sh = C::getshdr(s); sh != nullptr && sh->sh_type == type)
      return s;
  }
}

// Sections without contents take no room in the file: a .bss may reach
// past its end.  `except` is left out.
template <class C> uint64_t end_of_elf(Elf *elf, Elf_Scn *except = nullptr) {
  uint64_t end = 0;
  for (size_t i = 1;; ++i) {
    Elf_Scn *s = elf_getscn(elf, i);
    if (s == nullptr)
      break;
    typename C::Shdr *sh = C::getshdr(s);
    if (sh != nullptr && sh->sh_type != SHT_NOBITS && s != except)
      end = std::max<uint64_t>(end, uint64_t(sh->sh_offset) + sh->sh_size);
  }
  elf_errno();
  return end;
}

// An earlier run's table lies behind every other section, but the sections
// before it may have grown since (.compact_rel): it goes where the others
// end now.
template <class C> XlateSection create_section() {
  XlateSection s;
  if (Elf_Scn *old = find_section_by_type<C>(bin.out_elf, XLATE_SECTION_TYPE)) {
    typename C::Shdr *sh = C::getshdr(old);
    s.scn = old;
    s.old_size = sh->sh_size;
    s.old_offset = sh->sh_offset;
    sh->sh_size = 0;
    sh->sh_offset = round_up(end_of_elf<C>(bin.out_elf, old), 8);
    s.reuse = elf_getdata(old, nullptr);
    if (s.reuse != nullptr) {
      s.reuse->d_buf = nullptr;
      s.reuse->d_size = 0;
    }
    return s;
  }
  uint32_t name = add_section_name(bin.out_elf, ".MIPS.Xlate");
  uint64_t offset = round_up(find_end_of_elf(bin.out_elf), 8);
  s.scn = elf_newscn(bin.out_elf);
  typename C::Shdr *sh = s.scn ? C::getshdr(s.scn) : nullptr;
  if (sh == nullptr) {
    print_elf_error(option.program);
    error("cannot add the .MIPS.Xlate section to %s", option.output);
  }
  *sh = typename C::Shdr{};
  sh->sh_name = name;
  sh->sh_type = XLATE_SECTION_TYPE;
  sh->sh_offset = offset;
  sh->sh_addralign = C::is_64 ? 8 : 4;
  s.old_offset = offset;
  return s;
}

// The section takes the place where the section header table stood (or,
// when the table lay amid the contents, the place behind them), and the
// table goes right behind the section, where its new entry overwrites
// nothing.  libelf wants the table aligned for its entries.
template <class C> void finish(XlateSection &s) {
  typename C::Ehdr *eh = C::getehdr(bin.out_elf);
  typename C::Shdr *sh = C::getshdr(s.scn);
  if (eh == nullptr || sh == nullptr) {
    print_elf_error(option.program);
    error("cannot read the output's headers");
  }
  uint64_t size = sh->sh_size, end = uint64_t(sh->sh_offset) + size;
  if (size == 0 && s.old_size == 0)
    return; // an empty section covers no bytes: the header table can stay
  // The section is the last contents of the file; the table follows it.
  uint64_t shoff = end;
  eh->e_shoff = round_up(shoff, C::is_64 ? 8 : 4);
}

// The new text, read backwards: for each word of the new text, the index
// of the old word it holds.  Kept as the runs of the text map (the
// procedures, tens of words each) in new order: a table of every word
// would be as large as the text map, beside the rest of the rewrite.
class NewToOld {
public:
  static constexpr uint32_t none = ~uint32_t(0);
  NewToOld() {
    uint64_t n = bin.text_words;
    for (uint64_t k = 0, j; k < n; k = j) {
      j = text_map_run_end(k, n);
      uint64_t to = bin.text_map[k];
      if (to < n) // not an unplaced word
        runs_.push_back({uint32_t(to), uint32_t(k), uint32_t(std::min(j - k, n - to))});
    }
    // Sorted in place: the table is built beside the rewrite's largest
    // buffers, and a sort with keys of its own would double it.
    std::sort(runs_.begin(), runs_.end(), [](const Run &a, const Run &b) { return a.new_word < b.new_word; });
    for (size_t i = 1; i < runs_.size(); ++i)
      if (runs_[i - 1].new_word + runs_[i - 1].words > runs_[i].new_word)
        error("%s: the new layout puts two words of the old text at new address %#llx", option.program,
              (unsigned long long)(bin.text_lo + 4 * uint64_t(runs_[i].new_word)));
  }
  // The old word at new address a, or none where no old word went and
  // outside the new text.  Asked in rising order, mostly: the search
  // starts at the run of the last answer, or the one behind it.
  uint32_t at(uint64_t a) const {
    if (a < bin.text_lo || (a - bin.text_lo) / 4 >= bin.text_words)
      return none;
    uint32_t w = uint32_t((a - bin.text_lo) / 4);
    size_t i = hint_;
    auto holds = [this, w](size_t k) {
      return k < runs_.size() && runs_[k].new_word <= w && (k + 1 == runs_.size() || runs_[k + 1].new_word > w);
    };
    if (!holds(i) && holds(i + 1)) // the next run: the answers rise run by run
      hint_ = ++i;
    if (!holds(i)) {
      i = size_t(std::upper_bound(runs_.begin(), runs_.end(), w,
                                  [](uint32_t x, const Run &r) { return x < r.new_word; }) -
                 runs_.begin());
      if (i == 0)
        return none;
      hint_ = --i;
    }
    const Run &r = runs_[i];
    return w - r.new_word < r.words ? r.old_word + (w - r.new_word) : none;
  }

private:
  struct Run {
    uint32_t new_word, old_word, words;
  };
  std::vector<Run> runs_; // by new_word, none overlapping
  mutable size_t hint_ = 0;
};

// Adds the ranges that describe new addresses [from, to): runs of words
// that lie together in the old text as well, and, outside .text (and for
// words the layout left where they were), the identity.  Whatever the
// procedures' bounds say, the table says where every word really went.
class RangeAdder {
public:
  RangeAdder(XlateProducer *h) : h(h) {}

  void fill(uint64_t from, uint64_t to, bool hole) {
    while (from < to) {
      uint64_t len;
      uint64_t old = from;
      uint32_t k = map.at(from);
      if (k != NewToOld::none) {
        // The old words from k that stay together stay together in the new
        // text too, from `from` on.
        old = bin.text_lo + 4 * uint64_t(k);
        len = std::min<uint64_t>(4 * (text_map_run_end(k, bin.text_words) - k), (to - from + 3) / 4 * 4);
      } else {
        // Identity up to the next word the text map describes.
        uint64_t text_end = bin.text_lo + 4 * uint64_t(bin.text_words);
        uint64_t stop = from < bin.text_lo ? bin.text_lo : from < text_end ? from + 4 : to;
        while (stop < to && stop < text_end && stop >= bin.text_lo && map.at(stop) == NewToOld::none)
          stop += 4;
        len = std::min(stop, to) - from;
      }
      add(from, len, old, hole);
      from += len;
    }
  }

private:
  XlateProducer *h;
  NewToOld map;

  void add(uint64_t new_addr, uint64_t len, uint64_t old_addr, bool hole) {
    int st = xlate_pro_add_range_xtnd(h, new_addr, len, old_addr, len);
    if (st == XLATE_OK)
      return;
    if (hole)
      error("xlate failure in adding range.... status %d new address 0x%llx length 0x%llx  old address 0x%llx "
            "length 0x%llx",
            st, (unsigned long long)new_addr, (unsigned long long)len, (unsigned long long)old_addr,
            (unsigned long long)len);
    error("xlate failure");
  }
};

struct FinishProducer {
  void operator()(XlateProducer *h) const { xlate_pro_finish_xtnd(h); }
};

} // namespace

uint64_t find_end_of_elf(Elf *elf) {
  return bin.is_elf32 ? end_of_elf<Elf32Class>(elf) : end_of_elf<Elf64Class>(elf);
}

// The name table grows by a multiple of 8 bytes, so that whatever lies
// behind it in the file (the sections after it, the section header table)
// keeps its alignment.
uint32_t add_section_name(Elf *elf, const char *name) {
  size_t shstrndx = 0;
  Elf_Scn *scn = elf_getshdrstrndx(elf, &shstrndx) == 0 ? elf_getscn(elf, shstrndx) : nullptr;
  Elf_Data *d = scn ? elf_getdata(scn, nullptr) : nullptr;
  if (d == nullptr) {
    print_elf_error(option.program);
    error("cannot read the section name table of %s", option.output);
  }
  size_t old_size = d->d_size, grow = round_up(std::strlen(name) + 1, 8);
  std::vector<uint8_t> &buf = bin.out_buffers.emplace_back(old_size + grow, 0);
  if (old_size != 0 && d->d_buf != nullptr)
    std::memcpy(buf.data(), d->d_buf, old_size);
  std::memcpy(buf.data() + old_size, name, std::strlen(name) + 1);
  d->d_buf = buf.data();
  // Growing in place moves the sections of higher index behind it; one of
  // lower index may lie behind it too (a section an update wrote anew at
  // the end of the file): then the table moves to the end of the file.
  GElf_Shdr names;
  if (gelf_getshdr(scn, &names) == nullptr) {
    print_elf_error(option.program);
    error("cannot read the section name table of %s", option.output);
  }
  bool in_place = true;
  for (size_t i = 1; i < shstrndx; ++i) {
    GElf_Shdr sh;
    Elf_Scn *s = elf_getscn(elf, i);
    if (s != nullptr && gelf_getshdr(s, &sh) != nullptr && sh.sh_type != SHT_NOBITS && sh.sh_size != 0 &&
        sh.sh_offset >= names.sh_offset + names.sh_size)
      in_place = false;
  }
  if (in_place) {
    expand_section(scn, uint32_t(grow));
    return uint32_t(old_size);
  }
  names.sh_size = 0;
  gelf_update_shdr(scn, &names);
  names.sh_offset = round_up(find_end_of_elf(elf), std::max<uint64_t>(names.sh_addralign, 1));
  names.sh_size = buf.size();
  d->d_size = buf.size();
  GElf_Ehdr eh;
  if (gelf_update_shdr(scn, &names) == 0 || gelf_getehdr(elf, &eh) == nullptr) {
    print_elf_error(option.program);
    error("cannot move the section name table of %s", option.output);
  }
  eh.e_shoff = round_up(names.sh_offset + names.sh_size, bin.is_elf32 ? 4 : 8);
  gelf_update_ehdr(elf, &eh);
  return uint32_t(old_size);
}

XlateSection create_xlate_section() {
  return bin.is_elf32 ? create_section<Elf32Class>() : create_section<Elf64Class>();
}

void add_xlate_data(XlateSection &s, std::vector<uint8_t> piece) {
  std::vector<uint8_t> &buf = bin.out_buffers.emplace_back(std::move(piece));
  Elf_Data *d = s.reuse ? s.reuse : elf_newdata(s.scn);
  s.reuse = nullptr;
  if (d == nullptr) {
    print_elf_error(option.program);
    error("cannot add to the .MIPS.Xlate section of %s", option.output);
  }
  d->d_buf = buf.data();
  d->d_type = ELF_T_BYTE;
  d->d_size = buf.size();
  d->d_off = int64_t(s.data_offset);
  d->d_align = 1;
  d->d_version = EV_CURRENT;
  s.data_offset += buf.size();
  if (bin.is_elf32)
    elf32_getshdr(s.scn)->sh_size += uint32_t(buf.size());
  else
    elf64_getshdr(s.scn)->sh_size += buf.size();
}

void finish_xlate(XlateSection &s) {
  if (bin.is_elf32)
    finish<Elf32Class>(s);
  else
    finish<Elf64Class>(s);
}

bool open_input_xlate(XlateTable *t) {
  if (bin.in_xlate == nullptr)
    return false;
  int st = xlate_open_xtnd(bin.in_xlate, bin.in_xlate_size, t);
  if (st != XLATE_OK)
    error("%s: its .MIPS.Xlate section is no translation table vesk can read (status %d: %s)", option.program, st,
          xlate_status_text(st));
  return true;
}

namespace {

// The table of the new layout: `moved` holds the old place (address,
// size) of every procedure in .text, in new order, `first_new` where the
// first procedure now starts (0: none in .text).  Reads the layout and the
// input only, and so may run beside the rest of the rewrite.
std::vector<std::vector<uint8_t>> make_xlate_table(const std::vector<std::pair<uint64_t, uint32_t>> &moved,
                                                   uint64_t first_new) {
  XlateTable input;
  bool composed = open_input_xlate(&input);
  XlateProducer *raw = nullptr;
  if (xlate_pro_init_xtnd(&raw, XLATE_KIND_SAME_SIZE, composed ? &input : nullptr, bin.is_elf32 == 0) != XLATE_OK)
    error("xlate failure");
  std::unique_ptr<XlateProducer, FinishProducer> h(raw);
  if (dwarf_follows_layout())
    h->flag_b |= XLATE_FLAG_DWARF_UPDATED;
  RangeAdder ranges(h.get());

  // Code below .text (init code, stubs) stays; the range reaches up to the
  // first procedure, over the stubs at the start of .text that never move.
  uint64_t cursor = 0;
  if (bin.exec_lo < bin.text_lo) {
    uint64_t end = bin.text_lo;
    if (first_new > bin.text_lo)
      end = first_new;
    ranges.fill(bin.exec_lo, end, false);
    cursor = end;
  }
  // The procedures in new order, each with the hole before it.  A
  // procedure that shares words with one before it was laid out partly
  // there: only what lies beyond the cursor is left to describe.
  for (size_t i = 0; i < moved.size(); ++i) {
    if (i + 8 < moved.size())
      __builtin_prefetch(bin.text_map + ((moved[i + 8].first - bin.text_lo) >> 2));
    uint64_t n = text_map_of(moved[i].first), end = n + moved[i].second;
    if (cursor != 0 && cursor < n)
      ranges.fill(cursor, n, true);
    else if (cursor != 0 && n < cursor)
      n = cursor;
    if (n < end)
      ranges.fill(n, end, false);
    cursor = std::max(cursor, end);
  }
  // The rest: words no procedure covers, which the layout put behind the
  // procedures, and the code behind .text.
  uint64_t start = cursor != 0 && cursor < bin.text_hi ? cursor : std::max(cursor, bin.text_hi);
  if (start < bin.exec_hi)
    ranges.fill(start, bin.exec_hi, false);

  uint64_t size = 0, count = 0;
  if (xlate_pro_disk_header_xtnd(h.get(), 1, &size, &count) != XLATE_OK)
    error("xlate failure");
  std::vector<std::vector<uint8_t>> pieces;
  for (uint64_t i = 0; i < count; ++i) {
    uint64_t length = 0;
    if (xlate_pro_disk_next_block_xtnd(h.get(), &pieces.emplace_back(), &length) != XLATE_OK)
      error("xlate failure");
  }
  return pieces;
}

} // namespace

void build_xlate_table(const std::vector<Proc *> &order) {
  // The procedures' places in the old text are all over it (the map is
  // read in old order): gathered first, so that the map entries of the
  // procedures a few ahead can be fetched early.
  auto moved = std::make_shared<std::vector<std::pair<uint64_t, uint32_t>>>(); // old address, size
  moved->reserve(order.size());
  for (size_t i = 0; i < order.size(); ++i) {
    if (i + 8 < order.size())
      __builtin_prefetch(order[i + 8]);
    const Proc *p = order[i];
    if (in_text(p->old_addr) && p->size != 0)
      moved->push_back({p->old_addr, p->size});
  }
  uint64_t first_new = 0;
  if (Proc *first = bin.procs.order_head; first != nullptr && in_text(first->old_addr))
    first_new = text_map_of(first->old_addr);
  bin.xlate_pieces.clear();
  // On the second core, behind the DWARF's lists: made here, it would set
  // the run's peak beside them.
  bin.xlate_task = std::make_unique<Background>(
      [moved, first_new] { bin.xlate_pieces = make_xlate_table(*moved, first_new); });
}

void add_xlate_section() {
  if (bin.xlate_task == nullptr)
    return;
  bin.xlate_task->collect();
  bin.xlate_task.reset();
  XlateSection section = create_xlate_section();
  for (std::vector<uint8_t> &piece : bin.xlate_pieces)
    add_xlate_data(section, std::move(piece));
  bin.xlate_pieces.clear();
  finish_xlate(section);
}

} // namespace vesk
