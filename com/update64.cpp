// The 64-bit instantiation of the output image and update steps.
#include "com/elf_impl.h"
#include "com/update_impl.h"

namespace vesk {

using C = Elf64Class;

void duplicate_elf64() { duplicate_elf_t<C>(); }
Elf_Scn *find_section_by_name64(Elf *elf, const char *name) { return find_section_by_name_t<C>(elf, name); }
void expand_section64(Elf_Scn *scn, uint32_t n) { expand_section_t<C>(scn, n); }

void check_for_text_and_update64(uint64_t *a) { *a = repoint_code_address(*a); }
void update_elf_header64() { update_elf_header_t<C>(); }
void update_dynamic64() { update_dynamic_t<C>(); }
void update_got64() { update_got_t<C>(); }
void update_reldyn64() { update_reldyn_t<C>(); }
void update_dynsym64() { update_dynsym_t<C>(); }
void update_symtab64() { update_symtab_t<C>(); }

} // namespace vesk
