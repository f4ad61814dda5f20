// The framing of one output stream's frames into messages. A container only
// builds messages and hands each to its stream (OutStream::SendMessage); the
// transports move the bytes.
#pragma once

#include <string>

#include "vesk/records.h"
#include "vesk/streaminfo.h"
#include "vesk/variant/variant.h"

namespace vesk {
namespace encoder {
namespace internal {

class OutStream;
class BaseTransport;

// The bytes [skip, skip + count) of a picture's payload as at most two runs
// of the ring (the wrap rule of the frame record). The caller keeps
// skip + count within the payload.
uint32_t GetPayloadSlice(const video_frame_t& frame, uint32_t skip, uint32_t count,
                         payload_runs_t& runs);
// The nine-word NAL description of a picture: the block codecInfo names
// (nalMap for key pictures, auxInfo for the others).
inline const uint32_t* GetNalInfo(const video_frame_t& frame) {
  if (frame.codecInfo != nullptr) return frame.codecInfo;
  return frame.isKeyFrame ? frame.nalMap : frame.auxInfo;
}

class BaseContainer {
 public:
  BaseContainer(ContainerType type, OutStream* outStream);
  virtual ~BaseContainer();
  BaseContainer(const BaseContainer&) = delete;
  BaseContainer& operator=(const BaseContainer&) = delete;

  virtual bool FeedVideoFrame(const video_frame_t* frame) = 0;
  virtual bool FeedAudioFrame(const audio_frame_t* frame) = 0;
  // A transport of the stream has just become ready: send it, and only it,
  // what a newcomer needs before the next frame.
  virtual bool SignalTransportReady(BaseTransport* transport) = 0;

  ContainerType GetType() const { return type_; }
  bool IsSuppressingAudio() const { return suppressAudio_; }
  bool IsSuppressingVideo() const { return suppressVideo_; }
  bool IsSuppressingTracks() const { return suppressAudio_ || suppressVideo_; }

  // Reads the track flags from the settings, then the container's own setup.
  bool Initialize(StreamInfo& info, const vesk::variant::Variant& settings);

  // A new, initialised container for the keyword ("flv", "extendedFlv",
  // "vesk", "mjpg", "passThrough"), owned by the caller; null otherwise.
  static BaseContainer* GetInstance(OutStream* outStream, const std::string& type,
                                    StreamInfo& info, const vesk::variant::Variant& settings);

 protected:
  virtual bool InternalInitialize(StreamInfo& info, const vesk::variant::Variant& settings) = 0;

  // The payload to carry of an audio frame: the talkback mix when the stream
  // carries talkback and the frame has one, else the microphone signal.
  const uint8_t* ChooseAudioPayload(const audio_frame_t* frame, uint32_t& length) const;

  ContainerType type_;
  OutStream* outStream_;
  bool suppressAudio_;
  bool suppressVideo_;
  bool withTalkback_;
};

}  // namespace internal
}  // namespace encoder
}  // namespace vesk
