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
    items_.assign(n, Item{});
    // The hashes first, in table order; then the chains, built backwards
    // so that each item goes in front of its bucket's chain and every chain
    // runs in increasing order.  The buckets lie all over their array: each
    // is fetched some items before it is written.
    constexpr int32_t kNoKey = -2;
    for (size_t i = 0; i < n; ++i) {
      size_t h = 0;
      if (key_hash(i, h))
        items_[i].hash = h;
      else
        items_[i].next = kNoKey;
    }
    constexpr size_t kAhead = 16;
    for (size_t i = n; i-- > 0;) {
      if (i >= kAhead)
        __builtin_prefetch(&head_[items_[i - kAhead].hash & mask_], 1);
      Item &item = items_[i];
      if (item.next == kNoKey) {
        item.next = -1;
        continue;
      }
      item.next = head_[item.hash & mask_];
      head_[item.hash & mask_] = int32_t(i);
    }
  }

  // Calls visit(i) for the items whose key hashes to h, in increasing
  // order, until it returns false.  Items of other keys may share the
  // hash: visit compares the keys.
  template <class Visit> void visit(size_t h, Visit visit) const {
    if (head_.empty())
      return;
    for (int32_t i = head_[h & mask_]; i >= 0; i = items_[size_t(i)].next)
      if (items_[size_t(i)].hash == h && !visit(size_t(i)))
        return;
  }

  // Lookups of keys in no order each wait on memory three times: the
  // bucket, the item, the caller's key.  A caller that knows the hashes of
  // the lookups ahead starts fetching them in two steps, some lookups
  // apart: the bucket first, then (the bucket having arrived) the first
  // item of its chain, whose index it hands to fetch_key.
  void prefetch_bucket(size_t h) const {
    if (!head_.empty())
      __builtin_prefetch(&head_[h & mask_]);
  }
  template <class FetchKey> void prefetch_first(size_t h, FetchKey fetch_key) const {
    if (head_.empty())
      return;
    int32_t i = head_[h & mask_];
    if (i >= 0) {
      __builtin_prefetch(&items_[size_t(i)]);
      fetch_key(size_t(i));
    }
  }

  void clear() {
    head_.clear();
    items_.clear();
  }

private:
  // An item's hash and the next item of its chain, side by side: a chain
  // step reads one line.
  struct Item {
    size_t hash = 0;
    int32_t next = -1;
  };
  size_t mask_ = 0;
  std::vector<int32_t> head_;
  std::vector<Item> items_;
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
  if (i < s.size()) // an empty view may have no data at all
    std::memcpy(&w, s.data() + i, s.size() - i);
  h = (h ^ w) * 0xc4ceb9fe1a85ec53ull;
  return size_t(h ^ (h >> 29));
}

} // namespace vesk
