// Small writers for the fixed-layout byte fields of the wire formats. Each
// writes one field at p; callers write one field per line and name it.
#pragma once

#include <cstdint>
#include <cstring>

namespace vesk {
namespace encoder {
namespace internal {

inline void PutU8(uint8_t* p, uint8_t v) { p[0] = v; }

inline void PutBe16(uint8_t* p, uint16_t v) {
  p[0] = (uint8_t)(v >> 8);
  p[1] = (uint8_t)v;
}

inline void PutBe24(uint8_t* p, uint32_t v) {
  p[0] = (uint8_t)(v >> 16);
  p[1] = (uint8_t)(v >> 8);
  p[2] = (uint8_t)v;
}

inline void PutBe32(uint8_t* p, uint32_t v) {
  p[0] = (uint8_t)(v >> 24);
  p[1] = (uint8_t)(v >> 16);
  p[2] = (uint8_t)(v >> 8);
  p[3] = (uint8_t)v;
}

inline void PutBe64(uint8_t* p, uint64_t v) {
  PutBe32(p, (uint32_t)(v >> 32));
  PutBe32(p + 4, (uint32_t)v);
}

// Host (little-endian on every target of this library) byte order.
inline void PutLe32(uint8_t* p, uint32_t v) {
  p[0] = (uint8_t)v;
  p[1] = (uint8_t)(v >> 8);
  p[2] = (uint8_t)(v >> 16);
  p[3] = (uint8_t)(v >> 24);
}

// An IEEE double in big-endian byte order (the AMF0 number).
inline void PutBeDouble(uint8_t* p, double v) {
  uint64_t bits;
  memcpy(&bits, &v, sizeof(bits));
  PutBe64(p, bits);
}

// The FLV tag timestamp: the low 24 bits big-endian, then bits 24-31.
inline void PutTimestamp(uint8_t* p, uint32_t v) {
  PutBe24(p, v & 0xFFFFFF);
  p[3] = (uint8_t)(v >> 24);
}

inline uint16_t GetBe16(const uint8_t* p) { return (uint16_t)((p[0] << 8) | p[1]); }

inline uint32_t GetBe32(const uint8_t* p) {
  return ((uint32_t)p[0] << 24) | ((uint32_t)p[1] << 16) | ((uint32_t)p[2] << 8) | p[3];
}

}  // namespace internal
}  // namespace encoder
}  // namespace vesk
