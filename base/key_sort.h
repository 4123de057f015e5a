// Sorting (key, value) pairs by key, equal keys kept in their order.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace vesk {

using KeyValue = std::pair<uint64_t, uint64_t>;

// Addresses sort as numbers in a few passes over the digits that differ
// (a 16 MB text varies in about 24 bits of its addresses): a comparison
// sort of 100,000 starts took milliseconds, as long as some whole steps.
inline void stable_sort_by_key(std::vector<KeyValue> &v) {
  auto by_key = [](const KeyValue &a, const KeyValue &b) { return a.first < b.first; };
  if (std::is_sorted(v.begin(), v.end(), by_key))
    return;
  if (v.size() < 1024) {
    std::stable_sort(v.begin(), v.end(), by_key);
    return;
  }
  uint64_t any = 0, all = ~uint64_t(0);
  for (const KeyValue &e : v) {
    any |= e.first;
    all &= e.first;
  }
  uint64_t differ = any ^ all;
  constexpr unsigned kBits = 11;
  constexpr size_t kDigits = size_t(1) << kBits;
  std::vector<KeyValue> spare(v.size());
  std::vector<size_t> at(kDigits);
  for (unsigned shift = 0; shift < 64; shift += kBits) {
    if (((differ >> shift) & (kDigits - 1)) == 0)
      continue; // every key has the same digit here
    std::fill(at.begin(), at.end(), 0);
    for (const KeyValue &e : v)
      ++at[(e.first >> shift) & (kDigits - 1)];
    size_t sum = 0;
    for (size_t &a : at)
      sum += std::exchange(a, sum);
    for (const KeyValue &e : v)
      spare[at[(e.first >> shift) & (kDigits - 1)]++] = e;
    v.swap(spare);
  }
}

} // namespace vesk
