// The virtual DSP at work: the VIN clock, the statistics plane of every VIN
// frame, the pictures of every encoding stream, the bitstream ring and its
// descriptor queue.
#include <stdio.h>
#include <string.h>

#include <chrono>

#include "camera.h"

namespace vesk::virtualcam {
namespace {

constexpr uint8_t kStartCode[4] = {0, 0, 0, 1};
constexpr uint32_t kMaxReplayPictures = 300;
constexpr int kMaxSegments = H264Output::kMaxNals + 2;
constexpr uint64_t kLateFrames = 3;

uint32_t DeliveredKbps(const StreamConfig& config) {
  // The target counts bits per second at the VIN rate.
  uint64_t bits = static_cast<uint64_t>(config.bitrate.targetBitrate) * config.fps.numerator /
                  (config.fps.denominator != 0 ? config.fps.denominator : 1);
  uint64_t kbps = bits / 1000;
  return kbps < 1 ? 1 : static_cast<uint32_t>(kbps);
}

size_t SegmentsSize(const Segment* segments, int count) {
  size_t total = 0;
  for (int i = 0; i < count; ++i) total += segments[i].size + (segments[i].startCode ? 4 : 0);
  return total;
}

// Copies the segments to `out` (each NAL unit behind a start code); returns
// the bytes written. Corrupting sets every NAL unit's type to 0.
size_t FormatSegments(const Segment* segments, int count, uint8_t* out, bool corrupt) {
  size_t at = 0;
  for (int i = 0; i < count; ++i) {
    if (segments[i].startCode) {
      memcpy(out + at, kStartCode, 4);
      at += 4;
    }
    memcpy(out + at, segments[i].data, segments[i].size);
    if (corrupt && segments[i].startCode && segments[i].size > 0) out[at] &= 0xE0;
    at += segments[i].size;
  }
  return at;
}

// The NAL units of an x264 picture with their 4-byte lengths dropped, and the
// parameter sets put behind the delimiter of an I or IDR picture that lacks them.
int H264Segments(const H264Encoder& encoder, const H264Output& out, Segment* segments) {
  bool key = out.pictureType == IAV_PIC_TYPE_IDR || out.pictureType == IAV_PIC_TYPE_I;
  bool hasSps = false;
  for (int i = 0; i < out.count; ++i)
    if (out.size[i] > 4 && (out.nal[i][4] & 0x1F) == 7) hasSps = true;
  bool insert = key && !hasSps && encoder.SpsSize() > 0 && encoder.PpsSize() > 0;
  int n = 0;
  for (int i = 0; i < out.count; ++i) {
    if (out.size[i] <= 4) continue;
    bool isAud = (out.nal[i][4] & 0x1F) == 9;
    if (insert && !isAud) {  // no delimiter in front: parameter sets first
      segments[n++] = Segment{encoder.Sps(), encoder.SpsSize(), true};
      segments[n++] = Segment{encoder.Pps(), encoder.PpsSize(), true};
      insert = false;
    }
    segments[n++] = Segment{out.nal[i] + 4, out.size[i] - 4, true};
    if (insert && isAud) {
      segments[n++] = Segment{encoder.Sps(), encoder.SpsSize(), true};
      segments[n++] = Segment{encoder.Pps(), encoder.PpsSize(), true};
      insert = false;
    }
  }
  return n;
}

}  // namespace

// ---- Clock ------------------------------------------------------------------------

// mutex_ held. VIN frame 1 is captured when preview starts.
uint64_t VirtualCamera::VinFrameNs(uint64_t index) const {
  return vinStartNs_ + static_cast<uint64_t>(static_cast<unsigned __int128>(index - 1) * vinPeriod_ *
                                             1000000000u / IAV_VIN_CLOCK);
}

// mutex_ held.
uint32_t VirtualCamera::VinRate() const {
  return vinPeriod_ == 0 ? 0 : (IAV_VIN_CLOCK + vinPeriod_ / 2) / vinPeriod_;
}

void VirtualCamera::Advance(uint64_t microseconds) {
  std::lock_guard<std::mutex> production(production_);
  uint64_t now = 0;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (clockMode_ != VCAM_CLOCK_MANUAL) return;
    manualNowNs_ += microseconds * 1000;
    now = manualNowNs_;
  }
  ProduceDue(now, false);
}

// mutex_ held. One cell per 8x8 pixels of the VIN (1080p until a mode is
// set), rows 32-byte aligned, within half the statistics buffer.
void VirtualCamera::Me0Geometry(uint32_t* width, uint32_t* height, uint32_t* pitch) const {
  uint32_t vinWidth = vinWidth_ != 0 ? vinWidth_ : 1920;
  uint32_t vinHeight = vinHeight_ != 0 ? vinHeight_ : 1080;
  *width = (vinWidth + 7) / 8;
  *pitch = (*width + 31) & ~31u;
  *height = (vinHeight + 7) / 8;
  if (*pitch * *height > kMe0Size / 2) *height = kMe0Size / 2 / *pitch;
}

void VirtualCamera::RealTimeLoop() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!stopping_) {
    if (clockMode_ != VCAM_CLOCK_REALTIME || !vinRunning_ || vinPeriod_ == 0) {
      changed_.wait_for(lock, std::chrono::milliseconds(100));
      continue;
    }
    uint64_t wait = RealNsUntilLocked(VinFrameNs(vinNextIndex_));
    if (wait > 0) {
      changed_.wait_for(lock, std::chrono::nanoseconds(wait));
      continue;
    }
    lock.unlock();
    {
      std::lock_guard<std::mutex> production(production_);
      bool realTime = false;
      uint64_t now = 0;
      {
        std::lock_guard<std::mutex> inner(mutex_);
        realTime = clockMode_ == VCAM_CLOCK_REALTIME;
        now = NowNsLocked();
      }
      // Frames that are far behind are skipped, never queued up.
      if (realTime) ProduceDue(now, true);
    }
    lock.lock();
  }
}

// ---- Production (production_ held) ----------------------------------------------------

void VirtualCamera::ProduceDue(uint64_t nowNs, bool dropLate) {
  for (;;) {
    uint64_t index = 0;
    bool encode = true;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (!vinRunning_ || vinPeriod_ == 0) return;
      index = vinNextIndex_;
      if (VinFrameNs(index) > nowNs) return;
      // Real time: a frame that is kLateFrames periods behind is skipped.
      if (dropLate && VinFrameNs(index + kLateFrames) <= nowNs) encode = false;
    }
    ProduceVinFrame(index, encode);
  }
}

void VirtualCamera::ProduceVinFrame(uint64_t index, bool encode) {
  PictureJob jobs[IAV_MAX_ENCODE_STREAMS];
  int count = 0;
  SceneTime when;
  uint64_t ticks = 0;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!vinRunning_ || index != vinNextIndex_) return;
    ++vinNextIndex_;
    ++vinFrames_;
    if (!encode) ++vinFramesLate_;
    uint64_t ns = VinFrameNs(index);
    ticks = TicksAtNs(ns);
    when.scene = scene_;
    when.seconds = static_cast<double>(ns) / 1e9;
    when.frameIndex = index;

    // The statistics plane of this frame, in the place the previous one is not.
    uint32_t width = 0, height = 0, pitch = 0;
    Me0Geometry(&width, &height, &pitch);
    ++me0Seq_;
    if (me0Seq_ == 0) me0Seq_ = 1;
    uint32_t offset = (me0Seq_ % 2) * (kMe0Size / 2);
    RenderStatistics(when, me0_.Data() + offset, width, height, pitch);
    memset(&me0Latest_, 0, sizeof(me0Latest_));
    me0Latest_.dataOffset = offset;
    me0Latest_.width = width;
    me0Latest_.height = height;
    me0Latest_.pitch = pitch;
    me0Latest_.seqNum = me0Seq_;
    me0Latest_.pts = ticks / (VCAM_TIMER_FREQUENCY / 90000);

    for (uint32_t id = 0; id < IAV_MAX_ENCODE_STREAMS; ++id) {
      StreamConfig& s = streams_[id];
      if (!s.encoding) continue;
      s.accumulator += s.fps.numerator;
      if (s.accumulator < s.fps.denominator) continue;
      s.accumulator -= s.fps.denominator;
      if (!encode) continue;  // a late frame: this picture is dropped
      PictureJob& job = jobs[count++];
      job.id = id;
      job.config = s;
      job.forceIdr = s.forceIdr;
      job.vinRate = VinRate();
      job.replay = replay_;
      s.forceIdr = false;
    }
  }
  changed_.notify_all();
  for (int i = 0; i < count; ++i) EncodePicture(jobs[i], when, ticks);
}

bool VirtualCamera::PrepareEncoder(StreamEncoder& encoder, const PictureJob& job) {
  const StreamConfig& c = job.config;
  bool reopen = encoder.generation != c.generation || encoder.type != c.format.type ||
                encoder.fpsNumerator != c.fps.numerator;
  if (reopen) {
    encoder.h264.Close();
    encoder.jpeg.Close();
    encoder.generation = c.generation;
    encoder.type = c.format.type;
    encoder.fpsNumerator = c.fps.numerator;
    encoder.sinceIdr = 0;
    encoder.replay = false;
    encoder.renderer.Prepare(static_cast<int>(c.format.width), static_cast<int>(c.format.height));
    bool opened = false;
    if (c.format.type == IAV_STREAM_TYPE_H264) {
      H264Settings settings;
      settings.width = static_cast<int>(c.format.width);
      settings.height = static_cast<int>(c.format.height);
      settings.fpsNum = job.vinRate * c.fps.numerator;
      settings.fpsDen = c.fps.denominator;
      settings.M = c.h264.M;
      settings.kbps = DeliveredKbps(c);
      opened = encoder.h264.Open(settings);
    } else {
      opened = encoder.jpeg.Open(static_cast<int>(c.format.width), static_cast<int>(c.format.height), c.quality);
    }
    if (!opened) {
      fprintf(stderr, "virtualcam: stream %u: the encoder refused %ux%u\n", job.id, c.format.width,
              c.format.height);
      encoder.type = IAV_STREAM_TYPE_NONE;
      return false;
    }
    if (job.replay) PrepareReplay(encoder, job);
    return true;
  }
  if (encoder.type == IAV_STREAM_TYPE_H264 && !encoder.replay && DeliveredKbps(c) != encoder.h264.Settings().kbps)
    encoder.h264.SetBitrate(DeliveredKbps(c));
  if (encoder.type == IAV_STREAM_TYPE_MJPEG && c.quality != encoder.jpeg.Quality()) encoder.jpeg.SetQuality(c.quality);
  return true;
}

int VirtualCamera::ChoosePictureType(StreamEncoder& encoder, const PictureJob& job) {
  uint32_t idr = job.config.gop.idrInterval != 0 ? job.config.gop.idrInterval : 1;
  uint32_t n = job.config.h264.N != 0 ? job.config.h264.N : 1;
  if (job.forceIdr || encoder.sinceIdr == 0 || encoder.sinceIdr >= idr) {
    encoder.sinceIdr = 1;
    return IAV_PIC_TYPE_IDR;
  }
  int type = encoder.sinceIdr % n == 0 ? IAV_PIC_TYPE_I : IAV_PIC_TYPE_P;
  ++encoder.sinceIdr;
  return type;
}

// Encodes one picture of the scene; the segments point into the encoder's
// memory until its next call. Returns the segment count (0: nothing out).
int VirtualCamera::EncodeOne(StreamEncoder& encoder, const PictureJob& job, const SceneTime& when, int64_t pts,
                             Segment* segments, int* type, int64_t* outPts) {
  if (encoder.type == IAV_STREAM_TYPE_H264) {
    encoder.renderer.Render(when, encoder.h264.Input());
    H264Output out;
    if (!encoder.h264.Encode(ChoosePictureType(encoder, job), pts, &out) || out.count == 0) return 0;
    *type = out.pictureType;
    *outPts = out.pts;
    return H264Segments(encoder.h264, out, segments);
  }
  PlanarPicture picture;
  if (!encoder.jpeg.Input(&picture)) return 0;
  encoder.renderer.Render(when, picture);
  const uint8_t* data = nullptr;
  size_t size = 0;
  if (!encoder.jpeg.Encode(&data, &size)) return 0;
  segments[0] = Segment{data, size, false};
  *type = IAV_PIC_TYPE_JPEG;
  *outPts = pts;
  return 1;
}

void VirtualCamera::EncodePicture(PictureJob& job, const SceneTime& when, uint64_t ticks) {
  StreamEncoder& encoder = encoders_[job.id];
  if (!PrepareEncoder(encoder, job)) return;
  const uint64_t ticksPer90k = VCAM_TIMER_FREQUENCY / 90000;
  Segment segments[kMaxSegments];
  int count = 0;
  int type = 0;
  int64_t pts = static_cast<int64_t>(ticks / ticksPer90k);
  if (encoder.replay) {
    if (encoder.replayPictures.empty()) return;
    if (job.forceIdr) encoder.replayNext = 0;
    const ReplayPicture& stored = encoder.replayPictures[encoder.replayNext];
    encoder.replayNext = (encoder.replayNext + 1) % encoder.replayPictures.size();
    segments[0] = Segment{encoder.replayData.data() + stored.offset, stored.size, false};
    count = 1;
    type = stored.type;
  } else {
    int64_t outPts = pts;
    count = EncodeOne(encoder, job, when, pts, segments, &type, &outPts);
    pts = outPts;
  }
  if (count == 0) return;
  std::lock_guard<std::mutex> lock(mutex_);
  const StreamConfig& s = streams_[job.id];
  if (!s.encoding || s.generation != job.config.generation) return;  // stopped meanwhile
  WritePictureLocked(job, segments, count, type, static_cast<uint64_t>(pts),
                     static_cast<uint64_t>(pts) * ticksPer90k);
}

// Encodes one IDR period (at most kMaxReplayPictures) for replay.
void VirtualCamera::PrepareReplay(StreamEncoder& encoder, const PictureJob& job) {
  uint32_t count = encoder.type == IAV_STREAM_TYPE_H264 ? job.config.gop.idrInterval : 1;
  if (count < 1) count = 1;
  if (count > kMaxReplayPictures) count = kMaxReplayPictures;
  encoder.replayData.clear();
  encoder.replayPictures.clear();
  encoder.replayNext = 0;
  PictureJob local = job;
  local.forceIdr = false;
  double rate = job.config.fps.denominator != 0 && job.vinRate != 0
                    ? static_cast<double>(job.vinRate) * job.config.fps.numerator / job.config.fps.denominator
                    : 30.0;
  Segment segments[kMaxSegments];
  for (uint32_t i = 0; i < count * 2 && encoder.replayPictures.size() < count; ++i) {
    SceneTime when;
    when.scene = VCAM_SCENE_MOVING;
    when.seconds = i / rate;
    when.frameIndex = i;
    int type = 0;
    int64_t pts = 0;
    int n = EncodeOne(encoder, local, when, static_cast<int64_t>(i), segments, &type, &pts);
    if (n == 0) continue;
    ReplayPicture stored;
    stored.offset = encoder.replayData.size();
    stored.size = SegmentsSize(segments, n);
    stored.type = type;
    encoder.replayData.resize(stored.offset + stored.size);
    FormatSegments(segments, n, encoder.replayData.data() + stored.offset, false);
    encoder.replayPictures.push_back(stored);
  }
  encoder.replay = !encoder.replayPictures.empty();
}

// mutex_ held.
void VirtualCamera::WritePictureLocked(const PictureJob& job, const Segment* segments, int count, int type,
                                       uint64_t pts, uint64_t ticks) {
  const size_t ringSize = bsb_.Size();
  const size_t total = SegmentsSize(segments, count);
  if (total == 0 || total > ringSize / 2) {  // cannot fit: lost as on the chip
    ++picturesLost_;
    return;
  }
  const uint64_t start = ringWrite_;
  // The oldest pictures whose bytes this one overwrites are lost, and so is
  // the oldest one when the queue is full.
  while (queueCount_ > 0) {
    QueuedDescriptor& front = queue_[queueHead_];
    bool overwritten = start + total > front.ringStart + ringSize;
    if (!overwritten && queueCount_ < queue_.size()) break;
    if (!front.taken) ++picturesLost_;
    queueHead_ = (queueHead_ + 1) % queue_.size();
    --queueCount_;
  }
  bool corrupt = corruptNal_ > 0 && type != IAV_PIC_TYPE_JPEG;
  if (corrupt) --corruptNal_;
  FormatSegments(segments, count, bsb_.Data() + start % ringSize, corrupt);

  StreamConfig& s = streams_[job.id];
  QueuedDescriptor& entry = queue_[(queueHead_ + queueCount_) % queue_.size()];
  ++queueCount_;
  memset(&entry.desc, 0, sizeof(entry.desc));
  entry.desc.id = static_cast<int32_t>(job.id);
  entry.desc.picType = static_cast<uint32_t>(type);
  entry.desc.frameNum = s.frameNum++;
  entry.desc.dataOffset = static_cast<uint32_t>(start % ringSize);
  entry.desc.size = static_cast<uint32_t>(total);
  entry.desc.width = s.format.width;
  entry.desc.height = s.format.height;
  entry.desc.pts = pts;
  entry.desc.hwTimestamp = ticks;
  entry.ringStart = start;
  entry.taken = false;
  lastWritten_ = entry.desc;
  ringWrite_ = (start + total + 31) & ~static_cast<uint64_t>(31);  // pictures start 32-byte aligned
  ++s.pictures;
  s.bytes += total;
  ++picturesWritten_;
}

}  // namespace vesk::virtualcam
