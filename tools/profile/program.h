// An executable as vesk sees it: its ABI, where it is loaded, its .text
// and the procedures that vesk's own reader discovers (mdebug or DWARF,
// completed from the symbol table), so that a profile names exactly the
// procedures vesk will look for.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vesk::profile {

struct ProcInfo {
  std::string name, file; // empty when the reader could not name it
  uint64_t addr = 0;
  uint32_t size = 0;
  // A feedback line can name it: vesk matches lines by name and file name,
  // one blank-separated word each, and never looks for its .libstub.
  bool nameable = false;
};

struct Program {
  std::string path;
  std::string abi;      // o32, n32 or n64
  bool pie = false;     // ET_DYN: qemu chooses the load address
  uint64_t first_load = 0; // page of the lowest PT_LOAD segment's address
  uint64_t text_lo = 0, text_hi = 0;
  std::vector<ProcInfo> procs; // by address
  std::vector<uint64_t> max_end; // prefix maximum of the procedures' ends

  // The procedure that holds a link-time address (the one that starts
  // last, when they overlap), or -1.
  int proc_at(uint64_t addr) const;
  bool in_text(uint64_t addr) const { return addr >= text_lo && addr < text_hi; }
};

// Reads path with vesk's input reader; a file vesk cannot read ends the
// run with its "Error: ..." message.
Program load_program(const std::string &path);

} // namespace vesk::profile
