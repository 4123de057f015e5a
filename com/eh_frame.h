// The unwind tables: .eh_frame with its search table .eh_frame_hdr,
// .debug_frame, and the exception tables in .gcc_except_table that the
// FDEs lead to.  The unwinder finds a frame by its return address in these
// tables, so they must name the new addresses, and every piece of code one
// FDE describes must stay in one piece.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "base/bytes.h"

namespace vesk {

// DW_EH_PE_* pointer encodings: the low four bits say how the value is
// stored, the next three what it is relative to, 0x80 that it is the
// address of a word holding the pointer.
enum : uint8_t {
  EH_PE_absptr = 0x00,
  EH_PE_uleb128 = 0x01,
  EH_PE_udata2 = 0x02,
  EH_PE_udata4 = 0x03,
  EH_PE_udata8 = 0x04,
  EH_PE_sleb128 = 0x09,
  EH_PE_sdata2 = 0x0a,
  EH_PE_sdata4 = 0x0b,
  EH_PE_sdata8 = 0x0c,
  EH_PE_pcrel = 0x10,
  EH_PE_textrel = 0x20,
  EH_PE_datarel = 0x30,
  EH_PE_funcrel = 0x40,
  EH_PE_aligned = 0x50,
  EH_PE_indirect = 0x80,
  EH_PE_omit = 0xff,
};

// Bounds-checked reading of one section; a read past its end ends the run
// with "<program>: section <name> is damaged: ...".
class SectionCursor {
public:
  SectionCursor(const uint8_t *buf, size_t size, uint64_t addr, const char *section)
      : buf_(buf), size_(size), addr_(addr), section_(section) {}
  size_t pos = 0;
  size_t size() const { return size_; }
  uint64_t addr() const { return addr_; }
  const char *section() const { return section_; }
  [[noreturn]] void fail(const char *what) const;
  // The readers are inline: the DWARF and unwind passes call them for
  // every field of every record.
  void need(size_t n) const {
    if (pos > size_ || n > size_ - pos)
      fail("a record runs past the end of the section");
  }
  void skip(size_t n) { need(n), pos += n; }
  uint8_t u8() {
    need(1);
    return buf_[pos++];
  }
  uint16_t u16() {
    need(2);
    pos += 2;
    return load16(buf_ + pos - 2);
  }
  uint32_t u32() {
    need(4);
    pos += 4;
    return load32(buf_ + pos - 4);
  }
  uint64_t u64() {
    need(8);
    pos += 8;
    return load64(buf_ + pos - 8);
  }
  uint64_t uleb() {
    uint64_t v = 0;
    for (unsigned shift = 0;; shift += 7) {
      uint8_t b = u8();
      if (shift < 64)
        v |= uint64_t(b & 0x7f) << shift;
      if ((b & 0x80) == 0)
        return v;
    }
  }
  int64_t sleb();
  // An encoded pointer; pc-relative values count from the field's
  // address, data-relative ones from data_base, function-relative ones
  // from func_base.  Indirect pointers are read as the address of their
  // word.
  uint64_t pointer(uint8_t enc, unsigned addr_size, uint64_t data_base = 0, uint64_t func_base = 0);

private:
  const uint8_t *buf_;
  size_t size_;
  uint64_t addr_;
  const char *section_;
};

// Stores value with encoding enc over the field of len bytes at p, whose
// address is field_addr: false when the encoding cannot hold it in that
// many bytes.
bool store_eh_pointer(uint8_t *p, size_t len, uint8_t enc, unsigned addr_size, uint64_t field_addr,
                      uint64_t value, uint64_t data_base = 0);

// A stretch of code that one FDE (with the call sites and landing pads of
// its exception table) describes and that must therefore stay in one
// piece: [lo, hi) in the input's addresses.
struct UnwindSpan {
  uint64_t lo, hi;
  const char *section; // where the FDE is
  uint64_t fde_offset;
};

// Run step, once the input is open: reads the FDEs on the second core,
// for unwind_spans and the update.
void start_reading_unwind_tables();
// The spans of every FDE of the input (.eh_frame and .debug_frame), kept
// until the update.
const std::vector<UnwindSpan> &unwind_spans();
// Whether the code of s kept its distances in the new layout (moved as
// one piece), as the unwinder needs.
bool moved_in_one_piece(const UnwindSpan &s);

// Run step, after the layout: re-points every FDE (and DW_CFA_set_loc)
// of .eh_frame and .debug_frame, an explicit landing pad base in
// .gcc_except_table, and rewrites the search table of .eh_frame_hdr sorted
// by the new addresses.  A span that the layout tore apart is refused.
void update_unwind_tables();

} // namespace vesk
