// The .compact_rel entry codec: what the writer encodes the reader gives
// back, in the fewest words, and the reader refuses streams that lie.
#include <gtest/gtest.h>

#include <vector>

#include "base/bytes.h"
#include "com/compact_rel.h"
#include "support/fatal.h"
#include "support/synth_elf.h"

using namespace vesk;
using vesk::test::put32;

namespace {

std::vector<uint8_t> header_with_count(uint32_t count, size_t extra_pairs = 0) {
  std::vector<uint8_t> h;
  for (size_t i = 0; i < extra_pairs; ++i) {
    put32(h, uint32_t(100 + i));
    put32(h, uint32_t(i));
  }
  put32(h, 1);
  put32(h, count);
  put32(h, 0);
  put32(h, 0);
  return h;
}

std::vector<uint8_t> encode(const std::vector<uint8_t> &header, const std::vector<CompactRelEntry> &es) {
  CompactRelWriter w(header.data(), header.size());
  for (const auto &e : es)
    w.add_cr(e.type, e.konst, e.dist2to, e.vaddr);
  return w.bytes();
}

std::vector<CompactRelEntry> decode(const std::vector<uint8_t> &section, size_t header_size, uint32_t count) {
  CompactRelCursor cm{};
  cm.rlc_ptr = section.data() + header_size;
  cm.end = section.data() + section.size();
  cm.rlc_no = count;
  cm_rlc_reset(&cm);
  std::vector<CompactRelEntry> out;
  CompactRelEntry e;
  while (cm_rlc_get(&cm, &e))
    out.push_back(e);
  return out;
}

void expect_same(const std::vector<CompactRelEntry> &a, const std::vector<CompactRelEntry> &b) {
  ASSERT_EQ(a.size(), b.size());
  for (size_t i = 0; i < a.size(); ++i) {
    EXPECT_EQ(a[i].type, b[i].type) << i;
    EXPECT_EQ(a[i].konst, b[i].konst) << i;
    EXPECT_EQ(a[i].dist2to, b[i].dist2to) << i;
    EXPECT_EQ(a[i].vaddr, b[i].vaddr) << i;
  }
}

} // namespace

TEST(CompactRelCodec, RoundTripsSmallStepsGapsAndBackwardSteps) {
  std::vector<CompactRelEntry> es = {
      {7, 0x400100, 4, 0x400104},      // first entry: step from 0 is too large
      {7, 0x400200, 1020, 0x400108},   // largest partner distance, small step
      {4, 0x12345678, 4, 0x400108},    // same address again
      {3, 0x400300, 0, 0x400108 + 0x1fffc}, // the largest relative step...
      {3, 0, 0, 0x420104 + 0x20000},  // ...and one of exactly 128 KB
      {2, 0x400000, 0, 0x400000},      // backward
      {5, 0x400010, 8, 0x10000000},    // far forward
      {6, 0, 12, 0x0ffffff0},          // backward, no konst
  };
  auto h = header_with_count(uint32_t(es.size()));
  auto s = encode(h, es);
  expect_same(decode(s, h.size(), uint32_t(es.size())), es);
}

TEST(CompactRelCodec, UsesOneWordPerAscendingEntryAndAddsKonstAndAddressWords) {
  auto h = header_with_count(0);
  // Ascending with gaps below 128 KB: one word each once the first is placed.
  auto s = encode(h, {{7, 0, 4, 0x1000}, {7, 0, 4, 0x1004}, {7, 0, 4, 0x1ffc + 0x1000}, {3, 0, 0, 0x21ff8}});
  EXPECT_EQ(s.size(), h.size() + 4 * 4);
  // konst 0 never gets a konst word; a non-zero one does.
  s = encode(h, {{3, 0, 0, 0x100}, {3, 5, 0, 0x104}});
  EXPECT_EQ(s.size(), h.size() + 4 + 8);
  EXPECT_EQ(load32(s.data() + h.size()) & 0x40000000u, 0u);
  EXPECT_NE(load32(s.data() + h.size() + 4) & 0x40000000u, 0u);
  // A backward step and a gap of 128 KB each carry the absolute address.
  s = encode(h, {{3, 0, 0, 0x100}, {3, 0, 0, 0xfc}, {3, 0, 0, 0xfc + 0x20000}});
  EXPECT_EQ(s.size(), h.size() + 4 + 8 + 8);
  // The fields land where the format puts them.
  s = encode(h, {{5, 0x99, 12, 0x40}});
  EXPECT_EQ(load32(s.data() + h.size()), 0x40000000u | 5u << 27 | 3u << 19 | 0x10u);
  EXPECT_EQ(load32(s.data() + h.size() + 4), 0x99u);
}

TEST(CompactRelCodec, KeepsHeadersLongerThanTheFirstBufferAndGrows) {
  auto h = header_with_count(3000, 300); // 2416 bytes of header
  ASSERT_GT(h.size(), 2048u);
  std::vector<CompactRelEntry> es;
  for (uint32_t i = 0; i < 3000; ++i)
    es.push_back({i % 2 ? 7u : 3u, i % 3 ? 0x400000 + i : 0, (i % 5) * 4, i % 7 ? 0x400000 + 8 * i : 0x100 * i});
  auto s = encode(h, es);
  EXPECT_TRUE(std::equal(h.begin(), h.end(), s.begin()));
  expect_same(decode(s, h.size(), 3000), es);
}

TEST(CompactRelCodec, ReaderTakesSignedDeltasAndTheAddressWordForms) {
  std::vector<uint8_t> s;
  put32(s, 0x80000000u | 3u << 27 | 2u);             // address word, delta +2 words
  put32(s, 0x1000);
  put32(s, 0x7ffffu | 7u << 27);                     // delta -1 word
  put32(s, 0xc0000000u | 3u << 27 | 5u);             // konst and address: address as given
  put32(s, 0x77);
  put32(s, 0x2000);
  auto es = decode(s, 0, 3);
  ASSERT_EQ(es.size(), 3u);
  EXPECT_EQ(es[0].vaddr, 0x1008u);
  EXPECT_EQ(es[1].vaddr, 0x1004u);
  EXPECT_EQ(es[1].type, 7u);
  EXPECT_EQ(es[2].vaddr, 0x2000u);
  EXPECT_EQ(es[2].konst, 0x77u);
}

TEST(CompactRelCodecDeathTest, RefusesStreamsThatEndEarlyAndBrokenCursors) {
  std::vector<uint8_t> s;
  put32(s, 3u << 27 | 1u);
  EXPECT_FATAL(decode(s, 0, 2), "^Error: .compact_rel entry 2 of 2 runs past the end of the section.\n$");
  s.clear();
  put32(s, 0xc0000000u | 3u << 27);
  put32(s, 0x1234); // the address word is missing
  EXPECT_FATAL(decode(s, 0, 1), "^Error: .compact_rel entry 1 of 1 runs past the end of the section.\n$");
  EXPECT_FATAL(cm_rlc_reset(nullptr), "^Error: internal error: .compact_rel cursor is inconsistent \\(cm\\).\n$");
  CompactRelCursor cm{};
  CompactRelEntry e;
  EXPECT_FATAL(cm_rlc_get(&cm, &e), "inconsistent \\(cm->rlc_ptr\\)");
  cm.rlc_ptr = cm.cur_rlc_ptr = s.data();
  cm.end = s.data() + s.size();
  cm.rlc_no = 1;
  cm.cur_rlc_no = 2;
  EXPECT_FATAL(cm_rlc_get(&cm, &e), "inconsistent \\(cm->cur_rlc_no <= cm->rlc_no\\)");
}
