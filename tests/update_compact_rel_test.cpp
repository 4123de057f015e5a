// Repairing what .compact_rel entries describe, on a synthetic image whose
// text holds two four-word procedures, A at 0x407ff0 and B at 0x408000,
// which the hand-made text map swaps (B first).  The procedures straddle
// 0x408000 so that %hi halves need their carry adjusted.
#include <gtest/gtest.h>

#include <algorithm>
#include <fcntl.h>
#include <unistd.h>

#include "com/compact_rel.h"
#include "com/update_compact_rel.h"
#include "support/bench.h"
#include "support/step.h"
#include "support/synth_elf.h"
#include "base/bin.h"
#include "base/bytes.h"
#include "base/mips.h"

using namespace vesk;
using namespace vesk::test;

namespace {

constexpr uint32_t TEXT = 0x407ff0, A = TEXT, B = TEXT + 16;
constexpr uint32_t DATA = 0x410000;
constexpr uint32_t PLTGOT = 0x420000, GP = PLTGOT + 0x7ff0;

uint32_t lui(uint32_t rt, uint32_t imm) { return 0x3c000000u | rt << 16 | (imm & 0xffff); }
uint32_t addiu(uint32_t rt, uint32_t rs, uint32_t imm) { return 0x24000000u | rs << 21 | rt << 16 | (imm & 0xffff); }
uint32_t lw(uint32_t rt, uint32_t base, uint32_t imm) { return 0x8c000000u | base << 21 | rt << 16 | (imm & 0xffff); }

struct Image {
  std::vector<uint32_t> text = std::vector<uint32_t>(8, 0);
  std::vector<uint32_t> data = std::vector<uint32_t>(4, 0);
  std::vector<uint32_t> got = {0, 0x400000, 0x410000, 0x12345};
  std::vector<uint32_t> out_got; // the output's .got as the GOT update left it, if any
  std::vector<CompactRelEntry> entries;

  std::vector<uint8_t> old_text_bytes, new_text_bytes, got_bytes;
  std::vector<uint32_t> map;
  Elf *elf = nullptr;
  int fd = -1;

  // Writes the image, opens it as the output and sets up the binary record
  // for update_compact_rel.
  void load() {
    SynthElf img;
    img.add(text_section(TEXT, text));
    SynthSection d = text_section(DATA, data);
    d.name = ".data";
    d.flags = SHF_ALLOC | SHF_WRITE;
    img.add(d);
    std::vector<uint8_t> h; // tag 1 gives the count, (0, 0) ends the header
    for (uint32_t w : {1u, uint32_t(entries.size()), 0u, 0u})
      put32(h, w);
    CompactRelWriter w(h.data(), h.size());
    for (const auto &e : entries)
      w.add_cr(e.type, e.konst, e.dist2to, e.vaddr);
    img.add({.name = ".compact_rel", .data = w.bytes()});
    if (!out_got.empty()) {
      SynthSection g = text_section(PLTGOT, out_got);
      g.name = ".got";
      g.flags = SHF_ALLOC | SHF_WRITE;
      img.add(g);
    }
    std::string path = img.write(temp_path("ucr"));
    fd = open(path.c_str(), O_RDONLY);
    elf = elf_begin(fd, ELF_C_READ, nullptr);
    unlink(path.c_str());

    fresh_run();
    bin.is_elf32 = 1;
    bin.out_elf = elf;
    bin.text_lo = TEXT;
    bin.text_hi = TEXT + 32;
    bin.text_words = 8;
    for (uint32_t w : text)
      put32(old_text_bytes, w);
    bin.text_buf = old_text_bytes.data();
    // B moves to the front, A behind it; new_text holds the moved words.
    for (uint32_t i = 0; i < 8; ++i)
      map.push_back((i + 4) % 8);
    bin.text_map = map.data();
    std::rotate_copy(old_text_bytes.begin(), old_text_bytes.begin() + 16, old_text_bytes.end(),
                     std::back_inserter(new_text_bytes));
    bin.new_text = new_text_bytes.data();
    bin.new_text_fill = 8;
    bin.gp_value = GP;
    bin.pltgot = PLTGOT;
    for (uint32_t w : got)
      put32(got_bytes, w);
    bin.got_buf = got_bytes.data();
    bin.got_count = 4;
    bin.local_gotno = 3;
  }

  ~Image() {
    if (bin.out_elf == elf)
      bin.out_elf = nullptr;
    elf_end(elf);
    close(fd);
  }

  uint32_t new_word(uint32_t new_addr) const { return load32(new_text_bytes.data() + (new_addr - TEXT)); }
  // Section 2 is .data, section 3 .compact_rel.
  uint32_t data_word(uint32_t i) const {
    return load32(static_cast<const uint8_t *>(elf_getdata(elf_getscn(elf, 2), nullptr)->d_buf) + 4 * i);
  }
  // The entries of the rebuilt section.
  std::vector<CompactRelEntry> result() const {
    Elf_Data *d = elf_getdata(elf_getscn(elf, 3), nullptr);
    auto *p = static_cast<const uint8_t *>(d->d_buf);
    CompactRelCursor cm{};
    cm.rlc_no = load32(p + 4);
    cm.rlc_ptr = p + 16;
    cm.end = p + d->d_size;
    cm_rlc_reset(&cm);
    std::vector<CompactRelEntry> out;
    for (CompactRelEntry e; cm_rlc_get(&cm, &e);)
      out.push_back(e);
    return out;
  }
};

uint32_t formed(uint32_t hi, uint32_t lo) { return (mips::imm16(hi) << 16) + uint32_t(mips::simm16(lo)); }

} // namespace

TEST(UpdateCompactRel, RepointsHiLoPairsWithCarryAndLeavesOtherAddresses) {
  Image im;
  im.text[0] = lui(2, 0x41);               // %hi(B+4) = 0x41 because %lo(B+4) = 0x8004 is negative
  im.text[1] = addiu(2, 2, 0x8004);        // forms B+4
  im.text[2] = lui(3, 0x41);
  im.text[3] = addiu(3, 3, 0x0000);        // forms 0x410000: data, nothing to do
  im.text[4] = lui(2, 0x40);
  im.text[5] = addiu(4, 2, 0x7ff8);        // forms A+8
  im.text[6] = addiu(5, 2, 0x7ff8);        // the same address through the same %hi
  im.entries = {{7, B + 4, 4, A + 4}, {7, DATA, 4, A + 12}, {7, A + 8, 4, B + 4}, {7, A + 8, 8, B + 8}};
  im.load();
  testing::internal::CaptureStderr();
  update_compact_rel();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  // A now lies at 0x408000, B at 0x407ff0: B+4 became 0x407ff4.
  EXPECT_EQ(formed(im.new_word(0x408000), im.new_word(0x408004)), 0x407ff4u);
  EXPECT_EQ(mips::imm16(im.new_word(0x408000)), 0x40u);
  EXPECT_EQ(im.new_word(0x408008), lui(3, 0x41));
  EXPECT_EQ(im.new_word(0x40800c), addiu(3, 3, 0));
  // A shared %hi is patched once for every %lo.
  EXPECT_EQ(formed(im.new_word(TEXT), im.new_word(TEXT + 4)), 0x408008u);
  EXPECT_EQ(formed(im.new_word(TEXT), im.new_word(TEXT + 8)), 0x408008u);
  auto r = im.result();
  ASSERT_EQ(r.size(), 4u);
  EXPECT_EQ(r[0].vaddr, 0x408004u);
  EXPECT_EQ(r[0].konst, 0x407ff4u);
  EXPECT_EQ(r[0].dist2to, 4u);
  EXPECT_EQ(r[1].vaddr, A + 12); // re-emitted exactly as read
  EXPECT_EQ(r[1].konst, DATA);
}

TEST(UpdateCompactRel, RepointsDataWordsHoldingCodeAddresses) {
  Image im;
  im.data = {(B + 8) - GP, A, 0x500000, 0};
  im.text[7] = B + 4; // a word inside the text
  im.entries = {{3, B + 4, 0, B + 12}, {2, B + 8, 0, DATA}, {3, A, 0, DATA + 4}, {3, 0x500000, 0, DATA + 8}};
  im.load();
  testing::internal::CaptureStderr();
  update_compact_rel();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Warning: WORD 0x40800c updated to 0x407ffc.\n");
  EXPECT_EQ(im.data_word(0), 0x407ff8u - GP);
  EXPECT_EQ(im.data_word(1), 0x408000u);
  EXPECT_EQ(im.data_word(2), 0x500000u);
  EXPECT_EQ(im.new_word(0x407ffc), 0x407ff4u); // the text word moved with B and was repaired there
  auto r = im.result();
  ASSERT_EQ(r.size(), 4u);
  EXPECT_EQ(r[0].vaddr, 0x407ffcu);
  EXPECT_EQ(r[0].konst, 0x407ff4u);
  EXPECT_EQ(r[1].konst, 0x407ff8u);
  EXPECT_EQ(r[2].konst, 0x408000u);
  EXPECT_EQ(r[3].konst, 0x500000u);
  EXPECT_EQ(r[3].vaddr, DATA + 8);
}

TEST(UpdateCompactRel, SingleInstructionsOfOneAddressAgreeInAnyOrder) {
  Image im;
  // In B, each instruction described alone with the address it serves (A):
  // a %lo in front of its GOT page load, and a %hi/%lo whose low half
  // becomes negative once A has moved to 0x408000.
  im.text[4] = addiu(25, 25, 0x7ff0);
  im.text[5] = lw(25, 28, PLTGOT + 4 - GP);
  im.text[6] = lui(2, 0x40);
  im.text[7] = addiu(2, 2, 0x7ff0);
  im.entries = {{5, A, 0, B}, {5, A, 0, B + 4}, {7, A, 0, B + 8}, {7, A, 0, B + 12}};
  im.load();
  bin.got_pages_known = true;
  bin.got_page = {0, 1, 1, 0}; // entries 1 and 2 hold pages
  update_compact_rel();
  // Page 0x400000 no longer reaches 0x408000; both take page 0x410000.
  EXPECT_EQ(im.new_word(TEXT + 4), lw(25, 28, PLTGOT + 8 - GP));
  EXPECT_EQ(im.new_word(TEXT), addiu(25, 25, 0x8000));
  EXPECT_EQ(formed(im.new_word(TEXT + 8), im.new_word(TEXT + 12)), 0x408000u);
  for (const CompactRelEntry &e : im.result())
    EXPECT_EQ(e.konst, 0x408000u);
}

// A page/offset pair whose page entry holds a procedure's address (A):
// the GOT update re-pointed the entry with A, so the offset is taken from
// the entry's new value, not from the page the pair had.
TEST(UpdateCompactRel, PairsThroughARepointedPageEntryCountFromItsNewValue) {
  Image im;
  im.got[1] = A;
  im.out_got = {0, 0x408000, 0x410000, 0x12345}; // A now lies at 0x408000
  im.text[4] = lw(25, 28, PLTGOT + 4 - GP);
  im.text[5] = addiu(25, 25, 4); // forms A+4
  im.entries = {{5, A + 4, 4, B + 4}};
  im.load();
  update_compact_rel();
  EXPECT_EQ(im.new_word(TEXT), lw(25, 28, PLTGOT + 4 - GP));
  EXPECT_EQ(im.new_word(TEXT + 4), addiu(25, 25, 4));
  auto r = im.result();
  ASSERT_EQ(r.size(), 1u);
  EXPECT_EQ(r[0].konst, 0x408004u);
}

// The gp set-up pairs: gp minus the address the set-up runs at (with the
// value as konst), or minus its addiu's address (without).
TEST(UpdateCompactRel, GpSetUpsFollowTheirCode) {
  Image im;
  im.text[0] = lui(28, 0), im.text[1] = addiu(28, 28, 0); // no value until vesk writes one
  im.text[4] = lui(28, mips::hi16_adjusted(GP - B)), im.text[5] = addiu(28, 28, (GP - B) & 0xffff);
  im.entries = {{6, 0, 4, A}, {4, GP - B, 4, B}};
  im.load();
  testing::internal::CaptureStderr();
  update_compact_rel();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  // A now lies at 0x408000, B at 0x407ff0.
  EXPECT_EQ(formed(im.new_word(0x408000), im.new_word(0x408004)), GP - 0x408004);
  EXPECT_EQ(formed(im.new_word(TEXT), im.new_word(TEXT + 4)), GP - TEXT);
}

// An instruction described alone that does not form the address its
// entry names ends the run: the section is damaged or describes another
// program.
TEST(UpdateCompactRel, SingleInstructionsThatDoNotFormTheirAddressAreRefused) {
  const struct {
    uint32_t insn;
    CompactRelEntry e;
  } cases[] = {
      {lw(25, 28, PLTGOT + 4 - GP), {5, 0x420000, 0, B}}, // its page 0x400000 does not reach
      {lui(2, 0x41), {7, A, 0, B}},                       // A's %hi is 0x40
      {addiu(2, 2, 0x7ff4), {7, A, 0, B}},                // and its %lo 0x7ff0
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.insn);
    Image im;
    im.text[4] = c.insn;
    im.entries = {c.e};
    im.load();
    StepResult r = run_step(update_compact_rel);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("does not match the instruction there"), std::string::npos) << r.err;
  }
}
