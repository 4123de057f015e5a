// Procedure discovery from the mdebug symbol table, and the header check
// of a moved .mdebug section.
#include "com/mdebug.h"

#include <cstring>
#include <deque>
#include <string>

#include "com/symtab_procs.h"
#include "mdebug/symtab.h"
#include "vesk/bin.h"
#include "vesk/bytes.h"
#include "vesk/diag.h"
#include "vesk/options.h"
#include "vesk/proc.h"

namespace vesk {

namespace {

// The wrap-around state of the discovery walk; it lives for the whole run.
IpdCarry discovery_carry;

// One copy of every file name, shared by the procedure records of the file.
std::deque<std::string> file_names;

// Line numbers of the header checks of move_mdebug, as the assertions print.
constexpr int MOVE_SIZE_CHECK_LINE = 330;
constexpr int MOVE_MAGIC_CHECK_LINE = 331;

// lnLow >= 1 with lnHigh -1 marks a descriptor that describes no code of
// its own; it is passed over whatever else it holds.
bool is_skipped_descriptor(const Pdr &pd) {
  return int32_t(uint32_t(pd.lnLow)) >= 1 && uint32_t(pd.lnHigh) == MDEBUG_NIL;
}

void add_file_procedures(MdebugHandle *h, uint32_t f) {
  const MdebugSymtab &st = h->st;
  const Fdr &fd = st.fdrs[f];
  ProcRange range = fdr_proc_range(fd, option.b_flag != 0, discovery_carry);

  const char *name = mdebug_file_name(h, f);
  if (name == nullptr)
    error("Stripped binary? File[%d] has no name", int(f));
  file_names.emplace_back(name);
  const char *file_name = file_names.back().c_str();

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
      error("stripped binary");
    const char *proc_name = mdebug_symbol_name(h, sym);
    if (proc_name == nullptr)
      error("stripped binary");
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
  MdebugHandle *ldptr = mdebug_open(option.program);
  if (ldptr == nullptr)
    error("%s:%d ASSERT(ldptr)", "com/mdebug", 40);
  MdebugSymtab *st = mdebug_symtab(ldptr);
  if (st == nullptr)
    error("%s:%d ASSERT(st)", "com/mdebug", 43);
  mdebug_read_tables(ldptr);

  // The code at the start of .text that no descriptor describes (library
  // stubs and the like) is one pseudo procedure.
  Proc *stub = new_proc();
  stub->name = ".libstub";
  stub->file_name = ".libstub";
  stub->old_addr = bin.text_lo;

  for (uint32_t f = 0; f < st->ifd_max; ++f)
    add_file_procedures(ldptr, f);

  // Code without a descriptor (start files, library parts built without
  // the table) would otherwise become part of the procedure before it.
  place_mdebug_procs_by_symbols(read_function_symbols(bin.in_elf));
  mdebug_derive_proc_highpc();
}

void move_mdebug(const uint8_t *contents, size_t length, uint64_t) {
  // The offsets inside the table stay as they are; only the header is
  // checked, so that a damaged section is not carried along unnoticed.
  if (length < sizeof(Hdrr))
    error("%s:%d ASSERT(len >= sizeof(HDRR))", "com/mdebug", MOVE_SIZE_CHECK_LINE);
  if (load16(contents) != MDEBUG_MAGIC)
    error("%s:%d ASSERT(phdr->magic == magicSym)", "com/mdebug", MOVE_MAGIC_CHECK_LINE);
}

void reset_mdebug_discovery() {
  discovery_carry = IpdCarry{};
  file_names.clear();
}

} // namespace vesk
