// Sends the raw encoded bytes of each frame without any framing (MJPEG
// snapshots, raw elementary streams).
#pragma once

#include "basecontainer.h"

namespace vesk {
namespace encoder {
namespace internal {

class ContainerPassThrough : public BaseContainer {
 public:
  explicit ContainerPassThrough(OutStream* outStream);
  ~ContainerPassThrough() override;

  bool FeedVideoFrame(const video_frame_t* frame) override;
  bool FeedAudioFrame(const audio_frame_t* frame) override;
  bool SignalTransportReady(BaseTransport* transport) override { return true; }

 protected:
  bool InternalInitialize(StreamInfo& info, const vesk::variant::Variant& settings) override {
    return true;
  }

 private:
  message_t message_;  // two parts, reused for every frame
};

}  // namespace internal
}  // namespace encoder
}  // namespace vesk
