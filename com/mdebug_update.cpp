// The mdebug symbol table follows the moved procedures: in the output's
// .mdebug bytes, procedure descriptors, code-address local symbols and
// external symbols are re-pointed through the text map, and every file
// descriptor's base address becomes 0.
//
// The section is addressed as size bytes lying at file offset file_off;
// the header's table offsets are file offsets.  Every table range is
// checked as an offset into the section before a record of it is touched,
// so no pointer is ever formed outside the buffer.
#include "com/mdebug.h"

#include <algorithm>
#include <cstdio>
#include <gelf.h>
#include <libelf.h>

#include "base/background.h"
#include "base/bin.h"
#include "base/bytes.h"
#include "base/diag.h"
#include "base/elf_class.h"
#include "base/options.h"
#include "com/elf.h"
#include "com/update.h"
#include "mdebug/records.h"

namespace vesk {

namespace {

using Offset = __int128; // a byte position relative to the buffer; may be negative

struct MdebugBytes {
  uint8_t *buf;
  size_t size;
  uint64_t file_off;

  // Position of the record `index` of a table at file offset table_off.
  Offset at(uint32_t table_off, uint64_t index, size_t entsize) const {
    return Offset(table_off) - Offset(file_off) + Offset(index) * Offset(entsize);
  }
  bool beyond(Offset end_pos) const { return end_pos > Offset(size); }
};

// The records [first, first + count) of the table at file offset table_off,
// once they are known to lie inside the section.
template <class R>
R *records_in(const MdebugBytes &m, uint32_t table_off, uint64_t first, uint64_t count, const char *table,
              int ifd = -1) {
  Offset start = m.at(table_off, first, sizeof(R));
  Offset end = start + Offset(count) * Offset(sizeof(R));
  if (start < 0 || m.beyond(end)) {
    char file[32] = "";
    if (ifd >= 0)
      std::snprintf(file, sizeof file, " of file %d", ifd);
    error("%s: the mdebug %s%s (records %llu to %llu of the table at file offset %#x) lie outside the .mdebug "
          "section (file offset %#llx, %zu bytes)",
          option.program, table, file, (unsigned long long)first, (unsigned long long)(first + count - 1), table_off,
          (unsigned long long)m.file_off, m.size);
  }
  return record_at<R>(m.buf, uint64_t(start));
}

// Local symbol types that hold code addresses: stNil, stStatic, stLabel,
// stProc, stStaticProc and 33.
bool holds_code_address(unsigned st) { return st == 0 || st == 2 || st == 5 || st == 6 || st == 14 || st == 33; }

// A 32-bit value that names an address in the input text, moved through
// the text map; other values are returned unchanged.
uint32_t moved_value(uint32_t value) {
  uint64_t a = sign_extend32(value);
  return in_text(a) ? uint32_t(text_map_of(a)) : value;
}

void fix_pdrs(const MdebugBytes &m, const Hdrr &hdr, const Fdr &fdr, uint32_t ifd, ProcRange range) {
  if (range.count == 0)
    return;
  Pdr *pdrs = records_in<Pdr>(m, hdr.cbPdOffset, range.first, range.count, "procedure descriptors", int(ifd));
  if (range.first > hdr.ipdMax || range.count > uint32_t(hdr.ipdMax) - range.first)
    error("mdebug pdr of ifd %d beyond the table: %llu + %llu > ipdMax %u", int(ifd),
          (unsigned long long)range.first, (unsigned long long)range.count, uint32_t(hdr.ipdMax));
  // PDR addresses are relative to the file's base, except where the first
  // descriptor already holds the base (absolute addresses).  PIC code's
  // are taken for absolute by some tools, but GNU as counts them from the
  // base there too: there the base counts where the address lands in
  // .text only with it.  In a PIE whose text lies low both readings can
  // land in .text; the procedure's own symbol, which holds its absolute
  // address, then says which one is meant.
  uint32_t base = fdr.adr;
  if (uint32_t(pdrs[0].adr) == base)
    base = 0;
  // The same records, with the same message, as the file's local symbols
  // are repaired from right after.
  uint32_t sym_count = fdr.csym;
  const Symr *syms = nullptr;
  if (sym_count != 0)
    syms = records_in<Symr>(m, hdr.cbSymOffset, fdr.isymBase, sym_count, "local symbols", int(ifd));
  for (uint64_t k = 0; k < range.count; ++k) {
    Pdr &pd = pdrs[k];
    uint32_t adr = pd.adr;
    if (option.debug)
      dump("cur_pdr->adr = %#x", adr);
    if (uint32_t(pd.isym) == MDEBUG_NIL)
      continue;
    bool from_base = bin.pic_kind != 0 || (!in_text(adr) && in_text(uint32_t(adr + base)));
    if (in_text(adr) && in_text(uint32_t(adr + base)) && uint32_t(pd.isym) < sym_count) {
      uint32_t sym_value = syms[uint32_t(pd.isym)].value;
      if (sym_value == uint32_t(adr + base))
        from_base = true;
      else if (sym_value == adr)
        from_base = false;
    }
    uint64_t a = uint32_t(adr + (from_base ? base : 0));
    if (in_text(a)) {
      pd.adr = uint32_t(text_map_of(a));
    } else {
      bin.mdebug_bad_proc_info = true;
      if (option.debug)
        warning("incorrect info in mdebug fdr->adr %#x, pdr->adr %#x", base, adr);
    }
  }
}

void fix_local_symbols(const MdebugBytes &m, const Hdrr &hdr, const Fdr &fdr, uint32_t ifd) {
  uint32_t first = fdr.isymBase;
  uint32_t count = fdr.csym;
  if (count == 0)
    return;
  Symr *syms = records_in<Symr>(m, hdr.cbSymOffset, first, count, "local symbols", int(ifd));
  if (first > hdr.isymMax || count > uint32_t(hdr.isymMax) - first)
    error("mdebug symr of ifd %d beyond the table: %u + %u > isymMax %u", int(ifd), first, count,
          uint32_t(hdr.isymMax));
  for (uint32_t k = 0; k < count; ++k) {
    Symr &s = syms[k];
    if (holds_code_address(symr_st(s)) && uint32_t(s.value) != 0)
      s.value = moved_value(s.value);
  }
}

void fix_fdrs(const MdebugBytes &m, const Hdrr &hdr) {
  uint32_t n = hdr.ifdMax;
  if (n == 0)
    return;
  Fdr *fdrs = records_in<Fdr>(m, hdr.cbFdOffset, 0, n, "file descriptors");
  IpdCarry carry; // the 64 K wrap-around of the walk over the files
  for (uint32_t i = 0; i < n; ++i) {
    Fdr &fdr = fdrs[i];
    ProcRange range = fdr_proc_range(fdr, option.b_flag != 0, carry);
    fix_pdrs(m, hdr, fdr, i, range);
    fix_local_symbols(m, hdr, fdr, i);
    // Every PDR address is absolute now; a base of 0 keeps base + adr right
    // for any reader.
    fdr.adr = 0;
  }
}

void fix_externals(const MdebugBytes &m, const Hdrr &hdr) {
  uint32_t n = hdr.iextMax;
  if (n == 0)
    return;
  Extr *exts = records_in<Extr>(m, hdr.cbExtOffset, 0, n, "external symbols");
  for (uint32_t i = 0; i < n; ++i) {
    Symr &s = exts[i].asym;
    // 0 and 1 mark undefined and special symbols, never addresses.
    uint32_t v = s.value;
    if (v != 0 && v != 1)
      s.value = moved_value(v);
  }
}

// The line-number table is copied back from the input after writing, so
// its place must lie inside this section: anything else would overwrite
// other repaired contents of the output.
void check_line_table(const MdebugBytes &m, const Hdrr &hdr) {
  uint32_t size = hdr.cbLine;
  if (size == 0)
    return;
  Offset start = m.at(hdr.cbLineOffset, 0, 1);
  if (start < 0 || m.beyond(start + size))
    error("%s: the mdebug line table (%u bytes at file offset %#x) lies outside section .mdebug (file offset %#llx, "
          "%zu bytes)",
          option.program, size, uint32_t(hdr.cbLineOffset), (unsigned long long)m.file_off, m.size);
}

// The file offset of a section of the output; false when its header
// cannot be read.
// The tables the update rewrites are read first: their pages are made
// writable at once (see prepare_to_modify).  The bounds are checked where
// the records are used.
void prepare_tables(const MdebugBytes &m, const Hdrr &hdr) {
  auto prepare = [&m](uint32_t table_off, uint64_t count, size_t entsize) {
    Offset start = std::max<Offset>(m.at(table_off, 0, entsize), 0);
    Offset end = std::min<Offset>(m.at(table_off, count, entsize), Offset(m.size));
    if (start < end)
      prepare_to_modify(m.buf + size_t(start), size_t(end - start));
  };
  prepare(hdr.cbFdOffset, uint32_t(hdr.ifdMax), sizeof(Fdr));
  prepare(hdr.cbPdOffset, uint32_t(hdr.ipdMax), sizeof(Pdr));
  prepare(hdr.cbSymOffset, uint32_t(hdr.isymMax), sizeof(Symr));
  prepare(hdr.cbExtOffset, uint32_t(hdr.iextMax), sizeof(Extr));
}

template <class C> bool section_offset(Elf_Scn *scn, uint64_t *offset) {
  const typename C::Shdr *sh = C::getshdr(scn);
  if (sh != nullptr)
    *offset = sh->sh_offset;
  return sh != nullptr;
}

bool section_offset(Elf_Scn *scn, uint64_t *offset) {
  return bin.is_elf32 ? section_offset<Elf32Class>(scn, offset) : section_offset<Elf64Class>(scn, offset);
}

} // namespace

void fixmdebug(uint8_t *buffer, size_t size, uint64_t file_off) {
  if (size < sizeof(Hdrr))
    error("mdebug section %ld bytes is too small!", long(size));
  const Hdrr &hdr = *record_at<Hdrr>(buffer, 0);
  if (hdr.magic != MDEBUG_MAGIC)
    error("mdebug magic 0x%x is wrong! want 0x%x", unsigned(hdr.magic), unsigned(MDEBUG_MAGIC));

  bin.line_offset = hdr.cbLineOffset;
  bin.line_size = hdr.cbLine;

  MdebugBytes m{buffer, size, file_off};
  prepare_tables(m, hdr);
  check_line_table(m, hdr);
  fix_fdrs(m, hdr);
  fix_externals(m, hdr);

  if (bin.mdebug_bad_proc_info && option.verbose)
    warning("mdebug has incorrect procedure info");
}

namespace {

// The output's .mdebug: its bytes and its place in the file.  False when
// there is none, or, when quiet, when it cannot be read (its update then
// says so in its turn).
bool mdebug_output(uint8_t **buf, size_t *size, uint64_t *file_off, bool quiet) {
  Elf_Scn *scn = find_section_by_name(bin.out_elf, ".mdebug");
  if (scn == nullptr)
    return false;
  uint64_t sh_offset = 0;
  if (!section_offset(scn, &sh_offset)) {
    if (quiet)
      return elf_errno(), false;
    print_elf_error(option.program);
    error("cannot read the section header of .mdebug");
  }
  Elf_Data *d = elf_getdata(scn, nullptr);
  if (d == nullptr || (d->d_buf == nullptr && d->d_size != 0)) {
    if (quiet)
      return elf_errno(), false;
    print_elf_error(option.program);
    error("cannot read the contents of section .mdebug");
  }
  *buf = static_cast<uint8_t *>(d->d_buf);
  *size = d->d_size;
  *file_off = sh_offset + uint64_t(d->d_off);
  return true;
}

// The sections that the updates ahead of .mdebug's may grow: one in front
// of it in the file would move it before its turn.
bool may_move_before_its_turn(uint64_t file_off) {
  for (const char *name : {".compact_rel", GP_RANGES_SECTION}) {
    Elf_Scn *scn = find_section_by_name(bin.out_elf, name);
    uint64_t at = 0;
    if (scn != nullptr && (!section_offset(scn, &at) || at < file_off))
      return elf_errno(), true;
  }
  return false;
}

} // namespace

void start_mdebug_update() {
  uint8_t *buf = nullptr;
  size_t size = 0;
  uint64_t file_off = 0;
  if (!mdebug_output(&buf, &size, &file_off, true) || may_move_before_its_turn(file_off))
    return;
  bin.mdebug_task = std::make_unique<Background>([buf, size, file_off] { fixmdebug(buf, size, file_off); });
}

void update_mdebug() {
  if (bin.mdebug_task != nullptr) {
    bin.mdebug_task->collect();
    bin.mdebug_task.reset();
    return;
  }
  uint8_t *buf = nullptr;
  size_t size = 0;
  uint64_t file_off = 0;
  if (mdebug_output(&buf, &size, &file_off, false))
    fixmdebug(buf, size, file_off);
}

} // namespace vesk
