// Procedure discovery from DWARF: real cross-compiled programs of the three
// ABIs, and hand-made DWARF for the cases compilers do not produce.
#include <gtest/gtest.h>

#include <dwarf.h>

#include <chrono>
#include <cstdlib>
#include <sys/wait.h>
#include <fcntl.h>
#include <gelf.h>
#include <map>
#include <random>
#include <ostream>
#include <string>
#include <unistd.h>
#include <vector>

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
std::vector<Rec> discover(const std::string &path, int debug = 0, int verbose = 0) {
  reset_proc_table();
  option = Options{};
  option.program = path.c_str();
  option.debug = debug;
  option.verbose = verbose;
  bin = Bin{};
  read_orig_binary();
  std::vector<Rec> out;
  for (int i = 0; i < get_n_procs(); ++i) {
    const Proc *p = get_proc_by_index(i);
    out.push_back({p->name ? p->name : "<null>", p->file_name ? p->file_name : "<null>", p->old_addr, p->size});
  }
  elf_end(bin.in_elf);
  close(bin.in_fd);
  if (bin.is_elf32) { // the widened header is the reader's own copy
    std::free(in_ehdr);
    in_ehdr = nullptr;
  }
  reset_proc_table();
  option = Options{};
  return out;
}

struct Sym {
  std::string name;
  uint64_t addr;
  uint64_t size;
};

// The sized function symbols of .text, from the static symbol table.
std::vector<Sym> text_functions(const std::string &path) {
  elf_version(EV_CURRENT);
  int fd = open(path.c_str(), O_RDONLY);
  Elf *e = elf_begin(fd, ELF_C_READ, nullptr);
  size_t shstrndx = 0;
  elf_getshdrstrndx(e, &shstrndx);
  size_t text_index = 0;
  Elf_Scn *symtab = nullptr;
  for (Elf_Scn *scn = elf_nextscn(e, nullptr); scn; scn = elf_nextscn(e, scn)) {
    GElf_Shdr sh;
    gelf_getshdr(scn, &sh);
    if (std::string(elf_strptr(e, shstrndx, sh.sh_name)) == ".text")
      text_index = elf_ndxscn(scn);
    if (sh.sh_type == SHT_SYMTAB)
      symtab = scn;
  }
  std::vector<Sym> out;
  GElf_Shdr sh;
  gelf_getshdr(symtab, &sh);
  Elf_Data *d = elf_getdata(symtab, nullptr);
  for (size_t i = 0; i < sh.sh_size / sh.sh_entsize; ++i) {
    GElf_Sym s;
    gelf_getsym(d, int(i), &s);
    if (GELF_ST_TYPE(s.st_info) == STT_FUNC && s.st_size > 0 && s.st_shndx == text_index)
      out.push_back({elf_strptr(e, sh.sh_link, s.st_name), s.st_value, s.st_size});
  }
  elf_end(e);
  close(fd);
  return out;
}

// ---------------------------------------------------------------------------
// Real programs.

const char *kMainSource = R"(#include <stdio.h>
int global_b(int);
static int sq(int x) { return x * x; }
static int __attribute__((noinline)) twice(int x) { return x + x + sq(x); }
int fact(int n) { return n <= 1 ? 1 : n * fact(n - 1); }
int outer1(int x) {
  int __attribute__((noinline)) nested1(int y) { return y * x + 1; }
  return nested1(x) + 2;
}
int outer2(int x) {
  int __attribute__((noinline)) nested2(int y) { return y - x; }
  return nested2(x * 3);
}
int main(int argc, char **argv) {
  (void)argv;
  printf("%d\n", fact(argc + 3) + twice(argc) + global_b(argc) + outer1(argc) + outer2(argc));
  return 0;
}
)";

const char *kOtherSource = R"(static int counter;
static int __attribute__((noinline)) bump(int x) { counter += x; return counter; }
int global_b(int x) { return bump(x) + bump(x * 2); }
)";

struct Variant {
  const char *label;
  std::vector<std::string> cc;
  const char *pie;
};

const Variant kVariants[] = {
    {"o32_pie", {"mips-linux-gnu-gcc"}, "-pie"},
    {"o32_nopie", {"mips-linux-gnu-gcc"}, "-no-pie"},
    {"n32_pie", {"mips64-linux-gnuabi64-gcc", "-mabi=n32"}, "-pie"},
    {"n32_nopie", {"mips64-linux-gnuabi64-gcc", "-mabi=n32"}, "-no-pie"},
    {"n64_pie", {"mips64-linux-gnuabi64-gcc"}, "-pie"},
    {"n64_nopie", {"mips64-linux-gnuabi64-gcc"}, "-no-pie"},
};

void PrintTo(const Variant &v, std::ostream *os) { *os << v.label; }

// The programs are compiled once per test process, into a directory that
// goes when the tests are done.
struct Programs : ::testing::Environment {
  static inline std::string dir;
  static inline std::vector<std::string> images; // hand-made executables
  void TearDown() override {
    if (!dir.empty())
      run_command({"rm", "-rf", dir});
    for (const std::string &p : images)
      unlink(p.c_str());
  }
  // main.c is named by its full path, other.c relative to the build
  // directory: both unit names must come down to their base names.
  static std::string build(const Variant &v) {
    if (dir.empty()) {
      dir = temp_path("dwarf-src");
      EXPECT_EQ(run_command({"mkdir", "-p", dir}).status, 0);
      write_file(dir + "/main.c", kMainSource);
      write_file(dir + "/other.c", kOtherSource);
    }
    std::string out = dir + "/" + v.label;
    if (access(out.c_str(), F_OK) != 0) {
      std::vector<std::string> argv = v.cc;
      for (const char *a : {"-g", "-O2", "-Wl,-q", v.pie, "-o"})
        argv.push_back(a);
      argv.push_back(out);
      argv.push_back(dir + "/main.c");
      argv.push_back("other.c");
      RunResult r = run_command(argv, dir);
      EXPECT_EQ(r.status, 0) << r.err;
    }
    return out;
  }
};
const auto *programs_env = ::testing::AddGlobalTestEnvironment(new Programs);

using RealProgram = ::testing::TestWithParam<Variant>;

} // namespace

// The symbol behind every record, in the order the records are made: the
// unit of main.c first, its top-level entries before the nested ones, then
// other.c.  Out-of-line copies of functions that were also inlined carry
// their name only in the abstract entry, so their records have none.
struct Expected {
  const char *symbol;
  const char *name;
  const char *file;
};
const Expected kExpected[] = {
    {"main", "main", "main.c"},       {"twice", "twice", "main.c"},       {"fact", "<null>", "main.c"},
    {"outer1", "<null>", "main.c"},   {"outer2", "<null>", "main.c"},     {"nested1.0", "nested1", "main.c"},
    {"nested2.1", "nested2", "main.c"}, {"global_b", "global_b", "other.c"}, {"bump", "bump", "other.c"},
};

TEST_P(RealProgram, OneRecordPerSubprogramWithCode) {
  std::string path = Programs::build(GetParam());
  std::map<std::string, Sym> syms;
  for (const Sym &s : text_functions(path))
    syms[s.name] = s;
  // Nothing else in .text has a size: the start files bring no DWARF.
  ASSERT_EQ(syms.size(), std::size(kExpected));
  std::vector<Rec> want;
  std::string want_dump;
  for (const Expected &e : kExpected) {
    ASSERT_TRUE(syms.count(e.symbol)) << e.symbol;
    const Sym &s = syms[e.symbol];
    want.push_back({e.name, e.file, s.addr, uint32_t(s.size)});
    if (e.symbol == std::string("main"))
      want_dump += "<Debug> File:  " + Programs::dir + "/main.c\n";
    if (e.symbol == std::string("global_b"))
      want_dump += "<Debug> File:  other.c\n";
    char line[200];
    std::snprintf(line, sizeof line, "<Debug>   Subprogram: %s(%#llx-%#llx)\n",
                  e.name == std::string("<null>") ? "Function Name Unavailable" : e.name,
                  (unsigned long long)s.addr, (unsigned long long)(s.addr + s.size));
    want_dump += line;
  }

  // Declarations (printf, global_b in main.c) and the abstract entries of
  // inlined functions pass without a word, and nothing is printed on
  // standard output without -debug.
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  std::vector<Rec> got = discover(path);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(got, want);

  testing::internal::CaptureStdout();
  EXPECT_EQ(discover(path, 1), want);
  std::string out = testing::internal::GetCapturedStdout();
  size_t at = out.find("<Debug> File:"); // behind the reader's own lines
  ASSERT_NE(at, std::string::npos) << out;
  EXPECT_EQ(out.substr(at), want_dump);
}

INSTANTIATE_TEST_SUITE_P(Abis, RealProgram, ::testing::ValuesIn(kVariants),
                         [](const auto &info) { return std::string(info.param.label); });

namespace {

// A copy of an executable with the bytes of one section changed.
struct SectionPlace {
  uint64_t header_offset; // of the section header in the file
  uint64_t offset, size;
  bool is64;
};

SectionPlace find_section(const std::string &path, const std::string &name) {
  elf_version(EV_CURRENT);
  int fd = open(path.c_str(), O_RDONLY);
  Elf *e = elf_begin(fd, ELF_C_READ, nullptr);
  size_t shstrndx = 0;
  elf_getshdrstrndx(e, &shstrndx);
  GElf_Ehdr eh;
  gelf_getehdr(e, &eh);
  SectionPlace place{};
  for (Elf_Scn *scn = elf_nextscn(e, nullptr); scn; scn = elf_nextscn(e, scn)) {
    GElf_Shdr sh;
    gelf_getshdr(scn, &sh);
    if (name == elf_strptr(e, shstrndx, sh.sh_name))
      place = {eh.e_shoff + elf_ndxscn(scn) * eh.e_shentsize, sh.sh_offset, sh.sh_size,
               gelf_getclass(e) == ELFCLASS64};
  }
  elf_end(e);
  close(fd);
  EXPECT_NE(place.size, 0u) << name;
  return place;
}

void put_be(std::string &file, uint64_t at, uint64_t v, int bytes) {
  for (int i = 0; i < bytes; ++i)
    file[at + i] = char(v >> (8 * (bytes - 1 - i)));
}

// Runs the discovery in a child: it must either finish or stop with one of
// the tool's own fatal messages (which end the run at once, so nothing can
// crash behind them); a crash, a hang or a sanitizer report fails.
void expect_clean_outcome(const std::string &path) {
  EXPECT_EXIT(
      {
        discover(path);
        std::fputs("walked\n", stderr);
        std::_Exit(0);
      },
      [](int st) { return WIFEXITED(st) && WEXITSTATUS(st) <= 1; }, "(^|\n)((Dwarf )?Error: |walked\n)")
      << path;
}

} // namespace

TEST(DwarfCorruption, DamagedSectionsStopCleanly) {
  for (const char *label : {"o32_pie", "n64_nopie"}) {
    const Variant *v = nullptr;
    for (const Variant &x : kVariants)
      if (x.label == std::string(label))
        v = &x;
    std::string path = Programs::build(*v);
    std::string file = read_file(path);
    SectionPlace info = find_section(path, ".debug_info");
    SectionPlace abbrev = find_section(path, ".debug_abbrev");

    // .debug_info cut short in the middle of the first unit.
    std::string cut = file;
    put_be(cut, info.header_offset + (info.is64 ? 32 : 20), info.size / 3, info.is64 ? 8 : 4);
    write_file(path + ".cut", cut);
    EXPECT_EXIT(discover(path + ".cut"), ::testing::ExitedWithCode(1), "^Dwarf Error: [^\n]*\n$");

    // Abbreviations that are garbage.
    std::string junk = file;
    for (uint64_t i = 0; i < abbrev.size; ++i)
      junk[abbrev.offset + i] = char(0xff - (i % 7));
    write_file(path + ".junk", junk);
    EXPECT_EXIT(discover(path + ".junk"), ::testing::ExitedWithCode(1), "^Dwarf Error: [^\n]*\n$");

    // Scattered damage in the entries.
    std::mt19937 rng(1234);
    for (int round = 0; round < 12; ++round) {
      std::string hit = file;
      for (int k = 0; k < 4; ++k)
        hit[info.offset + 11 + rng() % (info.size - 11)] = char(rng());
      std::string p = path + ".hit" + std::to_string(round);
      write_file(p, hit);
      expect_clean_outcome(p);
    }
  }
}

// ---------------------------------------------------------------------------
// Hand-made DWARF (version 4) for the shapes compilers do not write.

namespace {

struct Attr {
  uint16_t at;
  uint16_t form;
  std::vector<uint8_t> value;
};

struct Die {
  uint16_t tag;
  std::vector<Attr> attrs;
  std::vector<Die> children;
};

void uleb(std::vector<uint8_t> &v, uint64_t x) {
  do {
    uint8_t b = x & 0x7f;
    x >>= 7;
    v.push_back(b | (x ? 0x80 : 0));
  } while (x);
}

Attr str(uint16_t at, const std::string &s) {
  std::vector<uint8_t> v(s.begin(), s.end());
  v.push_back(0);
  return {at, DW_FORM_string, v};
}
Attr name(const std::string &s) { return str(DW_AT_name, s); }
Attr addr4(uint16_t at, uint32_t a) {
  std::vector<uint8_t> v;
  put32(v, a);
  return {at, DW_FORM_addr, v};
}
Attr data4(uint16_t at, uint32_t x) {
  std::vector<uint8_t> v;
  put32(v, x);
  return {at, DW_FORM_data4, v};
}
Attr data1(uint16_t at, uint8_t x) { return {at, DW_FORM_data1, {x}}; }
Attr ref4(uint16_t at, uint32_t unit_offset) {
  std::vector<uint8_t> v;
  put32(v, unit_offset);
  return {at, DW_FORM_ref4, v};
}
Attr flag(uint16_t at) { return {at, DW_FORM_flag_present, {}}; }

// A subprogram at [lo, lo + size), its high pc as an offset (DWARF 4 style).
Die sub(const std::string &n, uint32_t lo, uint32_t size) {
  Die d{DW_TAG_subprogram, {}, {}};
  if (!n.empty())
    d.attrs.push_back(name(n));
  d.attrs.push_back(addr4(DW_AT_low_pc, lo));
  d.attrs.push_back(data4(DW_AT_high_pc, size));
  return d;
}

// .debug_abbrev and .debug_info of 32-bit units, one abbreviation per shape.
struct DwarfImage {
  std::vector<uint8_t> abbrev, info;
  std::map<std::vector<uint8_t>, uint32_t> codes;

  uint32_t code_for(uint16_t tag, const std::vector<Attr> &attrs, bool children) {
    std::vector<uint8_t> shape;
    uleb(shape, tag);
    shape.push_back(children ? DW_CHILDREN_yes : DW_CHILDREN_no);
    for (const Attr &a : attrs) {
      uleb(shape, a.at);
      uleb(shape, a.form);
    }
    shape.push_back(0);
    shape.push_back(0);
    auto it = codes.find(shape);
    if (it != codes.end())
      return it->second;
    uint32_t code = uint32_t(codes.size() + 1);
    codes[shape] = code;
    uleb(abbrev, code);
    abbrev.insert(abbrev.end(), shape.begin(), shape.end());
    return code;
  }
  void entry(uint16_t tag, const std::vector<Attr> &attrs, bool children) {
    uleb(info, code_for(tag, attrs, children));
    for (const Attr &a : attrs)
      info.insert(info.end(), a.value.begin(), a.value.end());
  }
  void emit(const Die &d) {
    entry(d.tag, d.attrs, !d.children.empty());
    if (d.children.empty())
      return;
    for (const Die &c : d.children)
      emit(c);
    info.push_back(0);
  }
  // Starts a unit; returns its offset.  end_unit() fills in its length.
  size_t begin_unit() {
    size_t start = info.size();
    put32(info, 0);
    put16(info, 4);
    put32(info, 0);
    info.push_back(4);
    return start;
  }
  void end_unit(size_t start) {
    uint32_t len = uint32_t(info.size() - start - 4);
    for (int i = 0; i < 4; ++i)
      info[start + i] = uint8_t(len >> (24 - 8 * i));
  }
  void unit(const Die &cu) {
    size_t start = begin_unit();
    emit(cu);
    end_unit(start);
  }
  // A 32-bit executable with this DWARF and a .text at 0x400000.
  std::string write(const std::string &stem) {
    abbrev.push_back(0);
    SynthElf e;
    e.add(text_section(0x400000, std::vector<uint32_t>(1024, 0)));
    SynthSection a;
    a.name = ".debug_abbrev";
    a.data = abbrev;
    a.align = 1;
    e.add(a);
    SynthSection i;
    i.name = ".debug_info";
    i.data = info;
    i.align = 1;
    e.add(i);
    Programs::images.push_back(e.write(temp_path(stem)));
    return Programs::images.back();
  }
};

Die unit_die(const std::string &n, std::vector<Die> children) {
  Die cu{DW_TAG_compile_unit, {}, std::move(children)};
  if (!n.empty())
    cu.attrs.push_back(name(n));
  return cu;
}

// The offset of the first entry inside a 32-bit unit (behind its header).
constexpr uint32_t kFirstEntry = 11;

} // namespace

TEST(HandMadeDwarf, EntryShapesAndMessages) {
  Die declared{DW_TAG_subprogram, {name("declared"), flag(DW_AT_declaration)}, {}};
  Die lonely{DW_TAG_subprogram, {name("lonely")}, {}};
  Die inlined{DW_TAG_subprogram, {name("inlined"), data1(DW_AT_inline, DW_INL_inlined)}, {}};
  Die declared_inline{DW_TAG_subprogram, {name("declared_inline"), data1(DW_AT_inline, DW_INL_declared_inlined)}, {}};
  Die origin_only{DW_TAG_subprogram, {ref4(DW_AT_abstract_origin, kFirstEntry)}, {}};
  Die abstract_named = sub("", 0x400040, 8);
  abstract_named.attrs.push_back(str(0x2009, "sgi_abstract"));
  Die concrete = sub("", 0x400048, 8);
  concrete.attrs.push_back(ref4(DW_AT_abstract_origin, kFirstEntry));
  Die old_style{DW_TAG_subprogram, {name("old_style"), addr4(DW_AT_low_pc, 0x400000), addr4(DW_AT_high_pc, 0x400010)}, {}};
  Die ns{0x39 /* DW_TAG_namespace */, {name("ns")}, {sub("in_ns", 0x400050, 4)}};
  Die cls{DW_TAG_structure_type, {name("cls")}, {sub("method", 0x400054, 12)}};

  DwarfImage img;
  img.unit(unit_die("/src/dir/first.c",
                    {old_style, sub("offset_style", 0x400010, 0x20), declared, lonely, sub("", 0x400030, 16), inlined,
                     declared_inline, origin_only, abstract_named, concrete, ns, cls}));
  // A second unit, without a name.
  img.unit(unit_die("", {sub("anonymous_unit", 0x400060, 4)}));
  std::string path = img.write("shapes");

  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  std::vector<Rec> got = discover(path, 1);
  std::string err = testing::internal::GetCapturedStderr();
  std::string out = testing::internal::GetCapturedStdout();

  // Later siblings first: the children of cls come before those of ns.
  std::vector<Rec> want = {
      {"old_style", "first.c", 0x400000, 16}, {"offset_style", "first.c", 0x400010, 0x20},
      {"<null>", "first.c", 0x400030, 16},     {"<null>", "first.c", 0x400040, 8},
      {"<null>", "first.c", 0x400048, 8},      {"method", "first.c", 0x400054, 12},
      {"in_ns", "first.c", 0x400050, 4},       {"anonymous_unit", "<null>", 0x400060, 4},
  };
  EXPECT_EQ(got, want);

  // The entries that are ignored, found by their names (each name is the
  // first attribute, behind a one-byte abbreviation code).
  auto entry_at = [&](const std::string &n) {
    std::string bytes(img.info.begin(), img.info.end());
    return uint32_t(bytes.find(n + '\0') - 1);
  };
  uint32_t lonely_at = entry_at("lonely");
  uint32_t declared_inline_at = entry_at("declared_inline");
  char want_err[400];
  std::snprintf(want_err, sizeof want_err,
                "Warning: Subprogram lonely at dwarf section offset 0x%x (%u)is ignored\n.\n"
                "Warning: Subprogram declared_inline at dwarf section offset 0x%x (%u)is ignored\n.\n",
                lonely_at, lonely_at, declared_inline_at, declared_inline_at);
  EXPECT_EQ(err, want_err);

  size_t at = out.find("<Debug> File:");
  ASSERT_NE(at, std::string::npos) << out;
  EXPECT_EQ(out.substr(at), "<Debug> File:  /src/dir/first.c\n"
                            "<Debug>   Subprogram: old_style(0x400000-0x400010)\n"
                            "<Debug>   Subprogram: offset_style(0x400010-0x400030)\n"
                            "<Debug>   Subprogram: Function Name Unavailable(0x400030-0x400040)\n"
                            "<Debug>   Subprogram: abstract name: sgi_abstract\n(0x400040-0x400048)\n"
                            "<Debug>   Subprogram: Function Name Unavailable(0x400048-0x400050)\n"
                            "<Debug>   Subprogram: method(0x400054-0x400060)\n"
                            "<Debug>   Subprogram: in_ns(0x400050-0x400054)\n"
                            "<Debug> File:  \n"
                            "<Debug>   Subprogram: anonymous_unit(0x400060-0x400064)\n");
}

TEST(HandMadeDwarf, FatalShapes) {
  {
    DwarfImage img;
    img.unit(unit_die("a.c", {Die{DW_TAG_subprogram, {name("half"), addr4(DW_AT_high_pc, 0x400010)}, {}}}));
    std::string path = img.write("half");
    EXPECT_EXIT(discover(path), ::testing::ExitedWithCode(1), "^Error: Have highpc but no lowpc on half\n\\.\n$");
  }
  {
    DwarfImage img;
    img.unit(unit_die("a.c", {Die{DW_TAG_subprogram, {name("bad"), addr4(DW_AT_low_pc, 0x400000),
                                                      str(DW_AT_high_pc, "x")}, {}}}));
    std::string path = img.write("badhigh");
    EXPECT_EXIT(discover(path), ::testing::ExitedWithCode(1), "^Dwarf Error: [^\n]* dwarf_highpc in bad\n$");
  }
  {
    // A sibling link back to its own entry: a circle.
    DwarfImage img;
    Die looping = sub("loop", 0x400000, 4);
    looping.attrs.push_back(ref4(DW_AT_sibling, kFirstEntry + 2));
    img.unit(unit_die("", {sub("first", 0x400010, 4), looping}));
    std::string path = img.write("circle");
    EXPECT_EXIT(discover(path), ::testing::ExitedWithCode(1), "^(Dwarf )?Error: [^\n]*\n");
  }
  {
    // A sibling link into the entry's own children: the child would be
    // reached twice.
    DwarfImage img;
    size_t start = img.begin_unit();
    img.entry(DW_TAG_compile_unit, {}, true);
    uint32_t parent_at = uint32_t(img.info.size() - start);
    // code, "p", low pc, high pc, sibling
    uint32_t child_at = parent_at + 1 + 2 + 4 + 4 + 4;
    img.entry(DW_TAG_subprogram,
              {name("p"), addr4(DW_AT_low_pc, 0x400000), data4(DW_AT_high_pc, 4), ref4(DW_AT_sibling, child_at)},
              true);
    ASSERT_EQ(img.info.size() - start, child_at);
    img.entry(DW_TAG_subprogram, {name("c"), addr4(DW_AT_low_pc, 0x400000), data4(DW_AT_high_pc, 4)}, false);
    img.info.push_back(0);
    img.info.push_back(0);
    img.end_unit(start);
    std::string path = img.write("inward");
    EXPECT_EXIT(discover(path), ::testing::ExitedWithCode(1),
                "^Error: [^\n]*-inward: the DWARF entry at offset 0x1b is reached twice; the entry tree is "
                "damaged\\.\n$");
  }
  {
    DwarfImage img;
    // An empty .debug_info: libdwarf refuses to start.
    std::string path = img.write("empty");
    EXPECT_EXIT(discover(path), ::testing::ExitedWithCode(1), "^Error: com/dwarf:405 ASSERT\\(i != DW_DLV_ERROR\\)\\.\n$");
  }
}

// A unit with a long chain of concrete copies (each leaving a note too) and
// a unit nested `depth` levels deep with a subprogram at the bottom.
std::string chain_and_depth(int chain, int depth) {
  DwarfImage img;
  size_t start = img.begin_unit();
  img.entry(DW_TAG_compile_unit, {name("chain.c")}, true);
  for (int i = 0; i < chain; ++i)
    img.entry(DW_TAG_subprogram,
              {addr4(DW_AT_low_pc, 0x400000 + 4 * (i % 1024)), data4(DW_AT_high_pc, 4),
               ref4(DW_AT_abstract_origin, kFirstEntry)},
              false);
  img.info.push_back(0);
  img.end_unit(start);
  start = img.begin_unit();
  img.entry(DW_TAG_compile_unit, {name("deep.c")}, true);
  for (int i = 1; i < depth; ++i)
    img.entry(DW_TAG_lexical_block, {}, true);
  img.entry(DW_TAG_subprogram, {name("bottom"), addr4(DW_AT_low_pc, 0x400100), data4(DW_AT_high_pc, 8)}, false);
  img.info.insert(img.info.end(), size_t(depth), 0);
  img.end_unit(start);
  return img.write("big");
}

TEST(HandMadeDwarf, LongChainsAndDeepNestingAreWalkedWithoutRecursion) {
  constexpr int kChain = 30000;
  constexpr int kDepth = 2048; // the deepest nesting accepted
  std::string path = chain_and_depth(kChain, kDepth);
  auto t0 = std::chrono::steady_clock::now();
  std::vector<Rec> got = discover(path);
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  ASSERT_EQ(got.size(), size_t(kChain) + 1);
  EXPECT_EQ(got[0], (Rec{"<null>", "chain.c", 0x400000, 4}));
  EXPECT_EQ(got[kChain - 1], (Rec{"<null>", "chain.c", 0x400000 + 4 * ((kChain - 1) % 1024), 4}));
  EXPECT_EQ(got[kChain], (Rec{"bottom", "deep.c", 0x400100, 8}));
  EXPECT_LT(seconds, 20.0);

  path = chain_and_depth(1, kDepth + 1);
  EXPECT_EXIT(discover(path), ::testing::ExitedWithCode(1),
              "^Error: [^\n]*-big: the DWARF entry at offset 0x[0-9a-f]+ is nested more than 2048 levels deep\\.\n$");
}
