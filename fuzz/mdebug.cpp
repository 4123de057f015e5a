// The mdebug reader on the file offset of a .mdebug section (8 bytes,
// big-endian: the table's offsets are file offsets) and its bytes: the
// symbolic header, every table it points to, and each file's name, procedure
// descriptors and their symbols, as procedure discovery reads them.
#include "base/bytes.h"
#include "fuzz/fuzz_support.h"
#include "mdebug/symtab.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 8)
    return 0;
  vesk::fuzz::in_fresh_run([&] {
    std::unique_ptr<vesk::MdebugHandle> h =
        vesk::mdebug_open_image(data + 8, size - 8, vesk::load64(data), "fuzz.mdebug");
    vesk::MdebugSymtab *st = h ? vesk::mdebug_symtab(h.get()) : nullptr;
    if (st == nullptr)
      return;
    vesk::mdebug_read_tables(h.get());
    for (bool b_flag : {false, true}) {
      vesk::IpdCarry carry;
      for (uint32_t f = 0; f < st->ifd_max; ++f) {
        const vesk::Fdr &fd = st->fdrs[f];
        vesk::mdebug_file_name(h.get(), f);
        vesk::ProcRange r = vesk::fdr_proc_range(fd, b_flag, carry);
        if (r.first > st->ipd_max || r.count > st->ipd_max - r.first)
          continue; // discovery refuses these
        for (uint64_t i = r.first; i < r.first + r.count; ++i) {
          vesk::MdebugSymbol sym;
          if (vesk::mdebug_read_symbol(h.get(), uint64_t(uint32_t(fd.isymBase)) + uint32_t(st->pdrs[i].isym), &sym))
            vesk::mdebug_symbol_name(h.get(), sym);
        }
      }
    }
    for (uint32_t i = 0; i < st->iext_max; ++i)
      vesk::mdebug_external_name(h.get(), i);
  });
  return 0;
}
