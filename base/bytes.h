// Big-endian integers in section contents.
//
// Everything the tool reads or patches inside a raw section (.text, .got,
// .mdebug, .compact_rel, the events sections) is big-endian and may sit at
// any byte offset, so it goes through these helpers: memcpy plus an explicit
// byte order, never a cast of a byte pointer to a wider integer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace vesk {

inline uint16_t load16(const void *p) {
  uint8_t b[2];
  std::memcpy(b, p, 2);
  return uint16_t(b[0] << 8 | b[1]);
}

inline uint32_t load32(const void *p) {
  uint8_t b[4];
  std::memcpy(b, p, 4);
  return uint32_t(b[0]) << 24 | uint32_t(b[1]) << 16 | uint32_t(b[2]) << 8 | b[3];
}

inline uint64_t load64(const void *p) {
  const uint8_t *b = static_cast<const uint8_t *>(p);
  return uint64_t(load32(b)) << 32 | load32(b + 4);
}

inline void store16(void *p, uint16_t v) {
  uint8_t b[2] = {uint8_t(v >> 8), uint8_t(v)};
  std::memcpy(p, b, 2);
}

inline void store32(void *p, uint32_t v) {
  uint8_t b[4] = {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)};
  std::memcpy(p, b, 4);
}

inline void store64(void *p, uint64_t v) {
  uint8_t *b = static_cast<uint8_t *>(p);
  store32(b, uint32_t(v >> 32));
  store32(b + 4, uint32_t(v));
}

// On-disk fields of record layouts: a byte array that converts to and from
// the host integer.  Structs of these have no padding and no alignment, so a
// record can be overlaid on any byte of a buffer whose bounds were checked.
struct ub16 {
  uint8_t b[2];
  operator uint16_t() const { return load16(b); }
  ub16 &operator=(uint16_t v) { store16(b, v); return *this; }
};

struct ub32 {
  uint8_t b[4];
  operator uint32_t() const { return load32(b); }
  ub32 &operator=(uint32_t v) { store32(b, v); return *this; }
};

struct ub64 {
  uint8_t b[8];
  operator uint64_t() const { return load64(b); }
  ub64 &operator=(uint64_t v) { store64(b, v); return *this; }
};

static_assert(sizeof(ub16) == 2 && sizeof(ub32) == 4 && sizeof(ub64) == 8);
static_assert(alignof(ub32) == 1 && alignof(ub64) == 1);

// Text words are addressed by index into a raw big-endian buffer.
inline uint32_t word_at(const uint8_t *buf, uint64_t index) { return load32(buf + index * 4); }
inline void set_word_at(uint8_t *buf, uint64_t index, uint32_t v) { store32(buf + index * 4, v); }

inline uint64_t sign_extend32(uint32_t v) { return uint64_t(int64_t(int32_t(v))); }

} // namespace vesk
