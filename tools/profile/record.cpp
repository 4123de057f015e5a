#include "tools/profile/record.h"

#include <algorithm>
#include <map>

#include "base/diag.h"

namespace vesk::profile {

namespace {
constexpr uint64_t PAGE = 4096;
}

bool Lru::access(uint64_t tag) {
  ++clock_;
  if (tags_[last_] == tag) {
    used_[last_] = clock_;
    return false;
  }
  unsigned victim = 0;
  for (unsigned i = 0; i < tags_.size(); ++i) {
    if (tags_[i] == tag) {
      used_[i] = clock_;
      last_ = i;
      return false;
    }
    if (used_[i] < used_[victim])
      victim = i;
  }
  tags_[victim] = tag;
  used_[victim] = clock_;
  last_ = victim;
  return true;
}

Recorder::Recorder(const Program &p, const Machine &m)
    : prog_(p), machine_(m), placed_(!p.pie), pages_((p.text_hi - p.text_lo + PAGE - 1) / PAGE + 1, false),
      heat_((p.text_hi - p.text_lo + HEAT_CELL - 1) / HEAT_CELL, 0), itlb_(std::max(1u, m.itlb_entries)),
      jtlb_(std::max(1u, m.jtlb_entries)),
      icache_(std::max(1u, m.icache_bytes / std::max(4u, m.line_bytes)), ~uint64_t(0)) {
  machine_.line_bytes = std::max(4u, m.line_bytes);
}

void Recorder::start_code(uint64_t addr) {
  // qemu reports the start of the executable's first segment as loaded; the
  // dynamic loader's own report comes later and must not move it.
  if (placed_)
    return;
  bias_ = addr - prog_.first_load;
  placed_ = true;
}

void Recorder::translated(uint64_t pc, uint32_t bytes) {
  if (bytes == 0)
    return;
  Block &b = blocks_[pc];
  b.bytes = bytes;
  b.resolved = false; // cut again at the end of .text

}

void Recorder::fetch(uint64_t addr, uint32_t bytes) {
  uint64_t last = addr + bytes - 1;
  for (uint64_t pg = addr / PAGE; pg <= last / PAGE; ++pg)
    itlb_misses_ += itlb_.access(pg);
  for (uint64_t pair = addr / (2 * PAGE); pair <= last / (2 * PAGE); ++pair)
    jtlb_misses_ += jtlb_.access(pair);
  for (uint64_t line = addr / machine_.line_bytes; line <= last / machine_.line_bytes; ++line) {
    uint64_t &slot = icache_[line % icache_.size()];
    if (slot != line) {
      slot = line;
      ++icache_misses_;
    }
  }
}

void Recorder::ran(uint64_t pc) {
  ++blocks_run_;
  Block &b = blocks_[pc];
  if (!b.resolved) {
    b.resolved = true;
    uint64_t a = pc - bias_;
    b.text = placed_ && prog_.in_text(a);
    if (b.text) {
      b.proc = prog_.proc_at(a);
      b.entry = b.proc >= 0 && prog_.procs[size_t(b.proc)].addr == a;
      // A block that runs past the end of .text is cut there.
      b.bytes = uint32_t(std::min<uint64_t>(b.bytes, prog_.text_hi - a));
    }
  }
  ++b.count;
  if (!b.text) {
    prev_proc_ = -1;
    if (machine_.all_code)
      fetch(pc, b.bytes);
    return;
  }
  if (b.entry && prev_proc_ >= 0 && prev_proc_ != b.proc)
    ++calls_[call_key(uint32_t(prev_proc_), uint32_t(b.proc))];
  if (affinity_window_ != 0 && b.proc >= 0 && b.proc != last_proc_)
    note_affinity(b.proc);
  prev_proc_ = b.proc;
  uint64_t a = pc - bias_;
  instructions_ += b.bytes / 4;
  uint64_t off = a - prog_.text_lo, end = off + b.bytes;
  for (uint64_t pg = (a / PAGE) - prog_.text_lo / PAGE; pg <= (a + b.bytes - 1) / PAGE - prog_.text_lo / PAGE; ++pg)
    pages_[pg] = true;
  for (uint64_t c = off / HEAT_CELL; c * HEAT_CELL < end && c < heat_.size(); ++c)
    heat_[c] += (std::min(end, (c + 1) * HEAT_CELL) - std::max(off, c * HEAT_CELL)) / 4;
  fetch(machine_.all_code ? pc : a, b.bytes);
}

void Recorder::note_affinity(int32_t x) {
  last_proc_ = x;
  uint64_t bytes = 0;
  size_t i = 0;
  for (; i < recent_.size() && recent_[i] != x; ++i) {
    int32_t y = recent_[i];
    ++affinity_[pair_key(uint32_t(x), uint32_t(y))];
    bytes += std::max<uint64_t>(prog_.procs[size_t(y)].size, 4);
    if (bytes > affinity_window_) {
      // Those behind the stretch never come back into it: moving a
      // procedure to the front never lessens the bytes ahead of the
      // others.  So the list stays as short as the window makes it.
      recent_.resize(i + 1);
      break;
    }
  }
  if (i < recent_.size() && recent_[i] == x)
    recent_.erase(recent_.begin() + std::ptrdiff_t(i));
  recent_.insert(recent_.begin(), x);
}

std::vector<ProcCount> Recorder::proc_counts() const {
  std::vector<ProcCount> out(prog_.procs.size());
  for (const auto &[pc, b] : blocks_) {
    if (b.proc < 0 || b.count == 0)
      continue;
    ProcCount &c = out[size_t(b.proc)];
    c.instructions += b.count * (b.bytes / 4);
    if (b.entry)
      c.entries += b.count;
  }
  return out;
}

Figures Recorder::figures() const {
  Figures f;
  f.instructions = instructions_;
  f.pages = uint64_t(std::count(pages_.begin(), pages_.end(), true));
  uint64_t packed = 0;
  std::vector<ProcCount> counts = proc_counts();
  for (size_t i = 0; i < counts.size(); ++i)
    if (counts[i].instructions != 0)
      packed += prog_.procs[i].size;
  if (packed != 0)
    f.ideal_pages = (prog_.text_lo + packed - 1) / PAGE - prog_.text_lo / PAGE + 1;
  f.itlb_misses = itlb_misses_;
  f.jtlb_misses = jtlb_misses_;
  f.icache_misses = icache_misses_;
  return f;
}

std::vector<int> Recorder::heat_owner() const {
  // Per cell, the procedure whose blocks executed most instructions there.
  std::vector<std::map<int, uint64_t>> per_cell(heat_.size());
  for (const auto &[pc, b] : blocks_) {
    if (!b.text || b.count == 0)
      continue;
    uint64_t off = pc - bias_ - prog_.text_lo, end = off + b.bytes;
    for (uint64_t c = off / HEAT_CELL; c * HEAT_CELL < end && c < heat_.size(); ++c)
      per_cell[c][b.proc] += b.count * ((std::min(end, (c + 1) * HEAT_CELL) - std::max(off, c * HEAT_CELL)) / 4);
  }
  std::vector<int> owner(heat_.size(), -1);
  for (size_t c = 0; c < per_cell.size(); ++c) {
    uint64_t best = 0;
    for (const auto &[proc, n] : per_cell[c])
      if (n > best) {
        best = n;
        owner[c] = proc;
      }
  }
  return owner;
}

} // namespace vesk::profile
