// What a traced run executed, kept as it streams in: one record per
// distinct block of translated code (so memory stays flat however long the
// run), the calls between procedures, and the figures of a simulated
// instruction fetch side (pages touched, TLBs and an I-cache).
#pragma once

#include <cstdint>
#include <unordered_map>
#include <vector>

#include "tools/profile/program.h"

namespace vesk::profile {

// The simulated machine.  The defaults are those of an R4000-class
// processor: a joint TLB of 48 entries that each map an even/odd pair of
// 4 KB pages, an 8 KB direct-mapped primary I-cache with 32-byte lines;
// beside it a 16-entry fully associative TLB of single 4 KB pages, the
// micro-TLB size of later cores.  TLBs replace their least recently used
// entry.
struct Machine {
  unsigned itlb_entries = 16;
  unsigned jtlb_entries = 48;
  unsigned icache_bytes = 8192;
  unsigned line_bytes = 32;
  // Also let the code outside the executable's .text (the C library, the
  // dynamic loader) occupy the simulated TLBs and cache.
  bool all_code = false;
};

struct Figures {
  uint64_t instructions = 0;   // executed in .text
  uint64_t pages = 0;          // distinct 4 KB pages of .text executed
  uint64_t ideal_pages = 0;    // the executed procedures packed at the start of .text
  uint64_t itlb_misses = 0;
  uint64_t jtlb_misses = 0;
  uint64_t icache_misses = 0;
};

struct ProcCount {
  uint64_t entries = 0;      // blocks run from its first address
  uint64_t instructions = 0; // executed in blocks that start in it
};

// A fully associative TLB (or any small LRU set of page numbers).
class Lru {
public:
  explicit Lru(unsigned entries) : tags_(entries, ~uint64_t(0)), used_(entries, 0) {}
  bool access(uint64_t tag); // true on a miss

private:
  std::vector<uint64_t> tags_, used_;
  uint64_t clock_ = 0;
  unsigned last_ = 0;
};

class Recorder {
public:
  Recorder(const Program &p, const Machine &m);

  // The trace's events: the load address of the executable, a block that
  // qemu translated (its first address and length), a block that ran.
  void start_code(uint64_t addr);
  void translated(uint64_t pc, uint32_t bytes);
  void ran(uint64_t pc);

  // True once the executable's load address is known or needs none.
  bool placed() const { return placed_; }
  uint64_t blocks_run() const { return blocks_run_; }
  Figures figures() const;
  std::vector<ProcCount> proc_counts() const; // by Program::procs index
  // Calls: (caller, callee) -> how often a block of the caller was followed
  // by the callee's first block.
  const std::unordered_map<uint64_t, uint64_t> &calls() const { return calls_; }
  static uint64_t call_key(uint32_t from, uint32_t to) { return uint64_t(from) << 32 | to; }
  // Procedures run close together in time.  Once asked for, every time the
  // run passes into another procedure x, each procedure y among those run
  // since x last ran counts one more for the pair, going back over at most
  // window_bytes of them (the procedures' sizes), the most recent first;
  // when x has not run within that stretch, the whole stretch counts.  A
  // window of the TLB's reach ties a procedure to the code that ran
  // between its runs and would have evicted its pages.
  void track_affinity(uint64_t window_bytes) { affinity_window_ = window_bytes; }
  // (lower procedure index, higher) -> the count of the pair.
  const std::unordered_map<uint64_t, uint64_t> &affinity() const { return affinity_; }
  static uint64_t pair_key(uint32_t a, uint32_t b) { return a < b ? call_key(a, b) : call_key(b, a); }
  // Executed instructions per 256 bytes of .text, and the procedure with
  // the most of them in each (-1: none).
  static constexpr unsigned HEAT_CELL = 256;
  const std::vector<uint64_t> &heat() const { return heat_; }
  std::vector<int> heat_owner() const;
  const Program &program() const { return prog_; }

private:
  struct Block {
    uint32_t bytes = 4;
    int32_t proc = -1;
    bool resolved = false;
    bool entry = false;
    bool text = false;
    uint64_t count = 0;
  };
  void fetch(uint64_t addr, uint32_t bytes);
  void note_affinity(int32_t proc);

  const Program &prog_;
  Machine machine_;
  bool placed_ = false;
  uint64_t bias_ = 0;
  uint64_t blocks_run_ = 0;
  uint64_t instructions_ = 0;
  std::unordered_map<uint64_t, Block> blocks_; // by run-time address
  std::unordered_map<uint64_t, uint64_t> calls_;
  int32_t prev_proc_ = -1;
  uint64_t affinity_window_ = 0;
  int32_t last_proc_ = -1;      // in .text, whatever ran outside it since
  std::vector<int32_t> recent_; // procedures by their last run, the latest first
  std::unordered_map<uint64_t, uint64_t> affinity_;
  std::vector<bool> pages_;
  std::vector<uint64_t> heat_;
  Lru itlb_, jtlb_;
  std::vector<uint64_t> icache_;
  uint64_t itlb_misses_ = 0, jtlb_misses_ = 0, icache_misses_ = 0;
};

} // namespace vesk::profile
