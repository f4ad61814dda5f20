#include "vesk/encoder.h"

#include <errno.h>

#include <cstdio>
#include <cstdlib>

#include "basetransport.h"
#include "motiondetectionthread.h"
#include "osdrate.h"
#include "outstream.h"
#include "trackencoderaudio.h"
#include "trackencodervideos2l.h"
#include "trackencodervideos2lcommon.h"
#include "vesk/device/device.h"
#include "vesk/utils/utils.h"
#include "vesk/variant/camerainfo.h"
#include "vlog.h"

namespace vesk {
namespace encoder {

using internal::MotionDetectionThread;
using internal::OutStream;
using internal::TrackEncoderAudio;
using internal::TrackEncoderVideoS2L;
using vesk::variant::Variant;

namespace {

// A timestamp in milliseconds: -1 when not set.
long long ToMs(const timestamp_t& t) {
  if (t.timescale == 0 || t.value < 0) return -1;
  if (t.timescale == 1000) return t.value;
  return RescaleTimestamp(t.value, t.timescale, 1000);
}

// The value under key as a map, replacing anything else by an empty map.
Variant& MapAt(Variant& parent, const char* key) {
  Variant& value = parent[key];
  if (!value.IsMap()) {
    value.Free();
    value.IsArray(false);
  }
  return value;
}

// "enabled" read as a bool; a missing or non-boolean value is written back as false.
bool Enabled(Variant& entry) {
  Variant& enabled = entry["enabled"];
  if (!enabled.IsBool()) enabled = false;
  return (bool)enabled;
}

// Normalises the child under key as class T, in place.
template <typename T>
void NormalizeChild(Variant& parent, const char* key) {
  T child(MapAt(parent, key));
  child.NormalizeFields();
  parent[key] = (const Variant&)child;
}

const char* const kH264Keys[] = {"video1", "video2", "video3"};

}  // namespace

Encoder::Encoder() : videoTrack_(nullptr), audioTrack_(nullptr) {
  for (auto& stream : outStreams_) stream = nullptr;
  defaultSettings_.Free();
  currentSettings_.Free();
}

Encoder::~Encoder() {
  Close();
  MotionDetectionThread::Free();
}

bool Encoder::Configure(const EncoderSettings& settings, bool saveAsDefault) {
  Close();
  currentSettings_ = (const Variant&)settings;
  Variant& firmware = currentSettings_["firmwarePath"];
  if (!firmware.IsString()) firmware = "/lib/firmware/";
  NormalizeChild<ChipSettings>(currentSettings_, "chip");
  NormalizeChild<AudioEncoderSettings>(currentSettings_, "audio");
  NormalizeChild<VideoEncoderSettings>(currentSettings_, "video");
  currentSettings_.NormalizeFields();

  videoTrack_ = new TrackEncoderVideoS2L(currentSettings_);
  if (!videoTrack_->Initialize()) {
    VLOG_ERROR("Video setup failed.");
    delete videoTrack_;
    videoTrack_ = nullptr;
    return false;
  }

  if (Enabled(MapAt(currentSettings_, "audio"))) {
    audioTrack_ = new TrackEncoderAudio(currentSettings_);
    if (!audioTrack_->Initialize()) {
      VLOG_WARN("Audio setup failed. Permanently closing the audio track");
      delete audioTrack_;
      audioTrack_ = nullptr;
    }
  }
  if (videoTrack_ == nullptr && audioTrack_ == nullptr) {
    VLOG_ERROR("Unable to initialize the encoder. No audio and no video present");
    return false;
  }
  if (!ConfigureOutStreams()) {
    VLOG_ERROR("Unable to initialize the output streams");
    return false;
  }
  if (!UpdateDriftAllowance()) {
    VLOG_ERROR("Unable to update the drift allowance on output streams");
    return false;
  }
  if (!videoTrack_->StartEncoding()) {
    VLOG_ERROR("Unable to start the video encoding process");
    return false;
  }
  if (audioTrack_ != nullptr && !audioTrack_->StartEncoding()) {
    VLOG_ERROR("Unable to start the audio encoding process");
    return false;
  }
  if (MotionDetectionThread::Init() != 0) {
    VLOG_ERROR("Unable to start the motion detection thread");
    return false;
  }
  if (saveAsDefault) defaultSettings_ = (const Variant&)settings;
  return true;
}

bool Encoder::ResetToDefaults() {
  if (defaultSettings_.IsUndefined()) {
    VLOG_ERROR("No default settings present");
    return false;
  }
  Close();
  EncoderSettings defaults = defaultSettings_;
  return Configure(defaults, false);
}

void Encoder::DeleteStream(unsigned slot) {
  delete outStreams_[slot];
  outStreams_[slot] = nullptr;
}

void Encoder::Close() {
  for (unsigned slot = 0; slot < kMaxOutStreams; slot++) DeleteStream(slot);
  delete videoTrack_;
  videoTrack_ = nullptr;
  delete audioTrack_;
  audioTrack_ = nullptr;
  currentSettings_.Free();
}

int Encoder::EncodeAudioFrames() {
  if (audioTrack_ == nullptr) return -1;
  int count = 0;
  for (audio_frame_t* frame = audioTrack_->GetFrame(); frame != nullptr;
       frame = audioTrack_->GetFrame()) {
    count++;
    for (unsigned slot = 0; slot < kMaxOutStreams; slot++) {
      if (outStreams_[slot] == nullptr || outStreams_[slot]->FeedAudioFrame(frame)) continue;
      VLOG_ERROR("Unable to feed audio data to stream");
      DeleteStream(slot);
    }
  }
  return count;
}

int Encoder::EncodeVideoFrames() {
  if (videoTrack_ == nullptr) return -1;
  video_frame_t* frame = videoTrack_->GetFrame();
  if (frame == nullptr) return 0;
  unsigned slot = frame->streamIndex % kMaxOutStreams;
  if (outStreams_[slot] != nullptr && !outStreams_[slot]->FeedVideoFrame(frame)) {
    VLOG_ERROR("Unable to feed video data to stream");
    DeleteStream(slot);
  }
  return 1;
}

int Encoder::EncodeFrames() {
  int audio = EncodeAudioFrames();
  int video = EncodeVideoFrames();
  if (audio < 0 && video < 0) {
    VLOG_ERROR("Encoding permanently failed");
    return -1;
  }
  RebaseTimestamps();
  if (videoTrack_ != nullptr) {
    uint8_t level = 0;
    for (OutStream* stream : outStreams_)
      if (stream != nullptr) level = stream->GetOutputBufferLevel(level);
    videoTrack_->AdaptCameraServerBitrate(level);
    videoTrack_->AdaptMotion(nowMs());
  }
  return (audio > 0 ? audio : 0) + (video > 0 ? video : 0);
}

int Encoder::GetVideoChipPerformance() { return (int)internal::GetChipPerformance(); }

bool Encoder::IsAudioTripletSupported(unsigned mode, unsigned sampleRate, unsigned bitRate) {
  return internal::AudioEncoder::IsSupportedTriplet(mode, sampleRate, bitRate);
}

bool Encoder::ForceIDR() {
  if (videoTrack_ == nullptr) {
    VLOG_ERROR("No video encoder configured");
    return false;
  }
  return videoTrack_->ForceIDR();
}

bool Encoder::AdaptServerPlayerBitrate(unsigned int channel, signed char level, int bitrate,
                                       bool resetOutputBitrate) {
  if (videoTrack_ == nullptr) return false;
  bool result = videoTrack_->AdaptServerPlayerBitrate(channel, level, bitrate, resetOutputBitrate);
  OutStream* stream = outStreams_[channel % kMaxOutStreams];
  if (resetOutputBitrate && stream != nullptr) stream->ResetOutputBitrate();
  return result;
}

OutStream* Encoder::CreateOutStream(const Variant& streamSettings, const Variant& avSerializer) {
  unsigned ordinal = (unsigned)streamSettings["streamOrdinal"];
  if (ordinal >= kMaxOutStreams) {
    VLOG_ERROR("Stream ordinal out of range: %zu. Max is %d", (size_t)ordinal, kMaxOutStreams);
    return nullptr;
  }
  const Variant* named = avSerializer.GetKeyChain(vesk::variant::V_STRING, "parameters/streamName");
  std::string name = named ? (std::string)*named : std::string();
  vesk::utils::trim(name);
  if (name.empty()) {
    vesk::variant::CameraInfo camera;
    if (!camera.Init()) {
      VLOG_ERROR("Unable to initialize camera information and no stream name provided");
      return nullptr;
    }
    const Variant& hwaddr = camera["hwaddr"];
    name = vesk::utils::format("%s_%u", hwaddr.IsString() ? hwaddr.c_str() : "", ordinal);
  }

  StreamInfo info;
  info.NormalizeFields();
  info["streamName"] = name;
  info["channelId"] = ordinal;
  info["streamId"] = (uint32_t)streamSettings["streamId"];
  info["hasVideo"] = videoTrack_ != nullptr;
  if (videoTrack_ != nullptr) {
    info["videoWidth"] = (uint32_t)streamSettings["width"];
    info["videoHeight"] = (uint32_t)streamSettings["height"];
    info["videoFps"] = (uint8_t)streamSettings["fps"];
    info["videoBandwidth"] = (uint32_t)streamSettings["bitRateVbrMax"];
  }
  info["hasAudio"] = audioTrack_ != nullptr;
  if (audioTrack_ != nullptr) {
    AudioEncoderSettings audio(MapAt(currentSettings_, "audio"));
    info["audioChannels"] = (uint8_t)audio.channels();
    info["audioFrequency"] = audio.sampleRate();
    info["audioBandwidth"] = audio.bitRate();
    currentSettings_["audio"] = (const Variant&)audio;
  }

  OutStream* stream = new OutStream(this, ordinal);
  if (!stream->Configure(avSerializer, info)) {
    VLOG_ERROR("Unable to configure out stream from this:\n%s", avSerializer.ToString().c_str());
    delete stream;
    return nullptr;
  }
  return stream;
}

bool Encoder::ConfigureOutStream(const Variant& streamSettings) {
  unsigned ordinal = (unsigned)streamSettings["streamOrdinal"];
  if (ordinal >= kMaxOutStreams) {
    VLOG_ERROR("Stream ordinal out of range: %zu. Max is %d", (size_t)ordinal, kMaxOutStreams);
    return false;
  }
  OutStream* stream = CreateOutStream(streamSettings, streamSettings["avSerializer"]);
  if (stream == nullptr) return false;
  DeleteStream(ordinal);
  outStreams_[ordinal] = stream;
  return true;
}

bool Encoder::UpdateOutStream(Variant& streamSettings, const Variant& avSerializer) {
  unsigned ordinal = (unsigned)streamSettings["streamOrdinal"];
  if (ordinal >= kMaxOutStreams) {
    VLOG_ERROR("Stream ordinal out of range: %zu. Max is %d", (size_t)ordinal, kMaxOutStreams);
    return false;
  }
  if (!Enabled(streamSettings)) {
    VLOG_WARN("Trying to set the output streams on an encoding which is disabled");
    return true;
  }
  // An unknown output type never replaces a working stream.
  if (avSerializer["type"] == "unknown") return true;
  OutStream* stream = CreateOutStream(streamSettings, avSerializer);
  if (stream == nullptr) return false;
  DeleteStream(ordinal);
  outStreams_[ordinal] = stream;
  streamSettings["avSerializer"] = avSerializer;
  return true;
}

bool Encoder::ConfigureOutStreams() {
  Variant& video = MapAt(currentSettings_, "video");
  const char* mjpeg = Enabled(MapAt(video, "mjpg1")) ? "mjpg1" : "mjpg";
  const char* keys[] = {"video1", "video2", "video3", mjpeg, "mjpg2"};
  for (const char* key : keys) {
    Variant& entry = video[key];
    // Elements the video track did not configure carry no ordinal.
    if (!entry.IsMap() || !Enabled(entry) || !entry.HasKey("streamOrdinal")) continue;
    ConfigureOutStream(entry);
  }
  return true;
}

bool Encoder::UpdateSettings(vesk::ipc::messages::ChangeVideoSettings& request) {
  request.NormalizeFields();
  if (videoTrack_ != nullptr && !videoTrack_->UpdateSettings(request))
    VLOG_ERROR("Updating the video settings failed");
  if (audioTrack_ != nullptr && !audioTrack_->UpdateSettings(request))
    VLOG_ERROR("Updating the audio settings failed");

  // Each enabled stream gets the output configuration the request carries for
  // it; "unknown" (none given) keeps the running stream.
  Variant& video = MapAt(currentSettings_, "video");
  Variant& requested = MapAt(request, "video");
  const char* mjpeg = Enabled(MapAt(video, "mjpg1")) ? "mjpg1" : "mjpg";
  const char* keys[] = {"video1", "video2", "video3", mjpeg, "mjpg2"};
  for (const char* key : keys) {
    Variant& entry = MapAt(video, key);
    if (!Enabled(entry) || !entry.HasKey("streamOrdinal")) continue;
    vesk::ipc::messages::AVSerializer output(MapAt(MapAt(requested, key), "avSerializer"));
    output.NormalizeFields();
    if (!UpdateOutStream(entry, output)) return false;
  }
  return UpdateDriftAllowance();
}

bool Encoder::RestartStreams(vesk::ipc::messages::RestartStreams& request) {
  vesk::ipc::messages::ChangeVideoSettings message;
  const Variant& video = ((const Variant&)currentSettings_)["video"];
  const char* keys[] = {"video1", "video2", "video3", "mjpg", "mjpg1", "mjpg2"};
  for (const char* key : keys) {
    Variant& named = request[key];
    if (!named.IsBool()) named = false;
    if (!(bool)named) continue;
    // The stream's own output configuration: rebuilt even when unchanged.
    std::string path = std::string(key) + "/avSerializer";
    const Variant* output = video.IsMap() ? video.GetKeyChain(vesk::variant::V_MAP, path.c_str()) : nullptr;
    Variant& target = message["video"][key]["avSerializer"];
    if (output != nullptr) {
      target = *output;
    } else {
      target.IsArray(false);
    }
  }
  return UpdateSettings(message);
}

void Encoder::GetChannelsOSDStats(signed char level, std::vector<std::string>& lines) {
  if (level < 1) return;
  lines.assign(3, std::string());
  Variant& video = MapAt(currentSettings_, "video");
  for (unsigned i = 0; i < 3; i++) {
    Variant& entry = MapAt(video, kH264Keys[i]);
    if (!Enabled(entry) || videoTrack_ == nullptr) continue;
    // Line i shows the element's own stream: with dense numbering its
    // ordinal (track record and output slot) need not be i.
    if (!entry.HasKey("streamOrdinal") || !entry["streamOrdinal"].IsNumeric()) continue;
    unsigned ordinal = (unsigned)entry["streamOrdinal"];
    videoTrack_->GetChannelsOSDStats(level, lines[i], ordinal);
    OutStream* stream = ordinal < kMaxOutStreams ? outStreams_[ordinal] : nullptr;
    if (stream != nullptr) internal::AppendOutputRate(lines[i], stream->GetOutputBitrate());
  }
}

const OutStream* Encoder::GetOutStream(unsigned slot) const {
  return slot < kMaxOutStreams ? outStreams_[slot] : nullptr;
}

bool Encoder::ReadHWClockFile(const char* path, long long& value) {
  FILE* file = vdev_fopen(path, "r");
  if (file == nullptr) {
    VLOG_ERRNO(VESK_PRIO_ERROR, errno, "Unable to open file %s", path);
    return false;
  }
  int converted = fscanf(file, "%lld", &value);
  fclose(file);
  if (converted != 1) {
    VLOG_ERROR("Unable to properly read the formatted value in %s", path);
    return false;
  }
  return true;
}

bool Encoder::GetCurrentHWClock(timestamp_t* out) {
  if (out == nullptr) {
    VLOG_ERROR("Invalid arguments");
    return false;
  }
  *out = timestamp_t();
  long long frequency = 0;
  long long ticks = 0;
  if (!ReadHWClockFile(VDEV_PATH_HWTIMER_OUTFREQ, frequency)) return false;
  if (!ReadHWClockFile(VDEV_PATH_HWTIMER, ticks)) return false;
  out->value = ticks;
  out->timescale = (uint32_t)frequency;
  return true;
}

bool Encoder::UpdateDriftAllowance() {
  Variant& audio = MapAt(currentSettings_, "audio");
  timestamp_t audioPeriod;
  bool hasAudio = Enabled(audio);
  if (hasAudio) {
    Variant& rate = audio["sampleRate"];
    uint32_t type = rate.GetType();
    bool isUnsigned = type >= vesk::variant::V_UINT8 && type <= vesk::variant::V_UINT64;
    if (!isUnsigned) rate = (uint32_t)11025;
    audioPeriod = timestamp_t(1024, (uint32_t)rate);
  }
  Variant& video = MapAt(currentSettings_, "video");
  for (const char* key : kH264Keys) {
    Variant& entry = MapAt(video, key);
    if (!Enabled(entry)) continue;
    if (!UpdateDriftAllowance(entry, hasAudio ? &audioPeriod : nullptr)) return false;
  }
  return true;
}

bool Encoder::UpdateDriftAllowance(const Variant& streamSettings,
                                   const timestamp_t* audioFramePeriod) {
  unsigned ordinal = (unsigned)streamSettings["streamOrdinal"];
  if (ordinal > 4) {
    VLOG_ERROR("Stream ordinal out of range: %zu. Max is %d", (size_t)ordinal, kMaxOutStreams);
    return false;
  }
  OutStream* stream = outStreams_[ordinal];
  if (stream == nullptr) return true;

  timestamp_t videoPeriod;
  const Variant& enabled = streamSettings["enabled"];
  unsigned fps = (unsigned)streamSettings["fps"];
  if (enabled.IsBool() && (bool)enabled && fps > 0) videoPeriod = timestamp_t(90000 / fps, 90000);

  timestamp_t chosen = videoPeriod;
  if (audioFramePeriod != nullptr && audioFramePeriod->timescale != 0) {
    int64_t video = videoPeriod.timescale == audioFramePeriod->timescale
                        ? videoPeriod.value
                        : (videoPeriod.IsSet() ? videoPeriod.In(audioFramePeriod->timescale) : -1);
    chosen = video > audioFramePeriod->value
                 ? timestamp_t(video, audioFramePeriod->timescale)
                 : *audioFramePeriod;
  }
  timestamp_t allowance = chosen;
  if (allowance.value >= 1) allowance.value *= 8;

  const timestamp_t& current = stream->GetMaxAllowedDrift();
  bool same = current.timescale == allowance.timescale
                  ? current.value == allowance.value
                  : current.value * (int64_t)allowance.timescale ==
                        allowance.value * (int64_t)current.timescale;
  if (same) return true;

  const Variant& name = streamSettings["name"];
  VLOG_INFO("drift allowed on channel %s: %lld ms", name.IsString() ? name.c_str() : "",
            ToMs(allowance));
  stream->SetMaxAllowedDrift(allowance);
  stream->ResetSyncMonitor();
  if (audioTrack_ != nullptr) audioTrack_->ForceTimestampsRebase();
  if (videoTrack_ != nullptr) videoTrack_->ForceTimestampsRebase();
  return true;
}

void Encoder::RebaseTimestamps() {
  bool drifted = false;
  for (OutStream* stream : outStreams_) drifted = drifted || (stream && stream->IsDrifted());
  if (!drifted) return;
  VLOG_WARN("Timestamp rebase needed");
  for (unsigned slot = 0; slot < kMaxOutStreams; slot++) {
    OutStream* stream = outStreams_[slot];
    if (stream == nullptr || !stream->IsDrifted()) continue;
    const auto& monitor = stream->GetSyncMonitor();
    const timestamp_t& drift = stream->GetMaxAllowedDrift();
    std::string video = vesk::utils::format("%lld/%u(%lld ms)", (long long)monitor.lastVideo.value,
                                            monitor.lastVideo.timescale, ToMs(monitor.lastVideo));
    std::string audio = vesk::utils::format("%lld/%u(%lld ms)", (long long)monitor.lastAudio.value,
                                            monitor.lastAudio.timescale, ToMs(monitor.lastAudio));
    std::string allowed = vesk::utils::format("%lld/%u(%lld ms)", (long long)drift.value,
                                              drift.timescale, ToMs(drift));
    long long vms = ToMs(monitor.lastVideo), ams = ToMs(monitor.lastAudio);
    long long diff = (vms < 0 || ams < 0) ? -1 : llabs(vms - ams);
    std::string difference =
        vesk::utils::format("%s - %s = %5lld ms", video.c_str(), audio.c_str(), diff);
    VLOG_WARN("streamOrdinal: %zu: %s > %s", (size_t)slot, difference.c_str(), allowed.c_str());
  }
  for (OutStream* stream : outStreams_)
    if (stream != nullptr) stream->ResetSyncMonitor();
  if (audioTrack_ != nullptr) audioTrack_->ForceTimestampsRebase();
  if (videoTrack_ != nullptr) videoTrack_->ForceTimestampsRebase();
}

bool Encoder::GetStreamStatus(unsigned slot, stream_status_t& status) const {
  const OutStream* stream = GetOutStream(slot);
  if (stream == nullptr) return false;
  const Variant& name = ((const Variant&)stream->GetStreamInfo())["streamName"];
  status.name = name.IsString() ? (std::string)name : std::string();
  status.transports = status.connected = 0;
  for (internal::BaseTransport* transport : stream->GetTransports()) {
    if (transport == nullptr) continue;
    status.transports++;
    if (transport->IsConnected()) status.connected++;
  }
  status.outputBytesPerSecond = stream->GetOutputBitrate();
  status.lastVideo = stream->GetSyncMonitor().lastVideo;
  status.lastAudio = stream->GetSyncMonitor().lastAudio;
  return true;
}

}  // namespace encoder
}  // namespace vesk
