// The map-typed base of settings and message classes, with the strict readers.
#include "vesk/variant/basevariantcontainer.h"

#include "vesk/host/log.h"

#define VESK_FATAL_PRIORITY 2
#define CONTAINER_FATAL(fmt, ...)                                                          \
  logInternal("vesk_encoder", __FILE__, __func__, __LINE__, VESK_FATAL_PRIORITY, 0, 0, fmt, \
              ##__VA_ARGS__)

namespace vesk {
namespace variant {

namespace {

bool IsKnownType(uint32_t type) {
  switch (type) {
    case V_UNDEFINED:
    case V_NULL:
    case V_BOOL:
    case V_INT8:
    case V_INT16:
    case V_INT32:
    case V_INT64:
    case V_UINT8:
    case V_UINT16:
    case V_UINT32:
    case V_UINT64:
    case V_DOUBLE:
    case V_TIMESTAMP:
    case V_STRING:
    case V_MAP:
    case V_ARRAY: return true;
    default: return false;
  }
}

bool IsMapType(uint32_t type) { return type == V_MAP; }

}  // namespace

BaseVariantContainer::BaseVariantContainer() { IsArray(false); }

BaseVariantContainer::BaseVariantContainer(const Variant& value) : Variant(value) {}

BaseVariantContainer::~BaseVariantContainer() {}

bool BaseVariantContainer::NormalizeFields() {
  EnsureMap();
  return true;
}

void BaseVariantContainer::EnsureMap() {
  if (IsMap()) return;
  Free();
  IsArray(false);
}

const Variant& BaseVariantContainer::Strict(const char* key, bool (*typeTest)(uint32_t)) const {
  if (key == nullptr) key = "";
  if (!IsMap()) {
    CONTAINER_FATAL("Invalid variant type detected");
    forceCrash();
  }
  if (!HasKey(key)) {
    CONTAINER_FATAL("Key \"%s\" not available", key);
    forceCrash();
  }
  const Variant& value = (*this)[key];
  if (!IsKnownType(value.GetType())) {
    CONTAINER_FATAL("Invalid variant type detected");
    forceCrash();
  }
  if (!typeTest(value.GetType())) {
    CONTAINER_FATAL("Key \"%s\" has a different type than expected", key);
    forceCrash();
  }
  return value;
}

const Variant& BaseVariantContainer::StrictNumeric(const char* key) const {
  return Strict(key, TypeIsNumeric);
}

const Variant& BaseVariantContainer::StrictBool(const char* key) const {
  return Strict(key, TypeIsBool);
}

const Variant& BaseVariantContainer::StrictString(const char* key) const {
  return Strict(key, TypeIsString);
}

const Variant& BaseVariantContainer::StrictMap(const char* key) const {
  return Strict(key, IsMapType);
}

}  // namespace variant
}  // namespace vesk
