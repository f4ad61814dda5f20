// Small helpers of the settings tests: JSON literals, one-call normalisation
// and tables of stored values.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

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

struct case_t {
  Variant input;
  Variant expected;
};

// Normalises {key: input} as T and checks what is stored under key.
template <typename T>
void ExpectStored(const char* key, const std::vector<case_t>& cases) {
  for (const case_t& c : cases) {
    T container;
    container[key] = c.input;
    container.NormalizeFields();
    EXPECT_TRUE(container[key] == c.expected) << key << ": " << c.input.ToString() << " gave "
                                              << container[key].ToString() << ", expected " << c.expected.ToString();
  }
}

}  // namespace test
}  // namespace vesk
