// The update of the .MIPS.events and .MIPS.content sections of n32 and n64
// executables: every record names a text address where something holds a
// code address (a gp set-up, an address build, a GOT page/offset pair) or
// a data address whose words hold one; the holders are repaired for the new
// layout and the events stream is rebuilt with the new addresses.
#pragma once

#include <cstdint>
#include <functional>
#include <libelf.h>
#include <vector>

#include "events/reader.h"

namespace vesk {

// A decoded record with the index of the section its addresses are
// relative to (the events section's sh_link).
struct EventRecord {
  EventEntry e;
  size_t text_section = 0;
  uint64_t base = 0; // that section's sh_addr
  uint64_t address() const { return base + e.address; }
};

// A record that goes into the rebuilt stream.
struct KeptEvent {
  uint32_t kind;
  uint64_t addr; // new absolute address
  uint64_t val1, val2, val3;
};

// Rebuilds an events stream from the records kept, sorted by address.
class EventsWriter {
public:
  void reset(size_t text_section, uint64_t base);
  void keep(uint32_t kind, uint64_t addr, uint64_t val1, uint64_t val2 = 0, uint64_t val3 = 0);
  // Sorts the kept records and encodes them: an EK_ADDR_RESET to the first
  // address (its 16-bit value the stream's length), then location steps of
  // 0x80|n for fewer than 128 words and EK_INCR_LOC_EXT for more.
  std::vector<uint8_t> build();
  void dump_listing() const;
  const std::vector<KeptEvent> &kept() const { return kept_; }

private:
  void advance(std::vector<uint8_t> &out, uint64_t addr);
  std::vector<KeptEvent> kept_;
  size_t text_section_ = 0;
  uint64_t base_ = 0;
  uint64_t last_addr_ = 0;
  bool started_ = false;
};

using EventCallback = std::function<void(Elf *, const EventRecord &)>;

// Calls back for every record of every events section, and of every content
// section unless the executable is PIC.  With a writer, each events section
// is rebuilt from what the callback keeps, and replaces the old one when it
// is no longer.  Ends the run when no section takes part.
void foreach_event(Elf *elf, EventsWriter *writer, const EventCallback &callback);

// Whether the image has an events or content section at all.
bool has_event_sections(Elf *elf);

// The run step for n32 and n64 executables.
void process_update_events();

// Marks the GOT entries that EK_GOT_PAGE records read as pages
// (bin.got_page), from the input, before the GOT is updated, and those
// that the GOT_PAGES_SECTION lists.
void read_event_got_pages();

// The gp and new target of every GOT page load and offset instruction
// forming a code address (bin.text_map filled).
struct EventPageUse {
  uint64_t gp, target;
};
std::vector<EventPageUse> event_page_uses();

// The section in which vesk-annotate lists, as big-endian 32-bit indices,
// the GOT entries of an n32 or n64 executable that it gave a 64 KB page
// and that no page load reads yet: spare entries that the linker left 0,
// which make pages reach every stretch of .text.
constexpr const char *GOT_PAGES_SECTION = ".vesk.got_pages";

} // namespace vesk
