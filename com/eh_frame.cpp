// The unwind tables follow the code.
//
// An FDE names the code it describes by its initial location; the unwinder
// (libgcc's, for C++ exceptions, pthread_cancel and backtrace) looks the
// return address of each frame up in .eh_frame_hdr's table, which must be
// sorted by that location, and then in the FDE.  The CFA instructions
// count from the initial location, and the call sites of the function's
// exception table count from it too, as do its landing pads unless the
// table names their base itself: all of that stays right as long as the
// code of one FDE moves as one piece, which the planning makes sure of (it
// ties the procedures one FDE covers) and the update checks.  Personality
// and LSDA pointers lead to data, which does not move.
#include "com/eh_frame.h"

#include <algorithm>
#include <cstring>
#include <gelf.h>
#include <map>
#include <memory>
#include <string>

#include "base/background.h"
#include "base/bin.h"
#include "base/bytes.h"
#include "base/diag.h"
#include "base/options.h"
#include "com/elf.h"
#include "com/update.h"

namespace vesk {

void SectionCursor::fail(const char *what) const {
  error("%s: section %s is damaged: %s at offset %#zx", option.program, section_, what, pos);
}

int64_t SectionCursor::sleb() {
  uint64_t v = 0;
  unsigned shift = 0;
  uint8_t b;
  do {
    b = u8();
    if (shift < 64)
      v |= uint64_t(b & 0x7f) << shift;
    shift += 7;
  } while (b & 0x80);
  if (shift < 64 && (b & 0x40))
    v |= ~uint64_t(0) << shift;
  return int64_t(v);
}

namespace {

uint64_t truncate(uint64_t v, unsigned addr_size) { return addr_size == 4 ? uint32_t(v) : v; }

// Where a relative value counts from; null when the encoding names a base
// this code does not know.
bool base_of(uint8_t enc, uint64_t field_addr, uint64_t data_base, uint64_t func_base, uint64_t *base) {
  switch (enc & 0x70) {
  case EH_PE_absptr: *base = 0; return true;
  case EH_PE_pcrel: *base = field_addr; return true;
  // libgcc gives MIPS no text or data base of its own: both count from 0
  // there, except in .eh_frame_hdr, whose caller passes the table's address.
  case EH_PE_textrel: *base = 0; return true;
  case EH_PE_datarel: *base = data_base; return true;
  case EH_PE_funcrel: *base = func_base; return true;
  default: return false;
  }
}

} // namespace

uint64_t SectionCursor::pointer(uint8_t enc, unsigned addr_size, uint64_t data_base, uint64_t func_base) {
  if (enc == EH_PE_omit)
    return 0;
  if ((enc & 0x70) == EH_PE_aligned) {
    size_t mis = (addr_ + pos) % addr_size;
    skip(mis ? addr_size - mis : 0);
    return addr_size == 4 ? u32() : u64();
  }
  uint64_t field = addr_ + pos, base = 0;
  if (!base_of(enc, field, data_base, func_base, &base))
    fail("a pointer encoding it does not know");
  uint64_t v;
  switch (enc & 0x0f) {
  case EH_PE_absptr: v = addr_size == 4 ? u32() : u64(); break;
  case EH_PE_uleb128: v = uleb(); break;
  case EH_PE_udata2: v = u16(); break;
  case EH_PE_udata4: v = u32(); break;
  case EH_PE_udata8: v = u64(); break;
  case EH_PE_sleb128: v = uint64_t(sleb()); break;
  case EH_PE_sdata2: v = uint64_t(int64_t(int16_t(u16()))); break;
  case EH_PE_sdata4: v = sign_extend32(u32()); break;
  case EH_PE_sdata8: v = u64(); break;
  default: fail("a pointer encoding it does not know");
  }
  return truncate(base + v, addr_size);
}

bool store_eh_pointer(uint8_t *p, size_t len, uint8_t enc, unsigned addr_size, uint64_t field_addr,
                      uint64_t value, uint64_t data_base) {
  uint64_t base = 0;
  if ((enc & 0x70) == EH_PE_aligned) {
    if (len < addr_size)
      return false;
    p += len - addr_size, len = addr_size, enc = EH_PE_absptr;
  } else if (!base_of(enc, field_addr, data_base, 0, &base) || (enc & 0x70) == EH_PE_funcrel) {
    return false;
  }
  uint64_t v = truncate(value - base, addr_size);
  // A 32-bit address space wraps: a 4-byte field holds any difference.
  int64_t sv = addr_size == 4 ? int64_t(int32_t(uint32_t(v))) : int64_t(v);
  switch (enc & 0x0f) {
  case EH_PE_absptr:
    if (len != addr_size)
      return false;
    addr_size == 4 ? store32(p, uint32_t(v)) : store64(p, v);
    return true;
  case EH_PE_udata2:
    if (len != 2 || v > 0xffff)
      return false;
    store16(p, uint16_t(v));
    return true;
  case EH_PE_sdata2:
    if (len != 2 || sv < -0x8000 || sv > 0x7fff)
      return false;
    store16(p, uint16_t(sv));
    return true;
  case EH_PE_udata4:
  case EH_PE_sdata4:
    if (len != 4 || (addr_size == 8 && ((enc & 0x0f) == EH_PE_udata4 ? v > 0xffffffffu : sv != int32_t(sv))))
      return false;
    store32(p, uint32_t(v));
    return true;
  case EH_PE_udata8:
  case EH_PE_sdata8:
    if (len != 8)
      return false;
    store64(p, addr_size == 4 ? uint64_t(sv) : v);
    return true;
  case EH_PE_uleb128:
  case EH_PE_sleb128: {
    // Same length as before: the continuation bits pad a short value.
    bool sign = (enc & 0x0f) == EH_PE_sleb128;
    uint64_t x = sign ? uint64_t(sv) : v;
    for (size_t i = 0; i < len; ++i) {
      p[i] = uint8_t(x & 0x7f) | (i + 1 < len ? 0x80 : 0);
      x = sign ? uint64_t(int64_t(x) >> 7) : x >> 7;
    }
    bool fits = sign ? (int64_t(x) == 0 && !(p[len - 1] & 0x40)) || (int64_t(x) == -1 && (p[len - 1] & 0x40))
                     : x == 0;
    return fits;
  }
  default: return false;
  }
}

namespace {

unsigned addr_size() { return bin.is_elf32 ? 4 : 8; }

// The new address of the code at a: .text through the text map, the rest
// where it was.
uint64_t new_code_address(uint64_t a) {
  uint64_t n;
  return map_text_address(a & ~uint64_t(3), &n) ? n + (a & 3) : a;
}

struct Section {
  const char *name = nullptr;
  uint64_t addr = 0;
  const uint8_t *in = nullptr; // the input's contents
  uint8_t *out = nullptr;      // the output's, when there is an output
  size_t size = 0;
};

// The input's section of that name, without its output (see with_output).
Section input_section_named(const char *name) {
  Section s;
  Elf_Scn *scn = find_section_by_name(bin.in_elf, name);
  GElf_Shdr sh;
  if (scn == nullptr || gelf_getshdr(scn, &sh) == nullptr || sh.sh_type == SHT_NOBITS)
    return s;
  Elf_Data *d = elf_getdata(scn, nullptr);
  if (d == nullptr || d->d_buf == nullptr)
    return s;
  s.name = name;
  s.addr = sh.sh_addr;
  s.in = static_cast<const uint8_t *>(d->d_buf);
  s.size = d->d_size;
  return s;
}

// The output's contents of s, when there is an output.
void with_output(Section &s) {
  if (s.name != nullptr && bin.out_elf != nullptr)
    if (Elf_Data *o = find_section_data_by_name(bin.out_elf, s.name); o != nullptr && o->d_size == s.size)
      s.out = static_cast<uint8_t *>(o->d_buf);
}

Section section_named(const char *name) {
  Section s = input_section_named(name);
  with_output(s);
  return s;
}

// The allocated section of the input that holds addr.
Section section_at(uint64_t addr) {
  size_t shstrndx = 0;
  elf_getshdrstrndx(bin.in_elf, &shstrndx);
  for (Elf_Scn *scn = elf_nextscn(bin.in_elf, nullptr); scn != nullptr; scn = elf_nextscn(bin.in_elf, scn)) {
    GElf_Shdr sh;
    if (gelf_getshdr(scn, &sh) == nullptr || !(sh.sh_flags & SHF_ALLOC) || sh.sh_type == SHT_NOBITS ||
        addr < sh.sh_addr || addr - sh.sh_addr >= sh.sh_size)
      continue;
    const char *name = elf_strptr(bin.in_elf, shstrndx, sh.sh_name);
    return section_named(name != nullptr ? name : "");
  }
  return {};
}

struct Field {
  size_t pos, len;
  uint8_t enc;
  uint64_t old_value;
};

struct Fde {
  size_t offset;
  Field loc;
  uint64_t range;
  std::vector<Field> set_locs;
  uint64_t lsda = 0;
};

struct Cie {
  uint8_t fde_enc = EH_PE_absptr;
  uint8_t lsda_enc = EH_PE_omit;
  bool z = false;
  unsigned addr_size = 0;
};

// Skips the operands of one CFA instruction, recording DW_CFA_set_loc.
void cfa_instruction(SectionCursor &c, const Cie &cie, Fde *fde) {
  uint8_t op = c.u8();
  switch (op >> 6) {
  case 1: case 3: return;         // advance_loc, restore
  case 2: c.uleb(); return;       // offset
  }
  switch (op) {
  case 0x00: case 0x0a: case 0x0b: case 0x2d: return; // nop, remember/restore_state, GNU_window_save
  case 0x01: {                                         // set_loc
    size_t at = c.pos;
    uint64_t v = c.pointer(cie.fde_enc, cie.addr_size);
    if (fde != nullptr)
      fde->set_locs.push_back({at, c.pos - at, cie.fde_enc, v});
    return;
  }
  case 0x02: c.skip(1); return;
  case 0x03: c.skip(2); return;
  case 0x04: c.skip(4); return;
  case 0x1d: c.skip(8); return; // MIPS_advance_loc8
  case 0x06: case 0x07: case 0x08: case 0x0d: case 0x0e: case 0x2e: c.uleb(); return;
  case 0x13: c.sleb(); return;
  case 0x05: case 0x09: case 0x0c: case 0x14: case 0x2f: c.uleb(), c.uleb(); return;
  case 0x11: case 0x12: case 0x15: c.uleb(), c.sleb(); return;
  case 0x0f: c.skip(c.uleb()); return;
  case 0x10: case 0x16: c.uleb(), c.skip(c.uleb()); return;
  default: c.fail("a call frame instruction it does not know");
  }
}

struct Entry {
  size_t start, end;   // the record
  size_t after_id;     // behind the CIE id or CIE pointer
  uint64_t id;
  size_t id_pos;
  bool is_cie;
};

Entry entry_at(SectionCursor &c, bool debug_frame) {
  Entry e{};
  e.start = c.pos;
  uint64_t len = c.u32();
  bool wide = len == 0xffffffffu;
  if (wide)
    len = c.u64();
  c.need(len);
  e.end = c.pos + len;
  e.id_pos = c.pos;
  e.id = wide ? c.u64() : c.u32();
  e.after_id = c.pos;
  e.is_cie = debug_frame ? e.id == (wide ? ~uint64_t(0) : 0xffffffffu) : e.id == 0;
  return e;
}

Cie read_cie(SectionCursor c, size_t at, bool debug_frame) {
  c.pos = at;
  Entry e = entry_at(c, debug_frame);
  if (!e.is_cie)
    c.fail("an FDE's CIE pointer leads to no CIE");
  SectionCursor r = c;
  Cie cie;
  cie.addr_size = addr_size();
  uint8_t version = r.u8();
  std::string aug;
  for (uint8_t ch; (ch = r.u8()) != 0;)
    aug += char(ch);
  if (version >= 4) {
    cie.addr_size = r.u8();
    r.u8();
    if (cie.addr_size != 4 && cie.addr_size != 8)
      r.fail("a CIE with an address size other than 4 or 8");
  }
  r.uleb();
  r.sleb();
  version == 1 ? r.u8() : r.uleb();
  if (!aug.empty() && aug[0] == 'z') {
    cie.z = true;
    uint64_t n = r.uleb();
    r.need(n);
    size_t end = r.pos + n;
    for (size_t i = 1; i < aug.size() && r.pos < end; ++i) {
      if (aug[i] == 'P') {
        uint8_t enc = r.u8();
        r.pointer(enc & 0x7f, cie.addr_size);
      } else if (aug[i] == 'L') {
        cie.lsda_enc = r.u8();
      } else if (aug[i] == 'R') {
        cie.fde_enc = r.u8();
      } else if (aug[i] != 'S' && aug[i] != 'B' && aug[i] != 'G') {
        break; // the length lets an unknown letter's data be passed over
      }
    }
    r.pos = end;
  } else if (!aug.empty()) {
    r.fail("a CIE augmentation it does not know");
  }
  if (r.pos > e.end)
    r.fail("a CIE runs past its length");
  return cie;
}

struct FrameTable {
  Section sec;
  bool debug_frame = false;
  std::vector<Fde> fdes;
};

// Reads only the section's bytes: it may run on the second core.
FrameTable read_frame_table(const Section &sec, bool debug_frame) {
  FrameTable t;
  t.sec = sec;
  t.debug_frame = debug_frame;
  if (t.sec.in == nullptr)
    return t;
  const char *name = sec.name;
  SectionCursor c(t.sec.in, t.sec.size, t.sec.addr, name);
  std::map<size_t, Cie> cies;
  while (c.pos < c.size()) {
    if (c.size() - c.pos < 4)
      c.fail("a record runs past the end of the section");
    if (load32(t.sec.in + c.pos) == 0) { // the terminator libgcc stops at
      if (!debug_frame)
        break;
      c.pos += 4;
      continue;
    }
    Entry e = entry_at(c, debug_frame);
    if (!e.is_cie) {
      size_t cie_at = debug_frame ? size_t(e.id) : size_t(e.id_pos - e.id);
      if (!debug_frame && e.id > e.id_pos)
        c.fail("an FDE's CIE pointer leads before the section");
      if (cie_at >= c.size())
        c.fail("an FDE's CIE pointer leads past the section");
      auto it = cies.find(cie_at);
      if (it == cies.end())
        it = cies.emplace(cie_at, read_cie(c, cie_at, debug_frame)).first;
      const Cie &cie = it->second;
      SectionCursor r = c;
      r.pos = e.after_id;
      Fde f{};
      f.offset = e.start;
      if (cie.fde_enc & EH_PE_indirect)
        r.fail("an FDE whose initial location is indirect, which cannot be re-pointed");
      f.loc.pos = r.pos;
      f.loc.enc = cie.fde_enc;
      f.loc.old_value = r.pointer(cie.fde_enc, cie.addr_size);
      f.loc.len = r.pos - f.loc.pos;
      f.range = r.pointer(cie.fde_enc & 0x0f, cie.addr_size);
      size_t insns = r.pos;
      if (cie.z) {
        uint64_t n = r.uleb();
        r.need(n);
        insns = r.pos + n;
        if (cie.lsda_enc != EH_PE_omit && n != 0) {
          if (cie.lsda_enc & EH_PE_indirect)
            r.fail("an FDE whose exception table pointer is indirect");
          f.lsda = r.pointer(cie.lsda_enc, cie.addr_size);
        }
      }
      r.pos = insns;
      if (r.pos > e.end)
        r.fail("an FDE runs past its length");
      SectionCursor ops(t.sec.in, e.end, t.sec.addr, name);
      ops.pos = r.pos;
      while (ops.pos < e.end)
        cfa_instruction(ops, cie, &f);
      t.fdes.push_back(f);
    }
    c.pos = e.end;
  }
  return t;
}

struct Lsda {
  Section sec;
  bool explicit_base = false;
  Field base; // the landing pad base, when the table names it
};

// Widens span by the call sites and landing pads of the exception table
// at lsda for the function that starts at func.
Lsda read_lsda(uint64_t lsda, uint64_t func, UnwindSpan *span) {
  Lsda l;
  l.sec = section_at(lsda);
  if (l.sec.in == nullptr)
    error("%s: an FDE for %#llx leads to an exception table at %#llx, which no section holds", option.program,
          (unsigned long long)func, (unsigned long long)lsda);
  SectionCursor c(l.sec.in, l.sec.size, l.sec.addr, l.sec.name);
  c.pos = size_t(lsda - l.sec.addr);
  uint8_t lp_enc = c.u8();
  uint64_t lp_base = func;
  if (lp_enc != EH_PE_omit) {
    l.explicit_base = true;
    l.base = {c.pos, 0, lp_enc, 0};
    lp_base = c.pointer(lp_enc, addr_size(), 0, func);
    l.base.len = c.pos - l.base.pos;
    l.base.old_value = lp_base;
    if (!in_text(lp_base))
      c.fail("an exception table whose landing pad base lies outside .text");
    span->lo = std::min(span->lo, lp_base);
    span->hi = std::max(span->hi, lp_base + 4);
  }
  if (c.u8() != EH_PE_omit)
    c.uleb();
  uint8_t cs_enc = c.u8();
  uint64_t len = c.uleb();
  c.need(len);
  size_t end = c.pos + len;
  while (c.pos < end) {
    uint64_t start = c.pointer(cs_enc & 0x0f, addr_size());
    uint64_t n = c.pointer(cs_enc & 0x0f, addr_size());
    uint64_t pad = c.pointer(cs_enc & 0x0f, addr_size());
    c.uleb();
    if (n != 0) {
      span->lo = std::min(span->lo, func + start);
      span->hi = std::max(span->hi, func + start + n);
    }
    if (pad != 0) {
      span->lo = std::min(span->lo, lp_base + pad);
      span->hi = std::max(span->hi, lp_base + pad + 4);
    }
  }
  if (c.pos != end)
    c.fail("a call site runs past the call-site table");
  return l;
}

struct Tables {
  FrameTable frames[2];
  std::vector<UnwindSpan> spans;
  std::vector<Lsda> lsdas;
};

// The FDEs of both sections; the exception tables they lead to are read
// after them, in spans_of.
void read_frames(Tables &t, const Section &eh_frame, const Section &debug_frame) {
  t.frames[0] = read_frame_table(eh_frame, false);
  t.frames[1] = read_frame_table(debug_frame, true);
}

void spans_of(Tables &t) {
  for (const FrameTable &ft : t.frames)
    for (const Fde &f : ft.fdes) {
      uint64_t lo = f.loc.old_value;
      UnwindSpan s{lo, truncate(lo + f.range, addr_size()), ft.sec.name, f.offset};
      if (s.hi < s.lo)
        error("%s: section %s is damaged: the FDE at offset %#zx reaches past the end of the address space",
              option.program, ft.sec.name, f.offset);
      if (f.lsda != 0 && !ft.debug_frame)
        t.lsdas.push_back(read_lsda(f.lsda, lo, &s));
      t.spans.push_back(s);
    }
}

Tables read_tables() {
  Tables t;
  read_frames(t, input_section_named(".eh_frame"), input_section_named(".debug_frame"));
  spans_of(t);
  return t;
}

// The tables read early, and the input they were read from.
struct EarlyTables {
  Elf *in = nullptr;
  Tables tables;
  bool spans_done = false;
  std::unique_ptr<Background> reading; // last: destroyed, and so waited for, first
};

void store_field(uint8_t *sec_out, uint64_t sec_addr, const char *sec_name, const Field &f, uint64_t value,
                 uint64_t data_base = 0) {
  if (!store_eh_pointer(sec_out + f.pos, f.len, f.enc, addr_size(), sec_addr + f.pos, value, data_base))
    error("%s: the new address %#llx does not fit the %zu-byte field (encoding %#x) at offset %#zx of %s",
          option.program, (unsigned long long)value, f.len, f.enc, f.pos, sec_name);
}

// The binary search table: pairs of (initial location, FDE address), both
// relative to the table's own address, sorted by the location.
void update_eh_frame_hdr(const FrameTable &eh) {
  Section hdr = section_named(".eh_frame_hdr");
  if (hdr.in == nullptr)
    return;
  if (hdr.out == nullptr)
    error("internal: no output .eh_frame_hdr");
  SectionCursor c(hdr.in, hdr.size, hdr.addr, ".eh_frame_hdr");
  if (c.u8() != 1)
    c.fail("a version other than 1");
  uint8_t ptr_enc = c.u8(), count_enc = c.u8(), table_enc = c.u8();
  c.pointer(ptr_enc, addr_size(), hdr.addr);
  if (count_enc == EH_PE_omit || table_enc == EH_PE_omit)
    return; // no table: the unwinder walks .eh_frame itself
  uint64_t count = c.pointer(count_enc, addr_size(), hdr.addr);
  size_t field;
  switch (table_enc & 0x0f) {
  case EH_PE_udata2: case EH_PE_sdata2: field = 2; break;
  case EH_PE_udata4: case EH_PE_sdata4: field = 4; break;
  case EH_PE_udata8: case EH_PE_sdata8: field = 8; break;
  case EH_PE_absptr: field = addr_size(); break;
  default: c.fail("a search table whose entries differ in size");
  }
  if ((table_enc & 0x70) == EH_PE_aligned)
    c.fail("an aligned search table");
  if (count > (c.size() - c.pos) / (2 * field))
    c.fail("a search table longer than the section");
  std::map<uint64_t, const Fde *> by_addr;
  for (const Fde &f : eh.fdes)
    by_addr[eh.sec.addr + f.offset] = &f;
  struct Row {
    uint64_t loc, fde;
  };
  std::vector<Row> rows;
  size_t table = c.pos;
  for (uint64_t i = 0; i < count; ++i) {
    size_t at = c.pos;
    uint64_t loc = c.pointer(table_enc, addr_size(), hdr.addr);
    uint64_t fde = c.pointer(table_enc, addr_size(), hdr.addr);
    auto it = by_addr.find(fde);
    if (it == by_addr.end() || it->second->loc.old_value != loc) {
      c.pos = at;
      c.fail("a search table entry that names no FDE of .eh_frame or another location than its FDE");
    }
    rows.push_back({new_code_address(loc), fde});
  }
  std::stable_sort(rows.begin(), rows.end(), [](const Row &a, const Row &b) { return a.loc < b.loc; });
  for (size_t i = 0; i < rows.size(); ++i) {
    Field loc{table + i * 2 * field, field, table_enc, 0};
    Field fde{loc.pos + field, field, table_enc, 0};
    store_field(hdr.out, hdr.addr, ".eh_frame_hdr", loc, rows[i].loc, hdr.addr);
    store_field(hdr.out, hdr.addr, ".eh_frame_hdr", fde, rows[i].fde, hdr.addr);
  }
}

} // namespace

// The code of a span keeps its distances: it moved as one piece.  Only
// the words in .text can have moved, so only they are looked at.
bool moved_in_one_piece(const UnwindSpan &s) {
  uint64_t first = new_code_address(s.lo);
  uint64_t lo = std::max(s.lo, bin.text_lo), hi = std::min(s.hi, bin.text_hi);
  if (lo >= hi)
    return true;
  if (new_code_address(lo) != first + (lo - s.lo))
    return false;
  // The rest keeps its distance to lo when each word's new place follows
  // the one before: the text map, read as it lies.
  const uint32_t *map = bin.text_map;
  if (map == nullptr)
    return true; // nothing moved
  // Whole words only: the part of a word at the end of an odd-sized .text
  // is not in the map.
  uint64_t whole = std::min(hi, bin.text_lo + 4 * uint64_t(bin.text_words));
  if (lo < whole) {
    uint64_t k = (lo - bin.text_lo) >> 2, last = (whole - 1 - bin.text_lo) >> 2;
    if (text_map_run_end(k, last + 1) <= last)
      return false;
  }
  for (uint64_t a = std::max(lo, whole); a < hi; a = (a | 3) + 1)
    if (new_code_address(a) != first + (a - s.lo))
      return false;
  return true;
}

void start_reading_unwind_tables() {
  // The sections are found here: the library's handle is this thread's.
  auto early = std::make_shared<EarlyTables>();
  early->in = bin.in_elf;
  Section eh_frame = input_section_named(".eh_frame"), debug_frame = input_section_named(".debug_frame");
  Tables *t = &early->tables;
  early->reading = std::make_unique<Background>(Background::Independent{},
                                                [t, eh_frame, debug_frame] { read_frames(*t, eh_frame, debug_frame); });
  bin.unwind_tables = early;
}

namespace {

// The tables of this input: those read early, once read, or else read now.
Tables &input_tables() {
  auto *early = static_cast<EarlyTables *>(bin.unwind_tables.get());
  if (early == nullptr || early->in != bin.in_elf) {
    bin.unwind_tables = std::make_shared<EarlyTables>();
    early = static_cast<EarlyTables *>(bin.unwind_tables.get());
    early->in = bin.in_elf;
    early->tables = read_tables();
    early->spans_done = true;
  }
  if (early->reading != nullptr) {
    early->reading->collect();
    early->reading.reset();
  }
  if (!early->spans_done) {
    early->spans_done = true;
    spans_of(early->tables);
  }
  return early->tables;
}

} // namespace

const std::vector<UnwindSpan> &unwind_spans() { return input_tables().spans; }

void update_unwind_tables() {
  Tables t = std::move(input_tables());
  bin.unwind_tables.reset();
  for (FrameTable &ft : t.frames)
    with_output(ft.sec);
  for (Lsda &l : t.lsdas)
    with_output(l.sec);
  for (const UnwindSpan &s : t.spans)
    if (!moved_in_one_piece(s))
      error("%s: the code [%#llx, %#llx) that the FDE at offset %#llx of %s describes was not laid out in one "
            "piece; the unwinder could not find its frames",
            option.program, (unsigned long long)s.lo, (unsigned long long)s.hi, (unsigned long long)s.fde_offset,
            s.section);
  for (const FrameTable &ft : t.frames) {
    if (ft.fdes.empty())
      continue;
    if (ft.sec.out == nullptr)
      error("internal: no output %s", ft.sec.name);
    for (const Fde &f : ft.fdes) {
      store_field(ft.sec.out, ft.sec.addr, ft.sec.name, f.loc, new_code_address(f.loc.old_value));
      for (const Field &s : f.set_locs)
        store_field(ft.sec.out, ft.sec.addr, ft.sec.name, s, new_code_address(s.old_value));
    }
  }
  for (const Lsda &l : t.lsdas)
    // A base relative to the function moved with it.
    if (l.explicit_base && (l.base.enc & 0x70) != EH_PE_funcrel) {
      if (l.sec.out == nullptr)
        error("internal: no output %s", l.sec.name);
      store_field(l.sec.out, l.sec.addr, l.sec.name, l.base, new_code_address(l.base.old_value));
    }
  update_eh_frame_hdr(t.frames[0]);
}

} // namespace vesk
