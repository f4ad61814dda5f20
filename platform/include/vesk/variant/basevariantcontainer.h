// A Variant that is a map, with a virtual NormalizeFields() that its
// subclasses override to repair the map in place (defaults, clamps, tables).
#pragma once

#include <string>

#include "vesk/variant/variant.h"

namespace vesk {
namespace variant {

class BaseVariantContainer : public Variant {
 public:
  BaseVariantContainer();  // an empty map
  BaseVariantContainer(const Variant& value);
  BaseVariantContainer(const BaseVariantContainer& other) = default;
  BaseVariantContainer& operator=(const BaseVariantContainer& other) = default;
  using Variant::operator=;
  ~BaseVariantContainer() override;

  // Makes the container a map (an empty one when it was not); always true.
  virtual bool NormalizeFields();

  // Makes the value an empty map when it is not one (Free, then IsArray(false)).
  void EnsureMap();

  // Strict readers for keys that must not be invented. A container that is not
  // a map logs "Invalid variant type detected"; a missing key logs
  // "Key \"<key>\" not available"; a value failing the type test logs
  // "Key \"<key>\" has a different type than expected". Each then ends the
  // process through forceCrash.
  const Variant& StrictNumeric(const char* key) const;
  const Variant& StrictBool(const char* key) const;
  const Variant& StrictString(const char* key) const;
  const Variant& StrictMap(const char* key) const;

 private:
  const Variant& Strict(const char* key, bool (*typeTest)(uint32_t)) const;
};

}  // namespace variant
}  // namespace vesk
