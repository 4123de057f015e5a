// Header, dynamic section, GOT, dynamic relocation and symbol updates on a
// synthetic executable of each class, checked in the written file.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <gelf.h>
#include <unistd.h>

#include "base/bin.h"
#include "base/bytes.h"
#include "base/elf_class.h"
#include "com/elf.h"
#include "com/update.h"
#include "support/elf_file.h"
#include "support/fatal.h"
#include "support/rewrite_harness.h"
#include "support/run.h"
#include "support/synth_elf.h"
#include "vesk/options.h"

using namespace vesk;
using namespace vesk::test;

namespace {

// .init 0x3ffe00, .text 0x3fff00-0x400100 (it holds the 64 KB page address
// 0x400000), .MIPS.stubs 0x400100, .data 0x410000, .got 0x410100.
constexpr uint64_t INIT = 0x3ffe00, TEXT = 0x3fff00, TEXT_END = 0x400100, STUBS = 0x400100;
constexpr uint64_t DATA = 0x410000, GOT = 0x410100;
constexpr uint32_t LOCAL_GOTNO = 6;

// The new address of every text word: the two halves of .text swap.
uint64_t moved(uint64_t a) { return TEXT + (((a - TEXT) / 4 + 64) % 128) * 4 + (a & 3); }

template <class Dyn> Dyn dyn(int64_t tag, uint64_t v) {
  Dyn d{};
  d.d_tag = decltype(d.d_tag)(tag);
  d.d_un.d_val = decltype(d.d_un.d_val)(v);
  return d;
}

template <class Sym> Sym sym(uint64_t value, uint16_t shndx) {
  Sym s{};
  s.st_value = decltype(s.st_value)(value);
  s.st_shndx = shndx;
  s.st_info = ELF32_ST_INFO(STB_GLOBAL, STT_FUNC);
  return s;
}

template <class C> std::string code_address_image(uint64_t entry, uint32_t mips_flags) {
  constexpr bool is64 = sizeof(typename C::Addr) == 8;
  using Dyn = std::conditional_t<is64, Elf64_Dyn, Elf32_Dyn>;
  using Sym = std::conditional_t<is64, Elf64_Sym, Elf32_Sym>;
  using Rel = std::conditional_t<is64, Elf64_Rel, Elf32_Rel>;
  auto word = [](std::vector<uint8_t> &v, uint64_t x) { is64 ? put64(v, x) : put32(v, uint32_t(x)); };

  SynthElf img;
  img.is64 = is64;
  img.entry = entry;
  img.add({.name = ".init", .type = SHT_PROGBITS, .flags = SHF_ALLOC | SHF_EXECINSTR,
           .addr = INIT, .data = std::vector<uint8_t>(0x20)});
  img.add(text_section(TEXT, std::vector<uint32_t>(128, 0)));
  img.add({.name = ".MIPS.stubs", .type = SHT_PROGBITS, .flags = SHF_ALLOC | SHF_EXECINSTR,
           .addr = STUBS, .data = std::vector<uint8_t>(0x20)});

  std::vector<uint8_t> data;
  for (uint64_t v : {TEXT + 8, STUBS, TEXT + 0x10})
    word(data, v);
  img.add({.name = ".data", .type = SHT_PROGBITS, .flags = SHF_ALLOC | SHF_WRITE, .addr = DATA, .data = data});

  std::vector<uint8_t> got;
  // reserved, module pointer, page in .text, first address, page, address,
  // then global: in .text, in the stubs, exactly text_hi.
  for (uint64_t v : {uint64_t(0), uint64_t(0x80000000), uint64_t(0x400000), TEXT + 4, uint64_t(0x410000),
                     TEXT + 0x14, TEXT + 0x20, STUBS + 0x10, TEXT_END})
    word(got, v);
  img.add({.name = ".got", .type = SHT_PROGBITS, .flags = SHF_ALLOC | SHF_WRITE | SHF_MIPS_GPREL,
           .addr = GOT, .data = got});

  std::vector<Dyn> d = {dyn<Dyn>(DT_INIT, INIT),
                        dyn<Dyn>(DT_FINI, TEXT + 0x10),
                        dyn<Dyn>(DT_MIPS_TIME_STAMP, 5),
                        dyn<Dyn>(DT_MIPS_FLAGS, mips_flags),
                        dyn<Dyn>(DT_PLTGOT, GOT),
                        dyn<Dyn>(DT_MIPS_LOCAL_GOTNO, LOCAL_GOTNO),
                        dyn<Dyn>(DT_NULL, 0),
                        dyn<Dyn>(DT_FINI, TEXT + 0x10)}; // behind DT_NULL: not an entry
  img.add({.name = ".dynamic", .type = SHT_DYNAMIC, .flags = SHF_ALLOC | SHF_WRITE,
           .addr = 0x420000, .data = records(d), .dtype = ELF_T_DYN});

  std::vector<Rel> rel(is64 ? 6 : 5);
  auto info = [](uint32_t sym, uint32_t type, uint32_t type2) -> uint64_t {
    return is64 ? (uint64_t(sym) << 32 | type2 << 8 | type) : (uint64_t(sym) << 8 | type);
  };
  rel[0] = {0, 0};
  rel[1] = {decltype(rel[1].r_offset)(DATA), decltype(rel[1].r_info)(info(0, 3, 18))};
  rel[2] = {decltype(rel[2].r_offset)(0x500000), decltype(rel[2].r_info)(info(0, 3, 18))};
  rel[3] = {decltype(rel[3].r_offset)(DATA + (is64 ? 8 : 4)), decltype(rel[3].r_info)(info(0, 2, 0))};
  // A GOT entry that the GOT update re-points anyway.
  rel[4] = {decltype(rel[4].r_offset)(GOT + 5 * (is64 ? 8 : 4)), decltype(rel[4].r_info)(info(0, 3, 18))};
  if (is64)
    rel[5] = {decltype(rel[5].r_offset)(DATA + 8), decltype(rel[5].r_info)(info(0, 3, 1))};
  img.add({.name = ".rel.dyn", .type = SHT_REL, .flags = SHF_ALLOC,
           .addr = 0x430000, .data = records(rel), .dtype = ELF_T_REL});

  std::vector<Sym> dynsym = {Sym{}, sym<Sym>(TEXT + 0x20, 2), sym<Sym>(STUBS, 3), sym<Sym>(0, SHN_UNDEF),
                             sym<Sym>(TEXT + 0x24, 2)};
  img.add({.name = ".dynsym", .type = SHT_DYNSYM, .flags = SHF_ALLOC,
           .addr = 0x440000, .data = records(dynsym), .dtype = ELF_T_SYM});
  std::vector<Sym> symtab = {Sym{},
                             sym<Sym>(TEXT + 0x30, SHN_ABS),
                             sym<Sym>(8, SHN_COMMON),
                             sym<Sym>(TEXT + 0x30, SHN_COMMON),
                             sym<Sym>(TEXT + 0x34, 2),
                             sym<Sym>(0, 2)};
  img.add({.name = ".symtab", .type = SHT_SYMTAB, .flags = 0, .addr = 0, .data = records(symtab), .dtype = ELF_T_SYM});
  for (auto &s : img.sections)
    if (s.dtype != ELF_T_BYTE)
      s.entsize = is64 ? (s.dtype == ELF_T_SYM ? 24 : 16) : (s.dtype == ELF_T_SYM ? 16 : 8);
  return img.write(temp_path(is64 ? "upd64" : "upd32"));
}

// Loads the image and lays the text out with moved().
void prepare(const std::string &in) {
  load_input(in, temp_path("upd-out"));
  begin_output();
  for (uint32_t k = 0; k < bin.text_words; ++k)
    bin.text_map[k] = moved(TEXT + 4 * k);
  bin.gp_value = uint32_t(GOT + 0x7ff0);
}

void run_all_updates() {
  update_elf_header();
  update_dynamic();
  update_got();
  update_reldyn();
  update_dynsym();
  update_symtab();
}

template <class C> void check_all_updates() {
  constexpr bool is64 = sizeof(typename C::Addr) == 8;
  std::string in = code_address_image<C>(TEXT + 0x40, 0x2);
  prepare(in);
  testing::internal::CaptureStderr();
  run_all_updates();
  std::string err = testing::internal::GetCapturedStderr();
  std::string out = option.output;
  finish_output();
  EXPECT_EQ(err, is64 ? "Warning: ignoring incorrect R_MIPS_REL64.\n"
                        "Warning: unknown elf rel type.\n"
                        "Warning: unknown R_MIPS_REL.\n"
                      : "Warning: ignoring incorrect R_MIPS_REL32.\n"
                        "Warning: unknown elf rel type.\n");

  ElfFile w(out);
  EXPECT_EQ(w.ehdr().e_entry, moved(TEXT + 0x40));
  auto word = [&](const char *name, size_t i) {
    std::vector<uint8_t> v = w.contents(name);
    return is64 ? load64(&v[8 * i]) : load32(&v[4 * i]);
  };
  std::vector<GElf_Dyn> d = w.dynamic();
  EXPECT_EQ(d[0].d_un.d_val, INIT);               // in .init: stays
  EXPECT_EQ(d[1].d_un.d_val, moved(TEXT + 0x10)); // in .text: follows
  EXPECT_NE(d[2].d_un.d_val, 5u);                 // a new time stamp
  EXPECT_EQ(d[3].d_un.d_val, 0x1002u);
  EXPECT_EQ(bin.mips_flags, 0x2u);
  EXPECT_EQ(d[7].d_un.d_val, TEXT + 0x10); // behind DT_NULL

  std::vector<uint64_t> want_got = {0,        0x80000000,          0x400000,      moved(TEXT + 4), 0x410000,
                                    moved(TEXT + 0x14), moved(TEXT + 0x20), STUBS + 0x10, TEXT_END};
  for (size_t i = 0; i < want_got.size(); ++i)
    EXPECT_EQ(word(".got", i), want_got[i]) << "GOT entry " << i;

  EXPECT_EQ(word(".data", 0), moved(TEXT + 8)); // REL32 target
  EXPECT_EQ(word(".data", 1), STUBS);           // R_MIPS_32 or an odd REL: left
  EXPECT_EQ(word(".data", 2), TEXT + 0x10);     // no relocation

  auto values = [&](const char *name) {
    std::vector<uint64_t> v;
    for (const GElf_Sym &s : w.symbols(name))
      v.push_back(s.st_value);
    return v;
  };
  EXPECT_EQ(values(".dynsym"), (std::vector<uint64_t>{0, moved(TEXT + 0x20), STUBS, 0, moved(TEXT + 0x24)}));
  EXPECT_EQ(values(".symtab"), (std::vector<uint64_t>{0, TEXT + 0x30, 8, moved(TEXT + 0x30), moved(TEXT + 0x34), 0}));

  unlink(in.c_str());
  unlink(out.c_str());
}

using CodeAddressUpdates = RewriteTest;
using CodeAddressUpdatesDeathTest = RewriteTest;
using GotPairHelpersDeathTest = RewriteTest;

} // namespace

TEST_F(CodeAddressUpdates, ThirtyTwoBitImageFollowsTheMovedCode) { check_all_updates<Elf32Class>(); }
TEST_F(CodeAddressUpdates, SixtyFourBitImageFollowsTheMovedCode) { check_all_updates<Elf64Class>(); }

TEST_F(CodeAddressUpdates, AnAlreadyProcessedExecutableIsProcessedAgainWithAWarning) {
  std::string in = code_address_image<Elf32Class>(INIT + 4, 0x1000);
  prepare(in);
  testing::internal::CaptureStderr();
  update_elf_header(); // an entry in .init stays
  update_dynamic();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Warning: " + in + " is a vesked binary.\n");
  EXPECT_EQ(bin.mips_flags, 0x1000u);
  EXPECT_EQ(elf32_getehdr(bin.out_elf)->e_entry, INIT + 4);
  finish_output();
  unlink(in.c_str());
  unlink(option.output);
}

TEST_F(CodeAddressUpdates, AnImageWithoutTheTablesPassesUnchangedAndSilently) {
  for (bool is64 : {false, true}) {
    SynthElf img;
    img.is64 = is64;
    img.entry = TEXT;
    img.add(text_section(TEXT, {0x27bdffe0, 0x03e00008, 0}));
    std::string in = img.write(temp_path("bare"));
    load_input(in, temp_path("bare-out"));
    begin_output();
    lay_out_unchanged();
    testing::internal::CaptureStderr();
    run_all_updates();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    std::string out = option.output;
    finish_output();
    EXPECT_TRUE(file_bytes(out) == file_bytes(in));
    unlink(in.c_str());
    unlink(out.c_str());
  }
}

TEST_F(CodeAddressUpdatesDeathTest, AnEntryPointOutsideTheCodeIsFatal) {
  std::string in = code_address_image<Elf64Class>(DATA, 0);
  prepare(in);
  EXPECT_FATAL(update_elf_header(), "^Error: e_entry not in \\.text\\.\n$");
  unlink(in.c_str());
  unlink(option.output);
}

TEST_F(GotPairHelpersDeathTest, NoEntryNearbyOrNoEntryAtAllIsFatal) {
  std::string in = code_address_image<Elf32Class>(TEXT, 0);
  prepare(in);
  uint32_t index;
  int32_t diff;
  EXPECT_FALSE(try_local_got_entry_for_addr(0x7000000, &index, &diff));
  EXPECT_FATAL(got_content_by_gpoffset(0x7000), "^Error: gp offset 28672 .*\\.got");
  unlink(in.c_str());
  unlink(option.output);
}
