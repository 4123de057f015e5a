// The order in which the feedback file lists the executed procedures; vesk
// lays them out in that order.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "tools/profile/program.h"
#include "tools/profile/record.h"

namespace vesk::profile {

enum class Order { hot, c3, temporal };

// Hottest first: by entry count, then by executed instructions, then by
// address.  Only procedures that ran are listed.
std::vector<int> hot_order(const Program &p, const std::vector<ProcCount> &counts);

// Call-chain clustering (C3, Ottoni and Maher, CGO 2017): every procedure
// starts as a cluster of its own; taken hottest first (executed
// instructions), each one's cluster goes behind the cluster of its most
// frequent caller, unless the two would exceed cluster_limit bytes or the
// merged cluster would be less than an eighth as dense (instructions
// executed per byte) as the caller's.  The clusters are then ordered by
// density, densest first.
std::vector<int> c3_order(const Program &p, const std::vector<ProcCount> &counts,
                          const std::unordered_map<uint64_t, uint64_t> &calls, uint64_t cluster_limit);

// Procedures run close together in time placed together (chains joined in
// the manner of Pettis and Hansen, on the affinity the Recorder counts
// rather than on calls): every procedure that ran starts as a chain of its
// own; taken by affinity, the strongest pair first, the chains of the two
// are joined end to end, turned so that the two ends with the most affinity
// meet, unless together they would exceed chain_limit bytes.  The chains
// are then laid out by executed instructions, the most first.  It aims at
// the TLB: code that runs between two runs of a procedure shares its pages.
std::vector<int> temporal_order(const Program &p, const std::vector<ProcCount> &counts,
                                const std::unordered_map<uint64_t, uint64_t> &affinity, uint64_t chain_limit);

} // namespace vesk::profile
