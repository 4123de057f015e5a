// An index of the items 0..n-1 of a table by the hash of a key they hold.
// It is three arrays, built in one pass with no allocation per item, and
// holds no copy of any key: a lookup walks the items that share a bucket,
// in increasing order, and the caller compares the keys itself.  The
// tables it serves (procedures by name, symbols by name) have tens of
// thousands of entries, where a map of strings to vectors spends most of
// its time allocating.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

namespace vesk {

class FlatIndex {
public:
  // key_hash(i, h) sets h to the hash of item i's key and says whether the
  // item has a key at all (items without one are not indexed).
  template <class KeyHash> void build(size_t n, KeyHash key_hash) {
    size_t buckets = 16;
    while (buckets < 2 * n)
      buckets *= 2;
    mask_ = buckets - 1;
    head_.assign(buckets, -1);
    next_.assign(n, -1);
    hash_.assign(n, 0);
    // Built backwards, each item goes in front of its bucket's chain, so
    // that every chain runs in increasing order.
    for (size_t i = n; i-- > 0;) {
      size_t h = 0;
      if (!key_hash(i, h))
        continue;
      hash_[i] = h;
      next_[i] = head_[h & mask_];
      head_[h & mask_] = int32_t(i);
    }
  }

  // Calls visit(i) for the items whose key hashes to h, in increasing
  // order, until it returns false.  Items of other keys may share the
  // hash: visit compares the keys.
  template <class Visit> void visit(size_t h, Visit visit) const {
    if (head_.empty())
      return;
    for (int32_t i = head_[h & mask_]; i >= 0; i = next_[size_t(i)])
      if (hash_[size_t(i)] == h && !visit(size_t(i)))
        return;
  }

  void clear() {
    head_.clear();
    next_.clear();
    hash_.clear();
  }

private:
  size_t mask_ = 0;
  std::vector<int32_t> head_;
  std::vector<int32_t> next_;
  std::vector<size_t> hash_;
};

// The hash of a name.  Inline and eight bytes a step: the keys are short
// symbol and file names, for which the call and the per-byte loop of the
// library's hash cost more than the mixing.  Lookups do not depend on the
// hash beyond speed (chains hold their items in index order).
inline size_t hash_of(std::string_view s) {
  uint64_t h = 0x9e3779b97f4a7c15ull ^ s.size();
  size_t i = 0;
  for (; i + 8 <= s.size(); i += 8) {
    uint64_t w;
    std::memcpy(&w, s.data() + i, 8);
    h = (h ^ w) * 0xff51afd7ed558ccdull;
    h ^= h >> 32;
  }
  uint64_t w = 0;
  std::memcpy(&w, s.data() + i, s.size() - i);
  h = (h ^ w) * 0xc4ceb9fe1a85ec53ull;
  return size_t(h ^ (h >> 29));
}

} // namespace vesk
