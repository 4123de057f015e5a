#include "base/proc.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/bin.h"
#include "base/diag.h"
#include "base/key_sort.h"
#include "base/options.h"

namespace vesk {

namespace {

ProcTable &table() { return bin.procs; }

bool holds(const Proc *p, uint64_t addr) { return p->old_addr <= addr && addr < p->old_addr + p->size; }

size_t name_hash(const char *name, const char *file_name) { return hash_of(name) * 31 + hash_of(file_name); }

void invalidate_indexes() {
  table().last_unique = nullptr;
  table().addr_index_valid = false;
  table().name_index_valid = false;
}

void build_addr_index() {
  ProcTable &ix = table();
  // By start.  Records that start together overlap, and the lookup walks
  // the list for any address they hold whatever their order here, so the
  // list's order does not matter: when it holds every record, the table is
  // read in its own order (no walk all over memory) and sorted by start.
  std::vector<Proc *> listed;
  std::vector<KeyValue> keys;
  keys.reserve(ix.records.size());
  if (ix.order_size == ix.records.size()) {
    for (Proc &p : ix.records)
      if (p.size != 0)
        keys.emplace_back(p.old_addr, uint64_t(&p - ix.records.data()));
  } else {
    for (Proc *p = ix.order_head; p != nullptr; p = p->next)
      if (p->size != 0) {
        keys.emplace_back(p->old_addr, listed.size());
        listed.push_back(p);
      }
  }
  stable_sort_by_key(keys);
  size_t n = keys.size();
  ix.by_start.resize(n);
  ix.starts.resize(n);
  for (size_t i = 0; i < n; ++i) {
    ix.by_start[i] = listed.empty() ? &ix.records[keys[i].second] : listed[keys[i].second];
    ix.starts[i] = keys[i].first;
  }
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
  ix.addr_index_valid = true;
  ix.last_unique = nullptr;
}

// The walk itself: from last_hit to the end of the list, then the whole list.
Proc *walk_for_addr(uint64_t addr) {
  for (Proc *p = table().last_hit; p != nullptr; p = p->next)
    if (holds(p, addr))
      return p;
  for (Proc *p = table().order_head; p != nullptr; p = p->next)
    if (holds(p, addr))
      return p;
  return nullptr;
}

void build_name_index() {
  ProcTable &t = table();
  t.by_name.build(t.records.size(), [&t](size_t i, size_t &h) {
    const Proc &p = t.records[i];
    if (p.name == nullptr || p.file_name == nullptr)
      return false;
    h = name_hash(p.name, p.file_name);
    return true;
  });
  t.name_index_valid = true;
}

} // namespace

Proc *new_proc() {
  std::vector<Proc> &r = table().records;
  if (r.capacity() == 0)
    r.reserve(1024);
  r.push_back(Proc{});
  invalidate_indexes();
  return &r.back();
}

void reserve_procs(size_t n) { table().records.reserve(n); }

int get_n_procs() { return int(table().records.size()); }

Proc *get_proc_by_index(long i) {
  if (i < 0 || i >= get_n_procs())
    error("procedure index %ld outside the table of %d procedures", i, get_n_procs());
  return &table().records[size_t(i)];
}

ProcMapEntry *alloc_proc_map() {
  if (get_n_procs() == 0)
    error("the program has no procedure");
  return static_cast<ProcMapEntry *>(std::malloc(sizeof(ProcMapEntry) * size_t(get_n_procs())));
}

void attach_proc_list(Proc *p) {
  ProcTable &t = table();
  if (t.order_head == nullptr) {
    t.order_head = p;
    p->prev = nullptr;
  } else {
    t.order_tail->next = p;
    p->prev = t.order_tail;
  }
  t.order_tail = p;
  ++t.order_size;
  t.addr_index_valid = false;
}

void attach_proc_with_no_feedback() {
  // Table order, except for n32 and n64: vesk cannot repair their moved
  // code yet, so there the procedures without feedback keep their input
  // order and a run without feedback keeps the layout as it is.
  std::vector<Proc> &records = table().records;
  std::vector<size_t> indexes(records.size());
  for (size_t i = 0; i < records.size(); ++i)
    indexes[i] = i;
  if (!is_o32())
    std::stable_sort(indexes.begin(), indexes.end(),
                     [&records](size_t a, size_t b) { return records[a].old_addr < records[b].old_addr; });
  for (size_t i : indexes) {
    Proc *p = &records[i];
    if (p->listed != 0)
      continue;
    attach_proc_list(p);
    if (p->name == nullptr || std::strcmp(p->name, ".libstub") != 0) {
      table().feedback_stale = true;
      if (option.verbose)
        warning("No feedback data. %s(%s) placed at the end", text_or_null(p->name), text_or_null(p->file_name));
    }
  }
}

int clear_proc_flag() {
  for (Proc &p : table().records)
    p.listed = 0;
  return get_n_procs();
}

const std::vector<Proc *> &procs_by_start() {
  if (!table().addr_index_valid)
    build_addr_index();
  return table().by_start;
}

Proc *get_proc_by_addr(uint64_t addr) {
  ProcTable &ix = table();
  if (!ix.addr_index_valid)
    build_addr_index();
  // Scans of the text ask about one procedure many times in a row; a
  // record that overlaps no other is the only one that holds its words.
  if (ix.last_unique != nullptr && holds(ix.last_unique, addr)) {
    ix.last_hit = ix.last_unique;
    return ix.last_unique;
  }
  // The last record that starts at or below addr.
  auto it = std::upper_bound(ix.starts.begin(), ix.starts.end(), addr);
  Proc *found = nullptr;
  if (it != ix.starts.begin()) {
    size_t r = size_t(it - ix.starts.begin()) - 1;
    if (holds(ix.by_start[r], addr) && !ix.overlaps[r])
      found = ix.last_unique = ix.by_start[r];
    else if (ix.max_end[r] > addr)
      found = walk_for_addr(addr); // several records may hold it: the walk decides
  }
  ix.last_hit = found;
  return found;
}

size_t proc_name_hash(const char *name, const char *file_name) { return name_hash(name, file_name); }

void prefetch_proc_name(size_t hash, int step) {
  ProcTable &t = table();
  if (!t.name_index_valid)
    build_name_index();
  if (step == 0)
    t.by_name.prefetch_bucket(hash);
  else
    t.by_name.prefetch_first(hash, [&t, step](size_t i) {
      const Proc &p = t.records[i];
      if (step == 1)
        __builtin_prefetch(&p);
      else if (p.name != nullptr)
        __builtin_prefetch(p.name);
    });
}

Proc *find_proc_by_name(const char *name, const char *file_name) {
  return find_proc_by_name(name, file_name,
                           name != nullptr && file_name != nullptr ? name_hash(name, file_name) : 0);
}

Proc *find_proc_by_name(const char *name, const char *file_name, size_t hash) {
  ProcTable &t = table();
  Proc *found = nullptr;
  if (name != nullptr && file_name != nullptr) {
    if (!t.name_index_valid)
      build_name_index();
    // The first record not yet listed at or behind the one found last, else
    // the first one in front of it.
    Proc *in_front = nullptr;
    t.by_name.visit(hash, [&](size_t i) {
      Proc &p = t.records[i];
      if (p.listed != 0 || std::strcmp(p.name, name) != 0 || std::strcmp(p.file_name, file_name) != 0)
        return true;
      if (int(i) >= t.name_search_start) {
        found = &p;
        return false;
      }
      if (in_front == nullptr)
        in_front = &p;
      return true;
    });
    if (found == nullptr)
      found = in_front;
  }
  if (found != nullptr) {
    t.name_search_start = int(found - t.records.data());
    return found;
  }
  t.feedback_stale = true;
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
  std::vector<Proc> &r = table().records;
  if (r.empty())
    error("no procedure in mdebug");
  auto before = [](const Proc &a, const Proc &b) { return cmp_begin(&a, &b) < 0; };
  if (!std::is_sorted(r.begin(), r.end(), before)) // the table usually comes in address order
    std::stable_sort(r.begin(), r.end(), before);
  invalidate_indexes();
  for (size_t i = 0; i + 1 < r.size(); ++i)
    r[i].size = uint32_t(r[i + 1].old_addr) - uint32_t(r[i].old_addr);
  Proc &last = r.back();
  if (bin.text_hi < last.old_addr)
    error("procedure %s starts at %#x, behind the end of .text at %#x", name_of(&last), uint32_t(last.old_addr),
          uint32_t(bin.text_hi));
  last.size = uint32_t(bin.text_hi) - uint32_t(last.old_addr);
}

void dump_procs() {
  dump("Procedure Table");
  const std::vector<Proc> &r = table().records;
  for (size_t i = 0; i < r.size(); ++i)
    dump("[%d] %20s %#llx %#10x %10u", int(i), name_of(&r[i]), (unsigned long long)r[i].old_addr, r[i].size,
         r[i].freq);
}

} // namespace vesk
