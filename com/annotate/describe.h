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

class GpMap;

// One events or content record: a kind, the address it describes, and its
// value (the partner's half, the page entry's gp offset, the whole address,
// or for data words their count).
struct EventRef {
  uint32_t kind;
  uint64_t addr;
  uint64_t value;
};

// A stretch of addresses (code, or data words) whose gp-relative
// instructions or words use gp rather than the primary GOT's.
struct GpRange {
  uint64_t lo, hi, gp;
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
  // Where the code or data uses a secondary GOT's gp (a program whose GOT
  // the linker split); empty for a program with one GOT.
  std::vector<GpRange> gp_ranges;
  // Page entries of secondary GOTs that only described page loads of code
  // addresses read, each the only entry of its GOT holding its value: vesk
  // may give them other pages when the code they serve moves.
  std::vector<uint32_t> free_pages;
};

// The page entries of secondary GOTs among pages that nothing but
// described page loads of code addresses reads (fixed: the entries
// something else reads), each the only entry of its GOT with its value.
std::vector<uint32_t> free_page_entries(const Image &im, const GpMap &gps, const std::set<uint32_t> &pages,
                                        const std::set<uint32_t> &fixed,
                                        const std::function<uint64_t(uint32_t)> &value);

// One GOT.  A program whose GOT outgrows what a 16-bit gp offset reaches
// gets several from GNU ld: the primary one (the one .dynamic describes),
// then secondary ones, each starting like the primary with the lazy
// resolver's entry and the module pointer's, then its local entries (pages
// and local addresses) and its global ones.  Each input object uses one of
// them; its gp is the GOT's start + 0x7ff0.
struct Got {
  uint32_t first = 0, end = 0; // its entries, as indices into .got
  uint64_t gp = 0;
  bool primary = false;
};

// Which GOT the code and data words of each place use: the primary one,
// unless a function's gp set-up computes another GOT's gp, and then every
// function of its group (foo and foo.cold) uses that one.
class GpMap {
public:
  explicit GpMap(const Image &im);
  const std::vector<Got> &gots() const { return gots_; }
  bool multi() const { return gots_.size() > 1; }
  const Got *got_of_gp(uint64_t gp) const; // null when gp is no GOT's
  const Got &got_of_entry(uint32_t index) const; // the primary for an index beyond them all
  // The function holding addr (and its group) uses gp; false when no
  // function symbol holds addr.  A group given two gps ends the run.
  bool set_function_gp(uint64_t addr, uint64_t gp);
  // The data words [addr, addr + n) are relative to gp.
  void set_data_gp(uint64_t addr, uint64_t n, uint64_t gp);
  uint64_t gp_at(uint64_t addr) const;
  const Got &got_at(uint64_t addr) const;
  // Once every set-up is known: the stretches of code of each gp.  A
  // program with secondary GOTs none of whose code sets up their gp reads
  // them in a way vesk does not know: refused.
  void freeze();
  // gp_at as stretches of addresses, where it is not the primary gp.
  std::vector<GpRange> ranges() const;

private:
  struct Function {
    uint64_t lo, hi;
    size_t group;
  };
  const Image &im_;
  std::vector<Got> gots_;
  Got whole_; // what the primary GOT stands for when none was found
  std::vector<Function> functions_; // by start
  std::vector<uint64_t> group_gp_;  // 0: not set
  std::vector<GpRange> data_;       // by start
  std::vector<GpRange> code_;       // by start, made by freeze()
  // The last answer of gp_at and the addresses [lo, hi) it holds for.
  struct Known {
    uint64_t lo = 1, hi = 0, gp = 0;
  };
  mutable Known known_;
  template <class F> bool for_each_holding(uint64_t addr, F f) const;
  bool leaves_gp_alone(uint64_t lo, uint64_t hi) const; // no word of the text in [lo, hi) names $28
};

// GOT entry index as the input holds it; all ones for an entry outside .got.
uint64_t got_word(const Image &im, uint32_t index);

// The pages that spare GOT entries (local ones that the linker reserved
// and left 0, which no load from gp in the executable code, nor any entry
// of used, reads) take so that every address of .text lies within 32 KB of
// an entry whose value stays: a page entry, or a local entry that holds no
// code address (vesk re-points those that do).  Each GOT is covered from
// its own entries; a secondary GOT of a position-independent executable
// gets none (the loader relocates only the entries that dynamic
// relocations name there, and a spare has none).  value(k) is entry k's
// value in the copy.  Fewer than needed when the spares run out; none when
// the code reads the GOT through %hi/%lo pairs of gp offsets.
std::vector<std::pair<uint32_t, uint64_t>> pages_for_spares(const Image &im, const GpMap &gps,
                                                            const std::set<uint32_t> &page_entries,
                                                            const std::set<uint32_t> &used,
                                                            const std::function<uint64_t(uint32_t)> &value);

// A describer's two passes over the relocations: the gp set-ups first
// (which GOT each function reads decides how its other references are
// read), then every reference.
template <class Describer> Description describe_with(const Image &im) {
  Describer d(im);
  for (const RelSection &rs : im.rel_sections)
    d.find_setups(rs);
  d.setups_found();
  for (const RelSection &rs : im.rel_sections)
    d.add(rs);
  return d.finish();
}

// Describes the image's code-address references.  A reference no entry can
// describe ends the run with an error that names it.
Description describe_references(const Image &im);
// The same for an n32 or n64 executable.
Description describe_events(const Image &im);
// The one of the two that the image's ABI needs.
Description describe(const Image &im);

} // namespace vesk::annotate
