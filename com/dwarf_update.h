// The DWARF of a reordered executable, made to describe the new layout.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <utility>
#include <vector>

#include "base/bin.h"

namespace vesk {

// Whether this run rewrites the DWARF.  It does for every DWARF input
// except the output of a vesk that left the DWARF describing the original
// build (its translation table says so): that DWARF stays as it is, and
// the new table keeps leading back to the original build.
bool dwarf_follows_layout();

// Run step, after the layout and before the translation table is added:
// re-points the code addresses of .debug_info (pcs, call sites, DWARF
// expressions), rewrites the range and location lists, .debug_aranges and
// the line programs of .debug_line for the new layout, and gives units and
// scopes whose code the layout tore apart a range list.  A section that
// grows is written anew at the end of the file.
void update_dwarf();

namespace dwarf_update {

// A piece of old code that moved as one: old [old_lo, old_hi) now lies at
// [new_lo, new_hi).
struct Piece {
  uint64_t old_lo, old_hi, new_lo, new_hi;
};

// The new address of the byte at old address a (outside .text: a).
inline uint64_t map_byte(uint64_t a) {
  uint64_t w = a & ~uint64_t(3);
  if (bin.text_map == nullptr || !in_text(w))
    return a;
  return text_map_of(w) + (a & 3);
}
// Appends the new pieces of old [lo, hi) to out, in old order; an empty
// range gives one empty piece.  Callers keep out from one range to the
// next, so that the many small ranges of a program cost no allocation.
void map_range(uint64_t lo, uint64_t hi, std::vector<Piece> *out);

// Growing big-endian output.
struct Out {
  std::vector<uint8_t> b;
  size_t size() const { return b.size(); }
  void u8(uint64_t v) { b.push_back(uint8_t(v)); }
  void u16(uint64_t v) { u8(v >> 8), u8(v); }
  void u32(uint64_t v) { u16(v >> 16), u16(v); }
  void u64(uint64_t v) { u32(v >> 32), u32(v); }
  void sized(uint64_t v, unsigned n) { // 1, 2, 4 or 8 bytes
    for (unsigned i = n; i-- > 0;)
      u8(i < 8 ? v >> (8 * i) : 0);
  }
  void uleb(uint64_t v) {
    do {
      uint8_t x = v & 0x7f;
      v >>= 7;
      u8(x | (v ? 0x80 : 0));
    } while (v);
  }
  void sleb(int64_t v);
  void bytes(const uint8_t *p, size_t n) { b.insert(b.end(), p, p + n); }
};

// A row of a line program, as a reader of addresses needs it.
struct LineRow {
  uint64_t addr, file, line;
  bool end_sequence;
};

// The rows of every line program of .debug_line (in, size bytes), in
// table order, each program's with its offset.  A damaged program ends
// the run.
std::vector<std::pair<uint64_t, std::vector<LineRow>>> read_line_rows(const uint8_t *in, size_t size,
                                                                      unsigned addr_size);

// The line programs of .debug_line (in, size bytes) rewritten for the new
// layout: every sequence re-based, split where its code moved apart.
// offsets gets the new offset of every program, by its old one.
std::vector<uint8_t> rewrite_line_programs(const uint8_t *in, size_t size, unsigned addr_size,
                                           std::map<uint64_t, uint64_t> *offsets);

} // namespace dwarf_update

} // namespace vesk
