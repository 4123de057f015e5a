// Executables laid out again by the test, rewritten by the header,
// dynamic, GOT, relocation, symbol and branch steps, and checked in the
// written file with an independent decoder: every stored code address that
// these steps own must follow its code, and nothing else may change.  The
// executables: every one of the bench, and synthetic images of both classes
// with the shapes compilers rarely make (a GOT page entry inside .text, an
// address exactly at its end, common and absolute symbols).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <gelf.h>
#include <random>
#include <set>
#include <regex>
#include <stdexcept>
#include <unistd.h>

#include "com/branch.h"
#include "com/elf.h"
#include "com/elf_impl.h"
#include "com/update.h"
#include "support/bench.h"
#include "support/step.h"
#include "support/synth_elf.h"
#include "base/bin.h"
#include "base/bytes.h"
#include "vesk/driver.h"
#include "vesk/options.h"
#include "com/reader.h"

using namespace vesk;
using namespace vesk::test;

namespace {

// The rewriting steps run in process without procedure discovery and
// planning: the test loads the input the way the reader does (into
// vesk::bin, with the output a copy of it), lays the text out in an order
// it chooses, and calls the steps.
using TextBlock = std::pair<uint64_t, uint64_t>; // address and size

void load_input(const std::string &path, const std::string &output) {
  fresh_run();
  option.program = strdup(path.c_str()); // kept to the end of the process, as the run keeps them
  option.output = strdup(output.c_str());
  StepResult r = run_step(read_input); // the reader without procedure discovery
  ASSERT_EQ(r.status, 0) << path << ": " << r.err;
  bin.out_fd = open(option.output, O_WRONLY | O_CREAT | O_TRUNC, 0755);
  bin.text_map = static_cast<uint32_t *>(std::calloc(bin.text_words + 1, sizeof(uint32_t)));
  duplicate_elf();
}


// .text cut at every start and end of a function symbol.
std::vector<TextBlock> text_blocks(const std::string &exe) {
  std::set<uint64_t> cuts{bin.text_lo, bin.text_hi};
  for (const ElfSymbol &s : ElfFile(exe).functions())
    for (uint64_t a : {s.value, s.value + s.size})
      if (in_text(a))
        cuts.insert(a & ~uint64_t(3));
  std::vector<TextBlock> blocks;
  for (auto it = cuts.begin(); std::next(it) != cuts.end(); ++it)
    blocks.push_back({*it, *std::next(it) - *it});
  return blocks;
}

void lay_out(const std::vector<TextBlock> &order) {
  bin.new_text_fill = 0;
  for (const TextBlock &b : order) {
    uint64_t first = (b.first - bin.text_lo) / 4;
    for (uint64_t k = 0; k < b.second / 4; ++k) {
      set_word_at(bin.new_text, bin.new_text_fill, word_at(bin.text_buf, first + k));
      bin.text_map[first + k] = bin.new_text_fill++;
    }
  }
  if (bin.new_text_fill != bin.text_words)
    throw std::runtime_error("the layout does not cover .text exactly once");
}

enum class Kind { other, branch, jump };

Kind kind_of(uint32_t w) {
  uint32_t op = w >> 26, rs = (w >> 21) & 31, rt = (w >> 16) & 31;
  if (op == 2 || op == 3)
    return Kind::jump;
  if ((op >= 4 && op <= 7) || (op >= 20 && op <= 23) || (op == 1 && (rt < 4 || (rt >= 16 && rt < 20))) ||
      (op >= 16 && op <= 18 && rs == 8))
    return Kind::branch;
  return Kind::other;
}

uint64_t target_of(uint32_t w, uint64_t pc) {
  if (kind_of(w) == Kind::jump)
    return ((pc + 4) & ~uint64_t(0xfffffff)) | uint64_t(w & 0x3ffffff) << 2;
  return pc + 4 + uint64_t(int64_t(int16_t(w & 0xffff)) * 4);
}

// The layout the test made, as the steps see it.
struct Layout {
  uint64_t lo = 0, hi = 0;
  std::vector<uint64_t> map;
  uint64_t repoint(uint64_t a) const { return a >= lo && a < hi ? map[(a - lo) / 4] : a; }
};

// Rewrites exe with the blocks of .text in the order `arrange` gives them;
// returns the output path, the layout and what the steps printed.
template <class Arrange> std::string rewrite(const std::string &exe, Arrange arrange, Layout *layout, std::string *err) {
  std::string out = temp_path("relaid");
  load_input(exe, out);
  lay_out(arrange(text_blocks(exe)));
  layout->lo = bin.text_lo;
  layout->hi = bin.text_hi;
  layout->map.clear();
  for (uint64_t k = 0; k < bin.text_words; ++k)
    layout->map.push_back(text_map_word(k));
  testing::internal::CaptureStderr();
  update_elf_header();
  update_dynamic();
  update_got();
  update_reldyn();
  update_dynsym();
  update_symtab();
  update_branch_offset();
  *err = testing::internal::GetCapturedStderr();
  write_it();
  close(bin.out_fd);
  return out;
}

std::vector<TextBlock> reversed(std::vector<TextBlock> b) {
  std::reverse(b.begin(), b.end());
  return b;
}

std::vector<TextBlock> shuffled(std::vector<TextBlock> b) {
  std::mt19937 rng(uint32_t(b.size()) * 2654435761u);
  std::shuffle(b.begin(), b.end(), rng);
  return b;
}

// Checks the written file `out` against its input `in` under `layout`.
void check_rewrite(const std::string &in_path, const std::string &out_path, const Layout &L) {
  ElfFile in(in_path), out(out_path);
  ASSERT_EQ(in.bytes.size(), out.bytes.size());
  std::vector<std::pair<uint64_t, uint64_t>> may_change; // file ranges
  for (const char *name : {".text", ".got", ".dynamic", ".dynsym", ".symtab"})
    may_change.push_back({in.shdr(name).sh_offset, in.shdr(name).sh_offset + in.shdr(name).sh_size});
  may_change.push_back({24, 24 + in.addr_size()}); // e_entry

  // Text: moved words are the old words, except the offset or target of a
  // branch or jump, which reaches the new place of its old target.
  GElf_Shdr text = in.shdr(".text");
  int transfers = 0;
  for (uint64_t k = 0; k < L.map.size(); ++k) {
    uint64_t old_pc = L.lo + 4 * k, new_pc = L.map[k];
    uint32_t ow = load32(&in.bytes[text.sh_offset + 4 * k]);
    uint32_t nw = load32(&out.bytes[text.sh_offset + (new_pc - L.lo)]);
    Kind kind = kind_of(ow);
    if (kind == Kind::other) {
      EXPECT_EQ(nw, ow) << std::hex << "word at " << old_pc;
      continue;
    }
    ++transfers;
    uint64_t t = target_of(ow, old_pc);
    EXPECT_EQ(nw >> (kind == Kind::jump ? 26 : 16), ow >> (kind == Kind::jump ? 26 : 16));
    EXPECT_EQ(target_of(nw, new_pc), L.repoint(t)) << std::hex << "transfer at " << old_pc << " to " << t;
  }
  EXPECT_GT(transfers, 10);

  GElf_Ehdr ieh, oeh;
  gelf_getehdr(in.e, &ieh);
  gelf_getehdr(out.e, &oeh);
  EXPECT_EQ(oeh.e_entry, L.repoint(ieh.e_entry));

  auto idyn = in.dynamic(), odyn = out.dynamic();
  ASSERT_EQ(idyn.size(), odyn.size());
  uint32_t local_gotno = 0;
  for (size_t i = 0; i < idyn.size(); ++i) {
    if (idyn[i].d_tag == DT_MIPS_LOCAL_GOTNO)
      local_gotno = uint32_t(idyn[i].d_un.d_val);
    uint64_t want = idyn[i].d_un.d_val;
    if (idyn[i].d_tag == DT_INIT || idyn[i].d_tag == DT_FINI)
      want = L.repoint(want);
    else if (idyn[i].d_tag == DT_MIPS_FLAGS)
      want |= 0x1000;
    else if (idyn[i].d_tag == DT_MIPS_TIME_STAMP)
      continue; // the time of the run
    EXPECT_EQ(odyn[i].d_un.d_val, want) << "tag " << idyn[i].d_tag;
  }

  // GOT: the leading page entries stay, every later entry follows its code.
  GElf_Shdr got = in.shdr(".got");
  size_t n_got = got.sh_size / in.addr_size();
  bool pages = true;
  for (size_t i = 1; i < n_got; ++i) {
    uint64_t v = in.addr_word(got.sh_offset + i * in.addr_size());
    pages = pages && i < local_gotno && (v & 0xffff) == 0;
    EXPECT_EQ(out.addr_word(got.sh_offset + i * in.addr_size()), pages ? v : L.repoint(v)) << "GOT " << i;
  }

  for (const GElf_Rel &rel : in.rels(".rel.dyn")) {
    if ((rel.r_info & 0xff) != 3) // R_MIPS_REL32
      continue;
    uint64_t where = rel.r_offset;
    uint64_t off = in.offset_of(where);
    ASSERT_NE(off, ~uint64_t(0));
    EXPECT_EQ(out.addr_word(off), L.repoint(in.addr_word(off))) << std::hex << "REL32 at " << where << " old " << in.addr_word(off);
    may_change.push_back({off, off + in.addr_size()});
  }

  for (std::string name : {".dynsym", ".symtab"}) {
    auto isym = in.symbols(name), osym = out.symbols(name);
    ASSERT_EQ(isym.size(), osym.size());
    for (size_t i = 0; i < isym.size(); ++i) {
      bool kept = name == ".symtab" && (isym[i].st_shndx == SHN_ABS || isym[i].st_value == 0 ||
                                        (isym[i].st_shndx == SHN_COMMON && isym[i].st_value <= 0x10000));
      EXPECT_EQ(osym[i].st_value, kept ? isym[i].st_value : L.repoint(isym[i].st_value)) << name << " " << i;
    }
  }

  // Nothing outside those places changed.
  for (size_t off = 0; off < in.bytes.size(); ++off) {
    if (in.bytes[off] == out.bytes[off])
      continue;
    bool allowed = std::any_of(may_change.begin(), may_change.end(),
                               [&](auto r) { return off >= r.first && off < r.second; });
    EXPECT_TRUE(allowed) << std::hex << "byte at file offset " << off << " changed";
    if (!allowed)
      break;
  }

  // The written file reads cleanly.
  RunResult ro = run_command({"readelf", "-a", "-W", out_path});
  EXPECT_EQ(ro.status, 0);
  EXPECT_EQ(ro.err, "");
  EXPECT_EQ(ro.out.find("Warning"), std::string::npos);
  EXPECT_EQ(ro.out.find("Error"), std::string::npos);
}

// .init 0x3ffe00, .text 0x3fff00-0x400100 (it holds the 64 KB page address
// 0x400000), .MIPS.stubs 0x400100, .data 0x410000, .got 0x410100; the text
// calls and branches to words all over itself.
constexpr uint64_t INIT = 0x3ffe00, TEXT = 0x3fff00, TEXT_END = 0x400100, STUBS = 0x400100;
constexpr uint64_t DATA = 0x410000, GOT = 0x410100;

template <bool is64> std::string synthetic_image() {
  using Dyn = std::conditional_t<is64, Elf64_Dyn, Elf32_Dyn>;
  using Sym = std::conditional_t<is64, Elf64_Sym, Elf32_Sym>;
  using Rel = std::conditional_t<is64, Elf64_Rel, Elf32_Rel>;
  auto words = [](std::vector<uint64_t> v) {
    std::vector<uint8_t> b;
    for (uint64_t x : v)
      is64 ? put64(b, x) : put32(b, uint32_t(x));
    return b;
  };
  auto sym = [](uint64_t value, uint16_t shndx) {
    Sym s{};
    s.st_value = value;
    s.st_shndx = shndx;
    s.st_info = ELF32_ST_INFO(STB_GLOBAL, STT_FUNC);
    return s;
  };
  auto rel = [](uint64_t at, uint32_t type) {
    Rel r{};
    r.r_offset = at;
    r.r_info = is64 && type == 3 ? 18u << 8 | 3 : type; // on a 64-bit word REL32 pairs with R_MIPS_64 (18)
    return r;
  };
  std::vector<uint32_t> text(128, 0);
  for (uint32_t k = 0; k < 128; k += 4) {
    text[k] = 0x0c000000u | uint32_t((TEXT + 4 * ((k * 37 + 5) % 128)) >> 2 & 0x3ffffff); // jal
    text[k + 2] = 0x10000000u | (uint32_t((k * 13) % 128 - k - 3) & 0xffff);             // b
  }
  // One of DT_INIT and DT_FINI names a function of .text (-Wl,-init=), the other .init, which stays.
  std::vector<Dyn> dyn = {{DT_INIT, {is64 ? INIT : TEXT + 0x18}}, {DT_FINI, {is64 ? TEXT + 0x10 : INIT}},
                          {DT_MIPS_TIME_STAMP, {5}},
                          {DT_MIPS_FLAGS, {0x2}},     {DT_PLTGOT, {GOT}},      {DT_MIPS_LOCAL_GOTNO, {6}},
                          {DT_NULL, {0}}};
  std::vector<Rel> rels = {rel(0, 0), rel(DATA, 3), rel(DATA + (is64 ? 8 : 4), 2), rel(GOT + 5 * (is64 ? 8 : 4), 3)};
  std::vector<Sym> dynsym = {Sym{}, sym(TEXT + 0x20, 2), sym(STUBS, 3), sym(0, SHN_UNDEF), sym(TEXT + 0x24, 2)};
  std::vector<Sym> symtab = {Sym{}, sym(TEXT + 0x30, SHN_ABS), sym(8, SHN_COMMON), sym(TEXT + 0x30, SHN_COMMON),
                             sym(TEXT + 0x34, 2), sym(0, 2)};
  const uint64_t sym_size = is64 ? 24 : 16, rel_size = is64 ? 16 : 8;
  SynthElf img;
  img.is64 = is64;
  img.entry = TEXT + 0x40;
  img.add({.name = ".init", .flags = SHF_ALLOC | SHF_EXECINSTR, .addr = INIT, .data = std::vector<uint8_t>(0x20)});
  img.add(text_section(TEXT, text));
  img.add({.name = ".MIPS.stubs", .flags = SHF_ALLOC | SHF_EXECINSTR, .addr = STUBS, .data = std::vector<uint8_t>(0x20)});
  img.add({.name = ".data", .flags = SHF_ALLOC | SHF_WRITE, .addr = DATA, .data = words({TEXT + 8, STUBS, TEXT + 0x10})});
  // reserved, module pointer, page in .text, address, page, address (all
  // local), then global: in .text, in the stubs, exactly the end of .text.
  img.add({.name = ".got", .flags = SHF_ALLOC | SHF_WRITE | SHF_MIPS_GPREL, .addr = GOT,
           .data = words({0, 0x80000000, 0x400000, TEXT + 4, 0x410000, TEXT + 0x14, TEXT + 0x20, STUBS + 0x10, TEXT_END})});
  img.add({.name = ".dynamic", .type = SHT_DYNAMIC, .flags = SHF_ALLOC | SHF_WRITE, .addr = 0x420000,
           .data = records(dyn), .dtype = ELF_T_DYN, .link = 10, .entsize = rel_size});
  img.add({.name = ".rel.dyn", .type = SHT_REL, .flags = SHF_ALLOC, .addr = 0x430000, .data = records(rels),
           .dtype = ELF_T_REL, .entsize = rel_size});
  img.add({.name = ".dynsym", .type = SHT_DYNSYM, .flags = SHF_ALLOC, .addr = 0x440000, .data = records(dynsym),
           .dtype = ELF_T_SYM, .link = 10, .entsize = sym_size});
  img.add({.name = ".symtab", .type = SHT_SYMTAB, .data = records(symtab), .dtype = ELF_T_SYM, .link = 10,
           .entsize = sym_size});
  img.add({.name = ".strtab", .type = SHT_STRTAB, .data = {0}, .align = 1}); // section 10
  return img.write(temp_path(is64 ? "synth64" : "synth32"));
}

} // namespace

TEST(Relayout, BenchExecutablesWithReversedOrShuffledProceduresKeepEveryOwnedCodeAddressRight) {
  VESK_REQUIRE_BENCH();
  for (const BenchExe &e : bench_executables()) {
    for (auto order : {reversed, shuffled}) {
      SCOPED_TRACE(e.name + (order == reversed ? " reversed" : " shuffled"));
      Layout layout;
      std::string err, out = rewrite(e.path, order, &layout, &err);
      // Calls into the PLT, in front of .text, are the only jumps the fix-up leaves alone, with a warning.
      EXPECT_EQ(std::regex_replace(err, std::regex("Warning: jump target 0x[0-9a-f]+ not in .text or .init.\n"), ""), "");
      check_rewrite(e.path, out, layout);
      unlink(out.c_str());
    }
  }
}

TEST(Relayout, SyntheticImagesWithTheHalvesOfTheTextSwappedKeepEveryOwnedCodeAddressRight) {
  for (const std::string &in : {synthetic_image<false>(), synthetic_image<true>()}) {
    Layout layout;
    std::string err, out = rewrite(in, [](auto) { return std::vector<TextBlock>{{TEXT + 0x100, 0x100}, {TEXT, 0x100}}; },
                                   &layout, &err);
    check_rewrite(in, out, layout);
    unlink(in.c_str());
    unlink(out.c_str());
  }
}

// The image the rewrite starts from, written back untouched, is the input
// byte for byte: every header, typed table (symbols, hash, dynamic, notes)
// turned back to the file's order, the kept relocations as they were, the
// gaps between sections, and nothing written twice over another.  On
// every executable of both benches, o32, n32 and n64, mdebug and DWARF.
TEST(WriteImage, AnUntouchedImageIsWrittenBackByteForByte) {
  VESK_REQUIRE_BENCH();
  std::vector<BenchExe> all = bench_executables();
  all.insert(all.end(), real_executables().begin(), real_executables().end());
  for (const BenchExe &e : all) {
    SCOPED_TRACE(e.name);
    std::string out = temp_path("copy");
    load_input(e.path, out);
    write_it();
    close(bin.out_fd);
    EXPECT_TRUE(read_file(out) == read_file(e.path)) << "differs from its input";
    unlink(out.c_str());
  }
}

// What the output does not write again: bytes that no section holds inside
// a segment stay the input's (here .interp, whose section header a
// stripping tool left empty: the loader still needs the path), and the old
// places of sections that moved or were dropped, outside every segment,
// keep nothing of their contents; the file is at least as long as before.
TEST(WriteImage, BytesNoSectionHoldsStayAndOldPlacesOfSectionsAreCleared) {
  VESK_REQUIRE_BENCH();
  const BenchExe *e = bench_named("calc-o32-dwarf-pie");
  ASSERT_NE(e, nullptr);
  ScratchDir d("gaps");
  std::string in = read_file(e->path);
  GElf_Shdr interp{}, dropped{};
  {
    ElfFile f(e->path);
    interp = f.shdr(".interp"), dropped = f.shdr(".rel.debug_info");
    ASSERT_NE(interp.sh_size, 0u);
    ASSERT_NE(dropped.sh_size, 0u);
    size_t index = elf_ndxscn(f.scn(".interp"));
    store32(reinterpret_cast<uint8_t *>(in.data()) + f.ehdr().e_shoff + index * sizeof(Elf32_Shdr) + 4, SHT_NULL);
  }
  write_file(d / "in", in);
  chmod((d / "in").c_str(), 0755);
  write_file(d / "fb", kNoFeedback);
  RunResult r = run_vesk({d / "in", d / "fb", "-o", d / "out"});
  ASSERT_EQ(r.status, 0) << r.err;
  std::string out = read_file(d / "out");
  ASSERT_GE(out.size(), in.size());
  EXPECT_EQ(out.substr(interp.sh_offset, interp.sh_size), in.substr(interp.sh_offset, interp.sh_size));
  EXPECT_EQ(out.substr(dropped.sh_offset, dropped.sh_size), std::string(dropped.sh_size, '\0'));
  RunResult run = run_bench(*e, d / "out");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, e->expected);
}

// libelf hands notes out with their header words in the host's order and
// the rest as the file has it; the writer turns them back.  Each note's
// description and the next note start aligned to 4 bytes, or to 8 for the
// notes of 8-byte alignment (there the name's padding depends on the
// header's 12 bytes), and a damaged last note keeps its bytes.
TEST(WriteImage, NotesGoBackToTheFilesOrder) {
  auto be32 = [](std::vector<uint8_t> &v, uint32_t w) {
    for (int s = 24; s >= 0; s -= 8)
      v.push_back(uint8_t(w >> s));
  };
  auto note = [&](std::vector<uint8_t> &v, size_t align, const char *name, std::vector<uint8_t> desc, uint32_t type) {
    size_t start = v.size(), namesz = std::strlen(name) + 1;
    be32(v, uint32_t(namesz)), be32(v, uint32_t(desc.size())), be32(v, type);
    v.insert(v.end(), name, name + namesz);
    while ((v.size() - start) % align)
      v.push_back(0);
    v.insert(v.end(), desc.begin(), desc.end());
    while ((v.size() - start) % align)
      v.push_back(0);
  };
  auto host = [](std::vector<uint8_t> file, size_t align) { // as libelf holds it
    for (size_t at = 0; file.size() - at >= 12;) {
      uint32_t w[3];
      for (int k = 0; k < 3; ++k) {
        w[k] = vesk::load32(file.data() + at + 4 * k);
        std::memcpy(file.data() + at + 4 * k, &w[k], 4);
      }
      auto pad = [align](size_t n) { return (n + align - 1) / align * align; };
      size_t len = pad(pad(12 + w[0]) + w[1]);
      if (len > file.size() - at)
        break;
      at += len;
    }
    return file;
  };
  struct Case {
    size_t align;
    std::vector<uint8_t> file;
  };
  std::vector<Case> cases(3);
  cases[0].align = 4;
  note(cases[0].file, 4, "GNU", {0, 0, 0, 0, 0, 0, 0, 3, 0, 0, 0, 2, 0, 0, 0, 0}, 1);
  note(cases[0].file, 4, "GNU", std::vector<uint8_t>(20, 0xab), 3);
  note(cases[0].file, 4, "Go", {1, 2, 3}, 4);
  cases[1].align = 8;
  note(cases[1].file, 8, "GNU", std::vector<uint8_t>(16, 0x5a), 5);
  note(cases[1].file, 8, "GNU", std::vector<uint8_t>(8, 0x11), 5);
  cases[2] = cases[0];
  cases[2].file.resize(cases[2].file.size() - 3); // a last note cut short
  for (const Case &c : cases) {
    std::vector<uint8_t> in = host(c.file, c.align), out(in.size());
    vesk::notes_to_file_order(in.data(), in.size(), c.align, out.data());
    EXPECT_EQ(out, c.file) << "align " << c.align << ", " << c.file.size() << " bytes";
  }
}

// A branch or jump that cannot reach its target from its new place ends
// the run (the planning keeps them in reach; this is the last guard before
// a wrong program is written): a branch whose new offset leaves the signed
// 16 bits of words, either way and at the edges, and a jump whose new place
// lies in another 256 MB region than its target.
TEST(Relayout, ABranchOrJumpThatCannotReachFromItsNewPlaceEndsTheRun) {
  const struct {
    uint64_t text_lo;
    uint32_t word;         // at old word 0, its target old word 1
    uint32_t moved_to[2];  // the new word indexes of old words 0 and 1
    const char *refusal;   // null: patched
  } cases[] = {
      {0x400000, 0x10000000, {0, 32768}, nullptr}, // b: offset 32767 words
      {0x400000, 0x10000000, {0, 32769}, "branch new offset 0x8000 at 0x400000 out of range"},
      {0x400000, 0x10000000, {32767, 0}, nullptr}, // -32768
      {0x400000, 0x10000000, {32768, 0}, "branch new offset 0xffff7fff at 0x400000 out of range"},
      {0x0ffe0000, 0x0bff8001, {0, 1}, nullptr}, // j, both below 0x10000000
      {0x0ffe0000, 0x0bff8001, {0x7fff, 1}, "jump at 0xffe0000 cannot reach 0xffe0004 from its new place 0xffffffc"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message() << std::hex << c.word << " moved to " << c.moved_to[0] << ", " << c.moved_to[1]);
    fresh_run();
    const uint32_t words = 0x10000;
    std::vector<uint8_t> in(4 * words), out(4 * words);
    std::vector<uint32_t> map(words, words - 1); // the other words, all nops, go anywhere
    map[0] = c.moved_to[0], map[1] = c.moved_to[1];
    store32(&in[0], c.word);
    store32(&out[4 * map[0]], c.word);
    bin.text_lo = c.text_lo;
    bin.text_words = words;
    bin.text_hi = c.text_lo + 4 * words;
    bin.exec_lo = bin.text_lo, bin.exec_hi = bin.text_hi;
    bin.text_buf = in.data();
    bin.new_text = out.data();
    bin.text_map = map.data();
    StepResult r = run_step(update_branch_offset);
    if (c.refusal != nullptr) {
      EXPECT_EQ(r.status, 1);
      EXPECT_NE(r.err.find(c.refusal), std::string::npos) << r.err;
      continue;
    }
    ASSERT_EQ(r.status, 0) << r.err;
    uint64_t from = c.text_lo + 4 * map[0], to = c.text_lo + 4 * map[1];
    uint32_t w = load32(&out[4 * map[0]]);
    if (c.word >> 26 == 4)
      EXPECT_EQ(from + 4 + 4 * int64_t(int16_t(w & 0xffff)), to);
    else
      EXPECT_EQ(((from + 4) & ~0x0fffffffull) | uint64_t(w & 0x03ffffff) << 2, to);
  }
  fresh_run();
}
