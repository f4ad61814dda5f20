// vesk-camera settings [--as CLASS] FILE.json: reads a JSON file, normalises
// it as a settings or message class and prints the tree actually in force.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>

#include "commands.h"
#include "vesk/messages.h"
#include "vesk/settings.h"
#include "vesk/variant/variant.h"

namespace vesk {
namespace camera {

namespace {

using vesk::variant::Variant;
namespace enc = vesk::encoder;
namespace msg = vesk::ipc::messages;

template <typename T>
Variant NormalizeAs(const Variant& value) {
  T container(value);
  container.NormalizeFields();
  return container;
}

struct settings_class_t {
  const char* name;
  Variant (*normalize)(const Variant& value);
};

// Message classes whose name is also a settings class carry the "messages::" prefix.
const settings_class_t kClasses[] = {
    {"EncoderSettings", NormalizeAs<enc::EncoderSettings>},
    {"ChipSettings", NormalizeAs<enc::ChipSettings>},
    {"BaseChipDebugSettings", NormalizeAs<enc::BaseChipDebugSettings>},
    {"BaseChipCommonSettings", NormalizeAs<enc::BaseChipCommonSettings>},
    {"BaseChipSettings", NormalizeAs<enc::BaseChipSettings>},
    {"BaseVinSettings", NormalizeAs<enc::BaseVinSettings>},
    {"BaseChanSettings", NormalizeAs<enc::BaseChanSettings>},
    {"BufferSettings", NormalizeAs<enc::BufferSettings>},
    {"BaseBufferSizeSettings", NormalizeAs<enc::BaseBufferSizeSettings>},
    {"BufferGeomSettings", NormalizeAs<enc::BufferGeomSettings>},
    {"BaseCanvasSettings", NormalizeAs<enc::BaseCanvasSettings>},
    {"CanvasSourceSettings", NormalizeAs<enc::CanvasSourceSettings>},
    {"BaseEncoderSettings", NormalizeAs<enc::BaseEncoderSettings>},
    {"AudioEncoderSettings", NormalizeAs<enc::AudioEncoderSettings>},
    {"VideoEncoderSettings", NormalizeAs<enc::VideoEncoderSettings>},
    {"BaseVideoEncoderSettings", NormalizeAs<enc::BaseVideoEncoderSettings>},
    {"H264VideoEncoderSettings", NormalizeAs<enc::H264VideoEncoderSettings>},
    {"MJPGVideoEncoderSettings", NormalizeAs<enc::MJPGVideoEncoderSettings>},
    {"AVSerializer", NormalizeAs<msg::AVSerializer>},
    {"BaseMessage", NormalizeAs<msg::BaseMessage>},
    {"BaseRequestMessage", NormalizeAs<msg::BaseRequestMessage>},
    {"EventIavStateEnterIdle", NormalizeAs<msg::EventIavStateEnterIdle>},
    {"EventIavStateEnterPreview", NormalizeAs<msg::EventIavStateEnterPreview>},
    {"EventIavStateEnterEncode", NormalizeAs<msg::EventIavStateEnterEncode>},
    {"EventIavStateExitEncode", NormalizeAs<msg::EventIavStateExitEncode>},
    {"ChangeVideoSettings", NormalizeAs<msg::ChangeVideoSettings>},
    {"RestartStreams", NormalizeAs<msg::RestartStreams>},
    {"AudioSettings", NormalizeAs<msg::AudioSettings>},
    {"messages::ChipSettings", NormalizeAs<msg::ChipSettings>},
    {"ChipVinSettingsElement", NormalizeAs<msg::ChipVinSettingsElement>},
    {"VideoSettings", NormalizeAs<msg::VideoSettings>},
    {"VideoSettingsElement", NormalizeAs<msg::VideoSettingsElement>},
};

void PrintUsage(FILE* out) {
  fprintf(out,
          "Usage: vesk-camera settings [--as CLASS] FILE.json\n"
          "\n"
          "Reads FILE.json, normalises it as CLASS (default EncoderSettings) the way\n"
          "the library does before using it, and prints the resulting tree as JSON:\n"
          "missing keys get their defaults, values of the wrong type are replaced,\n"
          "out-of-range values are brought into range, unknown keys are kept.\n"
          "\n"
          "Exit status: 0 printed; 2 bad usage, unreadable file or invalid JSON.\n"
          "\n"
          "Classes (a namespace prefix such as vesk::encoder:: is accepted):\n");
  for (const settings_class_t& entry : kClasses) fprintf(out, "  %s\n", entry.name);
}

const settings_class_t* FindClass(std::string name) {
  static const char* const kPrefixes[][2] = {
      {"vesk::encoder::", ""}, {"encoder::", ""}, {"vesk::ipc::messages::", "messages::"}};
  for (const auto& prefix : kPrefixes) {
    if (name.compare(0, strlen(prefix[0]), prefix[0]) == 0) {
      name = prefix[1] + name.substr(strlen(prefix[0]));
    }
  }
  for (const settings_class_t& entry : kClasses) {
    if (name == entry.name) return &entry;
  }
  // A message class named without its prefix.
  for (const settings_class_t& entry : kClasses) {
    if ("messages::" + name == entry.name) return &entry;
  }
  return nullptr;
}

bool ReadFile(const char* path, std::string& text, std::string& error) {
  FILE* file = fopen(path, "rb");
  if (file == nullptr) {
    error = strerror(errno);
    return false;
  }
  char chunk[65536];
  size_t count;
  while ((count = fread(chunk, 1, sizeof(chunk), file)) > 0) text.append(chunk, count);
  bool failed = ferror(file) != 0;
  int err = errno;
  fclose(file);
  if (failed) error = strerror(err);
  return !failed;
}

int UsageError(const char* text, const char* argument) {
  fprintf(stderr, "vesk-camera settings: %s%s (see vesk-camera settings --help)\n", text, argument);
  return kExitUsage;
}

}  // namespace

int CmdSettings(int argc, char** argv) {
  const settings_class_t* settingsClass = &kClasses[0];
  const char* path = nullptr;
  for (int i = 1; i < argc; i++) {
    const char* arg = argv[i];
    if (strcmp(arg, "--help") == 0 || strcmp(arg, "-h") == 0) {
      PrintUsage(stdout);
      return kExitOk;
    }
    if (strcmp(arg, "--as") == 0) {
      if (++i == argc) return UsageError("--as needs a class name", "");
      settingsClass = FindClass(argv[i]);
      if (settingsClass == nullptr) return UsageError("unknown class ", argv[i]);
    } else if (arg[0] == '-' && arg[1] != '\0') {
      return UsageError("unknown option ", arg);
    } else if (path != nullptr) {
      return UsageError("more than one file: ", arg);
    } else {
      path = arg;
    }
  }
  if (path == nullptr) return UsageError("no settings file given", "");

  std::string text;
  std::string error;
  if (!ReadFile(path, text, error)) {
    fprintf(stderr, "vesk-camera settings: cannot read %s: %s\n", path, error.c_str());
    return kExitUsage;
  }
  Variant parsed;
  if (!Variant::FromJson(text, parsed, error)) {
    fprintf(stderr, "vesk-camera settings: %s: %s\n", path, error.c_str());
    return kExitUsage;
  }
  std::cout << settingsClass->normalize(parsed).ToJson(true) << "\n";
  return kExitOk;
}

}  // namespace camera
}  // namespace vesk
