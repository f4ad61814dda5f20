// The emulated driver's states, refusals, sensor modes, microcode loading,
// hardware timer files, request faults and the blocking statistics query,
// through the device layer.
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "driver_fixture.h"

namespace {

TEST_F(VirtualCameraTest, StatesAdmitOnlyTheirRequests) {
  // Idle: no encoding to start or stop, no VIN to preview.
  EXPECT_EQ(std::make_tuple(Request(IAV_IOC_START_ENCODE, 1ul), Request(IAV_IOC_STOP_ENCODE, 1ul), Request(IAV_IOC_ENABLE_PREVIEW, 0ul)),
            std::make_tuple(EPERM, EPERM, EINVAL));
  ASSERT_EQ(Request(IAV_IOC_ENTER_IDLE, 0ul), 0);

  for (iav_vin_mode_t bad : {iav_vin_mode_t{0, 77, 0, 0}, iav_vin_mode_t{0, 0, 1, 0}})  // unknown, no such HDR
    EXPECT_EQ(Request(IAV_IOC_VIN_SET_MODE, &bad), EINVAL);
  iav_vin_mode_t mode30 = {0, 0, 0, 0};
  ASSERT_EQ(Request(IAV_IOC_VIN_SET_MODE, &mode30), 0);
  iav_vin_fps_t faster = {0, 8533333};  // 60 on a 30 fps mode
  EXPECT_EQ(Request(IAV_IOC_VIN_SET_FPS, &faster), EINVAL);
  ASSERT_NO_FATAL_FAILURE(SetUpIdleVin());

  // The exposures must match the HDR mode of the VIN; 5 is none.
  iav_system_resource_t resource;
  ASSERT_EQ(Request(IAV_IOC_GET_SYSTEM_RESOURCE, &resource), 0);
  for (uint32_t exposures : {2u, 5u, 1u}) {
    resource.exposureNum = exposures;
    EXPECT_EQ(Request(IAV_IOC_SET_SYSTEM_RESOURCE, &resource), exposures == 5 ? EINVAL : 0);
    EXPECT_EQ(Request(IAV_IOC_ENABLE_PREVIEW, 0ul), exposures == 1 ? 0 : EINVAL);
  }
  EXPECT_EQ(Status().iavState, VCAM_IAV_STATE_PREVIEW);
  iav_srcbuf_setup_t buffers;
  ASSERT_EQ(Request(IAV_IOC_GET_SOURCE_BUFFER_SETUP, &buffers), 0);
  // Idle-only requests are refused in preview; stream 0 has no format to start.
  EXPECT_EQ(std::make_tuple(Request(IAV_IOC_ENABLE_PREVIEW, 0ul), Request(IAV_IOC_VIN_SET_MODE, &mode30),
                            Request(IAV_IOC_SET_SOURCE_BUFFER_SETUP, &buffers), Request(IAV_IOC_SET_SYSTEM_RESOURCE, &resource),
                            Request(IAV_IOC_STOP_ENCODE, 1ul), Request(IAV_IOC_START_ENCODE, 1ul)),
            std::make_tuple(EPERM, EPERM, EPERM, EPERM, EPERM, EINVAL));

  // Records that do not fit: stream 4, larger than its buffer (640x360), a
  // buffer not set up, an odd width, unknown items, values out of range.
  iav_stream_format_t format{4, IAV_STREAM_TYPE_H264, 1, 320, 180, 0, 0, 0, 0, 0, 0, {}};
  EXPECT_EQ(Request(IAV_IOC_GET_STREAM_FORMAT, &format), EINVAL);
  for (iav_stream_format_t bad : {iav_stream_format_t{1, IAV_STREAM_TYPE_H264, 1, 1280, 720, 0, 0, 0, 0, 0, 0, {}},
                                  iav_stream_format_t{1, IAV_STREAM_TYPE_H264, 2, 320, 180, 0, 0, 0, 0, 0, 0, {}},
                                  iav_stream_format_t{1, IAV_STREAM_TYPE_H264, 1, 321, 180, 0, 0, 0, 0, 0, 0, {}}})
    EXPECT_EQ(Request(IAV_IOC_SET_STREAM_FORMAT, &bad), EINVAL);
  iav_stream_cfg_t item{};
  item.cid = 0x1234;
  EXPECT_EQ(Request(IAV_IOC_GET_STREAM_CONFIG, &item), EINVAL);
  EXPECT_EQ(std::make_tuple(SetStreamConfig(0, 0x1234, nullptr, 0), ForceIdr(4), SetItem(0, IAV_STMCFG_FPS, iav_stream_fps_t{31, 30}),
                            SetItem(0, IAV_STMCFG_MJPEG_QUALITY, iav_stream_quality_t{101}),
                            SetItem(0, IAV_STMCFG_BITRATE, iav_stream_bitrate_t{1000000, IAV_BRC_MODE_VBR, 0, 0, 0, 0, 52, 0, 52, 0, 0, {}})),
            std::make_tuple(EINVAL, EINVAL, EINVAL, EINVAL, EINVAL));
  iav_h264_config_t h264{};
  ASSERT_EQ(Request(IAV_IOC_GET_H264_CONFIG, &h264), 0);
  h264.M = 4;
  EXPECT_EQ(Request(IAV_IOC_SET_H264_CONFIG, &h264), EINVAL);

  // Start and stop by mask, high bits as sent.
  StreamSetup s;
  ASSERT_NO_FATAL_FAILURE(ConfigureStream(s));
  // Refused: stream 4, halves that disagree, stream 1 not configured.
  for (unsigned long mask : {0x10ul, 0x00020001ul, 0x3ul}) EXPECT_EQ(Request(IAV_IOC_START_ENCODE, mask), EINVAL) << mask;
  ASSERT_EQ(Request(IAV_IOC_START_ENCODE, 0x00010001ul), 0);
  EXPECT_EQ(std::make_tuple(Status().iavState, Status().encodeMask), std::make_tuple((uint32_t)VCAM_IAV_STATE_ENCODE, 1u));
  EXPECT_EQ(Request(IAV_IOC_START_ENCODE, 0x1ul), EBUSY);
  format.id = 0;
  ASSERT_EQ(Request(IAV_IOC_GET_STREAM_FORMAT, &format), 0);
  EXPECT_EQ(Request(IAV_IOC_SET_STREAM_FORMAT, &format), 0);  // unchanged: taken
  format.width = 160;
  EXPECT_EQ(Request(IAV_IOC_SET_STREAM_FORMAT, &format), EBUSY);
  ASSERT_EQ(Request(IAV_IOC_GET_H264_CONFIG, &h264), 0);
  EXPECT_EQ(Request(IAV_IOC_SET_H264_CONFIG, &h264), 0);
  h264.N = 60;
  EXPECT_EQ(Request(IAV_IOC_SET_H264_CONFIG, &h264), EBUSY);
  EXPECT_EQ(ForceIdr(0), 0);  // run-time items are taken while encoding
  ASSERT_EQ(Request(IAV_IOC_STOP_ENCODE, 0x00010001ul), 0);
  EXPECT_EQ(Status().iavState, VCAM_IAV_STATE_PREVIEW);

  // A start with no stream at all is accepted; idle stops everything.
  ASSERT_EQ(Request(IAV_IOC_START_ENCODE, 0ul), 0);
  EXPECT_EQ(Status().iavState, VCAM_IAV_STATE_ENCODE);
  ASSERT_EQ(Request(IAV_IOC_ENTER_IDLE, 0ul), 0);
  EXPECT_EQ(std::make_tuple(Status().iavState, Status().encodeMask), std::make_tuple((uint32_t)VCAM_IAV_STATE_IDLE, 0u));
}

TEST_F(VirtualCameraTest, RequestsOnTheWrongDeviceOrRecord) {
  EXPECT_EQ(Request(IAV_IOC_GET_UCODE_VERSION, static_cast<iav_ucode_version_t*>(nullptr)), ENOTTY);
  EXPECT_EQ(Request(0x40045699ul, 0ul), ENOTTY);
  EXPECT_EQ(Request(IAV_IOC_GET_CHIP_ID, static_cast<int32_t*>(nullptr)), EFAULT);
  // The microcode device, and other paths (the kernel's), know no IAV request.
  // Closed, they give the kernel's EBADF.
  auto failure = [](int result) { return result == -1 ? errno : 0; };
  for (const char* path : {VDEV_PATH_UCODE, "/dev/null"}) {
    int fd = vdev_open(path, O_RDONLY);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(failure(vdev_ioctl(fd, IAV_IOC_ENTER_IDLE, 0)), ENOTTY);
    EXPECT_EQ(vdev_close(fd), 0);
    EXPECT_EQ(failure(vdev_ioctl(fd, IAV_IOC_ENTER_IDLE, 0)), EBADF);
  }
  EXPECT_EQ(failure(vdev_open("/dev/vesk-no-such-device", O_RDWR)), ENOENT);
}

// The modes the track chooses from are proven by its initialization; here
// the indices and HDR values that answer at all.
TEST_F(VirtualCameraTest, SensorModesAsEnumerated) {
  // Enumerate as the track does: 75 mode indices x 16 HDR values.
  std::set<std::pair<uint32_t, int>> answered;
  for (uint32_t n = 0; n < 75; ++n) {
    uint32_t index = n < 50 ? n : n + 131022;
    for (int hdr = 0; hdr < 16; ++hdr) {
      vindev_video_info_t info{};
      info.mode = index;
      info.hdrMode = static_cast<uint8_t>(hdr);
      if (Request(IAV_IOC_VIN_GET_VIDEOINFO, &info) == 0) answered.insert({index, info.hdrMode});
    }
  }
  EXPECT_EQ(answered, (std::set<std::pair<uint32_t, int>>{{0, 0}, {1, 0}, {2, 1}, {3, 0}, {131072, 0}}));
}

// Copies one item file into the region at its offset.
bool CopyItem(const std::string& path, uint8_t* region, uint32_t offset) {
  FILE* file = fopen(path.c_str(), "rb");
  if (file == nullptr) return false;
  size_t n = fread(region + offset, 1, 65536 - offset, file);
  fclose(file);
  return n > 0;
}

// The versions before and after a load, as the track reads them, are shown by
// the track's own microcode tests; here what the device refuses.
TEST_F(VirtualCameraTest, MicrocodeLoadsFromTheFirmwareFiles) {
  vcam_set_ucode_loaded(0);
  EXPECT_EQ(Request(IAV_IOC_ENTER_IDLE, 0ul), ENODEV);

  char dir[] = "/tmp/vcam-fw-XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  ASSERT_EQ(vcam_write_firmware(dir), 0);

  // A read-only descriptor reads the items, and cannot map or load.
  int ucode = vdev_open(VDEV_PATH_UCODE, O_RDONLY);
  ASSERT_GE(ucode, 0);
  iav_ucode_load_t load{};
  ASSERT_EQ(vdev_ioctl(ucode, IAV_IOC_GET_UCODE_INFO, &load), 0);
  EXPECT_EQ(vdev_mmap(nullptr, load.mapSize, PROT_READ | PROT_WRITE, MAP_SHARED, ucode, 0), MAP_FAILED);
  EXPECT_EQ(errno, EACCES);
  EXPECT_EQ(vdev_ioctl(ucode, IAV_IOC_UPDATE_UCODE, 0), -1);
  vdev_close(ucode);

  ucode = vdev_open(VDEV_PATH_UCODE, O_RDWR);
  ASSERT_GE(ucode, 0);
  ASSERT_GT(load.itemCount, 1);
  void* mapped = vdev_mmap(nullptr, load.mapSize, PROT_READ | PROT_WRITE, MAP_SHARED, ucode, 0);
  ASSERT_NE(mapped, MAP_FAILED);
  // Refused (EINVAL) until the last item's bytes arrived.
  for (int i = 0; i < load.itemCount; ++i) {
    if (i == 0 || i + 1 == load.itemCount) { EXPECT_EQ(vdev_ioctl(ucode, IAV_IOC_UPDATE_UCODE, 0) == -1 ? errno : 0, EINVAL) << i; }
    ASSERT_TRUE(CopyItem(std::string(dir) + "/" + load.items[i].fileName, static_cast<uint8_t*>(mapped), load.items[i].offset));
  }
  ASSERT_EQ(vdev_ioctl(ucode, IAV_IOC_UPDATE_UCODE, 0), 0);
  EXPECT_EQ(Request(IAV_IOC_ENTER_IDLE, 0ul), 0);
  vdev_munmap(mapped, load.mapSize);
  vdev_close(ucode);
  EXPECT_EQ(system((std::string("rm -rf ") + dir).c_str()), 0);
}

long long ReadNumber(const char* path, int* converted) {
  FILE* file = vdev_fopen(path, "r");
  if (file == nullptr) {
    *converted = -2;
    return 0;
  }
  long long value = 0;
  *converted = fscanf(file, "%lld", &value);
  fclose(file);
  return value;
}

TEST_F(VirtualCameraTest, HardwareTimerFilesFollowTheClock) {
  int converted = 0;
  EXPECT_EQ(ReadNumber(VDEV_PATH_HWTIMER_OUTFREQ, &converted), VCAM_TIMER_FREQUENCY);
  long long before = ReadNumber(VDEV_PATH_HWTIMER, &converted);
  EXPECT_EQ(converted, 1);
  vcam_advance_ms(1500);
  long long after = ReadNumber(VDEV_PATH_HWTIMER, &converted);
  EXPECT_EQ(std::make_tuple(after - before, static_cast<uint64_t>(after)), std::make_tuple(1500LL * VCAM_TIMER_FREQUENCY / 1000, vcam_timer_ticks()));
  EXPECT_EQ(vdev_fopen(VDEV_PATH_HWTIMER, "w"), nullptr);
}

// A drifting crystal: the camera's time runs at the rate set against real time,
// and goes on from where it was when the rate changes.
TEST_F(VirtualCameraTest, ClockRateScalesTheCameraTimeAgainstRealTime) {
  EXPECT_EQ(-1, vcam_set_clock_rate_ppm(VCAM_CLOCK_RATE_LIMIT_PPM + 1));
  vcam_set_clock_mode(VCAM_CLOCK_REALTIME);
  ASSERT_EQ(0, vcam_set_clock_rate_ppm(250000));
  auto realNs = [] { return (double)std::chrono::steady_clock::now().time_since_epoch().count(); };
  double r0a = realNs(), t0 = (double)vcam_timer_ticks(), r0b = realNs();
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  double r1a = realNs(), t1 = (double)vcam_timer_ticks(), r1b = realNs();
  const double ticksPerNs = 1.25 * VCAM_TIMER_FREQUENCY / 1e9;
  EXPECT_GE(t1 - t0, (r1a - r0b) * ticksPerNs - 1);
  EXPECT_LE(t1 - t0, (r1b - r0a) * ticksPerNs + 1);
  // Back to real time: no jump either way.
  ASSERT_EQ(0, vcam_set_clock_rate_ppm(0));
  double t2 = (double)vcam_timer_ticks(), r2 = realNs();
  EXPECT_GE(t2, t1);
  EXPECT_LE(t2, t1 + (r2 - r1a) * ticksPerNs + 1);
}

TEST_F(VirtualCameraTest, RequestFaultsOnceNTimesAlways) {
  // Once, three times, always (until switched off).
  int32_t chip = 0;
  iav_querybuf_t query{};
  vcam_fault_request(IAV_IOC_GET_CHIP_ID, EIO, 1);
  vcam_fault_request(IAV_IOC_ENTER_IDLE, EBUSY, 3);
  vcam_fault_request(IAV_IOC_QUERY_BUF, ENOMEM, VCAM_FAULT_ALWAYS);
  std::vector<int> errors;
  for (int i = 0; i < 5; ++i)
    for (int err : {Request(IAV_IOC_GET_CHIP_ID, &chip), Request(IAV_IOC_ENTER_IDLE, 0ul), Request(IAV_IOC_QUERY_BUF, &query)})
      errors.push_back(err);
  EXPECT_EQ(errors, std::vector<int>({EIO, EBUSY, ENOMEM, 0, EBUSY, ENOMEM, 0, EBUSY, ENOMEM, 0, 0, ENOMEM, 0, 0, ENOMEM}));
  vcam_fault_request(IAV_IOC_QUERY_BUF, 0, 0);
  EXPECT_EQ(Request(IAV_IOC_QUERY_BUF, &query), 0);

  // The timer files: not opened, then read as empty, then as before.
  vcam_fault_request(VCAM_OP_OPEN_HWTIMER, ENOENT, 1);
  int converted[3] = {0, 0, 0};
  ReadNumber(VDEV_PATH_HWTIMER, &converted[0]);
  vcam_fault_request(VCAM_OP_READ_HWTIMER, 0, 1);
  ReadNumber(VDEV_PATH_HWTIMER_OUTFREQ, &converted[1]);
  ReadNumber(VDEV_PATH_HWTIMER_OUTFREQ, &converted[2]);
  EXPECT_EQ(std::vector<int>(converted, converted + 3), std::vector<int>({-2, EOF, 1}));

  vcam_fault_request(IAV_IOC_GET_CHIP_ID, EIO, VCAM_FAULT_ALWAYS);
  vcam_clear_faults();
  EXPECT_EQ(Request(IAV_IOC_GET_CHIP_ID, &chip), 0);
}

// The motion statistics planes themselves are read by the motion detection
// thread's tests; here the blocking query that thread waits in.
TEST_F(VirtualCameraTest, PlaneQueryBlocksUntilTheNextFrameOrAReset) {
  ASSERT_NO_FATAL_FAILURE(SetUpIdleVin());
  ASSERT_EQ(Request(IAV_IOC_ENABLE_PREVIEW, 0ul), 0);
  vcam_advance_ms(34);
  vcam_set_manual_wait_limit_ms(0);  // no limit: only time or a reset ends the wait
  auto plane = [this] {
    iav_querydesc_t query{};
    query.qid = IAV_DESC_ME0;
    EXPECT_EQ(Request(IAV_IOC_QUERY_DESC, &query), 0);
    return query.arg.me0;
  };
  iav_me0desc_t current = plane();
  iav_me0desc_t next{};
  std::thread waiter([&] { next = plane(); });
  vcam_advance_ms(34);
  waiter.join();
  EXPECT_EQ(next.seqNum, current.seqNum + 1);
  // A reset wakes a waiter, which gets the latest plane again.
  std::thread woken([&] { next = plane(); });
  vcam_reset();
  woken.join();

  // Before the first plane of a new VIN mode the answer already has its size
  // (720p: 160x90 cells in rows of 160 bytes), not the previous mode's.
  ASSERT_EQ(Request(IAV_IOC_ENTER_IDLE, 0ul), 0);
  iav_vin_mode_t mode720 = {0, 3, 0, 0};
  ASSERT_EQ(Request(IAV_IOC_VIN_SET_MODE, &mode720), 0);
  vcam_set_manual_wait_limit_ms(1);
  iav_me0desc_t first = plane();
  EXPECT_EQ(std::make_tuple(first.width, first.height, first.pitch), std::make_tuple(160u, 90u, 160u));
}

}  // namespace
