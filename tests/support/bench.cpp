#include "support/bench.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <gelf.h>
#include <gtest/gtest.h>
#include <map>
#include <optional>
#include <random>
#include <sstream>
#include <stdexcept>
#include <unistd.h>

#include "support/elf_file.h"

namespace vesk::test {

std::vector<BenchExe> load_manifest(const std::string &dir) {
  std::vector<BenchExe> list;
  std::ifstream in(dir + "/manifest.tsv");
  for (std::string line; std::getline(in, line);) {
    std::istringstream fields(line);
    BenchExe e;
    std::string expl = "yes";
    if (!(fields >> e.path >> e.program >> e.abi >> e.debug >> e.model))
      continue;
    fields >> expl;
    e.name = e.path.substr(e.path.rfind('/') + 1);
    e.explicit_relocs = expl == "yes";
    if (e.abi == "o32")
      e.qemu = {"qemu-mips", "-L", "/usr/mips-linux-gnu"};
    else
      e.qemu = {e.abi == "n32" ? "qemu-mipsn32" : "qemu-mips64", "-L", "/usr/mips64-linux-gnuabi64"};
    e.expected = read_file(e.path + ".expected");
    list.push_back(std::move(e));
  }
  return list;
}

const std::vector<BenchExe> &bench_executables() {
  static const std::vector<BenchExe> list = load_manifest(VESK_BENCH_DIR);
  return list;
}

const std::vector<BenchExe> &real_executables() {
  static const std::vector<BenchExe> list = load_manifest(VESK_REAL_DIR);
  return list;
}

const BenchExe *find_bench(const std::string &program, const std::string &abi, const std::string &debug,
                           const std::string &model) {
  for (const auto &e : bench_executables())
    if (e.program == program && e.abi == abi && e.debug == debug && e.model == model && e.explicit_relocs)
      return &e;
  return nullptr;
}

RunResult run_bench(const BenchExe &e, const std::string &exe_path, const std::vector<std::string> &args) {
  std::vector<std::string> argv = e.qemu;
  argv.push_back(exe_path);
  argv.insert(argv.end(), args.begin(), args.end());
  return run_command(argv, "", 10);
}

std::string compile_o32(const ScratchDir &dir, const std::string &stem, const std::string &src,
                        const std::vector<std::string> &flags) {
  write_file(dir / (stem + ".c"), src);
  std::vector<std::string> argv = {"mips-linux-gnu-gcc", "-O2", "-Wl,-q", dir / (stem + ".c"), "-o", dir / stem};
  argv.insert(argv.end(), flags.begin(), flags.end());
  RunResult r = run_command(argv);
  EXPECT_EQ(r.status, 0) << "compiling " << stem << ": " << r.err;
  return dir / stem;
}

RunResult run_o32(const std::string &exe) { return run_command({"qemu-mips", "-L", "/usr/mips-linux-gnu", exe}, "", 10); }

const char kNoFeedback[] = "$magic 1\n$version 2\n$start\n";

std::vector<FeedbackLine> feedback_lines(const std::string &path) {
  std::vector<FeedbackLine> out;
  std::istringstream in(read_file(path));
  bool body = false;
  for (std::string line; std::getline(in, line);) {
    FeedbackLine l;
    if (line.rfind("$start", 0) == 0)
      body = true;
    else if (body && !line.empty() && line[0] != '#' && std::istringstream(line) >> l.name >> l.file >> l.count)
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

// The numbered lines that follow the title line of a -debug output.
std::vector<std::string> debug_block(const std::string &out, const std::string &title) {
  std::vector<std::string> lines;
  std::istringstream in(out);
  bool inside = false;
  for (std::string line; std::getline(in, line);) {
    if (inside && line.rfind("<Debug> [", 0) != 0)
      break;
    if (inside)
      lines.push_back(line.substr(8));
    inside = inside || line == "<Debug> " + title;
  }
  return lines;
}

} // namespace

std::vector<DebugProc> address_mapping(const std::string &debug_out) {
  std::vector<DebugProc> out;
  for (const std::string &line : debug_block(debug_out, "Procedure Address Mapping")) {
    char name[512];
    unsigned long long old_addr, lo = 0, hi = 0;
    DebugProc m;
    m.moved = std::sscanf(line.c_str(), "[%*d] %511s old(%llx) new(%llx - %llx)", name, &old_addr, &lo, &hi) == 4;
    if (!m.moved && std::sscanf(line.c_str(), "[%*d] %511s old(%llx) not changed", name, &old_addr) != 2)
      throw std::runtime_error("unexpected address mapping line: " + line);
    m.name = name;
    m.old_addr = old_addr;
    m.new_lo = m.moved ? lo : old_addr;
    m.new_hi = m.moved ? hi : old_addr;
    out.push_back(m);
  }
  return out;
}

std::vector<DebugProc> procedure_table(const std::string &debug_out) {
  std::vector<DebugProc> out;
  for (const std::string &line : debug_block(debug_out, "Procedure Table")) {
    char name[512];
    unsigned long long addr, size;
    if (std::sscanf(line.c_str(), "[%*d] %511s %llx %llx", name, &addr, &size) != 3)
      throw std::runtime_error("unexpected procedure table line: " + line);
    out.push_back({name, addr, size, addr, addr + size, false});
  }
  return out;
}

AnnotatedBench::AnnotatedBench(const BenchExe &e) : dir_("bench"), annotated_(dir_ / "annotated") {
  RunResult r = run_command({annotate_binary(), e.path, "-o", annotated_});
  if (r.status != 0) {
    refusal_ = r.err;
    return;
  }
  // File names come from the merged feedback, addresses and sizes from the
  // address mapping; both follow the new-order list.
  r = vesk(annotated_, {}, path("unchanged"), {"-debug", "-merge", path("listed.fb")});
  std::vector<FeedbackLine> named = feedback_lines(path("listed.fb"));
  std::vector<DebugProc> mapped = address_mapping(r.out);
  if (r.status != 0 || named.size() != mapped.size() || named.empty()) {
    ADD_FAILURE() << e.name << ": " << named.size() << " merged feedback lines, " << mapped.size()
                  << " address mapping lines; " << r.err;
    return;
  }
  for (size_t i = 0; i < named.size(); ++i) {
    if (named[i].name != mapped[i].name) {
      ADD_FAILURE() << e.name << ": merged feedback line " << i << " names " << named[i].name << ", the mapping "
                    << mapped[i].name;
      return;
    }
    procs_.push_back({named[i].name, named[i].file, mapped[i].old_addr, mapped[i].new_hi - mapped[i].new_lo});
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

// ".libstub" stands for the uncovered start of the text, and a nameless
// DWARF subprogram is merged as "(null)": neither can be named in feedback.
bool nameable(const std::string &name) { return name != ".libstub" && name != "(null)"; }

std::vector<FeedbackLine> falling(std::vector<FeedbackLine> lines) {
  uint64_t count = 1000 + lines.size();
  for (FeedbackLine &l : lines)
    l.count = count--;
  return lines;
}

} // namespace

std::vector<FeedbackLine> reversed_order(const std::vector<ListedProc> &procs) {
  std::vector<FeedbackLine> out;
  for (auto p = procs.rbegin(); p != procs.rend(); ++p)
    if (nameable(p->name))
      out.push_back({p->name, p->file, 0});
  return falling(out);
}

std::vector<FeedbackLine> random_order(const std::vector<ListedProc> &procs, const std::string &seed_text) {
  // std::shuffle may differ between library versions; the Mersenne
  // twister's raw output does not.
  uint32_t seed = 2166136261u;
  for (unsigned char c : seed_text)
    seed = (seed ^ c) * 16777619u;
  std::mt19937 gen(seed);
  std::vector<FeedbackLine> out;
  for (const ListedProc &p : procs)
    if (nameable(p.name))
      out.push_back({p.name, p.file, 0});
  for (size_t i = out.size(); i > 1; --i)
    std::swap(out[i - 1], out[gen() % i]);
  return falling(out);
}

std::vector<FeedbackLine> hot_first_order(const std::vector<ListedProc> &procs, const std::vector<uint64_t> &counts) {
  std::vector<FeedbackLine> out;
  for (size_t i = 0; i < procs.size(); ++i)
    if (counts[i] != 0 && nameable(procs[i].name))
      out.push_back({procs[i].name, procs[i].file, counts[i]});
  std::stable_sort(out.begin(), out.end(), [](const auto &a, const auto &b) { return a.count > b.count; });
  return out;
}

std::vector<uint64_t> entry_counts(const BenchExe &e, const std::string &exe, const std::vector<ListedProc> &procs,
                                   const std::string &log_path, RunResult *out, const std::vector<std::string> &args) {
  // -d exec logs "Trace N: host [cs_base/pc/flags/cflags]" for every block
  // run, and nochain keeps blocks from jumping straight into each other
  // unlogged; -d page logs start_code, the load address of a PIE.
  std::vector<std::string> argv = e.qemu;
  argv.insert(argv.end(), {"-d", "page,exec,nochain", "-D", log_path, exe});
  argv.insert(argv.end(), args.begin(), args.end());
  *out = run_command(argv, "", 60);

  std::map<uint64_t, size_t> by_start;
  for (size_t i = 0; i < procs.size(); ++i)
    if (procs[i].size != 0)
      by_start.emplace(procs[i].old_addr, i);
  std::vector<uint64_t> pcs;
  std::optional<uint64_t> start_code;
  std::istringstream in(read_file(log_path));
  unlink(log_path.c_str());
  for (std::string line; std::getline(in, line);) {
    unsigned long long v;
    size_t slash = line.find('/', line.find('['));
    if (line.rfind("Trace ", 0) == 0 && slash != std::string::npos && std::sscanf(line.c_str() + slash + 1, "%llx", &v) == 1)
      pcs.push_back(v);
    else if (std::sscanf(line.c_str(), "start_code %llx", &v) == 1)
      start_code = v;
  }
  uint64_t lowest = UINT64_MAX;
  ElfFile f(exe);
  size_t n = 0;
  elf_getphdrnum(f.e, &n);
  for (size_t i = 0; i < n; ++i) {
    GElf_Phdr ph;
    if (gelf_getphdr(f.e, int(i), &ph) && ph.p_type == PT_LOAD)
      lowest = std::min<uint64_t>(lowest, ph.p_vaddr);
  }
  if (!start_code || lowest == UINT64_MAX)
    throw std::runtime_error("no load address for " + exe);
  std::vector<uint64_t> counts(procs.size(), 0);
  for (uint64_t pc : pcs) {
    auto p = by_start.find(pc - (*start_code - lowest));
    if (p != by_start.end())
      ++counts[p->second];
  }
  return counts;
}

} // namespace vesk::test
