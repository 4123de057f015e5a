#include "com/dwarf_sections.h"

#include <cstring>
#include <gelf.h>

#include "base/bytes.h"
#include "base/diag.h"
#include "base/options.h"

namespace vesk {

namespace {

// The DWARF 5 sections that are a sequence of tables, each opening with a
// unit length and a 16-bit version.  DWARF libraries read their table
// headers while they load the compilation units, and some damaged lengths
// have sent them into a double free instead of an error; so their framing
// is checked here first, and a damaged one is refused naming the section.
const char *const kTableSections[] = {".debug_rnglists", ".debug_loclists", ".debug_addr",
                                      ".debug_str_offsets"};

// The sections whose tables say, behind the version, the size of an address
// and of a segment selector; the range and location lists then count the
// offsets that follow the header.
bool has_address_size(const char *name) { return std::strcmp(name, ".debug_str_offsets") != 0; }
bool has_offset_count(const char *name) {
  return std::strcmp(name, ".debug_rnglists") == 0 || std::strcmp(name, ".debug_loclists") == 0;
}

void check_tables(const char *name, const uint8_t *p, uint64_t size) {
  uint64_t off = 0;
  while (off < size) {
    if (size - off < 4)
      error("%s: section %s is damaged: a table header at %#llx runs past its end", option.program, name,
            (unsigned long long)off);
    uint64_t length = load32(p + off);
    uint64_t header = 4;
    if (length == 0xffffffff) {
      if (size - off < 12)
        error("%s: section %s is damaged: a table header at %#llx runs past its end", option.program, name,
              (unsigned long long)off);
      length = load64(p + off + 4);
      header = 12;
    } else if (length >= 0xfffffff0) {
      error("%s: section %s is damaged: the table at %#llx has a reserved length %#llx", option.program, name,
            (unsigned long long)off, (unsigned long long)length);
    }
    if (length > size - off - header || length < 2)
      error("%s: section %s is damaged: the table at %#llx is %#llx bytes long, beyond the section", option.program,
            name, (unsigned long long)off, (unsigned long long)length);
    uint16_t version = load16(p + off + header);
    if (version != 5)
      error("%s: section %s is damaged: the table at %#llx has version %u", option.program, name,
            (unsigned long long)off, unsigned(version));
    // An address size the library does not expect also sends it into a
    // double free.
    uint64_t body = off + header + 2;
    if (has_address_size(name)) {
      if (length < 4 || (p[body] != 4 && p[body] != 8) || p[body + 1] != 0)
        error("%s: section %s is damaged: the table at %#llx gives %u-byte addresses and %u-byte segment selectors",
              option.program, name, (unsigned long long)off, length < 4 ? 0u : unsigned(p[body]),
              length < 4 ? 0u : unsigned(p[body + 1]));
    }
    if (has_offset_count(name)) {
      uint64_t offset_size = header == 12 ? 8 : 4;
      uint64_t count = length < 8 ? ~uint64_t(0) : load32(p + body + 2);
      if (count > (length - 8) / offset_size)
        error("%s: section %s is damaged: the offsets of the table at %#llx run past its end", option.program, name,
              (unsigned long long)off);
    }
    off += header + length;
  }
}

} // namespace

void check_dwarf_table_sections(Elf *elf) {
  size_t shstrndx;
  if (elf_getshdrstrndx(elf, &shstrndx) != 0)
    return;
  for (Elf_Scn *scn = elf_nextscn(elf, nullptr); scn != nullptr; scn = elf_nextscn(elf, scn)) {
    GElf_Shdr sh;
    if (gelf_getshdr(scn, &sh) == nullptr || sh.sh_type == SHT_NOBITS)
      continue;
    const char *name = elf_strptr(elf, shstrndx, sh.sh_name);
    if (name == nullptr)
      continue;
    // The DWARF library unpacks a compressed section in the input's image,
    // headers and all, and the output, made from that image, would come
    // out torn.
    if ((sh.sh_flags & SHF_COMPRESSED) && std::strncmp(name, ".debug_", 7) == 0)
      error("%s: section %s is compressed; vesk cannot update compressed DWARF", option.program, name);
    for (const char *table : kTableSections) {
      if (std::strcmp(name, table) != 0)
        continue;
      Elf_Data *d = elf_getdata(scn, nullptr);
      if (d == nullptr || (d->d_buf == nullptr && d->d_size != 0))
        error("%s: cannot read the contents of section %s", option.program, name);
      if (d->d_type != ELF_T_BYTE)
        continue; // not raw bytes: not a table section as written by a compiler
      check_tables(name, static_cast<const uint8_t *>(d->d_buf), d->d_size);
    }
  }
}

} // namespace vesk
