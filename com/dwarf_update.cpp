// The DWARF follows the code.
//
// Procedures move as whole units, so every code address the DWARF holds
// has one new address (the text map's), and a stretch of code it describes
// stays one stretch unless the layout put its procedures apart.  What can
// be re-pointed where it lies is: the address attributes of .debug_info
// (low and high pcs, entry pcs, call sites, labels) and DW_OP_addr in its
// expressions, the unit headers' abbreviation offsets and the section
// offsets of its attributes.  The rest is written anew: the range and
// location lists, whose entries may have to be split and whose offset
// pairs count from a base that no longer holds for all of them (every
// entry is written with its own absolute address), .debug_aranges from
// the new pieces of each unit, and the line programs (com/dwarf_line.cpp).
//
// A unit or scope whose code was one stretch and now lies in pieces gets a
// range list: its abbreviation is copied into a new abbreviation table of
// its unit with DW_AT_high_pc replaced by DW_AT_ranges (a section offset
// of the same size, or a smaller one with DW_AT_identifier_case filling
// the rest), and its DW_AT_low_pc becomes the base address 0 (a unit) or
// the start of its first piece.
//
// A rewritten section that is no larger than before stays where it was;
// one that grew is written at the end of the file and its section header
// re-pointed there (the translation table then follows it).  Anything the
// update cannot carry over exactly ends the run naming the section.
#include "com/dwarf_update.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <dwarf.h>
#include <gelf.h>

#include "base/bin.h"
#include "base/bytes.h"
#include "base/diag.h"
#include "base/elf_class.h"
#include "base/options.h"
#include "base/search.h"
#include "com/eh_frame.h"
#include "com/elf.h"
#include "com/xlate_table.h"
#include "xlate/xlate.h"

namespace vesk {

namespace dwarf_update {

void Out::sleb(int64_t v) {
  for (;;) {
    uint8_t b = v & 0x7f;
    v >>= 7;
    bool done = (v == 0 && !(b & 0x40)) || (v == -1 && (b & 0x40));
    u8(b | (done ? 0 : 0x80));
    if (done)
      return;
  }
}

namespace {

// The words w behind which the code comes apart (the word at w + 4 does
// not follow it in the new layout), in address order, from the word in
// front of .text to its last one.  Found once per layout: the ranges of
// units, scopes and line sequences ask about the same words many times.
// Between two breaks the code moved as one stretch, every byte of it by
// the same shift: kept for each stretch, so that a range costs no look
// into the text map (a large program's map is far bigger than the caches).
struct Breaks {
  const uint32_t *map = nullptr;
  uint64_t words = 0;
  std::vector<uint64_t> at;
  std::vector<uint64_t> shift; // of the stretch that ends behind at[k]
  uint64_t tail_shift = 0;     // of the stretch behind the last break
  uint64_t shift_of(size_t k) const { return k < at.size() ? shift[k] : tail_shift; }
};
Breaks breaks;
// Where the last search ended: the lists and scopes of one function ask
// about the same stretch one after another.  One for each thread: the
// line programs are rewritten beside the entries.
thread_local size_t breaks_hint = 0;

void find_breaks() {
  breaks.map = bin.text_map;
  breaks.words = bin.text_words;
  breaks.at.clear();
  breaks_hint = 0;
  uint64_t text_end = bin.text_lo + 4 * uint64_t(bin.text_words);
  uint64_t w = bin.text_lo >= 4 ? bin.text_lo - 4 : 0;
  // In front of .text, and the last word: the words beside them stay.
  auto check = [](uint64_t x) {
    if (map_byte(x + 4) != map_byte(x) + 4)
      breaks.at.push_back(x);
  };
  for (; w < bin.text_lo; w += 4)
    check(w);
  // Inside, word k + 1 follows word k where its new index does.
  const uint32_t *map = bin.text_map;
  for (uint64_t k = 0, j; map != nullptr && k + 1 < bin.text_words; k = j)
    if ((j = text_map_run_end(k, bin.text_words)) < bin.text_words)
      breaks.at.push_back(bin.text_lo + 4 * (j - 1));
  if (map == nullptr)
    for (; w + 4 < text_end; w += 4)
      check(w);
  if (bin.text_words != 0)
    check(text_end - 4);
  breaks.shift.resize(breaks.at.size());
  for (size_t k = 0; k < breaks.at.size(); ++k)
    breaks.shift[k] = map_byte(breaks.at[k]) - breaks.at[k];
  uint64_t behind = breaks.at.empty() ? 0 : breaks.at.back() + 4;
  breaks.tail_shift = map_byte(behind) - behind;
}

} // namespace

void map_range(uint64_t lo, uint64_t hi, std::vector<Piece> *out) {
  if (hi <= lo) {
    uint64_t n = map_byte(lo);
    out->push_back({lo, lo, n, n});
    return;
  }
  // Only where a word of .text meets another word can the code have come
  // apart.
  if (breaks.map != bin.text_map || breaks.words != bin.text_words)
    find_breaks();
  uint64_t start = lo;
  uint64_t last = (hi - 1) & ~uint64_t(3);
  uint64_t text_end = bin.text_lo + 4 * uint64_t(bin.text_words);
  uint64_t w = std::max(lo & ~uint64_t(3), bin.text_lo >= 4 ? bin.text_lo - 4 : 0);
  uint64_t stop = std::min(last, text_end);
  // The first break at or behind w.
  const std::vector<uint64_t> &at = breaks.at;
  // Most ranges lie a little behind the one before.
  size_t k = first_not_before(at, breaks_hint, [w](uint64_t x) { return x < w; });
  breaks_hint = k;
  // lo lies in the stretch that ends behind break k (or behind the last).
  uint64_t new_start = start + breaks.shift_of(k);
  for (; k < at.size() && at[k] < stop; ++k) {
    uint64_t end = at[k] + 4;
    out->push_back({start, end, new_start, new_start + (end - start)});
    start = end;
    new_start = end + breaks.shift_of(k + 1);
  }
  out->push_back({start, hi, new_start, new_start + (hi - start)});
}

} // namespace dwarf_update

using namespace dwarf_update;

namespace {

// The end of a stretch (exclusive) or a return address: it goes with the
// byte before it, in the code it ends.
uint64_t map_end(uint64_t a) { return a == 0 ? 0 : map_byte(a - 1) + 1; }

constexpr uint64_t round_up(uint64_t v, uint64_t a) { return (v + a - 1) / a * a; }

constexpr uint64_t kGnuLocviews = 0x2137;
constexpr uint64_t kGnuMacros = 0x2119;
constexpr uint64_t kGnuCallSite = 0x4109;
constexpr uint8_t kLleGnuViewPair = 0x09;

// One debug section: the input's bytes and the output's copy, which the
// in-place updates patch.
struct Sec {
  const char *name = nullptr;
  const uint8_t *in = nullptr;
  uint8_t *out = nullptr;
  size_t size = 0;
  uint32_t type = SHT_PROGBITS;
  bool present() const { return name != nullptr; }
};

// The section name of the input and its copy in the output; absent when
// the input has none.  Without `quiet`, a section vesk cannot update ends
// the run; with it, *ok turns false.
Sec dwarf_section(const char *name, bool quiet = false, bool *ok = nullptr) {
  Sec s;
  Elf_Scn *scn = find_section_by_name(bin.in_elf, name);
  GElf_Shdr sh;
  if (scn == nullptr || gelf_getshdr(scn, &sh) == nullptr || sh.sh_type == SHT_NOBITS)
    return s;
  // A compressed section was refused at discovery.
  Elf_Data *d = elf_getdata(scn, nullptr);
  Elf_Data *o = find_section_data_by_name(bin.out_elf, name);
  if (d == nullptr || o == nullptr || (d->d_buf == nullptr && d->d_size != 0) || o->d_size != d->d_size ||
      d->d_type != ELF_T_BYTE) {
    if (quiet) {
      *ok = false;
      return s;
    }
    error("%s: cannot read the contents of section %s", option.program, name);
  }
  static const uint8_t none = 0;
  s.name = name;
  s.in = d->d_buf ? static_cast<const uint8_t *>(d->d_buf) : &none;
  s.out = static_cast<uint8_t *>(o->d_buf);
  s.size = d->d_size;
  s.type = sh.sh_type;
  return s;
}

const char *section_name_of(Elf_Scn *scn) {
  size_t shstrndx = 0;
  GElf_Shdr sh;
  if (elf_getshdrstrndx(bin.out_elf, &shstrndx) != 0 || gelf_getshdr(scn, &sh) == nullptr)
    return nullptr;
  return elf_strptr(bin.out_elf, shstrndx, sh.sh_name);
}

void store_sized(uint8_t *p, uint64_t v, unsigned n) {
  for (unsigned i = n; i-- > 0; v >>= 8)
    p[i] = uint8_t(v);
}

uint64_t load_sized(const uint8_t *p, unsigned n) {
  uint64_t v = 0;
  for (unsigned i = 0; i < n; ++i)
    v = v << 8 | p[i];
  return v;
}

// A bounds-checked reader that also hands out where it is.
class Cur : public SectionCursor {
public:
  Cur(const uint8_t *buf, size_t size, const char *section) : SectionCursor(buf, size, 0, section), p(buf) {}
  const uint8_t *here() const { return p + pos; }
  uint64_t sized(unsigned n) {
    need(n);
    pos += n;
    return load_sized(p + pos - n, n);
  }
  uint64_t length(unsigned *offset_size) {
    uint64_t n = u32();
    *offset_size = 4;
    if (n == 0xffffffffu) {
      n = u64();
      *offset_size = 8;
    } else if (n >= 0xfffffff0u) {
      fail("a unit with a reserved length");
    }
    need(n);
    return n;
  }

private:
  const uint8_t *p;
};

// A unit length placeholder in out, filled in by end_length.
size_t begin_length(Out &o, unsigned offset_size) {
  if (offset_size == 8)
    o.u32(0xffffffffu);
  size_t at = o.size();
  o.sized(0, offset_size);
  return at;
}

void end_length(Out &o, size_t at, unsigned offset_size, const char *section) {
  uint64_t n = o.size() - at - offset_size;
  if (offset_size == 4 && n >= 0xfffffff0u)
    error("%s: section %s grows past what a 32-bit DWARF unit can hold", option.program, section);
  store_sized(o.data() + at, n, offset_size);
}

// ------------------------------------------------------------ expressions

// Hands each code address (DW_OP_addr into .text) of the expression
// p[0, len) to at(offset in p, address).  Every operation's operands are
// passed over by its kind; one this code does not know might hold an
// address, and ends the run.
template <class At>
void find_expression_addresses(const uint8_t *p, size_t len, unsigned addr_size, unsigned offset_size,
                               unsigned version, const char *section, size_t where, At &&at, size_t from = 0,
                               int depth = 0) {
  Cur c(p, len, section);
  // Compilers nest an entry value once; the limit keeps a damaged
  // expression from nesting the walk deeper than the stack goes.
  if (depth > 8)
    error("%s: section %s: the DWARF expression at offset %#zx nests entry values more than 8 deep",
          option.program, section, where);
  while (c.pos < len) {
    uint8_t op = c.u8();
    if ((op >= 0x30 && op <= 0x6f) || (op >= 0x12 && op <= 0x14) || (op >= 0x16 && op <= 0x22) ||
        (op >= 0x24 && op <= 0x27) || (op >= 0x29 && op <= 0x2e))
      continue; // literals, registers, stack and arithmetic operations
    if (op >= 0x70 && op <= 0x8f) {
      c.sleb(); // DW_OP_breg*
      continue;
    }
    switch (op) {
    case DW_OP_addr: {
      size_t field = c.pos;
      uint64_t v = c.sized(addr_size);
      if (in_text(v & ~uint64_t(3)))
        at(from + field, v);
      break;
    }
    case DW_OP_deref: case DW_OP_xderef: case DW_OP_nop: case DW_OP_push_object_address:
    case DW_OP_form_tls_address: case DW_OP_call_frame_cfa: case DW_OP_stack_value:
    case DW_OP_GNU_push_tls_address: case DW_OP_GNU_uninit:
      break;
    case DW_OP_const1u: case DW_OP_const1s: case DW_OP_pick: case DW_OP_deref_size: case DW_OP_xderef_size:
      c.skip(1);
      break;
    case DW_OP_const2u: case DW_OP_const2s: case DW_OP_skip: case DW_OP_bra: case DW_OP_call2:
      c.skip(2);
      break;
    case DW_OP_const4u: case DW_OP_const4s: case DW_OP_call4: case DW_OP_GNU_parameter_ref:
      c.skip(4);
      break;
    case DW_OP_const8u: case DW_OP_const8s:
      c.skip(8);
      break;
    case DW_OP_constu: case DW_OP_plus_uconst: case DW_OP_regx: case DW_OP_piece: case DW_OP_convert:
    case DW_OP_reinterpret: case DW_OP_GNU_convert: case DW_OP_GNU_reinterpret: case DW_OP_constx:
    case DW_OP_GNU_const_index:
      c.uleb();
      break;
    case DW_OP_consts: case DW_OP_fbreg:
      c.sleb();
      break;
    case DW_OP_bregx:
      c.uleb(), c.sleb();
      break;
    case DW_OP_bit_piece: case DW_OP_regval_type: case DW_OP_GNU_regval_type:
      c.uleb(), c.uleb();
      break;
    case DW_OP_deref_type: case DW_OP_xderef_type: case DW_OP_GNU_deref_type:
      c.skip(1), c.uleb();
      break;
    case DW_OP_call_ref: case DW_OP_GNU_variable_value:
      c.skip(version <= 2 ? addr_size : offset_size);
      break;
    case DW_OP_implicit_pointer: case DW_OP_GNU_implicit_pointer:
      c.skip(version <= 2 ? addr_size : offset_size), c.sleb();
      break;
    case DW_OP_implicit_value:
      c.skip(c.uleb());
      break;
    case DW_OP_const_type: case DW_OP_GNU_const_type:
      c.uleb();
      c.skip(c.u8());
      break;
    case DW_OP_entry_value: case DW_OP_GNU_entry_value: {
      uint64_t n = c.uleb();
      c.need(n);
      find_expression_addresses(p + c.pos, size_t(n), addr_size, offset_size, version, section, where, at,
                                from + c.pos, depth + 1);
      c.pos += n;
      break;
    }
    case DW_OP_addrx: case DW_OP_GNU_addr_index:
      error("%s: section %s: the DWARF expression at offset %#zx holds an indexed address (.debug_addr), which "
            "vesk does not update",
            option.program, section, where);
    default:
      error("%s: section %s: the DWARF expression at offset %#zx holds an operation (%#x) that vesk does not know",
            option.program, section, where, op);
    }
  }
}

// Re-points the code addresses of the expression p[0, len) in place.
void patch_expression(uint8_t *p, size_t len, unsigned addr_size, unsigned offset_size, unsigned version,
                      const char *section, size_t where) {
  find_expression_addresses(p, len, addr_size, offset_size, version, section, where,
                            [&](size_t at, uint64_t v) { store_sized(p + at, map_byte(v), addr_size); });
}

// ------------------------------------------------------------ .debug_info

struct Spec {
  uint64_t attr, form;
  int64_t implicit;
};

struct Abbrev {
  uint64_t code = 0, tag = 0;
  uint8_t children = 0;
  std::vector<Spec> specs;
};

struct AbbrevTable {
  std::map<uint64_t, Abbrev> by_code;
  std::vector<uint64_t> order; // the codes as the table lists them
  // by_code's entries by code, for the small codes compilers give (the
  // walk looks one up for every entry).
  std::vector<const Abbrev *> dense;
  static constexpr uint64_t kDense = 1 << 16;
  const Abbrev *find(uint64_t code) const {
    if (code < dense.size())
      return dense[code];
    if (code < kDense)
      return nullptr;
    auto it = by_code.find(code);
    return it == by_code.end() ? nullptr : &it->second;
  }
};

struct Unit {
  const Sec *sec = nullptr;
  size_t offset = 0, end = 0, first_die = 0;
  unsigned version = 0, addr_size = 4, offset_size = 4;
  size_t abbrev_field = 0; // where the header holds the abbreviation offset
  uint64_t abbrev_offset = 0;
  uint64_t base = 0; // the unit entry's DW_AT_low_pc, in the input
  // How many entries use each abbreviation code: the small codes counted
  // by index, the others in the map.
  std::vector<size_t> dense_uses;
  std::map<uint64_t, size_t> sparse_uses;
  size_t &code_uses(uint64_t code) {
    if (code < AbbrevTable::kDense) {
      if (code >= dense_uses.size())
        dense_uses.resize(code + 1);
      return dense_uses[code];
    }
    return sparse_uses[code];
  }
};

// A section offset that an attribute of the output's .debug_info (or
// .debug_types) holds, and where.
struct Ref {
  uint8_t *field;
  unsigned size;
  uint64_t value;
  size_t unit;
};

// An entry whose low and high pc no longer describe one stretch.
struct Conversion {
  size_t unit;
  size_t die; // its offset in its section
  uint64_t code;
  size_t code_len;
  uint8_t *code_field, *high_field;
  unsigned high_size;
  std::vector<Piece> pieces;
  uint64_t list_offset = 0; // of its new range list
};

enum RefKind { REF_NONE, REF_LINE, REF_RANGES, REF_LOC, REF_VIEWS, REF_MACRO, REF_KINDS };

// What the section offset of an attribute leads to; REF_NONE for the
// offsets into sections that the update leaves as they are.
bool offset_kind(uint64_t attr, RefKind *kind) {
  switch (attr) {
  case DW_AT_stmt_list: *kind = REF_LINE; return true;
  case DW_AT_ranges: case DW_AT_start_scope: *kind = REF_RANGES; return true;
  case DW_AT_location: case DW_AT_string_length: case DW_AT_return_addr: case DW_AT_data_member_location:
  case DW_AT_frame_base: case DW_AT_segment: case DW_AT_static_link: case DW_AT_use_location:
  case DW_AT_vtable_elem_location:
    *kind = REF_LOC;
    return true;
  case kGnuLocviews: *kind = REF_VIEWS; return true;
  case DW_AT_macros: case kGnuMacros: *kind = REF_MACRO; return true;
  case DW_AT_str_offsets_base: case DW_AT_addr_base: case DW_AT_macro_info: *kind = REF_NONE; return true;
  default: return false;
  }
}

bool is_pc_attr(uint64_t attr) {
  return attr == DW_AT_low_pc || attr == DW_AT_high_pc || attr == DW_AT_entry_pc || attr == DW_AT_call_return_pc ||
         attr == DW_AT_call_pc;
}

// What the walk keeps of one entry.
struct Die {
  struct Addr {
    uint64_t attr;
    size_t at; // the field's offset in the section
    uint64_t value;
  };
  std::vector<Addr> addrs;
  bool have_data_high = false, high_is_uleb = false;
  size_t high_at = 0;
  unsigned high_size = 0;
  uint64_t high_value = 0;
  long loc_ref = -1, views_ref = -1;
  // Ready for the next entry; the vector keeps its storage.
  void clear() {
    addrs.clear();
    have_data_high = false, high_is_uleb = false, high_at = 0, high_size = 0, high_value = 0;
    loc_ref = -1, views_ref = -1;
  }
};

// The entries are read before the layout and their code addresses patched
// after it; in between, a large program's hundreds of thousands of places
// are kept in few bytes each, and what the input holds there is read back.
// (Not from the output's copy: a page of it read before it is written
// would be copied on the write while the other core may hold it, which
// costs the machine a cross-core interruption every page.)

// A code address of .debug_info or .debug_types that the layout decides: a
// pc, or a DW_OP_addr of an expression.  An end (a high pc, a return
// address) goes with the byte before it.
class AddrSite {
public:
  AddrSite(size_t offset, bool in_types, unsigned size, bool end)
      : v_(uint64_t(offset) << 3 | (in_types ? 4 : 0) | (end ? 2 : 0) | (size == 8 ? 1 : 0)) {}
  size_t offset() const { return size_t(v_ >> 3); }
  bool in_types() const { return (v_ & 4) != 0; }
  bool end() const { return (v_ & 2) != 0; }
  unsigned size() const { return (v_ & 1) != 0 ? 8 : 4; }

private:
  uint64_t v_;
};

// The low and high pc of an entry, which describe one stretch of code
// that the layout may have put in pieces.
struct PcPair {
  enum High : uint8_t { ADDRESS, LENGTH, ULEB_LENGTH }; // what the high pc holds
  uint64_t die; // the entry's offset in its section
  uint32_t unit;
  uint32_t low_at, high_at; // the fields' offsets from the entry
  uint8_t high_size, code_len;
  High high;
  bool first; // the unit's own entry
};

// One entry of a range or location list.
struct Entry {
  bool is_default = false; // DW_LLE_default_location: no range
  uint64_t lo = 0, hi = 0;
  size_t expr_at = 0, expr_size = 0; // the expression, in the list's pool
  bool has_view = false; // a DW_LLE_GNU_view_pair came before it
  uint64_t vbegin = 0, vend = 0;
};

// Reads the list at c.pos up to its end entry into out, the expressions
// of its entries into pool (both emptied first; kept from list to list so
// that reading costs no allocation).  Offsets count from base (the
// unit's), until a base address entry gives another.
void read_list(Cur &c, bool loc, bool v5, unsigned addr_size, uint64_t base, std::vector<Entry> *entries,
               std::vector<uint8_t> *pool) {
  std::vector<Entry> &out = *entries;
  out.clear();
  pool->clear();
  auto take_expr = [&](Entry &e, uint64_t n) {
    c.need(n);
    e.expr_at = pool->size(), e.expr_size = n;
    pool->insert(pool->end(), c.here(), c.here() + n);
    c.pos += n;
  };
  uint64_t max_addr = addr_size == 4 ? 0xffffffffu : ~uint64_t(0);
  Entry e;
  for (;;) {
    if (!v5) {
      uint64_t a = c.sized(addr_size), b = c.sized(addr_size);
      if (a == 0 && b == 0)
        return;
      if (a == max_addr) {
        base = b;
        continue;
      }
      e.lo = a + base, e.hi = b + base;
      if (loc)
        take_expr(e, c.u16());
    } else {
      uint8_t kind = c.u8();
      if (kind == DW_LLE_end_of_list)
        return;
      if (loc && kind == kLleGnuViewPair) {
        e.has_view = true;
        e.vbegin = c.uleb();
        e.vend = c.uleb();
        continue;
      }
      // The range list kinds are those of the location lists less
      // default_location.
      unsigned k = !loc && kind >= DW_RLE_base_address ? kind + 1u : kind;
      switch (k) {
      case DW_LLE_offset_pair: {
        uint64_t a = c.uleb(), b = c.uleb();
        e.lo = base + a, e.hi = base + b;
        break;
      }
      case DW_LLE_default_location: e.is_default = true; break;
      case DW_LLE_base_address: base = c.sized(addr_size); continue;
      case DW_LLE_start_end: e.lo = c.sized(addr_size), e.hi = c.sized(addr_size); break;
      case DW_LLE_start_length: e.lo = c.sized(addr_size), e.hi = e.lo + c.uleb(); break;
      default:
        error("%s: section %s: the list entry at offset %#zx is of kind %u (an indexed address, or a kind vesk "
              "does not know), which vesk cannot carry over to the new layout",
              option.program, c.section(), c.pos - 1, unsigned(kind));
      }
      if (loc)
        take_expr(e, c.uleb());
    }
    if (addr_size == 4)
      e.lo = uint32_t(e.lo), e.hi = uint32_t(e.hi);
    if (e.hi < e.lo)
      c.fail("a list entry that ends before it starts");
    out.push_back(e);
    e = Entry{};
  }
}

// The new offsets of line programs, by their old ones.
using Moves = std::map<uint64_t, uint64_t>;

class DwarfUpdate {
public:
  DwarfUpdate() = default;
  // The work on the second core writes into members: a run that ends
  // before collecting it waits for it before they go.
  ~DwarfUpdate() {
    lines.reset();
    loc_lists[1].reset();
    loc_lists[0].reset();
    entries.reset();
  }
  DwarfUpdate(const DwarfUpdate &) = delete;
  DwarfUpdate &operator=(const DwarfUpdate &) = delete;
  // Finds the sections and starts reading the entries on the second core;
  // false when there is nothing to update.  With `quiet` it starts nothing
  // where the update would stop the run, so that the message comes in its
  // turn: false then too.
  bool begin(bool quiet);
  // Once the layout is known: the location lists, on the second core.
  void follow_layout();
  // The rest, in the update's turn.
  void finish();

private:
  Sec info, types, abbrev, line, aranges, rnglists, ranges, loclists, loc, macro;
  std::vector<Unit> units;
  std::map<uint64_t, AbbrevTable> tables;
  std::vector<Ref> refs[REF_KINDS];
  // The view list of a location list (DW_AT_GNU_locviews beside its
  // DW_AT_location), by the list's section and offset: gathered as the
  // entries give them, then sorted once (a tree would be searched from
  // the top for every list); of two for one list the later counts.
  struct ViewsOf {
    struct Item {
      uintptr_t sec;
      uint64_t list, views;
    };
    std::vector<Item> v;
    static bool before(const Item &a, const Item &b) { return a.sec != b.sec ? a.sec < b.sec : a.list < b.list; }
    void add(const Sec *sec, uint64_t list, uint64_t views) { v.push_back({uintptr_t(sec), list, views}); }
    void seal() {
      std::stable_sort(v.begin(), v.end(), before);
      // The last of each run of equal keys stands.
      size_t out = 0;
      for (size_t i = 0; i < v.size(); ++i)
        if (i + 1 == v.size() || before(v[i], v[i + 1]))
          v[out++] = v[i];
      v.resize(out);
    }
    // The lists are asked about in the order of their offsets: the search
    // starts where the last one ended.
    const uint64_t *find(const Sec *sec, uint64_t list, size_t *next) const {
      Item k{uintptr_t(sec), list, 0};
      size_t i = *next;
      if (!(i <= v.size() && (i == v.size() || !before(v[i], k)) && (i == 0 || before(v[i - 1], k))))
        i = size_t(std::lower_bound(v.begin(), v.end(), k, before) - v.begin());
      bool found = i < v.size() && !before(k, v[i]);
      *next = found ? i + 1 : i;
      return found ? &v[i].views : nullptr;
    }
  } views_of;
  std::vector<Conversion> conversions;
  struct Rewritten {
    const char *name;
    uint32_t type;
    std::vector<uint8_t> bytes;
  };
  std::vector<Rewritten> rewritten;
  // The line programs, rewritten on the run's thread while the location
  // lists are on the second core, and their new offsets by their old ones.
  std::unique_ptr<Background> lines;
  std::vector<uint8_t> line_bytes;
  Moves line_offsets;
  // The location lists of each DWARF version, rewritten on the second
  // core (they need the entries read and the layout, nothing else).
  std::unique_ptr<Background> loc_lists[2];
  std::vector<Rewritten> loc_rewritten[2];
  // The entries of .debug_info and .debug_types: read on the second core
  // before the layout (what they hold and where), beside the checks and
  // the layout; their code addresses are patched in the update's turn.
  std::unique_ptr<Background> entries;
  bool following = false; // follow_layout has begun the work
  std::vector<AddrSite> addr_sites;
  std::vector<PcPair> pc_pairs;
  void read_entries();
  void patch_entries();

  void read_units(const Sec &s);
  const AbbrevTable &abbrev_table(uint64_t offset);
  void read_unit(size_t u);
  // Kept from one list to the next (one for each thread that rewrites
  // lists): a list's entries, their expressions, pieces and view pairs.
  struct ListScratch {
    std::vector<Piece> pieces;
    std::vector<size_t> piece_at;
    std::vector<Entry> entries;
    std::vector<uint8_t> exprs;
    std::vector<std::pair<uint64_t, uint64_t>> views;
  };
  ListScratch range_scratch, loc_scratch;
  void rewrite_lists(bool is_loc, bool v5, ListScratch &w, std::vector<Rewritten> *out);
  void write_list(Out &o, ListScratch &w, bool is_loc, bool v5, const Unit &u, bool with_views, const char *section,
                  size_t where, uint64_t *list_at);
  // Kept from one range or entry to the next.
  std::vector<Piece> scratch_pieces;
  Die die; // the entry being walked
  void rewrite_line();
  void rewrite_aranges();
  void write_abbrevs();
};

void DwarfUpdate::read_units(const Sec &s) {
  Cur c(s.in, s.size, s.name);
  bool types_section = std::strcmp(s.name, ".debug_types") == 0;
  while (c.pos < s.size) {
    Unit u;
    u.sec = &s;
    u.offset = c.pos;
    uint64_t length = c.length(&u.offset_size);
    u.end = c.pos + length;
    u.version = c.u16();
    if (u.version < 2 || u.version > 5)
      c.fail("a unit of a DWARF version vesk does not know");
    if (u.version >= 5) {
      uint8_t type = c.u8();
      u.addr_size = c.u8();
      u.abbrev_field = c.pos;
      u.abbrev_offset = c.sized(u.offset_size);
      if (type == DW_UT_skeleton || type == DW_UT_split_compile)
        c.skip(8);
      else if (type == DW_UT_type || type == DW_UT_split_type)
        c.skip(8 + u.offset_size);
      else if (type != DW_UT_compile && type != DW_UT_partial)
        c.fail("a unit of a type vesk does not know");
    } else {
      u.abbrev_field = c.pos;
      u.abbrev_offset = c.sized(u.offset_size);
      u.addr_size = c.u8();
      if (types_section)
        c.skip(8 + u.offset_size);
    }
    if (u.addr_size != 4 && u.addr_size != 8)
      c.fail("a unit whose addresses are neither 4 nor 8 bytes");
    if (c.pos > u.end)
      c.fail("a unit header runs past its unit");
    u.first_die = c.pos;
    units.push_back(u);
    c.pos = u.end;
  }
}

const AbbrevTable &DwarfUpdate::abbrev_table(uint64_t offset) {
  auto it = tables.find(offset);
  if (it != tables.end())
    return it->second;
  if (!abbrev.present() || offset >= abbrev.size)
    error("%s: section .debug_info is damaged: a unit's abbreviations lie outside .debug_abbrev", option.program);
  AbbrevTable t;
  Cur c(abbrev.in, abbrev.size, ".debug_abbrev");
  c.pos = size_t(offset);
  for (;;) {
    Abbrev a;
    a.code = c.uleb();
    if (a.code == 0)
      break;
    a.tag = c.uleb();
    a.children = c.u8();
    for (;;) {
      Spec s{c.uleb(), c.uleb(), 0};
      if (s.attr == 0 && s.form == 0)
        break;
      if (s.form == DW_FORM_implicit_const)
        s.implicit = c.sleb();
      a.specs.push_back(s);
    }
    if (!t.by_code.emplace(a.code, a).second)
      c.fail("an abbreviation table that gives one code twice");
    t.order.push_back(a.code);
  }
  AbbrevTable &kept = tables.emplace(offset, std::move(t)).first->second;
  for (const auto &[code, a] : kept.by_code) {
    if (code >= AbbrevTable::kDense)
      break;
    if (code >= kept.dense.size())
      kept.dense.resize(code + 1);
    kept.dense[code] = &a;
  }
  return kept;
}

void DwarfUpdate::read_unit(size_t ui) {
  Unit &u = units[ui];
  const Sec &s = *u.sec;
  const AbbrevTable &t = abbrev_table(u.abbrev_offset);
  Cur c(s.in, u.end, s.name);
  c.pos = u.first_die;
  bool first = true;
  while (c.pos < u.end) {
    size_t die_pos = c.pos;
    uint64_t code = c.uleb();
    size_t code_len = c.pos - die_pos;
    if (code == 0)
      continue; // the end of a list of children, or padding
    const Abbrev *found = t.find(code);
    if (found == nullptr)
      c.fail("an entry whose abbreviation code its table does not give");
    const Abbrev &a = *found;
    ++u.code_uses(code);
    Die &d = die;
    d.clear();
    for (const Spec &spec : a.specs) {
      uint64_t form = spec.form;
      if (form == DW_FORM_indirect) {
        form = c.uleb();
        if (form == DW_FORM_indirect || form == DW_FORM_implicit_const)
          c.fail("an indirect form that leads to no value");
      }
      size_t at = c.pos;
      uint64_t value = 0;
      switch (form) {
      case DW_FORM_addr:
        d.addrs.push_back({spec.attr, at, c.sized(u.addr_size)});
        continue;
      case DW_FORM_addrx: case DW_FORM_GNU_addr_index: case DW_FORM_addrx1: case DW_FORM_addrx2:
      case DW_FORM_addrx3: case DW_FORM_addrx4:
        if (is_pc_attr(spec.attr))
          error("%s: section %s: the entry at offset %#zx gives a code address through .debug_addr, which vesk "
                "does not update",
                option.program, s.name, die_pos);
        if (form == DW_FORM_addrx || form == DW_FORM_GNU_addr_index)
          c.uleb();
        else
          c.skip(form == DW_FORM_addrx1 ? 1 : form == DW_FORM_addrx2 ? 2 : form == DW_FORM_addrx3 ? 3 : 4);
        continue;
      case DW_FORM_exprloc: {
        uint64_t n = c.uleb();
        c.need(n);
        size_t expr = c.pos;
        bool in_types = &s == &types;
        unsigned as = u.addr_size;
        find_expression_addresses(s.in + c.pos, size_t(n), as, u.offset_size, u.version, s.name, c.pos,
                                  [&](size_t off, uint64_t) { addr_sites.emplace_back(expr + off, in_types, as, false); });
        c.pos += n;
        continue;
      }
      case DW_FORM_block1: c.skip(c.u8()); continue;
      case DW_FORM_block2: c.skip(c.u16()); continue;
      case DW_FORM_block4: c.skip(c.u32()); continue;
      case DW_FORM_block: c.skip(c.uleb()); continue;
      case DW_FORM_string:
        while (c.u8() != 0) {
        }
        continue;
      case DW_FORM_flag_present: case DW_FORM_implicit_const: continue;
      case DW_FORM_data1: case DW_FORM_ref1: case DW_FORM_flag: case DW_FORM_strx1: value = c.sized(1); break;
      case DW_FORM_data2: case DW_FORM_ref2: case DW_FORM_strx2: value = c.sized(2); break;
      case DW_FORM_strx3: value = c.sized(3); break;
      case DW_FORM_data4: case DW_FORM_ref4: case DW_FORM_strx4: case DW_FORM_ref_sup4: value = c.sized(4); break;
      case DW_FORM_data8: case DW_FORM_ref8: case DW_FORM_ref_sig8: case DW_FORM_ref_sup8: value = c.sized(8); break;
      case DW_FORM_data16: c.skip(16); continue;
      case DW_FORM_sdata: value = uint64_t(c.sleb()); break;
      case DW_FORM_udata: case DW_FORM_ref_udata: case DW_FORM_strx: case DW_FORM_GNU_str_index:
        value = c.uleb();
        break;
      case DW_FORM_strp: case DW_FORM_line_strp: case DW_FORM_strp_sup: case DW_FORM_GNU_ref_alt:
      case DW_FORM_GNU_strp_alt:
        c.skip(u.offset_size);
        continue;
      case DW_FORM_ref_addr: c.skip(u.version <= 2 ? u.addr_size : u.offset_size); continue;
      case DW_FORM_sec_offset: value = c.sized(u.offset_size); break;
      case DW_FORM_loclistx: case DW_FORM_rnglistx:
        error("%s: section %s: the entry at offset %#zx gives a list by its index, which vesk does not update",
              option.program, s.name, die_pos);
      default:
        c.fail("an attribute form that vesk does not know");
      }
      // A section offset: DW_FORM_sec_offset, or before DWARF 4 a 4- or
      // 8-byte constant of an attribute that takes one.
      RefKind kind = REF_NONE;
      bool known = offset_kind(spec.attr, &kind);
      bool offset = form == DW_FORM_sec_offset ||
                    (u.version < 4 && (form == DW_FORM_data4 || form == DW_FORM_data8) && known &&
                     spec.attr != DW_AT_data_member_location);
      if (offset) {
        if (!known)
          error("%s: section %s: the entry at offset %#zx has attribute %#llx with an offset into a section that "
                "vesk does not know",
                option.program, s.name, die_pos, (unsigned long long)spec.attr);
        if (kind == REF_NONE)
          continue;
        refs[kind].push_back({s.out + at, unsigned(c.pos - at), value, ui});
        if (kind == REF_LOC)
          d.loc_ref = long(refs[kind].size() - 1);
        if (kind == REF_VIEWS)
          d.views_ref = long(refs[kind].size() - 1);
      } else if (spec.attr == DW_AT_high_pc &&
                 (form == DW_FORM_data1 || form == DW_FORM_data2 || form == DW_FORM_data4 ||
                  form == DW_FORM_data8 || form == DW_FORM_udata)) {
        d.have_data_high = true;
        d.high_is_uleb = form == DW_FORM_udata;
        d.high_at = at;
        d.high_size = unsigned(c.pos - at);
        d.high_value = value;
      }
    }
    if (d.views_ref >= 0) {
      if (d.loc_ref < 0)
        error("%s: section %s: the entry at offset %#zx has location views but no location list", option.program,
              s.name, die_pos);
      views_of.add(u.version >= 5 ? &loclists : &loc, refs[REF_LOC][size_t(d.loc_ref)].value,
                   refs[REF_VIEWS][size_t(d.views_ref)].value);
    }

    // The pcs.
    const Die::Addr *low = nullptr, *high = nullptr;
    for (const Die::Addr &x : d.addrs) {
      if (x.attr == DW_AT_low_pc)
        low = &x;
      if (x.attr == DW_AT_high_pc)
        high = &x;
    }
    bool pair = low != nullptr && (high != nullptr || d.have_data_high);
    if (first)
      u.base = low ? low->value : 0;
    for (const Die::Addr &x : d.addrs) {
      if (pair && (&x == low || &x == high))
        continue;
      bool is_end = x.attr == DW_AT_high_pc || x.attr == DW_AT_call_return_pc ||
                    (x.attr == DW_AT_low_pc && a.tag == kGnuCallSite);
      // Only an address of .text (or just behind its end) changes.
      if (is_end ? x.value != 0 && in_text((x.value - 1) & ~uint64_t(3)) : in_text(x.value & ~uint64_t(3)))
        addr_sites.emplace_back(x.at, &s == &types, u.addr_size, is_end);
    }
    if (pair) {
      uint64_t lo = low->value;
      uint64_t hi = high ? high->value : lo + d.high_value;
      if (u.addr_size == 4)
        hi = uint32_t(hi);
      if (hi < lo)
        error("%s: section %s: the entry at offset %#zx ends before it starts", option.program, s.name, die_pos);
      // A code or a length that no compiler pads this far.
      if (code_len > 255 || (!high && d.high_size > 255) || c.pos - die_pos > UINT32_MAX)
        c.fail("an entry whose abbreviation code or high pc takes more than 255 bytes");
      PcPair::High kind = high ? PcPair::ADDRESS : d.high_is_uleb ? PcPair::ULEB_LENGTH : PcPair::LENGTH;
      pc_pairs.push_back({die_pos, uint32_t(ui), uint32_t(low->at - die_pos),
                          uint32_t((high ? high->at : d.high_at) - die_pos), uint8_t(high ? u.addr_size : d.high_size),
                          uint8_t(code_len), kind, first});
    }
    first = false;
  }
}

// Re-points the code addresses that the entries hold, and finds the entries
// whose code now lies in pieces.
void DwarfUpdate::patch_entries() {
  // One pass through each section, the places and the pairs taken in the
  // order they lie in it, the input's pages dropped behind it.
  DropBehind info_read(info.in, info.size), types_read(types.in, types.size);
  auto patch_site = [&](const AddrSite &x) {
    const Sec &s = x.in_types() ? types : info;
    uint64_t v = load_sized(s.in + x.offset(), x.size());
    store_sized(s.out + x.offset(), x.end() ? map_end(v) : map_byte(v), x.size());
    (x.in_types() ? types_read : info_read).reached(x.offset());
  };
  std::vector<Piece> &pieces = scratch_pieces;
  size_t next_site = 0;
  for (const PcPair &p : pc_pairs) {
    const Unit &u = units[p.unit];
    bool in_types = u.sec == &types;
    for (; next_site < addr_sites.size(); ++next_site) {
      const AddrSite &x = addr_sites[next_site];
      if (x.in_types() > in_types || (x.in_types() == in_types && x.offset() > p.die))
        break;
      patch_site(x);
    }
    (in_types ? types_read : info_read).reached(p.die);
    const uint8_t *in = u.sec->in + p.die;
    uint8_t *entry = u.sec->out + p.die;
    uint8_t *low_field = entry + p.low_at, *high_field = entry + p.high_at;
    uint64_t lo = load_sized(in + p.low_at, u.addr_size), hi = 0;
    if (p.high == PcPair::ADDRESS) {
      hi = load_sized(in + p.high_at, u.addr_size);
    } else {
      uint64_t length = 0;
      if (p.high == PcPair::LENGTH)
        length = load_sized(in + p.high_at, p.high_size);
      else
        for (unsigned i = 0; i < p.high_size && i < 10; ++i)
          length |= uint64_t(in[p.high_at + i] & 0x7f) << (7 * i);
      hi = lo + length;
    }
    if (u.addr_size == 4)
      hi = uint32_t(hi);
    pieces.clear();
    map_range(lo, hi, &pieces);
    if (pieces.size() == 1) {
      store_sized(low_field, pieces[0].new_lo, u.addr_size);
      if (p.high == PcPair::ADDRESS)
        store_sized(high_field, pieces[0].new_hi, u.addr_size);
      continue;
    }
    if (p.high_size < u.offset_size)
      error("%s: section %s: the code of the entry at offset %#zx now lies in pieces, and its %u-byte high pc "
            "cannot hold the offset of a range list",
            option.program, u.sec->name, p.die, unsigned(p.high_size));
    // A unit's low pc is the base of its lists: the new lists are
    // written with absolute addresses.
    store_sized(low_field, p.first ? 0 : pieces[0].new_lo, u.addr_size);
    uint64_t code = 0;
    for (unsigned i = 0; i < p.code_len && i < 10; ++i)
      code |= uint64_t(in[i] & 0x7f) << (7 * i);
    conversions.push_back({p.unit, size_t(p.die), code, p.code_len, entry, high_field, p.high_size, pieces});
  }
  for (; next_site < addr_sites.size(); ++next_site)
    patch_site(addr_sites[next_site]);
  std::vector<AddrSite>().swap(addr_sites);
  std::vector<PcPair>().swap(pc_pairs);
  release_input_pages(info.in, info.size);
  release_input_pages(types.in, types.size);
}

// Writes entries (of the unit u) as one list, each with its own absolute
// address, split into the pieces of its code.  When the list has a view
// list, that goes in front, one pair per piece; *list_at gets the offset of
// the list itself.
void DwarfUpdate::write_list(Out &o, ListScratch &w, bool is_loc, bool v5, const Unit &u, bool with_views,
                             const char *section, size_t where, uint64_t *list_at) {
  const std::vector<Entry> &entries = w.entries;
  std::vector<uint8_t> &pool = w.exprs;
  const std::vector<std::pair<uint64_t, uint64_t>> *views = with_views ? &w.views : nullptr;
  std::vector<Piece> &list_pieces = w.pieces;
  std::vector<size_t> &piece_at = w.piece_at;
  // The pieces of entry i are list_pieces[piece_at[i], piece_at[i + 1]).
  list_pieces.clear();
  piece_at.assign(1, 0);
  size_t ranges = 0;
  bool any = false;
  for (const Entry &e : entries) {
    if (e.expr_size != 0)
      patch_expression(pool.data() + e.expr_at, e.expr_size, u.addr_size, u.offset_size, u.version, section, where);
    if (!e.is_default) {
      ++ranges;
      size_t from = list_pieces.size();
      map_range(e.lo, e.hi, &list_pieces);
      // Pieces without code are dropped.
      size_t to = from;
      for (size_t k = from; k < list_pieces.size(); ++k)
        if (list_pieces[k].new_hi > list_pieces[k].new_lo)
          list_pieces[to++] = list_pieces[k];
      list_pieces.resize(to);
      any = any || to > from;
    }
    piece_at.push_back(list_pieces.size());
  }
  if (views != nullptr) {
    if (views->size() != ranges)
      error("%s: section %s: the location list at offset %#zx has %zu entries but %zu location view pairs",
            option.program, section, where, ranges, views->size());
    size_t k = 0;
    for (size_t i = 0; i < entries.size(); ++i) {
      if (entries[i].is_default)
        continue;
      const auto &v = (*views)[k++];
      size_t n = piece_at[i + 1] - piece_at[i];
      for (size_t j = 0; j < n; ++j)
        o.uleb(j == 0 ? v.first : 0), o.uleb(j + 1 == n ? v.second : 0);
    }
  }
  *list_at = o.size();
  unsigned as = u.addr_size;
  if (!v5 && any)
    o.sized(as == 4 ? 0xffffffffu : ~uint64_t(0), as), o.sized(0, as); // base address 0
  for (size_t i = 0; i < entries.size(); ++i) {
    const Entry &e = entries[i];
    const uint8_t *expr = pool.data() + e.expr_at;
    if (e.is_default) {
      o.u8(DW_LLE_default_location), o.uleb(e.expr_size), o.bytes(expr, e.expr_size);
      continue;
    }
    size_t n = piece_at[i + 1] - piece_at[i];
    for (size_t j = 0; j < n; ++j) {
      const Piece &p = list_pieces[piece_at[i] + j];
      if (v5) {
        if (e.has_view)
          o.u8(kLleGnuViewPair), o.uleb(j == 0 ? e.vbegin : 0), o.uleb(j + 1 == n ? e.vend : 0);
        o.u8(is_loc ? unsigned(DW_LLE_start_length) : unsigned(DW_RLE_start_length));
        o.sized(p.new_lo, as);
        o.uleb(p.new_hi - p.new_lo);
        if (is_loc)
          o.uleb(e.expr_size), o.bytes(expr, e.expr_size);
      } else {
        o.sized(p.new_lo, as), o.sized(p.new_hi, as);
        if (is_loc) {
          if (e.expr_size > 0xffff)
            error("%s: section %s: a location expression at offset %#zx is too long", option.program, section,
                  where);
          o.u16(e.expr_size), o.bytes(expr, e.expr_size);
        }
      }
    }
  }
  if (v5)
    o.u8(0);
  else
    o.sized(0, as), o.sized(0, as);
}

// The new offsets of lists and view lists, by their old ones: pairs
// sorted by old offset once all are in.  Of two for one offset (view lists
// that two lists share) the later counts.
struct ListMoves {
  std::vector<std::pair<uint64_t, uint64_t>> v;
  void add(uint64_t from, uint64_t to) { v.push_back({from, to}); }
  // The lists are written in the order of their old offsets: sorted
  // already, but for damaged input.
  void sort() {
    auto before = [](const auto &a, const auto &b) { return a.first < b.first; };
    if (!std::is_sorted(v.begin(), v.end(), before))
      std::stable_sort(v.begin(), v.end(), before);
  }
  // References come mostly in the order of the lists: the one behind the
  // last found is tried first.
  const uint64_t *find(uint64_t from, size_t *next) const {
    size_t k = *next;
    // The last of equal offsets counts.
    if (!(k < v.size() && v[k].first == from && (k + 1 == v.size() || v[k + 1].first != from))) {
      auto it = std::upper_bound(v.begin(), v.end(), from, [](uint64_t f, const auto &e) { return f < e.first; });
      if (it == v.begin() || std::prev(it)->first != from)
        return nullptr;
      k = size_t(std::prev(it) - v.begin());
    }
    *next = k + 1;
    return &v[k].second;
  }
};

void patch_refs(const std::vector<Ref> &refs, const std::vector<Unit> &units, bool v5, const ListMoves &moved,
                const char *section, const char *what) {
  size_t next = 0;
  for (const Ref &r : refs) {
    if ((units[r.unit].version >= 5) != v5)
      continue;
    const uint64_t *to = moved.find(r.value, &next);
    if (to == nullptr)
      error("%s: section %s: %s at offset %#llx of %s is not where a list begins", option.program,
            units[r.unit].sec->name, what, (unsigned long long)r.value, section);
    store_sized(r.field, *to, r.size);
  }
}

void DwarfUpdate::rewrite_lists(bool is_loc, bool v5, ListScratch &w, std::vector<Rewritten> *out) {
  Sec &s = is_loc ? (v5 ? loclists : loc) : (v5 ? rnglists : ranges);
  const char *name = is_loc ? (v5 ? ".debug_loclists" : ".debug_loc") : (v5 ? ".debug_rnglists" : ".debug_ranges");
  const std::vector<Ref> &list_refs = refs[is_loc ? REF_LOC : REF_RANGES];
  // The lists that units of these versions lead to, each with the unit
  // of the first reference to it, by offset.  A list that serves units of
  // different bases is refused, the first such reference named.
  std::vector<std::pair<uint64_t, size_t>> lists; // offset, reference
  for (size_t i = 0; i < list_refs.size(); ++i)
    if ((units[list_refs[i].unit].version >= 5) == v5)
      lists.push_back({list_refs[i].value, i});
  if (!std::is_sorted(lists.begin(), lists.end())) // they are, in a unit's entries
    std::sort(lists.begin(), lists.end());
  size_t clash = SIZE_MAX;
  size_t unique = 0;
  for (size_t i = 0; i < lists.size(); ++i) {
    if (i > 0 && lists[i].first == lists[unique - 1].first) {
      const Unit &first = units[list_refs[lists[unique - 1].second].unit];
      const Unit &u = units[list_refs[lists[i].second].unit];
      if (first.base != u.base || first.addr_size != u.addr_size)
        clash = std::min(clash, lists[i].second);
      continue;
    }
    lists[unique++] = lists[i];
  }
  lists.resize(unique);
  if (clash != SIZE_MAX)
    error("%s: section %s: the list at offset %#llx serves units of different base addresses", option.program, name,
          (unsigned long long)list_refs[clash].value);
  for (auto &l : lists)
    l.second = list_refs[l.second].unit;
  std::vector<Conversion *> converted;
  if (!is_loc)
    for (Conversion &cv : conversions)
      if ((units[cv.unit].version >= 5) == v5)
        converted.push_back(&cv);
  if (lists.empty() && converted.empty())
    return;
  if (!lists.empty() && !s.present())
    error("%s: its DWARF refers to section %s, which it does not have", option.program, name);

  // The tables of a DWARF 5 section: each a header and the lists it holds.
  struct Table {
    size_t body, end;
    unsigned offset_size, addr_size;
  };
  std::vector<Table> tables_of;
  if (v5 && s.present()) {
    Cur c(s.in, s.size, name);
    while (c.pos < s.size) {
      Table t{};
      uint64_t length = c.length(&t.offset_size);
      t.end = c.pos + length;
      if (c.u16() != 5)
        c.fail("a table of a version other than 5");
      t.addr_size = c.u8();
      c.u8();
      if (c.u32() != 0)
        c.fail("a table with an offset array, which vesk does not update");
      t.body = c.pos;
      tables_of.push_back(t);
      c.pos = t.end;
    }
  }
  // Each list, with its view list in front when it has one, in the order
  // of the section.
  struct Block {
    uint64_t start, list;
    size_t unit;
    bool has_views;
  };
  std::vector<Block> blocks;
  size_t next_views = 0;
  for (auto [offset, unit] : lists) {
    const uint64_t *v = views_of.find(&s, offset, &next_views);
    bool has_views = v != nullptr;
    if (has_views && *v > offset)
      error("%s: section %s: the location views at offset %#llx lie behind their list", option.program, name,
            (unsigned long long)*v);
    blocks.push_back({has_views ? *v : offset, offset, unit, has_views});
  }
  auto starts_before = [](const Block &a, const Block &b) { return a.start < b.start; };
  if (!std::is_sorted(blocks.begin(), blocks.end(), starts_before))
    std::sort(blocks.begin(), blocks.end(), starts_before);
  std::vector<std::pair<uint64_t, size_t>>().swap(lists); // the blocks say it all now

  Out o;
  // The lists come out about as large as they went in: room for that and
  // some pieces, so that the buffer is not copied as it grows.
  o.reserve(s.size + s.size / 8 + 64);
  ListMoves moved, moved_views;
  const Table *table = nullptr;
  size_t length_at = 0;
  auto close_table = [&] {
    if (table != nullptr)
      end_length(o, length_at, table->offset_size, name);
    table = nullptr;
  };
  auto open_table = [&](const Table *t) {
    close_table();
    table = t;
    length_at = begin_length(o, t->offset_size);
    o.u16(5), o.u8(t->addr_size), o.u8(0), o.u32(0);
  };
  DropBehind read(s.in, s.size);
  for (const Block &b : blocks) {
    read.reached(b.start);
    const Unit &u = units[b.unit];
    size_t end = s.size;
    if (v5) {
      // The tables follow each other in the section without overlapping:
      // only the last one whose lists begin at or before the block can
      // hold it.
      const Table *t = nullptr;
      auto after = std::upper_bound(tables_of.begin(), tables_of.end(), b.start,
                                    [](uint64_t at, const Table &x) { return at < x.body; });
      if (after != tables_of.begin() && b.start < (after - 1)->end)
        t = &*(after - 1);
      if (t == nullptr)
        error("%s: section %s: a list at offset %#llx lies in no table", option.program, name,
              (unsigned long long)b.start);
      if (t->addr_size != u.addr_size)
        error("%s: section %s: the table of the list at offset %#llx gives another address size than its unit",
              option.program, name, (unsigned long long)b.list);
      if (t != table)
        open_table(t);
      end = t->end;
    }
    if (b.start >= end || b.list >= end)
      error("%s: section %s: a list at offset %#llx lies past the end of its table", option.program, name,
            (unsigned long long)b.list);
    Cur c(s.in, end, name);
    std::vector<std::pair<uint64_t, uint64_t>> &views = w.views;
    views.clear();
    c.pos = size_t(b.start);
    while (c.pos < b.list) {
      uint64_t vb = c.uleb();
      views.emplace_back(vb, c.uleb());
    }
    if (c.pos != b.list)
      c.fail("location views that run into their list");
    read_list(c, is_loc, v5, u.addr_size, u.base, &w.entries, &w.exprs);
    if (b.has_views)
      moved_views.add(b.start, o.size());
    uint64_t at = 0;
    write_list(o, w, is_loc, v5, u, b.has_views, name, size_t(b.list), &at);
    moved.add(b.list, at);
  }
  // The range lists of the entries whose code came apart (in a table of
  // their own when the last one does not fit them).
  Table fresh[2][2] = {}; // by address and offset size
  for (Conversion *cv : converted) {
    const Unit &u = units[cv->unit];
    if (v5 && (table == nullptr || table->addr_size != u.addr_size || table->offset_size != u.offset_size)) {
      Table *t = &fresh[u.addr_size == 8][u.offset_size == 8];
      t->addr_size = u.addr_size, t->offset_size = u.offset_size;
      open_table(t);
    }
    w.entries.clear();
    w.exprs.clear();
    for (const Piece &p : cv->pieces)
      w.entries.push_back(Entry{false, p.old_lo, p.old_hi, 0, 0, false, 0, 0});
    uint64_t at = 0;
    write_list(o, w, false, v5, u, false, name, cv->die, &at);
    cv->list_offset = at;
  }
  close_table();
  moved.sort();
  moved_views.sort();
  patch_refs(list_refs, units, v5, moved, name, is_loc ? "a location list" : "a range list");
  if (is_loc)
    patch_refs(refs[REF_VIEWS], units, v5, moved_views, name, "a location view list");
  out->push_back({name, s.present() ? s.type : info.type, o.take()});
}

void DwarfUpdate::rewrite_line() {
  if (!line.present()) {
    if (!refs[REF_LINE].empty())
      error("%s: its DWARF refers to section .debug_line, which it does not have", option.program);
    return;
  }
  lines->collect();
  Moves &moved = line_offsets;
  std::vector<uint8_t> &bytes = line_bytes;
  for (const Ref &r : refs[REF_LINE]) {
    auto it = moved.find(r.value);
    if (it == moved.end())
      error("%s: section %s: a line program at offset %#llx of .debug_line is not where one begins", option.program,
            units[r.unit].sec->name, (unsigned long long)r.value);
    store_sized(r.field, it->second, r.size);
  }
  // A macro unit may name the line program of its unit too.
  for (const Ref &r : refs[REF_MACRO]) {
    if (!macro.present() || r.value >= macro.size)
      error("%s: section %s: a macro unit at offset %#llx lies outside .debug_macro", option.program,
            units[r.unit].sec->name, (unsigned long long)r.value);
    Cur c(macro.in, macro.size, ".debug_macro");
    c.pos = size_t(r.value);
    c.u16();
    uint8_t flags = c.u8();
    if (!(flags & 2))
      continue;
    unsigned offset_size = flags & 1 ? 8 : 4;
    size_t at = c.pos;
    auto it = moved.find(c.sized(offset_size));
    if (it == moved.end())
      c.fail("a macro unit whose line program offset leads to no line program");
    store_sized(macro.out + at, it->second, offset_size);
  }
  rewritten.push_back({".debug_line", line.type, std::move(bytes)});
}

void DwarfUpdate::rewrite_aranges() {
  if (!aranges.present())
    return;
  Out o;
  Cur c(aranges.in, aranges.size, ".debug_aranges");
  while (c.pos < aranges.size) {
    size_t start = c.pos;
    unsigned offset_size = 4;
    uint64_t length = c.length(&offset_size);
    size_t end = c.pos + length;
    uint16_t version = c.u16();
    uint64_t info_offset = c.sized(offset_size);
    uint8_t as = c.u8(), seg = c.u8();
    if (version != 2 || (as != 4 && as != 8) || seg != 0)
      c.fail("an address range table of a version, address or segment size vesk does not know");
    size_t header = c.pos - start, pad = (2 * as - header % (2 * as)) % (2 * as);
    c.skip(pad);
    std::vector<std::pair<uint64_t, uint64_t>> pieces;
    for (;;) {
      if (c.pos >= end)
        c.fail("an address range table without its end");
      uint64_t a = c.sized(as), n = c.sized(as);
      if (a == 0 && n == 0)
        break;
      uint64_t hi = as == 4 ? uint32_t(a + n) : a + n;
      scratch_pieces.clear();
      map_range(a, hi < a ? a : hi, &scratch_pieces);
      for (const Piece &p : scratch_pieces)
        if (p.new_hi > p.new_lo)
          pieces.emplace_back(p.new_lo, p.new_hi);
    }
    std::sort(pieces.begin(), pieces.end());
    size_t at = begin_length(o, offset_size);
    o.u16(2), o.sized(info_offset, offset_size), o.u8(as), o.u8(0);
    o.sized(0, unsigned(pad));
    for (size_t i = 0; i < pieces.size();) {
      uint64_t lo = pieces[i].first, hi = pieces[i].second;
      for (++i; i < pieces.size() && pieces[i].first <= hi; ++i)
        hi = std::max(hi, pieces[i].second);
      o.sized(lo, as), o.sized(hi - lo, as);
    }
    o.sized(0, as), o.sized(0, as);
    end_length(o, at, offset_size, ".debug_aranges");
    c.pos = end;
  }
  rewritten.push_back({".debug_aranges", aranges.type, o.take()});
}

// The form of a filler attribute of n bytes.
uint64_t filler_form(unsigned n) {
  switch (n) {
  case 1: return DW_FORM_data1;
  case 2: return DW_FORM_data2;
  case 4: return DW_FORM_data4;
  case 8: return DW_FORM_data8;
  default: return DW_FORM_block1;
  }
}

void DwarfUpdate::write_abbrevs() {
  if (conversions.empty())
    return;
  Out o;
  o.bytes(abbrev.in, abbrev.size);
  std::map<size_t, std::vector<Conversion *>> by_unit;
  for (Conversion &cv : conversions)
    by_unit[cv.unit].push_back(&cv);
  for (auto &[ui, list] : by_unit) {
    Unit &u = units[ui];
    AbbrevTable t = abbrev_table(u.abbrev_offset);
    t.dense.clear(); // it points into the table copied, which the codes below do not change
    uint64_t next_code = t.order.empty() ? 1 : t.by_code.rbegin()->first + 1;
    std::map<uint64_t, size_t> converted;
    for (Conversion *cv : list)
      ++converted[cv->code];
    std::map<uint64_t, uint64_t> new_code;
    for (auto [code, count] : converted) {
      Abbrev a = t.by_code.at(code);
      unsigned filler = 0;
      for (size_t i = 0; i < a.specs.size(); ++i) {
        if (a.specs[i].attr == DW_AT_identifier_case)
          error("%s: section .debug_abbrev: the abbreviation %llu at offset %#llx has no room for a range list",
                option.program, (unsigned long long)code, (unsigned long long)u.abbrev_offset);
        if (a.specs[i].attr != DW_AT_high_pc)
          continue;
        uint64_t form = u.version >= 4 ? DW_FORM_sec_offset : u.offset_size == 8 ? DW_FORM_data8 : DW_FORM_data4;
        a.specs[i] = {DW_AT_ranges, form, 0};
        uint64_t this_code = code; // a structured binding, which clang's lambdas cannot capture
        const Conversion *one =
            *std::find_if(list.begin(), list.end(), [&](const Conversion *x) { return x->code == this_code; });
        filler = one->high_size - u.offset_size;
        for (Conversion *cv : list)
          if (cv->code == code && cv->high_size - u.offset_size != filler)
            error("%s: section %s: the entries of abbreviation %llu differ in size", option.program, u.sec->name,
                  (unsigned long long)code);
        if (filler != 0)
          a.specs.insert(a.specs.begin() + long(i) + 1, Spec{DW_AT_identifier_case, filler_form(filler), 0});
        break;
      }
      // When every entry of the unit with this code came apart, the code
      // itself changes meaning; else the converted entries get a new code,
      // which must fit where their old one is written.
      uint64_t c = code;
      if (count != u.code_uses(code)) {
        c = next_code++;
        t.order.push_back(c);
      }
      a.code = c;
      t.by_code[c] = a;
      new_code[code] = c;
    }
    uint64_t table_at = o.size();
    for (uint64_t code : t.order) {
      const Abbrev &a = t.by_code.at(code);
      o.uleb(a.code), o.uleb(a.tag), o.u8(a.children);
      for (const Spec &s : a.specs) {
        o.uleb(s.attr), o.uleb(s.form);
        if (s.form == DW_FORM_implicit_const)
          o.sleb(s.implicit);
      }
      o.u8(0), o.u8(0);
    }
    o.u8(0);
    store_sized(u.sec->out + u.abbrev_field, table_at, u.offset_size);
    for (Conversion *cv : list) {
      uint64_t c = new_code.at(cv->code);
      Out code;
      code.uleb(c);
      if (code.size() > cv->code_len)
        error("%s: section %s: the code of the entry at offset %#zx now lies in pieces, and its abbreviation "
              "table has no code left that fits the entry",
              option.program, u.sec->name, cv->die);
      for (size_t i = 0; i < cv->code_len; ++i) // a longer encoding of the same number
        cv->code_field[i] = uint8_t((c >> (7 * i)) & 0x7f) | (i + 1 < cv->code_len ? 0x80 : 0);
      store_sized(cv->high_field, cv->list_offset, u.offset_size);
      unsigned filler = cv->high_size - u.offset_size;
      std::memset(cv->high_field + u.offset_size, 0, filler);
      if (filler_form(filler) == DW_FORM_block1)
        cv->high_field[u.offset_size] = uint8_t(filler - 1);
    }
  }
  rewritten.push_back({".debug_abbrev", abbrev.type, o.take()});
}

// ------------------------------------------------------------ placement

// Puts bytes into section name of the output: where it was when they fit,
// else (or when the section is new) at the end of the file, with the
// section header table behind it.
template <class C> void place_section(const char *name, uint32_t type, std::vector<uint8_t> &bytes) {
  Elf_Scn *scn = find_section_by_name(bin.out_elf, name);
  bool fresh = scn == nullptr;
  if (fresh) {
    uint32_t name_at = add_section_name(bin.out_elf, name);
    scn = elf_newscn(bin.out_elf);
    typename C::Shdr *sh = scn ? C::getshdr(scn) : nullptr;
    Elf_Data *d = scn ? elf_newdata(scn) : nullptr;
    if (sh == nullptr || d == nullptr) {
      print_elf_error(option.program);
      error("cannot add section %s to %s", name, option.output);
    }
    *sh = typename C::Shdr{};
    sh->sh_name = name_at;
    sh->sh_type = type;
    sh->sh_addralign = 1;
    d->d_type = ELF_T_BYTE;
    d->d_align = 1;
    d->d_off = 0;
    d->d_version = EV_CURRENT;
  }
  typename C::Shdr *sh = C::getshdr(scn);
  Elf_Data *d = elf_getdata(scn, nullptr);
  typename C::Ehdr *eh = C::getehdr(bin.out_elf);
  if (sh == nullptr || d == nullptr || eh == nullptr) {
    print_elf_error(option.program);
    error("cannot write section %s of %s", name, option.output);
  }
  std::vector<uint8_t> &buf = bin.out_buffers.emplace_back(std::move(bytes));
  bool at_end = fresh || buf.size() > sh->sh_size;
  if (at_end) {
    sh->sh_size = 0; // its old place no longer counts
    uint64_t align = sh->sh_addralign;
    if (align == 0 || (align & (align - 1)) != 0 || align > 64)
      align = 8; // debug sections ask for 1; anything odd gets a plain word boundary
    sh->sh_offset = round_up(find_end_of_elf(bin.out_elf), align);
  }
  d->d_buf = buf.data();
  d->d_size = buf.size();
  sh->sh_size = buf.size();
  if (at_end)
    eh->e_shoff = round_up(uint64_t(sh->sh_offset) + buf.size(), C::is_64 ? 8 : 4);
}

// The relocations that the link kept (-Wl,-q) for the debug sections
// describe their old contents; a reader that applies them (libdwarf does,
// unless told not to) would add the addresses a second time or write into
// rewritten bytes.  They are emptied.
template <class C> void drop_debug_relocations() {
  static const char *const kTouched[] = {".debug_info",    ".debug_types", ".debug_abbrev", ".debug_line",
                                         ".debug_aranges", ".debug_rnglists", ".debug_ranges", ".debug_loclists",
                                         ".debug_loc",     ".debug_macro", ".debug_frame"};
  for (size_t i = 1;; ++i) {
    Elf_Scn *scn = elf_getscn(bin.out_elf, i);
    if (scn == nullptr)
      break;
    typename C::Shdr *sh = C::getshdr(scn);
    if (sh == nullptr || (sh->sh_type != SHT_REL && sh->sh_type != SHT_RELA) || (sh->sh_flags & SHF_ALLOC) ||
        sh->sh_info == 0)
      continue;
    Elf_Scn *target = elf_getscn(bin.out_elf, sh->sh_info);
    const char *name = target ? section_name_of(target) : nullptr;
    if (name == nullptr ||
        std::none_of(std::begin(kTouched), std::end(kTouched), [&](const char *t) { return std::strcmp(t, name) == 0; }))
      continue;
    sh->sh_size = 0;
    if (Elf_Data *d = elf_getdata(scn, nullptr))
      d->d_size = 0;
  }
  elf_errno();
}

bool DwarfUpdate::begin(bool quiet) {
  bool ok = true;
  info = dwarf_section(".debug_info", quiet, &ok);
  types = dwarf_section(".debug_types", quiet, &ok);
  if (!ok || (!info.present() && !types.present()))
    return false;
  abbrev = dwarf_section(".debug_abbrev", quiet, &ok);
  line = dwarf_section(".debug_line", quiet, &ok);
  aranges = dwarf_section(".debug_aranges", quiet, &ok);
  rnglists = dwarf_section(".debug_rnglists", quiet, &ok);
  ranges = dwarf_section(".debug_ranges", quiet, &ok);
  loclists = dwarf_section(".debug_loclists", quiet, &ok);
  loc = dwarf_section(".debug_loc", quiet, &ok);
  macro = dwarf_section(".debug_macro", quiet, &ok);
  if (!ok)
    return false;
  entries = std::make_unique<Background>([this] { read_entries(); });
  return true;
}

void DwarfUpdate::follow_layout() {
  following = true;
  find_breaks();
  // Queued behind the reading of the entries, whose references they
  // follow.
  for (bool v5 : {false, true})
    loc_lists[v5] = std::make_unique<Background>([this, v5] {
      rewrite_lists(true, v5, loc_scratch, &loc_rewritten[v5]);
      const Sec &s = v5 ? loclists : loc;
      release_input_pages(s.in, s.size);
    });
}

void DwarfUpdate::read_entries() {
  if (info.present())
    read_units(info);
  if (types.present())
    read_units(types);
  // Each input section is dropped from memory once it has been read: the
  // rewritten sections and the patched copies take its place.
  DropBehind info_read(info.in, info.size);
  for (size_t i = 0; i < units.size(); ++i) {
    read_unit(i);
    if (units[i].sec == &info)
      info_read.reached(units[i].end);
  }
  views_of.seal();
  release_input_pages(info.in, info.size);
  release_input_pages(types.in, types.size);
}

void DwarfUpdate::finish() {
  if (!following)
    follow_layout();
  // Of the input, only the lists and line programs are read from here on,
  // once each.
  release_input_pages();
  if (line.present())
    lines = std::make_unique<Background>(Background::Now{}, [this] {
      line_bytes = rewrite_line_programs(line.in, line.size, bin.is_elf32 ? 4 : 8, &line_offsets);
      release_input_pages(line.in, line.size);
    });
  // The patching goes through what the reading found before it failed, if
  // it did: an entry that could not keep its range, in front of the one
  // that failed, is reported first.
  entries->wait();
  patch_entries();
  entries->collect();
  for (bool v5 : {false, true}) {
    rewrite_lists(false, v5, range_scratch, &rewritten);
    const Sec &s = v5 ? rnglists : ranges;
    release_input_pages(s.in, s.size);
    loc_lists[v5]->collect();
    for (Rewritten &r : loc_rewritten[v5])
      rewritten.push_back(std::move(r));
  }
  write_abbrevs();
  rewrite_line();
  rewrite_aranges();
  for (Rewritten &r : rewritten)
    bin.is_elf32 ? place_section<Elf32Class>(r.name, r.type, r.bytes)
                 : place_section<Elf64Class>(r.name, r.type, r.bytes);
  bin.is_elf32 ? drop_debug_relocations<Elf32Class>() : drop_debug_relocations<Elf64Class>();
}

} // namespace

bool dwarf_follows_layout() {
  if (bin.debug_kind != DEBUG_DWARF)
    return false;
  xlate::XlateTable t;
  return !open_input_xlate(&t) || (t.info.flag_b & xlate::XLATE_FLAG_DWARF_UPDATED) != 0;
}

namespace {

// An update begun before the layout, finished in its turn.  The layout's
// breaks hold for this run only: forgotten once the update's work is over.
struct Begun {
  std::unique_ptr<DwarfUpdate> update = std::make_unique<DwarfUpdate>();
  Begun() = default;
  ~Begun() {
    update.reset();
    breaks = Breaks{};
  }
  Begun(const Begun &) = delete;
  Begun &operator=(const Begun &) = delete;
};

} // namespace

void start_dwarf_update() {
  if (bin.debug_kind != DEBUG_DWARF)
    return;
  // A table that cannot be read is reported in the update's turn.
  if (bin.in_xlate != nullptr) {
    xlate::XlateTable t;
    if (xlate::xlate_open_xtnd(bin.in_xlate, bin.in_xlate_size, &t) != xlate::XLATE_OK ||
        (t.info.flag_b & xlate::XLATE_FLAG_DWARF_UPDATED) == 0)
      return;
  }
  auto begun = std::make_shared<Begun>();
  if (begun->update->begin(true))
    bin.dwarf_update = begun;
}

void continue_dwarf_update() {
  if (bin.dwarf_update != nullptr)
    std::static_pointer_cast<Begun>(bin.dwarf_update)->update->follow_layout();
}

void update_dwarf() {
  auto begun = std::static_pointer_cast<Begun>(std::move(bin.dwarf_update));
  bin.dwarf_update.reset();
  if (begun == nullptr) {
    if (!dwarf_follows_layout())
      return;
    begun = std::make_shared<Begun>();
    if (!begun->update->begin(false))
      return;
  }
  begun->update->finish();
}

} // namespace vesk
