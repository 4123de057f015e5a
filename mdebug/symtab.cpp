#include "mdebug/symtab.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <gelf.h>
#include <libelf.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/diag.h"
#include "base/elf_class.h"

namespace vesk {

namespace {

struct SectionPlace {
  bool found = false;
  uint64_t offset = 0;
  uint64_t size = 0;
  bool nobits = false;
};

// The file range of the section named ".mdebug".
template <class C> SectionPlace find_mdebug_section(Elf *e) {
  SectionPlace place;
  size_t shstrndx;
  if (elf_getshdrstrndx(e, &shstrndx) != 0)
    return place;
  for (Elf_Scn *scn = elf_nextscn(e, nullptr); scn != nullptr; scn = elf_nextscn(e, scn)) {
    const typename C::Shdr *sh = C::getshdr(scn);
    if (sh == nullptr)
      continue;
    const char *name = elf_strptr(e, shstrndx, sh->sh_name);
    if (name == nullptr || std::strcmp(name, ".mdebug") != 0)
      continue;
    place.found = true;
    place.offset = sh->sh_offset;
    place.size = sh->sh_size;
    place.nobits = sh->sh_type == SHT_NOBITS;
    return place;
  }
  return place;
}

// Reads bytes [off, off + size) of the file into out.
void read_file_range(int fd, const char *path, uint64_t off, uint64_t size, std::vector<uint8_t> &out) {
  struct stat st;
  if (fstat(fd, &st) != 0)
    sysfatal("cannot stat %s", path);
  uint64_t file_size = uint64_t(st.st_size);
  if (off > file_size || size > file_size - off)
    error("%s: the .mdebug section (file offset %#llx, %llu bytes) lies beyond the end of the file (%llu bytes)",
          path, (unsigned long long)off, (unsigned long long)size, (unsigned long long)file_size);
  out.resize(size);
  uint64_t done = 0;
  while (done < size) {
    ssize_t n = pread(fd, out.data() + done, size - done, off_t(off + done));
    if (n < 0)
      sysfatal("cannot read %s", path);
    if (n == 0)
      error("%s: the file ended inside the .mdebug section", path);
    done += uint64_t(n);
  }
}

// The start of a table of count entries of entsize bytes at file offset
// off, after checking that all of it lies inside the section.  An empty
// table has no place (its offset is commonly 0) and gives null.
const uint8_t *table_in_section(const MdebugHandle *h, const char *what, uint32_t count, uint32_t off,
                                size_t entsize) {
  if (count == 0)
    return nullptr;
  uint64_t size = h->size;
  uint64_t bytes = uint64_t(count) * entsize;
  uint64_t rel = uint64_t(off) - h->file_off;
  if (off < h->file_off || rel > size || bytes > size - rel)
    error("%s: the mdebug %s (%u entries at file offset %#x) lie outside the .mdebug section "
          "(file offset %#llx, %llu bytes)",
          h->name.c_str(), what, count, off, (unsigned long long)h->file_off, (unsigned long long)size);
  return h->bytes + rel;
}

// The NUL-terminated string at offset off of a string table of max bytes.
const char *string_in_table(const MdebugHandle *h, const char *table, uint32_t max, uint64_t off,
                            const char *what, uint64_t which) {
  if (off >= max)
    error("%s: the name of mdebug %s %llu (string %#llx) lies outside its string table (%u bytes)",
          h->name.c_str(), what, (unsigned long long)which, (unsigned long long)off, max);
  if (std::memchr(table + off, '\0', max - off) == nullptr)
    error("%s: the name of mdebug %s %llu (string %#llx) runs off the end of its string table",
          h->name.c_str(), what, (unsigned long long)which, (unsigned long long)off);
  return table + off;
}

bool has_local_symbols(const Fdr &f) { return int32_t(uint32_t(f.csym)) > 0; }

} // namespace

std::unique_ptr<MdebugHandle> mdebug_open_elf(Elf *e, int fd, const char *path) {
  SectionPlace place;
  switch (gelf_getclass(e)) {
  case ELFCLASS32: place = find_mdebug_section<Elf32Class>(e); break;
  case ELFCLASS64: place = find_mdebug_section<Elf64Class>(e); break;
  default: break;
  }
  elf_errno();
  auto h = std::make_unique<MdebugHandle>();
  h->name = path;
  h->has_section = place.found;
  h->file_off = place.offset;
  if (!place.found || place.nobits)
    return h;
  size_t image_size = 0;
  const char *image = elf_rawfile(e, &image_size);
  elf_errno();
  if (image != nullptr && place.offset <= image_size && place.size <= image_size - place.offset) {
    h->bytes = reinterpret_cast<const uint8_t *>(image) + place.offset, h->size = size_t(place.size);
    return h;
  }
  read_file_range(fd, path, place.offset, place.size, h->section);
  h->bytes = h->section.data(), h->size = h->section.size();
  return h;
}

std::unique_ptr<MdebugHandle> mdebug_open_image(const uint8_t *bytes, size_t size, uint64_t file_off,
                                                const char *name) {
  auto h = std::make_unique<MdebugHandle>();
  h->name = name;
  h->has_section = true;
  h->bytes = bytes, h->size = size;
  h->file_off = file_off;
  return h;
}

MdebugSymtab *mdebug_symtab(MdebugHandle *h) {
  if (h == nullptr || !h->has_section)
    return nullptr;
  if (h->st.hdr == nullptr) {
    if (h->size < sizeof(Hdrr))
      error("%s: the .mdebug section of %zu bytes is too small for its symbolic header (%zu bytes)",
            h->name.c_str(), h->size, sizeof(Hdrr));
    const Hdrr *hdr = record_at<Hdrr>(h->bytes, 0);
    if (hdr->magic == MDEBUG_MAGIC_64)
      error("%s: the .mdebug section holds a 64-bit symbolic table (magic %#x); only the 32-bit form "
            "(magic %#x) is handled",
            h->name.c_str(), unsigned(hdr->magic), unsigned(MDEBUG_MAGIC));
    if (hdr->magic != MDEBUG_MAGIC)
      error("%s: the .mdebug section has magic %#x, not the symbolic header magic %#x", h->name.c_str(),
            unsigned(hdr->magic), unsigned(MDEBUG_MAGIC));
    h->st.hdr = hdr;
  }
  return &h->st;
}

void mdebug_read_tables(MdebugHandle *h) {
  MdebugSymtab *st = mdebug_symtab(h);
  if (st == nullptr)
    error("%s: no .mdebug section", h ? h->name.c_str() : "(none)");
  if (st->loaded)
    return;
  const Hdrr &hdr = *st->hdr;
  st->ifd_max = hdr.ifdMax;
  st->fdrs = reinterpret_cast<const Fdr *>(
      table_in_section(h, "file descriptors", hdr.ifdMax, hdr.cbFdOffset, sizeof(Fdr)));
  st->ipd_max = hdr.ipdMax;
  st->pdrs = reinterpret_cast<const Pdr *>(
      table_in_section(h, "procedure descriptors", hdr.ipdMax, hdr.cbPdOffset, sizeof(Pdr)));
  st->isym_max = hdr.isymMax;
  st->syms = reinterpret_cast<const Symr *>(
      table_in_section(h, "local symbols", hdr.isymMax, hdr.cbSymOffset, sizeof(Symr)));
  st->iss_max = hdr.issMax;
  st->ss = reinterpret_cast<const char *>(table_in_section(h, "local strings", hdr.issMax, hdr.cbSsOffset, 1));
  st->iext_max = hdr.iextMax;
  st->exts = reinterpret_cast<const Extr *>(
      table_in_section(h, "external symbols", hdr.iextMax, hdr.cbExtOffset, sizeof(Extr)));
  st->iss_ext_max = hdr.issExtMax;
  st->ss_ext =
      reinterpret_cast<const char *>(table_in_section(h, "external strings", hdr.issExtMax, hdr.cbSsExtOffset, 1));

  h->files_by_isym.clear();
  for (uint32_t f = 0; f < st->ifd_max; ++f)
    if (has_local_symbols(st->fdrs[f]))
      h->files_by_isym.push_back(f);
  std::stable_sort(h->files_by_isym.begin(), h->files_by_isym.end(), [st](uint32_t a, uint32_t b) {
    return uint32_t(st->fdrs[a].isymBase) < uint32_t(st->fdrs[b].isymBase);
  });
  st->loaded = true;
}

bool mdebug_read_symbol(MdebugHandle *h, uint64_t index, MdebugSymbol *out) {
  const MdebugSymtab &st = h->st;
  if (!st.loaded || index >= st.isym_max)
    return false;
  // The owner is the file with the greatest isymBase not above index,
  // provided its symbols reach that far.
  auto it = std::upper_bound(h->files_by_isym.begin(), h->files_by_isym.end(), index,
                             [&st](uint64_t i, uint32_t f) { return i < uint32_t(st.fdrs[f].isymBase); });
  if (it == h->files_by_isym.begin())
    return false;
  uint32_t owner = *(it - 1);
  const Fdr &f = st.fdrs[owner];
  if (index >= uint64_t(uint32_t(f.isymBase)) + uint32_t(f.csym))
    return false;
  std::memcpy(&out->rec, &st.syms[index], sizeof(Symr));
  out->index = index;
  out->ifd = owner;
  return true;
}

const char *mdebug_symbol_name(MdebugHandle *h, const MdebugSymbol &sym) {
  const MdebugSymtab &st = h->st;
  if (uint32_t(sym.rec.iss) == MDEBUG_NIL || st.ss == nullptr || sym.ifd >= st.ifd_max)
    return nullptr;
  uint64_t off = uint64_t(uint32_t(st.fdrs[sym.ifd].issBase)) + uint32_t(sym.rec.iss);
  return string_in_table(h, st.ss, st.iss_max, off, "symbol", sym.index);
}

const char *mdebug_file_name(MdebugHandle *h, uint32_t ifd) {
  const MdebugSymtab &st = h->st;
  if (ifd >= st.ifd_max || st.ss == nullptr)
    return nullptr;
  const Fdr &f = st.fdrs[ifd];
  if (uint32_t(f.rss) == MDEBUG_NIL)
    return nullptr;
  uint64_t off = uint64_t(uint32_t(f.issBase)) + uint32_t(f.rss);
  return string_in_table(h, st.ss, st.iss_max, off, "file", ifd);
}

const char *mdebug_external_name(MdebugHandle *h, uint32_t i) {
  const MdebugSymtab &st = h->st;
  if (i >= st.iext_max || st.ss_ext == nullptr || uint32_t(st.exts[i].asym.iss) == MDEBUG_NIL)
    return nullptr;
  return string_in_table(h, st.ss_ext, st.iss_ext_max, uint32_t(st.exts[i].asym.iss), "external", i);
}

} // namespace vesk
