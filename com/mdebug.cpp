// Placeholder: this step is built by a later change; until then it does nothing.
#include "com/mdebug.h"

namespace vesk {

void mdebug_interface() {}
void move_mdebug(const uint8_t *, size_t, uint64_t) {}
void update_mdebug() {}
void fixmdebug(uint8_t *, size_t, uint64_t) {}

} // namespace vesk
