// The record decoder of the .MIPS.events and .MIPS.content sections.
//
// A stream is a sequence of records, each tied to a running text address
// (relative to the section that sh_link names).  A byte with bit 7 set is a
// short location step of (b & 0x7f) words; any other byte is a kind,
// followed directly (unaligned, big-endian) by its operands.
#pragma once

#include <cstdint>
#include <string>

namespace vesk {

enum EventKind : uint32_t {
  EK_NULL = 0x00,
  EK_ADDR_RESET = 0x01,
  EK_INCR_LOC_EXT = 0x02,
  EK_ENTRY = 0x03,
  EK_IF_ENTRY = 0x04,
  EK_EXIT = 0x05,
  EK_PEND = 0x06,
  EK_SWITCH_32 = 0x07,
  EK_SWITCH_64 = 0x08,
  EK_DUMMY = 0x09,
  EK_BB_START = 0x0a,
  EK_INCR_LOC_UNALIGNED = 0x0b,
  EK_GP_PROLOG_HI = 0x0c,
  EK_GP_PROLOG_LO = 0x0d,
  EK_GOT_PAGE = 0x0e,
  EK_GOT_OFST = 0x0f,
  EK_HI = 0x10,
  EK_LO = 0x11,
  EK_64_HIGHEST = 0x12,
  EK_64_HIGHER = 0x13,
  EK_64_HIGH = 0x14,
  EK_64_LOW = 0x15,
  EK_GPREL = 0x16,
  EK_DEF = 0x17,
  EK_FCALL_LOCAL = 0x18,
  EK_FCALL_EXTERN = 0x19,
  EK_FCALL_EXTERN_BIG = 0x1a,
  EK_FCALL_MULT = 0x1b,
  EK_FCALL_MULT_PARTIAL = 0x1c,
  EK_LTR_FCALL = 0x1d,
  EK_PCREL_GOT0 = 0x1e,
  CK_DEFAULT = 0x30,
  CK_ALIGN = 0x31,
  CK_INSTR = 0x32,
  CK_DATA = 0x33,
  CK_SADDR_32 = 0x34,
  CK_GADDR_32 = 0x35,
  CK_CADDR_32 = 0x36,
  CK_SADDR_64 = 0x37,
  CK_GADDR_64 = 0x38,
  CK_CADDR_64 = 0x39,
  CK_NO_XFORM = 0x3a,
  CK_NO_REORDER = 0x3b,
  CK_GP_GROUP = 0x3c,
  CK_STUBS = 0x3d,
  EK_SHORT_STEP = 0x80, // the kind a short location step decodes to
};

// The section types are <elf.h>'s SHT_MIPS_EVENTS (0x70000021) and
// SHT_MIPS_CONTENT (0x7000000c).

// One decoded record; the caller reuses it from record to record.
struct EventEntry {
  uint64_t val1 = 0, val2 = 0, val3 = 0, val4 = 0, val5 = 0, val6 = 0;
  uint32_t kind = 0;
  uint32_t address = 0; // the running text address after this record
};

// A stream being decoded: its bytes and the name of its section, for the
// message that ends the run when a record is cut off.
struct EventStream {
  const uint8_t *begin;
  const uint8_t *end;
  const char *section;
};

// Decodes the record at p (begin <= p < end) with the running address
// `address` going in, fills *record and returns the pointer just past it.
// A record cut off by the end of the stream ends the run.
const uint8_t *event_get_next_rec(const EventStream &s, const uint8_t *p, uint32_t address, EventEntry *record);

// Decodes records from p, the running address taken from record->address,
// until one of the given kind is found: returns that kind with *record
// holding it and p just past it.  Returns 0 when p is at or past the end at
// the start or the end is reached first, so finding EK_NULL cannot be told
// from finding nothing.
uint32_t event_find_record(const EventStream &s, const uint8_t *&p, EventEntry *record, uint32_t kind);

// Big-endian reads at any alignment; the caller has checked the bounds.
uint16_t event_get_word16(const uint8_t *p);
uint32_t event_get_word32(const uint8_t *p);
uint64_t event_get_word64(const uint8_t *p);

// The name of a kind for messages ("EK_GOT_PAGE"), or "0x%x" for a kind
// without one.
std::string event_kind_string(uint32_t kind);

// The operand shape of a kind, for the writers of streams.
enum class EventOperand { none, s16, u64, uleb, other };
EventOperand event_operand(uint32_t kind);

} // namespace vesk
