// Small o32 programs built by the cross compiler for tests of
// vesk-annotate and of the whole o32 path, and what tests read from them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "com/compact_rel.h"
#include "support/run.h"

namespace vesk::test {

bool have_o32_toolchain();
#define REQUIRE_O32_TOOLCHAIN()                                   \
  do {                                                            \
    if (!::vesk::test::have_o32_toolchain())                      \
      GTEST_SKIP() << "mips-linux-gnu-gcc or qemu-mips is missing"; \
  } while (0)

// A temporary directory of programs, removed with the object.
class O32Build {
public:
  O32Build();
  ~O32Build();
  O32Build(const O32Build &) = delete;
  O32Build &operator=(const O32Build &) = delete;
  const std::string &dir() const { return dir_; }
  // Compiles C source src with -O2 (and -Wl,-q unless keep_relocs is
  // false) plus flags; returns the executable's path.  Throws on failure.
  std::string compile(const std::string &stem, const std::string &src, const std::vector<std::string> &flags,
                      bool keep_relocs = true);

private:
  std::string dir_;
};

// The vesk-annotate program of this build.
std::string annotate_binary();
// Runs an o32 executable under qemu.
RunResult run_o32(const std::string &exe, const std::vector<std::string> &args = {});
// The decoded entries of an executable's .compact_rel section.
std::vector<CompactRelEntry> compact_rel_entries(const std::string &exe);
// A .symtab symbol's value (0 when absent), the .reginfo gp value, and the
// name of the section whose contents end last in the file.
uint32_t symbol_value(const std::string &exe, const std::string &name);
uint32_t gp_value(const std::string &exe);
std::string last_section_in_file(const std::string &exe);

} // namespace vesk::test
