// The events stream: decoding every operand shape, the rebuilt stream read
// back, and vesk on annotated n32 inputs whose events sections are broken.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <gelf.h>
#include <regex>
#include <unistd.h>

#include "base/bin.h"
#include "base/bytes.h"
#include "com/events.h"
#include "support/bench.h"
#include "support/step.h"

using namespace vesk;
using namespace vesk::test;

namespace {

std::vector<EventEntry> decode(const std::vector<uint8_t> &b) {
  EventStream s{b.data(), b.data() + b.size(), ".MIPS.events"};
  std::vector<EventEntry> out;
  EventEntry e;
  for (const uint8_t *p = s.begin; p < s.end;)
    out.push_back(e), p = event_get_next_rec(s, p, e.address, &out.back()), e = out.back();
  return out;
}

} // namespace

TEST(EventsReader, DecodesEveryShapeAndRefusesCutRecords) {
  struct Case {
    std::vector<uint8_t> bytes;
    uint32_t kind, address;
    uint64_t val1;
  } cases[] = {
      {{0xff}, EK_SHORT_STEP, 508, 508},
      {{0x01, 0, 0, 1, 0, 0, 9}, EK_ADDR_RESET, 0x100, 0x100},
      {{0x02, 0x80, 0x01}, EK_INCR_LOC_EXT, 512, 512},
      {{0x0b, 0x03}, EK_INCR_LOC_UNALIGNED, 3, 3},
      {{0x0e, 0xff, 0xf0}, EK_GOT_PAGE, 0, uint64_t(-16)},
      {{0x12, 1, 2, 3, 4, 5, 6, 7, 8}, EK_64_HIGHEST, 0, 0x0102030405060708},
      {{0x37, 0x85, 0x01}, CK_SADDR_64, 0, 133},
      {{0x07, 0xfe, 0, 0, 0, 4, 0x02}, EK_SWITCH_32, 0, uint64_t(-2)},
      {{0x18, 0xff, 0xff, 0xff, 0xf8}, EK_FCALL_LOCAL, 0, uint64_t(-8)},
      {{0x6b, 0x81, 0x01}, 0x6b, 0, 129},
      {{0x7f}, 0x7f, 0, 0},
  };
  for (const Case &c : cases) {
    std::vector<EventEntry> d = decode(c.bytes);
    ASSERT_EQ(d.size(), 1u);
    EXPECT_EQ(d[0].kind, c.kind) << event_kind_string(c.kind);
    EXPECT_EQ(d[0].address, c.address) << event_kind_string(c.kind);
    EXPECT_EQ(d[0].val1, c.val1) << event_kind_string(c.kind);
    if (c.bytes.size() > 1) { // every record cut short by one byte
      std::vector<uint8_t> cut(c.bytes.begin(), c.bytes.end() - 1);
      StepResult r = run_step([&] { decode(cut); });
      EXPECT_EQ(r.status, 1);
      EXPECT_TRUE(std::regex_search(r.err, std::regex("section .MIPS.events: the " + event_kind_string(c.kind) +
                                                          " record .* cut off",
                                                      std::regex::extended)))
          << r.err;
    }
  }
  EXPECT_EQ(event_kind_string(0x3e), "0x3e");
  EXPECT_EQ(event_kind_string(0x57), "EK_CK_UNUSED_16BIT_2");
}

// Kept records in any order come back sorted at their addresses; equal
// addresses take no step, 127 words one byte 0xff, 128 words EK_INCR_LOC_EXT.
TEST(EventsWriter, RebuiltStreamDecodesBackToTheKeptRecords) {
  const uint64_t base = 0x10000000;
  std::vector<KeptEvent> kept = {{EK_GOT_OFST, base + 0x40 + 4 * 127, 0x7ff0, 0, 0},
                                 {EK_ENTRY, base + 0x40, 0, 0, 0},
                                 {EK_64_LOW, base + 0x40 + 4 * 255, 0x120001234, 0, 0},
                                 {EK_HI, base + 0x40, uint64_t(-2), 0, 0}};
  EventsWriter w;
  w.reset(1, base);
  for (const KeptEvent &k : kept)
    w.keep(k.kind, k.addr, k.val1);
  std::vector<uint8_t> b = w.build();
  std::vector<uint8_t> expect = {0x01, 0, 0, 0, 0x40, 0, uint8_t(b.size()), 0x03, 0x10, 0xff, 0xfe, 0xff, 0x0f,
                                 0x7f, 0xf0, 0x02, 0x80, 0x01, 0x15, 0, 0, 0, 1, 0x20, 0, 0x12, 0x34};
  EXPECT_EQ(b, expect);
  std::vector<std::pair<uint32_t, uint64_t>> back;
  for (const EventEntry &e : decode(b))
    if (e.kind != EK_ADDR_RESET && e.kind != EK_SHORT_STEP && e.kind != EK_INCR_LOC_EXT)
      back.push_back({e.kind, base + e.address});
  EXPECT_EQ(back, (std::vector<std::pair<uint32_t, uint64_t>>{{EK_ENTRY, base + 0x40},
                                                              {EK_HI, base + 0x40},
                                                              {EK_GOT_OFST, base + 0x40 + 508},
                                                              {EK_64_LOW, base + 0x40 + 1020}}));
}

namespace {

// An annotated copy of calc-n32-dwarf-pie with its events section given
// another type, or cut one byte into its last record.
std::string broken_copy(const ScratchDir &d, uint32_t type, bool cut) {
  const BenchExe *e = bench_named("calc-n32-dwarf-pie");
  std::string ann = d / "ann";
  EXPECT_EQ(run_command({annotate_binary(), e->path, "-o", ann}).status, 0);
  std::string bytes = read_file(ann);
  char *f = bytes.data();
  for (uint32_t i = 0, shoff = load32(f + 32); i < load16(f + 48); ++i) {
    char *h = f + shoff + 40 * i;
    if (load32(h + 4) != SHT_MIPS_EVENTS)
      continue;
    store32(h + 4, type);
    uint32_t size = load32(h + 20);
    while (cut && size > 0 && f[load32(h + 16) + size - 1] == 0)
      --size; // the room left for the rebuilt stream
    store32(h + 20, cut ? size - 1 : size);
  }
  write_file(d / "broken", bytes);
  return d / "broken";
}

} // namespace

TEST(EventsUpdate, BrokenSectionsEndTheRunWithNoOutput) {
  VESK_REQUIRE_BENCH();
  struct Case {
    uint32_t type;
    bool cut;
    std::string message;
  } cases[] = {
      // PIC: vesk reads no content section, so nothing is left to read.
      {SHT_MIPS_CONTENT, false, "Error: binary may be stripped[.] no events or contents section[.]"},
      {SHT_MIPS_EVENTS, true, "Error: section .MIPS.events: the [A-Z_0-9]+ record at offset 0x[0-9a-f]+ .* is cut off"},
  };
  for (const Case &c : cases) {
    ScratchDir d("events");
    std::string in = broken_copy(d, c.type, c.cut);
    write_file(d / "x.fb", kNoFeedback);
    RunResult r = run_vesk({in, d / "x.fb", "-o", d / "out"});
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_TRUE(std::regex_search(r.err, std::regex(c.message, std::regex::extended)))
        << r.err;
    EXPECT_NE(access((d / "out").c_str(), F_OK), 0) << "a failed run leaves no output";
  }
}

// A rebuilt stream longer than the section leaves the section's bytes as
// they were, but no longer as events: they name the old addresses, and a
// later run must not repair the code by them.
TEST(EventsUpdate, AStreamThatWouldGrowKeepsTheOldSectionAndWarns) {
  VESK_REQUIRE_BENCH();
  ScratchDir d("events");
  std::string in = broken_copy(d, SHT_MIPS_EVENTS, false);
  bin = Bin{};
  int fd = open(in.c_str(), O_RDONLY);
  elf_version(EV_CURRENT);
  Elf *elf = elf_begin(fd, ELF_C_READ, nullptr);
  ASSERT_NE(elf, nullptr);
  EventsWriter w;
  uint64_t next = 0, records = 0;
  ::testing::internal::CaptureStderr();
  foreach_event(elf, &w, [&](Elf *, const EventRecord &r) {
    w.keep(EK_ENTRY, r.base + (next += 4 * 1000), 0); // far apart: three bytes of step each
    records += r.e.kind == EK_GOT_PAGE;
  });
  std::string err = ::testing::internal::GetCapturedStderr();
  EXPECT_GT(records, 0u);
  EXPECT_NE(err.find("Warning: .events over-expands, vesk'ed binary can't be instrumented.\n"), std::string::npos);
  size_t shstrndx = 0, events = 0;
  elf_getshdrstrndx(elf, &shstrndx);
  for (Elf_Scn *s = elf_nextscn(elf, nullptr); s != nullptr; s = elf_nextscn(elf, s)) {
    GElf_Shdr sh;
    if (gelf_getshdr(s, &sh) && std::string(elf_strptr(elf, shstrndx, sh.sh_name)) == ".MIPS.events") {
      ++events;
      EXPECT_EQ(sh.sh_type, uint32_t(SHT_PROGBITS));
      Elf_Data *data = elf_getdata(s, nullptr);
      EXPECT_EQ(data->d_size, sh.sh_size);
      EXPECT_EQ(std::string(static_cast<const char *>(data->d_buf), data->d_size),
                read_file(in).substr(sh.sh_offset, sh.sh_size));
    }
  }
  EXPECT_EQ(events, 1u);
  elf_end(elf);
  close(fd);
}

// Such an output is laid out as it is, but an order that moves its code
// is refused with the advice that helps: the original, not a relink.
TEST(EventsUpdate, AnOutputWhoseRecordsWereLeftBehindIsNotLaidOutAnew) {
  VESK_REQUIRE_BENCH();
  ScratchDir d("events");
  std::string in = broken_copy(d, SHT_PROGBITS, false);
  write_file(d / "x.fb", kNoFeedback);
  ASSERT_EQ(run_vesk({in, d / "x.fb", "-o", d / "same", "-merge", d / "all.fb"}).status, 0);
  std::vector<FeedbackLine> reversed = feedback_lines(d / "all.fb");
  std::reverse(reversed.begin(), reversed.end());
  write_file(d / "reversed.fb", feedback_text(reversed));
  RunResult r = run_vesk({in, d / "reversed.fb", "-o", d / "out"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("its .MIPS.events section no longer describes its code"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("lay out the original executable instead"), std::string::npos) << r.err;
  EXPECT_NE(access((d / "out").c_str(), F_OK), 0) << "a failed run leaves no output";
}

// A 64-bit address built from its four 16-bit slices (%highest, %higher,
// %hi, %lo: non-PIC n64 code) follows its target, which lands where the
// lower slices borrow from the ones above; and the output, laid out again,
// still calls it (the rebuilt records hold the new address).
TEST(EventsUpdate, A64BitAddressBuildFollowsItsTargetThroughTwoRuns) {
  ScratchDir dir("events-64");
  write_file(dir / "a.c", R"(#include <stdio.h>
__attribute__((noinline, used)) static int target(int x) { return 3 * x + 1; }
void filler(void) { __asm__ volatile(".rept 8200\n nop\n .endr"); }
int call_built(int);
asm(".text\n.globl call_built\n.type call_built,@function\n.ent call_built\ncall_built:\n"
    ".set push\n.set noreorder\n"
    "  lui $25,%highest(target)\n  daddiu $25,$25,%higher(target)\n  dsll $25,$25,16\n"
    "  daddiu $25,$25,%hi(target)\n  dsll $25,$25,16\n  daddiu $25,$25,%lo(target)\n"
    "  jr $25\n  nop\n.set pop\n.end call_built\n.size call_built,.-call_built\n");
int main(int argc, char **argv) { (void)argv; if (argc > 5) filler(); printf("%d\n", call_built(argc)); return 0; }
)");
  BenchExe e;
  e.path = dir / "a";
  e.name = "a";
  e.abi = "n64";
  e.qemu = {"qemu-mips64", "-L", "/usr/mips64-linux-gnuabi64"};
  RunResult r = run_command({"mips64-linux-gnuabi64-gcc", "-O2", "-g", "-no-pie", "-fno-pie", "-Wl,-q", "-o", e.path,
                             dir / "a.c"});
  ASSERT_EQ(r.status, 0) << r.err;
  AnnotatedBench b(e);
  ASSERT_TRUE(b.ok()) << b.refusal();
  // filler (32 KB) in front puts target at an address with bit 15 set.
  const std::string first = b.path("first"), second = b.path("second");
  r = b.vesk(b.annotated(), {{"filler", "a.c", 4}, {"target", "a.c", 3}, {"call_built", "-", 2}, {"main", "a.c", 1}},
             first);
  ASSERT_EQ(r.status, 0) << r.err;
  uint64_t at = 0;
  for (const ElfSymbol &s : ElfFile(first).functions())
    at = s.name == "target" ? s.value : at;
  EXPECT_NE(at & 0x8000, 0u) << std::hex << at;
  EXPECT_EQ(run_bench(e, first).out, "4\n");
  r = b.vesk(first, {{"target", "a.c", 4}, {"main", "a.c", 3}, {"call_built", "-", 2}, {"filler", "a.c", 1}}, second);
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(run_bench(e, second).out, "4\n");
}
