// The runtime procedure table of an o32 executable (40-byte descriptors
// sorted by the procedure address in their first word) and the repairs made
// in the written output file: the table when it is only reachable through
// its program header, and the mdebug line-number table.
#include "com/rpt.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "base/bin.h"
#include "base/bytes.h"
#include "base/diag.h"
#include "base/file_io.h"
#include "base/options.h"
#include "com/elf.h"

namespace vesk {

namespace {

constexpr uint32_t PT_MIPS_RTPROC_TYPE = 0x70000001;
constexpr uint32_t RHF_NOTPOT_FLAG = 0x2; // .hash size is not a power of two
constexpr size_t RPT_ENTRY_SIZE = 40;

// The contents of the allocated section holding addr, and how many bytes
// of them lie from addr on.  (The string table is reached by its address,
// and names in it must be read without running off its end.)
const char *section_bytes_at(Elf *elf, uint32_t addr, size_t *avail) {
  for (Elf_Scn *scn = elf_getscn(elf, 0); scn != nullptr; scn = elf_nextscn(elf, scn)) {
    const Elf32_Shdr *sh = elf32_getshdr(scn);
    if (sh == nullptr || (sh->sh_flags & SHF_ALLOC) == 0 || addr < sh->sh_addr ||
        addr - sh->sh_addr >= sh->sh_size)
      continue;
    Elf_Data *d = elf_getdata(scn, nullptr);
    size_t off = addr - sh->sh_addr;
    if (d == nullptr || d->d_buf == nullptr || off >= d->d_size)
      return nullptr;
    *avail = d->d_size - off;
    return static_cast<const char *>(d->d_buf) + off;
  }
  return nullptr;
}

// Word i of a .hash section (libelf hands it over in host order).
uint32_t hash_word(const Elf_Data *d, size_t i) {
  uint32_t v;
  std::memcpy(&v, static_cast<const uint8_t *>(d->d_buf) + i * 4, 4);
  return v;
}

// True when the string at strtab + off is name, read within avail bytes.
bool name_matches(const char *strtab, size_t avail, uint32_t off, const char *name) {
  if (off >= avail)
    error("%s: a dynamic symbol name lies outside the dynamic string table", option.program);
  size_t len = std::strlen(name);
  size_t room = avail - off;
  return len < room && std::memcmp(strtab + off, name, len + 1) == 0;
}

void repoint_descriptor(uint8_t *desc) {
  uint32_t a = load32(desc);
  if (a != 0 && in_text(a))
    store32(desc, uint32_t(text_map_of(a)));
}

void repoint_and_sort(uint8_t *table, size_t count) {
  for (size_t i = 0; i < count; ++i)
    repoint_descriptor(table + i * RPT_ENTRY_SIZE);
  std::qsort(table, count, RPT_ENTRY_SIZE, cmp_adr);
}

} // namespace

uint64_t dynsym_get_value(Elf *elf, const char *name) {
  Elf_Data *syms = find_section_data_by_name(elf, ".dynsym");
  Elf_Data *hash = find_section_data_by_name(elf, ".hash");
  if (syms == nullptr || hash == nullptr || syms->d_buf == nullptr || hash->d_buf == nullptr)
    return 0;
  size_t hash_words = hash->d_size / 4;
  if (hash_words < 2)
    error("%s: the .hash section is too short", option.program);
  uint32_t nbucket = hash_word(hash, 0);
  uint32_t nchain = hash_word(hash, 1);
  if (2 + uint64_t(nbucket) + nchain > hash_words)
    error("%s: the .hash section is truncated (%u buckets, %u chains, %zu words)", option.program, nbucket, nchain,
          hash_words);
  if (nbucket == 0)
    return 0;
  size_t nsyms = syms->d_size / sizeof(Elf32_Sym);

  size_t str_avail = 0;
  const char *strtab = section_bytes_at(elf, bin.strtab_addr, &str_avail);
  if (strtab == nullptr)
    return 0;

  unsigned long h = elf_hash(name);
  uint32_t bucket = (bin.mips_flags & RHF_NOTPOT_FLAG) ? uint32_t(h % nbucket) : uint32_t(h & (nbucket - 1));
  uint32_t index = hash_word(hash, 2 + bucket);
  // A chain visits each symbol at most once; more steps mean a loop.
  for (uint32_t steps = 0; index != 0; ++steps) {
    if (index >= nchain || index >= nsyms || steps >= nchain)
      error("%s: the .hash section is corrupt (symbol index %u, %u chains, %zu symbols)", option.program, index,
            nchain, nsyms);
    Elf32_Sym sym;
    std::memcpy(&sym, static_cast<const uint8_t *>(syms->d_buf) + index * sizeof(Elf32_Sym), sizeof sym);
    if (name_matches(strtab, str_avail, sym.st_name, name))
      return sym.st_value;
    index = hash_word(hash, 2 + uint64_t(nbucket) + index);
  }
  return 0;
}

void update_rpt() {
  uint32_t addr = uint32_t(dynsym_get_value(bin.out_elf, "_procedure_table"));
  uint32_t count = uint32_t(dynsym_get_value(bin.out_elf, "_procedure_table_size"));
  if (count > UINT32_MAX / RPT_ENTRY_SIZE)
    error("%s: _procedure_table_size %u is too large", option.program, count);
  if (addr == 0) {
    // Without the symbol the table is found through its program header
    // and repaired in the written file.
    const Elf32_Ehdr *eh = elf32_getehdr(bin.in_elf);
    const Elf32_Phdr *ph = elf32_getphdr(bin.in_elf);
    if (eh == nullptr || ph == nullptr)
      return;
    for (size_t i = 0; i < eh->e_phnum; ++i) {
      if (ph[i].p_type != PT_MIPS_RTPROC_TYPE)
        continue;
      if (ph[i].p_offset == 0)
        return;
      bin.rpt_in_file = 1;
      bin.rpt_offset = ph[i].p_offset;
      bin.rpt_size = count * uint32_t(RPT_ENTRY_SIZE);
      return;
    }
    return;
  }
  if (count == 0)
    return;
  uint8_t *table = get_textdata_range(bin.out_elf, addr, size_t(count) * RPT_ENTRY_SIZE);
  if (table == nullptr)
    error("the runtime procedure table at %#x (%u entries) does not lie inside a section of %s", addr, count,
          option.program);
  repoint_and_sort(table, count);
}

int cmp_adr(const void *a, const void *b) {
  uint32_t x = load32(a);
  uint32_t y = load32(b);
  return x < y ? -1 : x > y ? 1 : 0;
}

void post_process_rpt(int in_fd, int out_fd) {
  if (bin.rpt_in_file == 0 || bin.rpt_size == 0)
    return;
  auto *buf = static_cast<uint8_t *>(std::malloc(bin.rpt_size));
  read_at(in_fd, bin.rpt_offset, buf, bin.rpt_size, "runtime procedure table", option.program);
  repoint_and_sort(buf, bin.rpt_size / RPT_ENTRY_SIZE);
  write_at(out_fd, bin.rpt_offset, buf, bin.rpt_size, "runtime procedure table", option.output);
  std::free(buf);
}

void post_process_line(int in_fd, int out_fd) {
  if (bin.line_size == 0)
    return;
  auto *buf = static_cast<uint8_t *>(std::malloc(bin.line_size));
  read_at(in_fd, bin.line_offset, buf, bin.line_size, "mdebug line-number table", option.program);
  write_at(out_fd, bin.line_offset, buf, bin.line_size, "mdebug line-number table", option.output);
  std::free(buf);
}

} // namespace vesk
