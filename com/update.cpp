// Placeholder: this step is built by a later change; until then it does nothing.
#include "com/update.h"

namespace vesk {

void update_elf_header() {}
void update_dynamic() {}
void update_got() {}
void update_reldyn() {}
void update_dynsym() {}
void update_symtab() {}
void check_for_text_and_update32(uint32_t *) {}
void check_for_text_and_update64(uint64_t *) {}
uint64_t got_content_by_gpoffset(int32_t) { return 0; }
int32_t find_local_got_entry_for_addr(uint64_t, uint32_t *) { return 0; }
int32_t update_got_page(uint64_t, int32_t, uint32_t, uint64_t) { return 0; }
int32_t update_got_offset(uint64_t, int32_t, uint32_t, uint64_t) { return 0; }

} // namespace vesk
