// Procedure discovery from DWARF.
#pragma once

#include <functional>
#include <libelf.h>

namespace vesk {

// beside: work to hand to the second core behind discovery's own.
void dwarf_interface(Elf *elf, const std::function<void()> &beside = {});

// The share of .debug_info, from its start, whose units the run's own
// thread reads; the units behind it are read on the second core (a little
// less than half by default; the tests vary it: the records must not
// depend on it).
void set_discovery_front_share(double share);

} // namespace vesk
