// The output image: a duplicate of the input that every update patches,
// section lookups, section growth and writing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <libelf.h>

namespace vesk {

void duplicate_elf();
void duplicate_elf32();
void duplicate_elf64();
Elf_Scn *find_section_by_name(Elf *elf, const char *name);
Elf_Scn *find_section_by_name32(Elf *elf, const char *name);
Elf_Scn *find_section_by_name64(Elf *elf, const char *name);
Elf_Data *find_section_data_by_name(Elf *elf, const char *name);
// Pointer into the data of the allocated section that holds addr; null when
// none does.  Callers needing n bytes use get_textdata_range instead, which
// also checks that the n bytes lie inside the section's data.
uint8_t *get_textdata_by_addr(Elf *elf, uint64_t addr);
uint8_t *get_textdata_range(Elf *elf, uint64_t addr, size_t n);
void expand_section(Elf_Scn *scn, uint32_t n);
void expand_section32(Elf_Scn *scn, uint32_t n);
void expand_section64(Elf_Scn *scn, uint32_t n);
// Every page of the input that the run has read stays resident as long as
// it is mapped, whether it is read again or not.  This drops them: libelf
// maps the file read-only, so they hold nothing but the file's bytes, which
// a later read fetches again.  Called once the input has been read (the
// typed sections are converted copies by then) and before the output is
// written (its unchanged contents come from their own mapping), it keeps
// the input from counting twice in the run's memory.
void release_input_pages();
// The same for the input's pages that lie wholly inside [p, p + n); nothing
// when those bytes are not the mapped input's.
void release_input_pages(const void *p, size_t n);
// Writes the bytes [p, p + n) at out_offset of the output when they are
// the mapped input's, copied from file to file by the system (they need
// not pass through the run's memory, nor fault the input's pages in);
// false when they are not, or when the two files allow no such copy.
bool copy_input_bytes(const void *p, size_t n, uint64_t out_offset);
// Drops the input pages of [in, in + size) behind a reader that goes
// through them once, front to back, a few megabytes at a time: what it
// writes grows beside it, and both at their full size would set the run's
// peak.  A page read again later is fetched again.
class DropBehind {
public:
  DropBehind(const uint8_t *in, size_t size) : in_(in), size_(size) {}
  void reached(size_t pos) {
    if (pos > done_ + kStep && pos <= size_) {
      release_input_pages(in_ + done_, pos - done_);
      done_ = pos;
    }
  }

private:
  static constexpr size_t kStep = size_t(2) << 20;
  const uint8_t *in_;
  size_t size_;
  size_t done_ = 0;
};
// Writes the image, restores from the input every byte of the file that no
// header or section contents cover, and ends bin.out_elf (left null).
void write_it();
// Allocates size bytes and copies them from src ("malloc error" on failure).
void *dup_buffer(const void *src, size_t size);
// The output's own copy of an input section's contents: a view of the file's
// bytes mapped copy-on-write where libelf hands out the file's bytes as they
// are, else a copy.
void *output_contents(const Elf_Data *in);
// A name for the procedure table: one that lies in the input's image stays
// where it is (the image lives until the output is written); any other is
// copied into the table.
const char *keep_input_name(const char *s);
// The output contents [p, p + n) are about to be written whole, before
// anything reads them: where they lie in the private map of the input,
// their pages are made fresh (not copied from the file) and ready at once.
void prepare_to_overwrite(void *p, size_t n);
// The output contents [p, p + n) are about to be read and partly
// rewritten: where they lie in the private map of the input, their pages
// are copied at once, ready to be written.
void prepare_to_modify(void *p, size_t n);

} // namespace vesk
