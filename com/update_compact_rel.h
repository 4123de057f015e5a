// Re-pointing the .compact_rel section of an o32 executable.
#pragma once

namespace vesk {

void update_compact_rel();

} // namespace vesk
