#include "events/reader.h"

#include <cstdio>

#include "base/bytes.h"
#include "base/diag.h"

namespace vesk {

namespace {

// The operands that follow a kind byte, in order.
enum Op : uint8_t { END = 0, S8, U8, S16, U16, S32, U32, U64, ULEB };

struct Shape {
  Op ops[3];
};

Shape shape_of(uint32_t k) {
  switch (k) {
  case EK_ADDR_RESET: return {{U32, U16, END}};
  case EK_INCR_LOC_EXT:
  case EK_INCR_LOC_UNALIGNED:
  case EK_FCALL_MULT:
  case EK_FCALL_MULT_PARTIAL: return {{ULEB, END, END}};
  case EK_IF_ENTRY:
  case EK_FCALL_LOCAL:
  case EK_LTR_FCALL: return {{S32, END, END}};
  case EK_SWITCH_32: return {{S8, U32, ULEB}};
  case EK_SWITCH_64: return {{S8, U64, ULEB}};
  case EK_FCALL_EXTERN: return {{U16, END, END}};
  case EK_FCALL_EXTERN_BIG: return {{U16, U16, END}};
  case EK_PCREL_GOT0: return {{S16, END, END}};
  case CK_DEFAULT: return {{U8, END, END}};
  case CK_ALIGN: return {{ULEB, U8, END}};
  case CK_GP_GROUP: return {{ULEB, U32, END}};
  default: break;
  }
  if (k >= EK_GP_PROLOG_HI && k <= EK_LO)
    return {{S16, END, END}};
  if (k >= EK_64_HIGHEST && k <= EK_64_LOW)
    return {{U64, END, END}};
  if (k >= CK_INSTR && k <= CK_STUBS)
    return {{ULEB, END, END}};
  if (k >= 0x55 && k <= 0x59)
    return {{S16, END, END}};
  if (k >= 0x5a && k <= 0x5c)
    return {{S32, END, END}};
  if (k >= 0x5d && k <= 0x61)
    return {{U64, END, END}};
  if (k >= 0x62 && k <= 0x6b)
    return {{ULEB, END, END}};
  return {{END, END, END}};
}

size_t fixed_size(Op op) {
  switch (op) {
  case S8: case U8: return 1;
  case S16: case U16: return 2;
  case S32: case U32: return 4;
  case U64: return 8;
  default: return 0;
  }
}

// Reads the operands of one record, each checked against the end.
class OperandReader {
public:
  OperandReader(const EventStream &s, const uint8_t *record, const uint8_t *p, uint32_t address)
      : s_(s), record_(record), p_(p), address_(address) {}

  uint64_t read(Op op) {
    if (op == ULEB)
      return uleb();
    size_t n = fixed_size(op);
    need(n);
    const uint8_t *q = p_;
    p_ += n;
    switch (op) {
    case S8: return uint64_t(int64_t(int8_t(*q)));
    case U8: return *q;
    case S16: return uint64_t(int64_t(int16_t(event_get_word16(q))));
    case U16: return event_get_word16(q);
    case S32: return sign_extend32(event_get_word32(q));
    case U32: return event_get_word32(q);
    default: return event_get_word64(q);
    }
  }

  const uint8_t *pos() const { return p_; }

private:
  const EventStream &s_;
  const uint8_t *record_;
  const uint8_t *p_;
  uint32_t address_;

  [[noreturn]] void cut_off() const {
    error("section %s: the %s record at offset %#zx (text address %#x) is cut off by the end of the section",
          s_.section, event_kind_string(*record_).c_str(), size_t(record_ - s_.begin), address_);
  }

  void need(size_t n) const {
    if (size_t(s_.end - p_) < n)
      cut_off();
  }

  uint64_t uleb() {
    uint64_t v = 0;
    for (unsigned shift = 0;; shift += 7) {
      need(1);
      uint8_t b = *p_++;
      if (shift < 64)
        v |= uint64_t(b & 0x7f) << shift;
      if ((b & 0x80) == 0)
        return v;
    }
  }
};

} // namespace

uint16_t event_get_word16(const uint8_t *p) { return load16(p); }
uint32_t event_get_word32(const uint8_t *p) { return load32(p); }
uint64_t event_get_word64(const uint8_t *p) { return load64(p); }

const uint8_t *event_get_next_rec(const EventStream &s, const uint8_t *p, uint32_t address, EventEntry *r) {
  *r = EventEntry{};
  uint8_t b = *p;
  if (b & 0x80) {
    r->kind = EK_SHORT_STEP;
    r->val1 = uint64_t(b & 0x7f) * 4;
    r->val2 = b & 0x7f;
    r->address = address + uint32_t(r->val1);
    return p + 1;
  }
  r->kind = b;
  r->address = address;
  Shape sh = shape_of(b);
  OperandReader in(s, p, p + 1, address);
  uint64_t v[3] = {0, 0, 0};
  for (int i = 0; i < 3 && sh.ops[i] != END; ++i)
    v[i] = in.read(sh.ops[i]);
  switch (b) {
  case EK_ADDR_RESET:
    r->address = uint32_t(v[0]);
    r->val1 = r->val2 = v[0];
    r->val3 = r->val4 = v[1];
    break;
  case EK_INCR_LOC_EXT:
    r->val1 = v[0] * 4;
    r->address = address + uint32_t(r->val1);
    break;
  case EK_INCR_LOC_UNALIGNED:
    r->val1 = v[0];
    r->address = address + uint32_t(v[0]);
    break;
  case EK_SWITCH_32:
  case EK_SWITCH_64:
    r->val1 = v[0];
    r->val3 = v[1];
    r->val5 = v[2];
    break;
  case EK_FCALL_EXTERN_BIG:
    r->val1 = r->val2 = v[0];
    r->val3 = r->val4 = v[1];
    break;
  case CK_DEFAULT:
    r->val3 = v[0];
    break;
  case CK_ALIGN:
  case CK_GP_GROUP:
    r->val1 = v[0];
    r->val3 = v[1];
    break;
  default:
    if (sh.ops[0] == ULEB) {
      r->val1 = v[0];
    } else if (sh.ops[0] != END) {
      r->val1 = r->val2 = v[0];
    }
    break;
  }
  return in.pos();
}

uint32_t event_find_record(const EventStream &s, const uint8_t *&p, EventEntry *record, uint32_t kind) {
  while (p < s.end) {
    p = event_get_next_rec(s, p, record->address, record);
    if (record->kind == kind)
      return kind;
  }
  return 0;
}

EventOperand event_operand(uint32_t kind) {
  if (kind & 0x80)
    return EventOperand::other;
  Shape sh = shape_of(kind);
  if (sh.ops[0] == END)
    return EventOperand::none;
  if (sh.ops[1] == END && sh.ops[0] == S16)
    return EventOperand::s16;
  if (sh.ops[1] == END && sh.ops[0] == U64)
    return EventOperand::u64;
  if (sh.ops[1] == END && sh.ops[0] == ULEB)
    return EventOperand::uleb;
  return EventOperand::other;
}

std::string event_kind_string(uint32_t kind) {
  static constexpr const char *ek[] = {
      "EK_NULL", "EK_ADDR_RESET", "EK_INCR_LOC_EXT", "EK_ENTRY", "EK_IF_ENTRY", "EK_EXIT", "EK_PEND",
      "EK_SWITCH_32", "EK_SWITCH_64", "EK_DUMMY", "EK_BB_START", "EK_INCR_LOC_UNALIGNED", "EK_GP_PROLOG_HI",
      "EK_GP_PROLOG_LO", "EK_GOT_PAGE", "EK_GOT_OFST", "EK_HI", "EK_LO", "EK_64_HIGHEST", "EK_64_HIGHER",
      "EK_64_HIGH", "EK_64_LOW", "EK_GPREL", "EK_DEF", "EK_FCALL_LOCAL", "EK_FCALL_EXTERN",
      "EK_FCALL_EXTERN_BIG", "EK_FCALL_MULT", "EK_FCALL_MULT_PARTIAL", "EK_LTR_FCALL", "EK_PCREL_GOT0"};
  static constexpr const char *ck[] = {
      "CK_DEFAULT", "CK_ALIGN", "CK_INSTR", "CK_DATA", "CK_SADDR_32", "CK_GADDR_32", "CK_CADDR_32",
      "CK_SADDR_64", "CK_GADDR_64", "CK_CADDR_64", "CK_NO_XFORM", "CK_NO_REORDER", "CK_GP_GROUP", "CK_STUBS"};
  char buf[40];
  uint32_t group = kind >> 4, slot = kind & 15;
  if ((group == 0 || group == 1) && kind <= EK_PCREL_GOT0)
    return ek[kind];
  if (group == 3 && slot <= 0xd)
    return ck[slot];
  if (kind >= 0x50 && kind <= 0x54)
    std::snprintf(buf, sizeof buf, "EK_CK_UNUSED_NONE_%u", kind - 0x50);
  else if (kind >= 0x55 && kind <= 0x59)
    std::snprintf(buf, sizeof buf, "EK_CK_UNUSED_16BIT_%u", kind - 0x55);
  else if (kind >= 0x5a && kind <= 0x5c)
    std::snprintf(buf, sizeof buf, "EK_CK_UNUSED_32BIT_%u", kind - 0x5a);
  else if (kind >= 0x5d && kind <= 0x61)
    std::snprintf(buf, sizeof buf, "EK_CK_UNUSED_64BIT_%u", kind - 0x5d);
  else if (kind >= 0x62 && kind <= 0x6b)
    std::snprintf(buf, sizeof buf, "EK_CK_UNUSED_ULEB128_%u", kind - 0x62);
  else
    std::snprintf(buf, sizeof buf, "0x%x", kind);
  return buf;
}

} // namespace vesk
