// The virtual camera's set-up from a JSON file (vesk-camera run --camera).
// Keys, all optional (absent keys keep the camera's defaults: chip S2L_66, its
// five sensor modes, a moving scene, microcode loaded, real-time clock):
//   "chipId"            number the driver reports as chip id (0 S2L_22M ... 7 S2L_99)
//   "sensorModes"       array of {"mode", "hdrMode", "width", "height", and
//                       "fps" or "framePeriod" (512000000 / rate)}
//   "scene"             "still", "moving" or "busy"
//   "microcodeLoaded"   false: the video track must load it from its firmware path
//   "firmwareDirectory" directory the microcode files are written into (created)
//   "replay"            true: each stream encodes one IDR period, then replays it
//   "bitstreamBytes"    size of the bitstream ring (a multiple of 4096)
//   "queueDepth"        pictures the driver keeps before it loses the oldest
#pragma once

#include <string>

#include "vesk/variant/variant.h"

namespace vesk {
namespace camera {

// Applies config to this process's virtual camera. False with a one-line
// reason for an unknown key or a value of the wrong kind.
bool ApplyCameraConfig(const vesk::variant::Variant& config, std::string& error);

// The text that --help prints about the file's keys.
const char* CameraConfigHelp();

}  // namespace camera
}  // namespace vesk
