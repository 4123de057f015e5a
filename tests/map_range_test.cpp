// The pieces that an old address range of .text falls into after a layout,
// as the DWARF update asks for them: every range (lists, scopes, line
// sequences) must come out cut exactly where its words stopped following
// each other, whatever order the ranges are asked in and wherever they
// start and end (in front of .text, across its ends, behind it).
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "support/step.h"
#include "base/bin.h"
#include "com/dwarf_update.h"

using namespace vesk;
using namespace vesk::dwarf_update;
using vesk::test::fresh_run;

namespace {

constexpr uint64_t LO = 0x400000;

// The pieces by looking at every word of the range.
std::vector<Piece> word_by_word(uint64_t lo, uint64_t hi) {
  if (hi <= lo)
    return {{lo, lo, map_byte(lo), map_byte(lo)}};
  std::vector<Piece> out;
  uint64_t start = lo, new_start = map_byte(lo);
  for (uint64_t w = lo & ~uint64_t(3); w < ((hi - 1) & ~uint64_t(3)); w += 4)
    if (map_byte(w + 4) != map_byte(w) + 4) {
      out.push_back({start, w + 4, new_start, map_byte(w) + 4});
      start = w + 4;
      new_start = map_byte(w + 4);
    }
  out.push_back({start, hi, new_start, map_byte(hi - 1) + 1});
  return out;
}

bool same(const std::vector<Piece> &a, const std::vector<Piece> &b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](const Piece &x, const Piece &y) {
           return x.old_lo == y.old_lo && x.old_hi == y.old_hi && x.new_lo == y.new_lo && x.new_hi == y.new_hi;
         });
}

TEST(MapRange, CutsEveryRangeWhereItsWordsStopFollowingEachOther) {
  fresh_run();
  // 200 words in blocks of 1 to 9 words, the blocks shuffled; .text ends in
  // a partial word, which stays where it is.
  std::mt19937 rng(7);
  std::vector<std::pair<uint32_t, uint32_t>> blocks; // first word, count
  for (uint32_t k = 0; k < 200;) {
    uint32_t n = std::min<uint32_t>(1 + rng() % 9, 200 - k);
    blocks.push_back({k, n});
    k += n;
  }
  std::shuffle(blocks.begin(), blocks.end(), rng);
  std::vector<uint32_t> map(200);
  uint32_t next = 0;
  for (auto [first, n] : blocks)
    for (uint32_t i = 0; i < n; ++i)
      map[first + i] = next++;
  bin.text_lo = LO;
  bin.text_words = 200;
  bin.text_hi = LO + 4 * 200 + 2;
  bin.text_map = map.data();

  // Ranges in every order: ascending, descending and at random, so that
  // each search starts from wherever the last one ended.
  std::vector<std::pair<uint64_t, uint64_t>> ranges;
  for (int i = 0; i < 3000; ++i) {
    uint64_t a = LO - 40 + rng() % (4 * 200 + 80), b = LO - 40 + rng() % (4 * 200 + 80);
    ranges.push_back({std::min(a, b), std::max(a, b)});
  }
  std::sort(ranges.begin(), ranges.end());
  std::vector<std::pair<uint64_t, uint64_t>> asked = ranges;
  for (size_t i = 0; i < ranges.size(); i += 97) // ascending far apart: the search gallops
    asked.push_back(ranges[i]);
  asked.insert(asked.end(), ranges.rbegin(), ranges.rend());
  std::shuffle(ranges.begin(), ranges.end(), rng);
  asked.insert(asked.end(), ranges.begin(), ranges.end());
  asked.push_back({LO - 8, LO + 4 * 200 + 2}); // the whole text and more
  asked.push_back({LO + 4 * 199, LO + 4 * 200}); // the last whole word

  std::vector<Piece> got;
  for (auto [lo, hi] : asked) {
    got.clear();
    map_range(lo, hi, &got);
    std::vector<Piece> want = word_by_word(lo, hi);
    ASSERT_TRUE(same(got, want)) << std::hex << "[" << lo << ", " << hi << "): " << got.size() << " pieces, want "
                                 << want.size();
  }
  fresh_run();
}

} // namespace
