// Reading the input executable into bin.
#pragma once

#include <functional>

#include <gelf.h>

namespace vesk {

// The three steps below, for readers that take the executable as it is.
void read_orig_binary();
// open_input then parse_input.
void read_input();
// Opens option.program as bin.in_fd, refusing what is not a regular file.
void open_input();
// The file on bin.in_fd into bin: ELF header, sections, text, GOT, dynamic
// values.
void parse_input();
// The procedures, from DWARF or mdebug, completed from the symbol table.
// beside: work to hand to the second core meanwhile, behind discovery's
// own there.
void debug_interface(const std::function<void()> &beside = {});
Elf64_Ehdr copy_elf_header_to64(const Elf32_Ehdr *h32);
void copy_section_header_to64(const Elf32_Shdr *h32, Elf64_Shdr *h64);

} // namespace vesk
