// A corpus of damaged inputs, kept as recipes: each takes a calc build of
// the bench, damages one field of a header, table or section (or the
// feedback file, or the command line), and vesk must refuse the run with
// one "Error: " line that names the damaged file, status 1, no file left
// behind and every input as it was.  A second test damages sections that
// no loader reads (.compact_rel, .mdebug, DWARF) at random: a run vesk
// does not refuse must give a program that behaves as the input.
#include <gtest/gtest.h>

#include <cstddef>
#include <dirent.h>
#include <functional>
#include <map>
#include <random>
#include <sys/stat.h>
#include <unistd.h>

#include "base/bytes.h"
#include "com/dwarf_scan.h"
#include "mdebug/records.h"
#include "support/bench.h"
#include "vesk/driver.h"

using namespace vesk;
using namespace vesk::test;

namespace {

// A field of a header: offset and size in the 32-bit and 64-bit layouts.
struct Field {
  unsigned off32, size32, off64, size64;
};
#define EH(f) Field{offsetof(Elf32_Ehdr, f), sizeof(Elf32_Ehdr::f), offsetof(Elf64_Ehdr, f), sizeof(Elf64_Ehdr::f)}
#define SH(f) Field{offsetof(Elf32_Shdr, f), sizeof(Elf32_Shdr::f), offsetof(Elf64_Shdr, f), sizeof(Elf64_Shdr::f)}
#define HDRR(f) offsetof(Hdrr, f)

using Args = std::vector<std::string>;

// The files of a run being prepared: prog (and its sections), prog.fb,
// the command line, and which file the error must name.
struct Victim {
  const ScratchDir &dir;
  std::string bytes;
  ElfFile elf;
  Args args = {"prog", "-o", "out"};
  std::string named = "prog";

  explicit Victim(const ScratchDir &d) : dir(d), bytes(read_file(d / "prog")), elf(d / "prog") {}
  void put(uint64_t off, unsigned size, uint64_t v) {
    ASSERT_LE(off + size, bytes.size());
    uint8_t *p = reinterpret_cast<uint8_t *>(&bytes[off]);
    size == 1 ? void(*p = uint8_t(v)) : size == 2 ? store16(p, uint16_t(v)) : size == 4 ? store32(p, uint32_t(v)) : store64(p, v);
  }
  void words(uint64_t off, std::initializer_list<uint32_t> ws) {
    for (uint32_t w : ws)
      put(off, 4, w), off += 4;
  }
  uint32_t get32(uint64_t off) const { return load32(bytes.data() + off); }
  // The offset of the last unit of a DWARF section of 32-bit units.
  uint64_t last_unit(const char *sec) {
    uint64_t at = 0, last = 0, size = elf.shdr(sec).sh_size;
    for (; at + 4 <= size; at += 4 + uint64_t(get32(this->at(sec, at))))
      last = at;
    return last;
  }
  void eh(Field f, uint64_t v) { put(elf.is64 ? f.off64 : f.off32, elf.is64 ? f.size64 : f.size32, v); }
  void sh(const char *sec, Field f, uint64_t v) {
    Elf_Scn *s = elf.scn(sec);
    ASSERT_NE(s, nullptr) << sec;
    uint64_t at = elf.ehdr().e_shoff + elf_ndxscn(s) * elf.ehdr().e_shentsize;
    put(at + (elf.is64 ? f.off64 : f.off32), elf.is64 ? f.size64 : f.size32, v);
  }
  uint64_t at(const char *sec, uint64_t off = 0) const { return elf.shdr(sec).sh_offset + off; }
  void put32(const char *sec, uint64_t off, uint32_t v) { put(at(sec, off), 4, v); }
  // The mdebug header field at off, a field of the first file descriptor or procedure descriptor.
  void hdrr(size_t off, uint32_t v) { put32(".mdebug", off, v); }
  void fdr0(size_t off, unsigned size, uint32_t v) { put(get32(at(".mdebug", HDRR(cbFdOffset))) + off, size, v); }
  void pdr0(size_t off, uint32_t v) { put(get32(at(".mdebug", HDRR(cbPdOffset))) + off, 4, v); }
  // The dynamic entry with tag, its value set to v (or its tag, with to_tag).
  void dyn(int64_t tag, uint64_t v, bool to_tag = false) {
    size_t i = 0, entry = elf.is64 ? 16 : 8;
    for (const GElf_Dyn &d : elf.dynamic()) {
      if (d.d_tag == tag)
        return put(at(".dynamic", i * entry + (to_tag ? 0 : entry / 2)), unsigned(entry / 2), v);
      ++i;
    }
    ADD_FAILURE() << "no dynamic tag " << tag;
  }
  // File offset of the first .compact_rel entry, behind the header's pairs up to tag 0.
  uint64_t cr_entry0() const {
    uint64_t o = at(".compact_rel");
    while (get32(o) != 0)
      o += 8;
    return o + 8;
  }
  void feedback(const std::string &text) { write_file(dir / "prog.fb", text), named = "prog.fb"; }
};

struct Recipe {
  const char *what;
  const char *exe; // n64: DWARF; o32m, o32d: mdebug, DWARF, annotated; o32p: DWARF as linked
  std::function<void(Victim &)> damage;
  const char *message; // expected in the error line, beside the file's name
};

const uint64_t kHuge = 0x7ffffff0;
const char kFb[] = "$magic 1\n$version 2\n$start\nmain calc.c 1\n";

// clang-format off
const Recipe kRecipes[] = {
  // ELF header
  {"no ELF magic", "n64", [](Victim &v) { v.put(1, 1, 'X'); }, "unknown object format"},
  {"class none", "n64", [](Victim &v) { v.put(EI_CLASS, 1, ELFCLASSNONE); }, "unknown object format"},
  {"o32 read as 64-bit", "o32m", [](Victim &v) { v.put(EI_CLASS, 1, ELFCLASS64); }, "header table entries of"},
  {"little-endian", "o32m", [](Victim &v) { v.put(EI_DATA, 1, ELFDATA2LSB); }, "is not a MIPS executable"},
  {"byte order none", "n64", [](Victim &v) { v.put(EI_DATA, 1, ELFDATANONE); }, "unknown object format"},
  {"ident version 0", "n64", [](Victim &v) { v.put(EI_VERSION, 1, 0); }, "unknown object format"},
  {"not MIPS", "o32m", [](Victim &v) { v.eh(EH(e_machine), EM_386); }, "is not a MIPS executable"},
  {"relocatable object", "n64", [](Victim &v) { v.eh(EH(e_type), ET_REL); }, "is not an executable"},
  {"core file", "o32m", [](Victim &v) { v.eh(EH(e_type), ET_CORE); }, "is not an executable"},
  {"version 0", "o32m", [](Victim &v) { v.eh(EH(e_version), 0); }, "ELF version 0"},
  {"section headers beyond the file", "n64", [](Victim &v) { v.eh(EH(e_shoff), kHuge); }, "section header table lies outside"},
  {"section headers in mid-file", "o32m", [](Victim &v) { v.eh(EH(e_shoff), v.at(".text", 2)); }, "cannot read the section name table"},
  {"no section headers", "o32m", [](Victim &v) { v.eh(EH(e_shnum), 0); }, "section header table lies outside"},
  {"too many section headers", "n64", [](Victim &v) { v.eh(EH(e_shnum), 0xfff0); }, "section header table lies outside"},
  {"section entry size 1", "o32m", [](Victim &v) { v.eh(EH(e_shentsize), 1); }, "header table entries of"},
  {"name table index out of range", "n64", [](Victim &v) { v.eh(EH(e_shstrndx), 0xf000); }, "cannot read the section name table"},
  {"name table is .text", "o32d", [](Victim &v) { v.eh(EH(e_shstrndx), elf_ndxscn(v.elf.scn(".text"))); }, "No debug section"},
  {"program headers beyond the file", "n64", [](Victim &v) { v.eh(EH(e_phoff), kHuge); }, "invalid data"},
  {"too many program headers", "o32m", [](Victim &v) { v.eh(EH(e_phnum), 0xfff0); }, "overlaps the ELF header or a header table"},
  {"entry outside the code", "o32m", [](Victim &v) { v.eh(EH(e_entry), 0x10); }, "entry point 0x10 lies in no code section"},
  // section headers
  // kept relocations, from which vesk describes the code addresses
  {"a relocation outside .text", "o32p", [](Victim &v) { v.put32(".rel.text", 0, 0x7ffffff0); }, "which is not a word of .text"},
  {"the relocations of .text moved to .bss", "o32p", [](Victim &v) { v.sh(".rel.text", SH(sh_info), elf_ndxscn(v.elf.scn(".bss"))); }, "no relocations of .text to describe"},
  {"a relocation naming no symbol", "n64", [](Victim &v) { v.put(v.at(".rela.text", 8), 4, 0x00ffffff); }, "which .symtab does not have"},
  {"the GOT's start far from .got", "o32p", [](Victim &v) { v.dyn(DT_PLTGOT, 0x7ffffff0); }, ".dynamic puts the GOT at"},
  {".text size beyond the file", "n64", [](Victim &v) { v.sh(".text", SH(sh_size), kHuge); }, "lies outside the file"},
  {".text without contents", "o32m", [](Victim &v) { v.sh(".text", SH(sh_type), SHT_NOBITS); }, "cannot read the contents of section .text"},
  {".text at a half-word", "o32m", [](Victim &v) { v.sh(".text", SH(sh_addr), v.elf.shdr(".text").sh_addr + 2); }, "not on a word boundary"},
  {"a name outside the name table", "n64", [](Victim &v) { v.sh(".got", SH(sh_name), kHuge); }, "a section name lies outside"},
  {".dynamic over the ELF header", "o32d", [](Victim &v) { v.sh(".dynamic", SH(sh_offset), 0); }, "overlaps the ELF header"},
  {".dynamic not dynamic", "n64", [](Victim &v) { v.sh(".dynamic", SH(sh_type), SHT_PROGBITS); }, "cannot read the dynamic section"},
  {".got beyond the file", "o32m", [](Victim &v) { v.sh(".got", SH(sh_offset), kHuge); }, "section .got"},
  {".got shorter than its local entries", "o32m", [](Victim &v) { v.sh(".got", SH(sh_size), 4); }, "local GOT entries, but .got holds 1"},
  {".dynsym beyond the file", "o32d", [](Victim &v) { v.sh(".dynsym", SH(sh_size), kHuge); }, "section .dynsym"},
  {".symtab linked to no section", "o32m", [](Victim &v) { v.sh(".symtab", SH(sh_link), 0xfff0); }, "no string table"},
  {".hash truncated", "o32m", [](Victim &v) { v.sh(".hash", SH(sh_size), 4); }, ".hash section is too short"},
  {".reginfo truncated", "o32m", [](Victim &v) { v.sh(".reginfo", SH(sh_size), 8); }, ".reginfo is truncated"},
  {".MIPS.options truncated", "n64", [](Victim &v) { v.sh(".MIPS.options", SH(sh_size), 12); }, ".MIPS.options is truncated"},
  {".debug_info beyond the file", "n64", [](Victim &v) { v.sh(".debug_info", SH(sh_offset), kHuge); }, "section .debug_info"},
  {".mdebug beyond the file", "o32m", [](Victim &v) { v.sh(".mdebug", SH(sh_size), kHuge); }, "section .mdebug"},
  {".compact_rel beyond the file", "o32d", [](Victim &v) { v.sh(".compact_rel", SH(sh_offset), kHuge); }, "section .compact_rel"},
  // .dynamic
  {"more local GOT entries than .got", "o32m", [](Victim &v) { v.dyn(DT_MIPS_LOCAL_GOTNO, 0x10000); }, "65536 local GOT entries"},
  {"GOT symbols beyond .dynsym", "o32d", [](Victim &v) { v.dyn(DT_MIPS_GOTSYM, 0x10000); }, "65536 as the first GOT symbol"},
  {"GOT elsewhere", "o32m", [](Victim &v) { v.dyn(DT_PLTGOT, 0x10); }, "puts the GOT at 0x10"},
  {"multi-GOT", "o32m", [](Victim &v) { v.dyn(DT_MIPS_GOTSYM, 0x70000031, true); }, "multi-GOT"},
  // .compact_rel
  {".compact_rel header without its end", "o32m",
   [](Victim &v) { for (uint64_t o = 0; o < v.elf.shdr(".compact_rel").sh_size; o += 4) v.put32(".compact_rel", o, 1); }, "no terminating pair"},
  {".compact_rel count too large", "o32d", [](Victim &v) { v.put32(".compact_rel", 4, 0x100000); }, "of 1048576 runs past the end"},
  {".compact_rel entry of type 1", "o32m", [](Victim &v) { v.put(v.cr_entry0(), 4, (v.get32(v.cr_entry0()) & ~(7u << 27)) | 1u << 27); }, "unknown compact relocation type 1"},
  {".compact_rel %hi outside .text", "o32d", [](Victim &v) { v.words(v.cr_entry0(), {0xc0000000u | 7u << 27, 0x400000, 0x10}); }, "entry at 0x10 lies outside .text"},
  {".compact_rel GOT page beyond .got", "o32m", [](Victim &v) { v.put32(".compact_rel", 0, 2), v.put32(".compact_rel", 4, 0xfff0); }, "names GOT entry 65520"},
  // .mdebug
  {"mdebug magic", "o32m", [](Victim &v) { v.put(v.at(".mdebug"), 2, 0x1234); }, "magic 0x1234"},
  {"mdebug 64-bit form", "o32m", [](Victim &v) { v.put(v.at(".mdebug"), 2, MDEBUG_MAGIC_64); }, "64-bit symbolic table"},
  {"mdebug file count", "o32m", [](Victim &v) { v.hdrr(HDRR(ifdMax), kHuge); }, "file descriptors (2147483632 entries"},
  {"mdebug file table offset", "o32m", [](Victim &v) { v.hdrr(HDRR(cbFdOffset), kHuge); }, "file descriptors (4 entries at file offset 0x7ffffff0)"},
  {"mdebug procedure count", "o32m", [](Victim &v) { v.hdrr(HDRR(ipdMax), kHuge); }, "procedure descriptors (2147483632"},
  {"mdebug symbol table offset", "o32m", [](Victim &v) { v.hdrr(HDRR(cbSymOffset), 0); }, "local symbols ("},
  {"mdebug string space", "o32m", [](Victim &v) { v.hdrr(HDRR(issMax), kHuge); }, "local strings (2147483632"},
  {"mdebug external symbols", "o32m", [](Victim &v) { v.hdrr(HDRR(iextMax), kHuge); }, "external symbols (2147483632"},
  {"mdebug line table", "o32m", [](Victim &v) { v.hdrr(HDRR(cbLine), 0x100), v.hdrr(HDRR(cbLineOffset), kHuge); },
   "line table (256 bytes at file offset 0x7ffffff0) lies outside"},
  {"mdebug file's first procedure", "o32m", [](Victim &v) { v.fdr0(offsetof(Fdr, ipdFirst), 2, 0xfff0); }, "lists procedure descriptors 65520"},
  {"mdebug file's procedure count", "o32m", [](Victim &v) { v.fdr0(offsetof(Fdr, cpd), 2, 0xfff0); }, "lists procedure descriptors 0 to 65519"},
  {"mdebug file's name", "o32m", [](Victim &v) { v.fdr0(offsetof(Fdr, rss), 4, kHuge); }, "name of mdebug file 0"},
  {"mdebug file's symbols", "o32m", [](Victim &v) { v.fdr0(offsetof(Fdr, isymBase), 4, kHuge); }, "has no symbol"},
  {"mdebug procedure's symbol", "o32m", [](Victim &v) { v.pdr0(offsetof(Pdr, isym), kHuge); }, "has no symbol"},
  // DWARF
  {"DWARF unit length", "n64", [](Victim &v) { v.put32(".debug_info", 0, kHuge); }, "section .debug_info is damaged"},
  {"DWARF unit version", "o32d", [](Victim &v) { v.put(v.at(".debug_info", 4), 2, 99); }, "DWARF information (dwarf_siblingof)"},
  {"DWARF address size", "n64", [](Victim &v) { v.put(v.at(".debug_info", 7), 1, 3); }, "addresses are neither 4 nor 8 bytes"},
  {"DWARF abbreviations offset", "o32d", [](Victim &v) { v.put32(".debug_info", 8, kHuge); }, "DWARF information (dwarf_next_cu_header)"},
  {"DWARF abbreviation code", "n64", [](Victim &v) { v.put(v.at(".debug_info", 12), 1, 0x7f); }, "DWARF information (dwarf_tag)"},
  {"DWARF abbreviation code of the last unit", "n64", [](Victim &v) { v.put(v.at(".debug_info", v.last_unit(".debug_info") + 12), 1, 0x7f); }, "DWARF information (dwarf_tag)"},
  {"DWARF range list unit length", "o32d", [](Victim &v) { v.put32(".debug_rnglists", 0, kHuge); }, ".debug_rnglists is damaged"},
  {"DWARF range list version", "n64", [](Victim &v) { v.put(v.at(".debug_rnglists", 4), 2, 9); }, "has version 9"},
  {"DWARF compressed", "n64", [](Victim &v) { v.sh(".debug_info", SH(sh_flags), SHF_COMPRESSED); }, "section .debug_info is compressed"},
  {"DWARF strings cut", "o32d", [](Victim &v) { v.sh(".debug_str", SH(sh_size), 4); }, "DWARF information (dwarf_diename)"},
  {"DWARF line program length", "n64", [](Victim &v) { v.put32(".debug_line", 0, kHuge); }, "section .debug_line is damaged"},
  {"DWARF line program version", "o32d", [](Victim &v) { v.put(v.at(".debug_line", 4), 2, 1); }, "a line program of a version vesk does not know"},
  {"DWARF address range table version", "o32d", [](Victim &v) { v.put(v.at(".debug_aranges", 4), 2, 9); }, "section .debug_aranges is damaged"},
  {"DWARF range list offset array", "n64", [](Victim &v) { v.put32(".debug_rnglists", 8, 1); }, "a table with an offset array"},
  {"DWARF lists and line programs damaged: the lists come first", "o32d", [](Victim &v) { v.put32(".debug_rnglists", 8, 1), v.put(v.at(".debug_line", 4), 2, 1); }, "a table with an offset array"},
  {"DWARF location list offset array", "n64", [](Victim &v) { v.put32(".debug_loclists", 8, 1); }, ".debug_loclists is damaged: a table with an offset array"},
  {"DWARF range and location lists damaged: the range lists come first", "o32d", [](Victim &v) { v.put32(".debug_loclists", 8, 1), v.put32(".debug_rnglists", 8, 1); }, ".debug_rnglists is damaged"},
  {"DWARF location lists and line programs damaged: the location lists come first", "o32d", [](Victim &v) { v.put32(".debug_loclists", 8, 1), v.put(v.at(".debug_line", 4), 2, 1); }, ".debug_loclists is damaged"},
  // feedback files
  {"feedback version 3", "n64", [](Victim &v) { v.feedback("$magic 1\n$version 3\n$start\n"); }, "invalid version"},
  {"feedback without a version", "o32m", [](Victim &v) { v.feedback("$magic 1\n$start\nmain calc.c 3\n"); }, "invalid version"},
  {"empty feedback", "n64", [](Victim &v) { v.feedback(""); }, "invalid version"},
  {"feedback header line too long", "n64", [](Victim &v) { v.feedback("$magic 1\n$name " + std::string(600, 'x') + "\n"); }, "line too long"},
  {"feedback magic out of range", "o32m", [](Victim &v) { v.feedback("$magic 99999999999\n$version 2\n$start\n"); }, "value 99999999999 of $magic"},
  {"feedback timestamp out of range", "n64", [](Victim &v) { v.feedback("$magic 1\n$version 2\n$timestamp 1ffffffff\n$start\n"); }, "value 1ffffffff of $timestamp"},
  {"feedback header line without $", "o32m", [](Victim &v) { v.feedback("$magic 1\n$version 2\nmain calc.c 1\n"); }, "syntax error"},
  {"feedback directive after $start", "o32d", [](Victim &v) { v.feedback(std::string(kFb) + "$version 2\n"); }, "directive after $start"},
  {"feedback is a directory", "n64", [](Victim &v) { v.args.push_back("fbdir"), mkdir((v.dir / "fbdir").c_str(), 0755), v.named = "fbdir"; }, "is not a regular file"},
  {"feedback is a FIFO", "n64", [](Victim &v) { v.args.push_back("fifo"), mkfifo((v.dir / "fifo").c_str(), 0644), v.named = "fifo"; }, "is not a regular file"},
  {"feedback missing", "o32m", [](Victim &v) { v.args.push_back("nofb"), v.named = "nofb"; }, "cannot read reorder file"},
  {"feedback missing, program damaged: the program comes first", "o32m", [](Victim &v) { v.pdr0(offsetof(Pdr, isym), kHuge), v.args.push_back("nofb"); }, "has no symbol"},
  {"two feedback files damaged: the last, read first, comes first", "o32m", [](Victim &v) { write_file(v.dir / "a.fb", "$magic 1\n$version 3\n$start\n"), v.feedback("$magic 1\n$start\n"), v.args = {"prog", "a.fb", "prog.fb", "-o", "out"}; }, "invalid version"},
  // command lines
  {"input is a directory", "n64", [](Victim &v) { v.args = {"sub", "prog.fb", "-o", "out"}, mkdir((v.dir / "sub").c_str(), 0755), v.named = "sub"; }, "is not a regular file"},
  {"input is a FIFO", "n64", [](Victim &v) { v.args = {"pipe", "prog.fb", "-o", "out"}, mkfifo((v.dir / "pipe").c_str(), 0644), v.named = "pipe"; }, "is not a regular file"},
  {"output in a missing directory", "n64", [](Victim &v) { v.args = {"prog", "-o", "no/out"}, v.named = "no/out"; }, "No such file or directory"},
  {"output is the feedback", "o32m", [](Victim &v) { v.args = {"prog", "prog.fb", "-o", "prog.fb"}, v.named = "prog.fb"; }, "is the feedback file"},
  {"merged feedback over the input", "n64", [](Victim &v) { v.args = {"prog", "-o", "out", "-merge", "prog"}; }, "is the input file"},
  {"-o without a file", "n64", [](Victim &v) { v.args = {"prog", "-o"}, v.named = "-o"; }, "file not specified with -o"},
  {"unknown option", "n64", [](Victim &v) { v.args = {"-frobnicate", "prog"}, v.named = "-frobnicate"; }, "Incorrect option"},
  {"no program", "n64", [](Victim &v) { v.args = {"-v"}, v.named = ""; }, "program name not specified"},
};
// clang-format on

const char *bench_of(const std::string &key) {
  return key == "n64"    ? "calc-n64-dwarf-pie"
         : key == "o32m" ? "calc-o32-mdebug-fno-pie"
                         : "calc-o32-dwarf-pie";
}

// The bench build of key, annotated when it is o32, made once per test.
std::string original(const std::string &key, const ScratchDir &cache) {
  std::string path = cache / key;
  if (access(path.c_str(), F_OK) != 0) {
    std::string exe = bench_named(bench_of(key))->path;
    if (key == "n64" || key == "o32p") // vesk describes their code addresses itself
      write_file(path, read_file(exe));
    else
      EXPECT_EQ(run_command({annotate_binary(), exe, "-o", path}).status, 0);
  }
  return read_file(path);
}

// The line names file (when there is one): as a word of its own, not as
// part of another name.
bool names(const std::string &line, const std::string &file) {
  if (file.empty())
    return true;
  for (size_t at = line.find(" " + file); at != std::string::npos; at = line.find(" " + file, at + 1)) {
    std::string next = line.substr(at + 1 + file.size(), 2);
    if (next.empty() || next[0] == ':' || next[0] == ' ' || next[0] == ';' || next == ".\n" || next == ". ")
      return true;
  }
  return false;
}

// Every entry of dir (hidden ones too) with a hash of its contents.
std::map<std::string, size_t> hashes(const std::string &dir) {
  std::map<std::string, size_t> out;
  DIR *d = opendir(dir.c_str());
  while (struct dirent *e = d ? readdir(d) : nullptr) {
    std::string name = e->d_name, path = dir + "/" + name;
    struct stat st;
    if (name != "." && name != ".." && lstat(path.c_str(), &st) == 0)
      out[name] = S_ISREG(st.st_mode) ? std::hash<std::string>{}(read_file(path)) : size_t(st.st_mode);
  }
  if (d)
    closedir(d);
  return out;
}

} // namespace

TEST(DamagedInputs, RefusedWithOneErrorLineNamingTheFileNothingWrittenInputsUnchanged) {
  VESK_REQUIRE_BENCH();
  ScratchDir cache("originals");
  for (const Recipe &c : kRecipes) {
    SCOPED_TRACE(c.what);
    ScratchDir dir("damaged");
    write_file(dir / "prog", original(c.exe, cache));
    write_file(dir / "prog.fb", std::string(c.exe) == "n64" ? kNoFeedback : kFb);
    Victim v(dir);
    c.damage(v);
    write_file(dir / "prog", v.bytes);
    const auto before = hashes(dir.path());
    RunResult r = run_vesk(v.args, dir.path());
    EXPECT_EQ(r.status, 1) << r.err;
    size_t at = r.err.find("Error: ");
    ASSERT_NE(at, std::string::npos) << r.err;
    std::string line = r.err.substr(at);
    EXPECT_EQ(line.find('\n'), line.size() - 1) << "one error line, the last: " << r.err;
    EXPECT_EQ(r.err.find("Error: ", at + 1), std::string::npos) << r.err;
    EXPECT_NE(line.find(c.message), std::string::npos) << line;
    EXPECT_TRUE(names(line, v.named)) << "the error names " << v.named << ": " << line;
    EXPECT_EQ(hashes(dir.path()), before) << "a file was written, removed or changed";
  }
}

// Sections no loader reads (.compact_rel, .mdebug, DWARF; events when n32
// and n64 code moves), damaged at random (the same on every run): vesk
// refuses the run, or the program it writes prints what the input prints.
TEST(DamagedInputs, UnloadedSectionsDamagedNeverChangeWhatTheProgramDoes) {
  VESK_REQUIRE_BENCH();
  ScratchDir cache("originals");
  const std::string feedback = read_file(std::string(VESK_SOURCE_DIR) + "/examples/calc.fb");
  const std::pair<const char *, std::vector<const char *>> targets[] = {
      {"o32m", {".compact_rel", ".mdebug"}},
      {"o32d", {".compact_rel", ".debug_info", ".debug_abbrev", ".debug_rnglists", ".debug_str", ".debug_line"}}};
  std::mt19937 rng(14);
  int ran = 0;
  for (const auto &[exe, sections] : targets)
    for (const char *sec : sections)
      for (int k = 0; k < 5; ++k) {
        ScratchDir dir("unloaded");
        write_file(dir / "prog", original(exe, cache));
        write_file(dir / "prog.fb", feedback);
        Victim v(dir);
        uint64_t off = rng() % (v.elf.shdr(sec).sh_size & ~uint64_t(3)), value = rng();
        SCOPED_TRACE(std::string(exe) + " " + sec + " at " + std::to_string(off) + " " + std::to_string(value));
        k % 2 ? v.put(v.at(sec, off), 4, value) : v.put(v.at(sec, off), 1, value);
        write_file(dir / "prog", v.bytes);
        RunResult r = run_vesk({"prog", "-o", "out"}, dir.path());
        if (r.status != 0) {
          EXPECT_EQ(r.status, 1) << r.err;
          EXPECT_NE(r.err.find("Error: prog"), std::string::npos) << r.err;
          continue;
        }
        const BenchExe &e = *bench_named(bench_of(exe));
        RunResult run = run_bench(e, dir / "out");
        EXPECT_EQ(run.status, 0) << run.err;
        EXPECT_EQ(run.out, e.expected);
        ++ran;
      }
  EXPECT_GT(ran, 10) << "too few outputs to run";
}

// DWARF damaged at random (the same on every run): discovery reads the
// entries of most units from the section's bytes and leaves a unit it
// cannot read whole to the library; wherever the damage falls, the run
// (status, messages, output) is the one the library alone gives.
TEST(DamagedInputs, DamagedDwarfGivesTheRunTheLibraryAloneGives) {
  VESK_REQUIRE_BENCH();
  ScratchDir cache("originals");
  const std::string feedback = read_file(std::string(VESK_SOURCE_DIR) + "/examples/calc.fb");
  std::mt19937 rng(15);
  int refused = 0, cases = 0;
  for (const char *exe : {"o32d", "n64"})
    for (const char *sec :
         {".debug_info", ".debug_info", ".debug_info", ".debug_abbrev", ".debug_abbrev", ".debug_str"})
      for (int k = 0; k < 40; ++k, ++cases) {
        ScratchDir dir("scanned");
        write_file(dir / "prog", original(exe, cache));
        write_file(dir / "prog.fb", std::string(exe) == "n64" ? kNoFeedback : feedback);
        Victim v(dir);
        uint64_t off = rng() % v.elf.shdr(sec).sh_size, value = rng();
        SCOPED_TRACE(std::string(exe) + " " + sec + " at " + std::to_string(off) + " " + std::to_string(value));
        k % 2 && off + 4 <= v.elf.shdr(sec).sh_size ? v.put(v.at(sec, off), 4, value) : v.put(v.at(sec, off), 1, value);
        write_file(dir / "prog", v.bytes);
        std::string said[2], wrote[2];
        for (bool scanner : {false, true}) {
          std::vector<std::string> args{"vesk", dir / "prog", dir / "prog.fb", "-o", dir / "out", "-v"};
          std::vector<char *> argv;
          for (std::string &a : args)
            argv.push_back(a.data());
          UnitScanner::use(scanner);
          testing::internal::CaptureStdout();
          testing::internal::CaptureStderr();
          int status = vesk_main(int(argv.size()), argv.data());
          std::string err = testing::internal::GetCapturedStderr();
          said[scanner] = std::to_string(status) + "\n" + testing::internal::GetCapturedStdout() + err;
          UnitScanner::use(true);
          wrote[scanner] = status == 0 ? read_file(dir / "out") : "";
          refused += status != 0 && scanner;
          unlink((dir / "out").c_str());
        }
        EXPECT_EQ(said[true], said[false]) << "the library alone";
        EXPECT_TRUE(wrote[true] == wrote[false]) << "the output differs from the library's alone";
      }
  EXPECT_GT(refused, 5) << "too few damaged entries found";
  EXPECT_LT(refused, cases - 20) << "too few runs got through";
}
