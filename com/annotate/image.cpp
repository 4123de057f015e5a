#include "com/annotate/image.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

#include "base/bytes.h"
#include "base/diag.h"
#include "base/flat_index.h"

namespace vesk::annotate {

namespace {

constexpr uint32_t EF_ABI2 = 0x20;

std::vector<uint8_t> read_whole(const std::string &path, int fd) {
  std::vector<uint8_t> buf;
  struct stat st;
  if (fstat(fd, &st) == 0 && st.st_size > 0)
    buf.reserve(size_t(st.st_size)); // read at once, not regrown
  uint8_t chunk[65536];
  for (;;) {
    ssize_t n = read(fd, chunk, sizeof chunk);
    if (n < 0)
      sysfatal("reading %s", path.c_str());
    if (n == 0)
      break;
    buf.insert(buf.end(), chunk, chunk + n);
  }
  return buf;
}

template <class T> std::vector<T> typed_contents(Elf_Scn *scn, Elf_Type type, const Image &im, const Section &s) {
  Elf_Data *d = elf_getdata(scn, nullptr);
  if (d == nullptr || d->d_type != type || (d->d_buf == nullptr && d->d_size != 0))
    error("%s: cannot read section %s", im.path.c_str(), s.name.c_str());
  std::vector<T> v(d->d_size / sizeof(T));
  if (!v.empty())
    std::memcpy(v.data(), d->d_buf, v.size() * sizeof(T));
  return v;
}

void read_sections(Image &im, Elf *elf) {
  size_t shstrndx;
  if (elf_getshdrstrndx(elf, &shstrndx) != 0)
    error("%s: no section name table", im.path.c_str());
  for (Elf_Scn *scn = elf_getscn(elf, 0); scn != nullptr; scn = elf_nextscn(elf, scn)) {
    Section s;
    s.index = elf_ndxscn(scn);
    if (gelf_getshdr(scn, &s.sh) == nullptr)
      error("%s: cannot read the header of section %zu", im.path.c_str(), s.index);
    const char *name = elf_strptr(elf, shstrndx, s.sh.sh_name);
    if (name == nullptr)
      error("%s: section %zu has no name", im.path.c_str(), s.index);
    s.name = name;
    if (s.sh.sh_type != SHT_NOBITS && s.sh.sh_type != SHT_NULL) {
      if (s.sh.sh_offset > im.file.size() || s.sh.sh_size > im.file.size() - s.sh.sh_offset)
        error("%s: section %s lies outside the file", im.path.c_str(), name);
      s.raw = im.file.data() + s.sh.sh_offset;
    }
    im.sections.push_back(s);
  }
}

void read_tables(Image &im, Elf *elf) {
  for (const Section &s : im.sections) {
    Elf_Scn *scn = elf_getscn(elf, s.index);
    if (s.name == ".text") {
      im.text = &s;
      im.text_lo = s.sh.sh_addr;
      im.text_hi = s.sh.sh_addr + s.sh.sh_size;
    } else if (s.name == ".got") {
      im.got = &s;
      if (im.got_addr == 0)
        im.got_addr = s.sh.sh_addr;
    } else if (s.name == ".reginfo" && s.raw != nullptr && s.sh.sh_size >= 24) {
      im.gp_value = load32(s.raw + 20);
    } else if (s.name == ".compact_rel" || s.sh.sh_type == SHT_MIPS_EVENTS || s.sh.sh_type == SHT_MIPS_CONTENT) {
      error("%s already has a %s section", im.path.c_str(), s.name.c_str());
    }
    if (s.sh.sh_type == SHT_DYNAMIC) {
      Elf_Data *d = elf_getdata(scn, nullptr);
      GElf_Dyn dyn;
      for (int i = 0; d != nullptr && gelf_getdyn(d, i, &dyn) != nullptr; ++i)
        if (dyn.d_tag == DT_PLTGOT)
          im.got_addr = dyn.d_un.d_ptr;
        else if (dyn.d_tag == DT_MIPS_LOCAL_GOTNO)
          im.local_gotno = dyn.d_un.d_val;
        else if (dyn.d_tag == DT_MIPS_GOTSYM)
          im.gotsym = dyn.d_un.d_val;
        else if (dyn.d_tag == DT_MIPS_SYMTABNO)
          im.symtabno = dyn.d_un.d_val;
    } else if (s.sh.sh_type == SHT_REL && (s.sh.sh_flags & SHF_ALLOC) != 0 && s.raw != nullptr) {
      // Dynamic relocations: only where they apply matters here (their
      // r_offset leads each record in both classes).
      size_t size = im.is_64 ? 16 : 8;
      for (uint64_t off = 0; off + size <= s.sh.sh_size; off += size)
        im.dyn_reloc_offsets.push_back(im.is_64 ? load64(s.raw + off) : load32(s.raw + off));
    } else if (s.sh.sh_type == SHT_SYMTAB) {
      Elf_Data *d = elf_getdata(scn, nullptr);
      size_t entry = gelf_fsize(elf, ELF_T_SYM, 1, EV_CURRENT);
      if (d != nullptr && entry != 0) {
        im.symbols.reserve(d->d_size / entry);
        im.symbol_names.reserve(d->d_size / entry);
      }
      // Names are views into the string table in the mapped file: a copy
      // of each would cost as much as the rest of the reading.
      const Section *strings = s.sh.sh_link < im.sections.size() ? &im.sections[s.sh.sh_link] : nullptr;
      if (strings != nullptr && (strings->sh.sh_type != SHT_STRTAB || strings->raw == nullptr))
        strings = nullptr;
      bool terminated = strings != nullptr && strings->sh.sh_size != 0 && strings->raw[strings->sh.sh_size - 1] == 0;
      GElf_Sym sym;
      for (int i = 0; d != nullptr && gelf_getsym(d, i, &sym) != nullptr; ++i) {
        im.symbols.push_back(sym);
        std::string_view name = "";
        if (strings != nullptr && sym.st_name < strings->sh.sh_size) {
          const char *n = reinterpret_cast<const char *>(strings->raw) + sym.st_name;
          size_t left = strings->sh.sh_size - sym.st_name;
          if (terminated || std::memchr(n, 0, left) != nullptr)
            name = n;
        }
        im.symbol_names.push_back(name);
      }
    }
  }
  std::sort(im.dyn_reloc_offsets.begin(), im.dyn_reloc_offsets.end());
  if (im.gp_value == 0)
    for (size_t i = 0; i < im.symbols.size(); ++i)
      if (im.symbol_names[i] == "_gp")
        im.gp_value = im.symbols[i].st_value;
}

// Groups by name through an index of the names' hashes: a map of strings
// would allocate a node for each function.
void number_function_groups(Image &im) {
  auto is_function = [&im](size_t i) {
    const GElf_Sym &s = im.symbols[i];
    return GELF_ST_TYPE(s.st_info) == STT_FUNC && s.st_size != 0 && s.st_shndx != SHN_UNDEF;
  };
  FlatIndex by_group;
  by_group.build(im.symbols.size(), [&](size_t i, size_t &h) {
    if (!is_function(i))
      return false;
    h = hash_of(function_group_name(im.symbol_names[i]));
    return true;
  });
  im.function_group.assign(im.symbols.size(), Image::kNoGroup);
  for (size_t i = 0; i < im.symbols.size(); ++i) {
    if (!is_function(i))
      continue;
    std::string_view group = function_group_name(im.symbol_names[i]);
    // The first symbol of the group in the table comes first in its chain.
    by_group.visit(hash_of(group), [&](size_t j) {
      if (function_group_name(im.symbol_names[j]) != group)
        return true;
      im.function_group[i] = j == i ? im.function_groups++ : im.function_group[j];
      return false;
    });
  }
}

// n32 and n64 relocation records, read from their big-endian bytes: libelf
// does not know the three-type layout of the n64 r_info.
std::vector<Rela> read_relas(const Image &im, const Section &s) {
  size_t size = im.is_64 ? 24 : 12;
  if (s.raw == nullptr || s.sh.sh_size % size != 0)
    error("%s: section %s does not hold whole relocation records", im.path.c_str(), s.name.c_str());
  std::vector<Rela> out(s.sh.sh_size / size);
  for (size_t i = 0; i < out.size(); ++i) {
    const uint8_t *p = s.raw + i * size;
    Rela &r = out[i];
    if (im.is_64) {
      r.offset = load64(p);
      r.sym = load32(p + 8);
      r.type3 = p[13];
      r.type2 = p[14];
      r.type = p[15];
      r.addend = int64_t(load64(p + 16));
    } else {
      r.offset = load32(p);
      r.sym = load32(p + 4) >> 8;
      r.type = p[7];
      r.addend = int32_t(load32(p + 8));
    }
  }
  return out;
}

void read_relocations(Image &im, Elf *elf) {
  bool text_has_relocations = false;
  for (const Section &s : im.sections) {
    if (s.sh.sh_type != SHT_REL && s.sh.sh_type != SHT_RELA)
      continue;
    if (s.sh.sh_info == 0 || s.sh.sh_info >= im.sections.size() || (s.sh.sh_flags & SHF_ALLOC) != 0)
      continue; // dynamic relocations: the loader's, not the linker's
    const Section &target = im.sections[s.sh.sh_info];
    if ((target.sh.sh_flags & SHF_ALLOC) == 0)
      continue;
    if (s.sh.sh_type == SHT_RELA && im.is_o32())
      error("%s: section %s holds relocations with addends, which o32 executables do not use", im.path.c_str(),
            s.name.c_str());
    if (s.sh.sh_type == SHT_REL && !im.is_o32())
      error("%s: section %s holds relocations without addends, which %s executables do not use", im.path.c_str(),
            s.name.c_str(), im.is_64 ? "n64" : "n32");
    RelSection r;
    r.section = &s;
    r.target = &target;
    if (im.is_o32()) {
      r.rels = typed_contents<Elf32_Rel>(elf_getscn(elf, s.index), ELF_T_REL, im, s);
      for (const Elf32_Rel &rel : r.rels)
        if (ELF32_R_SYM(rel.r_info) >= im.symbols.size())
          error("%s: a relocation of %s names symbol %u, which .symtab does not have", im.path.c_str(),
                s.name.c_str(), ELF32_R_SYM(rel.r_info));
    } else {
      r.relas = read_relas(im, s);
      for (const Rela &rel : r.relas)
        if (rel.sym >= im.symbols.size())
          error("%s: a relocation of %s names symbol %u, which .symtab does not have", im.path.c_str(),
                s.name.c_str(), rel.sym);
    }
    if (&target == im.text)
      text_has_relocations = true;
    im.rel_sections.push_back(std::move(r));
  }
  if (!text_has_relocations)
    error("%s keeps no relocations of .text; link it with -Wl,-q", im.path.c_str());
}

} // namespace

const Section *Image::section_holding(uint64_t addr, uint64_t n) const {
  auto holds = [&](const Section &s) {
    return (s.sh.sh_flags & SHF_ALLOC) && s.raw != nullptr && addr >= s.sh.sh_addr && n <= s.sh.sh_size &&
           addr - s.sh.sh_addr <= s.sh.sh_size - n;
  };
  if (sections_overlap_ < 0) {
    std::vector<std::pair<uint64_t, uint64_t>> spans;
    for (const Section &s : sections)
      if ((s.sh.sh_flags & SHF_ALLOC) && s.raw != nullptr && s.sh.sh_size != 0)
        spans.push_back({s.sh.sh_addr, s.sh.sh_addr + s.sh.sh_size});
    std::sort(spans.begin(), spans.end());
    sections_overlap_ = 0;
    for (size_t i = 1; i < spans.size(); ++i)
      if (spans[i].first < spans[i - 1].second || spans[i - 1].second < spans[i - 1].first)
        sections_overlap_ = 1;
  }
  if (sections_overlap_ == 0 && last_held_ < sections.size() && holds(sections[last_held_]))
    return &sections[last_held_];
  for (size_t i = 0; i < sections.size(); ++i)
    if (holds(sections[i])) {
      last_held_ = i;
      return &sections[i];
    }
  return nullptr;
}

uint64_t Image::address_word(const Section &s, uint64_t addr) const {
  const uint8_t *p = s.raw + (addr - s.sh.sh_addr);
  return word_size == 8 ? load64(p) : load32(p);
}

std::string Image::where(uint64_t addr) const {
  char buf[80];
  const GElf_Sym *best = nullptr;
  size_t best_i = 0;
  for (size_t i = 0; i < symbols.size(); ++i) {
    const GElf_Sym &s = symbols[i];
    if (GELF_ST_TYPE(s.st_info) == STT_FUNC && s.st_value <= addr && addr - s.st_value < (s.st_size ? s.st_size : 1) &&
        (best == nullptr || s.st_value > best->st_value)) {
      best = &s;
      best_i = i;
    }
  }
  if (best == nullptr)
    std::snprintf(buf, sizeof buf, "%#llx", (unsigned long long)addr);
  else
    std::snprintf(buf, sizeof buf, "%#llx (%.*s+%#llx)", (unsigned long long)addr,
                  int(std::min<size_t>(32, symbol_names[best_i].size())), symbol_names[best_i].data(),
                  (unsigned long long)(addr - best->st_value));
  return buf;
}

bool Image::symbol_is_local(uint32_t index) const {
  return index < symbols.size() && GELF_ST_BIND(symbols[index].st_info) == STB_LOCAL;
}

bool Image::dynamically_relocated(uint64_t addr) const {
  return std::binary_search(dyn_reloc_offsets.begin(), dyn_reloc_offsets.end(), addr);
}

std::string_view Image::symbol_name(uint32_t index) const {
  return index < symbol_names.size() ? symbol_names[index] : std::string_view("");
}

Image read_image(const std::string &path) {
  int fd = open(path.c_str(), O_RDONLY);
  if (fd < 0)
    sysfatal("cannot open %s", path.c_str());
  struct Closer {
    int fd;
    ~Closer() { close(fd); }
  } closer{fd};
  return read_image(path, fd);
}

Image read_image(const std::string &path, int fd) {
  Image im;
  im.path = path;
  if (lseek(fd, 0, SEEK_SET) != 0)
    sysfatal("reading %s", path.c_str());
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size <= 0 || !im.file.map.map(fd, size_t(st.st_size)))
    im.file.copy = read_whole(path, fd);
  elf_version(EV_CURRENT);
  // Ended however the reading ends: a refusal throws.
  std::unique_ptr<Elf, int (*)(Elf *)> elf(elf_begin(fd, ELF_C_READ_MMAP, nullptr), elf_end);
  if (elf == nullptr || elf_kind(elf.get()) != ELF_K_ELF)
    error("%s is not an ELF file", path.c_str());
  GElf_Ehdr ehdr;
  const GElf_Ehdr *eh = gelf_getehdr(elf.get(), &ehdr);
  if (eh == nullptr || eh->e_ident[EI_DATA] != ELFDATA2MSB || eh->e_machine != EM_MIPS)
    error("%s is not a big-endian MIPS ELF file", path.c_str());
  im.is_64 = eh->e_ident[EI_CLASS] == ELFCLASS64;
  im.is_n32 = !im.is_64 && (eh->e_flags & EF_ABI2) != 0;
  im.pic = (eh->e_flags & EF_MIPS_PIC) != 0;
  im.is_pie = eh->e_type == ET_DYN;
  im.word_size = im.is_64 ? 8 : 4;
  if (eh->e_type != ET_EXEC && eh->e_type != ET_DYN)
    error("%s is not an executable", path.c_str());
  if (eh->e_shnum == 0 || eh->e_shstrndx >= SHN_LORESERVE ||
      eh->e_shentsize != (im.is_64 ? sizeof(Elf64_Shdr) : sizeof(Elf32_Shdr)))
    error("%s has an unusual section header table", path.c_str());
  read_sections(im, elf.get());
  read_tables(im, elf.get());
  number_function_groups(im);
  if (im.text == nullptr || im.text->raw == nullptr)
    error("%s has no .text section", path.c_str());
  read_relocations(im, elf.get());
  return im;
}

} // namespace vesk::annotate
