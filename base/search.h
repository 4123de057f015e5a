// A search of a sorted vector that starts where the one before ended.
#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

namespace vesk {

// The index of the first element of v for which before (true for a leading
// part of v, false for the rest) is false.  Searches that ask about rising
// values, one a little behind the other, gallop forward from hint (the
// answer before); a hint past the answer falls back to a binary search.
template <class T, class Before> size_t first_not_before(const std::vector<T> &v, size_t hint, Before before) {
  size_t from = hint, end = hint;
  if (from > v.size() || (from > 0 && !before(v[from - 1])))
    from = end = 0;
  // Everything in front of `from` lies before; v[end] does not, if it is there.
  for (size_t step = 1; end < v.size() && before(v[end]); step *= 2)
    from = end + 1, end += step;
  end = std::min(end, v.size());
  return size_t(std::partition_point(v.begin() + long(from), v.begin() + long(end), before) - v.begin());
}

} // namespace vesk
