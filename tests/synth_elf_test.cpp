#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include "support/synth_elf.h"
#include "vesk/bytes.h"

using namespace vesk::test;

TEST(SynthElf, WritesBigEndianImageThatLibelfReadsBack) {
  SynthElf img;
  img.add(text_section(0x400000, {0x27bdffe0, 0x03e00008, 0x00000000}));
  std::string path = img.write(temp_path("synth"));
  int fd = open(path.c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  Elf *e = elf_begin(fd, ELF_C_READ, nullptr);
  ASSERT_NE(e, nullptr);
  Elf32_Ehdr *h = elf32_getehdr(e);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(h->e_ident[EI_DATA], ELFDATA2MSB);
  Elf_Scn *s = elf_getscn(e, 1);
  Elf_Data *d = elf_getdata(s, nullptr);
  ASSERT_EQ(d->d_size, 12u);
  EXPECT_EQ(vesk::load32(d->d_buf), 0x27bdffe0u);
  elf_end(e);
  close(fd);
  unlink(path.c_str());
}
