// vesk-xlate [-r] [-e ORIGINAL] FILE [ADDRESS... | -]
//
// Reads the .MIPS.Xlate table of an executable that vesk laid out again,
// so that a crash address, a backtrace or a profile of the reordered
// program can be followed back to the original code.
//
//   no ADDRESS  prints the table's header and every range
//   ADDRESS...  translates each address (hexadecimal, 0x optional) from the
//               new layout to the original one (-r: original to new) and
//               names the procedure and the source line of the original
//               code, as addr2line does:
//                   0x400a10 -> 0x400830 lex_next+0x10 at /src/lexer.c:42
//   -           rewrites standard input to standard output: a line that
//               starts with an address gets that address translated, the
//               rest of the line is kept (a profile of the reordered
//               program becomes one of the original layout)
//
// Names and lines come from ORIGINAL (-e) at the original address, or else
// from FILE itself at the new address: vesk moves its symbols with the code
// and rewrites its DWARF for the new layout (a table whose header says the
// DWARF was left as the original build wrote it has the lines looked up at
// the original address).  Nothing is written but standard output.
#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dwarf.h>
#include <fcntl.h>
#include <map>
#include <memory>
#include <gelf.h>
#include <elfutils/libdw.h>
#include <string>
#include <unistd.h>
#include <vector>

#include "base/diag.h"
#include "com/dwarf_update.h"
#include "xlate/xlate.h"

namespace {

using namespace vesk::xlate;

[[noreturn]] void usage() {
  std::fputs("usage: vesk-xlate [-r] [-e original] file [address... | -]\n", stderr);
  std::exit(1);
}

struct Symbol {
  uint64_t addr, size;
  std::string name;
};

struct LineRow {
  uint64_t addr;
  unsigned line;
  bool end_sequence;
  std::string file;
};

// An executable opened for reading: its table, function symbols and line
// rows.
class Executable {
public:
  explicit Executable(const std::string &path) : path_(path) {
    fd_ = open(path.c_str(), O_RDONLY);
    if (fd_ < 0)
      vesk::sysfatal("cannot open %s", path.c_str());
    elf_version(EV_CURRENT);
    elf_ = elf_begin(fd_, ELF_C_READ, nullptr);
    if (elf_ == nullptr || elf_kind(elf_) != ELF_K_ELF)
      vesk::error("%s is not an ELF file", path.c_str());
  }
  ~Executable() {
    if (elf_ != nullptr)
      elf_end(elf_);
    if (fd_ >= 0)
      close(fd_);
  }
  Executable(const Executable &) = delete;
  Executable &operator=(const Executable &) = delete;

  // The raw contents of the first section of the given type, or empty.
  bool section_of_type(uint32_t type, std::vector<uint8_t> *out) const {
    for (Elf_Scn *s = elf_nextscn(elf_, nullptr); s != nullptr; s = elf_nextscn(elf_, s)) {
      GElf_Shdr sh;
      if (gelf_getshdr(s, &sh) == nullptr || sh.sh_type != type)
        continue;
      Elf_Data *d = elf_rawdata(s, nullptr);
      if (d == nullptr && sh.sh_size != 0)
        vesk::error("%s: cannot read its .MIPS.Xlate section", path_.c_str());
      const uint8_t *p = d ? static_cast<const uint8_t *>(d->d_buf) : nullptr;
      out->assign(p, p + (d && p ? d->d_size : 0));
      return true;
    }
    return false;
  }

  void read_symbols() {
    for (Elf_Scn *s = elf_nextscn(elf_, nullptr); s != nullptr; s = elf_nextscn(elf_, s)) {
      GElf_Shdr sh;
      if (gelf_getshdr(s, &sh) == nullptr || sh.sh_type != SHT_SYMTAB)
        continue;
      Elf_Data *d = elf_getdata(s, nullptr);
      size_t n = d && sh.sh_entsize ? sh.sh_size / sh.sh_entsize : 0;
      for (size_t i = 0; i < n; ++i) {
        GElf_Sym sym;
        if (gelf_getsym(d, int(i), &sym) == nullptr || GELF_ST_TYPE(sym.st_info) != STT_FUNC || sym.st_size == 0)
          continue;
        const char *name = elf_strptr(elf_, sh.sh_link, sym.st_name);
        symbols_.push_back({sym.st_value, sym.st_size, name ? name : "??"});
      }
    }
    std::sort(symbols_.begin(), symbols_.end(), [](const Symbol &a, const Symbol &b) { return a.addr < b.addr; });
  }

  // The raw contents of the section called name, or empty.
  std::vector<uint8_t> section_named(const char *name) const {
    size_t strndx = 0;
    if (elf_getshdrstrndx(elf_, &strndx) != 0)
      return {};
    for (Elf_Scn *s = elf_nextscn(elf_, nullptr); s != nullptr; s = elf_nextscn(elf_, s)) {
      GElf_Shdr sh;
      const char *n = gelf_getshdr(s, &sh) ? elf_strptr(elf_, strndx, sh.sh_name) : nullptr;
      if (n == nullptr || std::strcmp(n, name) != 0 || sh.sh_type == SHT_NOBITS)
        continue;
      Elf_Data *d = elf_rawdata(s, nullptr);
      const uint8_t *p = d ? static_cast<const uint8_t *>(d->d_buf) : nullptr;
      return std::vector<uint8_t>(p, p + (p ? d->d_size : 0));
    }
    return {};
  }

  // Every row of every unit's line table, in table order.  The rows come
  // from vesk's own reader of .debug_line: the DWARF library hands them out
  // sorted by address, which mixes a row at the end of one sequence into
  // the next; the file names come from the library.  An executable without
  // DWARF has none.
  void read_lines() {
    std::vector<uint8_t> line = section_named(".debug_line");
    Dwarf *dw = line.empty() ? nullptr : dwarf_begin_elf(elf_, DWARF_C_READ, nullptr);
    if (dw == nullptr)
      return;
    unsigned addr_size = gelf_getclass(elf_) == ELFCLASS64 ? 8 : 4;
    std::map<uint64_t, std::vector<vesk::dwarf_update::LineRow>> programs;
    for (auto &[offset, rows] : vesk::dwarf_update::read_line_rows(line.data(), line.size(), addr_size))
      programs.emplace(offset, std::move(rows));
    Dwarf_Off at = 0, next = 0;
    size_t header_size = 0;
    while (dwarf_nextcu(dw, at, &next, &header_size, nullptr, nullptr, nullptr) == 0) {
      Dwarf_Die cu;
      Dwarf_Attribute a;
      Dwarf_Word offset = 0;
      Dwarf_Files *files = nullptr;
      size_t file_count = 0;
      if (dwarf_offdie(dw, at + header_size, &cu) != nullptr && dwarf_attr(&cu, DW_AT_stmt_list, &a) != nullptr &&
          dwarf_formudata(&a, &offset) == 0 && programs.count(offset) != 0 &&
          dwarf_getsrcfiles(&cu, &files, &file_count) == 0) {
        const char *dir = dwarf_attr(&cu, DW_AT_comp_dir, &a) ? dwarf_formstring(&a) : nullptr;
        for (const vesk::dwarf_update::LineRow &r : programs[offset]) {
          const char *name = r.file < file_count ? dwarf_filesrc(files, r.file, nullptr, nullptr) : nullptr;
          std::string file = name == nullptr ? "??" : name[0] == '/' || dir == nullptr ? name : std::string(dir) + "/" + name;
          rows_.push_back({r.addr, unsigned(r.line), r.end_sequence, file});
        }
      }
      at = next;
    }
    dwarf_end(dw);
    for (size_t i = 0, first = 0; i < rows_.size(); ++i)
      if (rows_[i].end_sequence) {
        if (i > first && rows_[first].addr <= rows_[i].addr)
          sequences_.push_back({rows_[first].addr, rows_[i].addr, first, i});
        first = i + 1;
      }
  }

  // "name+0xoff", or "??".
  std::string name_at(uint64_t a) const {
    auto it = std::upper_bound(symbols_.begin(), symbols_.end(), a,
                               [](uint64_t x, const Symbol &s) { return x < s.addr; });
    while (it != symbols_.begin()) {
      --it;
      if (a - it->addr < it->size) {
        char off[32];
        std::snprintf(off, sizeof off, "+%#" PRIx64, a - it->addr);
        return a == it->addr ? it->name : it->name + off;
      }
      if (a - it->addr > (uint64_t(1) << 24))
        break;
    }
    return "??";
  }

  // "file:line" of the row that covers a, or "??:0".  A sequence may
  // span other code (a unit's .text around a function of another section),
  // so the innermost sequence that holds a answers.
  std::string line_at(uint64_t a) const {
    const Sequence *best = nullptr;
    for (const Sequence &s : sequences_)
      if (a >= s.lo && a < s.hi && (best == nullptr || s.hi - s.lo < best->hi - best->lo))
        best = &s;
    if (best == nullptr)
      return "??:0";
    auto first = rows_.begin() + long(best->first), last = rows_.begin() + long(best->end);
    auto it = std::upper_bound(first, last, a, [](uint64_t x, const LineRow &r) { return x < r.addr; });
    if (it == first)
      return "??:0";
    const LineRow &r = *std::prev(it);
    return r.file + ":" + std::to_string(r.line);
  }

private:
  std::string path_;
  int fd_ = -1;
  Elf *elf_ = nullptr;
  std::vector<Symbol> symbols_;
  std::vector<LineRow> rows_; // in table order: sequences one after another
  struct Sequence {
    uint64_t lo, hi;   // addresses
    size_t first, end; // rows
  };
  std::vector<Sequence> sequences_;

};

bool parse_address(const char *s, uint64_t *out) {
  if (s[0] == '0' && (s[1] == 'x' || s[1] == 'X'))
    s += 2;
  if (*s == '\0' || std::strlen(s) > 16 || std::strspn(s, "0123456789abcdefABCDEF") != std::strlen(s))
    return false;
  *out = std::strtoull(s, nullptr, 16);
  return true;
}

void print_table(const XlateTable &t) {
  const XlateInfo &i = t.info;
  std::printf("kind %d (%s), %s addresses, %" PRIu64 " ranges in %" PRIu64 " blocks of %u bytes\n", i.kind,
              i.kind == 0 ? "general" : i.kind == 1 ? "every range keeps its size" : "old ranges in order",
              i.is64 ? "64-bit" : "32-bit", i.range_count, i.block_count, i.block_size);
  std::printf("new [%#" PRIx64 ", %#" PRIx64 ")  old [%#" PRIx64 ", %#" PRIx64 ")\n", i.lowest_new,
              i.highest_new_end, i.lowest_old, i.highest_old_end);
  std::printf("%-18s %-10s %-18s %s\n", "new", "length", "old", "length");
  std::vector<XlateRange> ranges;
  for (uint64_t b = 0; b < i.block_count; ++b) {
    int st = xlate_block_ranges_xtnd(&t, b, &ranges);
    if (st != XLATE_OK)
      vesk::error("block %" PRIu64 " of the table cannot be decoded (status %d: %s)", b, st, xlate_status_text(st));
    for (const XlateRange &r : ranges)
      std::printf("%#-18" PRIx64 " %#-10" PRIx64 " %#-18" PRIx64 " %#" PRIx64 "\n", r.new_addr, r.new_len,
                  r.old_addr, r.old_len);
  }
}

int run(int argc, char **argv) {
  bool reverse = false;
  std::string original, file;
  std::vector<const char *> addresses;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "-r") == 0)
      reverse = true;
    else if (std::strcmp(argv[i], "-e") == 0 && i + 1 < argc)
      original = argv[++i];
    else if (argv[i][0] == '-' && (argv[i][1] != '\0' || file.empty()))
      usage();
    else if (file.empty())
      file = argv[i];
    else
      addresses.push_back(argv[i]);
  }
  if (file.empty())
    usage();

  Executable exe(file);
  std::vector<uint8_t> bytes;
  if (!exe.section_of_type(XLATE_SECTION_TYPE, &bytes))
    vesk::error("%s has no .MIPS.Xlate section", file.c_str());
  XlateTable table;
  int st = bytes.empty() ? XLATE_OK : xlate_open_xtnd(bytes.data(), bytes.size(), &table);
  if (st != XLATE_OK)
    vesk::error("%s: its .MIPS.Xlate section is no translation table (status %d: %s)", file.c_str(), st,
                xlate_status_text(st));
  if (bytes.empty()) {
    if (addresses.empty())
      std::printf("empty table: no code moved\n");
    for (const char *a : addresses)
      std::printf("%s\n", a); // nothing moved: every address stays
    return 0;
  }
  if (addresses.empty()) {
    print_table(table);
    return 0;
  }

  auto translate = [&](uint64_t a) {
    uint64_t out = a;
    XlateRange r;
    int s = xlate_address_xtnd(&table, reverse ? XLATE_OLD_TO_NEW : XLATE_NEW_TO_OLD, a, &out, &r);
    if (s != XLATE_OK)
      vesk::error("%s: its .MIPS.Xlate table cannot be read (status %d: %s)", file.c_str(), s, xlate_status_text(s));
    return out;
  };

  if (addresses.size() == 1 && std::strcmp(addresses[0], "-") == 0) {
    char buf[4096];
    while (std::fgets(buf, sizeof buf, stdin) != nullptr) {
      size_t lead = std::strspn(buf, " \t");
      size_t len = std::strcspn(buf + lead, " \t\r\n");
      std::string token(buf + lead, len);
      uint64_t a;
      if (len != 0 && parse_address(token.c_str(), &a))
        std::printf("%.*s%#" PRIx64 "%s", int(lead), buf, translate(a), buf + lead + len);
      else
        std::fputs(buf, stdout);
    }
    return 0;
  }

  // Names and lines of the original code.
  std::unique_ptr<Executable> orig;
  if (!original.empty())
    orig = std::make_unique<Executable>(original);
  Executable &names = orig ? *orig : exe;
  names.read_symbols();
  names.read_lines();
  for (const char *text : addresses) {
    uint64_t a;
    if (!parse_address(text, &a))
      vesk::error("%s is no address", text);
    uint64_t t = translate(a);
    uint64_t old_addr = reverse ? a : t, new_addr = reverse ? t : a;
    // Without the original, the symbols of FILE name the code where it lies now.
    std::string name = orig ? names.name_at(old_addr) : names.name_at(new_addr);
    bool new_lines = !orig && (table.info.flag_b & XLATE_FLAG_DWARF_UPDATED) != 0;
    std::string line = names.line_at(new_lines ? new_addr : old_addr);
    std::printf("%#" PRIx64 " -> %#" PRIx64 " %s at %s\n", a, t, name.c_str(), line.c_str());
  }
  return 0;
}

} // namespace

int main(int argc, char **argv) {
  try {
    return run(argc, argv);
  } catch (const vesk::Fatal &) {
    return 1;
  }
}
