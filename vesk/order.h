// The new text and the text map.
#pragma once

namespace vesk {

void reorder_procedures();

// Ends the run when the new layout moves code that vesk cannot repair yet:
// the gp set-ups and address loads of n32 and n64 executables.
void refuse_unrepairable_moves();

} // namespace vesk
