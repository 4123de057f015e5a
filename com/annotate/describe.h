// Finding every place of an executable that holds a code address vesk must
// repair, from the relocations the linker kept: .compact_rel entries for
// o32, events and content records for n32 and n64.
#pragma once

#include <cstdint>
#include <functional>
#include <set>
#include <utility>
#include <vector>

#include "com/compact_rel.h"
#include "com/annotate/image.h"

namespace vesk::annotate {

// One events or content record: a kind, the address it describes, and its
// value (the partner's half, the page entry's gp offset, the whole address,
// or for data words their count).
struct EventRef {
  uint32_t kind;
  uint64_t addr;
  uint64_t value;
};

struct Description {
  // The .compact_rel entries (o32), in ascending address order.
  std::vector<CompactRelEntry> entries;
  // n32, n64: the records of instructions in .text, and of data words
  // holding code addresses, in ascending address order.
  std::vector<EventRef> events;
  std::vector<EventRef> data;
  // The GOT entries that page loads read: they hold 64 KB pages, never
  // code addresses, and must not be re-pointed.
  std::vector<uint32_t> got_pages;
  // Words to write into the annotated copy: calls the linker relaxed into
  // branches, given back their jalr/jr form (address, new word).
  std::vector<std::pair<uint64_t, uint32_t>> patches;
  // GOT entries to set in the copy (index, value): a spare entry that takes
  // over a page from an entry that also holds a function's address, or the
  // page of a stretch of .text that no page entry reaches.
  std::vector<std::pair<uint32_t, uint64_t>> got_entries;
  // The spare entries given such a page (also in got_pages): n32 and n64
  // list them in a section of their own, as no page load reads them.
  std::vector<uint32_t> page_spares;
};

// GOT entry index as the input holds it; all ones for an entry outside .got.
uint64_t got_word(const Image &im, uint32_t index);

// The pages that spare GOT entries (local ones that the linker reserved
// and left 0, which no load from gp in the executable code, nor any entry
// of used, reads) take so that every address of .text lies within 32 KB of
// an entry whose value stays: a page entry, or a local entry that holds no
// code address (vesk re-points those that do).  value(k) is entry k's
// value in the copy.  Fewer than needed when the spares run out; none when
// the code reads the GOT through %hi/%lo pairs of gp offsets.
std::vector<std::pair<uint32_t, uint64_t>> pages_for_spares(const Image &im, const std::set<uint32_t> &page_entries,
                                                            const std::set<uint32_t> &used,
                                                            const std::function<uint64_t(uint32_t)> &value);

// Describes the image's code-address references.  A reference no entry can
// describe ends the run with an error that names it.
Description describe_references(const Image &im);
// The same for an n32 or n64 executable.
Description describe_events(const Image &im);
// The one of the two that the image's ABI needs.
Description describe(const Image &im);

} // namespace vesk::annotate
