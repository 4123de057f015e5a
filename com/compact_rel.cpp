// The .compact_rel entry codec: a cursor that decodes the entry stream and
// a writer that encodes a rebuilt section behind a copy of its header.
//
// First word of an entry:
//   bit 31      an absolute address word follows (after the konst word)
//   bit 30      a konst word follows
//   bits 29..27 relocation type
//   bits 26..19 distance to the partner instruction, in words
//   bits 18..0  signed distance from the previous entry's address, in words
#include "com/compact_rel.h"


#include "base/bytes.h"
#include "base/diag.h"
#include "base/options.h"

namespace vesk {

namespace {

constexpr uint32_t CR_ADDR_WORD = 0x80000000u;
constexpr uint32_t CR_KONST_WORD = 0x40000000u;
constexpr unsigned CR_TYPE_SHIFT = 27;
constexpr unsigned CR_DIST_SHIFT = 19;
constexpr uint32_t CR_DELTA_MASK = 0x7ffff;

// The cursor is set up by its reader; a cursor out of step with its own
// count is a fault of vesk, not of the input.
#define CR_ASSERT(expr)                                                        \
  do {                                                                         \
    if (!(expr))                                                               \
      error("internal error: .compact_rel cursor is inconsistent (%s)", #expr); \
  } while (0)

// The next word of the entry stream; the entry must not run past the data.
uint32_t next_word(CompactRelCursor *cm) {
  if (cm->end == nullptr || cm->cur_rlc_ptr > cm->end || size_t(cm->end - cm->cur_rlc_ptr) < 4)
    error("%s: .compact_rel entry %u of %u runs past the end of the section", option.program, cm->cur_rlc_no + 1,
          cm->rlc_no);
  uint32_t w = load32(cm->cur_rlc_ptr);
  cm->cur_rlc_ptr += 4;
  return w;
}

} // namespace

void cm_rlc_reset(CompactRelCursor *cm) {
  CR_ASSERT(cm);
  cm->cur_rlc_ptr = cm->rlc_ptr;
  cm->cur_rlc_no = 0;
  cm->prev_addr = 0;
}

bool cm_rlc_get(CompactRelCursor *cm, CompactRelEntry *entry) {
  CR_ASSERT(cm);
  CR_ASSERT(cm->rlc_ptr);
  CR_ASSERT(cm->cur_rlc_ptr);
  CR_ASSERT(cm->cur_rlc_no <= cm->rlc_no);
  if (cm->cur_rlc_no == cm->rlc_no)
    return false;

  uint32_t w = next_word(cm);
  // The 19-bit delta is signed; the writer only ever stores small positive ones.
  int32_t delta = int32_t((w & CR_DELTA_MASK) << 13) >> 13;
  entry->type = (w >> CR_TYPE_SHIFT) & 7;
  entry->dist2to = ((w >> CR_DIST_SHIFT) & 0xff) * 4;
  entry->konst = (w & CR_KONST_WORD) ? next_word(cm) : 0;
  uint32_t step = uint32_t(delta) * 4;
  if (w & CR_ADDR_WORD) {
    uint32_t a = next_word(cm);
    entry->vaddr = (w & CR_KONST_WORD) ? a : a + step;
  } else {
    entry->vaddr = cm->prev_addr + step;
  }
  cm->prev_addr = entry->vaddr;
  cm->cur_rlc_no++;
  return true;
}

CompactRelWriter::CompactRelWriter(const uint8_t *header, size_t header_length)
    : bytes_(header, header + header_length) {}

void CompactRelWriter::put_word(uint32_t w) {
  uint8_t b[4];
  store32(b, w);
  bytes_.insert(bytes_.end(), b, b + 4);
}

void CompactRelWriter::add_cr(uint32_t type, uint32_t konst, uint32_t dist2to, uint32_t vaddr) {
  uint32_t diff = vaddr - prev_addr_;
  uint32_t delta = diff >> 2;
  // A forward step below 128 KB is stored relative to the previous entry;
  // anything else (backward steps included) carries the absolute address.
  // A step that is not a whole number of words cannot be stored relatively.
  bool relative = (delta & 0xffff8000u) == 0 && (diff & 3) == 0;
  uint32_t w = (type & 7) << CR_TYPE_SHIFT | ((dist2to / 4) & 0xff) << CR_DIST_SHIFT;
  if (relative)
    w |= delta & 0x7fff;
  else
    w |= CR_ADDR_WORD;
  if (konst != 0)
    w |= CR_KONST_WORD;
  put_word(w);
  if (konst != 0)
    put_word(konst);
  if (!relative)
    put_word(vaddr);
  prev_addr_ = vaddr;
}

} // namespace vesk
