// Procedure checks and tying, before layout.
#pragma once

#include <cstdint>

#include "base/proc.h"

namespace vesk {

int put_proc_together(Proc *a, Proc *b);
void verify_proc();
void check_branch_out_of_procedure();
void check_merged_procedure();
void check_procedure_with_no_return();

} // namespace vesk
