// Procedure checks and tying, before layout.
#pragma once

#include <cstdint>

#include "vesk/proc.h"

namespace vesk {

// First run of text words that no procedure covers (library stubs).
extern uint64_t libstub_lo;
extern uint64_t libstub_hi;

int put_proc_together(Proc *a, Proc *b);
void verify_proc();
void check_branch_out_of_procedure();
void check_merged_procedure();
void check_procedure_with_no_return();

} // namespace vesk
