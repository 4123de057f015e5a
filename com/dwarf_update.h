// The DWARF of a reordered executable, made to describe the new layout.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
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
// Run step, before the layout: begins the update by reading the entries
// of .debug_info on the second core, beside the checks and the layout.
void start_dwarf_update();
// Run step, right after the layout: goes on with what needs nothing but
// the layout and the entries read (the location lists), on the second
// core beside the updates of the other sections.  update_dwarf finishes
// the update in its turn; without these steps it does it all.
void continue_dwarf_update();

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
// Bytes written one field at a time, the most numerous writes of the
// update: room is made ahead in larger steps, so that a field is stored
// without checking the capacity byte by byte.
class Out {
public:
  size_t size() const { return n_; }
  uint8_t *data() { return b_.data(); }
  // Room for k bytes, taken by the pages as they are written.
  void reserve(size_t k) { b_.reserve(k); }
  void u8(uint64_t v) { *room(1) = uint8_t(v); }
  void u16(uint64_t v) { sized(v, 2); }
  void u32(uint64_t v) { sized(v, 4); }
  void u64(uint64_t v) { sized(v, 8); }
  void sized(uint64_t v, unsigned n) { // 1, 2, 4 or 8 bytes, big-endian
    uint8_t *p = room(n);
    for (unsigned i = n; i-- > 0; v >>= 8)
      p[i] = uint8_t(v);
  }
  void uleb(uint64_t v) {
    uint8_t *p = room(10), *q = p;
    do {
      uint8_t x = v & 0x7f;
      v >>= 7;
      *q++ = uint8_t(x | (v ? 0x80 : 0));
    } while (v);
    n_ -= 10 - size_t(q - p);
  }
  void sleb(int64_t v);
  void bytes(const uint8_t *p, size_t k) {
    if (k != 0)
      std::memcpy(room(k), p, k);
  }
  // The bytes written, handed over.
  std::vector<uint8_t> take() {
    b_.resize(n_);
    n_ = 0;
    return std::move(b_);
  }

private:
  std::vector<uint8_t> b_; // its size is the room made; n_ bytes of it are written
  size_t n_ = 0;
  // Room grows by a quarter: resize writes every byte it adds, and a
  // doubled buffer, written whole, would stay that large to the end.
  uint8_t *room(size_t k) {
    if (b_.size() - n_ < k)
      b_.resize(std::max(b_.size() + b_.size() / 4, n_ + k + 256));
    uint8_t *p = b_.data() + n_;
    n_ += k;
    return p;
  }
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
