#include "tools/annotate/write.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/bytes.h"
#include "base/diag.h"

namespace vesk::annotate {

namespace {

// A 32-bit section header as it lies in a big-endian file.
struct Shdr32 {
  ub32 sh_name, sh_type, sh_flags, sh_addr, sh_offset, sh_size, sh_link, sh_info, sh_addralign, sh_entsize;
};
static_assert(sizeof(Shdr32) == 40);

// Offsets of the ELF header fields that change.
constexpr size_t E_SHOFF = 32, E_SHNUM = 48, E_SHSTRNDX = 50;

void pad_to(std::vector<uint8_t> &v, size_t align) {
  while (v.size() % align != 0)
    v.push_back(0);
}

} // namespace

std::vector<uint8_t> compact_rel_section(const Description &d) {
  std::vector<uint8_t> header;
  auto pair = [&](uint32_t tag, uint32_t value) {
    uint8_t b[8];
    store32(b, tag);
    store32(b + 4, value);
    header.insert(header.end(), b, b + 8);
  };
  pair(CR_TAG_COUNT, uint32_t(d.entries.size()));
  pair(CR_TAG_GOT_PAGES, uint32_t(d.got_pages.size()));
  for (uint32_t index : d.got_pages)
    pair(CR_TAG_GOT_PAGE, index);
  pair(0, 0);
  CompactRelWriter out(header.data(), header.size());
  for (const CompactRelEntry &e : d.entries)
    out.add_cr(e.type, e.konst, e.dist2to, e.vaddr);
  return std::move(out.bytes());
}

void write_annotated(const Image &im, const Description &d, const std::vector<uint8_t> &compact_rel,
                     const std::string &out) {
  std::vector<uint8_t> f = im.file;
  for (const auto &[addr, w] : d.patches) {
    const Section *s = im.section_holding(addr, 4);
    if (s == nullptr)
      error("%s: no section holds the call at %#x", im.path.c_str(), addr);
    store32(f.data() + s->sh.sh_offset + (addr - s->sh.sh_addr), w);
  }
  uint32_t old_shoff = load32(f.data() + E_SHOFF);
  uint16_t shnum = load16(f.data() + E_SHNUM);
  uint16_t shstrndx = load16(f.data() + E_SHSTRNDX);
  if (uint64_t(old_shoff) + uint64_t(shnum) * sizeof(Shdr32) > f.size() || shstrndx >= shnum)
    error("%s: the section header table lies outside the file", im.path.c_str());

  // The name table, copied with the new name behind the old ones.
  const Section &names = im.sections[shstrndx];
  pad_to(f, 4);
  uint32_t names_offset = uint32_t(f.size());
  f.insert(f.end(), names.raw, names.raw + names.sh.sh_size);
  uint32_t new_name = names.sh.sh_size;
  const char compact_rel_name[] = ".compact_rel";
  f.insert(f.end(), compact_rel_name, compact_rel_name + sizeof compact_rel_name);
  uint32_t names_size = uint32_t(f.size()) - names_offset;

  // .compact_rel is the last section in the file, so that vesk can grow it
  // by moving only the section header table behind it.
  pad_to(f, 4);
  uint32_t cr_offset = uint32_t(f.size());
  f.insert(f.end(), compact_rel.begin(), compact_rel.end());

  pad_to(f, 4);
  uint32_t shoff = uint32_t(f.size());
  f.insert(f.end(), im.file.begin() + old_shoff, im.file.begin() + old_shoff + shnum * sizeof(Shdr32));
  auto *headers = reinterpret_cast<Shdr32 *>(f.data() + shoff); // Shdr32 has byte alignment
  headers[shstrndx].sh_offset = names_offset;
  headers[shstrndx].sh_size = names_size;
  Shdr32 cr{};
  cr.sh_name = new_name;
  cr.sh_type = SHT_PROGBITS;
  cr.sh_offset = cr_offset;
  cr.sh_size = uint32_t(compact_rel.size());
  cr.sh_addralign = 4;
  const auto *cr_bytes = reinterpret_cast<const uint8_t *>(&cr);
  f.insert(f.end(), cr_bytes, cr_bytes + sizeof cr);

  store32(f.data() + E_SHOFF, shoff);
  store16(f.data() + E_SHNUM, uint16_t(shnum + 1));

  struct stat st;
  mode_t mode = 0755;
  if (stat(im.path.c_str(), &st) == 0)
    mode = st.st_mode & 0777;
  int fd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, mode);
  if (fd < 0)
    sysfatal("cannot open %s", out.c_str());
  size_t done = 0;
  while (done < f.size()) {
    ssize_t n = write(fd, f.data() + done, f.size() - done);
    if (n <= 0) {
      if (n == 0)
        errno = -1;
      sysfatal("writing %s", out.c_str());
    }
    done += size_t(n);
  }
  if (close(fd) != 0)
    sysfatal("writing %s", out.c_str());
}

} // namespace vesk::annotate
