// Settings that the library accepts but that will hurt at run time, told in
// plain words before a run (and by `vesk-camera settings --check`).
#pragma once

#include <string>
#include <vector>

#include "vesk/variant/variant.h"

namespace vesk {
namespace camera {

// One sentence per problem, in the order of the settings tree.
std::vector<std::string> FindSettingsWarnings(const vesk::variant::Variant& settings);

// Whether the AAC encoder accepts the (mode, sample rate, bit rate) triplet.
bool IsSupportedAudioTriplet(unsigned mode, unsigned sampleRate, unsigned bitRate);

}  // namespace camera
}  // namespace vesk
