// Finding every place of an o32 executable that holds a code address vesk
// must repair, from the relocations the linker kept.
#pragma once

#include <vector>

#include "com/compact_rel.h"
#include "tools/annotate/image.h"

namespace vesk::annotate {

// The .compact_rel entries that describe the image's code-address
// references, in ascending address order.  A reference no entry can
// describe ends the run with an error that names it.
std::vector<CompactRelEntry> describe_references(const Image &im);

} // namespace vesk::annotate
