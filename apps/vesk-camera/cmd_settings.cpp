// vesk-camera settings [--as CLASS] [--check] FILE.json: reads a JSON file,
// normalises it as a settings or message class and prints the tree actually
// in force; or, with --check, tells what in an EncoderSettings file will hurt.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "commands.h"
#include "jsonfile.h"
#include "vesk/messages.h"
#include "vesk/settings.h"
#include "vesk/variant/variant.h"
#include "warnings.h"

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
          "       vesk-camera settings --check FILE.json\n"
          "\n"
          "Reads FILE.json, normalises it as CLASS (default EncoderSettings) the way\n"
          "the library does before using it, and prints the resulting tree as JSON:\n"
          "missing keys get their defaults, values of the wrong type are replaced,\n"
          "out-of-range values are brought into range, unknown keys are kept.\n"
          "\n"
          "With --check, FILE.json is read as EncoderSettings and nothing is printed\n"
          "but, one per line, the settings that the library accepts but that will\n"
          "hurt when it runs (the same warnings 'vesk-camera run' prints): an enabled\n"
          "H.264 stream whose \"M\" is not 1 (the process stops at its first picture),\n"
          "two streams reading one source buffer (\"sourceId\") at different sizes,\n"
          "mjpg1/mjpg2 on a source buffer that nothing sets up, a file destination of\n"
          "an FLV or H.264 stream without \"continuous\" (it keeps only the newest\n"
          "message), an audio mode/sample rate/bit rate the AAC encoder does not take,\n"
          "\"enabled\" values that are not true/false, streams sent nowhere.\n"
          "\n"
          "Exit status: 0 printed (--check: no warning); 1 --check found warnings;\n"
          "2 bad usage, unreadable file or invalid JSON.\n"
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

int UsageError(const char* text, const char* argument) {
  fprintf(stderr, "vesk-camera settings: %s%s (see vesk-camera settings --help)\n", text, argument);
  return kExitUsage;
}

}  // namespace

int CmdSettings(int argc, char** argv) {
  const settings_class_t* settingsClass = &kClasses[0];
  const char* path = nullptr;
  bool check = false;
  bool classGiven = false;
  for (int i = 1; i < argc; i++) {
    const char* arg = argv[i];
    if (strcmp(arg, "--help") == 0 || strcmp(arg, "-h") == 0) {
      PrintUsage(stdout);
      return kExitOk;
    }
    if (strcmp(arg, "--check") == 0) {
      check = true;
    } else if (strcmp(arg, "--as") == 0) {
      classGiven = true;
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
  if (check && classGiven) return UsageError("--check reads EncoderSettings only; drop --as", "");

  Variant parsed;
  std::string error;
  if (!LoadJsonFile(path, parsed, error)) {
    fprintf(stderr, "vesk-camera settings: %s\n", error.c_str());
    return kExitUsage;
  }
  if (check) {
    std::vector<std::string> warnings = FindSettingsWarnings(parsed);
    for (const std::string& warning : warnings) printf("warning: %s\n", warning.c_str());
    if (warnings.empty()) printf("%s: no warnings\n", path);
    return warnings.empty() ? kExitOk : kExitFailure;
  }
  std::cout << settingsClass->normalize(parsed).ToJson(true) << "\n";
  return kExitOk;
}

}  // namespace camera
}  // namespace vesk
