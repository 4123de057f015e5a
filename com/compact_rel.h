// The .compact_rel entry codec.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vesk {

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
void new_cr_header(const uint8_t *header, size_t header_length);
void add_cr(uint32_t type, uint32_t konst, uint32_t dist2to, uint32_t vaddr);
uint8_t *cr_head();
size_t cr_size();

} // namespace vesk
