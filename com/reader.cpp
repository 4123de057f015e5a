#include "com/reader.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/bin.h"
#include "base/bytes.h"
#include "base/diag.h"
#include "base/elf_class.h"
#include "com/dwarf.h"
#include "com/elf.h"
#include "com/mdebug.h"
#include "base/options.h"

namespace vesk {

namespace {

constexpr uint32_t SHT_MIPS_XLATE_TYPE = 0x70000024;
constexpr uint32_t DT_MIPS_AUX_DYNAMIC_TAG = 0x70000031;

// The section-name table, checked once so that every name lookup stays
// inside it.
struct NameTable {
  const char *buf = nullptr;
  size_t size = 0;

  const char *name(uint32_t off) const {
    if (buf == nullptr || off >= size || std::memchr(buf + off, '\0', size - off) == nullptr)
      error("%s: a section name lies outside the section name table", option.program);
    return buf + off;
  }
};

// The first data buffer of a section whose contents are read as raw
// big-endian bytes; it must hold at least `need` bytes.
const uint8_t *raw_contents(Elf_Scn *scn, const char *name, size_t need, size_t *size = nullptr) {
  Elf_Data *d = elf_getdata(scn, nullptr);
  if (d == nullptr || (d->d_buf == nullptr && d->d_size != 0))
    error("%s: cannot read the contents of section %s", option.program, name);
  if (d->d_type != ELF_T_BYTE)
    error("%s: section %s is not a plain byte section", option.program, name);
  if (d->d_size < need)
    error("%s: section %s is truncated (%zu bytes, %zu needed)", option.program, name, d->d_size, need);
  if (size)
    *size = d->d_size;
  return static_cast<const uint8_t *>(d->d_buf);
}

template <class C> void read_dynamic(Elf_Scn *scn) {
  Elf_Data *d = elf_getdata(scn, nullptr);
  if (d == nullptr || d->d_type != ELF_T_DYN || (d->d_buf == nullptr && d->d_size != 0))
    error("%s: cannot read the dynamic section", option.program);
  const auto *dyn = static_cast<const typename C::Dyn *>(d->d_buf);
  size_t n = d->d_size / sizeof(typename C::Dyn);
  for (size_t i = 0; i < n && dyn[i].d_tag != DT_NULL; ++i) {
    uint32_t v = uint32_t(dyn[i].d_un.d_val);
    switch (uint64_t(dyn[i].d_tag)) {
    case DT_PLTGOT: bin.pltgot = v; break;
    case DT_STRTAB: bin.strtab_addr = v; break;
    case DT_MIPS_TIME_STAMP: bin.time_stamp = v; break;
    case DT_MIPS_LOCAL_GOTNO: bin.local_gotno = v; break;
    case DT_MIPS_GOTSYM: bin.gotsym = v; break;
    case 0x70000026: bin.local_gotidx = v; break; // DT_MIPS_LOCAL_GOTIDX
    case DT_MIPS_AUX_DYNAMIC_TAG: error("%s: a multi-GOT executable is not supported", option.program);
    default: break;
    }
  }
}

// The widened header of section scn.
bool get_shdr64(Elf_Scn *scn, Elf64_Shdr *out) {
  if (bin.is_elf32) {
    const Elf32_Shdr *h = elf32_getshdr(scn);
    if (h == nullptr)
      return false;
    copy_section_header_to64(h, out);
  } else {
    const Elf64_Shdr *h = elf64_getshdr(scn);
    if (h == nullptr)
      return false;
    *out = *h;
  }
  return true;
}

void visit_section(Elf_Scn *scn, const Elf64_Shdr &sh, const char *name) {
  if (sh.sh_flags & SHF_EXECINSTR) {
    if (sh.sh_addr < bin.exec_lo)
      bin.exec_lo = sh.sh_addr;
    if (sh.sh_addr + sh.sh_size > bin.exec_hi)
      bin.exec_hi = sh.sh_addr + sh.sh_size;
  }
  if (!std::strcmp(name, ".text")) {
    // Instructions are words: text_map and the branch fix-up count them from text_lo.
    if (sh.sh_addr % 4 != 0)
      error("%s: section .text starts at %#llx, not on a word boundary", option.program,
            (unsigned long long)sh.sh_addr);
    bin.text_lo = sh.sh_addr;
    bin.text_hi = sh.sh_addr + sh.sh_size;
    bin.text_words = (uint32_t(bin.text_hi) - uint32_t(bin.text_lo)) >> 2;
    bin.text_buf = raw_contents(scn, name, size_t(bin.text_words) * 4);
  } else if (!std::strcmp(name, ".MIPS.stubs")) {
    bin.stubs_lo = sh.sh_addr;
  } else if (!std::strcmp(name, ".dynamic")) {
    if (bin.is_elf32)
      read_dynamic<Elf32Class>(scn);
    else
      read_dynamic<Elf64Class>(scn);
  } else if (!std::strcmp(name, ".mdebug")) {
    bin.debug_kind = DEBUG_MDEBUG;
  } else if (!std::strcmp(name, ".debug_info")) {
    bin.debug_kind = DEBUG_DWARF;
  } else if (!std::strcmp(name, ".reginfo")) {
    bin.gp_value = load32(raw_contents(scn, name, 24) + 20);
    bin.gp_full = bin.gp_value;
  } else if (!std::strcmp(name, ".MIPS.options")) {
    size_t size;
    const uint8_t *p = raw_contents(scn, name, 0, &size);
    if (size > 0 && p[0] == 1 /* ODK_REGINFO */) {
      if (bin.gp_value != 0)
        error("%s: gp_value set twice", option.program);
      if (size < 40)
        error("%s: section .MIPS.options is truncated (%zu bytes, 40 needed)", option.program, size);
      bin.gp_value = load32(p + 36);
      bin.gp_full = bin.is_elf32 ? bin.gp_value : load64(p + 32);
    }
  } else if (!std::strcmp(name, ".got")) {
    size_t size;
    bin.got_buf = raw_contents(scn, name, 0, &size);
    bin.got_count = uint32_t(size / 4);
  } else if (!std::strcmp(name, ".dynsym")) {
    Elf_Data *d = elf_getdata(scn, nullptr);
    if (d == nullptr || (d->d_buf == nullptr && d->d_size != 0))
      error("%s: cannot read the contents of section %s", option.program, name);
    bin.dynsym_buf = d->d_buf;
  } else if (sh.sh_type == SHT_MIPS_XLATE_TYPE) {
    bin.has_xlate = true;
    bin.in_xlate = raw_contents(scn, name, 0, &bin.in_xlate_size);
  }
}

} // namespace

Elf64_Ehdr copy_elf_header_to64(const Elf32_Ehdr *h) {
  Elf64_Ehdr wide{};
  Elf64_Ehdr *w = &wide;
  std::memcpy(w->e_ident, h->e_ident, EI_NIDENT);
  w->e_type = h->e_type;
  w->e_machine = h->e_machine;
  w->e_version = h->e_version;
  w->e_entry = h->e_entry;
  w->e_phoff = h->e_phoff;
  w->e_shoff = h->e_shoff;
  w->e_flags = h->e_flags;
  w->e_ehsize = h->e_ehsize;
  w->e_phentsize = h->e_phentsize;
  w->e_phnum = h->e_phnum;
  w->e_shentsize = h->e_shentsize;
  w->e_shnum = h->e_shnum;
  w->e_shstrndx = h->e_shstrndx;
  return wide;
}

void copy_section_header_to64(const Elf32_Shdr *h, Elf64_Shdr *w) {
  w->sh_name = h->sh_name;
  w->sh_type = h->sh_type;
  w->sh_flags = h->sh_flags;
  w->sh_addr = h->sh_addr;
  w->sh_offset = h->sh_offset;
  w->sh_size = h->sh_size;
  w->sh_link = h->sh_link;
  w->sh_info = h->sh_info;
  w->sh_addralign = h->sh_addralign;
  w->sh_entsize = h->sh_entsize;
}

void read_orig_binary() {
  read_input();
  debug_interface();
}

void read_input() {
  open_input();
  parse_input();
}

namespace {

// The output is the input with its sections patched in place, so a section
// whose contents lie outside the file, or over the ELF header or a header
// table, would make the output grow without bound or overwrite the headers.
void check_section_place(const Elf64_Shdr &sh, const char *name, uint64_t file_size) {
  if (sh.sh_type == SHT_NULL || sh.sh_type == SHT_NOBITS || sh.sh_size == 0)
    return;
  const char *n = name ? name : "(unnamed)";
  if (sh.sh_offset > file_size || sh.sh_size > file_size - sh.sh_offset)
    error("%s: section %s (%llu bytes at file offset %#llx) lies outside the file of %llu bytes", option.program, n,
          (unsigned long long)sh.sh_size, (unsigned long long)sh.sh_offset, (unsigned long long)file_size);
  const Elf64_Ehdr &eh = bin.in_ehdr;
  uint64_t ehsize = bin.is_elf32 ? sizeof(Elf32_Ehdr) : sizeof(Elf64_Ehdr);
  uint64_t phsize = uint64_t(eh.e_phnum) * (bin.is_elf32 ? sizeof(Elf32_Phdr) : sizeof(Elf64_Phdr));
  uint64_t shsize = uint64_t(eh.e_shnum) * (bin.is_elf32 ? sizeof(Elf32_Shdr) : sizeof(Elf64_Shdr));
  auto overlaps = [&sh](uint64_t lo, uint64_t size) {
    return size != 0 && sh.sh_offset < lo + size && lo < sh.sh_offset + sh.sh_size;
  };
  if (overlaps(0, ehsize) || overlaps(eh.e_phoff, phsize) || overlaps(eh.e_shoff, shsize))
    error("%s: section %s (%llu bytes at file offset %#llx) overlaps the ELF header or a header table",
          option.program, n, (unsigned long long)sh.sh_size, (unsigned long long)sh.sh_offset);
}

// The loader finds the GOT and its parts through .dynamic alone; the
// repair reads them through the sections.  Where the two disagree, one of
// them would read past the other's table.
void check_dynamic_against_sections() {
  GElf_Shdr sh;
  Elf_Scn *got = find_section_by_name(bin.in_elf, ".got");
  if (got != nullptr && gelf_getshdr(got, &sh) != nullptr) {
    uint32_t entries = bin.got_count / (bin.is_elf32 ? 1 : 2);
    if (bin.pltgot != 0 && bin.pltgot != uint32_t(sh.sh_addr))
      error("%s: .dynamic puts the GOT at %#x, but .got lies at %#llx", option.program, bin.pltgot,
            (unsigned long long)sh.sh_addr);
    if (bin.local_gotno > entries)
      error("%s: .dynamic gives %u local GOT entries, but .got holds %u", option.program, bin.local_gotno, entries);
  }
  Elf_Scn *dynsym = find_section_by_name(bin.in_elf, ".dynsym");
  if (dynsym != nullptr && gelf_getshdr(dynsym, &sh) != nullptr) {
    uint64_t symbols = sh.sh_size / (bin.is_elf32 ? sizeof(Elf32_Sym) : sizeof(Elf64_Sym));
    if (bin.gotsym > symbols)
      error("%s: .dynamic gives %u as the first GOT symbol, but .dynsym holds %llu", option.program, bin.gotsym,
            (unsigned long long)symbols);
  }
}

} // namespace

void open_input() {
  // Without O_NONBLOCK a FIFO would wait for a writer before it could be
  // refused.
  bin.in_fd = open(option.program, O_RDONLY | O_NONBLOCK);
  if (bin.in_fd < 0)
    sysfatal("cannot open %s", option.program);
  struct stat in_st;
  if (fstat(bin.in_fd, &in_st) != 0)
    sysfatal("cannot read %s", option.program);
  if (!S_ISREG(in_st.st_mode))
    error("%s is not a regular file", option.program);
}

void parse_input() {
  elf_version(EV_CURRENT);
  bin.in_elf = elf_begin(bin.in_fd, ELF_C_READ_MMAP, nullptr);
  if (bin.in_elf == nullptr)
    error("cannot open %s", option.program);
  switch (elf_kind(bin.in_elf)) {
  case ELF_K_NONE: error("unknown object format in %s", option.program);
  case ELF_K_COFF: error("coff object not handled %s", option.program);
  default: break;
  }

  if (Elf64_Ehdr *h64 = elf64_getehdr(bin.in_elf)) {
    bin.is_elf32 = 0;
    bin.in_ehdr = *h64;
  } else if (Elf32_Ehdr *h32 = elf32_getehdr(bin.in_elf)) {
    bin.is_elf32 = 1;
    bin.in_ehdr = copy_elf_header_to64(h32);
  } else {
    error("%s: unknown binary", option.program);
  }
  elf_errno(); // forget the failed class probe

  // libelf reads any machine, type and entry sizes; what it would then
  // hand out is no MIPS executable, or reads the headers with the wrong
  // stride.
  const Elf64_Ehdr &eh = bin.in_ehdr;
  // Every section is read and written as big-endian bytes.
  if (eh.e_ident[EI_DATA] != ELFDATA2MSB)
    error("%s is not a MIPS executable vesk rewrites: its data encoding is %u, not big-endian", option.program,
          unsigned(eh.e_ident[EI_DATA]));
  if (eh.e_machine != EM_MIPS)
    error("%s is not a MIPS executable (ELF machine %u)", option.program, unsigned(eh.e_machine));
  if (eh.e_type != ET_EXEC && eh.e_type != ET_DYN)
    error("%s is not an executable (ELF type %u)", option.program, unsigned(eh.e_type));
  if (eh.e_version != EV_CURRENT)
    error("%s: ELF version %u, not %u", option.program, unsigned(eh.e_version), unsigned(EV_CURRENT));
  size_t shdr_size = bin.is_elf32 ? sizeof(Elf32_Shdr) : sizeof(Elf64_Shdr);
  size_t phdr_size = bin.is_elf32 ? sizeof(Elf32_Phdr) : sizeof(Elf64_Phdr);
  if ((eh.e_shoff != 0 && eh.e_shentsize != shdr_size) || (eh.e_phoff != 0 && eh.e_phentsize != phdr_size))
    error("%s: header table entries of %u and %u bytes, not %zu and %zu", option.program, unsigned(eh.e_phentsize),
          unsigned(eh.e_shentsize), phdr_size, shdr_size);

  bin.is_n32 = (bin.in_ehdr.e_flags & EF_MIPS_ABI2) ? 1 : 0;
  bin.pic_kind = (bin.in_ehdr.e_flags & EF_MIPS_PIC) ? 0 : (bin.in_ehdr.e_flags & EF_MIPS_CPIC) ? 1 : 2;

  size_t shstrndx;
  if (elf_getshdrstrndx(bin.in_elf, &shstrndx) != 0)
    error("%s: cannot find the section name table", option.program);
  // libelf hands out section headers and contents only where they lie
  // inside the file; a truncated or damaged file is refused here rather
  // than read as one without sections.
  size_t shnum;
  if (elf_getshdrnum(bin.in_elf, &shnum) != 0)
    error("%s: cannot read the section headers: %s", option.program, elf_errmsg(-1));
  // libelf quietly reports no sections at all when the table lies (partly)
  // outside the file.
  struct stat st;
  if (fstat(bin.in_fd, &st) != 0)
    sysfatal("cannot read %s", option.program);
  uint64_t file_size = uint64_t(st.st_size);
  uint64_t shentsize = bin.is_elf32 ? sizeof(Elf32_Shdr) : sizeof(Elf64_Shdr);
  if (bin.in_ehdr.e_shoff != 0 &&
      (shnum == 0 || bin.in_ehdr.e_shoff > file_size || (file_size - bin.in_ehdr.e_shoff) / shentsize < shnum))
    error("%s: the section header table lies outside the file", option.program);
  NameTable names;
  if (shnum > 0) {
    Elf_Scn *s = elf_getscn(bin.in_elf, shstrndx);
    Elf_Data *d = s ? elf_getdata(s, nullptr) : nullptr;
    if (d == nullptr || (d->d_buf == nullptr && d->d_size != 0))
      error("%s: cannot read the section name table: %s", option.program, elf_errmsg(-1));
    names.buf = static_cast<const char *>(d->d_buf);
    names.size = d->d_buf ? d->d_size : 0;
  }

  bin.stubs_lo = ~uint64_t(0);
  bin.exec_lo = ~uint64_t(0);
  bin.exec_hi = 0;
  bin.gp_value = 0;
  bin.gp_full = 0;
  bin.entry = bin.in_ehdr.e_entry;

  for (size_t i = 0; i < shnum; ++i) {
    Elf_Scn *scn = elf_getscn(bin.in_elf, i);
    Elf64_Shdr sh;
    if (scn == nullptr || !get_shdr64(scn, &sh))
      error("%s: cannot read the header of section %zu: %s", option.program, i, elf_errmsg(-1));
    check_section_place(sh, names.name(sh.sh_name), file_size);
    visit_section(scn, sh, names.name(sh.sh_name));
  }

  check_dynamic_against_sections();

  // An earlier run's DWARF output is read through its table, and the new
  // table is composed with it.  Nothing else can be: vesk writes no table
  // for mdebug, and a table it did not write may describe anything.
  if (bin.has_xlate && bin.debug_kind != DEBUG_DWARF)
    error("%s: binary generated by vesk is not supported", option.program);

  if (option.debug) {
    dump(".text[%#llx - %#llx] text[%#llx - %#llx]", (unsigned long long)bin.text_lo,
         (unsigned long long)bin.text_hi, (unsigned long long)bin.exec_lo, (unsigned long long)bin.exec_hi);
    dump("gp_value %#llx", (unsigned long long)bin.gp_value);
  }
  if (bin.text_lo < bin.stubs_lo)
    bin.stubs_lo = bin.text_lo;
}

void debug_interface(const std::function<void()> &beside) {
  if (bin.debug_kind == DEBUG_DWARF) {
    dwarf_interface(bin.in_elf, beside);
  } else if (bin.debug_kind == DEBUG_MDEBUG) {
    if (beside)
      beside();
    mdebug_interface();
  } else {
    error("%s stripped. No debug section", option.program);
  }
}

} // namespace vesk
