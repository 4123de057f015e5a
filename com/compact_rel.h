// The .compact_rel entry codec.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace vesk {

// Entry types.  A GOT page entry pair (type 5) or a %hi/%lo pair (type 7)
// whose dist2to is 0 describes one instruction alone, the page load or %hi,
// or the offset instruction or %lo, of the address in konst.
enum CompactRelType : uint32_t {
  CR_REL32 = 2,        // data word holding a code address minus gp
  CR_WORD = 3,         // data word holding a code address
  CR_GP_DISP = 4,      // lui/addiu of gp minus the set-up's address, konst holds it
  CR_GOT_PAIR = 5,     // GOT page load and offset instruction forming konst
  CR_GP_DISP_NOKONST = 6,
  CR_HI_LO = 7,        // %hi/%lo forming konst
};

// Header tags besides 1 (the entry count): tag 2 names a GOT entry that
// page loads read (one pair per entry), tag 3 says how many tag 2 pairs
// there are, so that a header without them is told apart from one with an
// empty list.
constexpr uint32_t CR_TAG_COUNT = 1, CR_TAG_GOT_PAGE = 2, CR_TAG_GOT_PAGES = 3;

struct CompactRelEntry {
  uint32_t type;
  uint32_t konst;
  uint32_t dist2to; // bytes
  uint32_t vaddr;
};

struct CompactRelCursor {
  const uint8_t *rlc_ptr;     // start of the entry stream
  const uint8_t *end;         // end of the section data
  uint32_t rlc_no;            // entries, from header tag 1
  const uint8_t *cur_rlc_ptr;
  uint32_t cur_rlc_no;
  uint32_t prev_addr;
};

void cm_rlc_reset(CompactRelCursor *cm);
bool cm_rlc_get(CompactRelCursor *cm, CompactRelEntry *entry);

// A new section: a copy of a header, then the entries as they are added.
class CompactRelWriter {
public:
  CompactRelWriter(const uint8_t *header, size_t header_length);
  void add_cr(uint32_t type, uint32_t konst, uint32_t dist2to, uint32_t vaddr);
  std::vector<uint8_t> &bytes() { return bytes_; }

private:
  void put_word(uint32_t w);
  std::vector<uint8_t> bytes_;
  uint32_t prev_addr_ = 0;
};

} // namespace vesk
