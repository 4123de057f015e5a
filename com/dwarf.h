// Procedure discovery from DWARF.
#pragma once

#include <libelf.h>

namespace vesk {

void dwarf_interface(Elf *elf);

} // namespace vesk
