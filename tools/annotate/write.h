// Writing the annotated copy of an executable.
#pragma once

#include <string>
#include <vector>

#include "com/compact_rel.h"
#include "tools/annotate/describe.h"
#include "tools/annotate/image.h"

namespace vesk::annotate {

// The bytes of the .compact_rel section for a description: a header of
// (tag, value) pairs (the entry count, the GOT page entries), then the
// encoded entries.
std::vector<uint8_t> compact_rel_section(const Description &d);

// Writes im's bytes, with the description's patches applied, to out,
// followed by a copy of the section name table that also names
// .compact_rel, the .compact_rel section and a new section header table.
// Every byte of the input keeps its offset.
void write_annotated(const Image &im, const Description &d, const std::vector<uint8_t> &compact_rel,
                     const std::string &out);

} // namespace vesk::annotate
