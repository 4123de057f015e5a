// The input reader on every executable of the bench: what it records in
// bin must agree with what binutils' readelf says about the same file.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <sstream>

#include "support/bench.h"
#include "support/read_bin.h"

using namespace vesk::test;

namespace {

struct ReadelfFacts {
  bool elf32 = false, n32 = false;
  int pic_kind = -1, debug_kind = 0;
  uint64_t entry = 0, text_lo = 0, text_hi = 0, exec_lo = ~0ULL, exec_hi = 0, stubs = ~0ULL;
  uint64_t got_size = 0, gp = 0;
  std::map<std::string, uint64_t> dyn; // tag name -> value
};

std::string readelf(const std::string &opt, const std::string &path) {
  auto r = run_command({"readelf", "-W", opt, path});
  EXPECT_EQ(r.status, 0) << "readelf " << opt << " " << path << ": " << r.err;
  return r.out;
}

std::vector<std::string> words(const std::string &line) {
  std::istringstream in(line);
  std::vector<std::string> w;
  for (std::string x; in >> x;)
    w.push_back(x);
  return w;
}

uint64_t hex(const std::string &s) { return std::stoull(s, nullptr, 16); }
uint64_t number(const std::string &s) { return std::stoull(s, nullptr, s.rfind("0x", 0) == 0 ? 16 : 10); }

ReadelfFacts facts_of(const std::string &path) {
  ReadelfFacts f;
  std::istringstream hdr(readelf("-h", path));
  for (std::string line; std::getline(hdr, line);) {
    auto w = words(line);
    if (w.size() == 2 && w[0] == "Class:")
      f.elf32 = w[1] == "ELF32";
    else if (w.size() == 4 && w[0] == "Entry" && w[1] == "point")
      f.entry = hex(w[3]);
    else if (!w.empty() && w[0] == "Flags:") {
      std::string flags = line + ",";
      f.n32 = flags.find(" abi2,") != std::string::npos;
      f.pic_kind = flags.find(" pic,") != std::string::npos ? 0 : flags.find(" cpic,") != std::string::npos ? 1 : 2;
    }
  }
  // [Nr] Name Type Address Off Size ES Flg Lk Inf Al; "[ 1]" may be split.
  std::istringstream secs(readelf("-S", path));
  for (std::string line; std::getline(secs, line);) {
    size_t close = line.find(']');
    if (line.find('[') == std::string::npos || close == std::string::npos)
      continue;
    auto w = words(line.substr(close + 1));
    if (w.size() < 9 || w[0] == "Name" || w[1] == "NULL")
      continue;
    const std::string &name = w[0];
    std::string flags = w.size() == 10 ? w[6] : ""; // the flags column may be empty
    uint64_t addr = hex(w[2]), size = hex(w[4]);
    if (flags.find('X') != std::string::npos) {
      f.exec_lo = std::min(f.exec_lo, addr);
      f.exec_hi = std::max(f.exec_hi, addr + size);
    }
    if (name == ".text") {
      f.text_lo = addr;
      f.text_hi = addr + size;
    } else if (name == ".MIPS.stubs") {
      f.stubs = addr;
    } else if (name == ".got") {
      f.got_size = size;
    } else if (name == ".mdebug") {
      f.debug_kind = 1;
    } else if (name == ".debug_info") {
      f.debug_kind = 2;
    }
  }
  //  0x00000003 (PLTGOT)  0x12410
  std::istringstream dyn(readelf("-d", path));
  for (std::string line; std::getline(dyn, line);) {
    auto w = words(line);
    if (w.size() >= 3 && w[1].size() > 2 && w[1].front() == '(' && w[1].back() == ')' && std::isdigit((unsigned char)w[2][0]))
      f.dyn[w[1].substr(1, w[1].size() - 2)] = number(w[2]);
  }
  //  91: 0001a400     0 NOTYPE  LOCAL  DEFAULT   33 _gp
  std::istringstream syms(readelf("-s", path));
  for (std::string line; std::getline(syms, line);) {
    auto w = words(line);
    if (w.size() == 8 && w[7] == "_gp")
      f.gp = hex(w[1]);
  }
  return f;
}

} // namespace

TEST(ReaderOnBench, AgreesWithReadelfOnEveryExecutable) {
  VESK_REQUIRE_BENCH();
  for (const auto &e : bench_executables()) {
    SCOPED_TRACE(e.name);
    ReadelfFacts f = facts_of(e.path);
    ReadResult r = read_binary_in_child(e.path);
    EXPECT_EQ(r.run.status, 0) << r.run.err;
    EXPECT_EQ(r.num("is_elf32"), f.elf32 ? 1u : 0u);
    EXPECT_EQ(r.num("is_n32"), f.n32 ? 1u : 0u);
    EXPECT_EQ(r.num("pic_kind"), unsigned(f.pic_kind));
    EXPECT_EQ(r.num("debug_kind"), unsigned(f.debug_kind));
    EXPECT_EQ(r.num("entry"), f.entry);
    EXPECT_EQ(r.num("text_lo"), f.text_lo);
    EXPECT_EQ(r.num("text_hi"), f.text_hi);
    EXPECT_EQ(r.num("text_words"), (f.text_hi - f.text_lo) / 4);
    EXPECT_EQ(r.num("exec_lo"), f.exec_lo);
    EXPECT_EQ(r.num("exec_hi"), f.exec_hi);
    EXPECT_LT(f.exec_lo, f.text_lo); // .init and the stubs are executable too
    EXPECT_EQ(r.num("stubs_lo"), std::min(f.stubs, f.text_lo));
    EXPECT_NE(f.gp, 0u);
    EXPECT_EQ(r.num("gp_value"), f.gp & 0xffffffffu);
    EXPECT_EQ(r.num("pltgot"), f.dyn["PLTGOT"] & 0xffffffffu);
    EXPECT_EQ(r.num("strtab_addr"), f.dyn["STRTAB"] & 0xffffffffu);
    EXPECT_EQ(r.num("local_gotno"), f.dyn["MIPS_LOCAL_GOTNO"]);
    EXPECT_EQ(r.num("gotsym"), f.dyn["MIPS_GOTSYM"]);
    EXPECT_EQ(r.num("time_stamp"), f.dyn["MIPS_TIME_STAMP"]);
    EXPECT_EQ(r.num("got_count"), f.got_size / 4);
    EXPECT_EQ(r.num("got_buf"), 1u);
    EXPECT_EQ(r.num("dynsym_buf"), 1u);
  }
}
