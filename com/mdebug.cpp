// Procedure discovery from the mdebug symbol table.
#include "com/mdebug.h"

#include <cstring>
#include <string>

#include "base/bin.h"
#include "base/bytes.h"
#include "base/diag.h"
#include "base/options.h"
#include "base/proc.h"
#include "com/elf.h"
#include "com/symtab_procs.h"
#include "mdebug/symtab.h"

namespace vesk {

namespace {

// lnLow >= 1 with lnHigh -1 marks a descriptor that describes no code of
// its own; it is passed over whatever else it holds.
bool is_skipped_descriptor(const Pdr &pd) {
  return int32_t(uint32_t(pd.lnLow)) >= 1 && uint32_t(pd.lnHigh) == MDEBUG_NIL;
}

void add_file_procedures(MdebugHandle *h, uint32_t f, IpdCarry &carry) {
  const MdebugSymtab &st = h->st;
  const Fdr &fd = st.fdrs[f];
  ProcRange range = fdr_proc_range(fd, option.b_flag != 0, carry);

  const char *name = mdebug_file_name(h, f);
  if (name == nullptr)
    error("%s: stripped binary? mdebug file %d has no name", h->name.c_str(), int(f));
  // One copy of the file name, shared by the procedure records of the file.
  const char *file_name = keep_input_name(name);

  if (range.count == 0)
    return;
  if (range.first > st.ipd_max || range.count > st.ipd_max - range.first)
    error("%s: mdebug file %u (%s) lists procedure descriptors %llu to %llu, but the table has %u",
          h->name.c_str(), f, file_name, (unsigned long long)range.first,
          (unsigned long long)(range.first + range.count - 1), st.ipd_max);

  for (uint64_t i = range.first; i < range.first + range.count; ++i) {
    const Pdr &pd = st.pdrs[i];
    if (is_skipped_descriptor(pd))
      continue;
    MdebugSymbol sym;
    if (uint32_t(pd.isym) == MDEBUG_NIL || int32_t(uint32_t(fd.csym)) < 1 ||
        !mdebug_read_symbol(h, uint64_t(uint32_t(fd.isymBase)) + uint32_t(pd.isym), &sym))
      error("%s: stripped binary? procedure descriptor %llu of mdebug file %u (%s) has no symbol", h->name.c_str(),
            (unsigned long long)i, f, file_name);
    const char *proc_name = mdebug_symbol_name(h, sym);
    if (proc_name == nullptr)
      error("%s: stripped binary? procedure descriptor %llu of mdebug file %u (%s) has no name", h->name.c_str(),
            (unsigned long long)i, f, file_name);
    proc_name = keep_input_name(proc_name); // the table is closed after discovery
    Proc *p = new_proc();
    p->name = proc_name;
    p->file_name = file_name;
    p->old_addr = sign_extend32(sym.rec.value);
    if (option.debug)
      dump("\tSubprogram: %s lowpc(%#llx)", proc_name, (unsigned long long)p->old_addr);
  }
}

} // namespace

void mdebug_interface() {
  std::unique_ptr<MdebugHandle> handle = mdebug_open_elf(bin.in_elf, bin.in_fd, option.program);
  MdebugHandle *ldptr = handle.get();
  MdebugSymtab *st = mdebug_symtab(ldptr);
  if (st == nullptr)
    error("%s: cannot read the header of its .mdebug symbol table", option.program);
  mdebug_read_tables(ldptr);

  // The code at the start of .text that no descriptor describes (library
  // stubs and the like) is one pseudo procedure.
  // A record for every descriptor, and some for code that only the symbol
  // table describes.
  reserve_procs(size_t(st->ipd_max) + size_t(st->ipd_max) / 8 + 64);
  Proc *stub = new_proc();
  stub->name = ".libstub";
  stub->file_name = ".libstub";
  stub->old_addr = bin.text_lo;

  IpdCarry carry; // the 64 K wrap-around of the walk over the files
  for (uint32_t f = 0; f < st->ifd_max; ++f)
    add_file_procedures(ldptr, f, carry);

  // Code without a descriptor (start files, library parts built without
  // the table) would otherwise become part of the procedure before it.
  place_mdebug_procs_by_symbols(read_function_symbols(bin.in_elf));
  mdebug_derive_proc_highpc();
}

} // namespace vesk
