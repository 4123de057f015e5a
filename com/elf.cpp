#include "com/elf.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <gelf.h>
#include <memory>
#include <sys/stat.h>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

#include "base/bytes.h"
#include "base/file_io.h"
#include "com/elf_impl.h"

namespace vesk {

void duplicate_elf() {
  elf_version(EV_CURRENT);
  bin.out_elf = elf_begin(bin.out_fd, ELF_C_WRITE, nullptr);
  if (bin.out_elf == nullptr) {
    print_elf_error(option.program);
    error("cannot open %s", option.output);
  }
  if (bin.is_elf32)
    duplicate_elf32();
  else
    duplicate_elf64();
  // libelf must not lay the file out: every offset stays as copied.
  elf_flagelf(bin.out_elf, ELF_C_SET, ELF_F_DIRTY);
  elf_flagelf(bin.out_elf, ELF_C_SET, ELF_F_LAYOUT);
}

Elf_Scn *find_section_by_name(Elf *elf, const char *name) {
  return bin.is_elf32 ? find_section_by_name32(elf, name) : find_section_by_name64(elf, name);
}

Elf_Data *find_section_data_by_name(Elf *elf, const char *name) {
  Elf_Scn *scn = find_section_by_name(elf, name);
  return scn ? elf_getdata(scn, nullptr) : nullptr;
}

uint8_t *get_textdata_by_addr(Elf *elf, uint64_t addr) { return get_textdata_range(elf, addr, 1); }

uint8_t *get_textdata_range(Elf *elf, uint64_t addr, size_t n) {
  uint64_t off = 0;
  Elf_Data *d = bin.is_elf32 ? section_data_at<Elf32Class>(elf, addr, &off)
                             : section_data_at<Elf64Class>(elf, addr, &off);
  if (d == nullptr || d->d_buf == nullptr || off > d->d_size || n > d->d_size - off)
    return nullptr;
  return static_cast<uint8_t *>(d->d_buf) + off;
}

void expand_section(Elf_Scn *scn, uint32_t n) {
  if (bin.is_elf32)
    expand_section32(scn, n);
  else
    expand_section64(scn, n);
}

namespace {

// Where the input's sections lay outside every segment: bytes there that
// the output does not write again belonged to a section that moved or
// shrank.  They are left as a hole (zeros) rather than copied: stale
// contents nobody reads, and 16 MB of a 95 MB output when the DWARF
// relocations are dropped and the line programs grow.
std::vector<FileRange> stale_section_bytes(uint64_t in_size) {
  std::vector<FileRange> stale, segments;
  size_t n = 0;
  GElf_Phdr ph;
  if (elf_getphdrnum(bin.in_elf, &n) == 0)
    for (size_t i = 0; i < n; ++i)
      if (gelf_getphdr(bin.in_elf, int(i), &ph) != nullptr && ph.p_filesz != 0)
        segments.push_back({ph.p_offset, ph.p_offset + ph.p_filesz});
  for (Elf_Scn *scn = elf_nextscn(bin.in_elf, nullptr); scn != nullptr; scn = elf_nextscn(bin.in_elf, scn)) {
    GElf_Shdr sh;
    if (gelf_getshdr(scn, &sh) == nullptr || sh.sh_type == SHT_NOBITS || sh.sh_offset > in_size ||
        sh.sh_size > in_size - sh.sh_offset || sh.sh_size == 0)
      continue;
    bool loaded = false;
    for (const FileRange &g : segments)
      loaded = loaded || (sh.sh_offset < g.end && sh.sh_offset + sh.sh_size > g.begin);
    if (!loaded)
      stale.push_back({sh.sh_offset, sh.sh_offset + sh.sh_size});
  }
  elf_errno();
  std::sort(stale.begin(), stale.end(), [](const FileRange &a, const FileRange &b) { return a.begin < b.begin; });
  return stale;
}

// The bytes between the pieces the image writes (padding, and what lies
// outside every section) are the input's, so that everything no update
// touched stays as it was (and the file stays as long as the input).
void restore_unwritten_bytes(std::vector<FileRange> ranges) {
  off_t in_size = lseek(bin.in_fd, 0, SEEK_END);
  if (in_size < 0)
    sysfatal("reading %s", option.program);
  std::sort(ranges.begin(), ranges.end(),
            [](const FileRange &a, const FileRange &b) { return a.begin < b.begin; });
  std::vector<FileRange> stale = stale_section_bytes(uint64_t(in_size));
  size_t next_stale = 0;
  std::vector<char> buf(65536);
  uint64_t pos = 0, end = uint64_t(in_size);
  auto copy_bytes = [&](uint64_t from, uint64_t to) {
    ssize_t copied = from < to ? copy_file_bytes(bin.in_fd, from, bin.out_fd, from, size_t(to - from)) : 0;
    if (copied < 0)
      sysfatal("writing %s", option.output);
    for (from += uint64_t(copied); from < to; from += buf.size()) {
      size_t n = size_t(std::min<uint64_t>(to - from, buf.size()));
      read_at(bin.in_fd, from, buf.data(), n, "contents", option.program);
      write_at(bin.out_fd, from, buf.data(), n, "contents", option.output);
    }
  };
  auto copy = [&](uint64_t from, uint64_t to) {
    for (; next_stale < stale.size() && stale[next_stale].end <= from; ++next_stale) {
    }
    for (size_t i = next_stale; from < to && i < stale.size() && stale[i].begin < to; ++i) {
      copy_bytes(from, std::max(from, std::min(to, stale[i].begin)));
      from = std::max(from, stale[i].end);
    }
    copy_bytes(from, to);
  };
  for (const FileRange &r : ranges) {
    if (r.begin >= end)
      break;
    if (r.begin > pos)
      copy(pos, r.begin);
    pos = std::max(pos, r.end);
  }
  if (pos < end)
    copy(pos, end);
  // A stale stretch at the end is a hole too: the file keeps its length.
  struct stat st;
  if (fstat(bin.out_fd, &st) != 0 || (uint64_t(st.st_size) < end && ftruncate(bin.out_fd, off_t(end)) != 0))
    sysfatal("writing %s", option.output);
}

// The input's image when it is the input file mapped from its start, which
// holds nothing but the file's bytes; else null.  libelf reads a file it
// cannot map into memory of its own, where dropping a page would lose
// its contents: so the mapping is looked up in the process's own list.
const char *mapped_input(size_t *size) {
  char *raw = bin.in_elf ? elf_rawfile(bin.in_elf, size) : nullptr;
  elf_errno();
  if (bin.input_mapped == 0 && raw != nullptr) {
    bin.input_mapped = -1;
    struct stat st;
    std::unique_ptr<FILE, int (*)(FILE *)> maps(std::fopen("/proc/self/maps", "r"), std::fclose);
    char line[4352]; // room for a path of PATH_MAX bytes behind the fields
    uintptr_t at = reinterpret_cast<uintptr_t>(raw);
    while (maps && fstat(bin.in_fd, &st) == 0 && std::fgets(line, sizeof line, maps.get()) != nullptr) {
      unsigned long lo = 0, hi = 0, offset = 0, inode = 0;
      char perms[8] = {};
      if (std::sscanf(line, "%lx-%lx %7s %lx %*s %lu", &lo, &hi, perms, &offset, &inode) != 5 || at < lo ||
          at >= hi)
        continue;
      if (at == lo && offset == 0 && inode == st.st_ino && perms[1] == '-' && *size <= hi - lo)
        bin.input_mapped = 1;
      break;
    }
  }
  return bin.input_mapped == 1 ? raw : nullptr;
}

} // namespace

void release_input_pages() {
  size_t size = 0;
  if (const char *raw = mapped_input(&size); raw != nullptr && size != 0)
    madvise(const_cast<char *>(raw), size, MADV_DONTNEED);
}

bool copy_input_bytes(const void *p, size_t n, uint64_t out_offset) {
  size_t size = 0;
  const char *raw = mapped_input(&size);
  uintptr_t base = reinterpret_cast<uintptr_t>(raw), at = reinterpret_cast<uintptr_t>(p);
  if (raw == nullptr || at < base || n > size || at - base > size - n)
    return false;
  ssize_t copied = copy_file_bytes(bin.in_fd, at - base, bin.out_fd, out_offset, n);
  if (copied < 0)
    sysfatal("writing the contents of %s", option.output);
  if (copied == 0)
    return false; // no copy between these two files: written from memory
  if (size_t(copied) < n)
    write_at(bin.out_fd, out_offset + uint64_t(copied), static_cast<const uint8_t *>(p) + copied, n - size_t(copied),
             "contents", option.output);
  return true;
}

void release_input_pages(const void *p, size_t n) {
  size_t size = 0;
  const char *raw = mapped_input(&size);
  uintptr_t page = uintptr_t(sysconf(_SC_PAGESIZE)), base = reinterpret_cast<uintptr_t>(raw);
  uintptr_t lo = reinterpret_cast<uintptr_t>(p), hi = lo + n;
  // Only whole pages of the mapping, none that holds bytes outside [p, p + n).
  if (raw == nullptr || base % page != 0 || lo < base || hi > base + size || hi < lo)
    return;
  lo = (lo + page - 1) / page * page;
  hi = hi / page * page;
  if (lo < hi)
    madvise(reinterpret_cast<void *>(lo), hi - lo, MADV_DONTNEED);
}

void write_it() {
  release_input_pages();
  // libelf checks the image and settles its headers; vesk writes it (see
  // write_image).
  int64_t size = elf_update(bin.out_elf, ELF_C_NULL);
  if (size < 0)
    error("cannot write %s: %s", option.output, elf_errmsg(-1));
  if (ftruncate(bin.out_fd, off_t(size)) != 0)
    sysfatal("writing %s", option.output);
  bin.is_elf32 ? write_image<Elf32Class>(bin.out_elf) : write_image<Elf64Class>(bin.out_elf);
  std::vector<FileRange> ranges =
      bin.is_elf32 ? written_ranges<Elf32Class>(bin.out_elf) : written_ranges<Elf64Class>(bin.out_elf);
  elf_end(bin.out_elf);
  bin.out_elf = nullptr; // the driver's own elf_end then has nothing left to end
  restore_unwritten_bytes(std::move(ranges));
}

const char *keep_input_name(const char *s) {
  size_t size = 0;
  const char *raw = bin.in_elf ? elf_rawfile(bin.in_elf, &size) : nullptr;
  uintptr_t base = reinterpret_cast<uintptr_t>(raw), at = reinterpret_cast<uintptr_t>(s);
  if (raw != nullptr && at >= base && at - base < size)
    return s;
  elf_errno();
  return bin.procs.keep(s);
}

void *output_contents(const Elf_Data *in) {
  size_t raw_size = 0;
  const char *raw = elf_rawfile(bin.in_elf, &raw_size);
  // Addresses compared as numbers: the contents may lie anywhere else.
  uintptr_t base = reinterpret_cast<uintptr_t>(raw), src = reinterpret_cast<uintptr_t>(in->d_buf);
  if (raw != nullptr && src >= base && in->d_size <= raw_size && src - base <= raw_size - in->d_size &&
      bin.out_base.map(bin.in_fd, raw_size))
    return bin.out_base.data() + (src - base);
  return dup_buffer(in->d_buf, in->d_size);
}

namespace {

// Where [p, p + n) lies in the private map of the input, if it does.
bool in_out_base(void *p, size_t n, size_t *off) {
  uint8_t *base = bin.out_base.data();
  uint8_t *at = static_cast<uint8_t *>(p);
  if (base == nullptr || at < base || n > bin.out_base.size() || size_t(at - base) > bin.out_base.size() - n)
    return false; // a buffer of its own
  *off = size_t(at - base);
  return true;
}

} // namespace

void prepare_to_overwrite(void *p, size_t n) {
  if (size_t off = 0; in_out_base(p, n, &off))
    bin.out_base.overwrite(off, n);
}

void prepare_to_modify(void *p, size_t n) {
  if (size_t off = 0; in_out_base(p, n, &off))
    bin.out_base.modify(off, n);
}

void *dup_buffer(const void *src, size_t size) {
  // Kept with the run's other output contents, released when the run ends.
  if (size == 0)
    return bin.out_buffers.emplace_back(1).data();
  const uint8_t *from = static_cast<const uint8_t *>(src);
  return bin.out_buffers.emplace_back(from, from + size).data();
}

} // namespace vesk
