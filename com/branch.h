// Branch and jump fix-up of the moved code.
#pragma once

#include <cstdint>

namespace vesk {

void update_branch_offset();
void update_one_branch(uint32_t word, uint64_t old_pc);
void update_jump(uint32_t word, uint64_t old_pc);

} // namespace vesk
