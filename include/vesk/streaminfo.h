// The description of one output stream: a map filled by the stream's
// configuration and its container, read by the Encoder.
#pragma once

#include <cstdint>
#include <string>

#include "vesk/variant/basevariantcontainer.h"

namespace vesk {
namespace encoder {

class StreamInfo : public vesk::variant::BaseVariantContainer {
 public:
  StreamInfo() = default;
  StreamInfo(const vesk::variant::Variant& value) : BaseVariantContainer(value) {}
  using vesk::variant::Variant::operator=;
  ~StreamInfo() override;

  // Makes every key present with its type: a value of the wrong type is
  // removed and the default inserted.
  bool NormalizeFields() override;

  // Strict readers: a missing key or a value of another type ends the process.
  std::string uri() const;
  std::string streamName() const;
  uint32_t channelId() const;
  uint32_t streamId() const;
  bool hasVideo() const;
  uint32_t videoWidth() const;
  uint32_t videoHeight() const;
  uint8_t videoFps() const;
  uint32_t videoBandwidth() const;
  bool hasAudio() const;
  uint8_t audioChannels() const;
  uint32_t audioFrequency() const;
  uint32_t audioBandwidth() const;
};

}  // namespace encoder
}  // namespace vesk
