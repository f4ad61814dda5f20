// Reading the JSON files the subcommands take (settings, camera set-up).
#pragma once

#include <string>

#include "vesk/variant/variant.h"

namespace vesk {
namespace camera {

// Reads path and parses it as JSON. False with a one-line reason ("cannot
// read X: No such file or directory", "X: <parser message>").
bool LoadJsonFile(const char* path, vesk::variant::Variant& value, std::string& error);

// Parses a whole decimal number within [low, high]; false otherwise.
bool ParseNumber(const char* text, long long low, long long high, long long& value);

}  // namespace camera
}  // namespace vesk
