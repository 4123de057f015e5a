// The new text and the text map.
#pragma once

#include <vector>

#include "base/proc.h"

namespace vesk {

// Run step, once the output image exists: the pages of its .text, which
// the layout writes whole, are made fresh (not copied from the file at
// the first write) on the second core, beside the checks and ties.
void prepare_new_text();

// Lays out the new text (bin.text_map and the output's .text) in the order
// of the procedure list, which it returns as an array.
std::vector<Proc *> reorder_procedures();

// Ends the run when the new layout moves code of an n32 or n64 executable
// that carries no events section: nothing describes its gp set-ups and
// address loads, so they could not be repaired.
void refuse_unrepairable_moves();

} // namespace vesk
