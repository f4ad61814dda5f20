#include "camera_config.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <vector>

#ifdef VESK_CAMERA_HAS_VIRTUALCAM
#include "vesk/virtualcam/virtualcam.h"
#endif

namespace vesk {
namespace camera {

#ifdef VESK_CAMERA_HAS_VIRTUALCAM

namespace {

using vesk::variant::Variant;

constexpr unsigned kDriverClock = 512000000u;

bool ReadUnsigned(const Variant& parent, const char* key, unsigned long long max, unsigned long long& value,
                  std::string& error) {
  const Variant& item = parent[key];
  if (!item.IsNumeric() || (double)item < 0 || (double)item > (double)max ||
      (double)item != (double)(unsigned long long)(double)item) {
    error = std::string("\"") + key + "\" must be a whole number from 0 to " + std::to_string(max);
    return false;
  }
  value = (unsigned long long)(double)item;
  return true;
}

bool ReadBool(const Variant& parent, const char* key, bool& value, std::string& error) {
  const Variant& item = parent[key];
  if (!item.IsBool()) {
    error = std::string("\"") + key + "\" must be true or false";
    return false;
  }
  value = (bool)item;
  return true;
}

bool ReadSensorMode(const Variant& entry, vcam_sensor_mode_t& mode, std::string& error) {
  if (!entry.IsMap()) {
    error = "each of \"sensorModes\" must be an object";
    return false;
  }
  unsigned long long value;
  if (!ReadUnsigned(entry, "mode", 0xFFFFFFFFull, value, error)) return false;
  mode.mode = (uint32_t)value;
  mode.hdrMode = 0;
  if (entry.HasKey("hdrMode")) {
    if (!ReadUnsigned(entry, "hdrMode", 15, value, error)) return false;
    mode.hdrMode = (uint8_t)value;
  }
  if (!ReadUnsigned(entry, "width", 16384, value, error)) return false;
  mode.width = (uint32_t)value;
  if (!ReadUnsigned(entry, "height", 16384, value, error)) return false;
  mode.height = (uint32_t)value;
  if (entry.HasKey("framePeriod")) {
    if (!ReadUnsigned(entry, "framePeriod", 0xFFFFFFFFull, value, error)) return false;
    mode.framePeriod = (uint32_t)value;
  } else {
    if (!ReadUnsigned(entry, "fps", 500, value, error)) return false;
    if (value == 0) {
      error = "\"fps\" of a sensor mode must not be 0";
      return false;
    }
    // The rounded period, the one the video input is programmed with.
    mode.framePeriod = (uint32_t)((kDriverClock + value / 2) / value);
  }
  return true;
}

bool MakeDirectories(const std::string& path, std::string& error) {
  for (size_t slash = 1; slash <= path.size(); slash++) {
    if (slash != path.size() && path[slash] != '/') continue;
    std::string prefix = path.substr(0, slash);
    if (mkdir(prefix.c_str(), 0777) != 0 && errno != EEXIST) {
      error = "cannot create " + prefix + ": " + strerror(errno);
      return false;
    }
  }
  return true;
}

const char* const kKeys[] = {"chipId",  "sensorModes",    "scene",     "microcodeLoaded",
                             "firmwareDirectory", "replay", "bitstreamBytes", "queueDepth",
                             "clockRatePpm"};

}  // namespace

bool ApplyCameraConfig(const Variant& config, std::string& error) {
  if (!config.IsMap()) {
    error = "the camera set-up must be a JSON object";
    return false;
  }
  for (auto it = config.str_begin(); it != config.str_end(); ++it) {
    bool known = false;
    for (const char* key : kKeys) known = known || it->first == key;
    if (!known) {
      error = "unknown key \"" + it->first + "\"";
      return false;
    }
  }
  if (config.MapSize() != 0 && config.num_begin() != config.num_end()) {
    error = "the camera set-up must be a JSON object";
    return false;
  }
  unsigned long long value;
  bool flag;
  if (config.HasKey("chipId")) {
    const Variant& chip = config["chipId"];
    if (!chip.IsNumeric()) {
      error = "\"chipId\" must be a number";
      return false;
    }
    vcam_set_chip_id((int32_t)(long long)chip);
  }
  if (config.HasKey("sensorModes")) {
    const Variant& list = config["sensorModes"];
    if (!list.IsArray() || list.MapSize() == 0 || list.MapSize() > VCAM_MAX_SENSOR_MODES) {
      error = "\"sensorModes\" must be an array of 1 to " + std::to_string(VCAM_MAX_SENSOR_MODES) + " modes";
      return false;
    }
    std::vector<vcam_sensor_mode_t> modes(list.MapSize());
    for (uint32_t i = 0; i < list.MapSize(); i++) {
      if (!ReadSensorMode(list[i], modes[i], error)) return false;
    }
    if (vcam_set_sensor_modes(modes.data(), modes.size()) != 0) {
      error = "the virtual camera refused the sensor modes";
      return false;
    }
  }
  if (config.HasKey("scene")) {
    const Variant& scene = config["scene"];
    std::string name = scene.IsString() ? (std::string)scene : std::string();
    if (name == "still") {
      vcam_set_scene(VCAM_SCENE_STILL);
    } else if (name == "moving") {
      vcam_set_scene(VCAM_SCENE_MOVING);
    } else if (name == "busy") {
      vcam_set_scene(VCAM_SCENE_BUSY);
    } else {
      error = "\"scene\" must be \"still\", \"moving\" or \"busy\"";
      return false;
    }
  }
  if (config.HasKey("firmwareDirectory")) {
    const Variant& directory = config["firmwareDirectory"];
    if (!directory.IsString() || ((std::string)directory).empty()) {
      error = "\"firmwareDirectory\" must be a directory path";
      return false;
    }
    std::string path = directory;
    if (!MakeDirectories(path, error)) return false;
    if (vcam_write_firmware(path.c_str()) != 0) {
      error = "cannot write the microcode files into " + path + ": " + strerror(errno);
      return false;
    }
  }
  if (config.HasKey("microcodeLoaded")) {
    if (!ReadBool(config, "microcodeLoaded", flag, error)) return false;
    vcam_set_ucode_loaded(flag ? 1 : 0);
  }
  if (config.HasKey("replay")) {
    if (!ReadBool(config, "replay", flag, error)) return false;
    vcam_set_replay(flag ? 1 : 0);
  }
  if (config.HasKey("bitstreamBytes")) {
    if (!ReadUnsigned(config, "bitstreamBytes", 0xFFFFF000ull, value, error)) return false;
    if (value == 0 || value % 4096 != 0 || vcam_set_bitstream_size((uint32_t)value) != 0) {
      error = "\"bitstreamBytes\" must be a non-zero multiple of 4096 the camera accepts";
      return false;
    }
  }
  if (config.HasKey("queueDepth")) {
    if (!ReadUnsigned(config, "queueDepth", 0xFFFFFFFFull, value, error)) return false;
    if (value == 0 || vcam_set_queue_depth((uint32_t)value) != 0) {
      error = "\"queueDepth\" must be a positive number the camera accepts";
      return false;
    }
  }
  if (config.HasKey("clockRatePpm")) {
    const Variant& rate = config["clockRatePpm"];
    double ppm = rate.IsNumeric() ? (double)rate : 1e9;
    if (ppm < -VCAM_CLOCK_RATE_LIMIT_PPM || ppm > VCAM_CLOCK_RATE_LIMIT_PPM || ppm != (double)(int32_t)ppm ||
        vcam_set_clock_rate_ppm((int32_t)ppm) != 0) {
      error = "\"clockRatePpm\" must be a whole number from -" + std::to_string(VCAM_CLOCK_RATE_LIMIT_PPM) +
              " to " + std::to_string(VCAM_CLOCK_RATE_LIMIT_PPM);
      return false;
    }
  }
  return true;
}

#else  // a build on the camera's own driver

bool ApplyCameraConfig(const vesk::variant::Variant&, std::string& error) {
  error = "this build runs on the camera's own driver: there is no virtual camera to set up";
  return false;
}

#endif

const char* CameraConfigHelp() {
  return "CAMERA.json sets up the virtual camera; every key is optional:\n"
         "  \"chipId\"             chip id the driver reports (0 S2L_22M, 1 S2L_33M,\n"
         "                       2 S2L_55M, 4 S2L_63, 5 S2L_66 (default), 6 S2L_88)\n"
         "  \"sensorModes\"        [{\"mode\": 0, \"hdrMode\": 0, \"width\": 1920, \"height\": 1080,\n"
         "                        \"fps\": 30}, ...] (or \"framePeriod\": 512000000 / rate)\n"
         "  \"scene\"              \"still\", \"moving\" (default) or \"busy\"\n"
         "  \"microcodeLoaded\"    false: the encoder loads it from the settings' firmwarePath\n"
         "  \"firmwareDirectory\"  write the microcode files there first (use it as firmwarePath)\n"
         "  \"replay\"             true: each stream encodes one IDR period, then replays it\n"
         "  \"bitstreamBytes\"     size of the bitstream ring (default 4194304)\n"
         "  \"queueDepth\"         pictures kept before the oldest is lost (default 64)\n"
         "  \"clockRatePpm\"       the camera's clock runs this many parts per million fast\n"
         "                       (or slow, negative) against the sound card's (default 0)\n"
         "Without --camera the defaults run on the real-time clock.\n";
}

}  // namespace camera
}  // namespace vesk
