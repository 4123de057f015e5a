// The .MIPS.Xlate table: the producer's refusals, tables of many blocks
// read back exactly, malformed tables refused, and on every DWARF
// executable of the bench the table vesk writes, checked word by word
// against the input's code.
#include <gtest/gtest.h>

#include <algorithm>
#include <fcntl.h>
#include <map>
#include <random>
#include <sstream>

#include "base/bin.h"
#include "base/bytes.h"
#include "base/options.h"
#include "com/dwarf.h"
#include "com/dwarf_scan.h"
#include "com/elf.h"
#include "com/xlate_table.h"
#include "support/bench.h"
#include "support/step.h"
#include "vesk/driver.h"
#include "com/reader.h"
#include "xlate/xlate.h"

using namespace vesk::test;
using namespace vesk::xlate;

namespace {

std::string xlate_binary() { return std::string(VESK_BINARY) + "-xlate"; }

// The whole section a producer hands out.
std::vector<uint8_t> table_bytes(XlateProducer *h, int *status = nullptr) {
  uint64_t size = 0, count = 0, len = 0;
  int st = xlate_pro_disk_header_xtnd(h, 1, &size, &count);
  std::vector<uint8_t> all, piece;
  for (uint64_t i = 0; st == XLATE_OK && i < count; ++i)
    if ((st = xlate_pro_disk_next_block_xtnd(h, &piece, &len)) == XLATE_OK)
      all.insert(all.end(), piece.begin(), piece.end());
  EXPECT_EQ(all.size(), size);
  if (status)
    *status = st;
  return all;
}

// Every range of an open table, block by block.
std::vector<XlateRange> all_ranges(const XlateTable &t) {
  std::vector<XlateRange> all, block;
  for (uint64_t b = 0; b < t.info.block_count; ++b) {
    EXPECT_EQ(xlate_block_ranges_xtnd(&t, b, &block), XLATE_OK);
    all.insert(all.end(), block.begin(), block.end());
  }
  return all;
}

TEST(XlateProducer, EachRefusalHasItsStatus) {
  struct Case {
    const char *what;
    int kind, expected;
    std::vector<XlateRange> ranges; // the last one is refused
  };
  const Case cases[] = {
      {"gap in new addresses", 1, XLATE_NOT_ADJACENT, {{0x1000, 8, 0x2000, 8}, {0x100c, 4, 0x3000, 4}}},
      {"kind 1 with unequal sizes", 1, XLATE_SIZE_DIFFERS, {{0x1000, 8, 0x2000, 8}, {0x1008, 8, 0x3000, 4}}},
      {"kind 2 with a gap in old addresses", 2, XLATE_NOT_ADJACENT, {{0x1000, 8, 0x2000, 8}, {0x1008, 4, 0x200c, 4}}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    XlateProducer *h = nullptr;
    ASSERT_EQ(xlate_pro_init_xtnd(&h, c.kind, nullptr, 0), XLATE_OK);
    for (size_t i = 0; i + 1 < c.ranges.size(); ++i)
      ASSERT_EQ(xlate_pro_add_range_xtnd(h, c.ranges[i].new_addr, c.ranges[i].new_len, c.ranges[i].old_addr,
                                         c.ranges[i].old_len), XLATE_OK);
    const XlateRange &r = c.ranges.back();
    EXPECT_EQ(xlate_pro_add_range_xtnd(h, r.new_addr, r.new_len, r.old_addr, r.old_len), c.expected);
    // The refused range left nothing behind.
    std::vector<uint8_t> bytes = table_bytes(h);
    XlateTable t;
    ASSERT_EQ(xlate_open_xtnd(bytes.data(), bytes.size(), &t), XLATE_OK);
    EXPECT_EQ(t.info.range_count, c.ranges.size() - 1);
    xlate_pro_finish_xtnd(h);
  }

  XlateProducer *h = nullptr;
  EXPECT_EQ(xlate_pro_init_xtnd(&h, 3, nullptr, 0), XLATE_BAD_KIND);
  ASSERT_EQ(xlate_pro_init_xtnd(&h, 1, nullptr, 1), XLATE_OK);
  uint64_t size = 0, count = 0, len = 0;
  EXPECT_EQ(xlate_pro_disk_next_block_xtnd(h, nullptr, &len), XLATE_NO_HEADER_YET);
  EXPECT_EQ(xlate_pro_disk_header_xtnd(h, 3, &size, &count), XLATE_BAD_VERSION);
  EXPECT_EQ(xlate_pro_add_range_xtnd(h, 0, 4, 0, 4), XLATE_ADDED_AFTER_HEADER);
  XlateProducer *fresh = nullptr;
  ASSERT_EQ(xlate_pro_init_xtnd(&fresh, 1, nullptr, 1), XLATE_OK);
  ASSERT_EQ(xlate_pro_add_range_xtnd(fresh, 0x1000, 4, 0x2000, 4), XLATE_OK);
  ASSERT_EQ(xlate_pro_disk_header_xtnd(fresh, 1, &size, &count), XLATE_OK);
  EXPECT_EQ(count, 2u); // header, one block
  for (uint64_t i = 0; i < count; ++i)
    EXPECT_EQ(xlate_pro_disk_next_block_xtnd(fresh, nullptr, &len), XLATE_OK);
  EXPECT_EQ(xlate_pro_disk_next_block_xtnd(fresh, nullptr, &len), XLATE_NO_MORE_PIECES);
  XlateProducer dead = *fresh;
  dead.magic = 0;
  EXPECT_EQ(xlate_pro_add_range_xtnd(&dead, 0x1004, 4, 0, 4), XLATE_BAD_MAGIC);
  xlate_pro_finish_xtnd(fresh);
  xlate_pro_finish_xtnd(h);

  // No ranges: no pieces at all.
  ASSERT_EQ(xlate_pro_init_xtnd(&h, 1, nullptr, 0), XLATE_OK);
  ASSERT_EQ(xlate_pro_disk_header_xtnd(h, 1, &size, &count), XLATE_OK);
  EXPECT_EQ(size + count, 0u);
  xlate_pro_finish_xtnd(h);
}

// 100,000 procedures in a shuffled order, in every kind and width: the
// table spans many blocks and reads back exactly, in both directions.
TEST(XlateProducer, HundredThousandProceduresRoundTrip) {
  const size_t n = 100000;
  std::mt19937_64 rng(12);
  std::vector<uint64_t> size(n), old_addr(n);
  uint64_t a = 0x10000000;
  for (size_t i = 0; i < n; ++i, a += size[i - 1])
    old_addr[i] = a, size[i] = 4 * (1 + rng() % 2000);
  std::vector<size_t> order(n);
  for (size_t i = 0; i < n; ++i)
    order[i] = i;
  std::shuffle(order.begin(), order.end(), rng);
  for (int kind : {0, 1, 2})
    for (int is64 : {0, 1}) {
      SCOPED_TRACE("kind " + std::to_string(kind) + (is64 ? " 64-bit" : " 32-bit"));
      std::vector<XlateRange> in;
      uint64_t next_new = is64 ? 0x120000000ull : 0x400000, next_old = 0x10000000;
      for (size_t i : order) {
        // Kind 2 keeps old order; kind 0 lets sizes change.
        uint64_t old = kind == 2 ? next_old : old_addr[i], new_len = size[i] + (kind == 0 && i % 3 ? 8 : 0);
        in.push_back({next_new, new_len, old, size[i]});
        next_new += new_len, next_old += size[i];
      }
      XlateProducer *h = nullptr;
      ASSERT_EQ(xlate_pro_init_xtnd(&h, kind, nullptr, is64), XLATE_OK);
      for (const XlateRange &r : in)
        ASSERT_EQ(xlate_pro_add_range_xtnd(h, r.new_addr, r.new_len, r.old_addr, r.old_len), XLATE_OK);
      std::vector<uint8_t> bytes = table_bytes(h);
      xlate_pro_finish_xtnd(h);
      XlateTable t;
      ASSERT_EQ(xlate_open_xtnd(bytes.data(), bytes.size(), &t), XLATE_OK);
      EXPECT_GT(t.info.block_count, 50u);
      EXPECT_EQ(t.info.is64, is64 != 0);
      std::vector<XlateRange> out = all_ranges(t);
      ASSERT_EQ(out.size(), n);
      for (size_t i = 0; i < n; ++i)
        ASSERT_TRUE(out[i].new_addr == in[i].new_addr && out[i].new_len == in[i].new_len &&
                    out[i].old_addr == in[i].old_addr && out[i].old_len == in[i].old_len)
            << "range " << i;
      for (size_t i = 0; i < n; i += 997) {
        uint64_t to = 0;
        XlateRange r;
        ASSERT_EQ(xlate_address_xtnd(&t, XLATE_NEW_TO_OLD, in[i].new_addr + 4, &to, &r), XLATE_OK);
        EXPECT_EQ(to, in[i].old_addr + 4);
        // The last word of a side that grew leads to the last word of the old side.
        ASSERT_EQ(xlate_address_xtnd(&t, XLATE_NEW_TO_OLD, in[i].new_addr + in[i].new_len - 4, &to, &r), XLATE_OK);
        EXPECT_EQ(to, in[i].old_addr + std::min(in[i].new_len, in[i].old_len) - 4);
        ASSERT_EQ(xlate_address_xtnd(&t, XLATE_OLD_TO_NEW, in[i].old_addr, &to, &r), XLATE_OK);
        EXPECT_EQ(to, in[i].new_addr);
      }
    }
}

// Damaged tables are refused with a status, never read past their bytes
// (each copy is exactly as long as the table, for the address sanitizer).
TEST(XlateConsumer, RefusesMalformedTables) {
  XlateProducer *h = nullptr;
  ASSERT_EQ(xlate_pro_init_xtnd(&h, 1, nullptr, 0), XLATE_OK);
  for (uint64_t i = 0; i < 3000; ++i)
    ASSERT_EQ(xlate_pro_add_range_xtnd(h, 0x400000 + 8 * i, 8, 0x800000 - 8 * i, 8), XLATE_OK);
  const std::vector<uint8_t> good = table_bytes(h);
  xlate_pro_finish_xtnd(h);
  ASSERT_GT(vesk::load32(good.data() + 16), 1u); // several blocks
  struct Damage {
    const char *what;
    size_t offset;
    std::vector<uint8_t> bytes;
    int at_open; // else the lookup in the damaged block fails
  };
  const size_t block0 = 52 + 20 * 2;
  const Damage damages[] = {
      {"format word", 3, {7}, XLATE_MALFORMED},
      {"kind", 4, {9}, XLATE_MALFORMED},
      {"block size", 10, {0x20}, XLATE_MALFORMED},
      {"block count", 19, {200}, XLATE_MALFORMED},
      {"range count", 23, {0}, XLATE_MALFORMED},
      {"index order", 52, {0xff}, XLATE_MALFORMED},
      {"block numbers never end", block0, std::vector<uint8_t>(4096, 0x80), XLATE_OK},
  };
  for (const Damage &d : damages) {
    SCOPED_TRACE(d.what);
    std::vector<uint8_t> bad = good;
    std::copy(d.bytes.begin(), d.bytes.end(), bad.begin() + long(d.offset));
    XlateTable t;
    ASSERT_EQ(xlate_open_xtnd(bad.data(), bad.size(), &t), d.at_open);
    if (d.at_open == XLATE_OK) {
      uint64_t to = 0;
      XlateRange r;
      EXPECT_EQ(xlate_address_xtnd(&t, XLATE_NEW_TO_OLD, 0x400010, &to, &r), XLATE_MALFORMED);
    }
  }
  for (size_t len = 0; len < good.size(); len += len < 200 ? 1 : 997) {
    std::vector<uint8_t> cut(good.begin(), good.begin() + long(len));
    XlateTable t;
    EXPECT_EQ(xlate_open_xtnd(cut.data(), cut.size(), &t), XLATE_MALFORMED) << len << " bytes";
  }
}

// What a rewritten executable must show: the table as the last section,
// at an offset that is a multiple of 8, with the section header table
// right behind it; readelf reads it; and every word of the old code is
// found through the table where the output holds it.  Branches, jumps and
// address loads are patched, so their opcode alone must stay; every other
// word is the same.
void check_table(const std::string &input, const std::string &out) {
  ElfFile in(input), o(out);
  GElf_Shdr sh = o.shdr(".MIPS.Xlate");
  ASSERT_EQ(sh.sh_type, XLATE_SECTION_TYPE) << out;
  EXPECT_EQ(sh.sh_offset % 8, 0u);
  EXPECT_EQ(o.ehdr().e_shoff, sh.sh_offset + sh.sh_size);
  uint64_t sections_end = 0; // the table lies behind every other section
  for (Elf_Scn *scn = elf_nextscn(o.e, nullptr); scn != nullptr; scn = elf_nextscn(o.e, scn)) {
    GElf_Shdr s;
    if (gelf_getshdr(scn, &s) != nullptr && s.sh_type != SHT_NOBITS && s.sh_type != XLATE_SECTION_TYPE)
      sections_end = std::max(sections_end, s.sh_offset + s.sh_size);
  }
  EXPECT_GE(sh.sh_offset, sections_end);
  RunResult re = run_command({"readelf", "-a", "-W", out});
  EXPECT_EQ(re.status, 0);
  EXPECT_EQ(re.err, run_command({"readelf", "-a", "-W", input}).err);

  std::vector<uint8_t> bytes = o.contents(".MIPS.Xlate");
  XlateTable t;
  ASSERT_EQ(xlate_open_xtnd(bytes.data(), bytes.size(), &t), XLATE_OK);
  uint64_t lo = ~0ull, hi = 0;
  for (Elf_Scn *scn = elf_nextscn(in.e, nullptr); scn != nullptr; scn = elf_nextscn(in.e, scn)) {
    GElf_Shdr s;
    if (gelf_getshdr(scn, &s) != nullptr && (s.sh_flags & SHF_EXECINSTR))
      lo = std::min(lo, s.sh_addr), hi = std::max(hi, s.sh_addr + s.sh_size);
  }
  std::vector<XlateRange> ranges = all_ranges(t);
  std::vector<std::pair<uint64_t, uint64_t>> old_side;
  uint64_t next = lo;
  size_t patched = 0, words = 0;
  for (const XlateRange &r : ranges) {
    ASSERT_EQ(r.new_addr, next) << "the ranges tile the new code";
    ASSERT_EQ(r.new_len, r.old_len);
    next += r.new_len;
    old_side.push_back({r.old_addr, r.old_len});
    for (uint64_t k = 0; k + 4 <= r.new_len; k += 4, ++words) {
      uint64_t at_in = in.offset_of(r.old_addr + k), at_out = o.offset_of(r.new_addr + k);
      if (at_in == ~0ull && at_out == ~0ull)
        continue; // padding between two executable sections: no word of the file
      ASSERT_TRUE(at_in != ~0ull && at_in + 4 <= in.bytes.size()) << std::hex << r.old_addr + k;
      ASSERT_TRUE(at_out != ~0ull && at_out + 4 <= o.bytes.size()) << std::hex << r.new_addr + k;
      uint32_t was = vesk::load32(&in.bytes[at_in]);
      uint32_t now = vesk::load32(&o.bytes[at_out]);
      ASSERT_EQ(was >> 26, now >> 26) << std::hex << r.old_addr + k << " at " << r.new_addr + k;
      patched += was != now;
      ASSERT_TRUE(was == now || was >> 26 != 0) << std::hex << r.old_addr + k << " at " << r.new_addr + k;
    }
    for (uint64_t k : {uint64_t(0), r.new_len - 4}) {
      uint64_t to = 0;
      XlateRange found;
      ASSERT_EQ(xlate_address_xtnd(&t, XLATE_NEW_TO_OLD, r.new_addr + k, &to, &found), XLATE_OK);
      EXPECT_EQ(to, r.old_addr + k);
      ASSERT_EQ(xlate_address_xtnd(&t, XLATE_OLD_TO_NEW, r.old_addr + k, &to, &found), XLATE_OK);
      EXPECT_EQ(to, r.new_addr + k);
    }
  }
  EXPECT_EQ(next, hi);
  std::sort(old_side.begin(), old_side.end());
  next = lo;
  for (const auto &[addr, len] : old_side) {
    ASSERT_EQ(addr, next) << "the ranges tile the old code";
    next += len;
  }
  EXPECT_LT(patched, words / 4);
}

const std::vector<BenchExe> &dwarf_executables() {
  static const std::vector<BenchExe> list = [] {
    std::vector<BenchExe> all;
    for (const std::vector<BenchExe> &set : {bench_executables(), real_executables()})
      for (const BenchExe &e : set)
        if (e.debug == "dwarf")
          all.push_back(e);
    return all;
  }();
  return list;
}

std::vector<std::string> dwarf_names() {
  std::vector<std::string> names{"none"};
  for (const BenchExe &e : dwarf_executables())
    names.push_back(e.name);
  return names;
}

bool is_real(const BenchExe &e) { return e.path.rfind(VESK_REAL_DIR, 0) == 0; }

RunResult runs(const BenchExe &e, const std::string &exe) {
  if (!is_real(e)) {
    RunResult r = run_bench(e, exe);
    if (r.status == 0 && r.out != e.expected)
      r.status = -1, r.err = "prints something else";
    return r;
  }
  return run_command({"env", std::string("VESK_REAL_DIR=") + VESK_REAL_DIR,
                      std::string(VESK_SOURCE_DIR) + "/bench/real/check.sh", e.program, e.abi, exe},
                     "", 600);
}

// A copy of path without the relocations that the link kept for its debug
// sections: they describe the input's contents, and libdwarf applies them
// (vesk empties them in its output).
std::string without_debug_relocations(const std::string &path, const std::string &copy) {
  ElfFile f(path);
  std::string bytes(f.bytes.begin(), f.bytes.end());
  GElf_Ehdr eh = f.ehdr();
  for (size_t i = 1; i < eh.e_shnum; ++i) {
    GElf_Shdr sh, target;
    Elf_Scn *s = elf_getscn(f.e, i);
    if (s == nullptr || gelf_getshdr(s, &sh) == nullptr || (sh.sh_type != SHT_REL && sh.sh_type != SHT_RELA) ||
        (sh.sh_flags & SHF_ALLOC) || gelf_getshdr(elf_getscn(f.e, sh.sh_info), &target) == nullptr ||
        (target.sh_flags & SHF_ALLOC))
      continue;
    size_t at = eh.e_shoff + i * eh.e_shentsize + (f.is64 ? 32 : 20);
    std::fill(bytes.begin() + long(at), bytes.begin() + long(at) + (f.is64 ? 8 : 4), '\0');
  }
  write_file(copy, bytes);
  return copy;
}

// Every section's contents have bytes of their own in the file: a section
// that grows moves what lies behind it in the file, which after an earlier
// run of vesk is not what follows it in the header table.
void expect_no_overlapping_sections(const std::string &path) {
  ElfFile f(path);
  std::vector<std::pair<uint64_t, uint64_t>> spans;
  for (Elf_Scn *s = elf_nextscn(f.e, nullptr); s != nullptr; s = elf_nextscn(f.e, s)) {
    GElf_Shdr sh;
    if (gelf_getshdr(s, &sh) != nullptr && sh.sh_type != SHT_NOBITS && sh.sh_size != 0)
      spans.push_back({sh.sh_offset, sh.sh_offset + sh.sh_size});
  }
  std::sort(spans.begin(), spans.end());
  for (size_t i = 1; i < spans.size(); ++i)
    EXPECT_LE(spans[i - 1].second, spans[i].first) << path << ": sections at file offsets " << spans[i - 1].first
                                                   << " and " << spans[i].first << " overlap";
}

// dwarfdump -ka's error count for each of its checks.
std::map<std::string, uint64_t> dwarfdump_errors(const std::string &path) {
  RunResult r = run_command({"dwarfdump", "-ka", path}, "", 300);
  EXPECT_EQ(r.status, 0) << "dwarfdump -ka " << path << ": " << r.err;
  std::map<std::string, uint64_t> errors;
  std::istringstream in(r.out.substr(std::min(r.out.size(), r.out.find("DWARF CHECK RESULT"))));
  std::string item;
  uint64_t checks = 0, count = 0;
  for (std::string line; std::getline(in, line);)
    if (std::istringstream(line) >> item >> checks >> count)
      errors[item] = count;
  EXPECT_FALSE(errors.empty()) << "dwarfdump -ka " << path << " gave no check results";
  return errors;
}

// The output's DWARF reads back as well as the input's: readelf decodes
// its units, lines, address and range tables and location lists without
// a complaint the input does not also give, and dwarfdump's checks find
// no more errors than in the input (read without its stale relocations,
// as the output is).
void check_debug_sections(const std::string &input, const std::string &out, const std::string &dir) {
  RunResult a = run_command({"readelf", "-wiLraRo", input}, "", 300);
  RunResult b = run_command({"readelf", "-wiLraRo", out}, "", 300);
  EXPECT_EQ(b.status, 0);
  EXPECT_LE(std::count(b.err.begin(), b.err.end(), '\n'), std::count(a.err.begin(), a.err.end(), '\n')) << b.err;
  if (run_command({"sh", "-c", "command -v dwarfdump"}).status != 0)
    return;
  std::map<std::string, uint64_t> before = dwarfdump_errors(without_debug_relocations(input, dir + "/norel"));
  // Its line check flags rows that lie outside the code of the entries it
  // happens to have met, which depends on the layout (sqlite3: 3 rows in
  // the input, 34 after a reversed layout, all of them where addr2line
  // and gdb find their functions); readelf and the debugger test read the
  // lines.
  for (const auto &[check, errors] : dwarfdump_errors(out)) {
    if (check != "line_table") {
      EXPECT_LE(errors, before[check]) << "dwarfdump -ka " << out << ": " << check;
    }
  }
}

class DwarfBench : public testing::TestWithParam<std::string> {};

// o32 in a reversed and a random order, then once more on the output;
// n32 and n64 keep their layout (their moves are refused still).
TEST_P(DwarfBench, TableLeadsEveryWordBackToTheInput) {
  const BenchExe *e = nullptr;
  for (const BenchExe &x : dwarf_executables())
    e = x.name == GetParam() ? &x : e;
  if (e == nullptr)
    GTEST_SKIP() << "no DWARF bench executables";
  if (e->abi != "o32") {
    ScratchDir tmp("xlate");
    std::string fb = tmp / "none.fb", out = tmp / "out", ann = tmp / "ann";
    write_file(fb, kNoFeedback);
    RunResult r = run_vesk({e->path, fb, "-o", out});
    ASSERT_EQ(r.status, 0) << r.err;
    // vesk read the input as vesk-annotate describes it (relaxed calls
    // given back their jalr form).
    ASSERT_EQ(run_command({annotate_binary(), e->path, "-o", ann}).status, 0);
    check_table(ann, out);
    check_debug_sections(e->path, out, tmp.path());
    return;
  }
  AnnotatedBench b(*e);
  if (!b.ok() && !b.refusal().empty())
    GTEST_SKIP() << "vesk-annotate refuses " << e->name << ": " << b.refusal();
  ASSERT_TRUE(b.ok());
  const std::string first = b.path("reversed"), second = b.path("random");
  for (const auto &[out, fb] : {std::pair{first, reversed_order(b)},
                                std::pair{second, random_order(b, e->name)}}) {
    SCOPED_TRACE(out);
    RunResult r = b.vesk(b.annotated(), fb, out);
    ASSERT_EQ(r.status, 0) << r.err;
    check_table(b.annotated(), out);
    check_debug_sections(b.annotated(), out, b.path(""));
    r = runs(*e, out);
    EXPECT_EQ(r.status, 0) << r.err;
  }
  // On one core the work of the second runs in its turn: the same bytes
  // and the same messages, whichever core got where first.
  if (run_command({"taskset", "-c", "0", "true"}).status == 0) {
    ScratchDir two("two-cores"), one("one-core");
    RunResult both = run_vesk({b.annotated(), second + ".fb", "-o", "out", "-v"}, two.path());
    RunResult alone =
        run_command({"taskset", "-c", "0", VESK_BINARY, b.annotated(), second + ".fb", "-o", "out", "-v"}, one.path());
    ASSERT_EQ(both.status, 0) << both.err;
    EXPECT_EQ(alone.status, 0) << alone.err;
    EXPECT_EQ(alone.err, both.err);
    EXPECT_EQ(alone.out, both.out);
    EXPECT_TRUE(read_file(two / "out") == read_file(one / "out")) << "the output depends on the second core";
  }
  // Discovery reads the units behind a share of .debug_info on the second
  // core and makes their records after the front's: wherever the split
  // falls (no second reader, every unit but the first on it), the same
  // procedures in the same order, so the same output, merged feedback and
  // messages.  So when the library reads every entry instead of the
  // scanner of the section's bytes.
  struct Way {
    double share;
    bool scanner;
  };
  std::vector<std::string> by_way;
  for (Way w : {Way{1.0, true}, Way{0.5, true}, Way{0.0, true}, Way{0.45, false}}) {
    std::string out = b.path("share-" + std::to_string(w.share) + (w.scanner ? "" : "-library")),
                merged = out + ".merged";
    std::vector<std::string> args{"vesk", b.annotated(), second + ".fb", "-o", out, "-merge", merged, "-v"};
    std::vector<char *> argv;
    for (std::string &a : args)
      argv.push_back(a.data());
    vesk::set_discovery_front_share(w.share);
    vesk::UnitScanner::use(w.scanner);
    testing::internal::CaptureStderr();
    int status = vesk::vesk_main(int(argv.size()), argv.data());
    std::string err = testing::internal::GetCapturedStderr();
    vesk::set_discovery_front_share(0.45);
    vesk::UnitScanner::use(true);
    ASSERT_EQ(status, 0) << err;
    by_way.push_back(read_file(out) + read_file(merged) + err);
  }
  for (size_t i = 1; i < by_way.size(); ++i)
    EXPECT_TRUE(by_way[i] == by_way[0]) << "the records depend on " << (i < 3 ? "where discovery splits .debug_info" : "who reads the entries");
  // A second run reads the first one's output through its table and
  // writes one that leads straight back to the original build.
  const std::string again = b.path("again");
  RunResult r = b.vesk(first, random_order(b, e->name + " again"), again);
  ASSERT_EQ(r.status, 0) << r.err;
  check_table(b.annotated(), again);
  check_debug_sections(b.annotated(), again, b.path(""));
  expect_no_overlapping_sections(again);
  r = runs(*e, again);
  EXPECT_EQ(r.status, 0) << r.err;
}

INSTANTIATE_TEST_SUITE_P(Bench, DwarfBench, testing::ValuesIn(dwarf_names()), [](const auto &info) {
  std::string n = info.param;
  std::replace(n.begin(), n.end(), '-', '_');
  return n;
});

// On a real program, vesk-xlate names the original code of the new start
// of every function: its old address, its name, and the line addr2line
// gives for it in the input.
TEST(VeskXlate, NamesTheOriginalCodeOfEveryFunction) {
  const BenchExe *e = nullptr;
  for (const BenchExe &x : dwarf_executables())
    if (is_real(x) && x.abi == "o32" && x.model == "fno-pie" && e == nullptr)
      e = &x;
  if (e == nullptr)
    GTEST_SKIP() << "real programs missing";
  AnnotatedBench b(*e);
  ASSERT_TRUE(b.ok()) << b.refusal();
  const std::string out = b.path("out");
  ASSERT_EQ(b.vesk(b.annotated(), random_order(b, e->name), out).status, 0);
  std::map<std::string, int> seen;
  for (const ElfSymbol &s : ElfFile(b.annotated()).functions(true))
    ++seen[s.name];
  std::vector<std::string> args{xlate_binary(), out}, lines{"addr2line", "-e", b.annotated()};
  std::vector<std::string> expected, named;
  std::map<std::string, uint64_t> old_of;
  for (const ElfSymbol &s : ElfFile(b.annotated()).functions(true))
    old_of[s.name] = s.value;
  for (const ElfSymbol &s : ElfFile(out).functions(true)) {
    if (seen[s.name] != 1)
      continue;
    char buf[64];
    std::snprintf(buf, sizeof buf, "%#llx", (unsigned long long)s.value);
    args.push_back(buf);
    std::snprintf(buf, sizeof buf, "%#llx", (unsigned long long)old_of[s.name]);
    lines.push_back(buf);
    expected.push_back(args.back() + " -> " + buf + " " + s.name + " at ");
    named.push_back(s.name);
  }
  ASSERT_GT(expected.size(), 50u);
  RunResult r = run_command(args), a = run_command(lines);
  ASSERT_EQ(r.status, 0) << r.err;
  std::istringstream got(r.out), src(a.out);
  std::string line, where;
  size_t with_line = 0;
  for (const std::string &want : expected) {
    ASSERT_TRUE(std::getline(got, line) && std::getline(src, where));
    where = where.substr(0, where.find(" (discriminator"));
    bool known = where.find('?') == std::string::npos;
    EXPECT_EQ(line, want + (known ? where : "??:0"));
    with_line += known;
  }
  EXPECT_GT(with_line, expected.size() / 2);

  // With the original named, its own symbols and lines answer the same.
  std::vector<std::string> with_original = args;
  with_original.insert(with_original.begin() + 1, {"-e", b.annotated()});
  EXPECT_EQ(run_command(with_original).out, r.out);
  // Backwards, each original address leads to the new one.
  std::vector<std::string> back{xlate_binary(), "-r", out};
  back.insert(back.end(), lines.begin() + 3, lines.end());
  RunResult rb = run_command(back);
  std::istringstream backwards(rb.out);
  for (size_t i = 0; i < expected.size(); ++i) {
    ASSERT_TRUE(std::getline(backwards, line)) << rb.err;
    EXPECT_EQ(line.substr(0, line.find(" at ")), lines[3 + i] + " -> " + args[2 + i] + " " + named[i]);
  }
  // As a filter, the address that starts a line becomes the original one;
  // a word inside a function is named from its start.
  r = run_command({"sh", "-c", "printf ' %s here\nnone\n' \"$1\" | \"$0\" \"$2\" -", xlate_binary(), args[2], out});
  EXPECT_EQ(r.out, " " + lines[3] + " here\nnone\n");
  for (const ElfSymbol &s : ElfFile(out).functions(true))
    if (seen[s.name] == 1 && s.size > 8) {
      char at[64];
      std::snprintf(at, sizeof at, "%#llx", (unsigned long long)s.value + 8);
      r = run_command({xlate_binary(), out, at});
      EXPECT_NE(r.out.find(" " + s.name + "+0x8 at "), std::string::npos) << r.out;
      break;
    }

  // A table that is not one is refused with a message.
  std::string bytes = read_file(out);
  GElf_Shdr sh = ElfFile(out).shdr(".MIPS.Xlate");
  bytes[sh.sh_offset + 3] = 9;
  write_file(b.path("bad"), bytes);
  r = run_command({xlate_binary(), b.path("bad"), "0x400000"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err.rfind("Error: " + b.path("bad") + ": its .MIPS.Xlate section is no translation table", 0), 0u)
      << r.err;
}

// mdebug inputs get no table; a table with no ranges is an empty section
// that leaves the section header table where it was.
TEST(XlateSection, MdebugGetsNoneAndAnEmptyTableMovesNothing) {
  VESK_REQUIRE_BENCH();
  const BenchExe *m = bench_named("calc-n32-mdebug-pie"), *d = bench_named("calc-o32-dwarf-pie");
  ASSERT_TRUE(m && d);
  ScratchDir tmp("xlate");
  std::string fb = tmp / "none.fb", out = tmp / "out", ann = tmp / "ann";
  write_file(fb, kNoFeedback);
  ASSERT_EQ(run_command({annotate_binary(), m->path, "-o", ann}).status, 0);
  ASSERT_EQ(run_vesk({ann, fb, "-o", out}).status, 0);
  EXPECT_EQ(ElfFile(out).scn(".MIPS.Xlate"), nullptr);
  EXPECT_EQ(ElfFile(out).ehdr().e_shoff, ElfFile(ann).ehdr().e_shoff);

  // The output image of d, given a table without ranges, written as is.
  fresh_run();
  vesk::option.program = d->path.c_str();
  vesk::option.output = out.c_str();
  ASSERT_EQ(run_step(vesk::read_input).status, 0);
  vesk::bin.out_fd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0755);
  vesk::duplicate_elf();
  vesk::XlateSection s = vesk::create_xlate_section();
  uint64_t shoff = elf32_getehdr(vesk::bin.out_elf)->e_shoff;
  vesk::finish_xlate(s);
  EXPECT_EQ(elf32_getehdr(vesk::bin.out_elf)->e_shoff, shoff);
  vesk::write_it();
  fresh_run();
  ElfFile o(out);
  EXPECT_EQ(o.shdr(".MIPS.Xlate").sh_size, 0u);
  EXPECT_EQ(o.shdr(".MIPS.Xlate").sh_offset % 8, 0u);
  EXPECT_EQ(run_command({"readelf", "-a", "-W", out}).status, 0);
}

} // namespace
