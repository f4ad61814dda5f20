// Get-or-insert reading shared by the settings and message containers.
#include "settingsrules.h"

#include <strings.h>

#include <cstring>

#include "vesk/utils/utils.h"

namespace vesk {
namespace encoder {
namespace internal {

namespace {

const Variant& EmptyMap() {
  static const Variant empty = [] {
    Variant map;
    map.IsArray(false);
    return map;
  }();
  return empty;
}

}  // namespace

bool IsMapKind(uint32_t type) { return type == vesk::variant::V_MAP; }

bool IsContainerKind(uint32_t type) { return vesk::variant::TypeIsContainer(type); }

bool IsTimeKind(uint32_t type) { return type == vesk::variant::V_TIMESTAMP; }

Variant& ReadEntry(BaseVariantContainer& container, const char* key, bool (*accepts)(uint32_t),
                   const Variant& fallback) {
  container.EnsureMap();
  Variant& value = container[key];
  if (!accepts(value.GetType())) value = fallback;
  return value;
}

bool ReadBool(BaseVariantContainer& container, const char* key, bool fallback) {
  return (bool)ReadEntry(container, key, vesk::variant::TypeIsBool, Variant(fallback));
}

std::string ReadString(BaseVariantContainer& container, const char* key, const char* fallback) {
  return (std::string)ReadEntry(container, key, vesk::variant::TypeIsString, Variant(fallback));
}

struct timeval ReadTime(BaseVariantContainer& container, const char* key) {
  container.EnsureMap();
  // The current time is taken only when the default is needed.
  if (!IsTimeKind(container[key].GetType())) container[key] = vesk::utils::now();
  return (struct timeval)container[key];
}

Variant& ReadAnyContainer(BaseVariantContainer& container, const char* key) {
  return ReadEntry(container, key, IsContainerKind, EmptyMap());
}

Variant& ReadMap(BaseVariantContainer& container, const char* key) {
  return ReadEntry(container, key, IsMapKind, EmptyMap());
}

const char* MatchOneOf(const std::string& value, const char* const* table, size_t count) {
  for (size_t i = 0; i < count; i++) {
    const char* entry = table[i];
    if (value.size() == strlen(entry) && strncasecmp(value.data(), entry, value.size()) == 0) {
      return entry;
    }
  }
  return table[0];
}

}  // namespace internal
}  // namespace encoder
}  // namespace vesk
