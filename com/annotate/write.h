// Writing the annotated copy of an executable.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "com/compact_rel.h"
#include "com/annotate/describe.h"
#include "com/annotate/image.h"

namespace vesk::annotate {

// The bytes of the .compact_rel section for a description: a header of
// (tag, value) pairs (the entry count, the GOT page entries), then the
// encoded entries.
std::vector<uint8_t> compact_rel_section(const Description &d);

// The bytes of an events or content stream holding the records, with
// addresses relative to .text; an events stream gets room to be rebuilt
// in (vesk never lets the section grow).
std::vector<uint8_t> events_stream(const Image &im, const std::vector<EventRef> &records, bool events);

// A section the annotated copy adds, behind everything else in the file.
struct NewSection {
  std::string name;
  uint32_t type;
  bool link_text; // sh_link names .text (the base of event addresses)
  std::vector<uint8_t> bytes;
};

// The sections an annotation adds: .compact_rel for o32; .MIPS.events
// and, where data words hold code addresses, .MIPS.content for n32 and
// n64.  vesk reads no content section of a PIC executable, so there the
// data records go into the events stream.
std::vector<NewSection> annotation_sections(const Image &im, const Description &d);

// The annotated copy: im's bytes, with the description's patches applied
// to them in place (im's own bytes become the copy's: the input is not
// copied again), followed by a tail: a copy of the section name table
// that also names the added sections, the added sections and a new section
// header table.  Every byte of the input keeps its offset.
struct AnnotatedFile {
  const uint8_t *head = nullptr; // im's bytes
  size_t head_size = 0;
  std::vector<std::pair<uint64_t, uint64_t>> changed; // [offset, end) of the head's patched bytes
  std::vector<uint8_t> tail;
};
AnnotatedFile annotated_file(Image &im, const Description &d, const std::vector<NewSection> &added);
// The same, written to out through a temporary file renamed on success.
void write_annotated(Image &im, const Description &d, const std::vector<NewSection> &added, const std::string &out);

} // namespace vesk::annotate
