// Procedure checks and tying, before layout.
#pragma once

#include <cstdint>

#include "base/proc.h"

namespace vesk {

class NoReturn;

int put_proc_together(Proc *a, Proc *b);
void verify_proc();
// The pass over the text that the check and the branch fix-up share,
// handed to the second core (the check takes it up, or makes it itself).
void start_scanning_text();
void check_branch_out_of_procedure();
// A procedure whose last call returns into the next procedure (the call
// fills the word before the last delay slot) is tied to it.
// What `calls` learns of the callees (which never return) serves every
// tie that asks it; without one each tie reads them for itself.
void tie_procedures_ending_in_a_call(NoReturn *calls = nullptr);
// A procedure with no return, no break and no jump away at its end runs on
// into the next procedure, and is tied to it.
void tie_procedures_without_a_return(NoReturn *calls = nullptr);
// Procedures that one FDE (with its exception table's call sites and
// landing pads) describes move as one piece: the unwinder finds them
// through a single initial location.
void tie_procedures_sharing_unwind_info();

} // namespace vesk
