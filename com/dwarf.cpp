// Placeholder: this step is built by a later change; until then it does nothing.
#include "com/dwarf.h"

namespace vesk {

void dwarf_interface(Elf *) {}

} // namespace vesk
