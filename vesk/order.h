// The new text and the text map.
#pragma once

namespace vesk {

void reorder_procedures();

// Ends the run when the new layout moves code of an n32 or n64 executable
// that carries no events section: nothing describes its gp set-ups and
// address loads, so they could not be repaired.
void refuse_unrepairable_moves();

} // namespace vesk
