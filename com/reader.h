// Reading the input executable into bin.
#pragma once

#include <gelf.h>

namespace vesk {

void read_orig_binary();
void read_input();
void debug_interface();
Elf64_Ehdr copy_elf_header_to64(const Elf32_Ehdr *h32);
void copy_section_header_to64(const Elf32_Shdr *h32, Elf64_Shdr *h64);

} // namespace vesk
