#include "com/dwarf_scan.h"

#include <algorithm>
#include <cstring>
#include <dwarf.h>
#include <gelf.h>
#include <unordered_map>

#include "base/bytes.h"
#include "com/elf.h"

namespace vesk {

void KeptFacts::unit(const char *raw_name) { items.push_back({false, raw_name, {}, 0, 0}); }

void KeptFacts::entry(const EntryFacts &f, const std::vector<CodeRange> &r) {
  items.push_back({true, nullptr, f, ranges.size(), r.size()});
  ranges.insert(ranges.end(), r.begin(), r.end());
}

void KeptFacts::replay(FactSink &sink) const {
  std::vector<CodeRange> r;
  for (const Item &i : items)
    if (i.is_entry) {
      r.assign(ranges.begin() + ptrdiff_t(i.first_range), ranges.begin() + ptrdiff_t(i.first_range + i.n_ranges));
      sink.entry(i.facts, r);
    } else {
      sink.unit(i.unit_name);
    }
}

unsigned discovery_attr(uint64_t attr) {
  switch (attr) {
  case DW_AT_name: return ATTR_NAME;
  case DW_AT_low_pc: return ATTR_LOW_PC;
  case DW_AT_high_pc: return ATTR_HIGH_PC;
  case DW_AT_ranges: return ATTR_RANGES;
  case DW_AT_entry_pc: return ATTR_ENTRY_PC;
  case DW_AT_abstract_origin: return ATTR_ORIGIN;
  case DW_AT_inline: return ATTR_INLINE;
  case 0x2009: return ATTR_ABSTRACT_NAME;
  case DW_AT_specification: return ATTR_SPECIFICATION;
  case DW_AT_declaration: return ATTR_DECLARATION;
  case DW_AT_sibling: return ATTR_SIBLING;
  default: return ATTR_NONE;
  }
}

namespace {

bool scanner_in_use = true;

// A section's bytes in the input's image; none when it has none there.
struct Bytes {
  const uint8_t *p = nullptr;
  uint64_t size = 0;
  bool ends_in_nul = false; // every string in it ends inside it
};

// Reads [0, end) of p.  A read past the end reads nothing and marks the
// reader bad: the unit then goes to the library, whose message is the
// run's.
struct Reader {
  const uint8_t *p;
  uint64_t pos, end;
  bool bad = false;

  bool have(uint64_t n) {
    if (n <= end - pos)
      return true;
    bad = true;
    pos = end;
    return false;
  }
  uint64_t u(unsigned n) {
    if (!have(n))
      return 0;
    uint64_t v = 0;
    for (unsigned i = 0; i < n; ++i)
      v = v << 8 | p[pos + i];
    pos += n;
    return v;
  }
  uint8_t u8() { return have(1) ? p[pos++] : 0; }
  uint64_t uleb() {
    uint64_t v = 0;
    for (unsigned shift = 0;; shift += 7) {
      if (pos >= end || shift > 63) {
        bad = true;
        pos = end;
        return 0;
      }
      uint8_t b = p[pos++];
      v |= uint64_t(b & 0x7f) << shift;
      if (!(b & 0x80))
        return v;
    }
  }
  // The library reads at most ten bytes of a LEB128 number: a longer one
  // is left to it.
  void skip_uleb() {
    for (unsigned n = 0; pos < end && n < 10; ++n)
      if (!(p[pos++] & 0x80))
        return;
    bad = true;
    pos = end;
  }
  void skip(uint64_t n) {
    if (have(n))
      pos += n;
  }
  // The value of a form whose size varies.
  void skip_varying(uint64_t form) {
    switch (form) {
    case DW_FORM_string:
      while (pos < end && p[pos] != 0)
        ++pos;
      skip(1);
      break;
    case DW_FORM_block1: skip(u(1)); break;
    case DW_FORM_block2: skip(u(2)); break;
    case DW_FORM_block4: skip(u(4)); break;
    case DW_FORM_block: case DW_FORM_exprloc: skip(uleb()); break;
    default: skip_uleb(); // the forms of a LEB128 number
    }
  }
};

struct Spec {
  uint32_t form;
  uint8_t want;
  int8_t size; // in the table's shape of unit; -1 when it varies
  int64_t implicit;
};

// An abbreviation, with the size of its attributes when every form has
// a fixed size in the unit (most entries are skipped in one step).
struct Abbrev {
  uint64_t tag = 0;
  bool children = false;
  uint32_t first = 0, count = 0; // its specs
  int64_t fixed = -1;
  int64_t sibling_at = -1; // where the first DW_AT_sibling lies, when fixed
  uint32_t sibling_form = 0;
};

// The shape of a unit that decides the sizes of forms.
struct UnitShape {
  unsigned version = 0, addr_size = 0, offset_size = 0;
  bool operator==(const UnitShape &) const = default;
};

// The size of form in a unit of shape u: -1 when it varies, -2 when the
// scanner does not know the form.
int form_size(uint64_t form, const UnitShape &u) {
  switch (form) {
  case DW_FORM_addr: return int(u.addr_size);
  case DW_FORM_data1: case DW_FORM_ref1: case DW_FORM_flag: case DW_FORM_strx1: case DW_FORM_addrx1: return 1;
  case DW_FORM_data2: case DW_FORM_ref2: case DW_FORM_strx2: case DW_FORM_addrx2: return 2;
  case DW_FORM_strx3: case DW_FORM_addrx3: return 3;
  case DW_FORM_data4: case DW_FORM_ref4: case DW_FORM_strx4: case DW_FORM_addrx4: case DW_FORM_ref_sup4: return 4;
  case DW_FORM_data8: case DW_FORM_ref8: case DW_FORM_ref_sig8: case DW_FORM_ref_sup8: return 8;
  case DW_FORM_data16: return 16;
  case DW_FORM_flag_present: case DW_FORM_implicit_const: return 0;
  case DW_FORM_strp: case DW_FORM_line_strp: case DW_FORM_sec_offset: case DW_FORM_strp_sup:
  case DW_FORM_GNU_ref_alt: case DW_FORM_GNU_strp_alt:
    return int(u.offset_size);
  case DW_FORM_ref_addr: return int(u.version <= 2 ? u.addr_size : u.offset_size);
  case DW_FORM_udata: case DW_FORM_sdata: case DW_FORM_ref_udata: case DW_FORM_strx: case DW_FORM_addrx:
  case DW_FORM_GNU_addr_index: case DW_FORM_GNU_str_index: case DW_FORM_loclistx: case DW_FORM_rnglistx:
  case DW_FORM_string: case DW_FORM_block1: case DW_FORM_block2: case DW_FORM_block4: case DW_FORM_block:
  case DW_FORM_exprloc:
    return -1;
  default: return -2; // DW_FORM_indirect among them
  }
}

// An abbreviation table read for units of one shape; bad when it is
// damaged or holds what the scanner does not read.
struct Table {
  uint64_t offset = 0;
  UnitShape shape;
  bool ready = false;
  bool bad = false;
  // By code: the low codes (those a compiler gives) in an array no
  // larger than a few times their number, any others in a map.
  std::vector<Abbrev> dense;
  std::unordered_map<uint64_t, Abbrev> sparse;
  std::vector<Spec> specs;

  const Abbrev *find(uint64_t code) const {
    if (code < dense.size())
      return dense[code].tag != 0 ? &dense[code] : nullptr; // no abbreviation has tag 0
    auto it = sparse.find(code);
    return it == sparse.end() ? nullptr : &it->second;
  }

  uint64_t bytes_read = 0;

  void read(const Bytes &abbrev) {
    bad = !read_all(abbrev) || !index();
  }

private:
  std::vector<std::pair<uint64_t, Abbrev>> all;

  bool read_all(const Bytes &abbrev) {
    if (offset >= abbrev.size)
      return false;
    Reader r{abbrev.p, offset, abbrev.size};
    for (;; bytes_read = r.pos - offset) {
      uint64_t code = r.uleb();
      if (r.bad)
        return false;
      if (code == 0)
        return true;
      Abbrev a;
      a.tag = r.uleb();
      uint8_t children = r.u8();
      if (children > 1 || a.tag == 0) // a tag of 0 would read as no abbreviation
        return false;
      a.children = children == 1;
      a.first = uint32_t(specs.size());
      int64_t fixed = 0;
      for (;;) {
        uint64_t attr = r.uleb(), form = r.uleb();
        if (r.bad)
          break;
        if (attr == 0 && form == 0)
          break;
        int size = form_size(form, shape);
        if (size == -2 || form > UINT32_MAX) {
          r.bad = true;
          break;
        }
        Spec s{uint32_t(form), uint8_t(discovery_attr(attr)), int8_t(size), 0};
        if (form == DW_FORM_implicit_const)
          s.implicit = sleb(r);
        if (s.want == ATTR_SIBLING && a.sibling_at < 0 && fixed >= 0)
          a.sibling_at = fixed, a.sibling_form = s.form;
        fixed = size < 0 || fixed < 0 ? -1 : fixed + size;
        specs.push_back(s);
      }
      if (r.bad)
        return false;
      a.count = uint32_t(specs.size()) - a.first;
      a.fixed = fixed;
      if (a.fixed < 0)
        a.sibling_at = -1;
      all.emplace_back(code, a);
    }
  }

  // False when a code is given twice: the library would take one of the two.
  bool index() {
    uint64_t dense_size = 0;
    for (const auto &[code, a] : all)
      if (code < 2 * all.size() + 64)
        dense_size = std::max(dense_size, code + 1);
    dense.assign(dense_size, Abbrev{});
    for (const auto &[code, a] : all) {
      if (find(code) != nullptr)
        return false;
      if (code < dense_size)
        dense[code] = a;
      else
        sparse.emplace(code, a);
    }
    all = {};
    return true;
  }
  static int64_t sleb(Reader &r) {
    int64_t v = 0;
    unsigned shift = 0;
    uint8_t b;
    do {
      if (r.pos >= r.end || shift > 56) { // past nine bytes the library's value differs
        r.bad = true;
        return 0;
      }
      b = r.p[r.pos++];
      v |= int64_t(uint64_t(b & 0x7f) << shift);
      shift += 7;
    } while (b & 0x80);
    if (shift < 64 && (b & 0x40))
      v |= int64_t(~uint64_t(0) << shift);
    return v;
  }
};

bool is_ref_form(uint64_t form) {
  return form == DW_FORM_ref1 || form == DW_FORM_ref2 || form == DW_FORM_ref4 || form == DW_FORM_ref8 ||
         form == DW_FORM_ref_udata;
}

// A constant that the library reads as unsigned without a question.
bool is_plain_constant(uint64_t form) {
  return form == DW_FORM_data1 || form == DW_FORM_data2 || form == DW_FORM_data4 || form == DW_FORM_data8 ||
         form == DW_FORM_udata;
}

} // namespace

struct UnitScanner::State {
  LibraryVisit by_library;
  Bytes info, abbrev, str, line_str;
  bool usable = false;
  Table table_; // the last unit's: a compiler gives each unit its own
  // What is left to read of abbreviations: units that take turns with
  // tables, or tables that overlap, would have them read again and again.
  uint64_t abbrev_budget = 0;

  // The unit being scanned.
  UnitShape shape;
  uint64_t at = 0, end = 0;
  // Its entries, in the order they lie.
  struct Node {
    uint64_t offset;
    const Abbrev *abbrev;
    int32_t first_child = -1, next_sibling = -1;
    int32_t depth;
    int32_t sub = -1; // its subprogram's facts
  };
  std::vector<Node> nodes;
  // Where each entry of the unit starts, a bit for each byte.
  std::vector<uint64_t> starts;
  // A subprogram entry's place of each attribute discovery reads.
  struct Found {
    uint32_t form;
    int64_t implicit;
    uint64_t pos;
  };
  struct Sub {
    bool library = false;     // only the library reads it in full
    bool declaration = false; // no code and no children to walk
    bool origin_to_check = false;
    EntryFacts f;
  };
  std::vector<Sub> subs;
  const char *unit_name = nullptr;
  KeptFacts kept;
  std::vector<CodeRange> one_range;
  std::vector<std::pair<int32_t, int32_t>> stack;

  const Table &table(uint64_t offset) {
    if (!table_.ready || table_.offset != offset || !(table_.shape == shape)) {
      table_ = Table{};
      table_.offset = offset;
      table_.shape = shape;
      table_.ready = true;
      table_.read(abbrev);
      if (table_.bytes_read > abbrev_budget)
        usable = false, table_.bad = true; // the library reads the rest
      else
        abbrev_budget -= table_.bytes_read;
    }
    return table_;
  }

  bool start_at(uint64_t off) const {
    return off >= at && off < end && (starts[(off - at) / 64] >> ((off - at) % 64)) & 1;
  }

  // A string of form at pos, as the library gives it; null when only the
  // library can read it.
  const char *string_at(uint32_t form, uint64_t pos) const {
    if (form == DW_FORM_string)
      return reinterpret_cast<const char *>(info.p + pos); // its end was found in the scan
    const Bytes *sec = form == DW_FORM_strp ? &str : form == DW_FORM_line_strp ? &line_str : nullptr;
    if (sec == nullptr || sec->p == nullptr)
      return nullptr;
    uint64_t off = load_sized(pos, shape.offset_size);
    if (off >= sec->size || (!sec->ends_in_nul && std::memchr(sec->p + off, 0, sec->size - off) == nullptr))
      return nullptr;
    return reinterpret_cast<const char *>(sec->p + off);
  }

  uint64_t load_sized(uint64_t pos, unsigned n) const {
    uint64_t v = 0;
    for (unsigned i = 0; i < n; ++i)
      v = v << 8 | info.p[pos + i];
    return v;
  }

  // The unsigned value of a constant or reference form at pos.
  uint64_t value_at(const Found &x) const {
    if (x.form == DW_FORM_udata || x.form == DW_FORM_ref_udata) {
      Reader r{info.p, x.pos, end};
      return r.uleb();
    }
    if (x.form == DW_FORM_implicit_const)
      return uint64_t(x.implicit);
    return load_sized(x.pos, unsigned(form_size(x.form, shape)));
  }

  // Reads the facts of a subprogram entry from the places of its
  // attributes, as the library's reading would give them.
  void read_subprogram(uint64_t offset, const Found *where, unsigned present, Sub &s) {
    auto has = [&](unsigned k) { return (present >> k) & 1; };
    EntryFacts &f = s.f;
    f.offset = offset;
    if (has(ATTR_NAME) && (f.raw_name = string_at(where[ATTR_NAME].form, where[ATTR_NAME].pos)) == nullptr)
      s.library = true;
    if (has(ATTR_HIGH_PC)) {
      uint32_t form = where[ATTR_HIGH_PC].form;
      if (form != DW_FORM_addr && !is_plain_constant(form))
        s.library = true;
      f.pc.have_high = true;
      uint64_t value = s.library ? 0 : value_at(where[ATTR_HIGH_PC]);
      if (has(ATTR_LOW_PC)) {
        if (where[ATTR_LOW_PC].form != DW_FORM_addr)
          s.library = true;
        else
          f.pc.low = value_at(where[ATTR_LOW_PC]);
        f.pc.have_low = true;
      }
      f.pc.high = form == DW_FORM_addr ? value : f.pc.low + value;
    } else {
      f.pc.declaration = has(ATTR_DECLARATION);
      s.declaration = f.pc.declaration;
      if (s.declaration)
        return; // the library reads no further either
      if (has(ATTR_RANGES))
        s.library = true;
    }
    if (has(ATTR_ORIGIN)) {
      if (!is_ref_form(where[ATTR_ORIGIN].form)) {
        s.library = true;
      } else {
        f.have_origin = true;
        f.origin = at + value_at(where[ATTR_ORIGIN]);
        s.origin_to_check = true; // once the unit's entries are known
      }
    }
    if (has(ATTR_INLINE)) {
      uint32_t form = where[ATTR_INLINE].form;
      if (is_plain_constant(form) || form == DW_FORM_implicit_const)
        f.inlined = value_at(where[ATTR_INLINE]) != DW_INL_not_inlined;
      else
        s.library = true;
    }
    if (has(ATTR_ABSTRACT_NAME)) {
      f.raw_linkage_name = string_at(where[ATTR_ABSTRACT_NAME].form, where[ATTR_ABSTRACT_NAME].pos);
      s.library = s.library || f.raw_linkage_name == nullptr;
    }
    f.specification = has(ATTR_SPECIFICATION);
  }

  // Reads the unit's entries in the order they lie; false when the
  // library must.
  bool read_entries(uint64_t first) {
    nodes.clear();
    subs.clear();
    unit_name = nullptr;
    starts.assign((end - at + 63) / 64, 0);
    const Table *t = nullptr;
    {
      // The header, as far as the sizes of forms need it.
      Reader h{info.p, at, end};
      uint64_t length = h.u(4);
      shape.offset_size = 4;
      if (length == 0xffffffff)
        h.u(8), shape.offset_size = 8;
      shape.version = unsigned(h.u(2));
      uint64_t abbrev_offset;
      if (shape.version == 5) {
        uint8_t type = h.u8();
        shape.addr_size = h.u8();
        abbrev_offset = h.u(shape.offset_size);
        if (type != DW_UT_compile && type != DW_UT_partial)
          return false;
      } else if (shape.version >= 2 && shape.version <= 4) {
        abbrev_offset = h.u(shape.offset_size);
        shape.addr_size = h.u8();
      } else {
        return false;
      }
      if (h.bad || h.pos != first || (shape.addr_size != 4 && shape.addr_size != 8))
        return false;
      t = &table(abbrev_offset);
      if (t->bad)
        return false;
    }
    Reader r{info.p, first, end};
    // The entries whose children are being read, and for each the place
    // its DW_AT_sibling says its sibling lies (0: none).
    struct Open {
      int32_t node, last_child;
      uint64_t sibling;
    };
    std::vector<Open> open;
    Found found[ATTR_COUNT];
    do {
      uint64_t offset = r.pos;
      uint64_t code = r.uleb();
      if (r.bad)
        return false;
      if (code == 0) {
        // No entry where the unit's first should be, or an end of a list
        // written in more than the zero byte that the library takes for one.
        if (open.empty() || r.pos != offset + 1)
          return false;
        Open o = open.back();
        open.pop_back();
        if (o.sibling != 0 && o.sibling != r.pos - at)
          return false;
        continue;
      }
      const Abbrev *a = t->find(code);
      if (a == nullptr)
        return false;
      int32_t index = int32_t(nodes.size());
      if (nodes.size() >= INT32_MAX)
        return false;
      Node n{offset, a, -1, -1, int32_t(open.size()), -1};
      if (!open.empty()) {
        Open &o = open.back();
        if (o.last_child < 0)
          nodes[size_t(o.node)].first_child = index;
        else
          nodes[size_t(o.last_child)].next_sibling = index;
        o.last_child = index;
      }
      starts[(offset - at) / 64] |= uint64_t(1) << ((offset - at) % 64);
      uint64_t sibling = 0;
      bool subprogram = a->tag == DW_TAG_subprogram;
      // The unit's own entry is read in full: its name files the unit.
      if (a->fixed >= 0 && !subprogram && index != 0) {
        uint64_t attrs = r.pos;
        r.skip(uint64_t(a->fixed));
        if (r.bad)
          return false;
        if (a->sibling_at >= 0) {
          Found x{a->sibling_form, 0, attrs + uint64_t(a->sibling_at)};
          if (!is_ref_form(x.form))
            return false;
          sibling = value_at(x);
          if (sibling == 0)
            return false;
        }
      } else {
        unsigned present = 0;
        const Spec *spec = t->specs.data() + a->first;
        for (uint32_t i = 0; i < a->count; ++i, ++spec) {
          uint64_t pos = r.pos;
          uint32_t form = spec->form;
          if (spec->size >= 0)
            r.skip(uint64_t(spec->size));
          else
            r.skip_varying(form);
          if (r.bad)
            return false;
          unsigned k = spec->want;
          if (k != ATTR_NONE && !((present >> k) & 1)) {
            present |= 1u << k;
            found[k] = {form, spec->implicit, pos};
          }
        }
        if ((present >> ATTR_SIBLING) & 1) {
          if (!is_ref_form(found[ATTR_SIBLING].form))
            return false;
          sibling = value_at(found[ATTR_SIBLING]);
          if (sibling == 0)
            return false;
        }
        if (subprogram) {
          n.sub = int32_t(subs.size());
          subs.emplace_back();
          read_subprogram(offset, found, present, subs.back());
        }
        if (index == 0 && ((present >> ATTR_NAME) & 1)) {
          unit_name = string_at(found[ATTR_NAME].form, found[ATTR_NAME].pos);
          if (unit_name == nullptr)
            return false;
        }
      }
      nodes.push_back(n);
      if (a->children)
        open.push_back({index, -1, sibling});
      else if (sibling != 0 && sibling != r.pos - at)
        return false;
    } while (!open.empty());
    // What the library walks of the unit ends here; any bytes behind are
    // none of discovery's business.
    for (Sub &s : subs)
      if (s.origin_to_check && !start_at(s.f.origin))
        s.library = true;
    return true;
  }

  // Walks the entries as the library's walk does (all later siblings of an
  // entry before its children, the children of a later sibling before those
  // of an earlier one) into kept; false when the library must.
  bool walk() {
    kept.clear();
    kept.unit(unit_name);
    stack.clear();
    auto visit_chain = [&](int32_t i, bool last) {
      for (; i >= 0; i = nodes[size_t(i)].next_sibling) {
        const Node &n = nodes[size_t(i)];
        if (n.depth > kMaxEntryDepth)
          return false;
        bool walk_children = true;
        if (n.sub >= 0) {
          const Sub &s = subs[size_t(n.sub)];
          if (s.library) {
            int res = by_library(n.offset, n.abbrev->tag, kept);
            if (res < 0)
              return false;
            walk_children = res > 0;
          } else if (s.declaration) {
            walk_children = false;
          } else {
            one_range.clear();
            if (s.f.pc.have_high)
              one_range.push_back({s.f.pc.low, s.f.pc.high});
            kept.entry(s.f, one_range);
          }
        }
        uint64_t tag = n.abbrev->tag;
        if (walk_children && tag != DW_TAG_call_site && tag != DW_TAG_GNU_call_site)
          stack.push_back({i, n.depth});
        if (last)
          break;
      }
      return true;
    };
    if (!visit_chain(0, true))
      return false;
    while (!stack.empty()) {
      auto [i, depth] = stack.back();
      stack.pop_back();
      if (nodes[size_t(i)].first_child >= 0 && !visit_chain(nodes[size_t(i)].first_child, false))
        return false;
    }
    return true;
  }
};

UnitScanner::UnitScanner(Elf *elf, LibraryVisit by_library) : s(std::make_unique<State>()) {
  s->by_library = std::move(by_library);
  size_t image_size = 0;
  const uint8_t *image = reinterpret_cast<const uint8_t *>(elf_rawfile(elf, &image_size));
  elf_errno();
  auto bytes = [&](const char *name, Bytes *out) {
    Elf_Scn *scn = gelf_getclass(elf) == ELFCLASS64 ? find_section_by_name64(elf, name)
                                                    : find_section_by_name32(elf, name);
    GElf_Shdr sh;
    if (scn == nullptr || gelf_getshdr(scn, &sh) == nullptr)
      return true; // none: a form that reads it goes to the library
    if (image == nullptr || sh.sh_type == SHT_NOBITS || (sh.sh_flags & SHF_COMPRESSED) || sh.sh_offset > image_size ||
        sh.sh_size > image_size - sh.sh_offset)
      return false;
    *out = {image + sh.sh_offset, sh.sh_size, sh.sh_size != 0 && image[sh.sh_offset + sh.sh_size - 1] == 0};
    return true;
  };
  s->usable = scanner_in_use && bytes(".debug_info", &s->info) && bytes(".debug_abbrev", &s->abbrev) &&
              bytes(".debug_str", &s->str) && bytes(".debug_line_str", &s->line_str) && s->info.p != nullptr &&
              s->abbrev.p != nullptr;
  s->abbrev_budget = 4 * s->abbrev.size + (uint64_t(1) << 20);
}

UnitScanner::~UnitScanner() = default;

void UnitScanner::use(bool yes) { scanner_in_use = yes; }

bool UnitScanner::scan(uint64_t at, uint64_t next, size_t header_size, FactSink &sink) {
  State &st = *s;
  if (!st.usable || at >= st.info.size || header_size > st.info.size - at)
    return false;
  st.at = at;
  st.end = std::min(next, st.info.size);
  if (at + header_size >= st.end || !st.read_entries(at + header_size) || !st.walk())
    return false;
  st.kept.replay(sink);
  return true;
}

} // namespace vesk
