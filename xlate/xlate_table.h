// The .MIPS.Xlate address translation section of a DWARF input.
#pragma once

namespace vesk {

void build_xlate_table();

} // namespace vesk
