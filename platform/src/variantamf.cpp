// AMF0 serialisation of a Variant (the script data of FLV tags).
#include <cstring>
#include <string>

#include "vesk/utils/iobuffer.h"
#include "vesk/variant/variant.h"

namespace vesk {
namespace variant {

namespace {

// AMF0 type markers.
constexpr uint8_t kAmfNumber = 0x00;
constexpr uint8_t kAmfBoolean = 0x01;
constexpr uint8_t kAmfString = 0x02;
constexpr uint8_t kAmfObject = 0x03;
constexpr uint8_t kAmfNull = 0x05;
constexpr uint8_t kAmfUndefined = 0x06;
constexpr uint8_t kAmfObjectEnd = 0x09;
constexpr uint8_t kAmfStrictArray = 0x0A;
constexpr uint8_t kAmfDate = 0x0B;
constexpr uint8_t kAmfLongString = 0x0C;

constexpr uint64_t kMaxShortString = 0xFFFF;
constexpr uint64_t kMaxLongString = 0xFFFFFFFFu;

void PutU8(std::string& out, uint8_t value) { out += (char)value; }

void PutBe16(std::string& out, uint16_t value) {
  out += (char)(value >> 8);
  out += (char)value;
}

void PutBe32(std::string& out, uint32_t value) {
  for (int shift = 24; shift >= 0; shift -= 8) out += (char)(value >> shift);
}

void PutBeDouble(std::string& out, double value) {
  uint64_t bits;
  memcpy(&bits, &value, sizeof(bits));
  for (int shift = 56; shift >= 0; shift -= 8) out += (char)(bits >> shift);
}

// An object key or a short string body: 16-bit length, then the bytes.
bool PutShortText(std::string& out, const std::string& text) {
  if (text.size() > kMaxShortString) return false;
  PutBe16(out, (uint16_t)text.size());
  out += text;
  return true;
}

bool PutValue(std::string& out, const Variant& value);

bool PutString(std::string& out, const std::string& text) {
  if (text.size() <= kMaxShortString) {
    PutU8(out, kAmfString);
    return PutShortText(out, text);
  }
  if (text.size() > kMaxLongString) return false;
  PutU8(out, kAmfLongString);
  PutBe32(out, (uint32_t)text.size());
  out += text;
  return true;
}

// Object: numeric keys (as decimal text) then string keys, each ascending,
// then the empty key and the end marker.
bool PutObject(std::string& out, const Variant& value) {
  PutU8(out, kAmfObject);
  for (auto it = value.num_begin(); it != value.num_end(); ++it) {
    if (!PutShortText(out, std::to_string(it->first)) || !PutValue(out, it->second)) return false;
  }
  for (auto it = value.str_begin(); it != value.str_end(); ++it) {
    if (!PutShortText(out, it->first) || !PutValue(out, it->second)) return false;
  }
  PutBe16(out, 0);
  PutU8(out, kAmfObjectEnd);
  return true;
}

// Strict array: a count, then the values of indices 0..count-1. An array with
// string keys or with a gap in its indices has no strict-array form.
bool PutStrictArray(std::string& out, const Variant& value) {
  if (value.str_begin() != value.str_end()) return false;
  uint32_t count = 0;
  for (auto it = value.num_begin(); it != value.num_end(); ++it, ++count) {
    if (it->first != count) return false;
  }
  PutU8(out, kAmfStrictArray);
  PutBe32(out, count);
  for (auto it = value.num_begin(); it != value.num_end(); ++it) {
    if (!PutValue(out, it->second)) return false;
  }
  return true;
}

bool PutValue(std::string& out, const Variant& value) {
  VariantType type = value.GetType();
  if (TypeIsNumeric(type)) {
    PutU8(out, kAmfNumber);
    PutBeDouble(out, (double)value);
    return true;
  }
  switch (type) {
    case V_BOOL:
      PutU8(out, kAmfBoolean);
      PutU8(out, (bool)value ? 1 : 0);
      return true;
    case V_STRING: return PutString(out, (std::string)value);
    case V_MAP: return PutObject(out, value);
    case V_ARRAY: return PutStrictArray(out, value);
    case V_NULL: PutU8(out, kAmfNull); return true;
    case V_UNDEFINED: PutU8(out, kAmfUndefined); return true;
    case V_TIMESTAMP: {
      struct timeval tv = value;
      PutU8(out, kAmfDate);
      PutBeDouble(out, (double)tv.tv_sec * 1000.0 + (double)(tv.tv_usec / 1000));
      PutBe16(out, 0);  // time zone: UTC
      return true;
    }
    default: return false;
  }
}

}  // namespace

bool Variant::ToAMF(vesk::utils::IOBuffer& buffer) const {
  // Built aside, so that a value that fails half-way leaves the buffer as it was.
  std::string out;
  if (!PutValue(out, *this)) return false;
  if (out.size() > 0xFFFFFFFFu) return false;
  return buffer.ReadFromBuffer((const uint8_t*)out.data(), (uint32_t)out.size());
}

}  // namespace variant
}  // namespace vesk
