// What discovery reads of the entries of a DWARF unit, and a reader that
// takes it straight from the section bytes.
//
// Most entries of a program are no subprograms, and most subprogram
// entries give their name, code range and origin in the few forms a
// compiler writes.  The reader walks a unit's entries itself and leaves
// to the DWARF library only the subprogram entries it cannot read in full
// (a list of ranges, a name through an index or in another file), and
// whole units that are damaged or unusual: the library then walks them as
// before, so its messages, and the records, stay the same.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <libelf.h>
#include <memory>
#include <vector>

#include "com/dwarf_ranges.h"

namespace vesk {

// The attributes of a subprogram entry that discovery reads, by index (the
// first of a repeated one counts); the scanner reads DW_AT_sibling too.
enum DiscoveryAttr : unsigned {
  ATTR_NAME,
  ATTR_LOW_PC,
  ATTR_HIGH_PC,
  ATTR_RANGES,
  ATTR_ENTRY_PC,
  ATTR_ORIGIN,
  ATTR_INLINE,
  ATTR_ABSTRACT_NAME, // the vendor attribute 0x2009: a subprogram's linker-level name
  ATTR_SPECIFICATION,
  ATTR_DECLARATION,
  ATTR_SIBLING,
  ATTR_COUNT,
  ATTR_NONE = ATTR_COUNT
};
// The index of attribute `attr`; ATTR_NONE for one discovery does not read.
unsigned discovery_attr(uint64_t attr);

// Entries nested deeper than this are refused (the library's walk does
// that; the scanner leaves such a unit to it).  Compilers stay far below
// it; the limit is there because the library finds the sibling of an entry
// without a DW_AT_sibling link by reading through all of the entry's
// descendants, so the walk costs the size of the tree times its depth.
constexpr int kMaxEntryDepth = 2048;

// The code range of a subprogram.  DW_AT_high_pc is either an address or,
// from DWARF 4 on, an offset from DW_AT_low_pc.
struct PcRange {
  bool have_high = false;
  bool have_low = false;
  bool declaration = false;
  uint64_t low = 0;
  uint64_t high = 0;
};

// What discovery reads of a subprogram entry with code, or of an abstract
// or inlined one: all that its records and notes need, so that the reading
// may happen on another thread than the making of the records.  Names
// point into the input's string section.
struct EntryFacts {
  const char *raw_name = nullptr;         // may be null
  const char *raw_linkage_name = nullptr; // the vendor's abstract name; may be null
  PcRange pc;
  bool have_ranges = false; // ranges given instead of a pc range
  size_t entry = 0;         // the range that holds the entry
  bool have_origin = false;
  uint64_t origin = 0;
  bool inlined = false;
  uint64_t offset = 0;
  bool specification = false;
};

// Where a reader puts what it reads, in the order of the walk.
class FactSink {
public:
  virtual void unit(const char *raw_name) = 0;
  virtual void entry(const EntryFacts &f, const std::vector<CodeRange> &ranges) = 0;

protected:
  ~FactSink() = default;
};

// What a reader read, kept in order to be handed on later.
class KeptFacts : public FactSink {
public:
  void unit(const char *raw_name) override;
  void entry(const EntryFacts &f, const std::vector<CodeRange> &r) override;
  // Hands everything to sink, in the order it came.
  void replay(FactSink &sink) const;
  void clear() { items.clear(), ranges.clear(); }

private:
  struct Item {
    bool is_entry;
    const char *unit_name;
    EntryFacts facts;
    size_t first_range, n_ranges;
  };
  std::vector<Item> items;
  std::vector<CodeRange> ranges;
};

// The library's reading of the subprogram entry at `offset` (of tag `tag`)
// into sink: 1 when its children are to be walked, 0 when not, -1 when the
// library cannot find the entry.
using LibraryVisit = std::function<int(uint64_t offset, uint64_t tag, FactSink &sink)>;

// Reads units of .debug_info straight from the input's bytes.  One for
// each thread that reads units.
class UnitScanner {
public:
  // A scanner that leaves every unit to the library when the sections it
  // reads cannot be read straight from the input's image.
  UnitScanner(Elf *elf, LibraryVisit by_library);
  ~UnitScanner();
  UnitScanner(const UnitScanner &) = delete;
  UnitScanner &operator=(const UnitScanner &) = delete;

  // Hands the name and the entries of the unit whose header lies at `at`
  // (its first entry at at + header_size, the next unit at `next`) to
  // sink, in the order of the library's walk, and returns true; returns
  // false, having handed nothing, when the library must walk the unit.
  bool scan(uint64_t at, uint64_t next, size_t header_size, FactSink &sink);

  // Tests compare the records with and without the scanner.
  static void use(bool yes);

private:
  struct State;
  std::unique_ptr<State> s;
};

} // namespace vesk
