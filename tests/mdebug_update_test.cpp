// The mdebug update on section bytes: what moves through the text map,
// what stays, and the refusal of tables that do not fit the section.
#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "com/mdebug.h"
#include "support/synth_mdebug.h"
#include "vesk/bin.h"
#include "vesk/options.h"

using namespace vesk;
using namespace vesk::test;
using ::testing::ExitedWithCode;

namespace {

constexpr uint64_t FILE_OFF = 0x3000;
constexpr uint64_t TEXT_LO = 0x400000;
constexpr uint32_t TEXT_WORDS = 0x400;
constexpr uint64_t NEW_BASE = 0x500000;

struct MdebugUpdate : ::testing::Test {
  std::vector<uint64_t> map;

  void SetUp() override {
    reset_mdebug_update();
    option = Options{};
    bin = Bin{};
    bin.pic_kind = 2;
    bin.is_elf32 = 1;
    set_text(TEXT_WORDS);
  }

  // The text laid out backwards: word i goes to NEW_BASE + 4 (n - 1 - i).
  void set_text(uint32_t words) {
    bin.text_lo = TEXT_LO;
    bin.text_hi = TEXT_LO + 4 * uint64_t(words);
    bin.text_words = words;
    map.resize(words);
    for (uint32_t i = 0; i < words; ++i)
      map[i] = NEW_BASE + 4 * uint64_t(words - 1 - i);
    bin.text_map = map.data();
  }
  uint32_t moved(uint64_t a) const { return uint32_t(map[(a - TEXT_LO) / 4]); }

  void fix(std::vector<uint8_t> &v) { fixmdebug(v.data(), v.size(), FILE_OFF); }
};

// Two files as a non-PIC link leaves them: descriptor addresses relative to
// the file's base, symbol values absolute.
SynthMdebug linked_table() {
  SynthMdebug t;
  SynthFile a;
  a.name = "a.c";
  a.adr = 0x400100;
  a.procs = {{"a0", 0x400100, 0x0}, {"a1", 0x400140, 0x40}};
  a.syms = {{"label", 0x400150, 5},     {"static_data", 0x410000, 2}, {"nil_zero", 0, 0},
            {"end_of_a1", 0x400150, 8}, {"param", 0x400104, 3},       {"type33", 0x400160, 33},
            {"static_proc", 0x400180, 14}};
  SynthFile b;
  b.name = "b.c";
  b.adr = 0x400200;
  b.procs = {{"b0", 0x400200, 0x0}, {"b1", 0x400210, 0x10}};
  t.files = {a, b};
  t.externals = {{"a0", 0x400100, 6}, {"undef", 0, 6}, {"special", 1, 1}, {"data", 0x410010, 1},
                 {"b1", 0x400210, 0}};
  t.line_bytes = 16;
  return t;
}

} // namespace

TEST_F(MdebugUpdate, DescriptorsAndSymbolsFollowTheTextMap) {
  std::vector<uint8_t> v = linked_table().build(FILE_OFF);
  fix(v);
  EXPECT_EQ(bin.line_offset, FILE_OFF + 96);
  EXPECT_EQ(bin.line_size, 16u);
  EXPECT_EQ(mdebug_bad_proc_info, 0);

  for (uint32_t f = 0; f < 2; ++f)
    EXPECT_EQ(uint32_t(fdr_of(v, FILE_OFF, f).adr), 0u);
  // Relative descriptor addresses became absolute new ones.
  EXPECT_EQ(uint32_t(pdr_of(v, FILE_OFF, 0).adr), moved(0x400100));
  EXPECT_EQ(uint32_t(pdr_of(v, FILE_OFF, 1).adr), moved(0x400140));
  EXPECT_EQ(uint32_t(pdr_of(v, FILE_OFF, 2).adr), moved(0x400200));
  EXPECT_EQ(uint32_t(pdr_of(v, FILE_OFF, 3).adr), moved(0x400210));

  // Local symbols: procedures, labels, statics and type 33 in the text
  // move; ends, parameters, data and zero values stay.
  auto sym = [&](uint32_t i) { return uint32_t(sym_of(v, FILE_OFF, i).value); };
  EXPECT_EQ(sym(0), moved(0x400100));
  EXPECT_EQ(sym(1), moved(0x400140));
  EXPECT_EQ(sym(2), moved(0x400150));  // stLabel
  EXPECT_EQ(sym(3), 0x410000u);        // stStatic, not in the text
  EXPECT_EQ(sym(4), 0u);               // stNil with value 0
  EXPECT_EQ(sym(5), 0x400150u);        // stEnd
  EXPECT_EQ(sym(6), 0x400104u);        // stParam
  EXPECT_EQ(sym(7), moved(0x400160));  // 33
  EXPECT_EQ(sym(8), moved(0x400180));  // stStaticProc
  EXPECT_EQ(sym(9), moved(0x400200));  // b0: the second file's symbols

  auto ext = [&](uint32_t i) { return uint32_t(ext_of(v, FILE_OFF, i).asym.value); };
  EXPECT_EQ(ext(0), moved(0x400100));
  EXPECT_EQ(ext(1), 0u);
  EXPECT_EQ(ext(2), 1u);
  EXPECT_EQ(ext(3), 0x410010u);
  EXPECT_EQ(ext(4), moved(0x400210)); // the external's type is not consulted
}

TEST_F(MdebugUpdate, BaseOfTheDescriptors) {
  // The first descriptor holding the file's base: addresses are absolute.
  SynthMdebug t = linked_table();
  t.files[0].procs = {{"a0", 0x400100, 0x400100}, {"a1", 0x400140, 0x400140}};
  std::vector<uint8_t> v = t.build(FILE_OFF);
  fix(v);
  EXPECT_EQ(uint32_t(pdr_of(v, FILE_OFF, 1).adr), moved(0x400140));

  // PIC code: absolute addresses; a relative one is left and counted.
  reset_mdebug_update();
  bin.pic_kind = 0;
  t = linked_table();
  t.files[1].procs = {{"b0", 0x400200, 0x400200}, {"b1", 0x400210, 0x10}};
  v = t.build(FILE_OFF);
  fix(v);
  EXPECT_EQ(uint32_t(pdr_of(v, FILE_OFF, 0).adr), 0u);
  EXPECT_EQ(uint32_t(pdr_of(v, FILE_OFF, 1).adr), 0x40u);
  EXPECT_EQ(uint32_t(pdr_of(v, FILE_OFF, 2).adr), moved(0x400200));
  EXPECT_EQ(uint32_t(pdr_of(v, FILE_OFF, 3).adr), 0x10u);
  EXPECT_EQ(mdebug_bad_proc_info, 1);
}

TEST_F(MdebugUpdate, DescriptorWithoutSymbolKeepsItsAddress) {
  SynthMdebug t = linked_table();
  t.files[0].procs[1].isym = MDEBUG_NIL;
  std::vector<uint8_t> v = t.build(FILE_OFF);
  fix(v);
  EXPECT_EQ(uint32_t(pdr_of(v, FILE_OFF, 1).adr), 0x40u);
  EXPECT_EQ(mdebug_bad_proc_info, 0);
}

TEST_F(MdebugUpdate, BadProcedureInfoIsReported) {
  SynthMdebug t = linked_table();
  t.files[1].procs[1].pdr_adr = 0x10000; // base + adr beyond the text
  std::vector<uint8_t> v = t.build(FILE_OFF);
  option.verbose = 1;
  testing::internal::CaptureStderr();
  fix(v);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Warning: mdebug has incorrect procedure info.\n");

  reset_mdebug_update();
  option.verbose = 0;
  option.debug = 1;
  v = t.build(FILE_OFF);
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  fix(v);
  std::string err = testing::internal::GetCapturedStderr();
  std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(err, "Warning: incorrect info in mdebug fdr->adr 0x400200, pdr->adr 0x10000.\n");
  EXPECT_NE(out.find("<Debug> cur_pdr->adr = 0x40\n"), std::string::npos) << out;
}

// Over 65535 descriptors: the third file's 16-bit ipdFirst wrapped.  Only
// its own descriptors may move, each exactly once.
TEST_F(MdebugUpdate, WrappedDescriptorIndexes) {
  constexpr uint32_t PER_FILE = 33000, N = 70000;
  set_text(N + 4);
  for (bool ext_bits : {false, true}) {
    SCOPED_TRACE(ext_bits ? "-B" : "wrap-around");
    reset_mdebug_update();
    option.b_flag = ext_bits;
    SynthMdebug t;
    for (uint32_t i = 0; i < N; i += PER_FILE) {
      SynthFile f;
      f.name = "f.c";
      f.adr = uint32_t(TEXT_LO + 4 * i);
      f.ext_bits = ext_bits;
      for (uint32_t k = i; k < std::min(N, i + PER_FILE); ++k)
        f.procs.push_back({"p", uint32_t(TEXT_LO + 4 * k), 4 * (k - i)});
      t.files.push_back(std::move(f));
    }
    std::vector<uint8_t> v = t.build(FILE_OFF);
    fix(v);
    for (uint32_t k : {0u, 464u, 4463u, 32999u, 33000u, 65999u, 66000u, 66464u, 69999u})
      EXPECT_EQ(uint32_t(pdr_of(v, FILE_OFF, k).adr), moved(TEXT_LO + 4 * k)) << k;
  }
}

TEST_F(MdebugUpdate, EmptyRangesAreNotLookedAt) {
  SynthMdebug t = linked_table();
  SynthFile empty;
  empty.name = "empty.c";
  t.files.push_back(empty);
  std::vector<uint8_t> v = t.build(FILE_OFF);
  fdr_of(v, FILE_OFF, 2).ipdFirst = 0xFFFF; // no descriptors, so no place
  fdr_of(v, FILE_OFF, 2).isymBase = 0xFFFFFFF;
  fix(v);
  EXPECT_EQ(uint32_t(pdr_of(v, FILE_OFF, 3).adr), moved(0x400210));

  SynthMdebug none;
  std::vector<uint8_t> w = none.build(FILE_OFF);
  fix(w);
  EXPECT_EQ(w, none.build(FILE_OFF));
}

TEST_F(MdebugUpdate, HeaderIsChecked) {
  std::vector<uint8_t> v = linked_table().build(FILE_OFF);
  EXPECT_EXIT(fixmdebug(v.data(), 95, FILE_OFF), ExitedWithCode(1),
              "^Error: mdebug section 95 bytes is too small!\\.\n$");
  std::vector<uint8_t> zero(96, 0);
  EXPECT_EXIT(fixmdebug(zero.data(), zero.size(), FILE_OFF), ExitedWithCode(1),
              "^Error: mdebug magic 0x0 is wrong! want 0x7009\\.\n$");
}

TEST_F(MdebugUpdate, TablesOutsideTheSectionAreRefused) {
  const std::vector<uint8_t> good = linked_table().build(FILE_OFF);
  const std::string p = "0x[0-9a-f]+";
  struct Case {
    const char *what;
    std::function<void(std::vector<uint8_t> &)> damage;
    std::string message;
  } cases[] = {
      {"fdrs before", [](auto &v) { hdr_of(v).cbFdOffset = FILE_OFF - 8; },
       "^Error: mdebug fdrs not in memory\\? " + p + " " + p + "\\.\n$"},
      {"fdrs after", [](auto &v) { hdr_of(v).ifdMax = 1000; },
       "^Error: mdebug fdrs not in memory\\? " + p + " " + p + "\\.\n$"},
      {"pdrs before", [](auto &v) { hdr_of(v).cbPdOffset = 0; },
       "^Error: mdebug pdr not in memory\\? " + p + " " + p + " ifd 0\\.\n$"},
      {"pdrs after", [](auto &v) { fdr_of(v, FILE_OFF, 1).ipdFirst = 60000; },
       "^Error: mdebug pdr not in memory\\? " + p + " " + p + "\\.\n$"},
      {"pdrs beyond the table", [](auto &v) { fdr_of(v, FILE_OFF, 1).cpd = 3; },
       "^Error: mdebug pdr of ifd 1 beyond the table: 2 \\+ 3 > ipdMax 4\\.\n$"},
      {"symrs before", [](auto &v) { hdr_of(v).cbSymOffset = 0x100; },
       "^Error: mdebug symr not in memory\\? " + p + " " + p + " ifd 0\\.\n$"},
      {"symrs after", [](auto &v) { fdr_of(v, FILE_OFF, 0).csym = 0x7FFFFFFF; },
       "^Error: mdebug symr not in memory\\? " + p + " " + p + "\\.\n$"},
      {"symrs beyond the table", [](auto &v) { hdr_of(v).isymMax = 10; },
       "^Error: mdebug symr of ifd 1 beyond the table: 9 \\+ 2 > isymMax 10\\.\n$"},
      {"externals before", [](auto &v) { hdr_of(v).cbExtOffset = 4; },
       "^Error: mdebug externals not in memory\\? " + p + " " + p + "\\.\n$"},
      {"externals after", [](auto &v) { hdr_of(v).iextMax = 6; },
       "^Error: mdebug Externals not in memory\\? " + p + " " + p + "\\.\n$"},
      {"line table", [](auto &v) { hdr_of(v).cbLine = 0x10000; },
       "^Error: mdebug line table \\(65536 bytes at file offset 0x3060\\) lies outside the section"},
  };
  for (const Case &c : cases) {
    std::vector<uint8_t> v = good;
    c.damage(v);
    EXPECT_EXIT(fix(v), ExitedWithCode(1), c.message) << c.what;
  }
}
