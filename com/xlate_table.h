// The .MIPS.Xlate section of a rewritten DWARF executable: which old code
// went where, as a table that debuggers, profilers and vesk-xlate read.
#pragma once

#include <cstdint>
#include <libelf.h>
#include <vector>

#include "xlate/xlate.h"

namespace vesk {

struct Proc;

// The section being written and where its next piece goes.  The output of
// an earlier run already has one; it is reused (old_offset and old_size
// are where it lay and what it held).
struct XlateSection {
  Elf_Scn *scn = nullptr;
  Elf_Data *reuse = nullptr; // its data descriptor, for the first piece
  uint64_t data_offset = 0;
  uint64_t old_offset = 0;
  uint64_t old_size = 0;
};

XlateSection create_xlate_section();
void add_xlate_data(XlateSection &s, std::vector<uint8_t> piece);
// Moves the section header table behind the section.
void finish_xlate(XlateSection &s);
// The end of the last section's contents in the file.
uint64_t find_end_of_elf(Elf *elf);
// Appends name to the section-name table and returns its offset there.
uint32_t add_section_name(Elf *elf, const char *name);

// Builds the table of the new layout (bin.text_map) into
// bin.xlate_pieces; for an input that carries a table of its own, the new
// table translates straight back to that table's old addresses.  order
// is the new-order list of procedures.
void build_xlate_table(const std::vector<Proc *> &order);
// Adds the built table to the output image as its last section.  Runs
// after every update that grows a section, since those move the sections
// behind them.
void add_xlate_section();

// Opens the input's own table (the output of an earlier run) into *t;
// false when the input has none.  A malformed table ends the run.
bool open_input_xlate(xlate::XlateTable *t);

} // namespace vesk
