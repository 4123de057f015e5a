// Checks of the DWARF sections that the DWARF library cannot be trusted to
// reject safely when they are damaged.
#pragma once

#include <libelf.h>

namespace vesk {

// Ends the run with a clear message when a table of .debug_rnglists,
// .debug_loclists, .debug_addr or .debug_str_offsets does not fit its
// section, or when a DWARF section is compressed.
void check_dwarf_table_sections(Elf *elf);

} // namespace vesk
