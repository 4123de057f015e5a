// The function symbols of the input's .symtab: names for the code that the
// debug information leaves nameless, and procedures for the code that it
// does not describe at all (start files, static library parts, code the
// compiler folded into another function's).
#pragma once

#include <cstdint>
#include <libelf.h>
#include <string_view>
#include <vector>

#include "base/flat_index.h"

namespace vesk {

struct FunctionSymbol {
  uint64_t addr;    // start, inside .text
  uint64_t end;     // start + st_size, cut at the end of .text; addr when unsized
  const char *name; // never null; lives as long as the input descriptor
  const char *file; // base name of the file symbol before it, "-" for a global one
};

// The STT_FUNC symbols of .text, in address order (a start shared by several
// symbols lists the sized ones first, each group in symbol-table order).
// Empty when the input has no .symtab.
struct FunctionSymbols {
  std::vector<FunctionSymbol> by_addr;
  mutable FlatIndex sized_names; // the symbols of by_addr with a size, by name; built when first asked
  mutable bool sized_names_built = false;

  // The name of the first symbol that starts at addr, or null.
  const char *name_at(uint64_t addr) const;
  // Whether a symbol of that name starts at addr.
  bool named_at(uint64_t addr, const char *name) const;
  // Whether a symbol of that name has a size.
  bool has_sized(const char *name) const;
};

// Reads the symbols of elf (the input); a damaged table ends the run.
FunctionSymbols read_function_symbols(Elf *elf);

// DWARF inputs: a procedure for every part of a function symbol that no
// procedure made so far covers, added in address order.  Symbols without a
// size (start files written in assembler) reach, as one procedure, to the
// next code that has one.
void add_symbol_table_procs(const FunctionSymbols &syms);

// DWARF inputs: the alignment padding between two procedures (or behind
// the last) becomes part of the one before it, so that procedures follow
// each other without gaps, as the ties between neighbours need.
void attach_padding();

// mdebug inputs, before the sizes are derived from the starts: a start that
// disagrees with the only function symbol of the procedure's name is moved
// to the symbol's address, and every sized function symbol at whose address
// no procedure starts becomes a procedure of its own.
void place_mdebug_procs_by_symbols(const FunctionSymbols &syms);

} // namespace vesk
