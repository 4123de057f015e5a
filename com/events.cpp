// Placeholder: this step is built by a later change; until then it does nothing.
#include "com/events.h"

namespace vesk {

void process_update_events() {}

} // namespace vesk
