// What the tool knows about MIPS instructions (MIPS I to IV, 32-bit words).
// Every module decodes through these helpers; none picks bits by hand.
#pragma once

#include <cstdint>

namespace vesk::mips {

constexpr uint32_t op(uint32_t w) { return w >> 26; }
constexpr uint32_t rs(uint32_t w) { return (w >> 21) & 0x1f; }
constexpr uint32_t rt(uint32_t w) { return (w >> 16) & 0x1f; }
constexpr uint32_t rd(uint32_t w) { return (w >> 11) & 0x1f; }
constexpr uint32_t funct(uint32_t w) { return w & 0x3f; }
constexpr uint32_t imm16(uint32_t w) { return w & 0xffff; }
constexpr int32_t simm16(uint32_t w) { return int32_t(int16_t(uint16_t(w & 0xffff))); }
constexpr uint32_t instr_index(uint32_t w) { return w & 0x03ffffff; }

constexpr uint32_t with_imm16(uint32_t w, uint32_t imm) { return (w & 0xffff0000u) | (imm & 0xffff); }
constexpr uint32_t with_instr_index(uint32_t w, uint32_t index) {
  return (w & 0xfc000000u) | (index & 0x03ffffff);
}

// Primary opcodes.
enum : uint32_t {
  OP_SPECIAL = 0x00, OP_REGIMM = 0x01, OP_J = 0x02, OP_JAL = 0x03,
  OP_BEQ = 0x04, OP_BNE = 0x05, OP_BLEZ = 0x06, OP_BGTZ = 0x07,
  OP_ADDI = 0x08, OP_ADDIU = 0x09, OP_LUI = 0x0f,
  OP_COP0 = 0x10, OP_COP1 = 0x11, OP_COP2 = 0x12, OP_COP1X = 0x13,
  OP_BEQL = 0x14, OP_BNEL = 0x15, OP_BLEZL = 0x16, OP_BGTZL = 0x17,
  OP_DADDI = 0x18, OP_DADDIU = 0x19,
  OP_LW = 0x23, OP_LD = 0x37, OP_SW = 0x2b,
};

// SPECIAL function codes.
enum : uint32_t { FN_JR = 0x08, FN_JALR = 0x09, FN_BREAK = 0x0d };

constexpr bool is_jr(uint32_t w) { return op(w) == OP_SPECIAL && funct(w) == FN_JR; }
constexpr bool is_jalr(uint32_t w) { return op(w) == OP_SPECIAL && funct(w) == FN_JALR; }
constexpr bool is_jal(uint32_t w) { return op(w) == OP_JAL; }
constexpr bool is_break0(uint32_t w) { return w == 0x0000000d; }
// A load from memory at rs + simm16 (integer, coprocessor, linked, unaligned).
constexpr bool is_load(uint32_t w) {
  uint32_t o = op(w);
  return (o >= 0x20 && o <= 0x27) || o == 0x1a || o == 0x1b || o == 0x30 || o == 0x31 || o == 0x32 ||
         (o >= 0x34 && o <= 0x37);
}

// Target of a PC-relative branch at pc (64-bit arithmetic).
constexpr uint64_t branch_target(uint64_t pc, uint32_t w) {
  return pc + 4 + uint64_t(int64_t(simm16(w)) * 4);
}
// Target of a j/jal at pc: the high bits come from the delay slot's address.
constexpr uint64_t jump_target(uint64_t pc, uint32_t w) {
  return ((pc + 4) & ~uint64_t(0x0fffffff)) | (uint64_t(instr_index(w)) << 2);
}

// How the branch and jump fix-up treats a word.
enum class Fixup { none, branch, jump };

constexpr Fixup fixup_kind(uint32_t w) {
  switch (op(w)) {
  case OP_REGIMM: {
    uint32_t r = rt(w);
    return (r <= 3 || (r >= 16 && r <= 19)) ? Fixup::branch : Fixup::none;
  }
  case OP_J:
  case OP_JAL:
    return Fixup::jump;
  case OP_BEQ: case OP_BNE: case OP_BLEZ: case OP_BGTZ:
  case OP_BEQL: case OP_BNEL: case OP_BLEZL: case OP_BGTZL:
    return Fixup::branch;
  case OP_COP0: case OP_COP1: case OP_COP2:
    return rs(w) == 8 ? Fixup::branch : Fixup::none;
  default:
    return Fixup::none;
  }
}

// A first test, one bit per primary opcode: only words with these opcodes
// can be a branch or jump for fixup_kind or ties_as_branch.  A scan of the
// text asks it of every word; most are neither.
constexpr bool may_branch_or_jump(uint32_t w) {
  constexpr uint64_t ops = (1ull << OP_REGIMM) | (1ull << OP_J) | (1ull << OP_JAL) | (1ull << OP_BEQ) |
                           (1ull << OP_BNE) | (1ull << OP_BLEZ) | (1ull << OP_BGTZ) | (1ull << OP_COP0) |
                           (1ull << OP_COP1) | (1ull << OP_COP2) | (1ull << OP_BEQL) | (1ull << OP_BNEL) |
                           (1ull << OP_BLEZL) | (1ull << OP_BGTZL);
  return (ops >> op(w)) & 1;
}

// Which words tie procedures together when their target lies in another
// procedure.  REGIMM counts whatever its rt (traps included); coprocessor-1
// branches never count and coprocessor-2 branches do.
constexpr bool ties_as_branch(uint32_t w) {
  switch (op(w)) {
  case OP_REGIMM:
  case OP_BEQ: case OP_BNE: case OP_BLEZ: case OP_BGTZ:
  case OP_BEQL: case OP_BNEL: case OP_BLEZL: case OP_BGTZL:
    return true;
  case OP_COP2:
    return rs(w) == 8;
  default:
    return false;
  }
}

// R4000 end-of-page classifiers.
constexpr bool r4000_is_divide(uint32_t w) {
  uint32_t f = funct(w);
  return op(w) == OP_SPECIAL && (f == 0x1a || f == 0x1b || f == 0x1e || f == 0x1f);
}

// True when w is a branch or jump for the R4000 check; r1/r2 receive the
// source registers it reads (-1 when not applicable).
constexpr bool r4000_is_branch(uint32_t w, int &r1, int &r2) {
  r1 = r2 = -1;
  uint32_t o = op(w);
  if (o == OP_SPECIAL) {
    if (funct(w) == FN_JR || funct(w) == FN_JALR) { r1 = int(rs(w)); return true; }
    return false;
  }
  if (o == OP_REGIMM) {
    uint32_t r = rt(w);
    if (r <= 3 || (r >= 0x10 && r <= 0x13)) { r1 = int(rs(w)); return true; }
    return false;
  }
  if (o == OP_J || o == OP_JAL)
    return true;
  if ((o >= 0x04 && o <= 0x07) || (o >= 0x14 && o <= 0x17)) {
    r1 = int(rs(w));
    r2 = int(rt(w));
    return true;
  }
  if (o >= 0x10 && o <= 0x12)
    return rs(w) == 8;
  return false;
}

constexpr bool r4000_is_memory_access(uint32_t w) {
  uint32_t o = op(w);
  return o == 0x1a || o == 0x1b || (o >= 0x20 && o <= 0x3a) || o >= 0x3c;
}

constexpr bool is_mfc1(uint32_t w) { return op(w) == OP_COP1 && rs(w) == 0; }

// The general register an instruction writes: its number, kNoWrite when it
// writes none, kClobbersCallerSaved for a call (the callee may change every
// caller-saved register, and the call writes $31), kUnknownWrite when the
// instruction is not one this table knows.
constexpr int kNoWrite = -1, kClobbersCallerSaved = -2, kUnknownWrite = -3;

constexpr int gpr_written(uint32_t w) {
  uint32_t o = op(w);
  switch (o) {
  case OP_SPECIAL: {
    uint32_t f = funct(w);
    if (f == FN_JALR)
      return kClobbersCallerSaved;
    if (f == FN_JR || f == 0x0c || f == FN_BREAK || f == 0x0f || f == 0x11 || f == 0x13 ||
        (f >= 0x18 && f <= 0x1f) || (f >= 0x30 && f <= 0x37))
      return kNoWrite; // jr, syscall, break, sync, mthi/mtlo, multiply/divide, traps
    return int(rd(w));
  }
  case OP_REGIMM:
    return (rt(w) >= 16 && rt(w) <= 19) ? kClobbersCallerSaved : kNoWrite;
  case OP_J:
    return kNoWrite;
  case OP_JAL:
    return kClobbersCallerSaved;
  case OP_BEQ: case OP_BNE: case OP_BLEZ: case OP_BGTZ:
  case OP_BEQL: case OP_BNEL: case OP_BLEZL: case OP_BGTZL:
    return kNoWrite;
  case OP_COP0: case OP_COP1: case OP_COP2:
    return rs(w) <= 3 ? int(rt(w)) : kNoWrite; // mfc, dmfc, cfc (mfhc) write rt
  case OP_COP1X:
    return kNoWrite;
  case 0x1c: { // SPECIAL2
    uint32_t f = funct(w);
    return (f == 0x02 || f == 0x20 || f == 0x21 || f == 0x24 || f == 0x25) ? int(rd(w)) : kNoWrite;
  }
  case 0x1f: { // SPECIAL3
    uint32_t f = funct(w);
    if (f <= 0x07 || f == 0x3b)
      return int(rt(w)); // ext, ins and their 64-bit forms, rdhwr
    if (f == 0x20 || f == 0x24)
      return int(rd(w)); // seb, seh, wsbh and their 64-bit forms
    return kUnknownWrite;
  }
  default:
    break;
  }
  if ((o >= 0x08 && o <= 0x0f) || o == OP_DADDI || o == OP_DADDIU || (o >= 0x1a && o <= 0x1b) ||
      (o >= 0x20 && o <= 0x27) || o == 0x30 || o == 0x34 || o == 0x37 || o == 0x38 || o == 0x3c)
    return int(rt(w)); // immediate arithmetic, lui, loads, ll/lld and sc/scd (the success flag)
  if ((o >= 0x28 && o <= 0x2f) || (o >= 0x31 && o <= 0x33) || (o >= 0x35 && o <= 0x36) || o == 0x39 ||
      (o >= 0x3d && o <= 0x3f))
    return kNoWrite; // stores, cache, pref, coprocessor loads and stores
  return kUnknownWrite;
}

// Registers a call may change: $1-$15, $24, $25 and $31.
constexpr bool caller_saved(uint32_t r) { return (r >= 1 && r <= 15) || r == 24 || r == 25 || r == 31; }

// The linker turns a call through $25 that it knows the target of into a
// PC-relative branch: jalr $25 into bal, jr $25 into b.
constexpr uint32_t JALR_T9 = 0x0320f809; // jalr $31, $25
constexpr uint32_t JR_T9 = 0x03200008;   // jr $25
constexpr bool is_bal(uint32_t w) { return (w & 0xffff0000u) == 0x04110000u; } // bgezal $0
constexpr bool is_b(uint32_t w) { return (w & 0xffff0000u) == 0x10000000u; }   // beq $0, $0
// Control never falls through behind the delay slot of these: j, jr, b
// (beq $0,$0 and bgez $0).
constexpr bool is_unconditional(uint32_t w) {
  return op(w) == OP_J || is_jr(w) || is_b(w) || (w & 0xffff0000u) == 0x04010000u;
}

// The high half that pairs with a sign-extended low half: (v - sext16(v)) >> 16.
constexpr uint32_t hi16_adjusted(uint32_t v) {
  return uint32_t((v - uint32_t(int32_t(int16_t(uint16_t(v & 0xffff))))) >> 16) & 0xffff;
}

} // namespace vesk::mips
