// Finding every place of an o32 executable that holds a code address vesk
// must repair, from the relocations the linker kept.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "com/compact_rel.h"
#include "tools/annotate/image.h"

namespace vesk::annotate {

struct Description {
  // The .compact_rel entries, in ascending address order.
  std::vector<CompactRelEntry> entries;
  // The GOT entries that page loads read: they hold 64 KB pages, never
  // code addresses, and must not be re-pointed.
  std::vector<uint32_t> got_pages;
  // Words to write into the annotated copy: calls the linker relaxed into
  // branches, given back their jalr/jr form (address, new word).
  std::vector<std::pair<uint32_t, uint32_t>> patches;
};

// Describes the image's code-address references.  A reference no entry can
// describe ends the run with an error that names it.
Description describe_references(const Image &im);

} // namespace vesk::annotate
