// Placeholder: this step is built by a later change; until then it does nothing.
#include "com/compact_rel.h"

namespace vesk {

void cm_rlc_reset(CompactRelCursor *) {}
bool cm_rlc_get(CompactRelCursor *, CompactRelEntry *) { return false; }
void new_cr_header(const uint8_t *, size_t) {}
void add_cr(uint32_t, uint32_t, uint32_t, uint32_t) {}
uint8_t *cr_head() { return nullptr; }
size_t cr_size() { return 0; }

} // namespace vesk
