// The mdebug access layer on section bytes: tables, symbols, names, and the
// refusal of damaged tables; the procedure-range rule of the file
// descriptors.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>

#include "mdebug/symtab.h"
#include "support/synth_mdebug.h"

using namespace vesk;
using namespace vesk::test;
using ::testing::ExitedWithCode;

namespace {

constexpr uint64_t FILE_OFF = 0x2000;

SynthMdebug two_files() {
  SynthMdebug t;
  SynthFile a;
  a.name = "a.c";
  a.adr = 0x400100;
  a.procs = {{"alpha", 0x400100, 0}, {"beta", 0x400140, 0x40}};
  a.syms = {{"counter", 0x410000, 2}};
  SynthFile b;
  b.name = "dir/b.c";
  b.adr = 0x400200;
  b.procs = {{"gamma", 0x400200, 0}};
  t.files = {a, b};
  t.externals = {{"alpha", 0x400100, 6}, {"printf", 0, 6}};
  return t;
}

MdebugHandle *open_bytes(const std::vector<uint8_t> &v) {
  return mdebug_open_image(v.data(), v.size(), FILE_OFF, "synthetic");
}

MdebugHandle *loaded(const std::vector<uint8_t> &v) {
  MdebugHandle *h = open_bytes(v);
  mdebug_read_tables(h);
  return h;
}

} // namespace

TEST(MdebugSymtab, ReadsTablesSymbolsAndNames) {
  std::vector<uint8_t> v = two_files().build(FILE_OFF);
  MdebugHandle *h = loaded(v);
  const MdebugSymtab &st = h->st;
  ASSERT_EQ(st.ifd_max, 2u);
  EXPECT_EQ(st.ipd_max, 3u);
  EXPECT_EQ(st.isym_max, 4u);
  EXPECT_STREQ(mdebug_file_name(h, 0), "a.c");
  EXPECT_STREQ(mdebug_file_name(h, 1), "dir/b.c");
  EXPECT_EQ(uint32_t(st.pdrs[1].adr), 0x40u);

  // Names resolve through the owning file's string base.
  MdebugSymbol s;
  ASSERT_TRUE(mdebug_read_symbol(h, 3, &s));
  EXPECT_EQ(s.ifd, 1u);
  EXPECT_STREQ(mdebug_symbol_name(h, s), "gamma");
  EXPECT_EQ(uint32_t(s.rec.value), 0x400200u);
  ASSERT_TRUE(mdebug_read_symbol(h, 2, &s));
  EXPECT_STREQ(mdebug_symbol_name(h, s), "counter");
  EXPECT_EQ(symr_st(s.rec), 2u);
  EXPECT_FALSE(mdebug_read_symbol(h, 4, &s));

  EXPECT_STREQ(mdebug_external_name(h, 1), "printf");
  EXPECT_EQ(mdebug_external_name(h, 2), nullptr);
}

TEST(MdebugSymtab, HeaderIsRefused) {
  std::vector<uint8_t> v = two_files().build(FILE_OFF);
  std::vector<uint8_t> short_section(v.begin(), v.begin() + 95);
  EXPECT_EXIT(mdebug_symtab(open_bytes(short_section)), ExitedWithCode(1),
              "^Error: synthetic: the \\.mdebug section of 95 bytes is too small for its symbolic header \\(96 bytes\\)\\.\n$");
  std::vector<uint8_t> bad = v;
  hdr_of(bad).magic = 0x7008;
  EXPECT_EXIT(mdebug_symtab(open_bytes(bad)), ExitedWithCode(1), "^Error: synthetic: the \\.mdebug section has magic 0x7008");
  hdr_of(bad).magic = MDEBUG_MAGIC_64;
  EXPECT_EXIT(mdebug_symtab(open_bytes(bad)), ExitedWithCode(1), "holds a 64-bit symbolic table \\(magic 0x1992\\)");
}

TEST(MdebugSymtab, TablesOutsideTheSectionAreRefused) {
  const std::vector<uint8_t> good = two_files().build(FILE_OFF);
  struct Case {
    const char *what;
    std::function<void(Hdrr &)> damage;
  } cases[] = {
      {"file descriptors \\(3 entries", [](Hdrr &h) { h.ifdMax = 3; }},
      {"file descriptors \\(2 entries at file offset 0x1000\\)", [](Hdrr &h) { h.cbFdOffset = 0x1000; }},
      {"procedure descriptors \\(4294967295 entries", [](Hdrr &h) { h.ipdMax = 0xFFFFFFFF; }},
      {"local symbols", [](Hdrr &h) { h.cbSymOffset = 0xFFFFFFF0; }},
      {"local strings", [](Hdrr &h) { h.issMax = h.issMax + 1000; }},
      {"external symbols", [](Hdrr &h) { h.iextMax = 100; }},
      {"external strings", [](Hdrr &h) { h.cbSsExtOffset = 0; }},
  };
  for (const Case &c : cases) {
    std::vector<uint8_t> v = good;
    c.damage(hdr_of(v));
    EXPECT_EXIT(loaded(v), ExitedWithCode(1),
                std::string("^Error: synthetic: the mdebug ") + c.what + ".*lie outside the \\.mdebug section "
                "\\(file offset 0x2000, [0-9]+ bytes\\)\\.\n$")
        << c.what;
  }
}

TEST(MdebugSymtab, NamesOutsideTheStringsAreRefused) {
  std::vector<uint8_t> v = two_files().build(FILE_OFF);
  sym_of(v, FILE_OFF, 3).iss = 0x7FFFFFFF;
  fdr_of(v, FILE_OFF, 0).rss = 0x1000;
  MdebugHandle *h = loaded(v);
  MdebugSymbol s;
  ASSERT_TRUE(mdebug_read_symbol(h, 3, &s));
  EXPECT_EXIT(mdebug_symbol_name(h, s), ExitedWithCode(1), "name of mdebug symbol 3 .* lies outside its string table");
  EXPECT_EXIT(mdebug_file_name(h, 0), ExitedWithCode(1), "name of mdebug file 0 \\(string 0x1000\\) lies outside");

  // A string table whose last name has no terminator.
  std::vector<uint8_t> w = two_files().build(FILE_OFF);
  hdr_of(w).issMax = hdr_of(w).issMax - 1;
  MdebugHandle *h2 = loaded(w);
  ASSERT_TRUE(mdebug_read_symbol(h2, 3, &s));
  EXPECT_EXIT(mdebug_symbol_name(h2, s), ExitedWithCode(1), "runs off the end of its string table");
}

TEST(MdebugRecords, ProcedureRangeWrapsAroundWithoutTheFlag) {
  IpdCarry carry;
  Fdr a{}, empty{}, b{}, c{};
  a.ipdFirst = 65500;
  a.cpd = 100;
  empty.ipdFirst = 3; // a file without procedures never counts a wrap
  b.ipdFirst = 20;
  b.cpd = 7;
  c.ipdFirst = 10; // a drop again: a second wrap
  c.cpd = 1;
  EXPECT_EQ(fdr_proc_range(a, false, carry).first, 65500u);
  EXPECT_EQ(fdr_proc_range(empty, false, carry).first, 3u);
  // The previous value is that of every file, with procedures or not:
  // 20 after the empty file's 3 is no drop.
  EXPECT_EQ(fdr_proc_range(b, false, carry).first, 20u);
  EXPECT_EQ(carry.ipd_high, 0u);

  IpdCarry carry2;
  fdr_proc_range(a, false, carry2);
  ProcRange rb = fdr_proc_range(b, false, carry2);
  EXPECT_EQ(rb.first, 65556u);
  EXPECT_EQ(rb.count, 7u);
  EXPECT_EQ(fdr_proc_range(c, false, carry2).first, 131082u);

  // Extension bits set: the drop is not a wrap without the flag.
  IpdCarry carry3;
  fdr_proc_range(a, false, carry3);
  Fdr d = b;
  d.bits = 1u << 17;
  EXPECT_EQ(fdr_proc_range(d, false, carry3).first, 20u);
}
