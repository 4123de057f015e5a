// The R4000 end-of-page workaround: some R4000 parts mis-execute a divide,
// or a branch whose delay slot starts the next page after a memory access,
// in the last word of a 4 KB page.  Before layout, procedures are moved in
// front of a faulty group so that the fault no longer ends a page; after
// rewriting, the faults that remain are reported.
#include "vesk/r4000.h"

#include "base/bin.h"
#include "base/bytes.h"
#include "base/diag.h"
#include "base/mips.h"
#include "base/proc.h"
#include "vesk/checks.h"
#include "vesk/options.h"

namespace vesk {

namespace {

constexpr uint32_t PAGE_MASK = 0xfff;
constexpr uint32_t LAST_WORD_OF_PAGE = 0xffc;
constexpr uint32_t PAGE = 0x1000;

// The layout starts behind a run of stubs at the start of the text, else at
// the start of the text itself; new addresses are predicted from there by
// adding each procedure's size in list order.
uint32_t predicted_start() {
  if (bin.libstub_lo != 0 && bin.libstub_lo == bin.text_lo)
    return uint32_t(bin.libstub_hi);
  return uint32_t(bin.text_lo);
}

bool faulty_page_end(uint64_t idx, uint32_t w) {
  if (mips::r4000_is_divide(w))
    return true;
  int r1, r2;
  if (!mips::r4000_is_branch(w, r1, r2) || idx < 2)
    return false;
  uint32_t x = word_at(bin.text_buf, idx - 2);
  return mips::r4000_is_memory_access(x) || mips::is_mfc1(x);
}

} // namespace

uint32_t check_r4000_bug_per_block(int report, uint32_t new_start, uint32_t old_start, uint32_t size) {
  uint32_t text_lo = uint32_t(bin.text_lo);
  uint32_t count = 0;
  uint64_t end = uint64_t(new_start) + size;
  uint64_t p = (new_start & ~PAGE_MASK) + LAST_WORD_OF_PAGE;
  for (; p < end; p += PAGE) {
    uint32_t o = uint32_t(p) - new_start + old_start;
    uint64_t idx = uint32_t(o - text_lo) / 4;
    if (o < text_lo || idx >= bin.text_words)
      continue; // the block reaches beyond the text: nothing to read there
    uint32_t w = word_at(bin.text_buf, idx);
    if (!faulty_page_end(idx, w))
      continue;
    ++count;
    if (report && option.debug)
      warning("R4000 eop bug. old[%#llx] = new[%#x]= %#x ", (unsigned long long)(bin.text_lo + (o - text_lo)),
              uint32_t(p), w);
  }
  return count;
}

void fix_r4000_bug() {
  uint32_t a = predicted_start();
  Proc *c = bin.procs.order_head;
  while (c != nullptr) {
    if (check_r4000_bug_per_block(0, a, uint32_t(c->old_addr), c->size) == 0) {
      a += c->size;
      c = c->next;
      continue;
    }
    // The group that holds c: c and the procedures tied in front of it.
    uint32_t s = a;
    Proc *g = c->prev;
    while (g != nullptr && g->tied == 1) {
      s -= g->size;
      g = g->prev;
    }
    if (g == nullptr) {
      // The group leads the list; nothing can go in front of it.
      a += c->size;
      if (option.verbose)
        warning("cannot fix R4000 eop bug");
      c = c->next;
      continue;
    }
    // A chain head behind c whose own words cause no fault at the group's
    // start.
    Proc *k = c->next;
    while (k != nullptr &&
           (k->prev->tied == 1 || check_r4000_bug_per_block(0, s, uint32_t(k->old_addr), k->size) != 0))
      k = k->next;
    if (k == nullptr) {
      a += c->size;
      warning("cannot fix R4000 eop bug");
      a += c->size;
      warning("cannot fix R4000 eop bug");
      c = c->next;
      continue;
    }
    Proc *e = k;
    while (e->tied == 1 && e->next != nullptr)
      e = e->next;
    Proc *h = g->next;
    // Unlink k..e and put it between g and h.
    k->prev->next = e->next;
    if (e->next != nullptr)
      e->next->prev = k->prev;
    g->next = k;
    k->prev = g;
    e->next = h;
    h->prev = e;
    // Check the moved chain again at its new place.
    a = s + k->size;
    c = k->next;
  }
}

void check_r4000_bug() {
  uint32_t a = predicted_start();
  for (Proc *p = bin.procs.order_head; p != nullptr; p = p->next) {
    check_r4000_bug_per_block(1, a, uint32_t(p->old_addr), p->size);
    a += p->size;
  }
}

} // namespace vesk
