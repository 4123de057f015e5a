// The line programs of .debug_line, played and written again for the new
// layout.
//
// A sequence of a line program covers one stretch of contiguous code (gas
// writes one per section of a unit), so after the reorder its procedures
// lie apart: each sequence is cut where its code moved apart, and every
// piece becomes a sequence of its own at the new address, with the rows
// that fell in it.  The headers (file and directory tables) are copied as
// they are; only the programs are encoded anew, so the rows keep every
// register (file, line, column, flags, discriminator) and their order at
// each address, which location views count on.
#include <cstring>

#include "base/bytes.h"
#include "base/diag.h"
#include "base/options.h"
#include "com/dwarf_update.h"
#include "com/eh_frame.h"
#include "com/elf.h"

namespace vesk::dwarf_update {

namespace {

enum : uint8_t {
  LNS_copy = 1,
  LNS_advance_pc = 2,
  LNS_advance_line = 3,
  LNS_set_file = 4,
  LNS_set_column = 5,
  LNS_negate_stmt = 6,
  LNS_set_basic_block = 7,
  LNS_const_add_pc = 8,
  LNS_fixed_advance_pc = 9,
  LNS_set_prologue_end = 10,
  LNS_set_epilogue_begin = 11,
  LNS_set_isa = 12,
  LNE_end_sequence = 1,
  LNE_set_address = 2,
  LNE_set_discriminator = 4,
};

struct Row {
  uint64_t addr = 0, file = 1, line = 1, column = 0, discriminator = 0, isa = 0;
  bool is_stmt = false, basic_block = false, end_sequence = false, prologue_end = false, epilogue_begin = false;
};

struct Header {
  unsigned addr_size = 4;
  uint8_t min_inst = 1, default_is_stmt = 1, line_range = 1, opcode_base = 1;
  int8_t line_base = 0;
  std::vector<uint8_t> std_lengths; // operands of standard opcode i + 1
};

uint64_t truncate(uint64_t v, unsigned addr_size) { return addr_size == 4 ? uint32_t(v) : v; }

// Plays the program [c.pos, end) into rows.  The rows of one program
// after the other go to the same buffer: a buffer of their own would be
// new memory for every program, each page of it faulted in.
void play(SectionCursor &c, size_t end, Header &h, unsigned version, std::vector<Row> &rows) {
  rows.clear();
  Row r;
  r.is_stmt = h.default_is_stmt != 0;
  const Row fresh = r;
  // What each special opcode adds to the address and the line, worked out
  // once: most rows come from one, and the divisions would cost more than
  // the rest of their decoding.
  uint64_t special_addr[256];
  int64_t special_line[256];
  for (unsigned op = h.opcode_base; op < 256; ++op) {
    unsigned adj = op - h.opcode_base;
    special_addr[op] = uint64_t(h.min_inst) * (adj / h.line_range);
    special_line[op] = int64_t(h.line_base) + int64_t(adj % h.line_range);
  }
  auto emit = [&] {
    rows.push_back(r);
    r.basic_block = r.prologue_end = r.epilogue_begin = false;
    r.discriminator = 0;
  };
  while (c.pos < end) {
    uint8_t op = c.u8();
    if (op >= h.opcode_base) {
      r.addr = truncate(r.addr + special_addr[op], h.addr_size);
      r.line += uint64_t(special_line[op]);
      emit();
      continue;
    }
    switch (op) {
    case 0: {
      uint64_t len = c.uleb();
      c.need(len);
      if (len == 0)
        c.fail("an extended line opcode of no length");
      size_t sub_end = c.pos + len;
      uint8_t sub = c.u8();
      switch (sub) {
      case LNE_end_sequence:
        r.end_sequence = true;
        emit();
        r = fresh;
        break;
      case LNE_set_address:
        // Before DWARF 5 the header does not say how long an address is;
        // the program's addresses do.
        if (len - 1 != 4 && len - 1 != 8)
          c.fail("a DW_LNE_set_address whose address is neither 4 nor 8 bytes");
        if (version < 5)
          h.addr_size = unsigned(len - 1);
        r.addr = truncate(len - 1 == 4 ? c.u32() : c.u64(), h.addr_size);
        break;
      case LNE_set_discriminator: r.discriminator = c.uleb(); break;
      default:
        c.fail("an extended line opcode that vesk cannot carry over to the new layout");
      }
      if (c.pos > sub_end)
        c.fail("an extended line opcode runs past its length");
      c.pos = sub_end;
      break;
    }
    case LNS_copy: emit(); break;
    case LNS_advance_pc: r.addr = truncate(r.addr + h.min_inst * c.uleb(), h.addr_size); break;
    case LNS_advance_line: r.line += uint64_t(c.sleb()); break;
    case LNS_set_file: r.file = c.uleb(); break;
    case LNS_set_column: r.column = c.uleb(); break;
    case LNS_negate_stmt: r.is_stmt = !r.is_stmt; break;
    case LNS_set_basic_block: r.basic_block = true; break;
    case LNS_const_add_pc:
      r.addr = truncate(r.addr + uint64_t(h.min_inst) * ((255 - h.opcode_base) / h.line_range), h.addr_size);
      break;
    case LNS_fixed_advance_pc: r.addr = truncate(r.addr + c.u16(), h.addr_size); break;
    case LNS_set_prologue_end: r.prologue_end = true; break;
    case LNS_set_epilogue_begin: r.epilogue_begin = true; break;
    case LNS_set_isa: r.isa = c.uleb(); break;
    default:
      // An opcode this reader does not know: its operand count is in the
      // header, and it adds no row.
      for (unsigned i = 0; i < h.std_lengths[op - 1]; ++i)
        c.uleb();
    }
  }
  if (!rows.empty() && !rows.back().end_sequence)
    c.fail("a line sequence without its end");
}

// Writes rows as a program of the same header.
class Encoder {
public:
  Encoder(Out &out, const Header &h, SectionCursor &c) : o(out), h(h), c(c) {}
  // The pieces of the sequence being written, kept from one to the next.
  std::vector<Piece> pieces;

  void start(uint64_t addr) {
    st = Row{};
    st.is_stmt = h.default_is_stmt != 0;
    st.addr = addr;
    o.u8(0);
    o.uleb(1 + h.addr_size);
    o.u8(LNE_set_address);
    o.sized(addr, h.addr_size);
  }

  void row(const Row &r, uint64_t addr) {
    if (r.file != st.file)
      o.u8(LNS_set_file), o.uleb(r.file);
    if (r.column != st.column)
      o.u8(LNS_set_column), o.uleb(r.column);
    if (r.is_stmt != st.is_stmt)
      o.u8(LNS_negate_stmt);
    if (r.isa != st.isa)
      standard(LNS_set_isa), o.uleb(r.isa);
    if (r.basic_block)
      o.u8(LNS_set_basic_block);
    if (r.prologue_end)
      standard(LNS_set_prologue_end);
    if (r.epilogue_begin)
      standard(LNS_set_epilogue_begin);
    if (r.discriminator != 0) {
      // Its operand's length leads it: counted first (no buffer of its
      // own for every row that has one; GCC gives many rows one).
      size_t n = 1;
      for (uint64_t v = r.discriminator >> 7; v != 0; v >>= 7)
        ++n;
      o.u8(0), o.uleb(1 + n), o.u8(LNE_set_discriminator), o.uleb(r.discriminator);
    }
    uint64_t adv = advance(addr);
    int64_t dline = int64_t(r.line - st.line);
    if (!special(dline, adv)) {
      if (dline != 0 && !(dline - h.line_base >= 0 && dline - h.line_base < h.line_range)) {
        o.u8(LNS_advance_line), o.sleb(dline);
        dline = 0;
      }
      if (!special(dline, adv)) {
        if (adv != 0)
          o.u8(LNS_advance_pc), o.uleb(adv);
        if (!special(dline, 0)) {
          if (dline != 0)
            o.u8(LNS_advance_line), o.sleb(dline);
          o.u8(LNS_copy);
        }
      }
    }
    st.file = r.file, st.column = r.column, st.is_stmt = r.is_stmt, st.isa = r.isa;
    st.line = r.line;
    st.addr = addr;
  }

  void end(uint64_t addr) {
    uint64_t adv = advance(addr);
    if (adv != 0)
      o.u8(LNS_advance_pc), o.uleb(adv);
    o.u8(0), o.uleb(1), o.u8(LNE_end_sequence);
  }

private:
  Out &o;
  const Header &h;
  SectionCursor &c;
  Row st;

  void standard(uint8_t op) {
    if (op >= h.opcode_base)
      c.fail("a line program that needs an opcode its header does not give");
    o.u8(op);
  }

  uint64_t advance(uint64_t addr) {
    uint64_t delta = truncate(addr - st.addr, h.addr_size);
    if (addr < st.addr || (h.min_inst != 1 && delta % h.min_inst != 0))
      c.fail("a line sequence whose addresses go backwards");
    return h.min_inst == 1 ? delta : delta / h.min_inst;
  }

  bool special(int64_t dline, uint64_t adv) {
    int64_t l = dline - h.line_base;
    if (l < 0 || l >= h.line_range || adv > 255)
      return false;
    uint64_t op = uint64_t(l) + uint64_t(h.line_range) * adv + h.opcode_base;
    if (op > 255)
      return false;
    o.u8(op);
    return true;
  }
};

// Writes the sequence rows[first..last] (last is its end) for the new
// layout: one sequence per piece of its code that moved as one.
void write_sequence(Encoder &e, const std::vector<Row> &rows, size_t first, size_t last) {
  uint64_t lo = rows[first].addr, hi = rows[last].addr;
  std::vector<Piece> &pieces = e.pieces;
  pieces.clear();
  map_range(lo, hi, &pieces);
  size_t k = first;
  for (size_t p = 0; p < pieces.size(); ++p) {
    const Piece &pc = pieces[p];
    bool final = p + 1 == pieces.size();
    e.start(pc.new_lo);
    // Code cut off where no row starts goes on with the row before it.
    if (p > 0 && (k == last || rows[k].addr > pc.old_lo)) {
      Row carried = rows[k - 1];
      carried.basic_block = carried.prologue_end = carried.epilogue_begin = false;
      e.row(carried, pc.new_lo);
    }
    for (; k < last && (final || rows[k].addr < pc.old_hi); ++k)
      e.row(rows[k], pc.new_lo + (rows[k].addr - pc.old_lo));
    e.end(pc.new_hi);
  }
}

// One program of .debug_line: its header read.
struct Program {
  size_t start, body, program, end;
  unsigned offset_size, version;
  Header h;
};

// Reads the program at c.pos, plays it into rows and leaves c at its end.
Program read_program(SectionCursor &c, const uint8_t *in, unsigned addr_size, std::vector<Row> &rows) {
  Program p{};
  p.start = c.pos;
  uint64_t length = c.u32();
  p.offset_size = 4;
  if (length == 0xffffffffu) {
    length = c.u64();
    p.offset_size = 8;
  } else if (length >= 0xfffffff0u) {
    c.fail("a line program with a reserved length");
  }
  c.need(length);
  p.end = c.pos + length, p.body = c.pos;
  p.version = c.u16();
  if (p.version < 2 || p.version > 5)
    c.fail("a line program of a version vesk does not know");
  Header &h = p.h;
  h.addr_size = addr_size;
  if (p.version >= 5) {
    h.addr_size = c.u8();
    c.u8();
    if (h.addr_size != 4 && h.addr_size != 8)
      c.fail("a line program whose addresses are neither 4 nor 8 bytes");
  }
  uint64_t header_length = p.offset_size == 8 ? c.u64() : c.u32();
  if (header_length > p.end - c.pos)
    c.fail("a line program header runs past its program");
  p.program = c.pos + header_length;
  h.min_inst = c.u8();
  uint8_t max_ops = p.version >= 4 ? c.u8() : 1;
  h.default_is_stmt = c.u8();
  h.line_base = int8_t(c.u8());
  h.line_range = c.u8();
  h.opcode_base = c.u8();
  if (h.min_inst == 0 || h.line_range == 0 || h.opcode_base == 0)
    c.fail("a line program header with a zero instruction length, line range or opcode base");
  if (max_ops != 1)
    c.fail("a line program for several operations per instruction");
  for (unsigned i = 1; i < h.opcode_base; ++i)
    h.std_lengths.push_back(c.u8());
  if (c.pos > p.program)
    c.fail("a line program header runs past its length");
  SectionCursor prog(in, p.end, 0, ".debug_line");
  prog.pos = p.program;
  play(prog, p.end, h, p.version, rows);
  c.pos = p.end;
  return p;
}

} // namespace

std::vector<std::pair<uint64_t, std::vector<LineRow>>> read_line_rows(const uint8_t *in, size_t size,
                                                                      unsigned addr_size) {
  std::vector<std::pair<uint64_t, std::vector<LineRow>>> out;
  SectionCursor c(in, size, 0, ".debug_line");
  std::vector<Row> played;
  while (c.pos < size) {
    Program p = read_program(c, in, addr_size, played);
    std::vector<LineRow> rows;
    rows.reserve(played.size());
    for (const Row &r : played)
      rows.push_back({r.addr, r.file, r.line, r.end_sequence});
    out.emplace_back(p.start, std::move(rows));
  }
  return out;
}

std::vector<uint8_t> rewrite_line_programs(const uint8_t *in, size_t size, unsigned addr_size,
                                           std::map<uint64_t, uint64_t> *offsets) {
  Out out;
  // The programs come out a little larger than they went in: each piece
  // of a sequence that the layout cut apart is a sequence of its own.
  out.reserve(size + size / 4 + 64);
  SectionCursor c(in, size, 0, ".debug_line");
  // The input's pages are dropped behind the reader, a few megabytes at a
  // time: the rewrite runs beside others that hold much memory.
  size_t dropped = 0;
  std::vector<Row> rows;
  while (c.pos < size) {
    if (c.pos - dropped > (size_t(2) << 20)) {
      release_input_pages(in + dropped, c.pos - dropped);
      dropped = c.pos;
    }
    Program p = read_program(c, in, addr_size, rows);
    size_t start = p.start, body = p.body, program = p.program, end = p.end;
    unsigned offset_size = p.offset_size;
    const Header &h = p.h;
    SectionCursor prog(in, end, 0, ".debug_line");
    prog.pos = end;

    (*offsets)[start] = out.size();
    size_t length_at = out.size();
    if (offset_size == 8)
      out.u32(0xffffffffu), out.u64(0);
    else
      out.u32(0);
    size_t counted = out.size();
    out.bytes(in + body, program - body);
    Encoder e(out, h, prog);
    for (size_t first = 0, i = 0; i < rows.size(); ++i)
      if (rows[i].end_sequence) {
        write_sequence(e, rows, first, i);
        first = i + 1;
      }
    uint64_t new_length = out.size() - counted;
    if (offset_size == 8)
      store64(out.data() + length_at + 4, new_length);
    else if (new_length >= 0xfffffff0u)
      c.fail("a line program that grows past what a 32-bit length holds");
    else
      store32(out.data() + length_at, uint32_t(new_length));
    c.pos = end;
  }
  return out.take();
}

} // namespace vesk::dwarf_update
