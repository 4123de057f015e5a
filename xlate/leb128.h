// LEB128 numbers as DWARF encodes them: seven value bits per byte, least
// significant group first, bit 7 set on every byte but the last.
//
// The encoders write into a buffer with room for the longest form (5 bytes
// for 32 bits, 10 for 64) and return the count of bytes written.  The
// decoders read no further than `end` and no more bytes than the width
// allows; they return the count of bytes read, or 0 when the number runs
// past either limit (a malformed table).
#pragma once

#include <cstdint>
#include <type_traits>

namespace vesk::xlate {

template <class U> int leb128_unsigned_encode(U v, uint8_t *out) {
  int n = 0;
  do {
    uint8_t b = uint8_t(v & 0x7f);
    v >>= 7;
    if (v != 0)
      b |= 0x80;
    out[n++] = b;
  } while (v != 0);
  return n;
}

// Stops after the byte whose remaining value is the sign extension and
// whose bit 6 is the sign.
template <class S> int leb128_signed_encode(S v, uint8_t *out) {
  int n = 0;
  for (;;) {
    uint8_t b = uint8_t(v & 0x7f);
    v >>= 7; // arithmetic: the sign spreads down
    bool done = (v == 0 && !(b & 0x40)) || (v == -1 && (b & 0x40));
    out[n++] = done ? b : uint8_t(b | 0x80);
    if (done)
      return n;
  }
}

template <class U> int leb128_unsigned_decode(const uint8_t *p, const uint8_t *end, U *out) {
  constexpr int max_bytes = (sizeof(U) * 8 + 6) / 7;
  U v = 0;
  for (int n = 0; n < max_bytes && p + n < end; ++n) {
    v |= U(p[n] & 0x7f) << (7 * n);
    if (!(p[n] & 0x80)) {
      *out = v;
      return n + 1;
    }
  }
  return 0;
}

template <class S> int leb128_signed_decode(const uint8_t *p, const uint8_t *end, S *out) {
  using U = std::make_unsigned_t<S>;
  constexpr int bits = int(sizeof(S) * 8);
  constexpr int max_bytes = (bits + 6) / 7;
  U v = 0;
  for (int n = 0; n < max_bytes && p + n < end; ++n) {
    v |= U(p[n] & 0x7f) << (7 * n);
    if (!(p[n] & 0x80)) {
      int shift = 7 * (n + 1);
      if (shift < bits && (p[n] & 0x40))
        v |= ~U(0) << shift;
      *out = S(v);
      return n + 1;
    }
  }
  return 0;
}

inline int _leb128_unsigned_encode32(uint32_t v, uint8_t *out) { return leb128_unsigned_encode(v, out); }
inline int _leb128_unsigned_encode64(uint64_t v, uint8_t *out) { return leb128_unsigned_encode(v, out); }
inline int _leb128_signed_encode32(int32_t v, uint8_t *out) { return leb128_signed_encode(v, out); }
inline int _leb128_signed_encode64(int64_t v, uint8_t *out) { return leb128_signed_encode(v, out); }
inline int _leb128_unsigned_decode32(const uint8_t *p, const uint8_t *end, uint32_t *out) {
  return leb128_unsigned_decode(p, end, out);
}
inline int _leb128_unsigned_decode64(const uint8_t *p, const uint8_t *end, uint64_t *out) {
  return leb128_unsigned_decode(p, end, out);
}
inline int _leb128_signed_decode32(const uint8_t *p, const uint8_t *end, int32_t *out) {
  return leb128_signed_decode(p, end, out);
}
inline int _leb128_signed_decode64(const uint8_t *p, const uint8_t *end, int64_t *out) {
  return leb128_signed_decode(p, end, out);
}

} // namespace vesk::xlate
