#include "support/bench.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <poll.h>
#include <random>
#include <sstream>
#include <stdexcept>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "base/bytes.h"
#include "mdebug/records.h"

namespace vesk::test {

RunResult run_command(const std::vector<std::string> &argv, const std::string &cwd, int timeout) {
  int out_pipe[2], err_pipe[2];
  if (pipe(out_pipe) != 0 || pipe(err_pipe) != 0)
    throw std::runtime_error("pipe");
  pid_t pid = fork();
  if (pid < 0)
    throw std::runtime_error("fork");
  if (pid == 0) {
    dup2(out_pipe[1], 1);
    dup2(err_pipe[1], 2);
    for (int fd : {out_pipe[0], out_pipe[1], err_pipe[0], err_pipe[1]})
      close(fd);
    int devnull = open("/dev/null", O_RDONLY);
    dup2(devnull, 0);
    if (!cwd.empty() && chdir(cwd.c_str()) != 0)
      _exit(126);
    std::vector<char *> args;
    for (const auto &a : argv)
      args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    execvp(args[0], args.data());
    _exit(127);
  }
  close(out_pipe[1]);
  close(err_pipe[1]);
  RunResult r;
  struct pollfd fds[2] = {{out_pipe[0], POLLIN, 0}, {err_pipe[0], POLLIN, 0}};
  time_t deadline = time(nullptr) + timeout;
  char buf[65536];
  for (int open_fds = 2; open_fds > 0;) {
    if (time(nullptr) >= deadline)
      kill(pid, SIGKILL); // the pipes close as it dies
    if (poll(fds, 2, 1000) < 0 && errno != EINTR)
      break;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR)))
        continue;
      ssize_t got = read(fds[i].fd, buf, sizeof buf);
      if (got > 0) {
        (i == 0 ? r.out : r.err).append(buf, size_t(got));
      } else {
        close(fds[i].fd);
        fds[i].fd = -1;
        --open_fds;
      }
    }
  }
  int st = 0;
  waitpid(pid, &st, 0);
  r.status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
  return r;
}

RunResult run_vesk(const std::vector<std::string> &args, const std::string &cwd) {
  std::vector<std::string> argv{VESK_BINARY};
  argv.insert(argv.end(), args.begin(), args.end());
  return run_command(argv, cwd);
}

std::string annotate_binary() {
  std::string v = VESK_BINARY;
  return v.substr(0, v.rfind('/') + 1) + "vesk-annotate";
}

std::string profile_binary() {
  std::string v = VESK_BINARY;
  return v.substr(0, v.rfind('/') + 1) + "vesk-profile";
}

std::string read_file(const std::string &path) {
  std::ifstream f(path, std::ios::binary);
  std::stringstream ss;
  ss << f.rdbuf();
  return ss.str();
}

void write_file(const std::string &path, const std::string &contents) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << contents;
}

std::string temp_path(const std::string &stem) {
  static std::atomic<int> counter{0};
  const char *dir = std::getenv("TEST_TMPDIR");
  return std::string(dir ? dir : "/tmp") + "/vesk-" + std::to_string(getpid()) + "-" + std::to_string(counter++) +
         "-" + stem;
}

ScratchDir::ScratchDir(const std::string &stem) : path_(temp_path(stem)) {
  std::filesystem::remove_all(path_);
  std::filesystem::create_directories(path_);
}

ScratchDir::~ScratchDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

ElfFile::ElfFile(const std::string &path) {
  std::string s = read_file(path);
  bytes.assign(s.begin(), s.end());
  elf_version(EV_CURRENT);
  fd_ = open(path.c_str(), O_RDONLY);
  e = fd_ < 0 ? nullptr : elf_begin(fd_, ELF_C_READ, nullptr);
  EXPECT_NE(e, nullptr) << path << " is not an ELF file";
  is64 = e != nullptr && gelf_getclass(e) == ELFCLASS64;
}

ElfFile::~ElfFile() {
  if (e != nullptr)
    elf_end(e);
  if (fd_ >= 0)
    close(fd_);
}

Elf_Scn *ElfFile::scn(const std::string &name) const {
  size_t shstrndx = 0;
  GElf_Shdr sh;
  for (Elf_Scn *s = e && elf_getshdrstrndx(e, &shstrndx) == 0 ? elf_nextscn(e, nullptr) : nullptr; s;
       s = elf_nextscn(e, s))
    if (gelf_getshdr(s, &sh) && elf_strptr(e, shstrndx, sh.sh_name) && name == elf_strptr(e, shstrndx, sh.sh_name))
      return s;
  return nullptr;
}

GElf_Ehdr ElfFile::ehdr() const {
  GElf_Ehdr eh{};
  gelf_getehdr(e, &eh);
  return eh;
}

GElf_Shdr ElfFile::shdr(const std::string &name) const {
  GElf_Shdr sh{};
  if (Elf_Scn *s = scn(name))
    gelf_getshdr(s, &sh);
  return sh;
}

std::vector<uint8_t> ElfFile::contents(const std::string &name) const {
  GElf_Shdr sh = shdr(name);
  if (sh.sh_size == 0 || sh.sh_type == SHT_NOBITS || sh.sh_offset + sh.sh_size > bytes.size())
    return {};
  return std::vector<uint8_t>(bytes.begin() + long(sh.sh_offset), bytes.begin() + long(sh.sh_offset + sh.sh_size));
}

uint64_t ElfFile::offset_of(uint64_t addr) const {
  for (Elf_Scn *s = elf_nextscn(e, nullptr); s; s = elf_nextscn(e, s)) {
    GElf_Shdr sh;
    gelf_getshdr(s, &sh);
    if ((sh.sh_flags & SHF_ALLOC) && sh.sh_type != SHT_NOBITS && addr >= sh.sh_addr && addr < sh.sh_addr + sh.sh_size)
      return sh.sh_offset + (addr - sh.sh_addr);
  }
  return ~uint64_t(0);
}

uint64_t ElfFile::addr_word(uint64_t off) const { return is64 ? load64(&bytes[off]) : load32(&bytes[off]); }

namespace {

// Every record of a section through one of libelf's typed getters.
template <class T, class Get> std::vector<T> records(Elf_Scn *s, Get get) {
  std::vector<T> v;
  Elf_Data *d = s ? elf_getdata(s, nullptr) : nullptr;
  T r;
  for (int i = 0; d && get(d, i, &r); ++i)
    v.push_back(r);
  return v;
}

} // namespace

std::vector<GElf_Sym> ElfFile::symbols(const std::string &section) const {
  return records<GElf_Sym>(scn(section), gelf_getsym);
}
std::vector<GElf_Dyn> ElfFile::dynamic() const { return records<GElf_Dyn>(scn(".dynamic"), gelf_getdyn); }
std::vector<GElf_Rel> ElfFile::rels(const std::string &section) const {
  return records<GElf_Rel>(scn(section), gelf_getrel);
}

std::vector<ElfSymbol> ElfFile::functions(bool sized) const {
  std::vector<ElfSymbol> out;
  GElf_Shdr sh = shdr(".symtab");
  for (const GElf_Sym &sym : symbols(".symtab"))
    if (GELF_ST_TYPE(sym.st_info) == STT_FUNC && sym.st_shndx != SHN_UNDEF && (!sized || sym.st_size > 0))
      out.push_back({elf_strptr(e, sh.sh_link, sym.st_name), sym.st_value, sym.st_size, sym.st_shndx});
  return out;
}

uint64_t ElfFile::symbol_value(const std::string &name) const {
  GElf_Shdr sh = shdr(".symtab");
  for (const GElf_Sym &sym : symbols(".symtab")) {
    const char *n = elf_strptr(e, sh.sh_link, sym.st_name);
    if (n != nullptr && name == n)
      return sym.st_value;
  }
  return 0;
}

namespace {

// The executables manifest.tsv in dir lists: path program abi debug model
// [explicit-relocs].
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
    e.qemu = {e.abi == "o32" ? "qemu-mips" : e.abi == "n32" ? "qemu-mipsn32" : "qemu-mips64", "-L",
              e.abi == "o32" ? "/usr/mips-linux-gnu" : "/usr/mips64-linux-gnuabi64"};
    e.expected = read_file(e.path + ".expected");
    list.push_back(std::move(e));
  }
  return list;
}

} // namespace

const std::vector<BenchExe> &bench_executables() {
  static const std::vector<BenchExe> list = load_manifest(VESK_BENCH_DIR);
  return list;
}

const std::vector<BenchExe> &real_executables() {
  static const std::vector<BenchExe> list = load_manifest(VESK_REAL_DIR);
  return list;
}

const BenchExe *bench_named(const std::string &name) {
  for (const auto *list : {&bench_executables(), &real_executables()})
    for (const BenchExe &e : *list)
      if (e.name == name)
        return &e;
  return nullptr;
}

RunResult run_bench(const BenchExe &e, const std::string &exe) {
  std::vector<std::string> argv = e.qemu;
  argv.push_back(exe);
  return run_command(argv, "", 10);
}

std::string compile_o32(const ScratchDir &dir, const std::string &stem, const std::string &src,
                        const std::vector<std::string> &flags, bool cxx) {
  std::string file = dir / (stem + (cxx ? ".cpp" : ".c"));
  write_file(file, src);
  std::vector<std::string> argv = {cxx ? "mips-linux-gnu-g++" : "mips-linux-gnu-gcc", "-O2", "-Wl,-q", file, "-o",
                                   dir / stem};
  argv.insert(argv.end(), flags.begin(), flags.end());
  RunResult r = run_command(argv);
  EXPECT_EQ(r.status, 0) << "compiling " << stem << ": " << r.err;
  return dir / stem;
}

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

// The procedures of the numbered lines that follow the title line of a
// -debug output; parse reads one line.
template <class Parse> std::vector<DebugProc> debug_block(const std::string &out, const std::string &title, Parse parse) {
  std::vector<DebugProc> procs;
  std::istringstream in(out);
  bool inside = false;
  for (std::string line; std::getline(in, line);) {
    if (inside && line.rfind("<Debug> [", 0) != 0)
      break;
    char name[512];
    unsigned long long a = 0, b = 0, c = 0;
    if (inside && !parse(line.c_str() + 8, name, &a, &b, &c))
      throw std::runtime_error("unexpected line under " + title + ": " + line);
    if (inside)
      procs.push_back({name, a, c ? b : a, c ? c : a}); // c: the end of a moved or a listed procedure
    inside = inside || line == "<Debug> " + title;
  }
  return procs;
}

} // namespace

std::vector<DebugProc> address_mapping(const std::string &debug_out) {
  return debug_block(debug_out, "Procedure Address Mapping", [](const char *l, char *n, auto *a, auto *b, auto *c) {
    return std::sscanf(l, "[%*d] %511s old(%llx) new(%llx - %llx)", n, a, b, c) == 4 ||
           std::sscanf(l, "[%*d] %511s old(%llx) not changed", n, a) == 2;
  });
}

std::vector<DebugProc> procedure_table(const std::string &debug_out) {
  return debug_block(debug_out, "Procedure Table", [](const char *l, char *n, auto *a, auto *b, auto *c) {
    bool ok = std::sscanf(l, "[%*d] %511s %llx %llx", n, a, c) == 3;
    *b = *a;
    *c += *a;
    return ok;
  });
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
  for (size_t i = 0; i < named.size() && i < mapped.size() && named[i].name == mapped[i].name; ++i)
    files_.push_back(named[i].file);
  if (r.status != 0 || files_.size() != mapped.size() || named.size() != mapped.size() || named.empty()) {
    ADD_FAILURE() << e.name << ": the merged feedback and the address mapping differ; " << r.err;
    return;
  }
  procs_ = mapped;
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
// The counts fall from the first procedure given to the last.
std::vector<FeedbackLine> order_of(const AnnotatedBench &b, const std::vector<size_t> &indexes) {
  std::vector<FeedbackLine> out;
  for (size_t i : indexes)
    if (b.procs()[i].name != ".libstub" && b.procs()[i].name != "(null)")
      out.push_back({b.procs()[i].name, b.files()[i], 0});
  for (size_t i = 0; i < out.size(); ++i)
    out[i].count = 1000 + out.size() - i;
  return out;
}

} // namespace

std::vector<FeedbackLine> reversed_order(const AnnotatedBench &b) {
  std::vector<size_t> v(b.procs().size());
  for (size_t i = 0; i < v.size(); ++i)
    v[i] = v.size() - 1 - i;
  return order_of(b, v);
}

std::vector<FeedbackLine> random_order(const AnnotatedBench &b, const std::string &seed_text) {
  // std::shuffle may differ between library versions; the Mersenne
  // twister's raw output does not.
  uint32_t seed = 2166136261u;
  for (unsigned char c : seed_text)
    seed = (seed ^ c) * 16777619u;
  std::mt19937 gen(seed);
  std::vector<size_t> v(b.procs().size());
  for (size_t i = 0; i < v.size(); ++i)
    v[i] = i;
  for (size_t i = v.size(); i > 1; --i)
    std::swap(v[i - 1], v[gen() % i]);
  return order_of(b, v);
}

std::vector<FeedbackLine> hot_first_order(const AnnotatedBench &b, const BenchExe &, const std::string &exe,
                                          const std::vector<std::string> &args, RunResult *run) {
  // vesk-profile finds the emulator of exe's ABI itself; its lines that
  // ran come first, with their entry counts.
  std::vector<std::string> argv{profile_binary(), "--order", "hot", "-o", b.path("hot.fb"), "--", exe};
  argv.insert(argv.end(), args.begin(), args.end());
  *run = run_command(argv, "", 120);
  std::vector<FeedbackLine> hot;
  for (const FeedbackLine &l : feedback_lines(b.path("hot.fb")))
    if (l.count != 0)
      hot.push_back(l);
  return hot;
}

const char *order_name(LayoutOrder o) { return o == REVERSED ? "reversed" : o == SHUFFLED ? "shuffled" : "hot first"; }

std::vector<FeedbackLine> ordered(LayoutOrder o, const AnnotatedBench &b, const BenchExe &e, const std::string &exe,
                                  const std::vector<std::string> &args, RunResult *run) {
  if (o == REVERSED)
    return reversed_order(b);
  if (o == SHUFFLED)
    return random_order(b, e.name);
  return hot_first_order(b, e, exe, args, run);
}

namespace {

// Where the code at old address a lies after the run that printed map:
// a procedure moves as one piece, and code the map does not move stays.
uint64_t moved_to(const std::vector<DebugProc> &map, uint64_t a) {
  for (const DebugProc &m : map)
    if (a >= m.old_addr && a - m.old_addr < m.new_hi - m.new_lo)
      return m.new_lo + (a - m.old_addr);
  return a;
}

} // namespace

// The mdebug tables that debuggers read name the new places of the code:
// every procedure descriptor (its file's base plus its own address, the
// sum a reader forms), every local symbol of a kind that holds a code
// address (static, label, procedure, static procedure), every external
// symbol.  The input names each descriptor's procedure by its symbol.
void check_mdebug_follows_code(const std::string &in_path, const std::string &out_path,
                               const std::vector<DebugProc> &map) {
  using namespace vesk;
  ElfFile in(in_path), out(out_path);
  const GElf_Shdr text = in.shdr(".text");
  auto in_text = [&](uint32_t a) { return a >= text.sh_addr && a < text.sh_addr + text.sh_size; };
  const Hdrr *ih = record_at<Hdrr>(in.bytes.data(), in.shdr(".mdebug").sh_offset);
  const Hdrr *oh = record_at<Hdrr>(out.bytes.data(), out.shdr(".mdebug").sh_offset);
  ASSERT_EQ(uint32_t(ih->ifdMax), uint32_t(oh->ifdMax));
  auto sym = [](const ElfFile &f, const Hdrr *h, uint32_t i) {
    return record_at<Symr>(f.bytes.data(), uint64_t(h->cbSymOffset) + i * sizeof(Symr));
  };
  size_t checked = 0;
  for (uint32_t i = 0; i < ih->isymMax; ++i) {
    uint32_t was = sym(in, ih, i)->value;
    unsigned st = symr_st(*sym(in, ih, i));
    if (in_text(was) && (st == 2 || st == 5 || st == 6 || st == 14)) {
      EXPECT_EQ(uint32_t(sym(out, oh, i)->value), moved_to(map, was)) << std::hex << "local symbol at " << was;
      ++checked;
    }
  }
  for (uint32_t i = 0; i < ih->iextMax; ++i) {
    uint32_t was = record_at<Extr>(in.bytes.data(), uint64_t(ih->cbExtOffset) + i * sizeof(Extr))->asym.value;
    if (in_text(was)) {
      uint32_t now = record_at<Extr>(out.bytes.data(), uint64_t(oh->cbExtOffset) + i * sizeof(Extr))->asym.value;
      EXPECT_EQ(now, moved_to(map, was)) << std::hex << "external symbol at " << was;
      ++checked;
    }
  }
  EXPECT_GT(checked, 10u);
  IpdCarry carry;
  for (uint32_t i = 0; i < ih->ifdMax; ++i) {
    const Fdr *wf = record_at<Fdr>(in.bytes.data(), uint64_t(ih->cbFdOffset) + i * sizeof(Fdr));
    const Fdr *nf = record_at<Fdr>(out.bytes.data(), uint64_t(oh->cbFdOffset) + i * sizeof(Fdr));
    ProcRange procs = fdr_proc_range(*wf, false, carry);
    for (uint64_t k = procs.first; k < procs.first + procs.count; ++k) {
      const Pdr *wp = record_at<Pdr>(in.bytes.data(), uint64_t(ih->cbPdOffset) + k * sizeof(Pdr));
      const Pdr *np = record_at<Pdr>(out.bytes.data(), uint64_t(oh->cbPdOffset) + k * sizeof(Pdr));
      if (uint32_t(wp->isym) == MDEBUG_NIL)
        continue;
      uint32_t was = sym(in, ih, uint32_t(wf->isymBase) + uint32_t(wp->isym))->value;
      if (in_text(was)) {
        EXPECT_EQ(uint32_t(nf->adr + np->adr), moved_to(map, was)) << std::hex << "procedure descriptor of " << was;
      }
    }
  }
}

} // namespace vesk::test
