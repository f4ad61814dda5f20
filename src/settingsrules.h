// Get-or-insert reading and the normalising rules shared by every settings and
// message container.
//
// A reader makes the container a map, then returns the value under its key;
// a missing value, or one that fails the type test of the key's kind, is first
// replaced by the default (never converted). A rule takes the value read and
// stores its result back under the key as the declared C type. A class's
// NormalizeFields() is then one rule call per key, in its own key order,
// followed by its base's NormalizeFields().
#pragma once

#include <sys/time.h>

#include <cstddef>
#include <cstdint>
#include <limits>
#include <new>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>

#include "vesk/variant/basevariantcontainer.h"

namespace vesk {
namespace encoder {
namespace internal {

using vesk::variant::BaseVariantContainer;
using vesk::variant::Variant;

// Keeps a bound argument from taking part in template argument deduction, so
// that literal bounds take the key's C type.
template <typename T>
struct same_type_t {
  using type = T;
};
template <typename T>
using bound_t = typename same_type_t<T>::type;

// The type tests of the kinds that have no mask of their own.
bool IsMapKind(uint32_t type);
bool IsContainerKind(uint32_t type);
bool IsTimeKind(uint32_t type);

// The value under key after the get-or-insert step.
Variant& ReadEntry(BaseVariantContainer& container, const char* key, bool (*accepts)(uint32_t),
                   const Variant& fallback);

template <typename T>
T ReadNumber(BaseVariantContainer& container, const char* key, T fallback) {
  static_assert(std::is_arithmetic<T>::value, "numeric keys only");
  return (T)ReadEntry(container, key, vesk::variant::TypeIsNumeric, Variant(fallback));
}
bool ReadBool(BaseVariantContainer& container, const char* key, bool fallback);
std::string ReadString(BaseVariantContainer& container, const char* key, const char* fallback);
// A time value; the default is the current time.
struct timeval ReadTime(BaseVariantContainer& container, const char* key);
// A plain map or list: any container is kept; anything else becomes an empty map.
Variant& ReadAnyContainer(BaseVariantContainer& container, const char* key);
// A child container: a map is kept; anything else becomes an empty map.
Variant& ReadMap(BaseVariantContainer& container, const char* key);

// The stored child as an object of its class. The map under key is given the
// class T in place (containers add no data members, so the storage is the
// same), and the reference returned is a real T over the stored value: typed
// accessors and NormalizeFields() work on the tree itself.
template <typename T>
T& ReadChild(BaseVariantContainer& container, const char* key) {
  static_assert(sizeof(T) == sizeof(Variant), "containers add no data members");
  Variant& slot = ReadMap(container, key);
  if (typeid(slot) == typeid(T)) return static_cast<T&>(slot);
  Variant content(std::move(slot));
  slot.~Variant();
  T* child = ::new (static_cast<void*>(&slot)) T();
  static_cast<Variant&>(*child) = std::move(content);
  return *child;
}

// ---- rules -----------------------------------------------------------------

// Plain copy: the value read is stored again (as its declared type).
template <typename T>
void StoreValue(BaseVariantContainer& container, const char* key, const T& value) {
  container.EnsureMap();
  container[key] = value;
}

// Clamp: raised to low, then lowered to high.
template <typename T>
void StoreClamped(BaseVariantContainer& container, const char* key, T value, bound_t<T> low,
                  bound_t<T> high) {
  if (value < low) value = low;
  if (value > high) value = high;
  StoreValue(container, key, value);
}

template <typename T>
void StoreAtMost(BaseVariantContainer& container, const char* key, T value, bound_t<T> high) {
  StoreClamped(container, key, value, std::numeric_limits<T>::lowest(), high);
}

template <typename T>
void StoreAtLeast(BaseVariantContainer& container, const char* key, T value, bound_t<T> low) {
  StoreClamped(container, key, value, low, std::numeric_limits<T>::max());
}

// Zero replaced: 0 becomes replacement, then the value is lowered to high.
template <typename T>
void StoreZeroReplaced(BaseVariantContainer& container, const char* key, T value,
                       bound_t<T> replacement, bound_t<T> high = std::numeric_limits<T>::max()) {
  if (value == 0) value = replacement;
  StoreAtMost(container, key, value, high);
}

// Negative replaced: any negative value of a signed key becomes replacement,
// then the value is lowered to high.
template <typename T>
void StoreNegativeReplaced(BaseVariantContainer& container, const char* key, T value,
                           bound_t<T> replacement,
                           bound_t<T> high = std::numeric_limits<T>::max()) {
  static_assert(std::is_signed<T>::value, "signed keys only");
  if (value < 0) value = replacement;
  StoreAtMost(container, key, value, high);
}

// Possible values, numbers (an ascending table): the largest entry not above
// the value; the first entry for a value below the table.
template <typename T, size_t N>
void StoreLargestNotAbove(BaseVariantContainer& container, const char* key, T value,
                          const T (&table)[N]) {
  T chosen = table[0];
  for (size_t i = 1; i < N && table[i] <= value; i++) chosen = table[i];
  StoreValue(container, key, chosen);
}

// Possible values, strings: the first entry equal to the value over its whole
// length, ignoring case, stored in the table's spelling; the first entry when
// nothing matches.
const char* MatchOneOf(const std::string& value, const char* const* table, size_t count);

template <size_t N>
void StoreOneOf(BaseVariantContainer& container, const char* key, const std::string& value,
                const char* const (&table)[N]) {
  StoreValue(container, key, MatchOneOf(value, table, N));
}

// The four keys that open a request or event: its class name forced into
// "functionName" (a one-entry table) and "responseExpected".
template <size_t N>
void StoreRequestHead(BaseVariantContainer& container, const char* const (&functionNames)[N]) {
  StoreOneOf(container, "functionName", ReadString(container, "functionName", functionNames[0]),
             functionNames);
  StoreValue(container, "responseExpected", ReadBool(container, "responseExpected", false));
}

}  // namespace internal
}  // namespace encoder
}  // namespace vesk
