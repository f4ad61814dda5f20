// The platform's dynamic value: null, bool, integers of 8 to 64 bits, double,
// string, time value, map and array. Maps hold entries under numeric keys and
// under string keys; each kind iterates separately in ascending key order.
#pragma once

#include <sys/time.h>

#include <cstdint>
#include <map>
#include <string>

namespace vesk {
namespace utils {
class IOBuffer;
}

namespace variant {

// Type bit sets. Callers test them with the masks below, never by listing kinds.
enum VariantType : uint32_t {
  V_UNDEFINED = 0x8001,
  V_NULL = 0x8002,
  V_BOOL = 0x8003,
  V_INT8 = 0x4020,
  V_INT16 = 0x4021,
  V_INT32 = 0x4022,
  V_INT64 = 0x4023,
  V_UINT8 = 0x4024,
  V_UINT16 = 0x4025,
  V_UINT32 = 0x4026,
  V_UINT64 = 0x4027,
  V_DOUBLE = 0x4028,
  V_TIMESTAMP = 0x2040,
  V_STRING = 0x100e,
  V_MAP = 0x1010,
  V_ARRAY = 0x1011,
};

// The masks the library relies on.
inline bool TypeIsContainer(uint32_t t) { return (uint32_t)(t - 0x1010u) <= 1u; }
inline bool TypeIsNotContainer(uint32_t t) { return (t & 0x1010u) < 0x1010u; }
inline bool TypeIsString(uint32_t t) { return (t & 0x100eu) == 0x100eu; }
inline bool TypeIsBool(uint32_t t) { return (t & 0x8003u) == 0x8003u; }
inline bool TypeIsNumeric(uint32_t t) { return (t & 0x4000u) != 0; }

class Variant;
typedef std::map<uint32_t, Variant> VariantNumMap;
typedef std::map<std::string, Variant> VariantStrMap;

class Variant {
 public:
  Variant();  // undefined
  Variant(const Variant& other);
  Variant(Variant&& other) noexcept;
  Variant(bool value);
  Variant(signed char value);
  Variant(unsigned char value);
  Variant(short value);
  Variant(unsigned short value);
  Variant(int value);
  Variant(unsigned int value);
  Variant(long value);
  Variant(unsigned long value);
  Variant(long long value);
  Variant(unsigned long long value);
  Variant(double value);
  Variant(const char* value);
  Variant(const std::string& value);
  Variant(const struct timeval& value);
  virtual ~Variant();

  Variant& operator=(const Variant& other);
  Variant& operator=(Variant&& other) noexcept;
  Variant& operator=(bool value);
  Variant& operator=(signed char value);
  Variant& operator=(unsigned char value);
  Variant& operator=(short value);
  Variant& operator=(unsigned short value);
  Variant& operator=(int value);
  Variant& operator=(unsigned int value);
  Variant& operator=(long value);
  Variant& operator=(unsigned long value);
  Variant& operator=(long long value);
  Variant& operator=(unsigned long long value);
  Variant& operator=(double value);
  Variant& operator=(const char* value);
  Variant& operator=(const std::string& value);
  Variant& operator=(const struct timeval& value);

  // Conversions. Numeric kinds convert to each other with C casts; bool
  // converts to 0/1 and numbers to bool as != 0. Anything else yields the
  // type's zero (false, 0, "", epoch), never a failure.
  operator bool() const;
  operator signed char() const;
  operator unsigned char() const;
  operator short() const;
  operator unsigned short() const;
  operator int() const;
  operator unsigned int() const;
  operator long() const;
  operator unsigned long() const;
  operator long long() const;
  operator unsigned long long() const;
  operator double() const;
  operator std::string() const;
  operator struct timeval() const;
  // The text of a string value; "" for any other kind. Valid while the value lives.
  const char* c_str() const;

  // Deep equality: same kind (numbers compare by value across widths) and content.
  bool operator==(const Variant& other) const;
  bool operator!=(const Variant& other) const { return !(*this == other); }
  bool operator==(const char* text) const;
  bool operator!=(const char* text) const { return !(*this == text); }
  bool operator==(const std::string& text) const { return *this == text.c_str(); }
  bool operator!=(const std::string& text) const { return !(*this == text.c_str()); }

  VariantType GetType() const { return type_; }
  bool IsNumeric() const { return TypeIsNumeric(type_); }
  bool IsString() const { return TypeIsString(type_); }
  bool IsBool() const { return TypeIsBool(type_); }
  bool IsMap() const { return type_ == V_MAP; }
  bool IsContainer() const { return TypeIsContainer(type_); }
  bool IsUndefined() const { return type_ == V_UNDEFINED; }
  bool IsNull() const { return type_ == V_NULL; }

  // Map access. The non-const forms turn a value that is not a container into
  // an empty map first and create the entry (undefined) when it is missing. The
  // const forms return a shared undefined value when the entry is missing.
  Variant& operator[](const char* key);
  Variant& operator[](const std::string& key);
  Variant& operator[](uint32_t index);
  Variant& operator[](int index) { return (*this)[(uint32_t)index]; }
  const Variant& operator[](const char* key) const;
  const Variant& operator[](const std::string& key) const;
  const Variant& operator[](uint32_t index) const;
  const Variant& operator[](int index) const { return (*this)[(uint32_t)index]; }

  bool HasKey(const std::string& key, bool caseSensitive = true) const;
  bool HasIndex(uint32_t index) const;
  // Removes the entry under a string key; false when there was none.
  bool RemoveValue(const char* key, bool caseSensitive = true);
  bool RemoveIndex(uint32_t index);
  // Entries under numeric keys plus entries under string keys; 0 for a non-container.
  uint32_t MapSize() const;
  uint32_t NumericKeysCount() const;
  // Appends under the next free numeric key (the largest numeric key + 1).
  Variant& PushToArray(const Variant& value);

  // The value at a "/"-separated path of string keys when every step exists and
  // the last one has exactly the type given; null otherwise.
  Variant* GetKeyChain(VariantType type, const char* path, bool caseSensitive = true);
  const Variant* GetKeyChain(VariantType type, const char* path, bool caseSensitive = true) const;

  // Iteration in ascending key order; empty ranges for a non-container.
  VariantNumMap::iterator num_begin();
  VariantNumMap::iterator num_end();
  VariantNumMap::const_iterator num_begin() const;
  VariantNumMap::const_iterator num_end() const;
  VariantStrMap::iterator str_begin();
  VariantStrMap::iterator str_end();
  VariantStrMap::const_iterator str_begin() const;
  VariantStrMap::const_iterator str_end() const;

  // Free() drops the content and leaves the value undefined; Reset() leaves it null.
  void Free();
  void Reset();
  // IsArray(false) on a non-container makes it an empty map; IsArray(true) an
  // empty array. On a container it only changes the map/array kind.
  void IsArray(bool isArray);
  bool IsArray() const { return type_ == V_ARRAY; }

  // Range check of a numeric entry: true when key holds a number in [min, max].
  // Otherwise false, and when fix is set the entry is replaced by defaultValue
  // (stored as a double).
  bool ValidateNumeric(const char* key, double min, double max, double defaultValue, bool fix);

  // One-line text for logs.
  std::string ToString() const;

  // AMF0 serialisation appended to buffer: number (0x00, big-endian double) for
  // every numeric kind, boolean 0x01, string 0x02 (0x0C long string above 65535
  // bytes), map as object 0x03 with numeric then string keys in ascending order
  // and the end marker 00 00 09, array as strict array 0x0A, null 0x05,
  // undefined 0x06, time value as date 0x0B. False (buffer unchanged) for a
  // value with no AMF0 form.
  bool ToAMF(vesk::utils::IOBuffer& buffer) const;

  // JSON. Parsing: integers become signed 64-bit (unsigned 64-bit when they do
  // not fit), fractions doubles, objects maps, arrays arrays (numeric keys from
  // 0). On failure returns false with a message naming the line and column.
  static bool FromJson(const std::string& text, Variant& result, std::string& error);
  // Printing is deterministic: object keys sorted (numeric keys as their decimal
  // text), a time value as integer milliseconds since the epoch. pretty indents
  // by two spaces.
  std::string ToJson(bool pretty = false) const;

 private:
  void InitFrom(const Variant& other);
  void MakeMapIfNeeded();
  struct Container;

  VariantType type_;
  union {
    bool b;
    int64_t i;
    uint64_t u;
    double d;
    std::string* s;
    Container* c;
    int64_t ms;  // time value: milliseconds since the epoch
  } v_;
};

}  // namespace variant
}  // namespace vesk
