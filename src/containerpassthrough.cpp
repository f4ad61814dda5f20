#include "containerpassthrough.h"

#include "outstream.h"

namespace vesk {
namespace encoder {
namespace internal {

ContainerPassThrough::ContainerPassThrough(OutStream* outStream)
    : BaseContainer(CONTAINER_PASSTHROUGH, outStream) {
  message_.parts = new message_part_t[2]();
  message_.partCount = 0;
  message_.totalLength = 0;
}

ContainerPassThrough::~ContainerPassThrough() { delete[] message_.parts; }

bool ContainerPassThrough::FeedVideoFrame(const video_frame_t* frame) {
  if (suppressVideo_) return true;
  message_.Reset();
  payload_runs_t runs;
  GetPayloadRuns(*frame, runs);
  for (uint32_t i = 0; i < runs.count; i++) message_.Append(runs.data[i], runs.length[i]);
  outStream_->SendMessage(&message_);
  return true;
}

bool ContainerPassThrough::FeedAudioFrame(const audio_frame_t* frame) {
  if (suppressAudio_) return true;
  message_.Reset();
  uint32_t length = 0;
  const uint8_t* data = ChooseAudioPayload(frame, length);
  if (length != 0) message_.Append(data, length);
  // An empty message is still handed on; the transports ignore it.
  outStream_->SendMessage(&message_);
  return true;
}

}  // namespace internal
}  // namespace encoder
}  // namespace vesk
