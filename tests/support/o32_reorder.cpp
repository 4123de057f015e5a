#include "support/o32_reorder.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <fcntl.h>
#include <gelf.h>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <sstream>
#include <stdexcept>
#include <unistd.h>

#include "base/bytes.h"
#include "support/elf_file.h"

namespace vesk::test {

const char kNoFeedback[] = "$magic 1\n$version 2\n$start\n";

std::vector<FeedbackLine> feedback_lines(const std::string &path) {
  std::vector<FeedbackLine> out;
  std::istringstream in(read_file(path));
  std::string line;
  bool body = false;
  while (std::getline(in, line)) {
    if (line.rfind("$start", 0) == 0) {
      body = true;
      continue;
    }
    if (!body || line.empty() || line[0] == '#')
      continue;
    std::istringstream f(line);
    FeedbackLine l;
    if (f >> l.name >> l.file >> l.count)
      out.push_back(l);
  }
  return out;
}

std::string feedback_text(const std::vector<FeedbackLine> &lines) {
  std::string fb = kNoFeedback;
  for (const FeedbackLine &l : lines)
    fb += l.name + " " + l.file + " " + std::to_string(l.count) + "\n";
  return fb;
}

namespace {

// The lines of a -debug output that follow the title line, up to the next
// line that is not a numbered entry.
std::vector<std::string> debug_block(const std::string &out, const std::string &title) {
  std::vector<std::string> lines;
  std::istringstream in(out);
  std::string line;
  bool inside = false;
  while (std::getline(in, line)) {
    if (!inside) {
      inside = line == "<Debug> " + title;
      continue;
    }
    if (line.rfind("<Debug> [", 0) != 0)
      break;
    lines.push_back(line.substr(8));
  }
  return lines;
}

} // namespace

std::vector<MappedProc> address_mapping(const std::string &debug_out) {
  std::vector<MappedProc> out;
  for (const std::string &line : debug_block(debug_out, "Procedure Address Mapping")) {
    char name[512];
    unsigned long long old_addr, lo, hi;
    int index;
    MappedProc m;
    if (std::sscanf(line.c_str(), "[%d] %511s old(%llx) new(%llx - %llx)", &index, name, &old_addr, &lo, &hi) == 5) {
      m.moved = true;
      m.new_lo = lo;
      m.new_hi = hi;
    } else if (std::sscanf(line.c_str(), "[%d] %511s old(%llx) not changed", &index, name, &old_addr) != 3) {
      throw std::runtime_error("unexpected address mapping line: " + line);
    }
    m.name = name;
    m.old_addr = old_addr;
    out.push_back(m);
  }
  return out;
}

std::vector<TableProc> procedure_table(const std::string &debug_out) {
  std::vector<TableProc> out;
  for (const std::string &line : debug_block(debug_out, "Procedure Table")) {
    char name[512];
    unsigned long long addr, size, freq;
    int index;
    if (std::sscanf(line.c_str(), "[%d] %511s %llx %llx %llu", &index, name, &addr, &size, &freq) != 5)
      throw std::runtime_error("unexpected procedure table line: " + line);
    out.push_back({name, addr, size, freq});
  }
  return out;
}

std::optional<TouchedText> touched_text(const std::string &verbose_out) {
  size_t at = verbose_out.find("Total text ");
  if (at == std::string::npos)
    return std::nullopt;
  TouchedText t;
  if (std::sscanf(verbose_out.c_str() + at, "Total text %dK. Touched text reduced from %dK to %dK\n", &t.total_k,
                  &t.before_k, &t.after_k) != 3)
    return std::nullopt;
  return t;
}

AnnotatedBench::AnnotatedBench(const BenchExe &e) : exe_(e), annotated_(tmp_.dir() + "/annotated") {
  RunResult r = run_command({annotate_binary(), e.path, "-o", annotated_});
  if (r.status != 0) {
    refusal_ = r.err;
    return;
  }
  // The procedures with their file names come from the merged feedback,
  // their addresses and sizes from the address mapping; both are written
  // in the order of the new-order list.
  const std::string merged = path("listed.fb");
  r = vesk(annotated_, {}, path("unchanged"), {"-debug", "-merge", merged});
  if (r.status != 0) {
    ADD_FAILURE() << "vesk on " << e.name << " without feedback: " << r.err;
    return;
  }
  std::vector<FeedbackLine> named = feedback_lines(merged);
  std::vector<MappedProc> mapped = address_mapping(r.out);
  if (named.size() != mapped.size() || named.empty()) {
    ADD_FAILURE() << e.name << ": " << named.size() << " merged feedback lines, " << mapped.size()
                  << " address mapping lines";
    return;
  }
  for (size_t i = 0; i < named.size(); ++i) {
    if (named[i].name != mapped[i].name) {
      ADD_FAILURE() << e.name << ": merged feedback line " << i << " names " << named[i].name
                    << ", the address mapping " << mapped[i].name;
      return;
    }
    ListedProc p{named[i].name, named[i].file, mapped[i].old_addr, 0};
    if (mapped[i].moved)
      p.size = mapped[i].new_hi - mapped[i].new_lo;
    procs_.push_back(p);
  }
  ok_ = true;
}

RunResult AnnotatedBench::vesk(const std::string &input, const std::vector<FeedbackLine> &fb, const std::string &out,
                               const std::vector<std::string> &extra) const {
  write_file(out + ".fb", feedback_text(fb));
  std::vector<std::string> args{input, out + ".fb", "-o", out};
  args.insert(args.end(), extra.begin(), extra.end());
  return run_vesk(args);
}

namespace {

// A procedure that a feedback file can name: not the pseudo procedure of
// the uncovered start of the text, and not a nameless DWARF subprogram
// (which the merged feedback writes as "(null)").
bool nameable(const ListedProc &p) { return p.name != ".libstub" && p.name != "(null)"; }

} // namespace

std::vector<FeedbackLine> reversed_order(const std::vector<ListedProc> &procs) {
  std::vector<FeedbackLine> out;
  uint64_t count = 1000 + procs.size();
  for (auto p = procs.rbegin(); p != procs.rend(); ++p)
    if (nameable(*p))
      out.push_back({p->name, p->file, count--});
  return out;
}

std::vector<FeedbackLine> random_order(const std::vector<ListedProc> &procs, const std::string &seed_text) {
  // FNV-1a of the text as seed, and a shuffle written out here: the
  // standard library's distributions and shuffle may differ between
  // implementations, the Mersenne twister's raw output does not.
  uint32_t seed = 2166136261u;
  for (unsigned char c : seed_text)
    seed = (seed ^ c) * 16777619u;
  std::mt19937 gen(seed);
  std::vector<FeedbackLine> out;
  for (const ListedProc &p : procs)
    if (nameable(p))
      out.push_back({p.name, p.file, 0});
  for (size_t i = out.size(); i > 1; --i)
    std::swap(out[i - 1], out[gen() % i]);
  uint64_t count = 1000 + out.size();
  for (FeedbackLine &l : out)
    l.count = count--;
  return out;
}

namespace {

// The lowest virtual address of a loadable segment.
uint64_t lowest_load_address(const std::string &exe) {
  ElfFile f(exe);
  size_t n = 0;
  uint64_t lowest = UINT64_MAX;
  if (f.e != nullptr && elf_getphdrnum(f.e, &n) == 0)
    for (size_t i = 0; i < n; ++i) {
      GElf_Phdr ph;
      if (gelf_getphdr(f.e, int(i), &ph) && ph.p_type == PT_LOAD)
        lowest = std::min<uint64_t>(lowest, ph.p_vaddr);
    }
  if (lowest == UINT64_MAX)
    throw std::runtime_error("no loadable segment in " + exe);
  return lowest;
}

} // namespace

std::vector<uint64_t> entry_counts(const BenchExe &e, const std::string &exe, const std::vector<ListedProc> &procs,
                                   const std::string &log_path, RunResult *out, const std::vector<std::string> &args,
                                   const std::string &cwd) {
  // -d exec logs "Trace N: host [cs_base/pc/flags/cflags]" for every block
  // run; nochain keeps blocks from jumping straight into each other, so
  // every block run is logged.  -d page logs the memory layout, whose
  // start_code gives the load address of a position-independent executable.
  std::vector<std::string> argv = e.qemu;
  argv.insert(argv.end(), {"-d", "page,exec,nochain", "-D", log_path, exe});
  argv.insert(argv.end(), args.begin(), args.end());
  RunResult r = run_command(argv, cwd, 60);
  if (out != nullptr)
    *out = r;

  std::map<uint64_t, size_t> by_start;
  for (size_t i = 0; i < procs.size(); ++i)
    if (procs[i].size != 0)
      by_start.emplace(procs[i].old_addr, i);
  std::vector<uint64_t> counts(procs.size(), 0);
  std::vector<uint64_t> pcs;
  std::optional<uint64_t> start_code;
  std::istringstream in(read_file(log_path));
  std::string line;
  while (std::getline(in, line)) {
    unsigned long long v;
    if (line.rfind("Trace ", 0) == 0) {
      size_t slash = line.find('/', line.find('['));
      if (slash != std::string::npos && std::sscanf(line.c_str() + slash + 1, "%llx", &v) == 1)
        pcs.push_back(v);
    } else if (std::sscanf(line.c_str(), "start_code %llx", &v) == 1) {
      start_code = v;
    }
  }
  unlink(log_path.c_str());
  if (!start_code)
    throw std::runtime_error("qemu logged no start_code for " + exe);
  uint64_t bias = *start_code - lowest_load_address(exe);
  for (uint64_t pc : pcs) {
    auto p = by_start.find(pc - bias);
    if (p != by_start.end())
      ++counts[p->second];
  }
  return counts;
}

std::vector<FeedbackLine> hot_first_order(const std::vector<ListedProc> &procs, const std::vector<uint64_t> &counts) {
  std::vector<FeedbackLine> out;
  for (size_t i = 0; i < procs.size(); ++i)
    if (counts[i] != 0 && procs[i].name != "(null)")
      out.push_back({procs[i].name, procs[i].file, counts[i]});
  std::stable_sort(out.begin(), out.end(), [](const FeedbackLine &a, const FeedbackLine &b) { return a.count > b.count; });
  return out;
}

LineTable mdebug_line_table(const std::string &exe) {
  // The symbolic header: magic and vstamp (16 bits each), then ilineMax,
  // cbLine, cbLineOffset, ... (32 bits each).  cbLineOffset is a file
  // offset.
  ElfFile f(exe);
  std::vector<uint8_t> hdr = f.contents(".mdebug");
  if (hdr.size() < 96 || load16(hdr.data()) != 0x7009)
    throw std::runtime_error("no mdebug symbolic header in " + exe);
  LineTable t;
  t.size = load32(hdr.data() + 8);
  t.offset = load32(hdr.data() + 12);
  if (uint64_t(t.offset) + t.size > f.bytes.size())
    throw std::runtime_error("mdebug line table runs past the end of " + exe);
  t.bytes.assign(f.bytes.begin() + t.offset, f.bytes.begin() + t.offset + t.size);
  return t;
}

} // namespace vesk::test
