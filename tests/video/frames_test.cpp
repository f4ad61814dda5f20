// Frame retrieval on the manual clock: stream index, picture types, 90 kHz
// timestamps and NAL maps (checked by decoding with libavcodec), the wrap
// rule, descriptor and bitstream faults, rebase points, forced IDR pictures.
#include <math.h>

#include <map>
#include <memory>
#include <tuple>
#include <vector>

#include "alloc_counter.h"
#include "camera_decoder.h"
#include "vesk/device/iav.h"
#include "video_fixture.h"

namespace vesk {
namespace test {
namespace {

using encoder::video_frame_t;
using encoder::NAL_AUD_LENGTH;
using encoder::NAL_AUD_OFFSET;
using encoder::NAL_PPS_LENGTH;
using encoder::NAL_PPS_OFFSET;
using encoder::NAL_SLICE_OFFSET;
using encoder::NAL_SPS_LENGTH;
using encoder::NAL_SPS_OFFSET;

std::vector<uint8_t> PayloadBytes(const video_frame_t& frame, uint32_t from = 0, uint32_t count = UINT32_MAX) {
  std::vector<uint8_t> bytes;
  uint32_t end = count == UINT32_MAX ? frame.length : from + count;
  for (uint32_t i = from; i < end; i++) bytes.push_back(encoder::PayloadByte(frame, i));
  return bytes;
}

uint32_t NalType(const video_frame_t& f, uint32_t offset) { return encoder::PayloadByte(f, offset + 4) & 0x1F; }

bool StartCodeAt(const video_frame_t& f, uint32_t offset) {
  return encoder::PayloadByte(f, offset) == 0 && encoder::PayloadByte(f, offset + 1) == 0 &&
         encoder::PayloadByte(f, offset + 2) == 0 && encoder::PayloadByte(f, offset + 3) == 1;
}

// Every recorded unit starts with a start code of its type; the slice is last.
void CheckNalMap(const video_frame_t& f) {
  const uint32_t* map = f.codecInfo;
  ASSERT_EQ(map, f.isKeyFrame ? f.nalMap : f.auxInfo);
  const uint32_t types[4] = {7, 8, 6, 9};
  for (int k = 0; k < 4; k++) {
    if (map[2 * k + 1] == 0) continue;
    EXPECT_TRUE(StartCodeAt(f, map[2 * k])) << "unit " << k;
    EXPECT_EQ(NalType(f, map[2 * k]), types[k]);
    EXPECT_TRUE(StartCodeAt(f, map[2 * k] + map[2 * k + 1])) << "unit " << k << " ends at the next start code";
  }
  EXPECT_TRUE(StartCodeAt(f, map[NAL_SLICE_OFFSET]));
  uint32_t slice = NalType(f, map[NAL_SLICE_OFFSET]);
  if (f.isKeyFrame)
    EXPECT_TRUE(slice == 5 || slice == 1) << slice;  // IDR or I slice
  else
    EXPECT_EQ(slice, 1u);
  // The chip writes a delimiter in front of every picture, parameter sets on key pictures.
  EXPECT_GT(map[NAL_AUD_LENGTH], 0u);
  EXPECT_EQ(map[NAL_AUD_OFFSET], 0u);
  if (f.isKeyFrame) {
    EXPECT_EQ(map[NAL_SPS_OFFSET], map[NAL_AUD_LENGTH]);
    EXPECT_EQ(map[NAL_PPS_OFFSET], map[NAL_SPS_OFFSET] + map[NAL_SPS_LENGTH]);
  }
}

class FramesTest : public VideoTrackTest {
 protected:
  // Runs the streams for 2 s of camera time, taking the pictures every 100 ms
  // (the driver keeps 64 descriptors), and checks every picture and stream.
  void RunStreams(const std::vector<stream_spec_t>& specs) {
    for (const stream_spec_t& s : specs) AddStream(s);
    ASSERT_TRUE(InitializeAndStart());
    std::map<uint32_t, std::vector<int64_t>> pts;
    std::map<uint32_t, std::vector<uint32_t>> types;
    std::map<uint32_t, int> decoded, alone;
    std::map<uint32_t, std::unique_ptr<Decoder>> decoders;
    for (uint32_t t = 0; t < 2000; t += 100) {
      vcam_advance_ms(100);
      while (video_frame_t* f = track_->GetFrame()) {
        const stream_spec_t& spec = specs.at(f->streamIndex);
        if (f->offset + f->length > f->ringSize / 2) acrossRingEnd_++;  // read through the mirror
        EXPECT_EQ(std::make_tuple(f->pts.timescale, f->dts.value, f->ptsDtsDelta.value, f->duration),
                  std::make_tuple(90000u, f->pts.value, (int64_t)0, (int64_t)(90000 / spec.fps)));
        pts[f->streamIndex].push_back(f->pts.value);
        bool jpeg = spec.key[0] == 'm';
        EXPECT_EQ(f->isJpeg, jpeg ? 1 : 0);
        if (jpeg) {
          EXPECT_EQ(f->isKeyFrame, 1);
          decoded[f->streamIndex] += DecodeOne(AV_CODEC_ID_MJPEG, PayloadBytes(*f), spec.width, spec.height);
          continue;
        }
        types[f->streamIndex].push_back(f->pictureType);
        EXPECT_EQ(f->isKeyFrame, f->pictureType == 1 ? 1 : 0);
        CheckNalMap(*f);
        // The same map as a fresh parse of the picture (the previous map is reused when it fits).
        video_frame_t copy = *f;
        copy.codecInfo = copy.isKeyFrame ? copy.nalMap : copy.auxInfo;
        EXPECT_TRUE(track_->ParseNALMap(&copy));
        EXPECT_EQ(0, memcmp(copy.codecInfo, f->codecInfo, 36));
        std::unique_ptr<Decoder>& d = decoders[f->streamIndex];
        if (!d) d.reset(new Decoder(AV_CODEC_ID_H264));
        decoded[f->streamIndex] += d->Feed(PayloadBytes(*f), spec.width, spec.height);
        const uint32_t* m = f->codecInfo;
        if (f->pictureType == 1 && NalType(*f, m[NAL_SLICE_OFFSET]) == 5) {
          // The parameter sets and the slice the map names decode alone.
          std::vector<uint8_t> unit = PayloadBytes(*f, m[NAL_SPS_OFFSET], m[NAL_SPS_LENGTH]);
          std::vector<uint8_t> pps = PayloadBytes(*f, m[NAL_PPS_OFFSET], m[NAL_PPS_LENGTH]);
          std::vector<uint8_t> slice = PayloadBytes(*f, m[NAL_SLICE_OFFSET]);
          unit.insert(unit.end(), pps.begin(), pps.end());
          unit.insert(unit.end(), slice.begin(), slice.end());
          alone[f->streamIndex] += DecodeOne(AV_CODEC_ID_H264, unit, spec.width, spec.height);
        }
      }
    }
    ASSERT_EQ(pts.size(), specs.size());
    for (uint32_t id = 0; id < specs.size(); id++) {
      SCOPED_TRACE(specs[id].key);
      ASSERT_EQ(pts[id].size(), 2u * specs[id].fps);
      EXPECT_EQ(StreamStatus(id).pictures, pts[id].size());
      for (size_t i = 1; i < pts[id].size(); i++) EXPECT_NEAR(pts[id][i] - pts[id][i - 1], 90000 / specs[id].fps, 1) << i;
      EXPECT_EQ(decoded[id], (int)pts[id].size());
      if (specs[id].key[0] == 'm') continue;
      // An IDR picture every second, an I picture every 10 in between.
      for (size_t i = 0; i < types[id].size(); i++) EXPECT_EQ(types[id][i], (i % specs[id].fps) % 10 == 0 ? 1u : 3u) << i;
      EXPECT_EQ(alone[id], 2);  // one IDR per second
    }
  }

  int acrossRingEnd_ = 0;
};

TEST_F(FramesTest, OneH264Stream) { RunStreams({{"video1", 640, 360, 30, 0, 400000}}); }

TEST_F(FramesTest, TwoH264Streams) {
  RunStreams({{"video1", 640, 360, 30, 0, 400000}, {"video2", 320, 180, 15, 1, 200000}});
}

TEST_F(FramesTest, ThreeH264StreamsAndMjpeg) {
  RunStreams({{"video1", 640, 360, 30, 0, 400000},
              {"video2", 320, 180, 15, 1, 200000},
              {"video3", 320, 176, 10, 2, 100000},
              {"mjpg", 320, 180, 5, 3, 80}});
}

TEST_F(FramesTest, PicturesAcrossTheRingEnd) {
  ASSERT_EQ(vcam_set_bitstream_size(65536), 0);
  RunStreams({{"video1", 640, 360, 30, 0, 400000}, {"mjpg", 320, 180, 5, 1, 80}});
  EXPECT_GT(acrossRingEnd_, 0);
}

TEST_F(FramesTest, GetFrameAllocatesNothingPerPicture) {
  AddStream({"video1", 320, 180, 30, 0, 300000});
  AddStream({"mjpg", 320, 180, 10, 1, 60});
  ASSERT_TRUE(InitializeAndStart());
  vcam_advance_ms(300);
  while (track_->GetFrame() != nullptr) {
  }
  vcam_advance_ms(1000);
  uint64_t before = AllocationCount();
  int pictures = 0;
  while (track_->GetFrame() != nullptr) pictures++;
  EXPECT_EQ(AllocationCount(), before);
  EXPECT_EQ(pictures, 40);
}

TEST_F(FramesTest, DescriptorFaultsAndCorruptedPictures) {
  AddStream({"video1", 320, 180, 30, 0, 300000});
  ASSERT_TRUE(InitializeAndStart());
  vcam_advance_ms(10);  // the first picture only: an IDR, with its parameter sets
  // Type 2 (I) is treated as an IDR; stream 4 is skipped silently.
  vcam_fault_descriptor(4, 1);
  vcam_fault_descriptor(0, 2);
  log_.Clear();
  video_frame_t* f = track_->GetFrame();
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(std::make_tuple(f->streamIndex, f->isKeyFrame, f->pictureType), std::make_tuple(0u, 1, 1u));
  EXPECT_TRUE(log_.Lines().empty());
  vcam_fault_descriptor(0, 7);
  EXPECT_EQ(track_->GetFrame(), nullptr);
  EXPECT_TRUE(log_.Has("Frame type not supported"));
  while (track_->GetFrame() != nullptr) {
  }
  // Nothing ready: null without a line.
  log_.Clear();
  EXPECT_EQ(track_->GetFrame(), nullptr);
  EXPECT_TRUE(log_.Lines().empty());
  vcam_fault_request(IAV_IOC_QUERY_DESC, EIO, 1);
  EXPECT_EQ(track_->GetFrame(), nullptr);
  EXPECT_TRUE(log_.Has("IAV_IOC_QUERY_DESC failed"));

  // Corrupted pictures are dropped and the stream goes on.
  ASSERT_TRUE(track_->ForceIDR());
  vcam_fault_corrupt_nal(2);  // the IDR and the first P picture
  vcam_advance_ms(200);       // 6 pictures
  uint32_t read = Status().picturesRead;
  for (int i = 0; i < 6; i++) {
    f = track_->GetFrame();
    if (i < 2) {
      EXPECT_EQ(f, nullptr) << i;
    } else {
      ASSERT_NE(f, nullptr) << i;
      EXPECT_EQ(f->pictureType, 3u);
    }
  }
  EXPECT_EQ(Status().picturesRead, read + 6);
  // A forced IDR brings a key picture with its parameter sets.
  ASSERT_TRUE(track_->ForceIDR());
  vcam_advance_ms(34);
  f = track_->GetFrame();
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(f->isKeyFrame, 1);
  EXPECT_GT(f->nalMap[NAL_SPS_LENGTH], 0u);
}

TEST_F(FramesTest, ForceIdrAsksEveryEnabledH264Stream) {
  AddStream({"video1", 320, 180, 30, 0, 300000});
  AddStream({"video3", 320, 180, 30, 1, 300000});
  AddStream({"mjpg", 320, 180, 30, 2, 50});
  ASSERT_TRUE(InitializeAndStart());
  uint32_t before[3] = {StreamStatus(0).forcedIdrs, StreamStatus(1).forcedIdrs, StreamStatus(2).forcedIdrs};
  EXPECT_TRUE(track_->ForceIDR());
  EXPECT_EQ(StreamStatus(0).forcedIdrs, before[0] + 1);
  EXPECT_EQ(StreamStatus(1).forcedIdrs, before[1] + 1);
  EXPECT_EQ(StreamStatus(2).forcedIdrs, before[2]);
  vcam_fault_request(IAV_IOC_SET_STREAM_CONFIG, EIO, 1);
  log_.Clear();
  EXPECT_FALSE(track_->ForceIDR());
  EXPECT_TRUE(log_.Has("IAV_IOC_SET_STREAM_CONFIG failed"));
  EXPECT_EQ(StreamStatus(1).forcedIdrs, before[1] + 1);  // video1 failed: video3 not asked
}

TEST_F(FramesTest, RebasePointsStartUnsetAndAreRequestedPerSlot) {
  AddStream({"video1", 320, 180, 30, 0, 300000});
  ASSERT_TRUE(MakeTrack().Initialize());
  for (unsigned i = 0; i < 4; i++) EXPECT_TRUE(isnan(track_->GetRebasePoint(i)));
  track_->ForceTimestampsRebase(1);
  track_->ForceTimestampsRebase(7);
  EXPECT_EQ(track_->GetRebasePoint(1), 0.0);
  EXPECT_TRUE(isnan(track_->GetRebasePoint(0)));
  track_->ForceTimestampsRebase();
  for (unsigned i = 0; i < 4; i++) EXPECT_EQ(track_->GetRebasePoint(i), 0.0);
  // The pictures keep the hardware clock's time.
  ASSERT_TRUE(track_->StartEncoding());
  vcam_advance_ms(100);
  video_frame_t* f = track_->GetFrame();
  ASSERT_NE(f, nullptr);
  EXPECT_NEAR((double)f->pts.value, (double)(vcam_timer_ticks() / 300), 3 * 3000.0);
}

TEST_F(FramesTest, GopMOtherThanOneEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  AddStream({"video1", 320, 180, 30, 0, 300000});
  Stream("video1")["M"] = 2u;
  ASSERT_TRUE(InitializeAndStart());
  vcam_advance_ms(100);
  EXPECT_DEATH(track_->GetFrame(), "M value not supported");
}

// A chip layer that can tell a malformed picture: the recovery ladder runs.
class SuspiciousTrack : public TrackEncoderVideoS2L {
 public:
  using TrackEncoderVideoS2L::TrackEncoderVideoS2L;
  bool IsValidVideoFrame() override { return !malformed; }
  bool malformed = false;
};

class LadderTest : public VideoTrackTest {
 protected:
  SuspiciousTrack& Start() {
    AddStream({"video1", 320, 180, 30, 0, 300000});
    settings_.NormalizeFields();
    SuspiciousTrack* track = new SuspiciousTrack(settings_);
    track_ = track;
    EXPECT_TRUE(track->Initialize() && track->StartEncoding());
    vcam_advance_ms(100);
    track->malformed = true;
    events_.clear();
    log_.Clear();
    return *track;
  }
};

TEST_F(LadderTest, AMalformedPictureRestartsTheEncoder) {
  SuspiciousTrack& track = Start();
  EXPECT_EQ(track.GetFrame(), nullptr);
  EXPECT_TRUE(log_.Has("Encoder stopped due to a malformed frame!"));
  EXPECT_TRUE(log_.Has("Attempting to restart the encoder due to a malformed frame!"));
  EXPECT_TRUE(log_.Has("Encoder restarted due to a malformed frame!"));
  EXPECT_EQ(events_, std::vector<std::string>({"EventIavStateExitEncode", "EventIavStateEnterEncode"}));
  EXPECT_EQ(Status().iavState, VCAM_IAV_STATE_ENCODE);
  // Valid pictures flow again.
  track.malformed = false;
  vcam_advance_ms(100);
  EXPECT_NE(track.GetFrame(), nullptr);
}

TEST_F(LadderTest, ALadderThatCannotRestartEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  SuspiciousTrack& track = Start();
  vcam_fault_request(IAV_IOC_STOP_ENCODE, EIO, 1);
  EXPECT_DEATH(track.GetFrame(), "Unable to stop encoding");
  vcam_clear_faults();
  // The restart fails; the VIN cannot be set again outside idle.
  vcam_fault_request(IAV_IOC_START_ENCODE, EIO, 1);
  EXPECT_DEATH(track.GetFrame(),
               "Unable to restart the encoder. Will try to reset the VIN, go back to idle and than try to start "
               "again(.|\n)*Unable to restart the encoder. Permanent failure");
}

// A synthetic ring: AUD, SPS, PPS, SEI, IDR slice laid across the ring's end.
TEST_F(VideoTrackTest, NalMapFollowsTheWrapRule) {
  TrackEncoderVideoS2L& track = MakeTrack();
  const uint8_t picture[] = {0, 0, 0, 1, 9,    0xF0,                       // AUD: 6 bytes
                             0, 0, 0, 1, 0x67, 0x42, 0, 0x1E, 0xAB,        // SPS: 9
                             0, 0, 0, 1, 0x68, 0xCE, 0x3C,                 // PPS: 7
                             0, 0, 0, 1, 6,    5, 1, 2,                    // SEI: 8
                             0, 0, 0, 1, 0x65, 0x88, 0x84, 0, 0x33, 1, 2}; // IDR
  const uint32_t size = sizeof(picture);
  std::vector<uint8_t> ring(64, 0xEE);
  for (uint32_t start : {0u, 50u, 60u, 63u}) {
    SCOPED_TRACE(start);
    for (uint32_t i = 0; i < size; i++) ring[(start + i) % ring.size()] = picture[i];
    video_frame_t f;
    memset(static_cast<void*>(&f), 0xA5, sizeof(f));
    f.ringBase = ring.data();
    f.ringSize = (uint32_t)ring.size();
    f.offset = start;
    f.length = size;
    f.isContiguous = start + size <= ring.size();
    f.isKeyFrame = 1;
    f.codecInfo = f.nalMap;
    encoder::payload_runs_t runs;
    EXPECT_EQ(encoder::GetPayloadRuns(f, runs), f.isContiguous ? 1u : 2u);
    EXPECT_TRUE(track.ParseNALMap(&f));
    const uint32_t expected[9] = {6, 9, 15, 7, 22, 8, 0, 6, 30};
    for (int k = 0; k < 9; k++) EXPECT_EQ(f.nalMap[k], expected[k]) << k;
    // An offset past the ring's end reads from its start.
    f.offset = start + (uint32_t)ring.size();
    f.isContiguous = 0;
    EXPECT_TRUE(track.ParseNALMap(&f));
    for (int k = 0; k < 9; k++) EXPECT_EQ(f.nalMap[k], expected[k]) << k;
  }
  // Five bytes hold nothing; a forbidden type (the PPS made type 2) clears the map.
  std::vector<uint8_t> bad(picture, picture + size);
  bad[15 + 4] = 0x62;
  for (uint32_t length : {5u, size}) {
    video_frame_t f;
    memset(static_cast<void*>(&f), 0x5A, sizeof(f));
    f.ringBase = bad.data();
    f.ringSize = size;
    f.offset = 0;
    f.length = length;
    f.isContiguous = 1;
    f.codecInfo = f.auxInfo;
    EXPECT_FALSE(track.ParseNALMap(&f));
    for (uint32_t v : f.auxInfo) EXPECT_EQ(v, 0u);
  }
}

}  // namespace
}  // namespace test
}  // namespace vesk
