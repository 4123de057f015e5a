// Placeholder: this step is built by a later change; until then it does nothing.
#include "xlate/xlate_table.h"

namespace vesk {

void build_xlate_table() {}

} // namespace vesk
