// The records of the mdebug symbolic debugging table, in their 32-bit
// big-endian layouts, and the few field decodings shared by the reader and
// the updater.
//
// Every record is a struct of ub16/ub32 fields: no padding, alignment 1, so
// a record may be overlaid on any byte of a buffer once the bounds of the
// whole record have been checked (record_at).
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/bytes.h"

namespace vesk {

constexpr uint16_t MDEBUG_MAGIC = 0x7009;     // the 32-bit symbolic header
constexpr uint16_t MDEBUG_MAGIC_64 = 0x1992;  // the 64-bit form (not handled)
constexpr uint32_t MDEBUG_NIL = 0xFFFFFFFF;   // "none" in isym, iss, rss, lnHigh

// Symbolic header: counts and FILE offsets of every table.
struct Hdrr {
  ub16 magic;
  ub16 vstamp;
  ub32 ilineMax;
  ub32 cbLine;
  ub32 cbLineOffset;
  ub32 idnMax;
  ub32 cbDnOffset;
  ub32 ipdMax;
  ub32 cbPdOffset;
  ub32 isymMax;
  ub32 cbSymOffset;
  ub32 ioptMax;
  ub32 cbOptOffset;
  ub32 iauxMax;
  ub32 cbAuxOffset;
  ub32 issMax;
  ub32 cbSsOffset;
  ub32 issExtMax;
  ub32 cbSsExtOffset;
  ub32 ifdMax;
  ub32 cbFdOffset;
  ub32 crfd;
  ub32 cbRfdOffset;
  ub32 iextMax;
  ub32 cbExtOffset;
};
static_assert(sizeof(Hdrr) == 96);

// File descriptor: one per compilation unit.
struct Fdr {
  ub32 adr;        // base address of the file's text
  ub32 rss;        // file name, within the file's strings
  ub32 issBase;    // the file's strings, within the local strings
  ub32 cbSs;
  ub32 isymBase;   // first local symbol
  ub32 csym;
  ub32 ilineBase;
  ub32 cline;
  ub32 ioptBase;
  ub32 copt;
  ub16 ipdFirst;   // first procedure descriptor, low 16 bits
  ub16 cpd;        // procedure descriptors, low 16 bits
  ub32 iauxBase;
  ub32 caux;
  ub32 rfdBase;
  ub32 crfd;
  ub32 bits;       // language, flags and the high bits of ipdFirst/cpd
  ub32 cbLineOffset;
  ub32 cbLine;
};
static_assert(sizeof(Fdr) == 72);

// Procedure descriptor.
struct Pdr {
  ub32 adr;
  ub32 isym;       // the procedure's symbol, relative to isymBase; MDEBUG_NIL = none
  ub32 iline;
  ub32 regmask;
  ub32 regoffset;
  ub32 iopt;
  ub32 fregmask;
  ub32 fregoffset;
  ub32 frameoffset;
  ub16 framereg;
  ub16 pcreg;
  ub32 lnLow;      // signed
  ub32 lnHigh;     // signed
  ub32 cbLineOffset;
};
static_assert(sizeof(Pdr) == 52);

// Local symbol.  The third word holds st (6 bits, the most significant),
// sc (5), one reserved bit and index (20).
struct Symr {
  ub32 iss;
  ub32 value;
  ub32 type_word;
};
static_assert(sizeof(Symr) == 12);

inline unsigned symr_st(const Symr &s) { return uint32_t(s.type_word) >> 26; }

// External symbol: flags, owning file, then a local-symbol record.
struct Extr {
  ub16 flags;
  ub16 ifd;
  Symr asym;
};
static_assert(sizeof(Extr) == 16);

// The record of type R at byte offset off of buf (bounds checked by caller).
template <class R> R *record_at(uint8_t *buf, uint64_t off) { return reinterpret_cast<R *>(buf + off); }
template <class R> const R *record_at(const uint8_t *buf, uint64_t off) {
  return reinterpret_cast<const R *>(buf + off);
}

// The extension of ipdFirst and cpd to 20 bits.  Numbering the bits of the
// FDR's bit-field word with the most significant as 31, bits 20..17 are
// bits 19..16 of ipdFirst and bits 16..13 are bits 19..16 of cpd; counted
// from the most significant bit as 0 these are bits 11..14 and 15..18.
inline uint32_t fdr_ipd_first_high(const Fdr &f) { return (uint32_t(f.bits) >> 17) & 0xF; }
inline uint32_t fdr_cpd_high(const Fdr &f) { return (uint32_t(f.bits) >> 13) & 0xF; }

// The descriptors of one file: indexes first .. first + count - 1 of the
// procedure-descriptor table.
struct ProcRange {
  uint64_t first;
  uint64_t count;
};

// ipdFirst is 16 bits wide, so in an executable with more than 65535
// procedure descriptors the raw values start again from 0.  A walk over the
// files in table order keeps the previous raw value and the amount added so
// far; each walk (reading, updating) has its own.
struct IpdCarry {
  uint32_t last_ipd_first = 0;
  uint64_t ipd_high = 0;
};

// The procedure range of file f.  With b_flag the linker's extension bits
// are trusted; without it a drop of the raw ipdFirst between files with
// procedures (and no extension bits) counts as one more 64 K wrap.
inline ProcRange fdr_proc_range(const Fdr &f, bool b_flag, IpdCarry &carry) {
  uint32_t ipd_first = f.ipdFirst;
  uint32_t cpd = f.cpd;
  if (b_flag)
    return {ipd_first + (uint64_t(fdr_ipd_first_high(f)) << 16), cpd + (uint64_t(fdr_cpd_high(f)) << 16)};
  if (cpd != 0 && ipd_first < carry.last_ipd_first && fdr_ipd_first_high(f) == 0)
    carry.ipd_high += 0x10000;
  carry.last_ipd_first = ipd_first;
  return {ipd_first + carry.ipd_high, cpd};
}

} // namespace vesk
