// The code of a DWARF entry given as a list of ranges (DW_AT_ranges), as
// compilers write it for a function split into a hot and a cold part.
#pragma once

#include <cstddef>
#include <cstdint>
#include <elfutils/libdw.h>
#include <vector>

namespace vesk {

struct CodeRange {
  uint64_t lo;
  uint64_t hi; // exclusive
};

// The non-empty ranges of die's DW_AT_ranges, in list order: from
// .debug_rnglists for a DWARF 5 unit, from .debug_ranges before, where the
// entries are offsets from the unit's base (its DW_AT_low_pc) until a base
// selection entry.  `text` names the entry in messages.
void read_code_ranges(Dwarf_Die *die, const char *text, std::vector<CodeRange> *out);

// The index of the range that holds the entry's DW_AT_entry_pc (`entry_pc`,
// an address, or an offset from the start of the first range); 0, the first
// range, when there is none or it lies in no range.  Compilers list the
// part that holds the entry first; it need not be the lowest, since GNU ld
// places .text.unlikely, where the cold parts go, before .text.
size_t entry_range(Dwarf_Attribute *entry_pc, const std::vector<CodeRange> &ranges);

} // namespace vesk
