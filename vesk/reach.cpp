#include "vesk/reach.h"

#include <cstring>
#include <string_view>
#include <vector>

#include "base/bin.h"
#include "base/bytes.h"
#include "base/diag.h"
#include "base/mips.h"
#include "base/text_words.h"
#include "vesk/checks.h"
#include "vesk/options.h"

namespace vesk {

namespace {

std::string_view function_of(const Proc *p) {
  std::string_view n = p->name ? p->name : "";
  size_t cold = n.find(".cold");
  return cold == std::string_view::npos ? n : n.substr(0, cold);
}

bool is_cold_part(const Proc *p) { return p->name != nullptr && std::strstr(p->name, ".cold") != nullptr; }

struct SplitBranch {
  uint64_t from, to; // word indexes in the input text
  Proc *src, *dst;
};

// The new address of every input word, as the layout will give it: the
// leading stub run in place, then the procedures in list order (a word
// that an earlier procedure already carried is not laid out twice).
std::vector<uint64_t> predict_layout() {
  std::vector<uint64_t> at(bin.text_words, 0);
  std::vector<uint8_t> done(bin.text_words, 0);
  uint64_t fill = 0;
  auto place = [&](uint64_t i) {
    if (!done[i]) {
      done[i] = 1;
      at[i] = bin.text_lo + 4 * fill++;
    }
  };
  if (bin.libstub_lo != 0 && bin.libstub_lo == bin.text_lo)
    for (uint64_t i = 0; i < (bin.libstub_hi - bin.libstub_lo) / 4 && i < bin.text_words; ++i)
      place(i);
  for (Proc *p = bin.procs.order_head; p != nullptr; p = p->next) {
    TextSpan span = text_span(p);
    for (uint64_t i = span.first; i < span.end; ++i)
      place(i);
  }
  for (uint64_t i = 0; i < bin.text_words; ++i)
    place(i);
  return at;
}

bool in_reach(const std::vector<uint64_t> &at, const SplitBranch &b) {
  int64_t delta = int64_t(at[b.to]) - int64_t(at[b.from]) - 4;
  return delta >= -32768 * 4 && delta <= 32767 * 4;
}

Proc *chain_head(Proc *p) {
  while (p->prev != nullptr && p->prev->tied == 1)
    p = p->prev;
  return p;
}

Proc *chain_end(Proc *p) {
  while (p->tied == 1 && p->next != nullptr)
    p = p->next;
  return p;
}

// Moves the chain holding `part` right behind the chain holding `anchor`;
// false when both are in one chain already.
bool move_behind(Proc *part, Proc *anchor) {
  Proc *head = chain_head(part), *end = chain_end(part);
  for (Proc *x = head;; x = x->next) {
    if (x == anchor)
      return false;
    if (x == end)
      break;
  }
  Proc *after = chain_end(anchor);
  if (after->next == head)
    return false;
  // Unlink head..end.
  if (head->prev != nullptr)
    head->prev->next = end->next;
  else
    bin.procs.order_head = end->next;
  if (end->next != nullptr)
    end->next->prev = head->prev;
  // Insert behind `after`.
  end->next = after->next;
  if (after->next != nullptr)
    after->next->prev = end;
  after->next = head;
  head->prev = after;
  return true;
}

} // namespace

bool parts_of_one_function(const Proc *a, const Proc *b) {
  return a != b && a->name != nullptr && b->name != nullptr && (is_cold_part(a) || is_cold_part(b)) &&
         function_of(a) == function_of(b);
}

void keep_split_functions_in_reach() {
  // Only branches between a function's hot and cold parts are kept in
  // reach here; most programs have no cold parts at all.
  bool any_cold = false;
  for (const Proc &p : bin.procs.records)
    any_cold = any_cold || is_cold_part(&p);
  if (!any_cold)
    return;
  std::vector<SplitBranch> branches;
  for (uint64_t i = 0; i < bin.text_words; ++i) {
    uint32_t w = word_at(bin.text_buf, i);
    if (mips::fixup_kind(w) != mips::Fixup::branch)
      continue;
    uint64_t a = bin.text_lo + 4 * i;
    auto t = text_index(mips::branch_target(a, w));
    if (!t)
      continue;
    Proc *p = get_proc_by_addr(a);
    Proc *q = p ? get_proc_by_addr(bin.text_lo + 4 * *t) : nullptr;
    if (q != nullptr && parts_of_one_function(p, q))
      branches.push_back({i, *t, p, q});
  }
  if (branches.empty())
    return;
  // Each move puts a cold part next to its hot part, where it stays; a
  // few rounds settle every function, and the branch fix-up refuses what
  // would still be out of reach.
  for (int round = 0; round < 8; ++round) {
    std::vector<uint64_t> at = predict_layout();
    bool moved = false;
    for (const SplitBranch &b : branches) {
      if (in_reach(at, b))
        continue;
      Proc *cold = is_cold_part(b.dst) ? b.dst : b.src;
      Proc *hot = cold == b.dst ? b.src : b.dst;
      if (move_behind(cold, hot)) {
        moved = true;
        if (option.verbose)
          note("%s placed behind %s to keep their branches in reach", cold->name, hot->name);
      }
    }
    if (!moved)
      return;
  }
}

} // namespace vesk
