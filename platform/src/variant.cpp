// The platform's dynamic value: storage, conversions, comparison and map access.
// JSON lives in variantjson.cpp, AMF0 in variantamf.cpp.
#include "vesk/variant/variant.h"

#include <strings.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <utility>

namespace vesk {
namespace variant {

struct Variant::Container {
  VariantNumMap num;
  VariantStrMap str;
};

namespace {

enum class Storage { kNone, kBool, kSigned, kUnsigned, kDouble, kString, kContainer, kTime };

Storage StorageOf(VariantType type) {
  switch (type) {
    case V_BOOL: return Storage::kBool;
    case V_INT8:
    case V_INT16:
    case V_INT32:
    case V_INT64: return Storage::kSigned;
    case V_UINT8:
    case V_UINT16:
    case V_UINT32:
    case V_UINT64: return Storage::kUnsigned;
    case V_DOUBLE: return Storage::kDouble;
    case V_STRING: return Storage::kString;
    case V_MAP:
    case V_ARRAY: return Storage::kContainer;
    case V_TIMESTAMP: return Storage::kTime;
    default: return Storage::kNone;
  }
}

// A double brought into an integer type without undefined behaviour: C cast
// semantics inside the range, saturation outside it, 0 for NaN.
template <typename T>
T FromDouble(double d) {
  if (std::isnan(d)) return 0;
  if (d <= (double)std::numeric_limits<T>::min()) return std::numeric_limits<T>::min();
  if (d >= (double)std::numeric_limits<T>::max()) return std::numeric_limits<T>::max();
  return (T)d;
}

bool KeyEquals(const std::string& a, const char* b, bool caseSensitive) {
  return caseSensitive ? a == b : strcasecmp(a.c_str(), b) == 0;
}

const VariantNumMap& EmptyNumMap() {
  static const VariantNumMap empty;
  return empty;
}

const VariantStrMap& EmptyStrMap() {
  static const VariantStrMap empty;
  return empty;
}

// Writable empty maps for the non-const iterators of a scalar: begin == end,
// so nothing is ever written through them.
VariantNumMap& MutableEmptyNumMap() {
  static VariantNumMap empty;
  return empty;
}

VariantStrMap& MutableEmptyStrMap() {
  static VariantStrMap empty;
  return empty;
}

const Variant& SharedUndefined() {
  static const Variant undefined;
  return undefined;
}

}  // namespace

// ---- construction and assignment ---------------------------------------------

Variant::Variant() : type_(V_UNDEFINED) { v_.u = 0; }

Variant::Variant(const Variant& other) : type_(V_UNDEFINED) {
  v_.u = 0;
  InitFrom(other);
}

Variant::Variant(Variant&& other) noexcept : type_(other.type_), v_(other.v_) {
  other.type_ = V_UNDEFINED;
  other.v_.u = 0;
}

Variant::Variant(bool value) : type_(V_BOOL) { v_.u = 0; v_.b = value; }
Variant::Variant(signed char value) : type_(V_INT8) { v_.i = value; }
Variant::Variant(unsigned char value) : type_(V_UINT8) { v_.u = value; }
Variant::Variant(short value) : type_(V_INT16) { v_.i = value; }
Variant::Variant(unsigned short value) : type_(V_UINT16) { v_.u = value; }
Variant::Variant(int value) : type_(V_INT32) { v_.i = value; }
Variant::Variant(unsigned int value) : type_(V_UINT32) { v_.u = value; }
Variant::Variant(long value) : type_(V_INT64) { v_.i = value; }
Variant::Variant(unsigned long value) : type_(V_UINT64) { v_.u = value; }
Variant::Variant(long long value) : type_(V_INT64) { v_.i = value; }
Variant::Variant(unsigned long long value) : type_(V_UINT64) { v_.u = value; }
Variant::Variant(double value) : type_(V_DOUBLE) { v_.d = value; }
Variant::Variant(const char* value) : type_(V_STRING) {
  v_.s = new std::string(value ? value : "");
}
Variant::Variant(const std::string& value) : type_(V_STRING) { v_.s = new std::string(value); }
Variant::Variant(const struct timeval& value) : type_(V_TIMESTAMP) {
  v_.ms = (int64_t)value.tv_sec * 1000 + (int64_t)value.tv_usec / 1000;
}

Variant::~Variant() { Free(); }

void Variant::InitFrom(const Variant& other) {
  // Called on a value that holds no heap storage.
  type_ = other.type_;
  switch (StorageOf(other.type_)) {
    case Storage::kString: v_.s = new std::string(*other.v_.s); break;
    case Storage::kContainer: v_.c = new Container(*other.v_.c); break;
    default: v_ = other.v_; break;
  }
}

Variant& Variant::operator=(const Variant& other) {
  if (this == &other) return *this;
  // other may live inside this value's own map: copy it before freeing.
  Variant copy(other);
  *this = std::move(copy);
  return *this;
}

Variant& Variant::operator=(Variant&& other) noexcept {
  if (this == &other) return *this;
  // other may live inside this value's own map: detach it first.
  VariantType type = other.type_;
  auto value = other.v_;
  other.type_ = V_UNDEFINED;
  other.v_.u = 0;
  Free();
  type_ = type;
  v_ = value;
  return *this;
}

Variant& Variant::operator=(bool value) { return *this = Variant(value); }
Variant& Variant::operator=(signed char value) { return *this = Variant(value); }
Variant& Variant::operator=(unsigned char value) { return *this = Variant(value); }
Variant& Variant::operator=(short value) { return *this = Variant(value); }
Variant& Variant::operator=(unsigned short value) { return *this = Variant(value); }
Variant& Variant::operator=(int value) { return *this = Variant(value); }
Variant& Variant::operator=(unsigned int value) { return *this = Variant(value); }
Variant& Variant::operator=(long value) { return *this = Variant(value); }
Variant& Variant::operator=(unsigned long value) { return *this = Variant(value); }
Variant& Variant::operator=(long long value) { return *this = Variant(value); }
Variant& Variant::operator=(unsigned long long value) { return *this = Variant(value); }
Variant& Variant::operator=(double value) { return *this = Variant(value); }
Variant& Variant::operator=(const char* value) { return *this = Variant(value); }
Variant& Variant::operator=(const std::string& value) { return *this = Variant(value); }
Variant& Variant::operator=(const struct timeval& value) { return *this = Variant(value); }

// ---- conversions ---------------------------------------------------------------

namespace {

// Reads only the union member that the type says is active.
template <typename T, typename Value>
T NumericAs(VariantType type, const Value& v) {
  switch (StorageOf(type)) {
    case Storage::kBool: return v.b ? (T)1 : (T)0;
    case Storage::kSigned: return (T)v.i;
    case Storage::kUnsigned: return (T)v.u;
    case Storage::kDouble: return FromDouble<T>(v.d);
    default: return (T)0;
  }
}

}  // namespace

#define VESK_VARIANT_NUMERIC_CONVERSION(T) \
  Variant::operator T() const { return NumericAs<T>(type_, v_); }

VESK_VARIANT_NUMERIC_CONVERSION(signed char)
VESK_VARIANT_NUMERIC_CONVERSION(unsigned char)
VESK_VARIANT_NUMERIC_CONVERSION(short)
VESK_VARIANT_NUMERIC_CONVERSION(unsigned short)
VESK_VARIANT_NUMERIC_CONVERSION(int)
VESK_VARIANT_NUMERIC_CONVERSION(unsigned int)
VESK_VARIANT_NUMERIC_CONVERSION(long)
VESK_VARIANT_NUMERIC_CONVERSION(unsigned long)
VESK_VARIANT_NUMERIC_CONVERSION(long long)
VESK_VARIANT_NUMERIC_CONVERSION(unsigned long long)

#undef VESK_VARIANT_NUMERIC_CONVERSION

Variant::operator bool() const {
  switch (StorageOf(type_)) {
    case Storage::kBool: return v_.b;
    case Storage::kSigned: return v_.i != 0;
    case Storage::kUnsigned: return v_.u != 0;
    case Storage::kDouble: return v_.d != 0.0;
    default: return false;
  }
}

Variant::operator double() const {
  switch (StorageOf(type_)) {
    case Storage::kBool: return v_.b ? 1.0 : 0.0;
    case Storage::kSigned: return (double)v_.i;
    case Storage::kUnsigned: return (double)v_.u;
    case Storage::kDouble: return v_.d;
    default: return 0.0;
  }
}

Variant::operator std::string() const { return type_ == V_STRING ? *v_.s : std::string(); }

Variant::operator struct timeval() const {
  struct timeval tv = {0, 0};
  if (type_ != V_TIMESTAMP) return tv;
  int64_t sec = v_.ms / 1000;
  int64_t rem = v_.ms % 1000;
  if (rem < 0) {  // keep tv_usec in [0, 1000000) before the epoch
    rem += 1000;
    sec -= 1;
  }
  tv.tv_sec = (time_t)sec;
  tv.tv_usec = (suseconds_t)(rem * 1000);
  return tv;
}

const char* Variant::c_str() const { return type_ == V_STRING ? v_.s->c_str() : ""; }

// ---- comparison ----------------------------------------------------------------

namespace {

// Numbers compare by value whatever their width or signedness.
bool NumbersEqual(const Variant& a, const Variant& b) {
  Storage sa = StorageOf(a.GetType());
  Storage sb = StorageOf(b.GetType());
  if (sa == Storage::kDouble || sb == Storage::kDouble) return (double)a == (double)b;
  if (sa == sb) return (unsigned long long)a == (unsigned long long)b;
  // One signed, one unsigned: equal only when the signed one is not negative.
  const Variant& s = sa == Storage::kSigned ? a : b;
  const Variant& u = sa == Storage::kSigned ? b : a;
  long long sv = (long long)s;
  return sv >= 0 && (unsigned long long)sv == (unsigned long long)u;
}

}  // namespace

bool Variant::operator==(const Variant& other) const {
  if (IsNumeric() && other.IsNumeric()) return NumbersEqual(*this, other);
  if (type_ != other.type_) return false;
  switch (StorageOf(type_)) {
    case Storage::kBool: return v_.b == other.v_.b;
    case Storage::kString: return *v_.s == *other.v_.s;
    case Storage::kTime: return v_.ms == other.v_.ms;
    case Storage::kContainer:
      return v_.c->num == other.v_.c->num && v_.c->str == other.v_.c->str;
    default: return true;  // undefined, null
  }
}

bool Variant::operator==(const char* text) const {
  return type_ == V_STRING && text != nullptr && *v_.s == text;
}

// ---- map access ----------------------------------------------------------------

void Variant::MakeMapIfNeeded() {
  if (IsContainer()) return;
  Free();
  type_ = V_MAP;
  v_.c = new Container();
}

Variant& Variant::operator[](const char* key) {
  MakeMapIfNeeded();
  return v_.c->str[key ? key : ""];
}

Variant& Variant::operator[](const std::string& key) {
  MakeMapIfNeeded();
  return v_.c->str[key];
}

Variant& Variant::operator[](uint32_t index) {
  MakeMapIfNeeded();
  return v_.c->num[index];
}

const Variant& Variant::operator[](const char* key) const {
  if (!IsContainer() || key == nullptr) return SharedUndefined();
  auto it = v_.c->str.find(key);
  return it == v_.c->str.end() ? SharedUndefined() : it->second;
}

const Variant& Variant::operator[](const std::string& key) const {
  if (!IsContainer()) return SharedUndefined();
  auto it = v_.c->str.find(key);
  return it == v_.c->str.end() ? SharedUndefined() : it->second;
}

const Variant& Variant::operator[](uint32_t index) const {
  if (!IsContainer()) return SharedUndefined();
  auto it = v_.c->num.find(index);
  return it == v_.c->num.end() ? SharedUndefined() : it->second;
}

bool Variant::HasKey(const std::string& key, bool caseSensitive) const {
  if (!IsContainer()) return false;
  if (caseSensitive) return v_.c->str.find(key) != v_.c->str.end();
  for (const auto& entry : v_.c->str) {
    if (KeyEquals(entry.first, key.c_str(), false)) return true;
  }
  return false;
}

bool Variant::HasIndex(uint32_t index) const {
  return IsContainer() && v_.c->num.find(index) != v_.c->num.end();
}

bool Variant::RemoveValue(const char* key, bool caseSensitive) {
  if (!IsContainer() || key == nullptr) return false;
  VariantStrMap& str = v_.c->str;
  if (caseSensitive) return str.erase(key) > 0;
  for (auto it = str.begin(); it != str.end(); ++it) {
    if (KeyEquals(it->first, key, false)) {
      str.erase(it);
      return true;
    }
  }
  return false;
}

bool Variant::RemoveIndex(uint32_t index) {
  return IsContainer() && v_.c->num.erase(index) > 0;
}

uint32_t Variant::MapSize() const {
  return IsContainer() ? (uint32_t)(v_.c->num.size() + v_.c->str.size()) : 0;
}

uint32_t Variant::NumericKeysCount() const {
  return IsContainer() ? (uint32_t)v_.c->num.size() : 0;
}

Variant& Variant::PushToArray(const Variant& value) {
  if (!IsContainer()) {
    Free();
    type_ = V_ARRAY;
    v_.c = new Container();
  }
  // value may be an entry of this container: copy it before the map changes.
  Variant copy(value);
  VariantNumMap& num = v_.c->num;
  uint32_t next = num.empty() ? 0 : num.rbegin()->first + 1;
  Variant& slot = num[next];
  slot = std::move(copy);
  return slot;
}

const Variant* Variant::GetKeyChain(VariantType type, const char* path, bool caseSensitive) const {
  if (path == nullptr) return nullptr;
  const Variant* current = this;
  const char* p = path;
  while (*p != '\0') {
    const char* slash = strchr(p, '/');
    size_t length = slash ? (size_t)(slash - p) : strlen(p);
    if (length > 0) {
      if (!current->IsContainer()) return nullptr;
      std::string key(p, length);
      const VariantStrMap& str = current->v_.c->str;
      const Variant* next = nullptr;
      if (caseSensitive) {
        auto it = str.find(key);
        if (it != str.end()) next = &it->second;
      } else {
        for (const auto& entry : str) {
          if (KeyEquals(entry.first, key.c_str(), false)) {
            next = &entry.second;
            break;
          }
        }
      }
      if (next == nullptr) return nullptr;
      current = next;
    }
    p += length;
    if (*p == '/') p++;
  }
  return current->type_ == type ? current : nullptr;
}

Variant* Variant::GetKeyChain(VariantType type, const char* path, bool caseSensitive) {
  return const_cast<Variant*>(
      static_cast<const Variant*>(this)->GetKeyChain(type, path, caseSensitive));
}

// ---- iteration -------------------------------------------------------------------

VariantNumMap::iterator Variant::num_begin() {
  return IsContainer() ? v_.c->num.begin() : MutableEmptyNumMap().begin();
}
VariantNumMap::iterator Variant::num_end() {
  return IsContainer() ? v_.c->num.end() : MutableEmptyNumMap().end();
}
VariantNumMap::const_iterator Variant::num_begin() const {
  return IsContainer() ? v_.c->num.cbegin() : EmptyNumMap().cbegin();
}
VariantNumMap::const_iterator Variant::num_end() const {
  return IsContainer() ? v_.c->num.cend() : EmptyNumMap().cend();
}
VariantStrMap::iterator Variant::str_begin() {
  return IsContainer() ? v_.c->str.begin() : MutableEmptyStrMap().begin();
}
VariantStrMap::iterator Variant::str_end() {
  return IsContainer() ? v_.c->str.end() : MutableEmptyStrMap().end();
}
VariantStrMap::const_iterator Variant::str_begin() const {
  return IsContainer() ? v_.c->str.cbegin() : EmptyStrMap().cbegin();
}
VariantStrMap::const_iterator Variant::str_end() const {
  return IsContainer() ? v_.c->str.cend() : EmptyStrMap().cend();
}

// ---- life cycle --------------------------------------------------------------------

void Variant::Free() {
  switch (StorageOf(type_)) {
    case Storage::kString: delete v_.s; break;
    case Storage::kContainer: delete v_.c; break;
    default: break;
  }
  type_ = V_UNDEFINED;
  v_.u = 0;
}

void Variant::Reset() {
  Free();
  type_ = V_NULL;
}

void Variant::IsArray(bool isArray) {
  if (!IsContainer()) {
    Free();
    v_.c = new Container();
  }
  type_ = isArray ? V_ARRAY : V_MAP;
}

bool Variant::ValidateNumeric(const char* key, double min, double max, double defaultValue,
                              bool fix) {
  if (key == nullptr) return false;
  const Variant& value = static_cast<const Variant&>(*this)[key];
  if (value.IsNumeric()) {
    double d = (double)value;
    if (d >= min && d <= max) return true;
  }
  if (fix) (*this)[key] = defaultValue;
  return false;
}

}  // namespace variant
}  // namespace vesk
