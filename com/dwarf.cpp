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
#include <dwarf.h>
#include <elfutils/libdw.h>
#include <gelf.h>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/bin.h"
#include "base/diag.h"
#include "base/options.h"
#include "base/proc.h"
#include "com/dwarf_ranges.h"
#include "com/dwarf_sections.h"
#include "com/elf.h"
#include "com/symtab_procs.h"
#include "com/xlate_table.h"

namespace vesk {

namespace {

// The vendor attribute (0x2009) that carries a subprogram's linker-level (abstract)
// name.  GCC writes DW_AT_linkage_name instead, which is not looked at.
constexpr unsigned kAbstractNameAttr = 0x2009;

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
struct SubprogramAttrs {
  enum : unsigned {
    NAME,
    LOW_PC,
    HIGH_PC,
    RANGES,
    ENTRY_PC,
    ORIGIN,
    INLINE,
    ABSTRACT_NAME,
    SPECIFICATION,
    DECLARATION,
    COUNT
  };
  Dwarf_Attribute at[COUNT];
  unsigned present = 0;

  Dwarf_Attribute *get(unsigned k) { return present & (1u << k) ? &at[k] : nullptr; }
  bool has(unsigned k) const { return present & (1u << k); }

  static int gather(Dwarf_Attribute *a, void *arg) {
    auto *self = static_cast<SubprogramAttrs *>(arg);
    unsigned k;
    switch (dwarf_whatattr(a)) {
    case DW_AT_name: k = NAME; break;
    case DW_AT_low_pc: k = LOW_PC; break;
    case DW_AT_high_pc: k = HIGH_PC; break;
    case DW_AT_ranges: k = RANGES; break;
    case DW_AT_entry_pc: k = ENTRY_PC; break;
    case DW_AT_abstract_origin: k = ORIGIN; break;
    case DW_AT_inline: k = INLINE; break;
    case kAbstractNameAttr: k = ABSTRACT_NAME; break;
    case DW_AT_specification: k = SPECIFICATION; break;
    case DW_AT_declaration: k = DECLARATION; break;
    default: return DWARF_CB_OK;
    }
    if (!self->has(k)) {
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

// The walk over the entries of every unit.  Names it hands to records or
// notes live for the whole run (keep_input_name).
class DwarfWalk {
public:
  explicit DwarfWalk(const FunctionSymbols &symbols) : symbols(&symbols) {
    // An earlier run that rewrote the DWARF left it describing its output,
    // this input: then there is nothing to follow.
    reordered = open_input_xlate(&older) && (older.info.flag_b & xlate::XLATE_FLAG_DWARF_UPDATED) == 0;
    recorded.reserve(symbols.by_addr.size()); // about a range for each function
  }
  // A refused input ends the walk with its handle open; a run in process
  // (the tests, the fuzz targets) would keep it for good.
  ~DwarfWalk() {
    if (dw != nullptr)
      dwarf_end(dw);
  }
  DwarfWalk(const DwarfWalk &) = delete;
  DwarfWalk &operator=(const DwarfWalk &) = delete;
  void walk_units(Elf *elf);
  void resolve_inline_notes();

private:
  Dwarf *dw = nullptr;
  const FunctionSymbols *symbols;
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
  // The entries of the unit being walked that were reached, a bit for each
  // byte of the unit from its first; and the unit's bounds.
  std::vector<uint64_t> reached;
  uint64_t unit_start = 0, unit_end = 0;
  std::vector<CodeRange> ranges;

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

  // The code range of a subprogram.  DW_AT_high_pc is either an address or,
  // from DWARF 4 on, an offset from DW_AT_low_pc.
  struct PcRange {
    bool have_high = false;
    bool have_low = false;
    bool declaration = false;
    uint64_t low = 0;
    uint64_t high = 0;
  };

  PcRange read_pc_range(SubprogramAttrs &attrs, const char *text) {
    PcRange r;
    Dwarf_Attribute *high = attrs.get(SubprogramAttrs::HIGH_PC);
    if (high == nullptr) {
      r.declaration = attrs.has(SubprogramAttrs::DECLARATION);
      return r;
    }
    bool offset = is_constant_form(dwarf_whatform(high));
    Dwarf_Word value = 0;
    if (offset ? dwarf_formudata(high, &value) != 0 : dwarf_formaddr(high, &value) != 0)
      print_dwarf_error("dwarf_highpc in %s", text);
    r.have_high = true;
    if (Dwarf_Attribute *low = attrs.get(SubprogramAttrs::LOW_PC)) {
      if (dwarf_formaddr(low, &r.low) != 0)
        print_dwarf_error("dwarf_lowpc in %s", text);
      r.have_low = true;
    }
    r.high = offset ? r.low + value : value;
    return r;
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

  // One entry of a unit's tree; only subprograms matter.  False when the
  // entry's children need not be walked: those of a function's declaration
  // are its parameters (the entries of its nested functions are children
  // of its definition's).
  bool visit_entry(Dwarf_Die *die, int tag, const Unit &unit) {
    if (tag != DW_TAG_subprogram)
      return true;
    SubprogramAttrs attrs;
    if (dwarf_getattrs(die, SubprogramAttrs::gather, &attrs, 0) != 1)
      print_dwarf_error("dwarf_attr");

    const char *raw_name = nullptr;
    if (Dwarf_Attribute *a = attrs.get(SubprogramAttrs::NAME)) {
      raw_name = dwarf_formstring(a);
      if (raw_name == nullptr)
        print_dwarf_error("dwarf_diename");
    }
    // The name in messages; a string only for the one case that builds it.
    std::string built;
    const char *text = raw_name ? raw_name : kNoName;

    PcRange pc = read_pc_range(attrs, text);
    if (pc.declaration)
      return false;
    // Kept for the run only now: most subprogram entries of a program are
    // declarations.
    const char *name = raw_name ? keep_input_name(raw_name) : nullptr;
    text = name ? name : kNoName;
    bool have_ranges = !pc.have_high && attrs.has(SubprogramAttrs::RANGES);
    if (have_ranges)
      read_code_ranges(die, text, &ranges);

    bool have_origin = false;
    uint64_t origin = 0;
    if (Dwarf_Attribute *a = attrs.get(SubprogramAttrs::ORIGIN)) {
      Dwarf_Die target;
      have_origin = dwarf_formref_die(a, &target) != nullptr;
      if (have_origin)
        origin = dwarf_dieoffset(&target);
      else
        forget_dwarf_error();
    }

    // Any value but DW_INL_not_inlined makes the entry an abstract instance
    // root, whose code, if any, other entries describe.
    bool inlined = false;
    if (Dwarf_Attribute *a = attrs.get(SubprogramAttrs::INLINE)) {
      Dwarf_Word how = 0;
      inlined = dwarf_formudata(a, &how) == 0 && how != DW_INL_not_inlined;
      forget_dwarf_error();
    }

    const char *linkage_name = nullptr;
    if (Dwarf_Attribute *a = attrs.get(SubprogramAttrs::ABSTRACT_NAME)) {
      if (const char *raw = dwarf_formstring(a))
        linkage_name = keep_input_name(raw);
      forget_dwarf_error();
    }
    if (name == nullptr && linkage_name != nullptr)
      built = std::string("abstract name: ") + linkage_name + "\n", text = built.c_str();

    uint64_t offset = dwarf_dieoffset(die);
    Subprogram s{name,   text, have_origin,    origin, linkage_name,
                 offset, unit.file_name, attrs.has(SubprogramAttrs::SPECIFICATION)};
    if (pc.have_high || have_ranges) {
      if (pc.have_high && !pc.have_low)
        error("Have highpc but no lowpc on %s\n", text);
      if (pc.have_high)
        ranges.assign(1, CodeRange{pc.low, pc.high});
      size_t entry = pc.have_high ? 0 : entry_range(attrs.get(SubprogramAttrs::ENTRY_PC), ranges);
      forget_dwarf_error();
      for (size_t i = 0, part = 0; i < ranges.size(); ++i)
        make_record(s, ranges[i].lo, ranges[i].hi, i == entry ? 0 : int(++part));
    } else if (have_origin || linkage_name != nullptr || inlined) {
      // The entry is its own abstract entry unless it names another.
      new_inline_note(name, linkage_name, have_origin ? origin : offset, -1, 0);
    } else {
      // An entry without code whose function still has a sized symbol had
      // its code folded into another function's or turned into a thunk; the
      // symbol table gives that code a record.
      if (name == nullptr || !symbols->has_sized(name))
        warning("Subprogram %s at dwarf section offset 0x%llx (%llu)is ignored\n", text,
                (unsigned long long)offset, (unsigned long long)offset);
    }
    return true;
  }

  // Entries nested deeper than this are refused.  Compilers stay far below
  // it; the limit is there because the library finds the sibling of an
  // entry without a DW_AT_sibling link by reading through all of the
  // entry's descendants, so the walk costs the size of the tree times its
  // depth.
  static constexpr int kMaxDepth = 2048;

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
  void walk_entries(Dwarf_Die *root, const Unit &unit) {
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
        if (depth > kMaxDepth)
          error("%s: the DWARF entry at offset %#llx is nested more than %d levels deep", option.program,
                (unsigned long long)offset, kMaxDepth);
        int tag = dwarf_tag(&die);
        if (tag == DW_TAG_invalid)
          print_dwarf_error("dwarf_tag");
        // The children of a call site are its parameters, never code: a
        // quarter of the entries of optimised code, not walked.
        if (visit_entry(&die, tag, unit) && tag != DW_TAG_call_site && tag != DW_TAG_GNU_call_site)
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

  // Gives every pending note's procedure a name: that of another note for
  // the same abstract entry or with the same linkage name (with the suffix of
  // a cold part), else a made-up one.
};

void DwarfWalk::resolve_inline_notes() {
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

void DwarfWalk::walk_units(Elf *elf) {
  // Executables linked with kept relocations carry .rel.debug_* sections;
  // the library leaves them alone in an executable, as it must: applying
  // them would add every address a second time.  The section's size
  // bounds the units: a damaged unit length may claim more.
  GElf_Shdr sh;
  Elf_Scn *info = find_section_by_name(elf, ".debug_info");
  if (info == nullptr || gelf_getshdr(info, &sh) == nullptr)
    error("%s: no DWARF information", option.program);
  uint64_t info_size = sh.sh_size;
  dw = dwarf_begin_elf(elf, DWARF_C_READ, nullptr);
  if (dw == nullptr)
    print_dwarf_error("%s: cannot read its DWARF information", option.program);
  Dwarf_Off at = 0, next = 0;
  size_t header_size = 0;
  int res;
  while ((res = dwarf_next_unit(dw, at, &next, &header_size, nullptr, nullptr, nullptr, nullptr, nullptr,
                                nullptr)) == 0) {
    if (next <= at)
      error("%s: a DWARF unit header gives no offset for the next unit", option.program);
    Dwarf_Die cu_die;
    if (dwarf_offdie(dw, at + header_size, &cu_die) == nullptr)
      print_dwarf_error("dwarf_siblingof");
    // A unit without a name files its procedures under no file name.
    const char *unit_name = nullptr;
    Dwarf_Attribute a;
    if (dwarf_attr(&cu_die, DW_AT_name, &a) != nullptr) {
      const char *raw = dwarf_formstring(&a);
      if (raw == nullptr)
        print_dwarf_error("dwarf_diename");
      unit_name = keep_input_name(raw);
    }
    if (option.debug & 1)
      dump("File:  %s", unit_name ? unit_name : "");
    Unit unit{unit_name ? basename(unit_name) : nullptr};
    unit_start = at;
    unit_end = std::min<uint64_t>(next, info_size);
    reached.assign((unit_end - std::min(unit_end, at) + 63) / 64, 0);
    walk_entries(&cu_die, unit);
    at = next;
  }
  if (res < 0)
    print_dwarf_error("dwarf_next_cu_header");
  dwarf_end(dw);
  dw = nullptr;
}

} // namespace

void dwarf_interface(Elf *elf) {
  check_dwarf_table_sections(elf);
  FunctionSymbols syms = read_function_symbols(elf);
  // A record for about every function symbol.
  reserve_procs(syms.by_addr.size() + syms.by_addr.size() / 8 + 64);
  DwarfWalk walk(syms);
  walk.walk_units(elf);
  walk.resolve_inline_notes();
  add_symbol_table_procs(syms);
  attach_padding();
}

} // namespace vesk
