// Placeholder: this step is built by a later change; until then it does nothing.
#include "vesk/r4000.h"

namespace vesk {

uint32_t check_r4000_bug_per_block(int, uint32_t, uint32_t, uint32_t) { return 0; }
void fix_r4000_bug() {}
void check_r4000_bug() {}

} // namespace vesk
