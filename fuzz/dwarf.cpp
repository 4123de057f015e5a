// Procedure discovery from DWARF on a whole executable: the reader, then
// the unit walk, range lists, inline notes and the symbol table that
// completes them.  Inputs without DWARF stop after the reader.
#include "com/dwarf.h"
#include "com/reader.h"
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  vesk::fuzz::MemFile file(data, size);
  vesk::fuzz::in_fresh_run([&] {
    vesk::option.program = file.path();
    vesk::read_input();
    if (vesk::bin.debug_kind == vesk::DEBUG_DWARF)
      vesk::dwarf_interface(vesk::bin.in_elf);
  });
  return 0;
}
