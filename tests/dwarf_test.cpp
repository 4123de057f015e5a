// Procedure discovery from DWARF: cross-compiled programs of the three ABIs,
// the bench, damaged sections, and hand-made DWARF for what compilers do not
// write.
#include <gtest/gtest.h>

#include <chrono>
#include <dwarf.h>
#include <gelf.h>
#include <map>
#include <random>
#include <set>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "support/bench.h"
#include "support/elf_file.h"
#include "support/read_bin.h"
#include "support/run.h"
#include "support/synth_elf.h"
#include "vesk/bin.h"
#include "vesk/options.h"
#include "vesk/proc.h"
#include "vesk/reader.h"

using namespace vesk;
using namespace vesk::test;

namespace {

struct Rec {
  std::string name; // "<null>" for a nameless record
  std::string file;
  uint64_t addr;
  uint32_t size;
  bool operator==(const Rec &) const = default;
};

void PrintTo(const Rec &r, std::ostream *os) {
  *os << "{" << r.name << ", " << r.file << ", 0x" << std::hex << r.addr << ", " << std::dec << r.size << "}";
}

// Reads the program as the run does and returns its procedure table.
std::vector<Rec> discover(const std::string &path, int debug = 0) {
  reset_proc_table();
  option = Options{};
  option.program = path.c_str();
  option.debug = debug;
  bin = Bin{};
  read_orig_binary();
  std::vector<Rec> out;
  for (int i = 0; i < get_n_procs(); ++i) {
    const Proc *p = get_proc_by_index(i);
    out.push_back({p->name ? p->name : "<null>", p->file_name ? p->file_name : "<null>", p->old_addr, p->size});
  }
  release_input();
  return out;
}

// The sized function symbols of .text (of every section with all_sections).
std::vector<ElfSymbol> functions(const std::string &path, bool all_sections = false) {
  ElfFile f(path);
  Elf_Scn *text = f.scn(".text");
  std::vector<ElfSymbol> out;
  for (const ElfSymbol &s : f.functions(true))
    if (all_sections || (text != nullptr && s.shndx == elf_ndxscn(text)))
      out.push_back(s);
  return out;
}

// Hand-made executables go when the tests are done.
struct Images : ::testing::Environment {
  static inline std::vector<std::string> paths;
  void TearDown() override {
    for (const std::string &p : paths)
      unlink(p.c_str());
  }
};
const auto *images_env = ::testing::AddGlobalTestEnvironment(new Images);

} // namespace


TEST(DwarfCorruption, DamagedSectionsStopCleanly) {
  VESK_REQUIRE_BENCH();
  for (const BenchExe *b : {find_bench("calc", "o32", "dwarf", "pie"), find_bench("shapes", "n64", "dwarf", "no-pie")}) {
    ASSERT_NE(b, nullptr);
    std::string path = temp_path("dwarf-damaged");
    Images::paths.push_back(path);
    std::string file = read_file(b->path);
    ElfFile f(b->path);
    bool is64 = f.is64;
    GElf_Shdr info = f.shdr(".debug_info"), abbrev = f.shdr(".debug_abbrev");
    uint64_t info_header = f.ehdr().e_shoff + elf_ndxscn(f.scn(".debug_info")) * f.ehdr().e_shentsize;
    ASSERT_TRUE(info.sh_size > 100 && abbrev.sh_size > 0);

    // .debug_info cut short in its first unit (sh_size lies at byte 20 or
    // 32 of the section header).
    std::string cut = file;
    for (int i = 0, n = is64 ? 8 : 4; i < n; ++i)
      cut[info_header + (is64 ? 32 : 20) + i] = char((info.sh_size / 3) >> (8 * (n - 1 - i)));
    write_file(path, cut);
    EXPECT_EXIT(discover(path), ::testing::ExitedWithCode(1), "^Dwarf Error: [^\n]*\n$");

    // A range list table whose length runs past its section (the DWARF
    // library double-frees on some such lengths, so the tool checks first).
    GElf_Shdr ranges = f.shdr(".debug_rnglists");
    ASSERT_GT(ranges.sh_size, 4u);
    std::string longer = file;
    longer[ranges.sh_offset + 2] = char(0x7f);
    write_file(path, longer);
    EXPECT_EXIT(discover(path), ::testing::ExitedWithCode(1),
                "^Error: [^\n]*section .debug_rnglists is damaged: the table at 0 is 0x[0-9a-f]+ bytes long, "
                "beyond the section\\.\n$");
    std::string wide = file; // and on some address sizes
    wide[ranges.sh_offset + 6] = char(33);
    write_file(path, wide);
    EXPECT_EXIT(discover(path), ::testing::ExitedWithCode(1),
                "^Error: [^\n]*section .debug_rnglists is damaged: the table at 0 gives 33-byte addresses[^\n]*\n$");

    // Abbreviations that are garbage.
    std::string junk = file;
    for (uint64_t i = 0; i < abbrev.sh_size; ++i)
      junk[abbrev.sh_offset + i] = char(0xff - (i % 7));
    write_file(path, junk);
    EXPECT_EXIT(discover(path), ::testing::ExitedWithCode(1), "^Dwarf Error: [^\n]*\n$");

    // Scattered damage in the entries: the walk either finishes or stops
    // with one of the tool's fatal messages (which end the run at once, so
    // no crash can hide behind them); a crash or sanitizer report fails.
    std::mt19937 rng(1234);
    for (int round = 0; round < 12; ++round) {
      std::string hit = file;
      for (int k = 0; k < 4; ++k)
        hit[info.sh_offset + 11 + rng() % (info.sh_size - 11)] = char(rng());
      const std::string &p = path;
      write_file(p, hit);
      EXPECT_EXIT(
          {
            discover(p);
            std::fputs("walked\n", stderr);
            std::_Exit(0);
          },
          [](int st) { return WIFEXITED(st) && WEXITSTATUS(st) <= 1; }, "(^|\n)((Dwarf )?Error: |walked\n)")
          << p;
    }
  }
}

namespace {

// Which source file of a bench program defines each function: every source
// compiled on its own, its symbols read.
std::map<std::string, std::string> defining_files(const std::string &program) {
  std::map<std::string, std::string> owner;
  std::string src = std::string(VESK_SOURCE_DIR) + "/tests/programs/" + program;
  std::string work = temp_path("owners");
  run_command({"mkdir", "-p", work});
  std::string files = run_command({"sh", "-c", "ls *.c"}, src).out;
  for (size_t pos = 0, nl; (nl = files.find('\n', pos)) != std::string::npos; pos = nl + 1) {
    std::string file = files.substr(pos, nl - pos), obj = work + "/" + file + ".o";
    RunResult r = run_command({"mips-linux-gnu-gcc", "-O2", "-c", "-o", obj, file}, src);
    EXPECT_EQ(r.status, 0) << r.err;
    for (const ElfSymbol &s : functions(obj, true))
      owner[s.name] = file;
  }
  run_command({"rm", "-rf", work});
  return owner;
}

} // namespace

TEST(DwarfBench, EveryExecutableListsExactlyItsOwnFunctions) {
  VESK_REQUIRE_BENCH();
  std::map<std::string, std::map<std::string, std::string>> owners;
  int checked = 0;
  for (const BenchExe &e : bench_executables()) {
    if (e.debug != "dwarf")
      continue;
    ++checked;
    if (!owners.count(e.program))
      owners[e.program] = defining_files(e.program);
    const auto &owner = owners[e.program];
    std::map<uint64_t, ElfSymbol> by_addr;
    for (const ElfSymbol &s : functions(e.path))
      by_addr[s.value] = s;

    testing::internal::CaptureStderr();
    std::vector<Rec> recs = discover(e.path);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << e.name;
    // One record for every sized function of .text, each from the
    // program's own sources (the start files carry no DWARF and no sizes:
    // their one record comes from the symbol table), with the padding
    // behind it; an out-of-line copy of an inlined function has the name
    // of the symbol at its start.
    std::set<uint64_t> seen;
    for (const Rec &r : recs) {
      auto it = by_addr.find(r.addr);
      if (it == by_addr.end() && r.name == "__start" && r.file == "-")
        continue;
      ASSERT_NE(it, by_addr.end()) << e.name << " " << r.name;
      const ElfSymbol &s = it->second;
      EXPECT_TRUE(seen.insert(r.addr).second) << e.name << " " << s.name;
      EXPECT_GE(r.size, s.size) << e.name << " " << s.name;
      EXPECT_LT(r.size, s.size + 16) << e.name << " " << s.name;
      ASSERT_TRUE(owner.count(s.name)) << e.name << " " << s.name << " is not from the program's sources";
      EXPECT_EQ(r.file, owner.at(s.name)) << e.name << " " << s.name;
      EXPECT_EQ(r.name, s.name) << e.name;
    }
    EXPECT_EQ(seen.size(), by_addr.size()) << e.name;
  }
  EXPECT_EQ(checked, 36); // 3 programs, 3 ABIs x 3 code models, o32 also without explicit relocs
}

// ---------------------------------------------------------------------------
// Hand-made DWARF 4 with 4-byte addresses, written entry by entry.

namespace {

struct Attr {
  uint16_t at, form;
  std::vector<uint8_t> value;
};

void uleb(std::vector<uint8_t> &v, uint64_t x) {
  do {
    v.push_back(uint8_t((x & 0x7f) | (x >> 7 ? 0x80 : 0)));
    x >>= 7;
  } while (x);
}
Attr str(uint16_t at, const std::string &s) {
  std::vector<uint8_t> v(s.begin(), s.end());
  v.push_back(0);
  return {at, DW_FORM_string, v};
}
Attr name(const std::string &s) { return str(DW_AT_name, s); }
Attr word(uint16_t at, uint16_t form, uint32_t x) {
  std::vector<uint8_t> v;
  put32(v, x);
  return {at, form, v};
}
Attr low(uint32_t a) { return word(DW_AT_low_pc, DW_FORM_addr, a); }
Attr high_offset(uint32_t n) { return word(DW_AT_high_pc, DW_FORM_data4, n); }
Attr ref(uint16_t at, uint32_t unit_offset) { return word(at, DW_FORM_ref4, unit_offset); }
Attr flag(uint16_t at) { return {at, DW_FORM_flag_present, {}}; }
Attr data1(uint16_t at, uint8_t x) { return {at, DW_FORM_data1, {x}}; }

constexpr uint32_t kFirstEntry = 11; // behind the unit header

struct Dwarf {
  std::vector<uint8_t> abbrev, info;
  std::map<std::vector<uint8_t>, uint32_t> codes; // one abbreviation per shape
  size_t unit_start = 0;

  // Writes an entry; returns its offset.  One with children is followed by
  // them and then end().
  uint32_t entry(uint16_t tag, const std::vector<Attr> &attrs, bool children = false) {
    std::vector<uint8_t> shape;
    uleb(shape, tag);
    shape.push_back(children ? DW_CHILDREN_yes : DW_CHILDREN_no);
    for (const Attr &a : attrs) {
      uleb(shape, a.at);
      uleb(shape, a.form);
    }
    shape.insert(shape.end(), {0, 0});
    auto [it, added] = codes.emplace(shape, uint32_t(codes.size() + 1));
    if (added) {
      uleb(abbrev, it->second);
      abbrev.insert(abbrev.end(), shape.begin(), shape.end());
    }
    uint32_t at = uint32_t(info.size());
    uleb(info, it->second);
    for (const Attr &a : attrs)
      info.insert(info.end(), a.value.begin(), a.value.end());
    return at;
  }
  uint32_t sub(const std::string &n, uint32_t lo, uint32_t size) {
    return entry(DW_TAG_subprogram, {name(n), low(lo), high_offset(size)});
  }
  void end() { info.push_back(0); }
  void unit(const std::string &n) {
    unit_start = info.size();
    info.insert(info.end(), {0, 0, 0, 0, 0, 4, 0, 0, 0, 0, 4}); // length, version 4, abbrevs at 0, address size
    if (n.empty())
      entry(DW_TAG_compile_unit, {}, true);
    else
      entry(DW_TAG_compile_unit, {name(n)}, true);
  }
  void end_unit() {
    end();
    uint32_t len = uint32_t(info.size() - unit_start - 4);
    for (int i = 0; i < 4; ++i)
      info[unit_start + i] = uint8_t(len >> (24 - 8 * i));
  }
  // A 32-bit executable with this DWARF and a .text at 0x400000.
  std::string write() {
    abbrev.push_back(0);
    SynthElf e;
    e.add(text_section(0x400000, std::vector<uint32_t>(1024, 0x24020001))); // li v0,1: no padding between records
    for (auto [n, d] : {std::pair{".debug_abbrev", &abbrev}, std::pair{".debug_info", &info}}) {
      SynthSection s;
      s.name = n;
      s.data = *d;
      s.align = 1;
      e.add(s);
    }
    Images::paths.push_back(e.write(temp_path("dwarf")));
    return Images::paths.back();
  }
};

} // namespace

TEST(HandMadeDwarf, EntryShapesOrderAndMessages) {
  Dwarf d;
  d.unit("/src/dir/first.c");
  d.entry(DW_TAG_subprogram, {name("old_style"), low(0x400000), word(DW_AT_high_pc, DW_FORM_addr, 0x400010)});
  d.entry(DW_TAG_subprogram, {name("declared"), flag(DW_AT_declaration)});
  uint32_t lonely = d.entry(DW_TAG_subprogram, {name("lonely")});
  d.entry(DW_TAG_subprogram, {low(0x400030), high_offset(16)});
  uint32_t inlined = d.entry(DW_TAG_subprogram, {name("inlined"), data1(DW_AT_inline, DW_INL_inlined)});
  uint32_t not_inlined = d.entry(DW_TAG_subprogram, {name("not_inlined"), data1(DW_AT_inline, DW_INL_not_inlined)});
  d.entry(DW_TAG_subprogram, {name("declared_inline"), data1(DW_AT_inline, DW_INL_declared_inlined)});
  d.entry(DW_TAG_subprogram, {ref(DW_AT_abstract_origin, kFirstEntry)});
  // Nameless concrete instances (no symbol table here): named from their
  // abstract entry, found by its offset or by the abstract name.
  d.entry(DW_TAG_subprogram, {low(0x400040), high_offset(8), str(0x2009, "sgi_abstract")});
  d.entry(DW_TAG_subprogram, {name("sgi_named"), str(0x2009, "sgi_abstract"), data1(DW_AT_inline, DW_INL_inlined)});
  d.entry(DW_TAG_subprogram, {ref(DW_AT_abstract_origin, inlined), low(0x400070), high_offset(4)});
  d.entry(DW_TAG_namespace, {name("ns")}, true);
  d.sub("in_ns", 0x400050, 4);
  d.end();
  d.entry(DW_TAG_structure_type, {name("cls")}, true);
  d.sub("method", 0x400054, 12);
  d.end();
  d.end_unit();
  d.unit(""); // a unit without a name
  d.sub("anonymous_unit", 0x400060, 4);
  d.end_unit();
  std::string path = d.write();

  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  std::vector<Rec> got = discover(path, 1);
  std::string err = testing::internal::GetCapturedStderr();
  std::string out = testing::internal::GetCapturedStdout();

  // Later siblings before children: those of cls before those of ns.
  std::vector<Rec> want = {
      {"old_style", "first.c", 0x400000, 16}, {"<null>", "first.c", 0x400030, 16},
      {"sgi_named", "first.c", 0x400040, 8},   {"inlined", "first.c", 0x400070, 4},
      {"method", "first.c", 0x400054, 12},     {"in_ns", "first.c", 0x400050, 4},
      {"anonymous_unit", "<null>", 0x400060, 4},
  };
  EXPECT_EQ(got, want);
  // Only an entry that has neither code, nor an abstract origin, nor an
  // abstract name, nor DW_AT_inline other than DW_INL_not_inlined is
  // reported.
  char want_err[300];
  std::snprintf(want_err, sizeof want_err,
                "Warning: Subprogram lonely at dwarf section offset 0x%x (%u)is ignored\n.\n"
                "Warning: Subprogram not_inlined at dwarf section offset 0x%x (%u)is ignored\n.\n",
                lonely, lonely, not_inlined, not_inlined);
  EXPECT_EQ(err, want_err);
  size_t at = out.find("<Debug> File:");
  ASSERT_NE(at, std::string::npos) << out;
  EXPECT_EQ(out.substr(at), "<Debug> File:  /src/dir/first.c\n"
                            "<Debug>   Subprogram: old_style(0x400000-0x400010)\n"
                            "<Debug>   Subprogram: Function Name Unavailable(0x400030-0x400040)\n"
                            "<Debug>   Subprogram: abstract name: sgi_abstract\n(0x400040-0x400048)\n"
                            "<Debug>   Subprogram: Function Name Unavailable(0x400070-0x400074)\n"
                            "<Debug>   Subprogram: method(0x400054-0x400060)\n"
                            "<Debug>   Subprogram: in_ns(0x400050-0x400054)\n"
                            "<Debug> File:  \n"
                            "<Debug>   Subprogram: anonymous_unit(0x400060-0x400064)\n");
}

TEST(HandMadeDwarf, FatalShapes) {
  auto one_entry = [](std::vector<Attr> attrs) {
    Dwarf d;
    d.unit("a.c");
    d.entry(DW_TAG_subprogram, attrs);
    d.end_unit();
    return d.write();
  };
  // A sibling link into the entry's own children: the child would be
  // reached twice (and with such links nested, exponentially often).
  Dwarf inward;
  inward.unit("");
  uint32_t child = uint32_t(inward.info.size()) + 1 + 2 + 4 + 4 + 4; // code, "p", low, high, sibling
  inward.entry(DW_TAG_subprogram, {name("p"), low(0x400000), high_offset(4), ref(DW_AT_sibling, child)}, true);
  EXPECT_EQ(inward.sub("c", 0x400000, 4), child);
  inward.end();
  inward.end_unit();
  // The images are written here, not in the dying children.
  const std::pair<std::string, std::string> cases[] = {
      {one_entry({name("half"), word(DW_AT_high_pc, DW_FORM_addr, 0x400010)}),
       "^Error: Have highpc but no lowpc on half\n\\.\n$"},
      {one_entry({name("bad"), low(0x400000), str(DW_AT_high_pc, "x")}),
       "^Dwarf Error: [^\n]* dwarf_highpc in bad\n$"},
      {inward.write(),
       "^Error: [^\n]*: the DWARF entry at offset 0x1b is reached twice; the entry tree is damaged\\.\n$"},
      // libdwarf refuses an empty .debug_info
      {Dwarf().write(), "^Error: com/dwarf:405 ASSERT\\(i != DW_DLV_ERROR\\)\\.\n$"},
  };
  for (const auto &[path, message] : cases)
    EXPECT_EXIT(discover(path), ::testing::ExitedWithCode(1), message);
}

namespace {

// A unit with a long chain of nameless concrete copies of one abstract entry
// (each leaving an inline note that needs its name) and a unit nested
// `depth` levels deep with a subprogram at the bottom.
std::string chain_and_depth(int chain, int depth) {
  Dwarf d;
  d.unit("chain.c");
  uint32_t abstract = d.entry(DW_TAG_subprogram, {name("copied"), data1(DW_AT_inline, DW_INL_inlined)});
  for (int i = 0; i < chain; ++i)
    d.entry(DW_TAG_subprogram, {low(0x400000 + 4 * (i % 1024)), high_offset(4), ref(DW_AT_abstract_origin, abstract)});
  d.end_unit();
  d.unit("deep.c");
  for (int i = 1; i < depth; ++i)
    d.entry(DW_TAG_lexical_block, {}, true);
  d.sub("bottom", 0x400100, 8);
  for (int i = 1; i < depth; ++i)
    d.end();
  d.end_unit();
  return d.write();
}

} // namespace

TEST(HandMadeDwarf, LongChainsAndDeepNestingWithoutRecursion) {
  constexpr int kChain = 30000;
  constexpr int kDepth = 2048; // the deepest nesting accepted
  std::string path = chain_and_depth(kChain, kDepth);
  auto t0 = std::chrono::steady_clock::now();
  std::vector<Rec> got = discover(path);
  EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count(), 20.0);
  ASSERT_EQ(got.size(), size_t(kChain) + 1);
  EXPECT_EQ(got[0], (Rec{"copied", "chain.c", 0x400000, 4}));
  EXPECT_EQ(got[kChain - 1], (Rec{"copied", "chain.c", 0x400000 + 4 * ((kChain - 1) % 1024), 4}));
  EXPECT_EQ(got[kChain], (Rec{"bottom", "deep.c", 0x400100, 8}));

  path = chain_and_depth(1, kDepth + 1);
  EXPECT_EXIT(discover(path), ::testing::ExitedWithCode(1),
              "^Error: [^\n]*: the DWARF entry at offset 0x[0-9a-f]+ is nested more than 2048 levels deep\\.\n$");
}
