// Procedure discovery from DWARF.
#pragma once

#include <libelf.h>

namespace vesk {

void dwarf_interface(Elf *elf);

// The share of .debug_info, from its start, whose units the run's own
// thread reads; the units behind it are read on the second core (half by
// default; the tests vary it: the records must not depend on it).
void set_discovery_front_share(double share);

} // namespace vesk
