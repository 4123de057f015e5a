// The runtime procedure table and the after-write repairs.
#pragma once

#include <cstdint>
#include <libelf.h>

namespace vesk {

uint64_t dynsym_get_value(Elf *elf, const char *name);
void update_rpt();
int cmp_adr(const void *a, const void *b);
void post_process_rpt(int in_fd, int out_fd);
void post_process_line(int in_fd, int out_fd);

} // namespace vesk
