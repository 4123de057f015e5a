// Checks of the procedure list against the code, before layout: coverage of
// .text, and the ties that keep procedures adjacent when code leaves one
// procedure for the next other than by a call or a return.
#include "vesk/checks.h"

#include <algorithm>
#include <optional>
#include <cstdio>
#include <cstring>
#include <unordered_map>
#include <vector>

#include "base/bin.h"
#include "base/key_sort.h"
#include "base/bytes.h"
#include "base/diag.h"
#include "base/mips.h"
#include "base/search.h"
#include "base/text_words.h"
#include "com/eh_frame.h"
#include "vesk/noreturn.h"
#include "vesk/options.h"
#include "vesk/reach.h"

namespace vesk {


namespace {

Proc *physically_next(const Proc *p) { return get_proc_by_addr(p->old_addr + p->size); }

bool start_in_text(const Proc *p) { return text_index(p->old_addr).has_value(); }

struct ChainEndsScope {
  ChainEndsScope() {
    bin.procs.chain_ends.ends.clear();
    bin.procs.chain_ends.active = true;
  }
  ~ChainEndsScope() {
    bin.procs.chain_ends.active = false;
    bin.procs.chain_ends.ends.clear();
    bin.procs.chain_ends.tied_runs.clear();
    bin.procs.chain_ends.contiguous_walks = false;
  }
};

// Forgets what the walks learnt; a tie inside a chain is being cut.
void forget_chains() {
  bin.procs.chain_ends.ends.clear();
  bin.procs.chain_ends.tied_runs.clear();
}

bool procedures_overlap() {
  // The records, not the list: they lie in memory in order (usually the
  // order of their addresses too), the list in the feedback's.
  std::vector<KeyValue> v; // start, end
  v.reserve(bin.procs.records.size());
  for (const Proc &p : bin.procs.records)
    if (p.size != 0)
      v.emplace_back(p.old_addr, p.old_addr + p.size);
  stable_sort_by_key(v);
  for (size_t i = 1; i < v.size(); ++i)
    if (v[i].first < v[i - 1].second)
      return true;
  return false;
}

// Where the tie walk from cur towards `to` first has something to do:
// passes records that are tied to their physical successor already (the
// step from such a record changes nothing and prints nothing), stopping at
// `to`.
Proc *pass_tied_run(Proc *cur, const Proc *to) {
  if (!bin.procs.chain_ends.contiguous_walks || option.debug)
    return cur;
  auto noop_step = [](const Proc *x) {
    const Proc *n = x->next;
    return x->tied == 1 && n != nullptr && n->size != 0 && n->old_addr == x->old_addr + x->size;
  };
  bin.procs.chain_ends.path.clear();
  Proc *x = cur;
  while (x != to) {
    auto known = bin.procs.chain_ends.tied_runs.find(x);
    Proc *y = nullptr;
    // A remembered run may be taken unless `to` lies inside it.
    if (known != bin.procs.chain_ends.tied_runs.end() &&
        !(to->old_addr > x->old_addr && to->old_addr < known->second->old_addr))
      y = known->second;
    else if (noop_step(x))
      y = x->next;
    else
      break;
    bin.procs.chain_ends.path.push_back(x);
    x = y;
  }
  for (Proc *v : bin.procs.chain_ends.path) {
    auto &end = bin.procs.chain_ends.tied_runs[v];
    if (end == nullptr || end->old_addr < x->old_addr)
      end = x;
  }
  return x;
}

// The last member of b's chain (b, then each next while tied), printing
// each tied member when asked to.
Proc *walk_chain(Proc *b, bool print) {
  if (!bin.procs.chain_ends.active || print) {
    Proc *last = b;
    while (last->tied == 1) {
      if (print)
        std::printf("\t%s comes together\n", name_of(last));
      if (last->next == nullptr)
        error("internal in put_proc_together");
      last = last->next;
    }
    return last;
  }
  bin.procs.chain_ends.path.clear();
  Proc *x = b;
  while (x->tied == 1) {
    bin.procs.chain_ends.path.push_back(x);
    auto known = bin.procs.chain_ends.ends.find(x);
    Proc *y = known != bin.procs.chain_ends.ends.end() ? known->second : x->next;
    if (y == nullptr)
      error("internal in put_proc_together");
    x = y;
  }
  for (Proc *v : bin.procs.chain_ends.path)
    bin.procs.chain_ends.ends[v] = x;
  return x;
}

// The walks over the list visit every record once, in list order as the
// ties change it, skipping the records already examined.  Everything in
// front of the walk has been examined, and a tie moves a chain right
// behind the record being examined: from behind it (nothing examined yet)
// or from in front of it (all examined).  So an examined record met next
// heads a whole chain of examined records, which is passed in one step.
Proc *next_to_examine(Proc *p) {
  Proc *q = p->next;
  while (q != nullptr && q->examined)
    q = q->tied == 1 ? walk_chain(q, false)->next : q->next;
  return q;
}

} // namespace

int put_proc_together(Proc *a, Proc *b) {
  if (physically_next(a) != b)
    error("internal in put_proc_together");
  if (a->next == b) {
    a->tied = 1;
    return 0;
  }
  // The chain that moves: b and everything tied behind it.  Overlapping
  // procedures could make a the end of it, and moving the chain behind a
  // would then close the list into a ring.
  Proc *last = walk_chain(b, option.debug != 0);
  if (last == a)
    error("cannot tie %s behind %s: %s is tied behind %s already", name_of(b), name_of(a), name_of(a), name_of(b));
  if (a->tied == 1)
    error("%s already tied", name_of(a));
  a->tied = 1;

  // Unlink b..last.
  if (b->prev != nullptr && b->prev->tied == 1)
    forget_chains(); // cuts the chain in front of b
  if (b->prev == nullptr) {
    if (b != bin.procs.order_head)
      error("internal proc_head");
    bin.procs.order_head = last->next;
  } else {
    b->prev->next = last->next;
  }
  if (last->next != nullptr)
    last->next->prev = b->prev;
  // Insert it behind a.
  last->next = a->next;
  if (a->next != nullptr)
    a->next->prev = last;
  a->next = b;
  b->prev = a;
  return 1;
}

void verify_proc() {
  bin.libstub_lo = 0;
  bin.libstub_hi = 0;
  std::vector<uint8_t> covered(bin.text_words, 0);
  // Two procedures claiming one word would move it twice, or leave one of
  // them without its code: the procedure table is wrong.  Which words are
  // covered does not depend on the order the records are looked at in, so
  // they are looked at in the table's (the list leads all over memory in a
  // feedback order); only the message of an overlap names the procedure
  // the list meets it at.
  auto cover = [&covered](Proc *p) {
    TextSpan span = text_span(p);
    if (span.size() == 0)
      return true;
    if (std::memchr(&covered[span.first], 1, span.size()) != nullptr)
      return false;
    std::memset(&covered[span.first], 1, span.size());
    return true;
  };
  bool overlap = false;
  if (bin.procs.order_size == bin.procs.records.size())
    for (Proc &p : bin.procs.records)
      overlap = overlap || !cover(&p);
  if (overlap || bin.procs.order_size != bin.procs.records.size()) {
    std::fill(covered.begin(), covered.end(), 0);
    for (Proc *p = bin.procs.order_head; p != nullptr; p = p->next) {
      TextSpan span = text_span(p);
      if (span.size() == 0)
        continue;
      if (const void *twice = std::memchr(&covered[span.first], 1, span.size())) {
        uint64_t i = uint64_t(static_cast<const uint8_t *>(twice) - covered.data());
        error("%s: instruction %d at %#llx covered twice (procedure %s overlaps another)", option.program, int(i),
              (unsigned long long)(bin.text_lo + 4 * i), name_of(p));
      }
      std::memset(&covered[span.first], 1, span.size());
    }
  }
  warning("instruction count %ld\n", long(bin.text_words));

  for (uint64_t i = 0; i < bin.text_words; ++i) {
    if (covered[i]) {
      const void *gap = std::memchr(&covered[i], 0, bin.text_words - i);
      if (gap == nullptr)
        break;
      i = uint64_t(static_cast<const uint8_t *>(gap) - covered.data());
    }
    if (bin.libstub_lo == 0) {
      bin.libstub_lo = bin.text_lo + 4 * i;
      if (option.debug)
        std::printf("these instruction are likely lib stubs: [%d-", int(i));
      uint64_t end = i;
      while (end < bin.text_words && !covered[end])
        ++end;
      bin.libstub_hi = bin.text_lo + 4 * end;
      if (option.debug)
        std::printf("%d] %#llx - %#llx\n", int(end - 1), (unsigned long long)bin.libstub_lo,
                    (unsigned long long)bin.libstub_hi);
      i = end - 1;
      continue;
    }
    uint32_t w = word_at(bin.text_buf, i);
    if (w != 0 && w != 0x00000021) // padding no-ops are expected between procedures
      warning("instruction %d at %#llx not covered in debug section", int(i),
              (unsigned long long)(bin.text_lo + 4 * i));
  }
}

namespace {

// The words of the input's text that the fix-up repairs, and the branches
// that may leave their procedure, by index.  Nothing here depends on the
// procedures or the feedback: the pass can run before either is ready.
void scan_text() {
  bin.fixup_words.clear();
  bin.branch_words.clear();
  // Room at once (untouched room costs nothing): a vector grown by steps on
  // the second core hands its old buffers back while the other core works.
  bin.fixup_words.reserve(bin.text_words / 4);
  bin.branch_words.reserve(bin.text_words / 4);
  for (uint64_t i = 0; i < bin.text_words; ++i) {
    uint32_t w = word_at(bin.text_buf, i);
    if (!mips::may_branch_or_jump(w))
      continue;
    if (mips::fixup_kind(w) != mips::Fixup::none)
      bin.fixup_words.push_back(uint32_t(i));
    if (mips::ties_as_branch(w))
      bin.branch_words.push_back(uint32_t(i));
  }
}

} // namespace

void start_scanning_text() { bin.text_scan = std::make_unique<Background>(Background::Independent{}, scan_text); }

void check_branch_out_of_procedure() {
  ChainEndsScope scope;
  bin.procs.chain_ends.contiguous_walks = !procedures_overlap();
  bin.fixup_words_of = nullptr;
  if (bin.text_scan != nullptr)
    bin.text_scan->collect();
  else
    scan_text();
  bin.text_scan.reset();
  for (uint32_t i : bin.branch_words) {
    uint32_t w = word_at(bin.text_buf, i);
    uint64_t a = bin.text_lo + 4 * uint64_t(i);
    Proc *p = get_proc_by_addr(a);
    if (p == nullptr) {
      // DWARF describes only the code compiled with debug information: the
      // start-up and library code linked beside it is covered by no
      // procedure.  Such words are laid out together in their input order,
      // so their branches need no tie (the branch fix-up re-targets them).
      // mdebug procedures cover the whole text; there an uncovered branch
      // means the table is wrong.
      if (bin.debug_kind == DEBUG_DWARF)
        continue;
      error("cannot find procedure for branch target %#llx", (unsigned long long)a);
    }
    uint64_t t = mips::branch_target(a, w);
    if (p->old_addr <= t && t < p->old_addr + p->size)
      continue;
    Proc *q = get_proc_by_addr(t);
    if (q == nullptr) {
      warning("branch target %#llx from %#llx not in any procedure", (unsigned long long)t, (unsigned long long)a);
      continue;
    }
    // The hot and cold parts of one function are placed on their own and
    // kept in reach of each other after the plan is made.
    if (parts_of_one_function(p, q))
      continue;
    bool forward = mips::simm16(w) > 0;
    Proc *from = forward ? p : q;
    Proc *to = forward ? q : p;
    // Tie every procedure from `from` up to `to`, in address order.  Ends
    // grow strictly along the way, so the walk ends.  Among overlapping
    // procedures a lookup depends on the one before it, so there every
    // step looks its successor up, even the last.
    bool contiguous = bin.procs.chain_ends.contiguous_walks;
    Proc *cur = pass_tied_run(from, to);
    Proc *n = cur == to && contiguous ? nullptr : physically_next(cur);
    while (cur != to) {
      if (n == nullptr) {
        warning("no procedure at %#llx behind %s: branch in %s[%#llx] ties nothing further",
                (unsigned long long)(cur->old_addr + cur->size), name_of(cur), name_of(p), (unsigned long long)a);
        break;
      }
      if (n->old_addr < cur->old_addr)
        error("branch %s.addr > %s.addr", name_of(cur), name_of(n));
      if (put_proc_together(cur, n) == 1 && option.verbose == 1)
        note("%s and %s tied, branch in %s[%#llx]", name_of(cur), name_of(n), name_of(p), (unsigned long long)a);
      cur = pass_tied_run(n, to);
      n = cur == to && contiguous ? nullptr : physically_next(cur);
    }
  }
  bin.fixup_words_of = bin.text_buf;
  std::vector<uint32_t>().swap(bin.branch_words); // not needed again: its room goes to the rewrite
}

// Walks the list as the ties change it, examining every procedure once
// (`examined` marks them); a procedure starting in the text for
// which leaves_into_next() holds is tied to its physical successor, with
// the note "%s and %s tied, <why>" under -v.
template <class Leaves> void tie_procedures_that_run_on(Leaves leaves_into_next, const char *why) {
  ChainEndsScope scope;
  for (Proc &p : bin.procs.records)
    p.examined = false;
  for (Proc *p = bin.procs.order_head; p != nullptr; p = next_to_examine(p)) {
    if (p->examined)
      continue;
    p->examined = true;
    if (!start_in_text(p) || !leaves_into_next(p))
      continue;
    Proc *q = physically_next(p);
    if (q != nullptr && put_proc_together(p, q) == 1 && option.verbose == 1)
      note("%s and %s tied, %s", name_of(p), name_of(q), why);
  }
}

void tie_procedures_ending_in_a_call(NoReturn *shared) {
  std::optional<NoReturn> own;
  NoReturn &calls = shared ? *shared : own.emplace();
  tie_procedures_that_run_on(
      [&calls](const Proc *p) {
        if (p->size <= 7)
          return false;
        // The word before the last delay slot: a call there returns into
        // the next procedure.
        auto idx = text_index(p->old_addr + p->size - 8);
        if (!idx)
          return false;
        uint32_t w = word_at(bin.text_buf, *idx);
        // The name last: few procedures end in a call, and reading every
        // name would fetch them all.
        return (mips::is_jal(w) || mips::is_jalr(w)) && (p->name == nullptr || std::strcmp(p->name, ".libstub") != 0) &&
               !calls.ends_in_call_that_never_returns(p);
      },
      "jal/jalr");
}

void tie_procedures_without_a_return(NoReturn *shared) {
  std::optional<NoReturn> own;
  NoReturn &calls = shared ? *shared : own.emplace();
  tie_procedures_that_run_on(
      [&calls](const Proc *p) {
        // No return and no break: the procedure falls through, unless it
        // ends in a jump or branch that always goes elsewhere (the cold
        // part of a function returns into its hot part that way) or in a
        // call that never returns.
        // A record without words (the empty .libstub record at the start
        // of .text) runs into nothing.
        TextSpan span = text_span(p);
        if (span.size() == 0)
          return false;
        if (span.size() >= 2 && mips::is_unconditional(word_at(bin.text_buf, span.end - 2)))
          return false;
        if (calls.ends_in_call_that_never_returns(p))
          return false;
        for (uint64_t i = span.end; i > span.first;) {
          uint32_t w = word_at(bin.text_buf, --i);
          if (mips::is_jr(w) || mips::is_break0(w))
            return false;
        }
        return true;
      },
      "no jr");
}

void tie_procedures_sharing_unwind_info() {
  const std::vector<UnwindSpan> &spans = unwind_spans();
  if (spans.empty())
    return;
  // The procedures of the list by address, from the address index.  Only
  // procedures that start together could sort otherwise than from the
  // list's order: then the list is walked.
  auto by_start = [](const Proc *a, const Proc *b) { return a->old_addr < b->old_addr; };
  std::vector<Proc *> by_addr;
  for (Proc *p : procs_by_start())
    if (start_in_text(p))
      by_addr.push_back(p);
  if (std::adjacent_find(by_addr.begin(), by_addr.end(), [](const Proc *a, const Proc *b) {
        return a->old_addr == b->old_addr;
      }) != by_addr.end()) {
    by_addr.clear();
    for (Proc *p = bin.procs.order_head; p != nullptr; p = p->next)
      if (p->size != 0 && start_in_text(p))
        by_addr.push_back(p);
    std::sort(by_addr.begin(), by_addr.end(), by_start);
  }
  // The FDEs mostly come in address order: each search starts from where
  // the one before ended.
  size_t hint = 0;
  for (const UnwindSpan &s : spans) {
    // The procedures the span overlaps, in address order; each is tied to
    // the next when they lie back to back.  Code between them that no
    // procedure covers cannot be tied: the update refuses the layout if it
    // tore the span apart.
    hint = first_not_before(by_addr, hint, [&s](const Proc *p) { return p->old_addr <= s.lo; });
    auto it = by_addr.begin() + long(hint);
    if (it != by_addr.begin() && (*(it - 1))->old_addr + (*(it - 1))->size > s.lo)
      --it;
    for (; it != by_addr.end() && it + 1 != by_addr.end() && (*(it + 1))->old_addr < s.hi; ++it) {
      Proc *p = *it, *q = *(it + 1);
      if (q->old_addr != p->old_addr + p->size || physically_next(p) != q)
        continue;
      if (put_proc_together(p, q) == 1 && option.verbose == 1)
        note("%s and %s tied, one FDE of %s describes both", name_of(p), name_of(q), s.section);
    }
  }
}

} // namespace vesk
