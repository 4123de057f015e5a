// The mdebug table update on every mdebug executable of the bench: with
// every text word moved by 0x10000, every code address in the symbols,
// procedure descriptors and external symbols moves by 0x10000 and nothing
// else does.
#include <gtest/gtest.h>

#include <algorithm>

#include "com/mdebug.h"
#include "mdebug/symtab.h"
#include "support/bench.h"
#include "support/elf_file.h"
#include "support/step.h"
#include "vesk/bin.h"
#include "vesk/options.h"
#include "vesk/reader.h"

using namespace vesk;
using namespace vesk::test;

namespace {

std::vector<std::string> mdebug_names() {
  std::vector<std::string> names;
  for (const BenchExe &e : bench_executables())
    if (e.debug == "mdebug")
      names.push_back(e.name);
  return names;
}

struct MdebugUpdate : testing::TestWithParam<std::string> {};

} // namespace

TEST_P(MdebugUpdate, MovesEveryCodeAddress) {
  std::string path = VESK_BENCH_DIR "/" + GetParam();
  fresh_run();
  option.program = path.c_str();
  testing::internal::CaptureStderr();
  read_orig_binary();
  testing::internal::GetCapturedStderr();
  std::vector<uint64_t> map(bin.text_words);
  for (uint32_t i = 0; i < bin.text_words; ++i)
    map[i] = bin.text_lo + 4 * uint64_t(i) + 0x10000;
  bin.text_map = map.data();

  ElfFile f(path);
  uint64_t file_off = f.shdr(".mdebug").sh_offset;
  std::vector<uint8_t> before = f.contents(".mdebug"), after = before;
  fixmdebug(after.data(), after.size(), file_off);
  MdebugHandle *old_h = mdebug_open_image(before.data(), before.size(), file_off, "before");
  MdebugHandle *new_h = mdebug_open_image(after.data(), after.size(), file_off, "after");
  mdebug_read_tables(old_h);
  mdebug_read_tables(new_h);
  const MdebugSymtab &o = old_h->st, &m = new_h->st;
  ASSERT_GT(m.ifd_max, 0u);

  auto shifted = [](uint32_t v) { return in_text(sign_extend32(v)) ? v + 0x10000 : v; };
  int moved_local = 0;
  for (uint32_t fd = 0; fd < m.ifd_max; ++fd) {
    EXPECT_EQ(uint32_t(m.fdrs[fd].adr), 0u);
    for (uint32_t k = 0; k < uint32_t(m.fdrs[fd].csym); ++k) {
      const Symr &s = o.syms[uint32_t(o.fdrs[fd].isymBase) + k];
      unsigned st = symr_st(s);
      bool code = st == 0 || st == 2 || st == 5 || st == 6 || st == 14 || st == 33;
      uint32_t want = code ? shifted(s.value) : uint32_t(s.value);
      EXPECT_EQ(uint32_t(m.syms[uint32_t(o.fdrs[fd].isymBase) + k].value), want);
      moved_local += (st == 6 || st == 14) && want != uint32_t(s.value); // local procedures
    }
    for (uint32_t k = 0; k < uint32_t(m.fdrs[fd].cpd); ++k) {
      uint32_t i = uint32_t(o.fdrs[fd].ipdFirst) + k;
      // The assembler writes descriptor addresses relative to the file
      // even for PIC code, where they are taken as absolute: left alone.
      uint32_t want = bin.pic_kind == 0 ? o.pdrs[i].adr : o.pdrs[i].adr + uint32_t(o.fdrs[fd].adr) + 0x10000;
      EXPECT_EQ(uint32_t(m.pdrs[i].adr), want);
    }
  }
  EXPECT_GT(moved_local, 0);
  for (uint32_t i = 0; i < m.iext_max; ++i) {
    uint32_t v = o.exts[i].asym.value;
    EXPECT_EQ(uint32_t(m.exts[i].asym.value), v == 0 || v == 1 ? v : shifted(v)) << mdebug_external_name(old_h, i);
  }
}

INSTANTIATE_TEST_SUITE_P(Bench, MdebugUpdate, testing::ValuesIn(mdebug_names()),
                         [](const testing::TestParamInfo<std::string> &info) {
                           std::string n = info.param;
                           std::replace(n.begin(), n.end(), '-', '_');
                           return n;
                         });
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(MdebugUpdate);
