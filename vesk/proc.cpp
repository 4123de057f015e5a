#include "vesk/proc.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unordered_map>
#include <vector>

#include "vesk/bin.h"
#include "vesk/diag.h"
#include "vesk/options.h"

namespace vesk {

Proc *order_head;
Proc *order_tail;
int status;

namespace {

Proc *proc_table;
int n_procs;
int proc_capacity;
Proc *last_hit;
int name_search_start;

const char *text_or_null(const char *s) { return s ? s : "(null)"; }

bool holds(const Proc *p, uint64_t addr) { return p->old_addr <= addr && addr < p->old_addr + p->size; }

// Lookups by address walk the new-order list from the last hit.  With many
// procedures and lookups in another order than the list, that walk is
// quadratic, so an index over the list's records answers whenever the
// answer cannot depend on the walk's order: when exactly one record holds
// the address, or none does.  Overlapping records fall back to the walk.
struct AddrIndex {
  bool valid = false;
  std::vector<Proc *> by_start;      // records of the list with size > 0
  std::vector<uint64_t> max_end;     // prefix maximum of the ends
  std::vector<bool> overlaps;        // the record shares an address with another
};
AddrIndex addr_index;

// Lookups by name: every record's index under its (name, file name).
struct NameIndex {
  bool valid = false;
  std::unordered_map<std::string, std::vector<int>> slots;
};
NameIndex name_index;

std::string name_key(const char *name, const char *file_name) {
  std::string k(name);
  k.push_back('\0');
  k.append(file_name);
  return k;
}

void invalidate_indexes() {
  addr_index.valid = false;
  name_index.valid = false;
}

void build_addr_index() {
  AddrIndex &ix = addr_index;
  ix.by_start.clear();
  for (Proc *p = order_head; p != nullptr; p = p->next)
    if (p->size != 0)
      ix.by_start.push_back(p);
  std::stable_sort(ix.by_start.begin(), ix.by_start.end(),
                   [](const Proc *a, const Proc *b) { return a->old_addr < b->old_addr; });
  size_t n = ix.by_start.size();
  ix.max_end.assign(n, 0);
  ix.overlaps.assign(n, false);
  uint64_t max_end = 0;
  size_t max_holder = 0;
  for (size_t i = 0; i < n; ++i) {
    const Proc *p = ix.by_start[i];
    uint64_t end = p->old_addr + p->size;
    if (i > 0 && p->old_addr < max_end) {
      ix.overlaps[i] = true;
      ix.overlaps[max_holder] = true;
    }
    if (i == 0 || end > max_end) {
      max_end = end;
      max_holder = i;
    }
    ix.max_end[i] = max_end;
  }
  ix.valid = true;
}

// The walk itself: from last_hit to the end of the list, then the whole list.
Proc *walk_for_addr(uint64_t addr) {
  for (Proc *p = last_hit; p != nullptr; p = p->next)
    if (holds(p, addr))
      return p;
  for (Proc *p = order_head; p != nullptr; p = p->next)
    if (holds(p, addr))
      return p;
  return nullptr;
}

void build_name_index() {
  name_index.slots.clear();
  for (int i = 0; i < n_procs; ++i) {
    const Proc &p = proc_table[i];
    if (p.name != nullptr && p.file_name != nullptr)
      name_index.slots[name_key(p.name, p.file_name)].push_back(i);
  }
  name_index.valid = true;
}

} // namespace

Proc *new_proc() {
  if (n_procs == proc_capacity) {
    if (proc_table == nullptr) {
      proc_capacity = 1024;
      proc_table = static_cast<Proc *>(std::malloc(sizeof(Proc) * proc_capacity));
    } else {
      proc_capacity *= 2;
      proc_table = static_cast<Proc *>(std::realloc(proc_table, sizeof(Proc) * proc_capacity));
    }
    if (proc_table == nullptr)
      error("malloc error");
  }
  Proc *p = &proc_table[n_procs++];
  p->name = nullptr;
  p->file_name = nullptr;
  p->old_addr = 0;
  p->size = 0;
  p->freq = 0;
  p->prev = nullptr;
  p->next = nullptr;
  p->placed = 0;
  p->tied = 0;
  invalidate_indexes();
  return p;
}

int get_n_procs() { return n_procs; }

Proc *get_proc_by_index(long i) {
  if (i < 0 || i >= n_procs)
    error("vesk internal: get_proc By index gets %ld, valid is 0 thru %d\n", i, n_procs);
  return &proc_table[i];
}

ProcMapEntry *alloc_proc_map() {
  if (n_procs == 0)
    error("internal");
  return static_cast<ProcMapEntry *>(std::malloc(sizeof(ProcMapEntry) * size_t(n_procs)));
}

void attach_proc_list(Proc *p) {
  if (order_head == nullptr) {
    order_head = p;
    p->prev = nullptr;
  } else {
    order_tail->next = p;
    p->prev = order_tail;
  }
  order_tail = p;
  addr_index.valid = false;
}

void attach_proc_with_no_feedback() {
  // Table order, except for n32 and n64: vesk cannot repair their moved
  // code yet, so there the procedures without feedback keep their input
  // order and a run without feedback keeps the layout as it is.
  std::vector<int> indexes(static_cast<size_t>(n_procs));
  for (int i = 0; i < n_procs; ++i)
    indexes[size_t(i)] = i;
  if (!is_o32())
    std::stable_sort(indexes.begin(), indexes.end(),
                     [](int a, int b) { return proc_table[a].old_addr < proc_table[b].old_addr; });
  for (int i : indexes) {
    Proc *p = &proc_table[i];
    if (p->placed != 0)
      continue;
    attach_proc_list(p);
    if (p->name == nullptr || std::strcmp(p->name, ".libstub") != 0) {
      status = 1;
      if (option.verbose)
        warning("No feedback data. %s(%s) placed at the end", text_or_null(p->name), text_or_null(p->file_name));
    }
  }
}

int clear_proc_flag() {
  for (int i = 0; i < n_procs; ++i)
    proc_table[i].placed = 0;
  return n_procs;
}

Proc *get_proc_by_addr(uint64_t addr) {
  if (!addr_index.valid)
    build_addr_index();
  const AddrIndex &ix = addr_index;
  // The last record that starts at or below addr.
  auto it = std::upper_bound(ix.by_start.begin(), ix.by_start.end(), addr,
                             [](uint64_t a, const Proc *p) { return a < p->old_addr; });
  Proc *found = nullptr;
  if (it != ix.by_start.begin()) {
    size_t r = size_t(it - ix.by_start.begin()) - 1;
    if (holds(ix.by_start[r], addr) && !ix.overlaps[r])
      found = ix.by_start[r];
    else if (ix.max_end[r] > addr)
      found = walk_for_addr(addr); // several records may hold it: the walk decides
  }
  last_hit = found;
  return found;
}

Proc *find_proc_by_name(const char *name, const char *file_name) {
  Proc *found = nullptr;
  if (name != nullptr && file_name != nullptr) {
    if (!name_index.valid)
      build_name_index();
    auto slot = name_index.slots.find(name_key(name, file_name));
    if (slot != name_index.slots.end()) {
      const std::vector<int> &ids = slot->second;
      auto from = std::lower_bound(ids.begin(), ids.end(), name_search_start);
      for (auto i = from; i != ids.end() && !found; ++i)
        if (proc_table[*i].placed == 0)
          found = &proc_table[*i];
      for (auto i = ids.begin(); i != from && !found; ++i)
        if (proc_table[*i].placed == 0)
          found = &proc_table[*i];
    }
  }
  if (found != nullptr) {
    name_search_start = int(found - proc_table);
    return found;
  }
  status = 1;
  if (option.verbose)
    warning("Procedure not found. %s(%s) feedback ignored", text_or_null(name), text_or_null(file_name));
  return nullptr;
}

int cmp_begin(const void *a, const void *b) {
  // Only the low halves take part, on purpose.
  uint32_t x = uint32_t(static_cast<const Proc *>(a)->old_addr);
  uint32_t y = uint32_t(static_cast<const Proc *>(b)->old_addr);
  return x < y ? -1 : x > y ? 1 : 0;
}

void mdebug_derive_proc_highpc() {
  if (n_procs == 0)
    error("no procedure in mdebug");
  std::stable_sort(proc_table, proc_table + n_procs,
                   [](const Proc &a, const Proc &b) { return cmp_begin(&a, &b) < 0; });
  invalidate_indexes();
  for (int i = 0; i + 1 < n_procs; ++i) {
    Proc &p = proc_table[i];
    Proc &q = proc_table[i + 1];
    if (q.old_addr < p.old_addr)
      error("[%d]%s %#x > [%d]%s %#x", i, text_or_null(p.name), uint32_t(p.old_addr), i + 1, text_or_null(q.name),
            uint32_t(q.old_addr));
    p.size = uint32_t(q.old_addr) - uint32_t(p.old_addr);
  }
  Proc &last = proc_table[n_procs - 1];
  if (bin.text_hi < last.old_addr)
    error("[%d]%s %#x > bin.text_hi %#x", n_procs - 1, text_or_null(last.name), uint32_t(last.old_addr),
          uint32_t(bin.text_hi));
  last.size = uint32_t(bin.text_hi) - uint32_t(last.old_addr);
}

static void dump_one(int i, const Proc *p) {
  dump("[%d] %20s %#llx %#10x %10u", i, text_or_null(p->name), (unsigned long long)p->old_addr, p->size, p->freq);
}

void dump_procs() {
  dump("Procedure Table");
  for (int i = 0; i < n_procs; ++i)
    dump_one(i, &proc_table[i]);
}

void dump_proc_list() {
  dump("Procedure Table");
  int i = 0;
  for (Proc *p = order_head; p != nullptr; p = p->next)
    dump_one(i++, p);
}

void reset_proc_table() {
  std::free(proc_table);
  proc_table = nullptr;
  n_procs = proc_capacity = 0;
  order_head = order_tail = nullptr;
  last_hit = nullptr;
  name_search_start = 0;
  status = 0;
  invalidate_indexes();
}

} // namespace vesk
