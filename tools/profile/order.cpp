#include "tools/profile/order.h"

#include <algorithm>

namespace vesk::profile {

namespace {

std::vector<int> executed(const std::vector<ProcCount> &counts) {
  std::vector<int> v;
  for (size_t i = 0; i < counts.size(); ++i)
    if (counts[i].instructions != 0 || counts[i].entries != 0)
      v.push_back(int(i));
  return v;
}

} // namespace

std::vector<int> hot_order(const Program &, const std::vector<ProcCount> &counts) {
  std::vector<int> v = executed(counts);
  std::stable_sort(v.begin(), v.end(), [&](int a, int b) {
    const ProcCount &x = counts[size_t(a)], &y = counts[size_t(b)];
    return x.entries != y.entries ? x.entries > y.entries : x.instructions > y.instructions;
  });
  return v;
}

std::vector<int> c3_order(const Program &p, const std::vector<ProcCount> &counts,
                          const std::unordered_map<uint64_t, uint64_t> &calls, uint64_t cluster_limit) {
  std::vector<int> procs = executed(counts);
  // Each procedure's most frequent caller (the lower index on a tie, so
  // that the order does not depend on the hash map's).
  std::unordered_map<int, std::pair<uint64_t, int>> caller;
  for (const auto &[key, n] : calls) {
    int from = int(key >> 32), to = int(key & 0xffffffffu);
    auto &best = caller.try_emplace(to, 0, -1).first->second;
    if (n > best.first || (n == best.first && from < best.second))
      best = {n, from};
  }
  struct Cluster {
    std::vector<int> members;
    uint64_t bytes = 0, samples = 0;
    double density() const { return double(samples) / double(std::max<uint64_t>(bytes, 4)); }
  };
  std::vector<Cluster> clusters;
  std::unordered_map<int, size_t> cluster_of;
  for (int i : procs) {
    cluster_of[i] = clusters.size();
    clusters.push_back({{i}, std::max<uint64_t>(p.procs[size_t(i)].size, 4), counts[size_t(i)].instructions});
  }
  std::vector<int> hottest = procs;
  std::stable_sort(hottest.begin(), hottest.end(),
                   [&](int a, int b) { return counts[size_t(a)].instructions > counts[size_t(b)].instructions; });
  for (int callee : hottest) {
    auto c = caller.find(callee);
    if (c == caller.end() || c->second.second < 0 || !cluster_of.count(c->second.second))
      continue;
    size_t to = cluster_of[c->second.second], from = cluster_of[callee];
    if (to == from)
      continue;
    Cluster &dst = clusters[to], &src = clusters[from];
    uint64_t bytes = dst.bytes + src.bytes, samples = dst.samples + src.samples;
    if (bytes > cluster_limit || double(samples) / double(bytes) * 8 < dst.density())
      continue;
    for (int m : src.members)
      cluster_of[m] = to;
    dst.members.insert(dst.members.end(), src.members.begin(), src.members.end());
    dst.bytes = bytes;
    dst.samples = samples;
    src.members.clear();
    src.bytes = src.samples = 0;
  }
  std::vector<size_t> live;
  for (size_t i = 0; i < clusters.size(); ++i)
    if (!clusters[i].members.empty())
      live.push_back(i);
  std::stable_sort(live.begin(), live.end(),
                   [&](size_t a, size_t b) { return clusters[a].density() > clusters[b].density(); });
  std::vector<int> out;
  for (size_t i : live)
    out.insert(out.end(), clusters[i].members.begin(), clusters[i].members.end());
  return out;
}

std::vector<int> temporal_order(const Program &p, const std::vector<ProcCount> &counts,
                                const std::unordered_map<uint64_t, uint64_t> &affinity, uint64_t chain_limit) {
  std::vector<int> procs = executed(counts);
  struct Chain {
    std::vector<int> members;
    uint64_t bytes = 0, instructions = 0;
  };
  std::vector<Chain> chains(p.procs.size());
  std::vector<int> chain_of(p.procs.size(), -1);
  for (int i : procs) {
    chains[size_t(i)] = {{i}, std::max<uint64_t>(p.procs[size_t(i)].size, 4), counts[size_t(i)].instructions};
    chain_of[size_t(i)] = i;
  }
  // The strongest pairs first; on equal counts the lower key, so that the
  // order does not depend on the hash map's.
  std::vector<std::pair<uint64_t, uint64_t>> pairs; // count, key
  pairs.reserve(affinity.size());
  for (const auto &[key, n] : affinity)
    pairs.push_back({n, key});
  std::sort(pairs.begin(), pairs.end(),
            [](const auto &a, const auto &b) { return a.first != b.first ? a.first > b.first : a.second < b.second; });
  auto strength = [&](int a, int b) {
    auto it = affinity.find(Recorder::pair_key(uint32_t(a), uint32_t(b)));
    return it == affinity.end() ? uint64_t(0) : it->second;
  };
  for (const auto &[n, key] : pairs) {
    size_t x = size_t(key >> 32), y = size_t(key & 0xffffffffu);
    if (x >= chain_of.size() || y >= chain_of.size() || chain_of[x] < 0 || chain_of[y] < 0)
      continue;
    Chain &a = chains[size_t(chain_of[x])], &b = chains[size_t(chain_of[y])];
    if (&a == &b || a.bytes + b.bytes > chain_limit)
      continue;
    // a+b, a+reversed b, reversed a+b, reversed a+reversed b: the first
    // whose meeting ends have the most affinity.
    uint64_t meet[4] = {strength(a.members.back(), b.members.front()), strength(a.members.back(), b.members.back()),
                        strength(a.members.front(), b.members.front()),
                        strength(a.members.front(), b.members.back())};
    int best = int(std::max_element(meet, meet + 4) - meet);
    if (best >= 2)
      std::reverse(a.members.begin(), a.members.end());
    if (best % 2 == 1)
      std::reverse(b.members.begin(), b.members.end());
    for (int m : b.members)
      chain_of[size_t(m)] = chain_of[x];
    a.members.insert(a.members.end(), b.members.begin(), b.members.end());
    a.bytes += b.bytes;
    a.instructions += b.instructions;
    b = Chain{};
  }
  std::vector<int> heads;
  for (int i : procs)
    if (chain_of[size_t(i)] == i)
      heads.push_back(i);
  std::stable_sort(heads.begin(), heads.end(), [&](int a, int b) {
    return chains[size_t(a)].instructions > chains[size_t(b)].instructions;
  });
  std::vector<int> out;
  for (int h : heads)
    out.insert(out.end(), chains[size_t(h)].members.begin(), chains[size_t(h)].members.end());
  return out;
}

} // namespace vesk::profile
