// Small helpers of the settings tests: JSON literals and one-call normalisation.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "vesk/variant/variant.h"

namespace vesk {
namespace test {

using vesk::variant::Variant;

inline Variant Json(const std::string& text) {
  Variant value;
  std::string error;
  EXPECT_TRUE(Variant::FromJson(text, value, error)) << error << " in " << text;
  return value;
}

// The value as class T leaves it after NormalizeFields().
template <typename T>
T Normalized(const Variant& value) {
  T container(value);
  EXPECT_TRUE(container.NormalizeFields());
  return container;
}

template <typename T>
T Normalized(const char* json) {
  return Normalized<T>(Json(json));
}

}  // namespace test
}  // namespace vesk
