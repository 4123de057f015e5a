// The new text: the procedures laid out end to end in list order, the text
// map from every old word to its new address, and the page statistics.
#include "vesk/order.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#include "base/background.h"
#include "base/bin.h"
#include "base/bytes.h"
#include "base/diag.h"
#include "base/proc.h"
#include "base/text_words.h"
#include "com/elf.h"
#include "vesk/checks.h"
#include "vesk/feedback.h"
#include "vesk/options.h"

namespace vesk {

namespace {

constexpr uint64_t PAGE = 4096;

// Lays out the input words in the order they are offered.  Every word is
// laid out once: a word that an earlier procedure already carried (the
// ranges of overlapping procedures) is skipped by the later ones, so the
// new text never holds more words than the old.  The map itself tells
// which words are laid out (kUnplaced: not yet; every entry starts so), so
// no second array as long as the text is needed.
struct Layout {
  static constexpr uint32_t kUnplaced = ~uint32_t(0);

  // Words first..end-1, less those laid out already.  A procedure's words
  // are consecutive in the input and stay so in the output: each run of
  // them is copied in one piece.
  void place(uint64_t first, uint64_t end) {
    uint32_t *map = bin.text_map;
    for (uint64_t i = first; i < end;) {
      if (map[i] != kUnplaced) {
        ++i;
        continue;
      }
      uint64_t j = i;
      uint32_t to = bin.new_text_fill;
      while (j < end && map[j] == kUnplaced)
        map[j++] = to++;
      std::memcpy(bin.new_text + 4 * uint64_t(bin.new_text_fill), bin.text_buf + 4 * i, 4 * (j - i));
      bin.new_text_fill = to;
      i = j;
    }
  }
};

// Whether the procedures' words can be laid out by two threads at once:
// no two of the listed records share a word, nor does one share a word
// with the stubs laid out first.  Then every procedure's place follows
// from the sizes of those in front of it.
bool spans_apart(const std::vector<TextSpan> &spans, uint64_t stub_words) {
  procs_by_start();
  const std::vector<bool> &overlaps = bin.procs.overlaps;
  if (std::find(overlaps.begin(), overlaps.end(), true) != overlaps.end())
    return false;
  uint64_t words = stub_words;
  for (const TextSpan &s : spans) {
    if (s.size() != 0 && s.first < stub_words)
      return false;
    words += s.size();
  }
  return words <= bin.text_words;
}

// Lays spans [from, to) out at their places (at[i] for spans[i]).
void place_apart(const std::vector<TextSpan> &spans, const std::vector<uint32_t> &at, size_t from, size_t to) {
  constexpr size_t kAhead = 8;
  uint32_t *map = bin.text_map;
  for (size_t i = from; i < to; ++i) {
    if (i + kAhead < to && spans[i + kAhead].size() != 0) {
      uint64_t k = spans[i + kAhead].first;
      __builtin_prefetch(bin.text_buf + 4 * k);
      __builtin_prefetch(map + k, 1);
    }
    const TextSpan &s = spans[i];
    if (s.size() == 0)
      continue;
    for (uint64_t k = s.first; k < s.end; ++k)
      map[k] = at[i] + uint32_t(k - s.first);
    std::memcpy(bin.new_text + 4 * uint64_t(at[i]), bin.text_buf + 4 * s.first, 4 * s.size());
  }
}

void lay_out_text(const std::vector<Proc *> &order) {
  if (bin.text_words != 0 && (bin.new_text == nullptr || bin.text_map == nullptr))
    error("internal: no output text to lay the procedures out in");
  if (bin.fresh_text == nullptr)
    prepare_new_text(); // a run that did not begin with it
  bin.fresh_text->collect();
  bin.fresh_text.reset();
  // The map starts all unplaced, for the words that no procedure covers:
  // its back half is marked on the second core while the spans are found.
  uint64_t half = bin.text_words / 2;
  uint32_t *map = bin.text_map;
  Background mark(Background::Independent{},
                  [map, half] { std::fill(map + half, map + bin.text_words, Layout::kUnplaced); });

  // The spans first, then the copies: a shuffled order reads the text from
  // everywhere, and knowing the spans ahead lets the words, their map
  // entries and marks be fetched a few procedures early.
  constexpr size_t kAhead = 8;
  std::vector<TextSpan> spans;
  spans.reserve(order.size());
  for (size_t i = 0; i < order.size(); ++i) {
    if (i + kAhead < order.size())
      __builtin_prefetch(order[i + kAhead]);
    spans.push_back(text_span(order[i]));
  }
  // A run of stubs at the start of the text that no procedure covers stays
  // where it is.
  uint64_t stub_words = 0;
  if (bin.libstub_lo != 0 && bin.libstub_lo == bin.text_lo)
    stub_words = std::min<uint64_t>((bin.libstub_hi - bin.libstub_lo) / 4, bin.text_words);

  std::fill(map, map + half, Layout::kUnplaced);
  mark.collect();

  if (!spans_apart(spans, stub_words)) {
    Layout layout;
    bin.new_text_fill = 0;
    layout.place(0, stub_words);
    for (size_t i = 0; i < spans.size(); ++i) {
      if (i + kAhead < spans.size() && spans[i + kAhead].size() != 0) {
        uint64_t k = spans[i + kAhead].first;
        __builtin_prefetch(bin.text_buf + 4 * k);
        __builtin_prefetch(bin.text_map + k, 1);
      }
      layout.place(spans[i].first, spans[i].end);
    }
    // Words that no procedure covers still hold code or data that something
    // may refer to: they follow the procedures, in their input order.  Each
    // word is laid out once, so a full text has none left to look for.
    if (bin.new_text_fill != bin.text_words)
      layout.place(0, bin.text_words);
    return;
  }

  // Apart, the procedures are laid out by both cores, each half of the
  // words.
  std::vector<uint32_t> at(spans.size());
  uint64_t fill = stub_words, middle = spans.size();
  for (size_t i = 0; i < spans.size(); ++i) {
    at[i] = uint32_t(fill);
    fill += spans[i].size();
    if (middle == spans.size() && fill - stub_words > (bin.text_words - stub_words) / 2)
      middle = i + 1;
  }
  Background back(Background::Independent{}, [&spans, &at, middle] { place_apart(spans, at, middle, spans.size()); });
  if (stub_words != 0) {
    for (uint64_t k = 0; k < stub_words; ++k)
      map[k] = uint32_t(k);
    std::memcpy(bin.new_text, bin.text_buf, 4 * stub_words);
  }
  place_apart(spans, at, 0, middle);
  back.collect();
  bin.new_text_fill = uint32_t(fill);
  if (bin.new_text_fill != bin.text_words)
    Layout().place(0, bin.text_words);
}

// Marks pages first..last (inclusive) of one layout; the counts are taken
// once all procedures are marked.
struct PageMarks {
  std::vector<int32_t> delta;
  explicit PageMarks(uint64_t n_pages) : delta(n_pages + 1, 0) {}
  void mark(uint64_t first, uint64_t last) {
    if (first > last)
      return;
    ++delta[first];
    --delta[last + 1];
  }
  // Which pages are marked, and how many.
  std::vector<bool> marked(uint32_t &count) const {
    std::vector<bool> m(delta.size() - 1);
    int64_t depth = 0;
    count = 0;
    for (size_t j = 0; j + 1 < delta.size(); ++j) {
      depth += delta[j];
      m[j] = depth > 0;
      count += m[j];
    }
    return m;
  }
};

void page_statistics(const std::vector<Proc *> &order) {
  uint64_t base = bin.text_lo / PAGE;
  uint64_t n_pages = bin.text_hi / PAGE - base + 1;
  PageMarks old_pages(n_pages), new_pages(n_pages);

  // The records a few ahead are fetched, and the map entries of those
  // whose records have come.
  constexpr size_t kAhead = 8;
  for (size_t i = 0; i < order.size(); ++i) {
    if (i + 2 * kAhead < order.size())
      __builtin_prefetch(order[i + 2 * kAhead]);
    if (i + kAhead < order.size())
      if (auto k = text_index(order[i + kAhead]->old_addr))
        __builtin_prefetch(bin.text_map + *k);
    Proc *p = order[i];
    if (p->freq == 0 || !text_index(p->old_addr))
      continue;
    if (p->size == 0) {
      warning("%s size 0", name_of(p));
      continue;
    }
    uint64_t first = p->old_addr / PAGE - base;
    uint64_t last_addr = p->size >= 4 ? p->old_addr + p->size - 4 : p->old_addr;
    uint64_t last = last_addr / PAGE - base;
    if (last >= n_pages)
      error("procedure %s (%#llx, %u bytes) reaches beyond the end of .text", name_of(p),
            (unsigned long long)p->old_addr, p->size);
    old_pages.mark(first, last);

    // The new pages of the procedure's first and last word in the text.
    TextSpan span = text_span(p);
    if (span.size() == 0)
      continue;
    uint64_t new_first = text_map_word(span.first) / PAGE - base;
    uint64_t new_last = text_map_word(span.end - 1) / PAGE - base;
    if (new_last < n_pages)
      new_pages.mark(new_first, new_last);
  }

  uint32_t old_count = 0, new_count = 0;
  std::vector<bool> old_marked = old_pages.marked(old_count);
  new_pages.marked(new_count);
  // Page 0 is counted as touched in the input even when no procedure with
  // feedback marked it; the new layout gets no such allowance.
  if (old_count != 0 && !old_marked[0])
    ++old_count;
  if (option.verbose)
    std::printf("Total text %dK. Touched text reduced from %dK to %dK\n", int(n_pages * 4), int(old_count * 4),
                int(new_count * 4));
}

void dump_address_mapping() {
  dump("Procedure Address Mapping");
  int i = 0;
  for (Proc *p = bin.procs.order_head; p != nullptr; p = p->next, ++i) {
    auto start = text_index(p->old_addr);
    if (!start) {
      dump("[%d] %20s old(%#llx) not changed", i, name_of(p), (unsigned long long)p->old_addr);
      continue;
    }
    uint64_t n = text_map_word(*start);
    dump("[%d] %20s old(%#llx) new(%#llx - %#llx)", i, name_of(p), (unsigned long long)p->old_addr,
         (unsigned long long)n, (unsigned long long)(n + p->size));
  }
}

} // namespace

void prepare_new_text() {
  // Every word of the output text is written by the layout: its old
  // contents need not be copied from the file page by page as the writes
  // reach them.  Nothing reads or writes the output text before.
  uint8_t *text = bin.new_text;
  size_t size = 4 * size_t(bin.text_words);
  bin.fresh_text = std::make_unique<Background>([text, size] { prepare_to_overwrite(text, size); });
}

std::vector<Proc *> reorder_procedures() {
  write_merged_feedback();
  // The list, in an order that feedback gave, leads all over the table, and
  // each step of a walk waits for the record it comes to.  Walked once into
  // an array, it lets the steps below fetch the records a few ahead.
  std::vector<Proc *> order;
  order.reserve(bin.procs.records.size());
  for (Proc *p = bin.procs.order_head; p != nullptr; p = p->next)
    order.push_back(p);
  lay_out_text(order);
  page_statistics(order);
  if (option.debug)
    dump_address_mapping();
  return order;
}

} // namespace vesk

namespace vesk {

void refuse_unrepairable_moves() {
  if (is_o32())
    return;
  uint64_t moved = 0, first = 0;
  for (uint64_t i = 0; i < bin.text_words; ++i)
    if (bin.text_map[i] != i && moved++ == 0)
      first = bin.text_lo + 4 * i;
  if (moved == 0)
    return;
  Proc *p = get_proc_by_addr(first);
  const char *abi = bin.is_elf32 ? "n32" : "n64";
  // An output whose rebuilt records did not fit keeps its old ones under
  // another type: they name the old addresses and must not be used, and
  // linking again would not help.
  if (find_section_by_name(bin.in_elf, ".MIPS.events") != nullptr)
    error("%s is an %s executable: the new layout moves %llu instruction words (the first at %#llx, in %s), and "
          "its .MIPS.events section no longer describes its code (the vesk run that wrote it could not rebuild "
          "it in place); lay out the original executable instead; no output is written",
          option.program, abi, (unsigned long long)moved, (unsigned long long)first,
          p && p->name ? p->name : "no named procedure");
  error("%s is an %s executable: the new layout moves %llu instruction words (the first at %#llx, in %s), and "
        "without a .MIPS.events section vesk cannot repair the gp set-ups and address loads of moved %s code; "
        "link it with -Wl,-q so that vesk can describe them; no output is written",
        option.program, abi, (unsigned long long)moved, (unsigned long long)first,
        p && p->name ? p->name : "no named procedure", abi);
}

} // namespace vesk
