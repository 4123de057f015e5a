#include "vesk/noreturn.h"

#include <cctype>
#include <cstring>
#include <gelf.h>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "base/bin.h"
#include "base/bytes.h"
#include "base/flat_index.h"
#include "base/mips.h"
#include "base/text_words.h"
#include "com/update.h"

namespace vesk {

namespace {

// C library functions that never return to their caller.
const char *const kLibraryNoReturn[] = {
    "abort", "exit", "_exit", "_Exit", "quick_exit", "longjmp", "_longjmp", "siglongjmp", "__longjmp_chk",
    "__assert_fail", "__assert_perror_fail", "__assert", "__stack_chk_fail", "__chk_fail", "__fortify_fail",
    "pthread_exit", "err", "errx", "verr", "verrx", "__libc_fatal", "__cxa_throw", "__cxa_rethrow",
    "_Unwind_Resume", "__builtin_unreachable", "__cxa_bad_cast", "__cxa_bad_typeid", "__cxa_pure_virtual",
    "__cxa_deleted_virtual", "__cxa_throw_bad_array_new_length", "__cxa_call_terminate", "_ZSt9terminatev"};

// libstdc++'s std::__throw_length_error, std::__throw_logic_error and the
// like (mangled _ZSt<length>__throw_...) throw and never return; C++ code
// calls them at the end of many functions.
bool is_std_thrower(const std::string &name) {
  size_t i = 4;
  if (name.compare(0, 4, "_ZSt") != 0 || i >= name.size() || !std::isdigit(static_cast<unsigned char>(name[i])))
    return false;
  while (i < name.size() && std::isdigit(static_cast<unsigned char>(name[i])))
    ++i;
  return name.compare(i, 8, "__throw_") == 0;
}

constexpr uint32_t GP = 28, T9 = 25;

} // namespace

struct NoReturn::State {
  std::unordered_set<std::string_view> library;
  // GOT global entry index -> dynamic symbol name and, for a symbol the
  // executable defines, its address (0 otherwise).  Read at the first call
  // through the GOT.
  bool got_read = false;
  std::vector<const char *> global_got_names;
  std::vector<uint64_t> global_got_values;
  // Procedures by function name, for the parts of one function (foo,
  // foo.cold).  Indexed at the first callee looked at.
  bool parts_indexed = false;
  std::vector<const Proc *> named;
  FlatIndex parts;
  // By record: 0 not asked yet, 1 in progress, 2 returns, 3 never returns.
  std::vector<uint8_t> memo;
};

namespace {

// foo for foo and foo.cold.
std::string_view function_name(const char *name) {
  std::string_view base = name;
  return base.substr(0, base.find(".cold"));
}

} // namespace

NoReturn::NoReturn() : s_(std::make_unique<State>()) {
  for (const char *n : kLibraryNoReturn)
    s_->library.insert(n);
  s_->memo.assign(bin.procs.records.size(), 0);
}

void NoReturn::read_global_got() {
  s_->got_read = true;
  // The GOT's global entries follow its local ones in the order of the
  // dynamic symbols from DT_MIPS_GOTSYM on.
  Elf_Scn *dynsym = nullptr;
  for (Elf_Scn *scn = elf_nextscn(bin.in_elf, nullptr); scn != nullptr; scn = elf_nextscn(bin.in_elf, scn)) {
    GElf_Shdr sh;
    if (gelf_getshdr(scn, &sh) != nullptr && sh.sh_type == SHT_DYNSYM)
      dynsym = scn;
  }
  Elf_Data *d = dynsym ? elf_getdata(dynsym, nullptr) : nullptr;
  GElf_Shdr sh;
  if (d != nullptr && d->d_buf != nullptr && gelf_getshdr(dynsym, &sh) != nullptr) {
    size_t n = d->d_size / (bin.is_elf32 ? sizeof(Elf32_Sym) : sizeof(Elf64_Sym));
    for (size_t i = bin.gotsym; i < n; ++i) {
      GElf_Sym sym;
      const char *name = gelf_getsym(d, int(i), &sym) ? elf_strptr(bin.in_elf, sh.sh_link, sym.st_name) : nullptr;
      s_->global_got_names.push_back(name);
      s_->global_got_values.push_back(sym.st_shndx != SHN_UNDEF ? sym.st_value : 0);
    }
  }
  elf_errno();
}

void NoReturn::index_parts() {
  s_->parts_indexed = true;
  // In the order of the records, which lie (with their names) in memory in
  // that order; the list's order (the feedback's) sends every step to
  // another place.  The order of the parts of one function does not change
  // what never_returns finds.
  for (Proc &p : bin.procs.records)
    if (p.name != nullptr)
      s_->named.push_back(&p);
  s_->parts.build(s_->named.size(), [this](size_t i, size_t &h) {
    h = hash_of(function_name(s_->named[i]->name));
    return true;
  });
}

NoReturn::~NoReturn() = default;

namespace {

size_t got_entry_size() { return bin.is_elf32 ? 4 : 8; }

// The GOT entry a load from gp at old address at reads, as an index; false
// when it reads outside the input GOT.
bool got_index(uint32_t load, uint64_t at, uint64_t *index) {
  int64_t byte = int64_t(mips::simm16(load)) + int64_t(uint32_t(gp_at(at))) - int64_t(bin.pltgot);
  if (bin.got_buf == nullptr || byte < 0 || uint64_t(byte) % got_entry_size() != 0)
    return false;
  *index = uint64_t(byte) / got_entry_size();
  return *index * got_entry_size() + got_entry_size() <= uint64_t(bin.got_count) * 4;
}

uint64_t got_value(uint64_t index) {
  const uint8_t *p = bin.got_buf + index * got_entry_size();
  return bin.is_elf32 ? load32(p) : load64(p);
}

bool is_gp_load_of(uint32_t w, uint32_t reg) {
  uint32_t o = mips::op(w);
  return (o == mips::OP_LW || o == mips::OP_LD) && mips::rs(w) == GP && mips::rt(w) == reg;
}

} // namespace

bool NoReturn::ends_in_call_that_never_returns(const Proc *p) {
  TextSpan span = text_span(p);
  if (span.size() < 2)
    return false;
  uint64_t at = span.end - 2;
  uint32_t call = word_at(bin.text_buf, at);
  // The callee: a jal's target, or what the code in front loads into $25
  // for a jalr $25: a GOT entry, or a GOT page plus a low half.
  std::string name;
  uint64_t target = 0;
  bool known = false;
  if (mips::is_jal(call)) {
    target = mips::jump_target(bin.text_lo + 4 * at, call);
    known = true;
  } else if (mips::is_jalr(call) && mips::rs(call) == T9) {
    int64_t low = 0;
    for (uint64_t i = at; i > span.first && !known;) {
      uint32_t w = word_at(bin.text_buf, --i);
      int written = mips::gpr_written(w);
      if (written == int(T9) && (mips::op(w) == mips::OP_ADDIU || mips::op(w) == mips::OP_DADDIU) &&
          mips::rs(w) == T9 && low == 0) {
        low = mips::simm16(w);
        continue;
      }
      if (written == int(T9) && is_gp_load_of(w, T9)) {
        uint64_t index;
        if (!got_index(w, bin.text_lo + 4 * i, &index))
          return false;
        // A secondary GOT (a program whose GOT the linker split) lies
        // behind the primary one's global part, and holds its values.
        if (!s_->got_read)
          read_global_got();
        bool secondary = !bin.gp_ranges.empty() && index >= bin.local_gotno + s_->global_got_names.size();
        if (index >= bin.local_gotno && !secondary) {
          uint64_t g = index - bin.local_gotno;
          if (low != 0 || g >= s_->global_got_names.size() || s_->global_got_names[g] == nullptr)
            return false;
          name = s_->global_got_names[g];
          target = s_->global_got_values[g];
        } else {
          target = got_value(index) + uint64_t(low);
        }
        known = true;
        break;
      }
      if (written == int(T9) || written == mips::kUnknownWrite || written == mips::kClobbersCallerSaved)
        return false;
    }
  }
  if (!known)
    return false;
  if (!name.empty() && (s_->library.count(name) != 0 || is_std_thrower(name)))
    return true;
  if (target == 0)
    return false;
  Proc *callee = get_proc_by_addr(target);
  if (callee == nullptr || callee->old_addr != target)
    return false;
  if (callee->name != nullptr && (s_->library.count(callee->name) || is_std_thrower(callee->name)))
    return true;
  return never_returns(callee);
}

// A procedure never returns when no part of its function holds a jr (no
// return, no tail call, no jump table) or a jump or branch to another
// function, and it cannot run off its end.
bool NoReturn::never_returns(const Proc *q) {
  size_t record = size_t(q - bin.procs.records.data());
  if (record >= s_->memo.size())
    return false; // not a record of the table: nothing known about it
  if (s_->memo[record] != 0)
    return s_->memo[record] == 3; // in progress counts as returning
  s_->memo[record] = 1;
  std::vector<const Proc *> parts;
  if (q->name != nullptr) {
    if (!s_->parts_indexed)
      index_parts();
    std::string_view function = function_name(q->name);
    s_->parts.visit(hash_of(function), [&](size_t i) {
      if (function_name(s_->named[i]->name) == function)
        parts.push_back(s_->named[i]);
      return true;
    });
  }
  if (parts.empty())
    parts.push_back(q);
  auto inside = [&](uint64_t a) {
    for (const Proc *part : parts)
      if (a >= part->old_addr && a - part->old_addr < part->size)
        return true;
    return false;
  };
  bool returns = false;
  for (const Proc *part : parts) {
    TextSpan span = text_span(part);
    for (uint64_t i = span.first; i < span.end && !returns; ++i) {
      uint32_t w = word_at(bin.text_buf, i);
      uint64_t a = bin.text_lo + 4 * i;
      if (mips::is_jr(w))
        returns = true; // a return, a tail call or a jump table
      else if (mips::op(w) == mips::OP_J)
        returns = !inside(mips::jump_target(a, w)); // a tail call
      else if (mips::is_unconditional(w))
        returns = !inside(mips::branch_target(a, w));
    }
  }
  // And it must not run off its end: it ends in a jump or branch (to
  // itself, as an endless loop does) or in a call that never returns.
  bool never = false;
  if (!returns) {
    TextSpan span = text_span(q);
    never = (span.size() >= 2 && mips::is_unconditional(word_at(bin.text_buf, span.end - 2))) ||
            ends_in_call_that_never_returns(q);
  }
  s_->memo[record] = never ? 3 : 2;
  return never;
}

} // namespace vesk
