// Placeholder: this step is built by a later change; until then it does nothing.
#include "com/update_compact_rel.h"

namespace vesk {

void update_compact_rel() {}

} // namespace vesk
