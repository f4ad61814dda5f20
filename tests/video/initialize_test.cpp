// Initialize in its fourteen steps on the virtual camera, and every driver
// failure with its exact line; the frame-rate matrix, ComputeFPS and the
// starting-QP table it uses.
#include <errno.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <tuple>

#include "fps.h"
#include "trackencodervideos2lcommon.h"
#include "vesk/device/iav.h"
#include "video_fixture.h"

namespace vesk {
namespace test {
namespace {

using encoder::internal::fps_matrix_t;
using encoder::internal::fps_t;
using encoder::internal::LookupTargetQP;

const stream_spec_t kVideo1 = {"video1", 640, 360, 30, 0, 400000};
const stream_spec_t kVideo2 = {"video2", 320, 180, 15, 1, 200000};
const stream_spec_t kVideo3 = {"video3", 320, 176, 10, 2, 100000};
const stream_spec_t kMjpg = {"mjpg", 320, 180, 5, 3, 80};

iav_system_resource_t Resource() {
  iav_system_resource_t resource;
  vcam_get_system_resource(&resource);
  return resource;
}

TEST_F(VideoTrackTest, InitializeConfiguresOneStreamAndMovesThroughTheStates) {
  AddStream(kVideo1);
  TrackEncoderVideoS2L& track = MakeTrack();
  ASSERT_TRUE(track.Initialize());
  EXPECT_EQ(Status().iavState, VCAM_IAV_STATE_PREVIEW);
  EXPECT_EQ(track.GetUcodeFd(), -1);  // microcode already resident: closed again
  for (const char* line : {"Microcode version 2.7 - 14/3/2016", "S2L_66 chip detected capable of 633420Mbps",
                           "System has following frequencies: cortex: 1008MHz; idsp: 504MHz; core: 432MHz; dram: 660MHz",
                           "Sensor[0] setup at 1920x1080@30 in HDR mode 0 able to encode 633420Mbps",
                           "Encoding 640x360@30 requires 27600Mbps out of 633420Mbps",
                           "Setup is using 27600Mbps out of 633420Mbps (%4.36)"})
    EXPECT_TRUE(log_.Has(line)) << line;
  // 1080p at 60 is the best mode, run at 30.
  EXPECT_EQ(std::make_tuple(Status().vinMode, Status().vinFramePeriod), std::make_tuple(1u, 17066667u));
  Variant& v1 = Stream("video1");
  EXPECT_EQ((unsigned)v1["maxFps"], 30u);
  Variant& rates = v1["validFpsValues"];
  ASSERT_EQ(rates.MapSize(), 17u);  // the divisors of 90000 up to 30
  EXPECT_EQ(std::make_tuple((unsigned)rates[6], (unsigned)rates[16]), std::make_tuple(8u, 30u));

  vcam_stream_status_t s = StreamStatus(0);
  EXPECT_EQ(std::make_tuple(s.type, s.width, s.height, s.M, s.N, s.fpsNumerator, s.fpsDenominator, s.idrInterval,
                            s.rcMode, s.targetBitrate),
            std::make_tuple((uint32_t)IAV_STREAM_TYPE_H264, 640u, 360u, 1u, 10u, 30u, 30u, 30u,
                            (uint32_t)IAV_BRC_MODE_VBR, 400000u));
  EXPECT_GE(s.forcedIdrs, 1u);
  iav_system_resource_t r = Resource();
  EXPECT_EQ(std::make_tuple(r.systemId, r.options & IAV_SYSRES_OPT_ME0_SCALE_MASK, r.stream[0].maxWidth, r.stream[0].maxM),
            std::make_tuple(0x1234u, 2u, 640u, 3u));
  iav_srcbuf_setup_t buffers;
  vcam_get_source_buffers(&buffers);
  EXPECT_EQ(std::make_tuple(buffers.size[0].width, buffers.type[1]), std::make_tuple(640u, (uint32_t)IAV_SRCBUF_TYPE_OFF));

  ASSERT_TRUE(track.StartEncoding());
  EXPECT_EQ(Status().iavState, VCAM_IAV_STATE_ENCODE);
  ASSERT_TRUE(track.StopEncoding());
  EXPECT_EQ(events_, std::vector<std::string>({"EventIavStateEnterIdle", "EventIavStateEnterEncode",
                                               "EventIavStateExitEncode"}));
  // A second Initialize starts from scratch on the same track.
  ASSERT_TRUE(track.Initialize());
  EXPECT_EQ(events_.back(), "EventIavStateEnterIdle");
}

TEST_F(VideoTrackTest, StreamsAreNumberedDenselyInTheStartMask) {
  struct ordinal_case_t {
    std::vector<stream_spec_t> specs;
    uint32_t start;
    std::vector<int> ordinals;  // -1: not configured
  };
  const stream_spec_t mjpg1 = {"mjpg1", 640, 360, 10, 0, 50};
  const stream_spec_t mjpg2 = {"mjpg2", 640, 360, 2, 0, 30};
  const ordinal_case_t cases[] = {{{kVideo1}, 0x00010001u, {0}},
                                  {{kVideo2, kVideo3, kMjpg}, 0x00070007u, {0, 1, 2}},
                                  {{kVideo3}, 0x00010001u, {0}},
                                  {{kVideo1, kMjpg, mjpg1, mjpg2}, 0x00070007u, {0, -1, 1, 2}}};  // mjpg1 wins
  for (const ordinal_case_t& c : cases) {
    ResetSettings();
    for (const stream_spec_t& spec : c.specs) AddStream(spec);
    ASSERT_TRUE(InitializeAndStart());
    EXPECT_EQ(Status().lastStartArgument, c.start);
    for (size_t i = 0; i < c.specs.size(); i++) {
      const stream_spec_t& spec = c.specs[i];
      Variant& e = Stream(spec.key);
      if (c.ordinals[i] < 0) {
        EXPECT_FALSE(e.HasKey("streamOrdinal")) << spec.key;
        continue;
      }
      EXPECT_EQ(std::make_tuple((int)(unsigned)e["streamOrdinal"], (int)e["streamId"], (std::string)e["name"]),
                std::make_tuple(c.ordinals[i], c.ordinals[i], std::string(spec.key)));
      vcam_stream_status_t st = StreamStatus(c.ordinals[i]);
      bool jpeg = spec.key[0] == 'm';
      // Rate control targets count at the VIN rate: 200000 at 15 of 30 is 400000.
      EXPECT_EQ(std::make_tuple(st.fpsNumerator, st.type, jpeg ? st.quality : st.targetBitrate),
                std::make_tuple(spec.fps, (uint32_t)(jpeg ? IAV_STREAM_TYPE_MJPEG : IAV_STREAM_TYPE_H264),
                                jpeg ? spec.bitrate : spec.bitrate * 30 / spec.fps));
    }
    ASSERT_TRUE(track_->StopEncoding());
    EXPECT_EQ(Status().lastStopArgument, c.start);
  }
  settings_.video()["enableHrd"] = true;  // HRD drops the high copy
  ASSERT_TRUE(InitializeAndStart());
  EXPECT_EQ(Status().lastStartArgument, 0x7u);

  // No stream at all still starts encoding.
  ResetSettings();
  uint32_t starts = vcam_request_count(IAV_IOC_START_ENCODE);
  ASSERT_TRUE(InitializeAndStart());
  EXPECT_EQ(std::make_tuple(Status().lastStartArgument, vcam_request_count(IAV_IOC_START_ENCODE)),
            std::make_tuple(0u, starts + 1));
  EXPECT_TRUE(log_.Has("Setup is using 0Mbps out of 633420Mbps (%0.00)"));
}

TEST_F(VideoTrackTest, BudgetAcceptsExactlyTheCapacityAndRefusesOneMore) {
  vcam_set_chip_id(0);  // S2L_22M: 216000
  AddStream({"video1", 160, 192, 30, 0, 400000});
  AddStream({"video2", 1888, 960, 30, 1, 400000});
  ASSERT_TRUE(MakeTrack().Initialize());
  EXPECT_TRUE(log_.Has("Setup is using 216000Mbps out of 216000Mbps (%100.00)"));

  ResetSettings();
  AddStream({"video1", 1712, 1056, 30, 0, 400000});
  AddStream({"video2", 1616, 656, 1, 1, 400000});
  uint32_t modesBefore = vcam_request_count(IAV_IOC_VIN_SET_MODE);
  EXPECT_FALSE(Reinitialize());
  EXPECT_TRUE(log_.Has("Encoding 1616x656@1 requires 4141Mbps out of 216000Mbps"));
  EXPECT_TRUE(log_.Has("Mbps exceeded: wanted: 216001; max: 216000"));
  EXPECT_EQ(vcam_request_count(IAV_IOC_VIN_SET_MODE), modesBefore);  // the driver was not touched
  EXPECT_EQ(events_, std::vector<std::string>({"EventIavStateEnterIdle"}));
}

TEST_F(VideoTrackTest, BudgetClampsSizesAndRatesIntoTheVin) {
  AddStream({"video1", 1282, 722, 30, 0, 400000});
  AddStream({"video2", 0, 0, 0, 1, 400000});
  AddStream({"video3", 100, 5000, 0, 2, 400000});
  for (const char* key : {"width", "height", "fps"}) Stream("video2").RemoveValue(key);  // no size, no rate: the VIN's
  ASSERT_TRUE(MakeTrack().Initialize());
  EXPECT_TRUE(log_.Has("Encoding 1282x722@30 requires 111780Mbps out of 633420Mbps"));
  EXPECT_TRUE(log_.Has("FPS value corrected. Max FPS: 30; Wanted FPS: 255; Correct FPS: 30"));
  EXPECT_TRUE(log_.Has("FPS value corrected. Max FPS: 30; Wanted FPS: 0; Correct FPS: 1"));
  auto shape = [this](const char* key) {
    return std::make_tuple((unsigned)Stream(key)["width"], (unsigned)Stream(key)["height"], (unsigned)Stream(key)["fps"]);
  };
  EXPECT_EQ(shape("video2"), std::make_tuple(1920u, 1080u, 30u));
  EXPECT_EQ(shape("video3"), std::make_tuple(160u, 1080u, 1u));
}

TEST_F(VideoTrackTest, GopRulesForceMOneAndCheckTheRate) {
  AddStream(kVideo1);
  Stream("video1")["M"] = 2u;
  Stream("video1")["gopModel"] = 7u;
  settings_.video()["lowDelay"] = true;
  ASSERT_TRUE(MakeTrack().Initialize());
  EXPECT_TRUE(log_.Has("lowDelay flag is true while M is not 1. Making M = 1 by force"));
  EXPECT_EQ(std::make_tuple((unsigned)Stream("video1")["M"], (unsigned)Stream("video1")["gopModel"], Resource().stream[0].maxM),
            std::make_tuple(1u, 4u, 1u));

  settings_.video()["lowDelay"] = false;
  Stream("video1")["M"] = 2u;
  Stream("video1")["fps"] = (unsigned char)4;
  EXPECT_FALSE(Reinitialize());
  EXPECT_TRUE(log_.Has("FPS is lower than M"));
  EXPECT_TRUE(log_.Has("Unable to setup framerate"));
  EXPECT_TRUE(log_.Contains("Unable to setup encoding:\n"));
  Stream("video1")["fps"] = (unsigned char)5;
  EXPECT_TRUE(MakeTrack().Initialize());
  EXPECT_EQ(StreamStatus(0).M, 2u);
}

TEST_F(VideoTrackTest, HdrIsClampedToTheSensorAndToTwoExposures) {
  const uint32_t p30 = 17066667;
  vcam_sensor_mode_t modes[] = {{0, 0, 1920, 1080, p30}, {0, 1, 1920, 1080, p30}, {0, 2, 1920, 1080, p30},
                                {5, 0, 2592, 1944, 17083750}};
  ASSERT_EQ(vcam_set_sensor_modes(modes, 4), 0);
  AddStream(kVideo1);
  Stream("video1")["M"] = 3u;
  settings_.video()["hdrMode"] = (unsigned char)3;
  ASSERT_TRUE(MakeTrack().Initialize());
  EXPECT_TRUE(log_.Has("Maximum supported HDR mode is 2. Requested was 3. Lowering down to 2"));
  EXPECT_TRUE(log_.Has("S2L and S2Lm does not support 3X HDR and above. Lowering down to 2X"));
  EXPECT_TRUE(log_.Has("When HDR is active, M can only be 1"));
  // The 29.97 mode is never chosen; the settings keep what was asked.
  EXPECT_EQ(std::make_tuple(Status().vinHdrMode, Status().vinWidth, Resource().exposureNum, (unsigned)settings_.video()["hdrMode"]),
            std::make_tuple(1u, 1920u, 2u, 3u));
}

TEST_F(VideoTrackTest, VinRateFollowsVinFps) {
  AddStream(kVideo1);
  settings_.video()["vinFps"] = (unsigned short)0;
  ASSERT_TRUE(MakeTrack().Initialize());
  EXPECT_EQ(std::make_tuple((unsigned)settings_.video()["vinFps"], Status().vinFramePeriod), std::make_tuple(60u, 8533333u));
  EXPECT_FALSE(log_.Contains("Wanted FPS: 0"));

  settings_.video()["vinFps"] = (unsigned short)7;
  ASSERT_TRUE(MakeTrack().Initialize());
  EXPECT_TRUE(log_.Has("FPS value corrected. Max FPS: 60; Wanted FPS: 7; Correct FPS: 6"));
  EXPECT_EQ(std::make_tuple((unsigned)settings_.video()["vinFps"], Status().vinFramePeriod), std::make_tuple(6u, 85333333u));

  vcam_sensor_mode_t odd[] = {{0, 0, 1920, 1080, 17083750}};
  ASSERT_EQ(vcam_set_sensor_modes(odd, 1), 0);
  EXPECT_FALSE(Reinitialize());
  EXPECT_TRUE(log_.Has("Unable to properly translate the FPS value"));
}

TEST_F(VideoTrackTest, ChipRowsFollowTheReportedIdAndUnknownChipsEndTheProcess) {
  AddStream(kVideo1);
  vcam_set_chip_id(7);
  EXPECT_FALSE(MakeTrack().Initialize());
  EXPECT_TRUE(log_.Has("S2L_99 chip detected capable of 0Mbps"));
  EXPECT_TRUE(log_.Has("Mbps exceeded: wanted: 27600; max: 0"));
  vcam_set_chip_id(1);
  EXPECT_TRUE(MakeTrack().Initialize());
  EXPECT_TRUE(log_.Has("S2L_33M chip detected capable of 305340Mbps"));
  vcam_set_chip_id(8);  // passes the range test and reads the row past the table
  EXPECT_EQ(encoder::internal::GetChipPerformance(), 0u);

  // Chips that cannot be identified end the process: {chip id, failing request, line}.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const std::tuple<int, unsigned long, const char*> deaths[] = {
      {-1, 0, "chipId not properly detected"}, {9, 0, "chipId is out of the known range of chip IDs. Max value is 9\\."},
      {5, IAV_IOC_GET_CHIP_ID, "IAV_IOC_GET_CHIP_ID failed"}, {5, VCAM_OP_OPEN_IAV, "Opening IAV failed"}};
  for (const auto& d : deaths) {
    vcam_set_chip_id(std::get<0>(d));
    if (std::get<1>(d) != 0) vcam_fault_request(std::get<1>(d), EIO, 1);
    EXPECT_DEATH(encoder::internal::GetChip(), std::get<2>(d));
    vcam_clear_faults();
  }
}

struct failure_case_t {
  unsigned long request;
  const char* line;
  bool idleSent;
};
#define IOCTL_FAILURE(request, idle) {request, #request " failed", idle}

TEST_F(VideoTrackTest, EachDriverFailureLogsItsLineAndStopsInitialize) {
  const failure_case_t cases[] = {
      {VCAM_OP_OPEN_UCODE, "Opening ucode failed", false}, IOCTL_FAILURE(IAV_IOC_GET_UCODE_VERSION, false),
      {VCAM_OP_OPEN_IAV, "Opening IAV failed", false}, IOCTL_FAILURE(IAV_IOC_ENTER_IDLE, false),
      IOCTL_FAILURE(IAV_IOC_VIN_SET_MODE, true), IOCTL_FAILURE(IAV_IOC_VIN_SET_FPS, true),
      IOCTL_FAILURE(IAV_IOC_GET_SYSTEM_RESOURCE, true), IOCTL_FAILURE(IAV_IOC_SET_SYSTEM_RESOURCE, true),
      IOCTL_FAILURE(IAV_IOC_GET_SOURCE_BUFFER_SETUP, true), IOCTL_FAILURE(IAV_IOC_SET_SOURCE_BUFFER_SETUP, true),
      IOCTL_FAILURE(IAV_IOC_GET_STREAM_FORMAT, true), IOCTL_FAILURE(IAV_IOC_SET_STREAM_FORMAT, true),
      IOCTL_FAILURE(IAV_IOC_GET_H264_CONFIG, true), IOCTL_FAILURE(IAV_IOC_SET_H264_CONFIG, true),
      IOCTL_FAILURE(IAV_IOC_SET_STREAM_CONFIG, true), IOCTL_FAILURE(IAV_IOC_GET_STREAM_CONFIG, true),
      IOCTL_FAILURE(IAV_IOC_QUERY_BUF, true), IOCTL_FAILURE(IAV_IOC_ENABLE_PREVIEW, true),
  };
  AddStream(kVideo1);
  for (const failure_case_t& c : cases) {
    SCOPED_TRACE(c.line);
    CameraTest::SetUp();
    vcam_fault_request(c.request, EIO, 1);
    EXPECT_FALSE(Reinitialize());
    std::vector<captured_line_t> lines = log_.Lines();
    EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [&](const captured_line_t& l) {
      return l.message == c.line && l.priority == VESK_PRIO_ERROR && l.errorValue == EIO;
    }));
    EXPECT_EQ(!events_.empty(), c.idleSent);
    EXPECT_NE(Status().iavState, VCAM_IAV_STATE_PREVIEW);
  }
  vcam_clear_faults();
  // The format failures are told again by the stream set-up.
  vcam_fault_request(IAV_IOC_SET_STREAM_FORMAT, EBUSY, 1);
  EXPECT_FALSE(Reinitialize());
  EXPECT_TRUE(log_.Has("Unable to set the encoding format"));
  vcam_fault_request(VCAM_OP_MMAP, ENOMEM, 1);
  EXPECT_FALSE(Reinitialize());
  EXPECT_TRUE(log_.Has("Unable to mmap memory"));
  variant::CameraInfo::SetFailInit(true);
  EXPECT_FALSE(MakeTrack().Initialize());
  variant::CameraInfo::SetFailInit(false);
  EXPECT_TRUE(log_.Has("Unable to initialize camera information"));
  EXPECT_EQ(Status().iavState, VCAM_IAV_STATE_IDLE);
  // A failed start sends no event.
  ASSERT_TRUE(MakeTrack().Initialize());
  events_.clear();
  vcam_fault_request(IAV_IOC_START_ENCODE, EINVAL, 1);
  EXPECT_FALSE(track_->StartEncoding());
  EXPECT_TRUE(events_.empty());
  ASSERT_TRUE(track_->StartEncoding());
  vcam_fault_request(IAV_IOC_STOP_ENCODE, EIO, 1);
  log_.Clear();
  EXPECT_FALSE(track_->StopEncoding());
  EXPECT_EQ(log_.Count("start ? IAV_IOC_START_ENCODE : IAV_IOC_STOP_ENCODE failed"), 1u);
  EXPECT_EQ(events_, std::vector<std::string>({"EventIavStateEnterEncode"}));
}

TEST_F(VideoTrackTest, StreamRangeErrorsFailBeforeTheDriver) {
  for (const char* key : {"video1", "video2", "video3"}) AddStream({key, 320, 180, 5, (unsigned)(key[5] - '1'), 400000});
  AddStream({"mjpg", 320, 180, 5, 3, 0});
  AddStream({"mjpg2", 320, 180, 5, 3, 70});
  EXPECT_FALSE(MakeTrack().Initialize());
  EXPECT_TRUE(log_.Has("Invalid quality value (it should be 1-100, 0 given)"));
  Stream("mjpg")["quality"] = (unsigned char)60;
  EXPECT_FALSE(Reinitialize());
  EXPECT_TRUE(log_.Has("streamId (4) should be in range [0..3]"));
}

TEST_F(VideoTrackTest, CbrSettingsStillProgramTheVbrMaximum) {
  AddStream({"video1", 320, 180, 15, 0, 400000});
  Stream("video1")["isCbr"] = true;
  Stream("video1")["bitRateCbrAvg"] = 20000u;
  ASSERT_TRUE(MakeTrack().Initialize());
  EXPECT_EQ(std::make_tuple(StreamStatus(0).rcMode, StreamStatus(0).targetBitrate),
            std::make_tuple((uint32_t)IAV_BRC_MODE_VBR, 800000u));  // 400000 x 30 / 15
  // The starting QP of the stream's size: 320x180 is nearest to 352x240.
  EXPECT_EQ(std::make_tuple(track_->CalculateTargetQP(400000, 0), track_->CalculateTargetQP(900000, 0)), std::make_tuple(15, 13));
}

TEST_F(VideoTrackTest, MicrocodeIsLoadedFromTheFirmwarePath) {
  char dir[] = "/tmp/vesk_video_fw_XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  ASSERT_EQ(vcam_write_firmware(dir), 0);
  vcam_set_ucode_loaded(0);
  AddStream(kVideo1);
  settings_["firmwarePath"] = std::string(dir) + "/";
  ASSERT_TRUE(MakeTrack().Initialize());
  EXPECT_EQ(vcam_get_ucode_loaded(), 1);
  EXPECT_TRUE(log_.Contains(std::string("Loading DSP ucode ") + dir + "/"));
  EXPECT_EQ(track_->GetUcodeFd(), -1);

  const failure_case_t cases[] = {IOCTL_FAILURE(IAV_IOC_GET_UCODE_INFO, false),
                                  {VCAM_OP_MMAP, "Unable to mmap /dev/ucode", false},
                                  IOCTL_FAILURE(IAV_IOC_UPDATE_UCODE, false),
                                  {VCAM_OP_START_UCODE, "Loading microcode failed", false}};
  for (const failure_case_t& c : cases) {
    SCOPED_TRACE(c.line);
    vcam_set_ucode_loaded(0);
    vcam_fault_request(c.request, EIO, 1);
    EXPECT_FALSE(Reinitialize());
    EXPECT_TRUE(log_.Has(c.line));
    EXPECT_EQ(vcam_get_ucode_loaded(), 0);
  }
  // A missing file abandons the load.
  vcam_set_ucode_loaded(0);
  settings_["firmwarePath"] = std::string(dir) + "/missing/";
  uint32_t idles = vcam_request_count(IAV_IOC_ENTER_IDLE);
  EXPECT_FALSE(MakeTrack().Initialize());
  EXPECT_EQ(std::make_tuple(vcam_get_ucode_loaded(), vcam_request_count(IAV_IOC_ENTER_IDLE)), std::make_tuple(0, idles));
  EXPECT_EQ(system((std::string("rm -rf ") + dir).c_str()), 0);
}

TEST(FpsMatrixTest, HoldsOnlyRatesDividing90kHzWithBothPeriods) {
  fps_matrix_t matrix;
  // 30: truncated 17066666 and rounded 17066667, both indexed by period.
  const fps_t* truncated = matrix.ByPeriod(17066666);
  const fps_t* rounded = matrix.ByPeriod(17066667);
  ASSERT_TRUE(truncated && rounded);
  EXPECT_EQ(std::make_tuple(truncated->rate, truncated->rounded, rounded->rate, rounded->rounded), std::make_tuple(30u, false, 30u, true));
  EXPECT_EQ(std::make_tuple(matrix.ByRate(30, false)->period, matrix.ByRate(15, true)->period), std::make_tuple(17066666u, 34133333u));
  for (uint32_t rate = 0; rate <= 501; rate++)
    EXPECT_EQ(matrix.ByRate(rate, true) != nullptr, rate > 0 && rate <= 500 && 90000 % rate == 0) << rate;
  EXPECT_EQ(matrix.ByPeriod(17066668), nullptr);
}

TEST_F(VideoTrackTest, ComputeFpsTakesTheLargestDivisor) {
  TrackEncoderVideoS2L& track = MakeTrack();
  const std::tuple<uint32_t, uint32_t, uint32_t> cases[] = {{30, 30, 30}, {7, 30, 6},    {60, 30, 30}, {0, 30, 1},
                                                            {30, 0, 1},   {255, 120, 120}, {29, 60, 25}};
  for (const auto& c : cases)
    EXPECT_EQ(track.ComputeFPS(std::get<0>(c), std::get<1>(c), 90000), std::get<2>(c)) << std::get<0>(c) << "/" << std::get<1>(c);
  EXPECT_FALSE(log_.Contains("Wanted FPS: 30; Correct FPS: 30"));  // a rate in the matrix is taken silently
}

TEST(TargetQpTest, RowByBitRateColumnByNearestPixelCount) {
  // Row by bit rate (a bound is not "greater than"), column by the nearest
  // pixel count (1000x1000 is nearest 1280x720; 1 the smallest column).
  const std::tuple<uint32_t, uint32_t, int> cases[] = {
      {900000, 1280 * 720, 23}, {900000, 1000 * 1000, 23}, {100, 1920 * 1080, 31}, {256000, 1920 * 1080, 30},
      {5000000, 352 * 240, 1},  {5000000, 352 * 288, 5},   {4000000000u, 640 * 480, 1}, {1999999, 1, 10},
      {2000000, 1, 8}};
  for (const auto& c : cases) EXPECT_EQ(LookupTargetQP(std::get<0>(c), std::get<1>(c)), std::get<2>(c)) << std::get<0>(c) << " " << std::get<1>(c);
}

}  // namespace
}  // namespace test
}  // namespace vesk
