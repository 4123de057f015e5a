// The 32-bit instantiation of the output image and update steps.
#include "com/elf_impl.h"
#include "com/update_impl.h"

namespace vesk {

using C = Elf32Class;

void duplicate_elf32() { duplicate_elf_t<C>(); }
Elf_Scn *find_section_by_name32(Elf *elf, const char *name) { return find_section_by_name_t<C>(elf, name); }
void expand_section32(Elf_Scn *scn, uint32_t n) { expand_section_t<C>(scn, n); }

void check_for_text_and_update32(uint32_t *a) { *a = uint32_t(repoint_code_address(*a)); }
void update_elf_header32() { update_elf_header_t<C>(); }
void update_dynamic32() { update_dynamic_t<C>(); }
void update_got32() { update_got_t<C>(); }
void update_reldyn32() { update_reldyn_t<C>(); }
void update_dynsym32() { update_dynsym_t<C>(); }
void update_symtab32() { update_symtab_t<C>(); }

} // namespace vesk
