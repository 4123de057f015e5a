// Branches between the parts of one function.
//
// GCC splits a function into a hot part and a cold part (foo and
// foo.cold) that branch into each other with 16-bit offsets.  Tying them,
// as other branches between procedures are tied, would drag every
// procedure between them along (the cold parts sit together at the start
// of the text), so each part is placed on its own, and the layout is then
// checked: a cold part that would end up out of a branch's reach of its
// hot part is moved, with its chain, right behind the hot part's chain.
#pragma once

#include "base/proc.h"

namespace vesk {

// foo and foo.cold, foo.cold.1, ...: the parts of one function.
bool parts_of_one_function(const Proc *a, const Proc *b);

// Moves cold parts so that every branch between parts of one function
// stays within reach in the layout the list gives.
void keep_split_functions_in_reach();

} // namespace vesk
