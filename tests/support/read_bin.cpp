#include "support/read_bin.h"

#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <sstream>
#include <unistd.h>

#include "base/bin.h"
#include "base/proc.h"
#include "com/mdebug.h"
#include "support/child.h"
#include "vesk/options.h"
#include "vesk/reader.h"

namespace vesk::test {

namespace {

// Printed from an exit handler too, so that the fields are seen also when
// the reader (or the procedure discovery behind it) ends the run.
bool printed;
void print_bin() {
  if (printed)
    return;
  printed = true;
  std::fflush(stdout);
  std::printf("\n#bin pic_kind=%d is_elf32=%d is_n32=%d debug_kind=%d text_lo=%#llx text_hi=%#llx "
              "exec_lo=%#llx exec_hi=%#llx stubs_lo=%#llx entry=%#llx text_words=%u gp_value=%#x "
              "local_gotno=%u local_gotidx=%u gotsym=%u pltgot=%#x strtab_addr=%#x time_stamp=%#x "
              "got_count=%u text_buf=%d got_buf=%d dynsym_buf=%d text_shift=%u text_grow=%u\n",
              bin.pic_kind, bin.is_elf32, bin.is_n32, bin.debug_kind, (unsigned long long)bin.text_lo,
              (unsigned long long)bin.text_hi, (unsigned long long)bin.exec_lo,
              (unsigned long long)bin.exec_hi, (unsigned long long)bin.stubs_lo,
              (unsigned long long)bin.entry, bin.text_words, bin.gp_value, bin.local_gotno,
              bin.local_gotidx, bin.gotsym, bin.pltgot, bin.strtab_addr, bin.time_stamp, bin.got_count,
              bin.text_buf != nullptr, bin.got_buf != nullptr, bin.dynsym_buf != nullptr, bin.text_shift,
              bin.text_grow);
  std::fflush(stdout);
}

} // namespace

unsigned long long ReadResult::num(const std::string &name) const {
  auto it = field.find(name);
  if (it == field.end()) {
    ADD_FAILURE() << "bin." << name << " not reported; stderr: " << run.err;
    return ~0ULL;
  }
  return std::strtoull(it->second.c_str(), nullptr, 0);
}

ReadResult read_binary_in_child(const std::string &path, bool debug) {
  ReadResult r;
  r.run = run_in_child([&] {
    option = Options{};
    option.program = path.c_str();
    option.debug = debug;
    bin = Bin{};
    struct PrintAtEnd {
      ~PrintAtEnd() { print_bin(); }
    } at_end; // also when the reader ends the run
    read_orig_binary();
  });
  size_t at = r.run.out.rfind("\n#bin ");
  if (at != std::string::npos) {
    std::istringstream in(r.run.out.substr(at + 6));
    std::string kv;
    while (in >> kv) {
      size_t eq = kv.find('=');
      if (eq != std::string::npos)
        r.field[kv.substr(0, eq)] = kv.substr(eq + 1);
    }
    r.run.out.erase(at);
  }
  return r;
}

void release_input() {
  if (bin.in_elf)
    elf_end(bin.in_elf);
  if (bin.in_fd > 0)
    close(bin.in_fd);
  bin = Bin{};
  option = Options{};
}

} // namespace vesk::test
