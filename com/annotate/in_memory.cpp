#include "com/annotate/in_memory.h"

#include <cstdio>
#include <cstring>
#include <gelf.h>
#include <memory>
#include <sys/mman.h>
#include <unistd.h>

#include "base/bin.h"
#include "base/diag.h"
#include "base/file_io.h"
#include "base/options.h"
#include "com/annotate/describe.h"
#include "com/annotate/image.h"
#include "com/annotate/write.h"

namespace vesk {

namespace {

// Whether the file is a MIPS executable without a description of its code
// addresses that keeps relocations of .text.  Anything unusual answers no:
// the reader then refuses it with its own message.
bool needs_description(int fd) {
  elf_version(EV_CURRENT);
  std::unique_ptr<Elf, int (*)(Elf *)> elf(elf_begin(fd, ELF_C_READ, nullptr), elf_end);
  GElf_Ehdr eh;
  size_t shstrndx;
  if (elf == nullptr || elf_kind(elf.get()) != ELF_K_ELF || gelf_getehdr(elf.get(), &eh) == nullptr ||
      eh.e_machine != EM_MIPS || eh.e_ident[EI_DATA] != ELFDATA2MSB ||
      elf_getshdrstrndx(elf.get(), &shstrndx) != 0)
    return false;
  size_t text = 0;
  std::vector<size_t> relocated; // the sections relocation tables patch
  for (Elf_Scn *scn = elf_nextscn(elf.get(), nullptr); scn != nullptr; scn = elf_nextscn(elf.get(), scn)) {
    GElf_Shdr sh;
    if (gelf_getshdr(scn, &sh) == nullptr)
      return false;
    const char *name = elf_strptr(elf.get(), shstrndx, sh.sh_name);
    if (name == nullptr)
      return false;
    // A description that is there, even a damaged one, is vesk's to read.
    if (std::strcmp(name, ".compact_rel") == 0 || std::strcmp(name, ".MIPS.events") == 0 ||
        std::strcmp(name, ".MIPS.content") == 0 || sh.sh_type == SHT_MIPS_EVENTS || sh.sh_type == SHT_MIPS_CONTENT)
      return false;
    if (std::strcmp(name, ".text") == 0)
      text = elf_ndxscn(scn);
    if (sh.sh_type == SHT_REL || sh.sh_type == SHT_RELA)
      relocated.push_back(sh.sh_info);
  }
  for (size_t target : relocated)
    if (text != 0 && target == text)
      return true;
  return false;
}

} // namespace

void describe_code_addresses_in_memory() {
  if (!needs_description(bin.in_fd))
    return;
  annotate::Image im = annotate::read_image(option.program, bin.in_fd);
  annotate::Description d = annotate::describe(im);
  annotate::AnnotatedFile file = annotate::annotated_file(im, d, annotate::annotation_sections(im, d));
  int fd = memfd_create("vesk-input", MFD_CLOEXEC);
  if (fd < 0)
    sysfatal("cannot make room for the description of %s", option.program);
  close(bin.in_fd);
  bin.in_fd = fd;
  write_at(fd, 0, file.head, file.head_size, "contents", "the described input");
  write_at(fd, file.head_size, file.tail.data(), file.tail.size(), "contents", "the described input");
  if (option.verbose) {
    if (im.is_o32())
      std::printf("%s: %zu code-address references described in memory (%zu GOT page entries)\n", option.program,
                  d.entries.size(), d.got_pages.size());
    else
      std::printf("%s: %zu events and %zu data records described in memory (%zu GOT page entries)\n",
                  option.program, d.events.size(), d.data.size(), d.got_pages.size());
  }
}

} // namespace vesk
