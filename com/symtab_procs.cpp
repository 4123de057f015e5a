#include "com/symtab_procs.h"

#include <algorithm>
#include <cstring>
#include <gelf.h>
#include <string_view>
#include <utility>

#include "base/bin.h"
#include "base/bytes.h"
#include "base/diag.h"
#include "base/key_sort.h"
#include "base/options.h"
#include "base/proc.h"

namespace vesk {

namespace {

// Indexes of the sections that matter: the last one named .text (as the
// input reader takes it) and the first symbol table; 0 when absent.
struct SymtabSections {
  size_t text = 0;
  Elf_Scn *symtab = nullptr;
  GElf_Shdr symtab_header{};
};

SymtabSections find_sections(Elf *elf) {
  SymtabSections s;
  size_t shstrndx;
  if (elf == nullptr || elf_getshdrstrndx(elf, &shstrndx) != 0)
    return s;
  for (Elf_Scn *scn = elf_nextscn(elf, nullptr); scn != nullptr; scn = elf_nextscn(elf, scn)) {
    GElf_Shdr sh;
    if (gelf_getshdr(scn, &sh) == nullptr)
      error("%s: cannot read the header of section %zu: %s", option.program, elf_ndxscn(scn), elf_errmsg(-1));
    const char *name = elf_strptr(elf, shstrndx, sh.sh_name);
    if (name != nullptr && std::strcmp(name, ".text") == 0)
      s.text = elf_ndxscn(scn);
    if (sh.sh_type == SHT_SYMTAB && s.symtab == nullptr) {
      s.symtab = scn;
      s.symtab_header = sh;
    }
  }
  return s;
}

// The string table of the symbol table, checked so that every name read
// from it ends inside it.
struct Strings {
  const char *buf = nullptr;
  size_t size = 0;

  bool terminated = false; // the table ends in a NUL: every name within it ends

  const char *at(uint64_t off, size_t index) const {
    if (off >= size || (!terminated && std::memchr(buf + off, '\0', size - off) == nullptr))
      error("%s: the name of symbol %zu lies outside the string table of .symtab", option.program, index);
    return buf + off;
  }
};

Strings symbol_strings(Elf *elf, const GElf_Shdr &symtab) {
  Elf_Scn *scn = elf_getscn(elf, symtab.sh_link);
  GElf_Shdr sh;
  if (symtab.sh_link == 0 || scn == nullptr || gelf_getshdr(scn, &sh) == nullptr || sh.sh_type != SHT_STRTAB)
    error("%s: .symtab links to section %u, which is no string table", option.program, unsigned(symtab.sh_link));
  Elf_Data *d = elf_getdata(scn, nullptr);
  if (d == nullptr || d->d_type != ELF_T_BYTE || (d->d_buf == nullptr && d->d_size != 0))
    error("%s: cannot read the string table of .symtab", option.program);
  Strings out{static_cast<const char *>(d->d_buf), d->d_buf ? d->d_size : 0};
  out.terminated = out.size != 0 && out.buf[out.size - 1] == '\0';
  return out;
}

// Start and end of a symbol's code clipped to .text; false when it starts
// outside.
bool text_extent(const GElf_Sym &s, uint64_t *lo, uint64_t *hi) {
  uint64_t a = s.st_value;
  if (a < bin.text_lo || a >= bin.text_hi)
    return false;
  *lo = a;
  *hi = s.st_size > bin.text_hi - a ? bin.text_hi : a + s.st_size;
  return true;
}

// The new record of one piece of a symbol's code.
void add_proc(const FunctionSymbol &s, uint64_t lo, uint64_t hi) {
  Proc *p = new_proc();
  p->name = s.name;
  p->file_name = s.file;
  p->old_addr = lo;
  p->size = uint32_t(hi - lo);
  if (option.debug & 1)
    dump("  Symbol: %s(%#llx-%#llx) %s", s.name, (unsigned long long)lo, (unsigned long long)hi, s.file);
}

// What the procedures made so far cover, as disjoint ranges in address
// order.
std::vector<std::pair<uint64_t, uint64_t>> covered_ranges() {
  std::vector<KeyValue> covered; // start, end
  for (int i = 0, n = get_n_procs(); i < n; ++i) {
    const Proc *p = get_proc_by_index(i);
    if (p->size != 0)
      covered.push_back({p->old_addr, p->old_addr + p->size});
  }
  stable_sort_by_key(covered); // ranges that start together merge whatever their order
  size_t merged = 0;
  for (const auto &r : covered) {
    if (merged > 0 && r.first <= covered[merged - 1].second)
      covered[merged - 1].second = std::max(covered[merged - 1].second, r.second);
    else
      covered[merged++] = r;
  }
  covered.resize(merged);
  return covered;
}

// The assemblers pad between functions with nop (0); "addu zero,zero,zero"
// is padding too.
constexpr uint32_t kAlternativeNop = 0x00000021;

} // namespace

const char *FunctionSymbols::name_at(uint64_t addr) const {
  auto it = std::lower_bound(by_addr.begin(), by_addr.end(), addr,
                             [](const FunctionSymbol &s, uint64_t a) { return s.addr < a; });
  return it != by_addr.end() && it->addr == addr ? it->name : nullptr;
}

bool FunctionSymbols::named_at(uint64_t addr, const char *name) const {
  auto it = std::lower_bound(by_addr.begin(), by_addr.end(), addr,
                             [](const FunctionSymbol &s, uint64_t a) { return s.addr < a; });
  for (; it != by_addr.end() && it->addr == addr; ++it)
    if (std::strcmp(it->name, name) == 0)
      return true;
  return false;
}

bool FunctionSymbols::has_sized(const char *name) const {
  // Few inputs ask at all: the index is built at the first question.
  if (!sized_names_built) {
    sized_names.build(by_addr.size(), [this](size_t i, size_t &h) {
      const FunctionSymbol &s = by_addr[i];
      h = hash_of(s.name);
      return s.end > s.addr;
    });
    sized_names_built = true;
  }
  bool found = false;
  sized_names.visit(hash_of(name), [&](size_t i) {
    found = std::strcmp(by_addr[i].name, name) == 0;
    return !found;
  });
  return found;
}

FunctionSymbols read_function_symbols(Elf *elf) {
  FunctionSymbols out;
  SymtabSections secs = find_sections(elf);
  if (secs.symtab == nullptr || secs.text == 0)
    return out;
  Strings names = symbol_strings(elf, secs.symtab_header);
  // Read from the file's bytes: libelf would first convert the whole table
  // into a copy of its own.
  size_t image_size = 0;
  const uint8_t *image = reinterpret_cast<const uint8_t *>(elf_rawfile(elf, &image_size));
  const GElf_Shdr &sh = secs.symtab_header;
  if (image == nullptr || sh.sh_type == SHT_NOBITS || sh.sh_offset > image_size ||
      sh.sh_size > image_size - sh.sh_offset)
    error("%s: cannot read the symbols of .symtab", option.program);
  bool is_64 = gelf_getclass(elf) == ELFCLASS64;
  size_t entry = is_64 ? 24 : 16;
  size_t n = sh.sh_size / entry;
  const uint8_t *table = image + sh.sh_offset;
  auto symbol = [&](size_t i) {
    const uint8_t *p = table + i * entry;
    GElf_Sym s{};
    s.st_name = load32(p);
    if (is_64) {
      s.st_info = p[4], s.st_other = p[5], s.st_shndx = load16(p + 6);
      s.st_value = load64(p + 8), s.st_size = load64(p + 16);
    } else {
      s.st_value = load32(p + 4), s.st_size = load32(p + 8);
      s.st_info = p[12], s.st_other = p[13], s.st_shndx = load16(p + 14);
    }
    return s;
  };
  if (n > size_t(INT32_MAX))
    error("%s: .symtab holds more symbols than can be read", option.program);
  // Locals come first, up to sh_info; each file's locals follow its file
  // symbol.
  size_t first_global = secs.symtab_header.sh_info;
  if (first_global > n)
    error("%s: .symtab says its globals start at symbol %zu, but it holds %zu", option.program, first_global, n);

  std::vector<FunctionSymbol> found;
  found.reserve(n);
  const char *file = "-";
  for (size_t i = 0; i < n; ++i) {
    GElf_Sym s = symbol(i);
    unsigned type = GELF_ST_TYPE(s.st_info);
    if (i < first_global && type == STT_FILE) {
      const char *path = names.at(s.st_name, i);
      file = *path ? basename(path) : "-";
      continue;
    }
    if (type != STT_FUNC || s.st_shndx != secs.text)
      continue;
    uint64_t lo, hi;
    if (!text_extent(s, &lo, &hi))
      continue;
    found.push_back({lo, hi, names.at(s.st_name, i), i < first_global ? file : "-"});
  }
  // By address, the sized ones first at a shared address, then in table
  // order (found is in table order): the sized ones' keys ahead of the
  // unsized ones', then sorted by address keeping that order.
  std::vector<KeyValue> keys;
  keys.reserve(found.size());
  for (bool unsized : {false, true})
    for (size_t k = 0; k < found.size(); ++k)
      if ((found[k].end <= found[k].addr) == unsized)
        keys.emplace_back(found[k].addr, k);
  stable_sort_by_key(keys);
  // Functions do not overlap: a size that runs into the next function is
  // wrong (the assembler sizes a function that has a part in another
  // section from one part's start to the other's end) and is cut there.
  out.by_addr.reserve(found.size());
  for (size_t i = 0, next = 0; i < keys.size(); ++i) {
    FunctionSymbol s = found[keys[i].second];
    while (next < keys.size() && keys[next].first <= s.addr)
      ++next;
    if (next < keys.size())
      s.end = std::min(s.end, keys[next].first);
    out.by_addr.push_back(s);
  }
  return out;
}

void add_symbol_table_procs(const FunctionSymbols &syms) {
  std::vector<std::pair<uint64_t, uint64_t>> covered = covered_ranges();
  // The first covered range that ends behind a; the ends of disjoint
  // ordered ranges are ordered too.
  auto covering = [&](uint64_t a) {
    return std::upper_bound(covered.begin(), covered.end(), a,
                            [](uint64_t x, const std::pair<uint64_t, uint64_t> &r) { return x < r.second; });
  };

  // Symbols come in address order, so what they gave so far ends at one
  // frontier; a symbol that shares code with one before it (an alias)
  // gives only what lies behind that.
  uint64_t frontier = 0;
  const std::vector<FunctionSymbol> &all = syms.by_addr;
  for (size_t i = 0, next = 0; i < all.size(); ++i) {
    const FunctionSymbol &s = all[i];
    uint64_t lo = std::max(s.addr, frontier), hi = s.end;
    if (hi == s.addr) {
      // Hand-written start files give their functions no size.  A run of
      // such functions becomes one procedure, named by the first, that
      // reaches to the next code with a size: the run then holds the
      // returns of its functions, and the neighbour check does not take
      // the tail jump that ends one of them for a fall-through.  Inside
      // covered code the symbol is a mere label.
      auto c = covering(s.addr);
      if (s.addr < frontier || (c != covered.end() && c->first <= s.addr))
        continue;
      while (next < all.size() && (all[next].addr <= s.addr || all[next].end == all[next].addr))
        ++next;
      hi = next < all.size() ? all[next].addr : bin.text_hi;
      if (c != covered.end())
        hi = std::min(hi, c->first);
    }
    if (lo >= hi)
      continue;
    frontier = hi;
    for (auto c = covering(lo); lo < hi && c != covered.end() && c->first < hi; ++c) {
      if (c->first > lo)
        add_proc(s, lo, c->first);
      lo = std::max(lo, c->second);
    }
    if (lo < hi)
      add_proc(s, lo, hi);
  }
}

void attach_padding() {
  // By start (sorted as keys: a sort that compared the records would wait
  // on memory at every step).
  std::vector<KeyValue> keys;
  for (int i = 0, n = get_n_procs(); i < n; ++i) {
    Proc *p = get_proc_by_index(i);
    if (p->size != 0 && in_text(p->old_addr))
      keys.emplace_back(p->old_addr, uint64_t(i));
  }
  stable_sort_by_key(keys);
  std::vector<Proc *> procs(keys.size());
  for (size_t i = 0; i < keys.size(); ++i)
    procs[i] = get_proc_by_index(long(keys[i].second));
  auto padding_only = [](uint64_t lo, uint64_t hi) {
    for (uint64_t a = lo; a < hi; a += 4) {
      auto i = (a - bin.text_lo) / 4;
      uint32_t w = i < bin.text_words ? word_at(bin.text_buf, i) : 0;
      if (w != 0 && w != kAlternativeNop)
        return false;
    }
    return true;
  };
  // Only the record that reaches furthest can take the gap behind it.
  Proc *last = nullptr;
  for (size_t i = 0; i <= procs.size(); ++i) {
    uint64_t next = i < procs.size() ? procs[i]->old_addr : bin.text_hi;
    if (last != nullptr && last->old_addr + last->size < next && padding_only(last->old_addr + last->size, next))
      last->size = uint32_t(next - last->old_addr);
    if (i < procs.size() && (last == nullptr || procs[i]->old_addr + procs[i]->size > last->old_addr + last->size))
      last = procs[i];
  }
}

void place_mdebug_procs_by_symbols(const FunctionSymbols &syms) {
  // The mdebug path keeps 32-bit addresses sign-extended and compares
  // their low halves; symbols are looked at the same way.
  auto as_mdebug = [](uint64_t a) { return sign_extend32(uint32_t(a)); };
  const std::vector<FunctionSymbol> &all = syms.by_addr;
  // Built at the first procedure whose symbol is not where the table says.
  FlatIndex by_name;
  bool indexed = false;
  // The address of the only function symbol of that name, if there is one.
  auto only_symbol = [&](const char *name, uint64_t &addr) {
    if (!indexed) {
      by_name.build(all.size(), [&all](size_t i, size_t &h) {
        h = hash_of(all[i].name);
        return true;
      });
      indexed = true;
    }
    int count = 0;
    by_name.visit(hash_of(name), [&](size_t i) {
      if (std::strcmp(all[i].name, name) == 0 && count++ == 0)
        addr = all[i].addr;
      return count < 2;
    });
    return count == 1;
  };

  // The assembler records the symbols of a function placed in another
  // input section than its file's .text (.text.startup, .text.unlikely)
  // relative to the wrong section; the linker's symbol is right.
  std::vector<uint32_t> starts;
  for (int i = 0, n = get_n_procs(); i < n; ++i) {
    Proc *p = get_proc_by_index(i);
    if (p->name != nullptr && std::strcmp(p->name, ".libstub") != 0) {
      // A symbol of its name where the table puts it settles it: it is
      // the only one of that name, or there are several and none is taken.
      uint64_t addr = 0;
      if (!syms.named_at(uint32_t(p->old_addr), p->name) && only_symbol(p->name, addr) &&
          uint32_t(addr) != uint32_t(p->old_addr)) {
        if (option.verbose)
          warning("procedure %s of %s starts at %#llx in the mdebug table but its symbol at %#llx; the symbol "
                  "is taken",
                  p->name, p->file_name, (unsigned long long)p->old_addr, (unsigned long long)addr);
        p->old_addr = as_mdebug(addr);
      }
    }
    starts.push_back(uint32_t(p->old_addr));
  }
  std::sort(starts.begin(), starts.end());

  // mdebug sizes run to the next start, so a function that no descriptor
  // describes is cut out of the procedure before it by its own start.  A
  // run of functions without a size (start files) is cut out as one, as
  // in the DWARF case.
  bool in_unsized_run = false; // the code at hand belongs to such a run
  bool have_last = false;
  uint32_t last_start = 0, last_sized = 0; // the start at or before the symbol at hand
  auto start = starts.begin();
  for (const FunctionSymbol &s : syms.by_addr) {
    uint32_t a = uint32_t(s.addr);
    bool sized = s.end > s.addr;
    for (; start != starts.end() && *start <= a; ++start) {
      in_unsized_run &= *start == a; // a described procedure ends a run
      have_last = true;
      last_start = *start;
    }
    bool new_start = !(have_last && last_start == a) && (sized || !in_unsized_run);
    if (sized)
      last_sized = a;
    in_unsized_run = !sized && last_sized != a; // not a mere alias of sized code
    if (!new_start)
      continue;
    have_last = true;
    last_start = a;
    Proc *p = new_proc();
    p->name = s.name;
    p->file_name = s.file;
    p->old_addr = as_mdebug(s.addr);
    if (option.debug)
      dump("\tSymbol: %s lowpc(%#llx)", s.name, (unsigned long long)p->old_addr);
  }
}

} // namespace vesk
