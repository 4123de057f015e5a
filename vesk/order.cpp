// Placeholder: this step is built by a later change; until then it does nothing.
#include "vesk/order.h"

namespace vesk {

void reorder_procedures() {}

} // namespace vesk
