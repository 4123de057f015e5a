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

} // namespace vesk::profile
