// In-process runs of the rewriting steps on real or synthetic executables,
// without the procedure discovery and layout planning: the test loads the
// input into vesk::bin the way the input reader does, lays the text out in
// an order it chooses and then calls the steps it wants to check.
#pragma once

#include <cstdint>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace vesk::test {

// The tool allocates once and frees nothing; a test that runs its steps in
// process derives from this fixture, under which the leak checker ignores
// what the test allocates.
class RewriteTest : public ::testing::Test {
protected:
  RewriteTest();
  ~RewriteTest() override;
};

enum class Abi { o32, n32, n64 };
const char *abi_name(Abi abi);

// Compiles one C source for abi with gcc's extra flags; the executable is
// kept in the build tree, keyed by source and flags, so that later runs
// reuse it.  Empty when no cross compiler is installed.
std::string cross_compile(Abi abi, const std::string &source, const std::vector<std::string> &flags);
// The command line that runs an executable of abi under qemu (program and
// its library root), or empty when qemu is missing.
std::vector<std::string> qemu_command(Abi abi);

// Clears vesk::bin and vesk::option and loads path into bin: class, ABI,
// descriptors, text and executable bounds, gp value, dynamic values, GOT
// and .dynsym.  option.program is path, option.output is output.
void load_input(const std::string &path, const std::string &output);
// Creates the output as a copy of the input, allocates the text map and
// duplicates the image (bin.out_elf, bin.new_text).
void begin_output();
// write_it, then ends the input descriptor and closes both files.
void finish_output();

// A piece of .text that moves as a whole.
struct TextBlock {
  uint64_t addr = 0, size = 0;
  std::string name; // "" for the run of words between two named pieces
};
// .text cut at every start and end of a code symbol of .symtab, in address
// order; the blocks cover the text exactly once.
std::vector<TextBlock> text_blocks();
// Lays the blocks out end to end in the given order (which must cover the
// text exactly once): fills bin.new_text and bin.text_map.
void lay_out(const std::vector<TextBlock> &order);
// The identity layout.
void lay_out_unchanged();

// The contents of a whole file.
std::vector<uint8_t> file_bytes(const std::string &path);

} // namespace vesk::test
