#include "com/dwarf_ranges.h"

#include <dwarf.h>

#include "base/diag.h"

namespace vesk {

void read_code_ranges(Dwarf_Die *die, const char *text, std::vector<CodeRange> *out) {
  out->clear();
  // The library applies base selection entries and the unit's base itself.
  Dwarf_Addr base = 0, lo = 0, hi = 0;
  ptrdiff_t at = 0;
  while ((at = dwarf_ranges(die, at, &base, &lo, &hi)) > 0)
    if (hi > lo)
      out->push_back({lo, hi});
  if (at < 0)
    print_dwarf_error("DW_AT_ranges in %s", text);
}

size_t entry_range(Dwarf_Attribute *entry_pc, const std::vector<CodeRange> &ranges) {
  if (entry_pc == nullptr || ranges.empty())
    return 0;
  Dwarf_Addr entry = 0;
  switch (dwarf_whatform(entry_pc)) {
  case DW_FORM_addr:
  case DW_FORM_addrx:
  case DW_FORM_addrx1:
  case DW_FORM_addrx2:
  case DW_FORM_addrx3:
  case DW_FORM_addrx4:
  case DW_FORM_GNU_addr_index:
    if (dwarf_formaddr(entry_pc, &entry) != 0)
      return 0;
    break;
  default: {
    Dwarf_Word offset = 0;
    if (dwarf_formudata(entry_pc, &offset) != 0)
      return 0;
    entry = ranges[0].lo + offset;
  }
  }
  for (size_t i = 0; i < ranges.size(); ++i)
    if (ranges[i].lo <= entry && entry < ranges[i].hi)
      return i;
  return 0;
}

} // namespace vesk
