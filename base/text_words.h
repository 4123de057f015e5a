// Where addresses fall among the words of the input .text.
#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>

#include "base/bin.h"
#include "base/proc.h"

namespace vesk {

// The index of the .text word holding address a, when a lies in .text and
// the word lies wholly inside the section's contents.
inline std::optional<uint64_t> text_index(uint64_t a) {
  if (a < bin.text_lo || a >= bin.text_hi)
    return std::nullopt;
  uint64_t i = (a - bin.text_lo) >> 2;
  if (i >= bin.text_words)
    return std::nullopt;
  return i;
}

// The words of a procedure that lie in .text: indexes first .. end-1,
// consecutive and in the procedure's own order.  Words outside .text
// belong to no index and are left out.
struct TextSpan {
  uint64_t first = 0;
  uint64_t end = 0;
  uint64_t size() const { return end - first; }
};

inline TextSpan text_span(uint64_t old_addr, uint32_t size) {
  uint64_t n = size / 4;
  uint64_t k0 = 0;
  if (old_addr < bin.text_lo) {
    k0 = (bin.text_lo - old_addr + 3) / 4;
    if (k0 >= n)
      return {};
  }
  uint64_t a0 = old_addr + 4 * k0;
  if (a0 >= bin.text_hi)
    return {};
  uint64_t first = (a0 - bin.text_lo) >> 2;
  if (first >= bin.text_words)
    return {};
  uint64_t count = std::min({n - k0, (bin.text_hi - a0 + 3) / 4, bin.text_words - first});
  return {first, first + count};
}

inline TextSpan text_span(const Proc *p) { return text_span(p->old_addr, p->size); }

} // namespace vesk
