// Repairing what the events and content records describe, and rebuilding
// the events stream for the new addresses.
//
// Each record describes one instruction and carries what it needs of its
// partner (the other half of a pair, the whole address of a 64-bit build),
// so an instruction is rewritten without finding its partner.  Values are
// read from the input text, never from the new text, so that the order in
// which records are met does not matter.
#include "com/events.h"

#include <algorithm>
#include <cstring>
#include <gelf.h>

#include "base/bin.h"
#include "base/bytes.h"
#include "base/diag.h"
#include "base/mips.h"
#include "base/options.h"
#include "com/elf.h"
#include "com/update.h"

namespace vesk {

namespace {

constexpr uint32_t SIZE_INST = 4;

int64_t sext16(uint64_t v) { return int64_t(int16_t(uint16_t(v))); }

// Addresses of 32-bit executables wrap at 4 GB.
uint64_t address_width(uint64_t a) { return bin.is_elf32 ? uint64_t(uint32_t(a)) : a; }

uint64_t new_address(uint64_t a) {
  uint64_t moved;
  return map_text_address(a, &moved) ? moved : a;
}

uint32_t old_insn(uint64_t a) { return word_at(bin.text_buf, (a - bin.text_lo) >> 2); }

void patch_imm16(uint64_t new_pc, uint64_t imm) {
  uint8_t *w = new_text_word(new_pc);
  if (w == nullptr)
    error("the new address %#llx of an events record lies outside the new .text", (unsigned long long)new_pc);
  store32(w, mips::with_imm16(load32(w), uint32_t(imm)));
}

// The high half that pairs with the sign-extended low half of v.
uint64_t high_half(int64_t v) { return uint64_t((v - sext16(uint64_t(v))) >> 16) & 0xffff; }

// A data word of an allocated section: where it lies in the image's
// buffers, and whether libelf left that buffer in file order.
struct DataWord {
  uint8_t *p = nullptr;
  bool raw = true;
};

DataWord data_word(Elf *elf, uint64_t addr, size_t n) {
  for (Elf_Scn *scn = elf_nextscn(elf, nullptr); scn != nullptr; scn = elf_nextscn(elf, scn)) {
    GElf_Shdr sh;
    if (gelf_getshdr(scn, &sh) == nullptr || (sh.sh_flags & SHF_ALLOC) == 0 || sh.sh_type == SHT_NOBITS ||
        addr < sh.sh_addr || addr - sh.sh_addr >= sh.sh_size)
      continue;
    Elf_Data *d = elf_getdata(scn, nullptr);
    uint64_t off = addr - sh.sh_addr;
    if (d == nullptr || d->d_buf == nullptr || off > d->d_size || n > d->d_size - off)
      return {};
    return {static_cast<uint8_t *>(d->d_buf) + off, d->d_type == ELF_T_BYTE};
  }
  return {};
}

uint64_t read_word(const DataWord &w, size_t n) {
  if (w.raw)
    return n == 8 ? load64(w.p) : load32(w.p);
  if (n == 8) {
    uint64_t v;
    std::memcpy(&v, w.p, 8);
    return v;
  }
  uint32_t v;
  std::memcpy(&v, w.p, 4);
  return v;
}

void write_word(const DataWord &w, size_t n, uint64_t v) {
  if (w.raw) {
    n == 8 ? store64(w.p, v) : store32(w.p, uint32_t(v));
  } else if (n == 8) {
    std::memcpy(w.p, &v, 8);
  } else {
    uint32_t v32 = uint32_t(v);
    std::memcpy(w.p, &v32, 4);
  }
}

// The update of one record.
class EventsUpdate {
public:
  explicit EventsUpdate(EventsWriter &w) : w_(w) {}

  void operator()(Elf *, const EventRecord &r) {
    const EventEntry &e = r.e;
    uint64_t a = r.address();
    switch (e.kind) {
    case EK_ENTRY:
    case EK_EXIT:
    case EK_PEND:
      w_.keep(e.kind, new_address(a), 0);
      break;
    case EK_GP_PROLOG_HI:
    case EK_GP_PROLOG_LO:
      if (!expect_in_text(e.kind, a))
        break;
      gp_prolog(e.kind, a, sext16(e.val1));
      break;
    case EK_HI:
    case EK_LO:
      if (!expect_in_text(e.kind, a))
        break;
      hi_lo(e.kind, a, sext16(e.val1));
      break;
    case EK_64_HIGHEST:
    case EK_64_HIGHER:
    case EK_64_HIGH:
    case EK_64_LOW:
      if (!expect_in_text(e.kind, a))
        break;
      slice64(e.kind, a, e.val1);
      break;
    case EK_GOT_PAGE:
    case EK_GOT_OFST:
      got_pair(e.kind, a, sext16(e.val1));
      break;
    case CK_SADDR_32:
    case CK_SADDR_64:
    case CK_GADDR_32:
    case CK_GADDR_64:
      data_words(e.kind, a, e.val1);
      break;
    case CK_INSTR: case CK_DATA: case CK_CADDR_32: case CK_CADDR_64: case CK_ALIGN: case CK_NO_XFORM:
    case CK_NO_REORDER:
      warning("Don't do %s", event_kind_string(e.kind).c_str());
      break;
    case EK_NULL: case EK_ADDR_RESET: case EK_INCR_LOC_EXT: case EK_INCR_LOC_UNALIGNED: case EK_FCALL_LOCAL:
    case EK_FCALL_EXTERN: case EK_FCALL_EXTERN_BIG: case EK_FCALL_MULT: case EK_FCALL_MULT_PARTIAL:
    case EK_LTR_FCALL: case CK_STUBS: case EK_SHORT_STEP:
      break; // locations are regenerated; the call records do not survive the rewrite
    default:
      warning("Don't do event/content kind %d", int(e.kind));
      break;
    }
  }

private:
  EventsWriter &w_;

  static bool expect_in_text(uint32_t kind, uint64_t a) {
    if (in_text(a))
      return true;
    warning("incorrect %s", event_kind_string(kind).c_str());
    return false;
  }

  // gp set-up: the pair adds gp minus the function's address to the
  // address the function was called at; the record on one half carries the
  // other half.  gp is its GOT's: the primary one's, or in a program whose
  // GOT the linker split, the one its function uses.
  void gp_prolog(uint32_t kind, uint64_t a, int64_t partner) {
    uint32_t insn = old_insn(a);
    bool hi = kind == EK_GP_PROLOG_HI;
    int64_t value = hi ? sext16(mips::imm16(insn)) * 65536 + partner : partner * 65536 + mips::simm16(insn);
    uint64_t gp = gp_at(a);
    uint64_t old_base = address_width(gp - uint64_t(value));
    int64_t x = int64_t(address_width(gp - new_address(old_base)));
    if (bin.is_elf32)
      x = int32_t(uint32_t(x));
    uint64_t moved = new_address(a);
    patch_imm16(moved, hi ? high_half(x) : uint64_t(x) & 0xffff);
    w_.keep(kind, moved, hi ? uint64_t(sext16(uint64_t(x))) : uint64_t(sext16(high_half(x))));
  }

  // %hi or %lo of a 32-bit address; the record carries the other half.
  void hi_lo(uint32_t kind, uint64_t a, int64_t partner) {
    uint32_t insn = old_insn(a);
    bool hi = kind == EK_HI;
    uint64_t addr = address_width(
        uint64_t(hi ? sext16(mips::imm16(insn)) * 65536 + partner : partner * 65536 + mips::simm16(insn)));
    uint64_t moved = new_address(a);
    if (!in_text(addr)) {
      w_.keep(kind, moved, uint64_t(partner));
      return;
    }
    uint64_t t = new_address(addr);
    patch_imm16(moved, hi ? high_half(int64_t(t)) : t & 0xffff);
    w_.keep(kind, moved, hi ? uint64_t(sext16(t)) : uint64_t(sext16(high_half(int64_t(t)))));
  }

  // One 16-bit slice of a 64-bit address build.  With the low slices taken
  // as signed quantities, each slice above carries what they borrow
  // (0x8000 for bits 16-31, 0x80008000 for bits 32-47), so that the
  // sequential build (lui, daddiu, dsll, daddiu, dsll, daddiu) and the
  // parallel one (two lui/daddiu halves joined by dsll32 and daddu) both
  // yield the address.  The top slice takes bits 48-63 as they are, which
  // needs no carry below 0x7fff7fff8000, far above any user address;
  // an address that would need one is refused.
  void slice64(uint32_t kind, uint64_t a, uint64_t addr) {
    uint64_t moved = new_address(a);
    if (!in_text(addr)) {
      w_.keep(kind, moved, addr);
      return;
    }
    uint64_t t = new_address(addr);
    if (((t + 0x800080008000ull) >> 48) != (t >> 48))
      error("the 64-bit address build at %#llx would have to form %#llx, whose top 16 bits need a carry",
            (unsigned long long)a, (unsigned long long)t);
    uint64_t imm;
    switch (kind) {
    case EK_64_HIGHEST: imm = t >> 48; break;
    case EK_64_HIGHER: imm = (t + 0x80008000ull) >> 32; break;
    case EK_64_HIGH: imm = (t + 0x8000) >> 16; break;
    default: imm = t; break;
    }
    patch_imm16(moved, imm & 0xffff);
    w_.keep(kind, moved, t);
  }

  // GOT page load (the record carries the low half added to the page) or
  // offset instruction (the record carries the page entry's gp offset).
  void got_pair(uint32_t kind, uint64_t a, int64_t partner) {
    if (!in_text(a))
      error("the %s record at %#llx lies outside .text, where its instruction cannot be repaired",
            event_kind_string(kind).c_str(), (unsigned long long)a);
    uint32_t insn = old_insn(a);
    bool page = kind == EK_GOT_PAGE;
    int32_t gp_offset = page ? mips::simm16(insn) : int32_t(partner);
    int32_t low = page ? int32_t(partner) : mips::simm16(insn);
    uint64_t gp = gp_at(a);
    uint32_t index = got_index_by_gpoffset(gp_offset, gp);
    uint64_t old_addr = address_width(got_content_by_gpoffset(gp_offset, gp) + uint64_t(int64_t(low)));
    uint64_t moved = new_address(a);
    int32_t v = page ? update_got_page(moved, low, index, old_addr, gp)
                     : update_got_offset(moved, low, index, old_addr, gp);
    w_.keep(kind, moved, uint64_t(sext16(uint64_t(uint32_t(v)))));
  }

  // count data words from a that hold a code address, absolute (SADDR) or
  // minus gp (GADDR).  Each is set from its input value, so a word that a
  // dynamic relocation already re-pointed is not moved twice.
  void data_words(uint32_t kind, uint64_t a, uint64_t count) {
    bool wide = kind == CK_SADDR_64 || kind == CK_GADDR_64;
    bool gp_relative = kind == CK_GADDR_32 || kind == CK_GADDR_64;
    if (wide == bool(bin.is_elf32))
      error("a %s record at %#llx in a %d-bit executable", event_kind_string(kind).c_str(), (unsigned long long)a,
            bin.is_elf32 ? 32 : 64);
    w_.keep(kind, a, count); // the words stay where they are: a later run repairs them again
    size_t n = wide ? 8 : 4;
    for (uint64_t i = 0; i < count; ++i) {
      uint64_t at = a + n * i;
      DataWord in = data_word(bin.in_elf, at, n);
      DataWord out = data_word(bin.out_elf, at, n);
      if (in.p == nullptr || out.p == nullptr || in_text(at)) {
        warning("event type %s had error at index %ld, no such address as 0x%llx in program",
                wide ? "CK_SADDR_64" : "CK_SADDR_32", long(i), (unsigned long long)at);
        return; // the words behind it are not there either
      }
      uint64_t v = read_word(in, n);
      if (!wide)
        v = gp_relative ? sign_extend32(uint32_t(v)) : uint32_t(v);
      uint64_t gp = gp_relative ? gp_at(at) : 0;
      uint64_t target = address_width(gp_relative ? v + gp : v);
      if (!in_text(target))
        continue;
      uint64_t moved = new_address(target);
      write_word(out, n, gp_relative ? moved - gp : moved);
    }
  }
};

Elf_Data *section_data(Elf_Scn *scn, const char *name) {
  Elf_Data *d = elf_getdata(scn, nullptr);
  if (d == nullptr || (d->d_buf == nullptr && d->d_size != 0))
    error("%s: cannot read section %s", option.program, name);
  return d;
}

const char *section_name(Elf *elf, const GElf_Shdr &sh) {
  size_t shstrndx;
  const char *n = nullptr;
  if (elf_getshdrstrndx(elf, &shstrndx) == 0)
    n = elf_strptr(elf, shstrndx, sh.sh_name);
  return n ? n : "(unnamed)";
}

void set_section_size(Elf_Scn *scn, uint64_t size) {
  if (bin.is_elf32)
    elf32_getshdr(scn)->sh_size = uint32_t(size);
  else
    elf64_getshdr(scn)->sh_size = size;
}

} // namespace

void EventsWriter::reset(size_t text_section, uint64_t base) {
  kept_.clear();
  text_section_ = text_section;
  base_ = base;
  last_addr_ = 0;
  started_ = false;
}

void EventsWriter::keep(uint32_t kind, uint64_t addr, uint64_t val1, uint64_t val2, uint64_t val3) {
  kept_.push_back({kind, addr, val1, val2, val3});
}

void EventsWriter::advance(std::vector<uint8_t> &out, uint64_t addr) {
  if (!started_) {
    if (addr < base_ || addr - base_ > 0xffffffffu)
      error("the rebuilt events stream cannot reach %#llx from its base %#llx", (unsigned long long)addr,
            (unsigned long long)base_);
    uint8_t b[7] = {EK_ADDR_RESET};
    store32(b + 1, uint32_t(addr - base_));
    out.insert(out.end(), b, b + 7); // the last two bytes receive the length
    started_ = true;
  } else {
    if (addr < last_addr_)
      error("the rebuilt events stream would step back from %#llx to %#llx", (unsigned long long)last_addr_,
            (unsigned long long)addr);
    if ((addr - last_addr_) % SIZE_INST != 0)
      error("the rebuilt events stream would step from %#llx to %#llx, not a whole number of instructions",
            (unsigned long long)last_addr_, (unsigned long long)addr);
    uint64_t n = (addr - last_addr_) / SIZE_INST;
    if (n > 0 && n < 128) {
      out.push_back(uint8_t(0x80 | n));
    } else if (n >= 128) {
      out.push_back(EK_INCR_LOC_EXT);
      for (; n >= 0x80; n >>= 7)
        out.push_back(uint8_t(0x80 | (n & 0x7f)));
      out.push_back(uint8_t(n));
    }
  }
  last_addr_ = addr;
}

std::vector<uint8_t> EventsWriter::build() {
  std::stable_sort(kept_.begin(), kept_.end(), [](const KeptEvent &a, const KeptEvent &b) { return a.addr < b.addr; });
  std::vector<uint8_t> out;
  for (const KeptEvent &k : kept_) {
    advance(out, k.addr);
    EventOperand op = event_operand(k.kind);
    out.push_back(uint8_t(k.kind));
    uint8_t b[8];
    if (op == EventOperand::s16) {
      store16(b, uint16_t(k.val1));
      out.insert(out.end(), b, b + 2);
    } else if (op == EventOperand::u64) {
      store64(b, k.val1);
      out.insert(out.end(), b, b + 8);
    } else if (op == EventOperand::uleb && k.kind >= CK_INSTR && k.kind <= CK_NO_REORDER) {
      // A count of data words.
      uint64_t n = k.val1;
      for (; n >= 0x80; n >>= 7)
        out.push_back(uint8_t(0x80 | (n & 0x7f)));
      out.push_back(uint8_t(n));
    } else if (!(op == EventOperand::none && (k.kind == EK_ENTRY || k.kind == EK_EXIT || k.kind == EK_PEND))) {
      error("unknow event kind %d", int(k.kind));
    }
  }
  if (!out.empty())
    store16(out.data() + 5, uint16_t(out.size()));
  return out;
}

void EventsWriter::dump_listing() const {
  dump("(%d) %#llx", int(text_section_), (unsigned long long)base_);
  for (const KeptEvent &k : kept_) {
    if (k.kind < EK_ENTRY || k.kind > EK_64_LOW) {
      dump("UNKNOWN %d", int(k.kind));
      continue;
    }
    dump("%20s %#20llx %#20llx %#20x", event_kind_string(k.kind).c_str(), (unsigned long long)k.addr,
         (unsigned long long)k.val1, unsigned(k.val1 & 0xffffffffu));
  }
}

bool has_event_sections(Elf *elf) {
  for (Elf_Scn *scn = elf_nextscn(elf, nullptr); scn != nullptr; scn = elf_nextscn(elf, scn)) {
    GElf_Shdr sh;
    if (gelf_getshdr(scn, &sh) && (sh.sh_type == SHT_MIPS_EVENTS || sh.sh_type == SHT_MIPS_CONTENT))
      return true;
  }
  return false;
}

void foreach_event(Elf *elf, EventsWriter *writer, const EventCallback &callback) {
  bool any = false;
  for (Elf_Scn *scn = elf_getscn(elf, 0); scn != nullptr; scn = elf_nextscn(elf, scn)) {
    GElf_Shdr sh;
    if (gelf_getshdr(scn, &sh) == nullptr)
      continue;
    bool events = sh.sh_type == SHT_MIPS_EVENTS;
    if (!events && !(sh.sh_type == SHT_MIPS_CONTENT && bin.pic_kind != 0))
      continue;
    any = true;
    const char *name = section_name(elf, sh);
    GElf_Shdr text;
    Elf_Scn *linked = sh.sh_link != 0 ? elf_getscn(elf, sh.sh_link) : nullptr;
    if (linked == nullptr || gelf_getshdr(linked, &text) == nullptr)
      error("%s: section %s names no text section in its sh_link (%u)", option.program, name, unsigned(sh.sh_link));
    bool rebuild = events && writer != nullptr;
    if (rebuild)
      writer->reset(sh.sh_link, text.sh_addr);

    Elf_Data *d = section_data(scn, name);
    const uint8_t *p = static_cast<const uint8_t *>(d->d_buf);
    EventStream s{p, p + (p ? d->d_size : 0), name};
    EventRecord r;
    r.text_section = sh.sh_link;
    r.base = text.sh_addr;
    while (p < s.end) {
      p = event_get_next_rec(s, p, r.e.address, &r.e);
      callback(elf, r);
    }
    if (!rebuild)
      continue;

    std::vector<uint8_t> stream = writer->build();
    if (option.debug)
      writer->dump_listing();
    if (stream.size() <= d->d_size && stream.size() <= sh.sh_size) {
      std::vector<uint8_t> &kept = bin.out_buffers.emplace_back(std::move(stream));
      d->d_buf = kept.data();
      d->d_size = kept.size();
      set_section_size(scn, kept.size());
    } else {
      // The old records name the old addresses: a later run would repair
      // the code by them.  The section stays, but no longer as events, so a
      // later run that moves code refuses the program instead.
      GElf_Shdr retyped = sh;
      retyped.sh_type = SHT_PROGBITS;
      if (gelf_update_shdr(scn, &retyped) == 0)
        error("%s: cannot update section %s", option.program, name);
      warning(".events over-expands, vesk'ed binary can't be instrumented");
    }
  }
  if (!any)
    error("binary may be stripped. no events or contents section");
}

void process_update_events() {
  EventsWriter writer;
  EventsUpdate update(writer);
  foreach_event(bin.out_elf, &writer, std::ref(update));
}

std::vector<EventPageUse> event_page_uses() {
  std::vector<EventPageUse> out;
  if (!has_event_sections(bin.in_elf))
    return out;
  foreach_event(bin.in_elf, nullptr, [&out](Elf *, const EventRecord &r) {
    uint64_t a = r.address();
    if ((r.e.kind != EK_GOT_PAGE && r.e.kind != EK_GOT_OFST) || !in_text(a))
      return;
    bool page = r.e.kind == EK_GOT_PAGE;
    uint32_t insn = old_insn(a);
    int32_t gp_offset = page ? mips::simm16(insn) : int32_t(sext16(r.e.val1));
    int32_t low = page ? int32_t(sext16(r.e.val1)) : mips::simm16(insn);
    uint64_t gp = gp_at(a);
    uint64_t old_addr = address_width(got_content_by_gpoffset(gp_offset, gp) + uint64_t(int64_t(low)));
    if (in_text(old_addr))
      out.push_back({gp, new_address(old_addr)});
  });
  return out;
}

void read_event_got_pages() {
  if (!has_event_sections(bin.in_elf))
    return;
  bin.got_page.assign(bin.got_count, 0);
  bin.got_pages_known = true;
  foreach_event(bin.in_elf, nullptr, [](Elf *, const EventRecord &r) {
    if (r.e.kind != EK_GOT_PAGE || !in_text(r.address()))
      return;
    uint32_t index = got_index_by_gpoffset(mips::simm16(old_insn(r.address())), gp_at(r.address()));
    if (index < bin.got_page.size())
      bin.got_page[index] = 1;
  });
  Elf_Data *d = find_section_data_by_name(bin.in_elf, GOT_PAGES_SECTION);
  if (d == nullptr)
    return;
  const auto *p = static_cast<const uint8_t *>(d->d_buf);
  if ((p == nullptr && d->d_size != 0) || d->d_size % 4 != 0)
    error("%s: section %s is damaged: its size is not a whole number of entries", option.program,
          GOT_PAGES_SECTION);
  for (size_t off = 0; off < d->d_size; off += 4) {
    uint32_t index = load32(p + off);
    // Secondary GOTs (a program whose GOT the linker split) lie behind the
    // primary one's local part.
    if (index < 2 || (index >= bin.local_gotno && bin.gp_ranges.empty()) || index >= bin.got_page.size())
      error("%s: section %s names GOT entry %u, which is not a local entry of .got", option.program,
            GOT_PAGES_SECTION, index);
    bin.got_page[index] = 1;
  }
}

} // namespace vesk
