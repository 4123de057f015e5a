// Running programs as a user would, the benches of MIPS executables (the
// small programs bench/programs/build.sh builds for every ABI, debug format
// and code model, and the real programs of bench/real/build.sh), whole runs
// of vesk and vesk-annotate on them, and executables read back with libelf.
#pragma once

#include <cstdint>
#include <gelf.h>
#include <string>
#include <vector>

namespace vesk::test {

struct RunResult {
  int status = -1; // exit status; 128 + signal when killed by a signal
  std::string out, err;
};

// Runs argv (looked up in PATH) in cwd ("" = here), killed after timeout seconds.
RunResult run_command(const std::vector<std::string> &argv, const std::string &cwd = "", int timeout = 120);
// The vesk and vesk-annotate executables of this build.
RunResult run_vesk(const std::vector<std::string> &args, const std::string &cwd = "");
std::string annotate_binary();
std::string profile_binary();

std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &contents);
// A fresh name under the test temporary directory.
std::string temp_path(const std::string &stem);

// A private directory, removed with everything in it at the end of scope.
class ScratchDir {
public:
  explicit ScratchDir(const std::string &stem);
  ~ScratchDir();
  const std::string &path() const { return path_; }
  std::string operator/(const std::string &name) const { return path_ + "/" + name; }

private:
  std::string path_;
};

struct ElfSymbol {
  std::string name;
  uint64_t value = 0, size = 0;
  uint16_t shndx = 0;
};

class ElfFile {
public:
  explicit ElfFile(const std::string &path); // fails the test when path is no ELF file
  ~ElfFile();

  std::vector<uint8_t> bytes; // the whole file
  Elf *e = nullptr;
  bool is64 = false;

  Elf_Scn *scn(const std::string &name) const; // nullptr when absent
  GElf_Ehdr ehdr() const;
  GElf_Shdr shdr(const std::string &name) const; // zeroes when absent
  std::vector<uint8_t> contents(const std::string &name) const; // empty when absent
  // File offset of a virtual address through the allocated sections, ~0 when none holds it.
  uint64_t offset_of(uint64_t addr) const;
  unsigned addr_size() const { return is64 ? 8 : 4; }
  uint64_t addr_word(uint64_t off) const; // an address-sized word of the file
  // The records of a section of symbols, dynamic entries or relocations.
  std::vector<GElf_Sym> symbols(const std::string &section) const;
  std::vector<GElf_Dyn> dynamic() const;
  std::vector<GElf_Rel> rels(const std::string &section) const;
  // STT_FUNC symbols of .symtab with a section (and a size, when sized).
  std::vector<ElfSymbol> functions(bool sized = false) const;
  uint64_t symbol_value(const std::string &name) const; // 0 when absent

private:
  int fd_ = -1;
};

struct BenchExe {
  std::string path, name; // name: the file name, e.g. calc-o32-mdebug-no-pie
  std::string program, abi, debug, model;
  bool explicit_relocs = true;
  std::vector<std::string> qemu; // argv prefix that runs it
  std::string expected;          // what it prints (small bench only)
};

const std::vector<BenchExe> &bench_executables(); // empty when not built
const std::vector<BenchExe> &real_executables();
const BenchExe *bench_named(const std::string &name); // in either bench; nullptr when absent
// Runs exe (e itself or a rewritten copy) under e's qemu; a broken program
// is killed after a few seconds.
RunResult run_bench(const BenchExe &e, const std::string &exe);

// Compiles C (or C++) source src for o32 with -O2 -Wl,-q and flags into dir/stem.
std::string compile_o32(const ScratchDir &dir, const std::string &stem, const std::string &src,
                        const std::vector<std::string> &flags, bool cxx = false);

// One body line of a feedback file.
struct FeedbackLine {
  std::string name, file;
  uint64_t count = 0;
};
extern const char kNoFeedback[]; // a feedback file that names no procedure
std::vector<FeedbackLine> feedback_lines(const std::string &path);
std::string feedback_text(const std::vector<FeedbackLine> &lines);

// A line of vesk -debug's "Procedure Address Mapping" or "Procedure Table".
struct DebugProc {
  std::string name;
  uint64_t old_addr = 0, new_lo = 0, new_hi = 0; // new_lo is old_addr when it did not move
};
std::vector<DebugProc> address_mapping(const std::string &debug_out);
std::vector<DebugProc> procedure_table(const std::string &debug_out);
// The mdebug tables of out name the new places of the code that vesk moved
// as map (its -debug address mapping) says: every procedure descriptor
// (its file's base plus its own address), every local symbol of a kind that
// holds a code address, every external symbol.
void check_mdebug_follows_code(const std::string &in_path, const std::string &out_path,
                               const std::vector<DebugProc> &map);

// An o32 executable annotated by vesk-annotate in a private directory, and
// its procedures in the order vesk lays them out without feedback.
class AnnotatedBench {
public:
  explicit AnnotatedBench(const BenchExe &e);
  // False when vesk-annotate refused (refusal() says why) or the procedures
  // could not be listed (the test has failed then).
  bool ok() const { return !procs_.empty(); }
  const std::string &refusal() const { return refusal_; }
  const std::string &annotated() const { return annotated_; }
  std::string path(const std::string &name) const { return dir_ / name; }
  const std::vector<DebugProc> &procs() const { return procs_; }
  const std::vector<std::string> &files() const { return files_; } // of procs(), from the merged feedback
  // Runs vesk on input with a feedback file holding fb, output to out.
  RunResult vesk(const std::string &input, const std::vector<FeedbackLine> &fb, const std::string &out,
                 const std::vector<std::string> &extra = {}) const;

private:
  ScratchDir dir_;
  std::string annotated_, refusal_;
  std::vector<DebugProc> procs_;
  std::vector<std::string> files_;
};

// Orders of the procedures a feedback file can name, with falling counts:
// reversed, shuffled (the same on every run for one seed text), and those
// that ran hottest first by the entry counts that vesk-profile takes from a
// run of exe (with b's text); that run goes to *run.
std::vector<FeedbackLine> reversed_order(const AnnotatedBench &b);
std::vector<FeedbackLine> random_order(const AnnotatedBench &b, const std::string &seed_text);
std::vector<FeedbackLine> hot_first_order(const AnnotatedBench &b, const BenchExe &e, const std::string &exe,
                                          const std::vector<std::string> &args, RunResult *run);
// The orders by number: 0 reversed, 1 shuffled (seeded by e's name), 2 hot
// first from a run of exe with args.  order_of gives the i-th executable of
// a bench its order, taken in turn so that each order meets every code
// model (a bench lists three models in a row).
enum LayoutOrder { REVERSED, SHUFFLED, HOT_FIRST };
const char *order_name(LayoutOrder o);
inline LayoutOrder order_of(size_t i) { return LayoutOrder((i + i / 3) % 3); }
std::vector<FeedbackLine> ordered(LayoutOrder o, const AnnotatedBench &b, const BenchExe &e, const std::string &exe,
                                  const std::vector<std::string> &args, RunResult *run);

} // namespace vesk::test

#define VESK_REQUIRE_BENCH()                                                                                 \
  do {                                                                                                       \
    if (::vesk::test::bench_executables().empty())                                                           \
      GTEST_SKIP() << "bench of MIPS executables missing (build it with bench/programs/build.sh)";           \
  } while (0)
