// The R4000 end-of-page workaround.
#pragma once

#include <cstdint>

namespace vesk {

uint32_t check_r4000_bug_per_block(int report, uint32_t new_start, uint32_t old_start, uint32_t size);
void fix_r4000_bug();
void check_r4000_bug();

} // namespace vesk
