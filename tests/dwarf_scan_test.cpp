// The scanner of DWARF units on shapes no compiler writes: it must hand on
// the subprograms in the library's walk order, ask the library for each
// entry it cannot read in full, and leave a whole unit to the library when
// it would walk it otherwise than the library does (the bench-wide tests
// compare the two on compilers' output).
#include <gtest/gtest.h>

#include <dwarf.h>
#include <fcntl.h>
#include <functional>
#include <unistd.h>

#include "com/dwarf_scan.h"
#include "support/bench.h"
#include "support/synth_elf.h"

using namespace vesk;
using namespace vesk::test;

namespace {

void uleb(std::vector<uint8_t> &v, uint64_t x) {
  do {
    uint8_t b = x & 0x7f;
    x >>= 7;
    v.push_back(x ? b | 0x80 : b);
  } while (x);
}

// A DWARF 4 unit of 4-byte addresses, its abbreviations and strings.
struct Unit {
  std::vector<uint8_t> abbrev, info = {0, 0, 0, 0, 0, 4, 0, 0, 0, 0, 4}, str = {0};
  size_t header_size = 11;

  void abbr(uint64_t code, uint64_t tag, bool children, std::vector<std::pair<uint64_t, uint64_t>> specs) {
    uleb(abbrev, code), uleb(abbrev, tag), abbrev.push_back(children);
    for (auto [attr, form] : specs)
      uleb(abbrev, attr), uleb(abbrev, form);
    abbrev.push_back(0), abbrev.push_back(0);
  }
  // An entry: its offset.
  size_t die(uint64_t code) {
    size_t at = info.size();
    uleb(info, code);
    return at;
  }
  void u8(uint8_t b) { info.push_back(b); }
  void u32(uint32_t w) { put32(info, w); }
  void strp(const std::string &s) {
    u32(uint32_t(str.size()));
    str.insert(str.end(), s.begin(), s.end()), str.push_back(0);
  }
  void end() { info.push_back(0); }
  void patch32(size_t at, uint32_t w) {
    for (int i = 0; i < 4; ++i)
      info[at + size_t(i)] = uint8_t(w >> (24 - 8 * i));
  }
};

// What the scanner handed on: "unit NAME", "NAME lo-hi" for an entry read
// in full, "library @OFFSET" for one the library was asked for.
struct Seen : FactSink {
  std::vector<std::string> facts;
  void unit(const char *name) override { facts.push_back(std::string("unit ") + (name ? name : "-")); }
  void entry(const EntryFacts &f, const std::vector<CodeRange> &r) override {
    std::string s = f.raw_name ? f.raw_name : "@" + std::to_string(f.offset);
    if (s == "library")
      s += " @" + std::to_string(f.offset);
    if (!r.empty())
      s += " " + std::to_string(r[0].lo) + "-" + std::to_string(r[0].hi);
    if (f.have_origin)
      s += " origin " + std::to_string(f.origin);
    if (f.inlined)
      s += " inlined";
    if (f.specification)
      s += " specification";
    facts.push_back(s);
  }
};

// Scans u; false when the scanner left it to the library.
bool scan(Unit &u, std::vector<std::string> *facts) {
  u.abbrev.push_back(0);
  u.patch32(0, uint32_t(u.info.size() - 4));
  SynthElf img;
  img.add({.name = ".debug_info", .data = u.info, .align = 1});
  img.add({.name = ".debug_abbrev", .data = u.abbrev, .align = 1});
  img.add({.name = ".debug_str", .data = u.str, .align = 1});
  std::string path = img.write(temp_path("scan"));
  int fd = open(path.c_str(), O_RDONLY);
  Elf *elf = elf_begin(fd, ELF_C_READ_MMAP, nullptr);
  Seen seen;
  UnitScanner scanner(elf, [&](uint64_t offset, uint64_t, FactSink &into) {
    EntryFacts f;
    f.raw_name = "library";
    f.offset = offset;
    into.entry(f, {});
    return 1;
  });
  bool ok = scanner.scan(0, u.info.size(), u.header_size, seen);
  elf_end(elf);
  close(fd);
  unlink(path.c_str());
  *facts = seen.facts;
  return ok;
}

enum : uint64_t { CU = 1, SUB, SUB_KIDS, DECL_KIDS, CALL_SITE, BLOCK };

// A unit with the abbreviations the cases share: a unit entry with a name;
// a subprogram with a name, a pc range (the high pc an offset) and an
// origin, without and with children; a declaration with children; a call
// site and a lexical block, both with children.
Unit common() {
  Unit u;
  u.abbr(CU, DW_TAG_compile_unit, true, {{DW_AT_name, DW_FORM_strp}});
  std::vector<std::pair<uint64_t, uint64_t>> sub = {
      {DW_AT_name, DW_FORM_strp}, {DW_AT_low_pc, DW_FORM_addr}, {DW_AT_high_pc, DW_FORM_data4}};
  u.abbr(SUB, DW_TAG_subprogram, false, sub);
  u.abbr(SUB_KIDS, DW_TAG_subprogram, true, sub);
  u.abbr(DECL_KIDS, DW_TAG_subprogram, true, {{DW_AT_name, DW_FORM_strp}, {DW_AT_declaration, DW_FORM_flag_present}});
  u.abbr(CALL_SITE, DW_TAG_call_site, true, {});
  u.abbr(BLOCK, DW_TAG_lexical_block, true, {});
  u.die(CU), u.strp("u.c");
  return u;
}

void sub(Unit &u, uint64_t code, const std::string &name, uint32_t lo, uint32_t len) {
  u.die(code), u.strp(name), u.u32(lo), u.u32(len);
}

} // namespace

// Later siblings before children, the children of a later sibling before
// those of an earlier one; nothing under a call site or a declaration.
TEST(UnitScanner, HandsOnSubprogramsInTheLibrarysWalkOrder) {
  Unit u = common();
  sub(u, SUB_KIDS, "a", 0x100, 0x10);
  sub(u, SUB, "a1", 0x110, 8), u.end();
  sub(u, SUB_KIDS, "b", 0x120, 0x10);
  sub(u, SUB, "b1", 0x130, 8), u.end();
  u.die(CALL_SITE), sub(u, SUB, "under-call-site", 0x140, 4), u.end();
  u.die(DECL_KIDS), u.strp("declared"), sub(u, SUB, "under-declaration", 0x150, 4), u.end();
  u.die(BLOCK), sub(u, SUB, "in-block", 0x160, 4), u.end();
  u.end();
  std::vector<std::string> facts;
  ASSERT_TRUE(scan(u, &facts));
  EXPECT_EQ(facts, (std::vector<std::string>{"unit u.c", "a 256-272", "b 288-304", "in-block 352-356",
                                              "b1 304-312", "a1 272-280"}));
}

// Each entry the scanner cannot read in full goes to the library, in its
// place in the walk; the unit stays the scanner's.
TEST(UnitScanner, AsksTheLibraryForEntriesItCannotReadInFull) {
  struct Case {
    const char *what;
    std::vector<std::pair<uint64_t, uint64_t>> specs;
    std::function<void(Unit &)> values;
  };
  const Case cases[] = {
      {"a list of ranges", {{DW_AT_ranges, DW_FORM_sec_offset}}, [](Unit &u) { u.u32(0); }},
      {"a low pc that is no address", {{DW_AT_low_pc, DW_FORM_data4}, {DW_AT_high_pc, DW_FORM_data4}},
       [](Unit &u) { u.u32(0x100), u.u32(4); }},
      {"an origin inside an entry", {{DW_AT_abstract_origin, DW_FORM_ref4}}, [](Unit &u) { u.u32(12); }},
      {"an abstract name through an index", {{0x2009, DW_FORM_strx1}}, [](Unit &u) { u.u8(0); }},
      {"a name beyond the strings", {{DW_AT_name, DW_FORM_strp}}, [](Unit &u) { u.u32(1000); }},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    Unit u = common();
    u.abbr(7, DW_TAG_subprogram, false, c.specs);
    sub(u, SUB, "before", 0x100, 4);
    size_t odd = u.die(7);
    c.values(u);
    sub(u, SUB, "after", 0x200, 4);
    u.end();
    std::vector<std::string> facts;
    ASSERT_TRUE(scan(u, &facts));
    EXPECT_EQ(facts, (std::vector<std::string>{"unit u.c", "before 256-260", "library @" + std::to_string(odd),
                                                "after 512-516"}));
  }
  // What it reads in full: an origin at an entry, an inline code (not
  // inlined), a specification, a high pc given as an address.
  Unit u = common();
  u.abbr(7, DW_TAG_subprogram, false,
         {{DW_AT_abstract_origin, DW_FORM_ref4}, {DW_AT_inline, DW_FORM_data1}, {DW_AT_specification, DW_FORM_ref4},
          {DW_AT_low_pc, DW_FORM_addr}, {DW_AT_high_pc, DW_FORM_addr}});
  size_t first = u.die(SUB);
  u.strp("f"), u.u32(0x100), u.u32(4);
  u.die(7), u.u32(uint32_t(first)), u.u8(DW_INL_not_inlined), u.u32(uint32_t(first)), u.u32(0x300), u.u32(0x310);
  u.end();
  std::vector<std::string> facts;
  ASSERT_TRUE(scan(u, &facts));
  ASSERT_EQ(facts.size(), 3u);
  EXPECT_EQ(facts[2], "@" + std::to_string(first + 13) + " 768-784 origin " + std::to_string(first) +
                          " specification");
}

// Where the library would walk the unit otherwise, or the scanner cannot
// tell how it would, the unit is the library's, and nothing is handed on.
TEST(UnitScanner, LeavesToTheLibraryAUnitItWouldWalkOtherwise) {
  struct Case {
    const char *what;
    std::function<void(Unit &)> build;
  };
  const Case cases[] = {
      {"a leaf's sibling link elsewhere",
       [](Unit &u) {
         u.abbr(7, DW_TAG_variable, false, {{DW_AT_sibling, DW_FORM_ref4}});
         u.die(7), u.u32(40), sub(u, SUB, "f", 0x100, 4), u.end();
       }},
      {"a parent's sibling link past its sibling",
       [](Unit &u) {
         u.abbr(7, DW_TAG_subprogram, true, {{DW_AT_sibling, DW_FORM_ref4}});
         size_t at = u.die(7);
         u.u32(0), sub(u, SUB, "inner", 0x100, 4), u.end();
         sub(u, SUB, "skipped", 0x110, 4), u.end();
         u.patch32(at + 1, uint32_t(u.info.size() - 1));
       }},
      {"an end of children written in two bytes", [](Unit &u) { sub(u, SUB, "f", 0x100, 4), u.u8(0x80), u.u8(0); }},
      {"an abbreviation code given twice",
       [](Unit &u) {
         u.abbr(SUB, DW_TAG_variable, false, {});
         sub(u, SUB, "f", 0x100, 4), u.end();
       }},
      {"a header of another length than the library's", [](Unit &u) { u.header_size = 12, u.end(); }},
      {"an indirect form",
       [](Unit &u) {
         u.abbr(7, DW_TAG_variable, false, {{DW_AT_name, DW_FORM_indirect}});
         u.die(7), u.u8(DW_FORM_data1), u.u8(1), u.end();
       }},
      {"a number longer than the library reads",
       [](Unit &u) {
         u.abbr(7, DW_TAG_variable, false, {{DW_AT_byte_size, DW_FORM_udata}});
         u.die(7);
         for (int i = 0; i < 10; ++i)
           u.u8(0x80);
         u.u8(0), u.end();
       }},
      {"entries nested past the library's limit",
       [](Unit &u) {
         for (int i = 0; i < 2050; ++i)
           u.die(BLOCK);
         for (int i = 0; i < 2051; ++i)
           u.end();
       }},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    Unit u = common();
    c.build(u);
    std::vector<std::string> facts;
    EXPECT_FALSE(scan(u, &facts));
    EXPECT_TRUE(facts.empty());
  }
}
