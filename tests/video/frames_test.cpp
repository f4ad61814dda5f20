// Frame retrieval on the manual clock: stream index, picture types, 90 kHz
// timestamps and NAL maps (checked by decoding with libavcodec), the wrap
// rule, descriptor and bitstream faults, forced IDR pictures.
#include <map>
#include <iterator>
#include <memory>
#include <string>
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

bool StartCodeAt(const video_frame_t& f, uint32_t offset) { return PayloadBytes(f, offset, 4) == std::vector<uint8_t>{0, 0, 0, 1}; }

// Every recorded unit (SPS, PPS, SEI, delimiter) starts with a start code of
// its type and ends at the next one; the delimiter is first, the slice last.
void CheckNalMap(const video_frame_t& f) {
  const uint32_t* map = f.codecInfo;
  ASSERT_EQ(map, f.isKeyFrame ? f.nalMap : f.auxInfo);
  const uint32_t types[4] = {7, 8, 6, 9};
  for (int k = 0; k < 4; k++) {
    if (map[2 * k + 1] == 0) continue;
    EXPECT_EQ(NalType(f, map[2 * k]), types[k]) << k;
    EXPECT_TRUE(StartCodeAt(f, map[2 * k]) && StartCodeAt(f, map[2 * k] + map[2 * k + 1])) << k;
  }
  EXPECT_TRUE(StartCodeAt(f, map[NAL_SLICE_OFFSET]));
  EXPECT_EQ(NalType(f, map[NAL_SLICE_OFFSET]) | (f.isKeyFrame ? 4 : 0), f.isKeyFrame ? 5u : 1u);  // I or IDR on key pictures
  EXPECT_EQ(std::make_tuple(map[NAL_AUD_OFFSET], map[NAL_AUD_LENGTH] > 0), std::make_tuple(0u, true));
}

class FramesTest : public VideoTrackTest {
 protected:
  // Runs the streams for 2 s of camera time, taking the pictures every 100 ms
  // (the driver keeps 64 descriptors), and checks every picture and stream.
  void RunStreams(const std::vector<stream_spec_t>& specs) {
    for (const stream_spec_t& s : specs) AddStream(s);
    ASSERT_TRUE(InitializeAndStart());
    std::map<uint32_t, std::vector<int64_t>> pts;
    std::map<uint32_t, int> decoded, alone;
    std::map<uint32_t, std::unique_ptr<Decoder>> decoders;
    for (uint32_t t = 0; t < 2000; t += 100) {
      vcam_advance_ms(100);
      while (video_frame_t* f = track_->GetFrame()) {
        const stream_spec_t& spec = specs.at(f->streamIndex);
        if (f->offset + f->length > f->ringSize / 2) acrossRingEnd_++;  // read through the mirror
        bool jpeg = spec.key[0] == 'm';
        EXPECT_EQ(std::make_tuple(f->pts.timescale, f->dts.value, f->ptsDtsDelta.value, f->duration, f->isJpeg),
                  std::make_tuple(90000u, f->pts.value, (int64_t)0, (int64_t)(90000 / spec.fps), jpeg ? 1 : 0));
        size_t n = pts[f->streamIndex].size();
        pts[f->streamIndex].push_back(f->pts.value);
        std::unique_ptr<Decoder>& d = decoders[f->streamIndex];
        if (!d) d.reset(new Decoder(jpeg ? AV_CODEC_ID_MJPEG : AV_CODEC_ID_H264));
        decoded[f->streamIndex] += d->Feed(PayloadBytes(*f), spec.width, spec.height);
        if (jpeg) {
          EXPECT_EQ(f->isKeyFrame, 1);
          continue;
        }
        // An IDR picture every second, an I picture every 10 in between.
        EXPECT_EQ(std::make_tuple(f->pictureType, f->isKeyFrame), (n % spec.fps) % 10 == 0 ? std::make_tuple(1u, 1) : std::make_tuple(3u, 0)) << n;
        CheckNalMap(*f);
        // The same map as a fresh parse of the picture (the previous map is reused when it fits).
        video_frame_t copy = *f;
        copy.codecInfo = copy.isKeyFrame ? copy.nalMap : copy.auxInfo;
        EXPECT_TRUE(track_->ParseNALMap(&copy));
        EXPECT_EQ(0, memcmp(copy.codecInfo, f->codecInfo, 36));
        const uint32_t* m = f->codecInfo;
        if (f->pictureType == 1 && NalType(*f, m[NAL_SLICE_OFFSET]) == 5) {
          // The parameter sets and the slice the map names decode alone.
          std::vector<uint8_t> unit = PayloadBytes(*f, m[NAL_SPS_OFFSET], m[NAL_SPS_LENGTH]);
          for (std::vector<uint8_t> part : {PayloadBytes(*f, m[NAL_PPS_OFFSET], m[NAL_PPS_LENGTH]), PayloadBytes(*f, m[NAL_SLICE_OFFSET])})
            unit.insert(unit.end(), part.begin(), part.end());
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
      EXPECT_EQ(alone[id], specs[id].key[0] == 'm' ? 0 : 2);  // one IDR per second
    }
  }

  int acrossRingEnd_ = 0;
};

TEST_F(FramesTest, OneTwoAndThreeH264StreamsAndMjpegAcrossTheRingEnd) {
  const stream_spec_t v1 = {"video1", 640, 360, 30, 0, 400000}, v2 = {"video2", 320, 180, 15, 1, 200000},
                      v3 = {"video3", 320, 176, 10, 2, 100000};
  const std::vector<std::vector<stream_spec_t>> cases = {
      {v1}, {v1, v2}, {v1, v2, v3, {"mjpg", 320, 180, 5, 3, 80}}, {v1, {"mjpg", 320, 180, 5, 1, 80}}};
  for (size_t i = 0; i < cases.size(); i++) {
    SCOPED_TRACE(i);
    CameraTest::SetUp();
    ResetSettings();
    acrossRingEnd_ = 0;
    ASSERT_EQ(vcam_set_bitstream_size(i == 3 ? 65536 : VCAM_DEFAULT_BITSTREAM_SIZE), 0);
    ASSERT_NO_FATAL_FAILURE(RunStreams(cases[i]));
  }
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
  EXPECT_EQ(std::make_tuple(AllocationCount(), pictures), std::make_tuple(before, 40));
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
  // The picture keeps the hardware clock's time (ticks of 300 per 90 kHz tick).
  EXPECT_NEAR((double)f->pts.value, (double)(vcam_timer_ticks() / 300), 3000.0);
  vcam_fault_descriptor(0, 7);
  EXPECT_EQ(track_->GetFrame(), nullptr);
  EXPECT_EQ(log_.Messages(), std::vector<std::string>({"Frame type not supported"}));
  while (track_->GetFrame() != nullptr) {
  }
  // Nothing ready: null without a line.
  log_.Clear();
  EXPECT_EQ(track_->GetFrame(), nullptr);
  EXPECT_TRUE(log_.Lines().empty());
  vcam_fault_request(IAV_IOC_QUERY_DESC, EIO, 1);
  EXPECT_EQ(track_->GetFrame(), nullptr);
  EXPECT_TRUE(log_.Has("IAV_IOC_QUERY_DESC failed"));

  // Corrupted pictures (the IDR and the first P) are dropped and the stream goes on.
  ASSERT_TRUE(track_->ForceIDR());
  vcam_fault_corrupt_nal(2);
  vcam_advance_ms(200);  // 6 pictures
  std::vector<int> types;
  for (int i = 0; i < 6; i++) types.push_back((f = track_->GetFrame()) ? (int)f->pictureType : -1);
  EXPECT_EQ(types, std::vector<int>({-1, -1, 3, 3, 3, 3}));
}

TEST_F(FramesTest, ForceIdrAsksEveryEnabledH264Stream) {
  AddStream({"video1", 320, 180, 30, 0, 300000});
  AddStream({"video3", 320, 180, 30, 1, 300000});
  AddStream({"mjpg", 320, 180, 30, 2, 50});
  ASSERT_TRUE(InitializeAndStart());
  auto forced = [this] { return std::make_tuple(StreamStatus(0).forcedIdrs, StreamStatus(1).forcedIdrs, StreamStatus(2).forcedIdrs); };
  auto before = forced();
  EXPECT_TRUE(track_->ForceIDR());
  EXPECT_EQ(forced(), std::make_tuple(std::get<0>(before) + 1, std::get<1>(before) + 1, std::get<2>(before)));
  vcam_fault_request(IAV_IOC_SET_STREAM_CONFIG, EIO, 1);
  EXPECT_FALSE(track_->ForceIDR());
  EXPECT_TRUE(log_.Has("IAV_IOC_SET_STREAM_CONFIG failed"));
  EXPECT_EQ(StreamStatus(1).forcedIdrs, std::get<1>(before) + 1);  // video1 failed: video3 not asked
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
  EXPECT_EQ(log_.Messages(), std::vector<std::string>({"Encoder stopped due to a malformed frame!",
                                                       "Attempting to restart the encoder due to a malformed frame!",
                                                       "Encoder restarted due to a malformed frame!"}));
  EXPECT_EQ(events_, std::vector<std::string>({"EventIavStateExitEncode", "EventIavStateEnterEncode"}));
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
  auto frame = [](uint8_t* ring, uint32_t ringSize, uint32_t offset, uint32_t length, bool key) {
    video_frame_t f;
    memset(static_cast<void*>(&f), 0xA5, sizeof(f));
    f.ringBase = ring;
    f.ringSize = ringSize;
    f.offset = offset;
    f.length = length;
    f.isContiguous = offset + length <= ringSize;
    f.isKeyFrame = key;
    f.codecInfo = key ? f.nalMap : f.auxInfo;
    return f;
  };
  const std::vector<uint32_t> expected = {6, 9, 15, 7, 22, 8, 0, 6, 30};
  std::vector<uint8_t> ring(64, 0xEE);
  for (uint32_t start : {0u, 50u, 60u, 63u}) {
    SCOPED_TRACE(start);
    for (uint32_t i = 0; i < size; i++) ring[(start + i) % ring.size()] = picture[i];
    // An offset past the ring's end reads from its start.
    for (uint32_t offset : {start, start + 64}) {
      video_frame_t f = frame(ring.data(), 64, offset, size, true);
      encoder::payload_runs_t runs;
      if (offset == start) { EXPECT_EQ(encoder::GetPayloadRuns(f, runs), f.isContiguous ? 1u : 2u); }
      EXPECT_TRUE(track.ParseNALMap(&f));
      EXPECT_EQ(std::vector<uint32_t>(f.nalMap, f.nalMap + 9), expected);
    }
  }
  // Five bytes hold nothing; a forbidden type (the PPS made type 2) clears the map.
  std::vector<uint8_t> bad(picture, picture + size);
  bad[15 + 4] = 0x62;
  for (uint32_t length : {5u, size}) {
    video_frame_t f = frame(bad.data(), size, 0, length, false);
    EXPECT_FALSE(track.ParseNALMap(&f));
    EXPECT_EQ(std::vector<uint32_t>(std::begin(f.auxInfo), std::end(f.auxInfo)), std::vector<uint32_t>(std::size(f.auxInfo), 0));
  }
}

}  // namespace
}  // namespace test
}  // namespace vesk
