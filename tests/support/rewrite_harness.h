// In-process runs of the rewriting steps on real or synthetic executables,
// without procedure discovery and planning: the test loads the input the
// way the reader does, lays the text out in an order it chooses, and calls
// the steps it checks.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vesk::test {

// Starts a fresh run and loads path into vesk::bin: class, ABI, text and
// executable bounds, gp value, dynamic values, GOT and .dynsym.  Then the
// output (a copy of the input) is opened and the image duplicated.
void load_input(const std::string &path, const std::string &output);
// Writes the output and closes both files.
void finish_output();

// A piece of .text that moves as a whole.
struct TextBlock {
  uint64_t addr = 0, size = 0;
};
// .text cut at every start and end of a code symbol of .symtab.
std::vector<TextBlock> text_blocks();
// Lays the blocks out end to end in the given order (which must cover the
// text exactly once): fills bin.new_text and bin.text_map.
void lay_out(const std::vector<TextBlock> &order);

} // namespace vesk::test
