// The events and content sections of n32 and 64-bit executables.
#pragma once

namespace vesk {

void process_update_events();

} // namespace vesk
