// Procedure discovery from DWARF: every subprogram entry with code becomes a
// procedure record, filed under the base name of its compilation unit; one
// whose code is split into ranges (a hot and a cold part) becomes one record
// per range.  Entries without code (declarations, abstract instances,
// functions that were only inlined) make no record; those that are abstract
// or inlined leave an inline note instead, from which a nameless concrete
// instance (an out-of-line copy or a clone) takes its name when the symbol
// table has none for it.  Code that no entry describes gets its records from
// the function symbols afterwards.
#include "com/dwarf.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <dwarf.h>
#include <elfutils/libdw.h>
#include <gelf.h>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/background.h"
#include "base/bin.h"
#include "base/diag.h"
#include "base/options.h"
#include "base/proc.h"
#include "com/dwarf_ranges.h"
#include "com/dwarf_scan.h"
#include "com/dwarf_sections.h"
#include "com/elf.h"
#include "com/symtab_procs.h"
#include "com/xlate_table.h"

namespace vesk {

namespace {

const char *const kNoName = "Function Name Unavailable";

// What is known of a subprogram that may need its name from elsewhere:
// a concrete instance whose name lives in its abstract entry, or an
// abstract entry that another instance refers to.  Both are keyed by the
// offset of the abstract entry, so that they meet.
struct InlineNote {
  const char *note_name;         // may be null
  const char *note_linkage_name; // may be null
  uint64_t note_die_offset;
  int32_t note_proc_index;       // -1: no procedure record
  uint8_t note_pending;          // the record still needs a name
  int32_t note_cold_part;        // 0: the entry's part; k > 0: its k-th other part
};

// What the walk of one compilation unit needs of the unit.
struct Unit {
  const char *file_name; // base name of the unit's name; may be null
};

// The attributes of a subprogram entry that discovery reads, gathered in
// one pass over the entry (the library would pass over it once for each
// attribute asked for by name).  The first of a repeated attribute counts.
// (GCC writes DW_AT_linkage_name rather than the vendor's abstract name; it
// is not looked at.)
struct SubprogramAttrs {
  Dwarf_Attribute at[ATTR_COUNT];
  unsigned present = 0;

  Dwarf_Attribute *get(unsigned k) { return present & (1u << k) ? &at[k] : nullptr; }
  bool has(unsigned k) const { return present & (1u << k); }

  static int gather(Dwarf_Attribute *a, void *arg) {
    auto *self = static_cast<SubprogramAttrs *>(arg);
    unsigned k = discovery_attr(dwarf_whatattr(a));
    if (k != ATTR_SIBLING && k != ATTR_NONE && !self->has(k)) {
      self->at[k] = *a;
      self->present |= 1u << k;
    }
    return DWARF_CB_OK;
  }
};

// A failed read of an optional attribute only means it is not used; the
// library's pending error is dropped so that no later message blames it.
void forget_dwarf_error() { (void)dwarf_errno(); }

bool is_constant_form(unsigned form) {
  switch (form) {
  case DW_FORM_data1:
  case DW_FORM_data2:
  case DW_FORM_data4:
  case DW_FORM_data8:
  case DW_FORM_data16:
  case DW_FORM_udata:
  case DW_FORM_sdata:
  case DW_FORM_implicit_const:
    return true;
  default:
    return false;
  }
}

// A set of ranges [lo, hi) with hi > lo, open addressing: one is added
// for nearly every subprogram, and a tree would allocate a node each.
class RangeSet {
public:
  // Adds [lo, hi); false when it was there already.
  bool insert(uint64_t lo, uint64_t hi) {
    if (2 * (count_ + 1) > slots_.size())
      grow();
    size_t mask = slots_.size() - 1;
    for (size_t i = hash(lo, hi) & mask;; i = (i + 1) & mask) {
      Slot &s = slots_[i];
      if (s.hi == 0) { // empty: no range has hi 0
        s = {lo, hi};
        ++count_;
        return true;
      }
      if (s.lo == lo && s.hi == hi)
        return false;
    }
  }

  // Room for n ranges without growing.
  void reserve(size_t n) {
    size_t want = 1024;
    while (want < 2 * n)
      want *= 2;
    if (want > slots_.size())
      rehash(want);
  }

private:
  struct Slot {
    uint64_t lo = 0, hi = 0;
  };
  std::vector<Slot> slots_;
  size_t count_ = 0;
  static size_t hash(uint64_t lo, uint64_t hi) {
    uint64_t h = (lo * 0x9e3779b97f4a7c15ull) ^ (hi * 0xc2b2ae3d27d4eb4full);
    return size_t(h ^ (h >> 29));
  }
  void grow() { rehash(slots_.empty() ? 1024 : 2 * slots_.size()); }
  void rehash(size_t slots) {
    std::vector<Slot> old = std::move(slots_);
    slots_.assign(slots, Slot{});
    count_ = 0;
    for (const Slot &s : old)
      if (s.hi != 0)
        insert(s.lo, s.hi);
  }
};

// A library handle, ended however the walk ends (a refused input leaves
// the walk by an exception; a run in process, the tests and the fuzz
// targets, would keep it for good).
class DwarfHandle {
public:
  explicit DwarfHandle(Dwarf *dw) : dw_(dw) {}
  ~DwarfHandle() {
    if (dw_ != nullptr)
      dwarf_end(dw_);
  }
  DwarfHandle(const DwarfHandle &) = delete;
  DwarfHandle &operator=(const DwarfHandle &) = delete;
  Dwarf *get() const { return dw_; }

private:
  Dwarf *dw_;
};

// Reads the entries of units, from the section's bytes where the scanner
// can and through the library elsewhere, on whichever thread it runs: it
// has a library handle of its own and changes nothing of the run.
class EntryReader {
public:
  EntryReader(Elf *elf, Dwarf *dw, uint64_t info_size, FactSink &sink)
      : dw(dw), info_size(info_size), sink(&sink),
        scanner(elf, [this](uint64_t offset, uint64_t tag, FactSink &into) { return visit_one(offset, tag, into); }) {}

  // The unit whose header lies at `at`, the next one at `next`.
  void walk_unit(Dwarf_Off at, Dwarf_Off next, size_t header_size) {
    if (next <= at)
      error("%s: a DWARF unit header gives no offset for the next unit", option.program);
    if (scanner.scan(at, next, header_size, *sink))
      return;
    Dwarf_Die cu_die;
    if (dwarf_offdie(dw, at + header_size, &cu_die) == nullptr)
      print_dwarf_error("dwarf_siblingof");
    // A unit without a name files its procedures under no file name.
    const char *unit_name = nullptr;
    Dwarf_Attribute a;
    if (dwarf_attr(&cu_die, DW_AT_name, &a) != nullptr) {
      unit_name = dwarf_formstring(&a);
      if (unit_name == nullptr)
        print_dwarf_error("dwarf_diename");
    }
    sink->unit(unit_name);
    unit_start = at;
    unit_end = std::min<uint64_t>(next, info_size);
    reached.assign((unit_end - std::min(unit_end, at) + 63) / 64, 0);
    walk_entries(&cu_die);
  }

private:
  Dwarf *dw;
  uint64_t info_size;
  FactSink *sink;
  // The entries of the unit being walked that were reached, a bit for each
  // byte of the unit from its first; and the unit's bounds.
  std::vector<uint64_t> reached;
  uint64_t unit_start = 0, unit_end = 0;
  std::vector<CodeRange> ranges;
  // Reads most units without the library, and asks it for the entries it
  // cannot read itself.
  UnitScanner scanner;

  int visit_one(uint64_t offset, uint64_t tag, FactSink &into) {
    Dwarf_Die die;
    if (dwarf_offdie(dw, offset, &die) == nullptr) {
      forget_dwarf_error();
      return -1;
    }
    FactSink *was = sink;
    sink = &into;
    bool children = visit_entry(&die, int(tag));
    sink = was;
    return children ? 1 : 0;
  }

  PcRange read_pc_range(SubprogramAttrs &attrs, const char *text) {
    PcRange r;
    Dwarf_Attribute *high = attrs.get(ATTR_HIGH_PC);
    if (high == nullptr) {
      r.declaration = attrs.has(ATTR_DECLARATION);
      return r;
    }
    bool offset = is_constant_form(dwarf_whatform(high));
    Dwarf_Word value = 0;
    if (offset ? dwarf_formudata(high, &value) != 0 : dwarf_formaddr(high, &value) != 0)
      print_dwarf_error("dwarf_highpc in %s", text);
    r.have_high = true;
    if (Dwarf_Attribute *low = attrs.get(ATTR_LOW_PC)) {
      if (dwarf_formaddr(low, &r.low) != 0)
        print_dwarf_error("dwarf_lowpc in %s", text);
      r.have_low = true;
    }
    r.high = offset ? r.low + value : value;
    return r;
  }

  // One entry of a unit's tree; only subprograms matter.  False when the
  // entry's children need not be walked: those of a function's declaration
  // are its parameters (the entries of its nested functions are children
  // of its definition's).
  bool visit_entry(Dwarf_Die *die, int tag) {
    if (tag != DW_TAG_subprogram)
      return true;
    SubprogramAttrs attrs;
    if (dwarf_getattrs(die, SubprogramAttrs::gather, &attrs, 0) != 1)
      print_dwarf_error("dwarf_attr");

    EntryFacts f;
    if (Dwarf_Attribute *a = attrs.get(ATTR_NAME)) {
      f.raw_name = dwarf_formstring(a);
      if (f.raw_name == nullptr)
        print_dwarf_error("dwarf_diename");
    }
    // The name in messages.
    const char *text = f.raw_name ? f.raw_name : kNoName;
    f.pc = read_pc_range(attrs, text);
    if (f.pc.declaration)
      return false;
    f.have_ranges = !f.pc.have_high && attrs.has(ATTR_RANGES);
    if (f.have_ranges)
      read_code_ranges(die, text, &ranges);

    if (Dwarf_Attribute *a = attrs.get(ATTR_ORIGIN)) {
      Dwarf_Die target;
      f.have_origin = dwarf_formref_die(a, &target) != nullptr;
      if (f.have_origin)
        f.origin = dwarf_dieoffset(&target);
      else
        forget_dwarf_error();
    }
    // Any value but DW_INL_not_inlined makes the entry an abstract instance
    // root, whose code, if any, other entries describe.
    if (Dwarf_Attribute *a = attrs.get(ATTR_INLINE)) {
      Dwarf_Word how = 0;
      f.inlined = dwarf_formudata(a, &how) == 0 && how != DW_INL_not_inlined;
      forget_dwarf_error();
    }
    if (Dwarf_Attribute *a = attrs.get(ATTR_ABSTRACT_NAME)) {
      f.raw_linkage_name = dwarf_formstring(a);
      forget_dwarf_error();
    }
    f.offset = dwarf_dieoffset(die);
    f.specification = attrs.has(ATTR_SPECIFICATION);
    if (f.pc.have_high)
      ranges.assign(1, CodeRange{f.pc.low, f.pc.high});
    else if (!f.have_ranges)
      ranges.clear();
    f.entry = f.pc.have_high || !f.have_ranges ? 0 : entry_range(attrs.get(ATTR_ENTRY_PC), ranges);
    forget_dwarf_error();
    sink->entry(f, ranges);
    return true;
  }


  // Marks the entry at offset reached; false when it was reached before.
  bool reach(uint64_t offset) {
    if (offset < unit_start || offset >= unit_end)
      error("%s: the DWARF entry at offset %#llx lies outside its unit", option.program,
            (unsigned long long)offset);
    uint64_t bit = offset - unit_start;
    uint64_t &word = reached[bit / 64];
    uint64_t mask = uint64_t(1) << (bit % 64);
    if (word & mask)
      return false;
    word |= mask;
    return true;
  }

  // Walks the tree below `root` (a unit's entry).  All later siblings of an
  // entry are visited before its children, and the children of a later
  // sibling before those of an earlier one: the order in which the records
  // are made.  A stack of entries whose children are still to be looked at
  // gives that order without recursion, so neither a long sibling chain nor
  // deep nesting can exhaust the machine stack.  In a sound tree every
  // entry is reached once; a damaged sibling link that leads back into the
  // tree is caught by the second arrival, which also bounds the work.
  void walk_entries(Dwarf_Die *root) {
    struct Pending {
      Dwarf_Die die;
      int depth;
    };
    std::vector<Pending> stack;
    auto visit_chain = [&](Dwarf_Die die, int depth, bool last) {
      for (;;) {
        uint64_t offset = dwarf_dieoffset(&die);
        if (!reach(offset))
          error("%s: the DWARF entry at offset %#llx is reached twice; the entry tree is damaged", option.program,
                (unsigned long long)offset);
        if (depth > kMaxEntryDepth)
          error("%s: the DWARF entry at offset %#llx is nested more than %d levels deep", option.program,
                (unsigned long long)offset, kMaxEntryDepth);
        int tag = dwarf_tag(&die);
        if (tag == DW_TAG_invalid)
          print_dwarf_error("dwarf_tag");
        // The children of a call site are its parameters, never code: a
        // quarter of the entries of optimised code, not walked.
        if (visit_entry(&die, tag) && tag != DW_TAG_call_site && tag != DW_TAG_GNU_call_site)
          stack.push_back({die, depth});
        // A unit's entry has no siblings: asking would read through the
        // whole unit.
        if (last)
          return;
        Dwarf_Die sibling;
        int res = dwarf_siblingof(&die, &sibling);
        if (res < 0)
          print_dwarf_error("dwarf_dibling");
        if (res > 0)
          return;
        die = sibling;
      }
    };
    visit_chain(*root, 0, true);
    while (!stack.empty()) {
      Pending p = stack.back();
      stack.pop_back();
      Dwarf_Die child;
      int res = dwarf_child(&p.die, &child);
      if (res < 0)
        print_dwarf_error("dwarf_child");
      if (res == 0)
        visit_chain(child, p.depth + 1, false);
    }
  }
};

// Makes the records and notes from what the readers read, in the run's
// thread.  Names it hands to records or notes live for the whole run
// (keep_input_name).
class Recorder : public FactSink {
public:
  explicit Recorder(const FunctionSymbols &symbols) : symbols(&symbols) {
    // An earlier run that rewrote the DWARF left it describing its output,
    // this input: then there is nothing to follow.
    reordered = open_input_xlate(&older) && (older.info.flag_b & xlate::XLATE_FLAG_DWARF_UPDATED) == 0;
    recorded.reserve(symbols.by_addr.size()); // about a range for each function
  }
  Recorder(const Recorder &) = delete;
  Recorder &operator=(const Recorder &) = delete;

  void unit(const char *raw_name) override {
    const char *unit_name = raw_name ? keep_input_name(raw_name) : nullptr;
    if (option.debug & 1)
      dump("File:  %s", unit_name ? unit_name : "");
    file_name = unit_name ? basename(unit_name) : nullptr;
  }

  void entry(const EntryFacts &f, const std::vector<CodeRange> &ranges) override {
    // Kept for the run only now: most subprogram entries of a program are
    // declarations.
    const char *name = f.raw_name ? keep_input_name(f.raw_name) : nullptr;
    // The name in messages; a string only for the one case that builds it.
    std::string built;
    const char *text = name ? name : kNoName;
    const char *linkage_name = f.raw_linkage_name ? keep_input_name(f.raw_linkage_name) : nullptr;
    if (name == nullptr && linkage_name != nullptr)
      built = std::string("abstract name: ") + linkage_name + "\n", text = built.c_str();

    Subprogram s{name, text, f.have_origin, f.origin, linkage_name, f.offset, file_name, f.specification};
    if (f.pc.have_high || f.have_ranges) {
      if (f.pc.have_high && !f.pc.have_low)
        error("Have highpc but no lowpc on %s\n", text);
      for (size_t i = 0, part = 0; i < ranges.size(); ++i)
        make_record(s, ranges[i].lo, ranges[i].hi, i == f.entry ? 0 : int(++part));
    } else if (f.have_origin || linkage_name != nullptr || f.inlined) {
      // The entry is its own abstract entry unless it names another.
      new_inline_note(name, linkage_name, f.have_origin ? f.origin : f.offset, -1, 0);
    } else {
      // An entry without code whose function still has a sized symbol had
      // its code folded into another function's or turned into a thunk; the
      // symbol table gives that code a record.
      if (name == nullptr || !symbols->has_sized(name))
        warning("Subprogram %s at dwarf section offset 0x%llx (%llu)is ignored\n", text,
                (unsigned long long)f.offset, (unsigned long long)f.offset);
    }
  }

  // Gives every pending note's procedure a name: that of another note for
  // the same abstract entry or with the same linkage name (with the suffix of
  // a cold part), else a made-up one.
  void resolve_inline_notes();

private:
  const FunctionSymbols *symbols;
  const char *file_name = nullptr; // of the unit being recorded
  std::vector<InlineNote> notes;
  int made_up_names = 0;
  // The input is an earlier run's output: its DWARF still describes the
  // original build, and its table says where that code lies now.
  bool reordered = false;
  xlate::XlateTable older;
  // The ranges recorded so far.  A function that several files define
  // (a C++ inline function or template instance) is kept once by the
  // linker, and with -q every file's entry then describes that one copy.
  RangeSet recorded;

  // Where the code of [lo, hi) of the original build lies in the input.
  // It was laid out in one piece, so one range of the table holds it.
  void follow_table(const char *text, uint64_t *lo, uint64_t *hi) {
    if (*lo < bin.exec_lo || *lo >= bin.exec_hi)
      return; // not code of this program (a discarded function's entry)
    uint64_t now = 0;
    xlate::XlateRange r;
    int st = xlate::xlate_address_xtnd(&older, xlate::XLATE_OLD_TO_NEW, *lo, &now, &r);
    if (st != xlate::XLATE_OK)
      error("%s: its .MIPS.Xlate table cannot be read (status %d: %s)", option.program, st,
            xlate::xlate_status_text(st));
    if (*hi > *lo + 4 && (*lo < r.old_addr || *hi - r.old_addr > r.old_len || r.new_len != r.old_len))
      error("%s: the code of %s [%#llx, %#llx) of the original build does not lie in one piece in it, as its "
            ".MIPS.Xlate table tells; vesk cannot find that procedure",
            option.program, text, (unsigned long long)*lo, (unsigned long long)*hi);
    *hi = now + (*hi - *lo);
    *lo = now;
  }

  void new_inline_note(const char *name, const char *linkage_name, uint64_t die_offset, int32_t proc_index,
                       uint8_t pending, int32_t cold_part = 0) {
    notes.push_back(InlineNote{name, linkage_name, die_offset, proc_index, pending, cold_part});
  }

  // The name of the k-th part of a function beside its entry's part, as GCC
  // names the first: foo.cold, foo.cold.1, ...
  static const char *cold_name(const char *name, int part) {
    std::string s = std::string(name) + ".cold";
    if (part > 1)
      s += "." + std::to_string(part - 1);
    return bin.procs.keep(s.c_str());
  }

  // A subprogram entry that has code, as its records need it.
  struct Subprogram {
    const char *name; // may be null
    const char *text; // the name in messages
    bool have_origin;
    uint64_t origin;
    const char *linkage_name; // may be null
    uint64_t offset;
    const char *file_name;
    bool specification; // a C++ member's definition: its name is on the declaration
  };

  // The record of one range of a subprogram's code; `part` is 0 for the
  // range that holds its entry.  A concrete instance without a name of its
  // own (an out-of-line copy, or a clone such as foo.part.0) takes that of
  // the function symbol at its start, which tells clones apart; failing
  // that, the inline notes give it its abstract entry's name at the end.
  // So does the definition of a C++ member, whose entry has no name either
  // (it is on the declaration).  A C++ function's own name is no better:
  // overloads and the members of other classes share it, and feedback
  // could not tell them apart; the symbol's (mangled) name can.  So when a
  // function symbol starts here and none has the entry's name, the
  // symbol's names the record (a C function keeps its name).
  void make_record(const Subprogram &s, uint64_t lo, uint64_t hi, int part) {
    // The entry of a function that the linker discarded (a C++ inline
    // function or template instance that another file's copy stands for)
    // kept the address its relocation resolved to: no code of this program.
    if (lo < bin.exec_lo || lo >= bin.exec_hi) {
      if (option.debug & 1)
        dump("  Subprogram: %s(%#llx-%#llx) discarded", s.text, (unsigned long long)lo, (unsigned long long)hi);
      return;
    }
    if (reordered)
      follow_table(s.text, &lo, &hi);
    if (hi > lo && !recorded.insert(lo, hi))
      return;
    bool instance = s.have_origin || s.linkage_name != nullptr;
    const char *name = part == 0 ? s.name : nullptr;
    if (name != nullptr && !symbols->named_at(lo, name))
      if (const char *symbol = symbols->name_at(lo))
        name = symbol;
    if (name == nullptr && (part > 0 || instance || s.specification))
      name = symbols->name_at(lo);
    if (name == nullptr && part > 0 && s.name != nullptr)
      name = cold_name(s.name, part);
    Proc *p = new_proc();
    p->file_name = s.file_name;
    p->name = name;
    p->old_addr = lo;
    p->size = uint32_t(hi) - uint32_t(lo);
    if (instance)
      new_inline_note(nullptr, s.linkage_name, s.have_origin ? s.origin : s.offset, get_n_procs() - 1,
                      name == nullptr, part);
    if (option.debug & 1)
      dump("  Subprogram: %s(%#llx-%#llx)", part == 0 || name == nullptr ? s.text : name, (unsigned long long)lo,
           (unsigned long long)hi);
  }
};

void Recorder::resolve_inline_notes() {
  std::unordered_map<uint64_t, const char *> by_offset;
  std::unordered_map<std::string_view, const char *> by_linkage_name;
  for (const InlineNote &o : notes) {
    if (o.note_name == nullptr)
      continue;
    by_offset.try_emplace(o.note_die_offset, o.note_name);
    if (o.note_linkage_name != nullptr)
      by_linkage_name.try_emplace(o.note_linkage_name, o.note_name);
  }
  for (InlineNote &n : notes) {
    if (!n.note_pending)
      continue;
    const char *found = nullptr;
    if (auto it = by_offset.find(n.note_die_offset); it != by_offset.end())
      found = it->second;
    else if (n.note_linkage_name != nullptr)
      if (auto it = by_linkage_name.find(n.note_linkage_name); it != by_linkage_name.end())
        found = it->second;
    Proc *p = get_proc_by_index(n.note_proc_index);
    if (found != nullptr && n.note_cold_part > 0) {
      p->name = cold_name(found, n.note_cold_part);
    } else if (found != nullptr) {
      p->name = found;
    } else {
      char made_up[32];
      std::snprintf(made_up, sizeof made_up, "VeskCreatedName%03d", made_up_names++);
      p->name = bin.procs.keep(made_up);
      if (option.verbose)
        warning("Assigned name %s for function! lowpc 0x%llx\n", p->name, (unsigned long long)p->old_addr);
    }
    n.note_pending = 0;
  }
}

// This thread reads the function symbols and makes every record besides
// reading its share: a little less than half gave the shortest walk.
double front_share = 0.45;

// The entries of every unit, in unit order.  The units of the back of
// .debug_info are read on the second core, with a library handle of its
// own, while this thread reads and records the front; their records are
// made after the front's, in the same order as when one thread reads them
// all.
// `records` gives the sink of the front's facts: it may read what the
// records need while the second core reads the back.
void walk_units(Elf *elf, const std::function<FactSink &()> &records, const std::function<void()> &beside) {
  // Executables linked with kept relocations carry .rel.debug_* sections;
  // the library leaves them alone in an executable, as it must: applying
  // them would add every address a second time.  The section's size
  // bounds the units: a damaged unit length may claim more.
  GElf_Shdr sh;
  Elf_Scn *info = find_section_by_name(elf, ".debug_info");
  if (info == nullptr || gelf_getshdr(info, &sh) == nullptr)
    error("%s: no DWARF information", option.program);
  uint64_t info_size = sh.sh_size;
  DwarfHandle dw(dwarf_begin_elf(elf, DWARF_C_READ, nullptr));
  if (dw.get() == nullptr)
    print_dwarf_error("%s: cannot read its DWARF information", option.program);

  // The unit headers, up to the first the library cannot read.
  struct UnitAt {
    Dwarf_Off at, next;
    size_t header_size;
  };
  std::vector<UnitAt> units;
  Dwarf_Off at = 0, next = 0;
  size_t header_size = 0;
  int res;
  while ((res = dwarf_next_unit(dw.get(), at, &next, &header_size, nullptr, nullptr, nullptr, nullptr, nullptr,
                                nullptr)) == 0) {
    units.push_back({at, next, header_size});
    if (next <= at)
      break; // refused in its turn
    at = next;
  }
  forget_dwarf_error();

  // The back part: from the first unit that starts past the front share
  // of the section.
  size_t split = units.size();
  for (size_t i = 1; i < units.size(); ++i)
    if (double(units[i].at) >= front_share * double(info_size)) {
      split = i;
      break;
    }
  // The second reader's handles are its own, on the same image; they live
  // until its records are made: the names it read may lie in memory of
  // theirs (the strings of a supplementary file).
  std::unique_ptr<Elf, int (*)(Elf *)> back_elf(nullptr, elf_end);
  std::unique_ptr<DwarfHandle> back_dw;
  KeptFacts back;
  std::unique_ptr<Background> reading;
  size_t image_size = 0;
  char *image = elf_rawfile(elf, &image_size);
  elf_errno();
  if (split < units.size() && image != nullptr)
    reading = std::make_unique<Background>([&, image, image_size, split] {
      back_elf.reset(elf_memory(image, image_size));
      back_dw = std::make_unique<DwarfHandle>(back_elf ? dwarf_begin_elf(back_elf.get(), DWARF_C_READ, nullptr)
                                                       : nullptr);
      if (back_dw->get() == nullptr)
        print_dwarf_error("%s: cannot read its DWARF information", option.program);
      EntryReader reader(back_elf.get(), back_dw->get(), info_size, back);
      for (size_t i = split; i < units.size(); ++i)
        reader.walk_unit(units[i].at, units[i].next, units[i].header_size);
    });
  else
    split = units.size();
  if (beside)
    beside();

  FactSink &recorder = records();
  EntryReader reader(elf, dw.get(), info_size, recorder);
  for (size_t i = 0; i < split; ++i)
    reader.walk_unit(units[i].at, units[i].next, units[i].header_size);
  if (reading) {
    reading->wait();
    back.replay(recorder);
    reading->collect();
  }
  if (res < 0) {
    // The library's cause, as the header it could not read gives it.
    dwarf_next_unit(dw.get(), at, &next, &header_size, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    print_dwarf_error("dwarf_next_cu_header");
  }
}

} // namespace

void set_discovery_front_share(double share) { front_share = share; }

void dwarf_interface(Elf *elf, const std::function<void()> &beside) {
  check_dwarf_table_sections(elf);
  FunctionSymbols syms;
  std::optional<Recorder> recorder;
  walk_units(
      elf,
      [&]() -> FactSink & {
        syms = read_function_symbols(elf);
        // A record for about every function symbol.
        reserve_procs(syms.by_addr.size() + syms.by_addr.size() / 8 + 64);
        return recorder.emplace(syms);
      },
      beside);
  recorder->resolve_inline_notes();
  add_symbol_table_procs(syms);
  attach_padding();
}

} // namespace vesk
