// The output image, written once for both ELF classes: the templates behind
// duplicate_elf32/64, the section lookups, section growth and the list of
// file ranges that the written image covers.  com/update32.cpp and
// com/update64.cpp instantiate them.
#pragma once

#include <cstring>
#include <gelf.h>
#include <vector>

#include "base/bin.h"
#include "base/bytes.h"
#include "base/diag.h"
#include "base/elf_class.h"
#include "base/file_io.h"
#include "base/options.h"
#include "com/elf.h"

namespace vesk {

// The name of section scn, or null when the name table does not hold it.
template <class C> const char *section_name(Elf *elf, Elf_Scn *scn) {
  typename C::Ehdr *eh = C::getehdr(elf);
  typename C::Shdr *sh = C::getshdr(scn);
  if (eh == nullptr || sh == nullptr)
    return nullptr;
  Elf_Data *names = elf_getdata(elf_getscn(elf, eh->e_shstrndx), nullptr);
  if (names == nullptr || names->d_buf == nullptr || sh->sh_name >= names->d_size)
    return nullptr;
  const char *s = static_cast<const char *>(names->d_buf) + sh->sh_name;
  if (std::memchr(s, '\0', names->d_size - sh->sh_name) == nullptr)
    return nullptr;
  return s;
}

template <class C> Elf_Scn *find_section_by_name_t(Elf *elf, const char *name) {
  for (size_t i = 0;; ++i) {
    Elf_Scn *scn = elf_getscn(elf, i);
    if (scn == nullptr) {
      elf_errno(); // running off the end is the normal way out
      return nullptr;
    }
    const char *s = section_name<C>(elf, scn);
    if (s != nullptr && std::strcmp(s, name) == 0)
      return scn;
  }
}

// The data of the first allocated section with contents that holds addr,
// and addr's offset in it.  Sections without contents are passed over: a
// .tbss shares its addresses with the sections behind it.  The 32-bit image
// computes addresses on 32 bits.
template <class C> Elf_Data *section_data_at(Elf *elf, uint64_t addr, uint64_t *offset) {
  if (!C::is_64)
    addr = uint32_t(addr);
  for (size_t i = 0;; ++i) {
    Elf_Scn *scn = elf_getscn(elf, i);
    if (scn == nullptr) {
      elf_errno();
      return nullptr;
    }
    typename C::Shdr *sh = C::getshdr(scn);
    if (sh == nullptr || !(sh->sh_flags & SHF_ALLOC) || sh->sh_type == SHT_NOBITS)
      continue;
    uint64_t lo = sh->sh_addr, hi = lo + sh->sh_size;
    if (addr >= lo && addr < hi) {
      *offset = addr - lo;
      return elf_getdata(scn, nullptr);
    }
  }
}

// libelf hands arrays of addresses (.init_array, .fini_array,
// .preinit_array) over in host order.  Dynamic relocations and the other
// updates patch address words wherever they lie through the raw big-endian
// view that every other allocated section has, so the output copy of such
// an array is turned back into file order and written out as plain bytes.
template <class C> void addresses_to_file_order(Elf_Data *d) {
  auto *p = static_cast<uint8_t *>(d->d_buf);
  for (size_t off = 0; off + sizeof(typename C::Addr) <= d->d_size; off += sizeof(typename C::Addr)) {
    typename C::Addr v;
    std::memcpy(&v, p + off, sizeof v);
    if constexpr (C::is_64)
      store64(p + off, v);
    else
      store32(p + off, v);
  }
  d->d_type = ELF_T_BYTE;
}

// A copy of the input in bin.out_elf: same headers, same section indices,
// private copies of every section's contents (see output_contents).
template <class C> void duplicate_elf_t() {
  typename C::Ehdr *in_eh = C::getehdr(bin.in_elf);
  if (in_eh == nullptr) {
    print_elf_error(option.program);
    error("cannot read the ELF header of %s", option.program);
  }
  typename C::Phdr *in_ph = in_eh->e_phnum ? C::getphdr(bin.in_elf) : nullptr;
  if (in_eh->e_phnum && in_ph == nullptr) {
    print_elf_error(option.program);
    error("cannot read the program header table");
  }

  elf_errno();
  typename C::Ehdr *out_eh = C::newehdr(bin.out_elf);
  if (out_eh == nullptr) {
    print_elf_error(option.program);
    error("cannot create the output ELF header");
  }
  if (in_eh->e_phnum) {
    typename C::Phdr *out_ph = C::newphdr(bin.out_elf, in_eh->e_phnum);
    if (out_ph == nullptr) {
      print_elf_error(option.program);
      error("cannot create the output program header table");
    }
    std::memcpy(out_ph, in_ph, sizeof(typename C::Phdr) * in_eh->e_phnum);
  }
  *out_eh = *in_eh;

  for (size_t i = 1;; ++i) {
    Elf_Scn *in_scn = elf_getscn(bin.in_elf, i);
    if (in_scn == nullptr)
      break;
    typename C::Shdr *in_sh = C::getshdr(in_scn);
    Elf_Scn *out_scn = elf_newscn(bin.out_elf);
    typename C::Shdr *out_sh = out_scn ? C::getshdr(out_scn) : nullptr;
    if (in_sh == nullptr || out_sh == nullptr) {
      print_elf_error(option.program);
      error("cannot copy section %zu", i);
    }
    *out_sh = *in_sh;
    // The relocations the link kept (-Wl,-q) are written as they were
    // read, or emptied: their bytes as the file has them, which the output
    // shares with the input's image.  (Their records in host order would
    // be a converted copy as large as they are, which nothing reads.)
    bool kept_relocations =
        (in_sh->sh_type == SHT_REL || in_sh->sh_type == SHT_RELA) && (in_sh->sh_flags & SHF_ALLOC) == 0;
    Elf_Data *in_d = kept_relocations ? elf_rawdata(in_scn, nullptr) : elf_getdata(in_scn, nullptr);
    if (in_d == nullptr) {
      elf_errno();
      continue;
    }
    Elf_Data *out_d = elf_newdata(out_scn);
    if (out_d == nullptr) {
      print_elf_error(option.program);
      error("cannot copy the contents of section %zu", i);
    }
    *out_d = *in_d;
    if (kept_relocations)
      out_d->d_type = ELF_T_BYTE; // already in the file's order
    // Everything else gets contents of its own.
    if (in_d->d_buf != nullptr && !kept_relocations)
      out_d->d_buf = output_contents(in_d);
    if (out_d->d_type == ELF_T_ADDR && out_d->d_buf != nullptr)
      addresses_to_file_order<C>(out_d);
    const char *name = section_name<C>(bin.in_elf, in_scn);
    if (name != nullptr && std::strcmp(name, ".text") == 0)
      bin.new_text = static_cast<uint8_t *>(out_d->d_buf);
  }
  elf_errno(); // elf_getscn past the last section
}

template <class C> void expand_section_t(Elf_Scn *scn, uint32_t n) {
  typename C::Ehdr *eh = C::getehdr(bin.out_elf);
  if (eh == nullptr) {
    print_elf_error(option.program);
    error("cannot read the output ELF header");
  }
  typename C::Shdr *grown = C::getshdr(scn);
  if (grown == nullptr) {
    print_elf_error(option.program);
    error("cannot read the header of a section that grows");
  }
  // What lies behind the section in the file moves back by n: the
  // sections whose contents start at or behind its end, and the section
  // header table.  That is file order, which need not be the order of the
  // headers: a section that an earlier run of vesk moved to the end of the
  // file has a lower index than the ones it now follows.
  uint64_t end = uint64_t(grown->sh_offset) + grown->sh_size;
  for (size_t i = 1;; ++i) {
    Elf_Scn *s = elf_getscn(bin.out_elf, i);
    if (s == nullptr)
      break;
    typename C::Shdr *sh = C::getshdr(s);
    if (sh != nullptr && s != scn && sh->sh_offset >= end)
      sh->sh_offset += n;
  }
  elf_errno();
  if (eh->e_shoff >= end)
    eh->e_shoff += n;
  grown->sh_size += n;
  if (Elf_Data *d = elf_getdata(scn, nullptr))
    d->d_size += n;
}

// A byte range [begin, end) of the output file.
struct FileRange {
  uint64_t begin, end;
};

// Notes as libelf holds them (the three words of each header in the
// host's order, names and descriptions as the file has them) turned back
// to the file's (big-endian) order into out (size bytes).  libelf's own
// translation takes only whole numbers of headers.
inline void notes_to_file_order(const uint8_t *in, size_t size, size_t align, uint8_t *out) {
  std::memcpy(out, in, size);
  auto pad = [align](uint64_t n) { return (n + align - 1) / align * align; };
  for (size_t at = 0; size - at >= 12;) {
    uint32_t word[3];
    std::memcpy(word, in + at, sizeof word);
    for (int k = 0; k < 3; ++k)
      store32(out + at + 4 * k, word[k]);
    // The description starts aligned, and so does the next note.
    uint64_t length = pad(pad(12 + uint64_t(word[0])) + word[1]);
    if (length > size - at)
      break;
    at += size_t(length);
  }
}

// Writes the output image to bin.out_fd: the ELF header, the program
// headers, every block of every section's contents and the section header
// table, each where the headers place it, in the file's byte order.
// libelf would write them too, but it copies every block it writes into a
// buffer of its own first (to turn it to the file's byte order, plain
// bytes too), and it cannot be told that a block was written already:
// with vesk writing the large sections itself, libelf would write their
// bytes a second time.  Plain bytes go out from where they are kept;
// typed records are turned to the file's order in a buffer of their size.
template <class C> void write_image(Elf *elf) {
  typename C::Ehdr *eh = C::getehdr(elf);
  if (eh == nullptr) {
    print_elf_error(option.output);
    error("cannot write %s: no ELF header", option.output);
  }
  unsigned encoding = eh->e_ident[EI_DATA];
  std::vector<uint8_t> file_order;
  auto put = [&](uint64_t offset, const void *buf, size_t size, Elf_Type type) {
    if (size == 0 || buf == nullptr)
      return;
    if (type == ELF_T_BYTE) {
      // The kept relocations are written from the input's image.
      if (!copy_input_bytes(buf, size, offset)) {
        write_at(bin.out_fd, offset, buf, size, "contents", option.output);
        release_input_pages(buf, size);
      }
      return;
    }
    file_order.resize(size);
    if (type == ELF_T_NHDR || type == ELF_T_NHDR8) {
      notes_to_file_order(static_cast<const uint8_t *>(buf), size, type == ELF_T_NHDR8 ? 8 : 4, file_order.data());
      write_at(bin.out_fd, offset, file_order.data(), size, "contents", option.output);
      return;
    }
    Elf_Data src{}, dst{};
    src.d_buf = const_cast<void *>(buf), src.d_size = size, src.d_type = type, src.d_version = EV_CURRENT;
    dst.d_buf = file_order.data(), dst.d_size = size, dst.d_version = EV_CURRENT;
    if (gelf_xlatetof(elf, &dst, &src, encoding) == nullptr) {
      print_elf_error(option.output);
      error("cannot write %s: records libelf cannot turn to the file's byte order", option.output);
    }
    write_at(bin.out_fd, offset, dst.d_buf, dst.d_size, "contents", option.output);
  };
  typename C::Ehdr header = *eh;
  put(0, &header, sizeof header, ELF_T_EHDR);
  if (eh->e_phnum != 0)
    if (typename C::Phdr *ph = C::getphdr(elf))
      put(eh->e_phoff, ph, sizeof(typename C::Phdr) * eh->e_phnum, ELF_T_PHDR);
  size_t shnum = 0;
  if (elf_getshdrnum(elf, &shnum) != 0)
    print_elf_error(option.output);
  std::vector<typename C::Shdr> headers;
  headers.reserve(shnum);
  for (size_t i = 0; i < shnum; ++i) {
    Elf_Scn *scn = elf_getscn(elf, i);
    typename C::Shdr *sh = scn ? C::getshdr(scn) : nullptr;
    if (sh == nullptr) {
      print_elf_error(option.output);
      error("cannot write %s: section %zu has no header", option.output, i);
    }
    headers.push_back(*sh);
    if (i == 0 || sh->sh_type == SHT_NOBITS || sh->sh_type == SHT_NULL)
      continue;
    for (Elf_Data *d = elf_getdata(scn, nullptr); d != nullptr; d = elf_getdata(scn, d))
      put(sh->sh_offset + uint64_t(d->d_off), d->d_buf, d->d_size, d->d_type);
    elf_errno(); // a section without contents
  }
  if (shnum != 0)
    put(eh->e_shoff, headers.data(), headers.size() * sizeof(typename C::Shdr), ELF_T_SHDR);
}

// The ranges of the file that write_image writes from the image's headers
// and contents: ELF header, program header table, the contents of every
// section that has some, section header table.
template <class C> std::vector<FileRange> written_ranges(Elf *elf) {
  std::vector<FileRange> r;
  typename C::Ehdr *eh = C::getehdr(elf);
  if (eh == nullptr)
    return r;
  r.push_back({0, sizeof(typename C::Ehdr)});
  if (eh->e_phnum)
    r.push_back({eh->e_phoff, eh->e_phoff + uint64_t(eh->e_phnum) * sizeof(typename C::Phdr)});
  size_t shnum = 0;
  for (size_t i = 1;; ++i) {
    Elf_Scn *s = elf_getscn(elf, i);
    if (s == nullptr)
      break;
    shnum = i + 1;
    typename C::Shdr *sh = C::getshdr(s);
    if (sh != nullptr && sh->sh_type != SHT_NOBITS && sh->sh_type != SHT_NULL && sh->sh_size != 0)
      r.push_back({sh->sh_offset, sh->sh_offset + sh->sh_size});
  }
  elf_errno();
  if (shnum)
    r.push_back({eh->e_shoff, eh->e_shoff + uint64_t(shnum) * sizeof(typename C::Shdr)});
  return r;
}

} // namespace vesk
