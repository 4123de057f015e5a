#include "com/dwarf_ranges.h"

#include <dwarf.h>

#include "base/diag.h"
#include "base/options.h"

namespace vesk {

namespace {

// A failed read of an optional attribute only means it is not used.
void drop_error(Dwarf_Debug dbg, int res, Dwarf_Error err) {
  if (res == DW_DLV_ERROR && err != nullptr)
    dwarf_dealloc(dbg, err, DW_DLA_ERROR);
}

void add_range(std::vector<CodeRange> *out, Dwarf_Addr lo, Dwarf_Addr hi) {
  if (hi > lo)
    out->push_back({lo, hi});
}

void read_rnglist(Dwarf_Debug dbg, Dwarf_Attribute a, Dwarf_Half form, Dwarf_Unsigned value, const char *text,
                  std::vector<CodeRange> *out) {
  Dwarf_Error err = nullptr;
  Dwarf_Rnglists_Head head = nullptr;
  Dwarf_Unsigned count = 0, global_offset = 0;
  int res = dwarf_rnglists_get_rle_head(a, form, value, &head, &count, &global_offset, &err);
  if (res != DW_DLV_OK)
    print_dwarf_error(dbg, res, err, "dwarf_rnglists_get_rle_head in %s", text);
  for (Dwarf_Unsigned i = 0; i < count; ++i) {
    unsigned length = 0, code = 0;
    Dwarf_Unsigned raw1 = 0, raw2 = 0, lo = 0, hi = 0;
    Dwarf_Bool no_address = false;
    res = dwarf_get_rnglists_entry_fields_a(head, i, &length, &code, &raw1, &raw2, &no_address, &lo, &hi, &err);
    if (res != DW_DLV_OK) {
      dwarf_dealloc_rnglists_head(head);
      print_dwarf_error(dbg, res, err, "dwarf_get_rnglists_entry_fields_a in %s", text);
    }
    if (code == DW_RLE_end_of_list)
      break;
    // The library applies base entries to the ranges behind them itself.
    if (code == DW_RLE_base_address || code == DW_RLE_base_addressx || no_address)
      continue;
    add_range(out, lo, hi);
  }
  dwarf_dealloc_rnglists_head(head);
}

void read_debug_ranges(Dwarf_Debug dbg, Dwarf_Die die, Dwarf_Off offset, Dwarf_Addr base, const char *text,
                       std::vector<CodeRange> *out) {
  Dwarf_Error err = nullptr;
  Dwarf_Ranges *ranges = nullptr;
  Dwarf_Signed count = 0;
  Dwarf_Unsigned bytes = 0;
  Dwarf_Off real_offset = 0;
  int res = dwarf_get_ranges_b(dbg, offset, die, &real_offset, &ranges, &count, &bytes, &err);
  if (res != DW_DLV_OK)
    print_dwarf_error(dbg, res, err, "dwarf_get_ranges_b in %s", text);
  for (Dwarf_Signed i = 0; i < count; ++i) {
    const Dwarf_Ranges &r = ranges[i];
    if (r.dwr_type == DW_RANGES_END)
      break;
    if (r.dwr_type == DW_RANGES_ADDRESS_SELECTION)
      base = r.dwr_addr2;
    else
      add_range(out, base + r.dwr_addr1, base + r.dwr_addr2);
  }
  dwarf_ranges_dealloc(dbg, ranges, count);
}

} // namespace

bool read_code_ranges(Dwarf_Debug dbg, Dwarf_Die die, Dwarf_Addr unit_base, const char *text,
                      std::vector<CodeRange> *out) {
  Dwarf_Error err = nullptr;
  Dwarf_Attribute a = nullptr;
  int res = dwarf_attr(die, DW_AT_ranges, &a, &err);
  if (res == DW_DLV_ERROR)
    print_dwarf_error(dbg, res, err, "dwarf_attr");
  if (res != DW_DLV_OK)
    return false;
  Dwarf_Half form = 0;
  res = dwarf_whatform(a, &form, &err);
  if (res != DW_DLV_OK)
    print_dwarf_error(dbg, res, err, "dwarf_whatform in %s", text);
  // An index into the unit's offset table, or an offset into the section.
  Dwarf_Unsigned value = 0;
  if (form == DW_FORM_rnglistx) {
    res = dwarf_formudata(a, &value, &err);
  } else {
    Dwarf_Off offset = 0;
    res = dwarf_global_formref(a, &offset, &err);
    value = offset;
  }
  if (res != DW_DLV_OK)
    print_dwarf_error(dbg, res, err, "DW_AT_ranges in %s", text);
  Dwarf_Half version = 0, offset_size = 0;
  if (dwarf_get_version_of_die(die, &version, &offset_size) != DW_DLV_OK)
    error("%s: cannot tell the DWARF version of the unit of %s", option.program, text);
  out->clear();
  if (version >= 5)
    read_rnglist(dbg, a, form, value, text, out);
  else
    read_debug_ranges(dbg, die, value, unit_base, text, out);
  dwarf_dealloc(dbg, a, DW_DLA_ATTR);
  return true;
}

size_t entry_range(Dwarf_Debug dbg, Dwarf_Die die, const std::vector<CodeRange> &ranges) {
  if (ranges.empty())
    return 0;
  Dwarf_Error err = nullptr;
  Dwarf_Attribute a = nullptr;
  int res = dwarf_attr(die, DW_AT_entry_pc, &a, &err);
  drop_error(dbg, res, err);
  if (res != DW_DLV_OK)
    return 0;
  Dwarf_Half form = 0;
  Dwarf_Addr entry = 0;
  res = dwarf_whatform(a, &form, &err);
  if (res == DW_DLV_OK && (form == DW_FORM_addr || dwarf_addr_form_is_indexed(form))) {
    res = dwarf_formaddr(a, &entry, &err);
  } else if (res == DW_DLV_OK) {
    Dwarf_Unsigned offset = 0;
    res = dwarf_formudata(a, &offset, &err);
    entry = ranges[0].lo + offset;
  }
  drop_error(dbg, res, err);
  dwarf_dealloc(dbg, a, DW_DLA_ATTR);
  if (res != DW_DLV_OK)
    return 0;
  for (size_t i = 0; i < ranges.size(); ++i)
    if (ranges[i].lo <= entry && entry < ranges[i].hi)
      return i;
  return 0;
}

} // namespace vesk
