// Talks to the virtual camera through the device layer, as the video track
// does, on the manual clock.
#ifndef VESK_TESTS_VIRTUALCAM_DRIVER_FIXTURE_H
#define VESK_TESTS_VIRTUALCAM_DRIVER_FIXTURE_H

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>

#include <vector>

#include "camera_fixture.h"
#include "vesk/device/device.h"
#include "vesk/device/iav.h"

struct StreamSetup {
  uint32_t id = 0, type = IAV_STREAM_TYPE_H264, sourceBuf = 0, width = 320, height = 180;
  uint32_t fps = 30;  // against a 30 fps VIN
  uint16_t N = 10;
  uint32_t idrInterval = 30, bitrate = 400000, quality = 80;
};

class VirtualCameraTest : public vesk::test::CameraTest {
 protected:
  void SetUp() override {
    CameraTest::SetUp();
    iav_ = vdev_open(VDEV_PATH_IAV, O_RDWR);
    ASSERT_GE(iav_, 0) << strerror(errno);
  }
  void TearDown() override {
    if (ring_ != nullptr) vdev_munmap(const_cast<uint8_t*>(ring_), ringLength_ * 2);
    if (iav_ >= 0) vdev_close(iav_);
    CameraTest::TearDown();
  }

  // errno of a request, 0 when it succeeds.
  int Request(unsigned long request, unsigned long argument) {
    return vdev_ioctl(iav_, request, argument) == 0 ? 0 : errno;
  }
  template <typename T>
  int Request(unsigned long request, T* record) {
    return vdev_ioctl(iav_, request, const_cast<void*>(static_cast<const void*>(record))) == 0 ? 0 : errno;
  }

  // One stream configuration item; payload null: an item without one.
  int SetStreamConfig(uint32_t id, uint32_t cid, const void* payload, size_t size) {
    iav_stream_cfg_t cfg{};
    cfg.id = id;
    cfg.cid = cid;
    if (payload != nullptr) memcpy(&cfg.arg, payload, size);
    return Request(IAV_IOC_SET_STREAM_CONFIG, &cfg);
  }
  template <typename T>
  int SetItem(uint32_t id, uint32_t cid, const T& payload) {
    return SetStreamConfig(id, cid, &payload, sizeof(payload));
  }
  int ForceIdr(uint32_t id) { return SetStreamConfig(id, IAV_STMCFG_FORCE_IDR, nullptr, 0); }

  // Idle, VIN 1080p at 30, resources, source buffers 0 (1920x1080) and 1 (640x360).
  void SetUpIdleVin() {
    ASSERT_EQ(Request(IAV_IOC_ENTER_IDLE, 0ul), 0);
    iav_vin_mode_t mode = {0, 0, 0, 0};
    ASSERT_EQ(Request(IAV_IOC_VIN_SET_MODE, &mode), 0);
    iav_vin_fps_t fps = {0, 17066667};  // 512000000 / 30, rounded
    ASSERT_EQ(Request(IAV_IOC_VIN_SET_FPS, &fps), 0);
    iav_system_resource_t resource;
    ASSERT_EQ(Request(IAV_IOC_GET_SYSTEM_RESOURCE, &resource), 0);
    resource.maxEncodeStreams = resource.maxSourceBuffers = 4;
    resource.exposureNum = 1;
    ASSERT_EQ(Request(IAV_IOC_SET_SYSTEM_RESOURCE, &resource), 0);
    iav_srcbuf_setup_t buffers;
    ASSERT_EQ(Request(IAV_IOC_GET_SOURCE_BUFFER_SETUP, &buffers), 0);
    for (uint32_t& type : buffers.type) type = IAV_SRCBUF_TYPE_OFF;
    buffers.size[0] = iav_size_t{1920, 1080};
    buffers.size[1] = iav_size_t{640, 360};
    buffers.type[0] = buffers.type[1] = IAV_SRCBUF_TYPE_ENCODE;
    ASSERT_EQ(Request(IAV_IOC_SET_SOURCE_BUFFER_SETUP, &buffers), 0);
  }

  // Format, codec settings, rate and cadence of one stream, as the track sends them.
  void ConfigureStream(const StreamSetup& s, uint8_t M = 1) {
    iav_stream_format_t format{s.id, s.type, s.sourceBuf, s.width, s.height, 0, 0, 0, 0, 0, 0, {}};
    ASSERT_EQ(Request(IAV_IOC_SET_STREAM_FORMAT, &format), 0);
    bool h264 = s.type == IAV_STREAM_TYPE_H264;
    if (h264) {
      iav_h264_config_t config{s.id, M, 0, s.N, 0, 1, 1, 0, 0, {}};
      ASSERT_EQ(Request(IAV_IOC_SET_H264_CONFIG, &config), 0);
    } else {
      ASSERT_EQ(SetItem(s.id, IAV_STMCFG_MJPEG_QUALITY, iav_stream_quality_t{s.quality}), 0);
    }
    ASSERT_EQ(SetItem(s.id, IAV_STMCFG_FPS, iav_stream_fps_t{s.fps, 30}), 0);
    if (h264) {
      ASSERT_EQ(SetItem(s.id, IAV_STMCFG_GOP, iav_stream_gop_t{s.idrInterval, 1}), 0);
      ASSERT_EQ(SetItem(s.id, IAV_STMCFG_BITRATE, iav_stream_bitrate_t{s.bitrate, IAV_BRC_MODE_VBR, 4, 0, 0, 1, 51, 1, 51, 1, 51, {}}), 0);
    }
    ASSERT_EQ(ForceIdr(s.id), 0);
  }

  // Everything up to encoding the given streams.
  void StartStreams(const std::vector<StreamSetup>& streams) {
    ASSERT_NO_FATAL_FAILURE(SetUpIdleVin());
    uint32_t mask = 0;
    for (const StreamSetup& s : streams) {
      ASSERT_NO_FATAL_FAILURE(ConfigureStream(s));
      mask |= 1u << s.id;
    }
    ASSERT_EQ(Request(IAV_IOC_ENABLE_PREVIEW, 0ul), 0);
    ASSERT_EQ(Request(IAV_IOC_START_ENCODE, static_cast<unsigned long>(mask | (mask << 16))), 0);
  }

  // Maps the bitstream ring twice its length, as the track does.
  void MapRing() {
    iav_querybuf_t query{};
    query.buf = IAV_BUFFER_BSB;
    ASSERT_EQ(Request(IAV_IOC_QUERY_BUF, &query), 0);
    ringLength_ = query.length;
    void* ring = vdev_mmap(nullptr, ringLength_ * 2, PROT_READ, MAP_SHARED, iav_, query.offset);
    ASSERT_NE(ring, MAP_FAILED) << strerror(errno);
    ring_ = static_cast<const uint8_t*>(ring);
  }

  // The descriptors of every picture ready.
  std::vector<iav_framedesc_t> DrainFrames() {
    std::vector<iav_framedesc_t> frames;
    for (;;) {
      iav_querydesc_t query{};
      query.qid = IAV_DESC_FRAME;
      query.arg.frame.id = IAV_STREAM_ID_ANY;
      int err = Request(IAV_IOC_QUERY_DESC, &query);
      EXPECT_TRUE(err == 0 || err == EAGAIN) << err;
      if (err != 0) return frames;
      frames.push_back(query.arg.frame);
    }
  }

  std::vector<uint8_t> PictureBytes(const iav_framedesc_t& desc) const {
    return std::vector<uint8_t>(ring_ + desc.dataOffset, ring_ + desc.dataOffset + desc.size);
  }

  int iav_ = -1;
  const uint8_t* ring_ = nullptr;
  size_t ringLength_ = 0;
};

#endif
