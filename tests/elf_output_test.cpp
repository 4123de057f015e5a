// The output image: an untouched duplicate writes the input back byte for
// byte; lookups by name and address; section growth.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include "com/elf.h"
#include "support/bench.h"
#include "support/rewrite_harness.h"
#include "support/run.h"
#include "support/synth_elf.h"
#include "vesk/bin.h"
#include "vesk/bytes.h"
#include "vesk/options.h"

using namespace vesk;
using namespace vesk::test;

using OutputImage = RewriteTest;
using OutputImageDeathTest = RewriteTest;

namespace {

// Duplicates path and writes the duplicate without any update.
std::string write_untouched(const std::string &path) {
  std::string out = temp_path("untouched");
  load_input(path, out);
  begin_output();
  finish_output();
  return out;
}

} // namespace

TEST_F(OutputImage, UntouchedRealExecutablesAreWrittenBackByteForByte) {
  VESK_REQUIRE_BENCH();
  for (const BenchExe &e : bench_executables()) {
    SCOPED_TRACE(e.name);
    std::string out = write_untouched(e.path);
    EXPECT_TRUE(file_bytes(out) == file_bytes(e.path));
    unlink(out.c_str());
  }
}

namespace {

// A small image whose sections leave gaps that libelf would fill, with a
// section without contents, an empty one and bytes behind the section
// header table.
SynthElf gappy_image(bool is64) {
  SynthElf img;
  img.is64 = is64;
  img.entry = 0x400100;
  img.add(text_section(0x400100, {0x27bdffe0, 0x03e00008, 0x00000000}));
  SynthSection ro;
  ro.name = ".rodata";
  ro.type = SHT_PROGBITS;
  ro.flags = SHF_ALLOC;
  ro.addr = 0x400200;
  ro.data = {1, 2, 3, 4, 5, 6, 7, 8, 9};
  ro.align = 64; // forces a gap in front of it
  img.add(ro);
  SynthSection bss;
  bss.name = ".bss";
  bss.type = SHT_NOBITS;
  bss.flags = SHF_ALLOC | SHF_WRITE;
  bss.addr = 0x410000;
  bss.nobits_size = 0x100;
  img.add(bss);
  SynthSection empty;
  empty.name = ".empty";
  empty.type = SHT_PROGBITS;
  empty.flags = 0;
  empty.addr = 0;
  img.add(empty);
  SynthSection note;
  note.name = ".comment";
  note.type = SHT_PROGBITS;
  note.flags = 0;
  note.addr = 0;
  note.data = {'v', 'e', 's', 'k', 0};
  note.align = 1;
  img.add(note);
  img.phdrs.push_back({PT_LOAD, PF_R | PF_X, 0});
  return img;
}

// Writes distinctive bytes into every gap of the file and appends a tail,
// as a linker may leave them.
void paint_gaps(const std::string &path, const std::vector<std::pair<uint64_t, uint64_t>> &gaps) {
  int fd = open(path.c_str(), O_WRONLY);
  ASSERT_GE(fd, 0);
  for (auto [off, len] : gaps) {
    std::vector<uint8_t> b(len, 0xa5);
    ASSERT_EQ(pwrite(fd, b.data(), len, off_t(off)), ssize_t(len));
  }
  off_t end = lseek(fd, 0, SEEK_END);
  const char tail[] = "trailing bytes";
  ASSERT_EQ(pwrite(fd, tail, sizeof tail, end), ssize_t(sizeof tail));
  close(fd);
}

// The gaps between what the headers of path cover.
std::vector<std::pair<uint64_t, uint64_t>> gaps_of(const std::string &path) {
  int fd = open(path.c_str(), O_RDONLY);
  Elf *e = elf_begin(fd, ELF_C_READ, nullptr);
  GElf_Ehdr eh;
  gelf_getehdr(e, &eh);
  std::vector<std::pair<uint64_t, uint64_t>> used{{0, eh.e_ehsize},
                                                   {eh.e_phoff, eh.e_phoff + eh.e_phnum * eh.e_phentsize},
                                                   {eh.e_shoff, eh.e_shoff + eh.e_shnum * eh.e_shentsize}};
  for (Elf_Scn *s = elf_nextscn(e, nullptr); s; s = elf_nextscn(e, s)) {
    GElf_Shdr sh;
    gelf_getshdr(s, &sh);
    if (sh.sh_type != SHT_NOBITS)
      used.push_back({sh.sh_offset, sh.sh_offset + sh.sh_size});
  }
  elf_end(e);
  close(fd);
  std::sort(used.begin(), used.end());
  std::vector<std::pair<uint64_t, uint64_t>> gaps;
  uint64_t pos = 0;
  for (auto [b, en] : used) {
    if (b > pos)
      gaps.push_back({pos, b - pos});
    pos = std::max(pos, en);
  }
  return gaps;
}

} // namespace

TEST_F(OutputImage, GapsAndTrailingBytesOfASyntheticImageSurvive) {
  for (bool is64 : {false, true}) {
    SCOPED_TRACE(is64 ? "64-bit" : "32-bit");
    std::string in = gappy_image(is64).write(temp_path("gappy"));
    auto gaps = gaps_of(in);
    ASSERT_FALSE(gaps.empty());
    paint_gaps(in, gaps);
    std::string out = write_untouched(in);
    EXPECT_TRUE(file_bytes(out) == file_bytes(in));
    unlink(in.c_str());
    unlink(out.c_str());
  }
}

TEST_F(OutputImage, AddressLookupFindsTheHoldingSectionAndChecksTheRange) {
  SynthElf img;
  img.add(text_section(0x400100, {0x11111111, 0x22222222}));
  SynthSection tbss; // thread-local, shares its addresses with .next
  tbss.name = ".tbss";
  tbss.type = SHT_NOBITS;
  tbss.flags = SHF_ALLOC | SHF_WRITE | SHF_TLS;
  tbss.addr = 0x400108;
  tbss.nobits_size = 8;
  img.add(tbss);
  SynthSection next;
  next.name = ".next";
  next.type = SHT_PROGBITS;
  next.flags = SHF_ALLOC;
  next.addr = 0x400108;
  vesk::test::put32(next.data, 0x33333333);
  img.add(next);
  SynthSection bss;
  bss.name = ".bss";
  bss.type = SHT_NOBITS;
  bss.flags = SHF_ALLOC | SHF_WRITE;
  bss.addr = 0x400200;
  bss.nobits_size = 0x10;
  img.add(bss);
  SynthSection unalloc;
  unalloc.name = ".note.x";
  unalloc.type = SHT_PROGBITS;
  unalloc.flags = 0;
  unalloc.addr = 0x400300;
  vesk::test::put32(unalloc.data, 0x44444444);
  img.add(unalloc);
  std::string in = img.write(temp_path("addr"));
  load_input(in, temp_path("addr-out"));
  begin_output();

  uint8_t *p = get_textdata_by_addr(bin.out_elf, 0x400104);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(load32(p), 0x22222222u);
  EXPECT_EQ(p, bin.new_text + 4);
  // The end of .text is the start of .next (and of .tbss, which has no
  // contents).
  p = get_textdata_by_addr(bin.out_elf, 0x400108);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(load32(p), 0x33333333u);
  // Four bytes at .text's last word fit, eight do not.
  EXPECT_NE(get_textdata_range(bin.out_elf, 0x400104, 4), nullptr);
  EXPECT_EQ(get_textdata_range(bin.out_elf, 0x400106, 4), nullptr);
  // No contents in .bss, nothing allocated at a non-allocated address.
  EXPECT_EQ(get_textdata_by_addr(bin.out_elf, 0x400204), nullptr);
  EXPECT_EQ(get_textdata_by_addr(bin.out_elf, 0x400300), nullptr);
  EXPECT_EQ(get_textdata_by_addr(bin.out_elf, 0x10), nullptr);
  finish_output();
  unlink(in.c_str());
  unlink(option.output);
}

TEST_F(OutputImage, GrowingTheLastSectionMovesOnlyWhatLiesBehindIt) {
  for (bool is64 : {false, true}) {
    SCOPED_TRACE(is64 ? "64-bit" : "32-bit");
    std::string in = gappy_image(is64).write(temp_path("grow"));
    load_input(in, temp_path("grow-out"));
    begin_output();
    Elf_Scn *comment = find_section_by_name(bin.out_elf, ".comment");
    ASSERT_NE(comment, nullptr);
    GElf_Shdr before, after;
    gelf_getshdr(comment, &before);
    GElf_Ehdr eh0;
    gelf_getehdr(bin.out_elf, &eh0);
    Elf_Data *d = elf_getdata(comment, nullptr);
    static const char grown[] = "vesk\0more";
    d->d_buf = dup_buffer(grown, sizeof grown);
    expand_section(comment, uint32_t(sizeof grown - d->d_size));
    gelf_getshdr(comment, &after);
    GElf_Ehdr eh1;
    gelf_getehdr(bin.out_elf, &eh1);
    EXPECT_EQ(after.sh_size, sizeof grown);
    EXPECT_EQ(d->d_size, sizeof grown);
    // The section header table lies behind .comment and .shstrtab.
    EXPECT_EQ(eh1.e_shoff, eh0.e_shoff + (sizeof grown - before.sh_size));
    GElf_Shdr names;
    gelf_getshdr(elf_getscn(bin.out_elf, eh1.e_shstrndx), &names);
    finish_output();
    RunResult r = run_command({"readelf", "-S", "-W", "-x", ".comment", option.output});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_NE(r.out.find("vesk.more"), std::string::npos) << r.out;
    unlink(in.c_str());
    unlink(option.output);
  }
}

TEST_F(OutputImageDeathTest, GotOffsetLookupIsForThirtyTwoBitImagesOnly) {
  bin = Bin{};
  bin.is_elf32 = 0;
  EXPECT_EXIT(get_addr_by_got_offset(0), testing::ExitedWithCode(1),
              "^Error: com/elf:65 ASSERT\\(IS_32BIT\\(\\)\\)\\.\n$");
  static const uint8_t got[8] = {0, 0, 0, 0, 0x00, 0x40, 0x01, 0x00};
  bin.is_elf32 = 1;
  bin.got_buf = got;
  bin.got_count = 2;
  bin.pltgot = 0x410000;
  bin.gp_value = 0x418000;
  EXPECT_EQ(get_addr_by_got_offset(-0x8000 + 4), 0x400100u);
  EXPECT_EXIT(get_addr_by_got_offset(-0x8000 + 8), testing::ExitedWithCode(1), "^Error: .*\\.got");
}
