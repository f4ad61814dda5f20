#include "basecontainer.h"

#include "containerflv.h"
#include "containerpassthrough.h"
#include "containervesk.h"
#include "vlog.h"

namespace vesk {
namespace encoder {
namespace internal {

using vesk::variant::Variant;

namespace {

// A boolean setting; false when missing or of another type.
bool ReadFlag(const Variant& settings, const char* key) {
  if (!settings.IsContainer()) return false;
  const Variant& value = settings[key];
  return value.GetType() == vesk::variant::V_BOOL && (bool)value;
}

}  // namespace

uint32_t GetPayloadSlice(const video_frame_t& frame, uint32_t skip, uint32_t count,
                         payload_runs_t& runs) {
  runs.count = 1;
  runs.data[1] = nullptr;
  runs.length[1] = 0;
  if (frame.isContiguous) {
    runs.data[0] = frame.ringBase + frame.offset + skip;
    runs.length[0] = count;
    return 1;
  }
  uint64_t start = frame.offset;
  if (start >= frame.ringSize) start -= frame.ringSize;
  start = (start + skip) % frame.ringSize;
  if (start + count > frame.ringSize) {
    runs.data[0] = frame.ringBase + start;
    runs.length[0] = (uint32_t)(frame.ringSize - start);
    runs.data[1] = frame.ringBase;
    runs.length[1] = count - runs.length[0];
    runs.count = 2;
  } else {
    runs.data[0] = frame.ringBase + start;
    runs.length[0] = count;
  }
  return runs.count;
}

BaseContainer::BaseContainer(ContainerType type, OutStream* outStream)
    : type_(type), outStream_(outStream), suppressAudio_(false), suppressVideo_(false),
      withTalkback_(false) {}

BaseContainer::~BaseContainer() {}

bool BaseContainer::Initialize(StreamInfo& info, const Variant& settings) {
  suppressAudio_ = ReadFlag(settings, "suppressAudio");
  suppressVideo_ = ReadFlag(settings, "suppressVideo");
  withTalkback_ = ReadFlag(settings, "withTalkback");
  if (suppressAudio_ && suppressVideo_) {
    VLOG_ERROR("Suppressing both audio and video tracks is not allowed");
    return false;
  }
  return InternalInitialize(info, settings);
}

BaseContainer* BaseContainer::GetInstance(OutStream* outStream, const std::string& type,
                                          StreamInfo& info, const Variant& settings) {
  BaseContainer* container = nullptr;
  if (type == "flv") {
    container = new ContainerFLV(outStream, false);
  } else if (type == "extendedFlv") {
    container = new ContainerFLV(outStream, true);
  } else if (type == "vesk") {
    container = new ContainerVesk(outStream);
  } else if (type == "mjpg" || type == "passThrough") {
    container = new ContainerPassThrough(outStream);
  } else {
    return nullptr;  // the caller reports the unknown keyword
  }
  if (!container->Initialize(info, settings)) {
    VLOG_ERROR("Unable to initialize container");
    delete container;
    return nullptr;
  }
  return container;
}

const uint8_t* BaseContainer::ChooseAudioPayload(const audio_frame_t* frame,
                                                 uint32_t& length) const {
  if (withTalkback_ && frame->altPayloadLength != 0) {
    length = frame->altPayloadLength;
    return frame->altPayload;
  }
  length = frame->payloadLength;
  return frame->payload;
}

}  // namespace internal
}  // namespace encoder
}  // namespace vesk
