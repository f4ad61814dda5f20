// The virtual camera in real time (1080p30 H.264 + 360p15 H.264 + 1 fps
// 1080p JPEG: CPU cores used, pictures delivered, frames dropped) and in
// replay (the cost of the emulation alone).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <time.h>

#include <chrono>
#include <thread>

#include "vesk/device/device.h"
#include "vesk/device/iav.h"
#include "vesk/virtualcam/virtualcam.h"

namespace {

double CpuSeconds() {
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec + (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

void StreamConfig(int fd, uint32_t id, uint32_t cid, const void* payload, size_t size) {
  iav_stream_cfg_t cfg;
  memset(&cfg, 0, sizeof(cfg));
  cfg.id = id;
  cfg.cid = cid;
  if (payload != nullptr) memcpy(&cfg.arg, payload, size);
  vdev_ioctl(fd, IAV_IOC_SET_STREAM_CONFIG, &cfg);
}

void Stream(int fd, uint32_t id, uint32_t type, uint32_t buffer, uint32_t w, uint32_t h, uint32_t fps,
            uint32_t bitrate) {
  iav_stream_format_t format;
  memset(&format, 0, sizeof(format));
  format.id = id;
  format.type = type;
  format.sourceBuf = buffer;
  format.width = w;
  format.height = h;
  vdev_ioctl(fd, IAV_IOC_SET_STREAM_FORMAT, &format);
  if (type == IAV_STREAM_TYPE_H264) {
    iav_h264_config_t h264;
    memset(&h264, 0, sizeof(h264));
    h264.id = id;
    vdev_ioctl(fd, IAV_IOC_GET_H264_CONFIG, &h264);
    h264.M = 1;
    h264.N = 30;
    vdev_ioctl(fd, IAV_IOC_SET_H264_CONFIG, &h264);
    iav_stream_gop_t gop = {fps * 2, 1};
    StreamConfig(fd, id, IAV_STMCFG_GOP, &gop, sizeof(gop));
    iav_stream_cfg_t cfg;
    memset(&cfg, 0, sizeof(cfg));
    cfg.id = id;
    cfg.cid = IAV_STMCFG_BITRATE;
    vdev_ioctl(fd, IAV_IOC_GET_STREAM_CONFIG, &cfg);
    cfg.arg.bitrate.targetBitrate = bitrate;
    vdev_ioctl(fd, IAV_IOC_SET_STREAM_CONFIG, &cfg);
  } else {
    iav_stream_quality_t quality = {80};
    StreamConfig(fd, id, IAV_STMCFG_MJPEG_QUALITY, &quality, sizeof(quality));
  }
  iav_stream_fps_t rate = {fps, 60};
  StreamConfig(fd, id, IAV_STMCFG_FPS, &rate, sizeof(rate));
}

int StartThreeStreams() {
  int fd = vdev_open(VDEV_PATH_IAV, O_RDWR);
  vdev_ioctl(fd, IAV_IOC_ENTER_IDLE, 0);
  // The sensor mode a track picks by default: 1080p at 60.
  iav_vin_mode_t mode = {0, 1, 0, 0};
  vdev_ioctl(fd, IAV_IOC_VIN_SET_MODE, &mode);
  iav_vin_fps_t vinFps = {0, 8533333};
  vdev_ioctl(fd, IAV_IOC_VIN_SET_FPS, &vinFps);
  iav_srcbuf_setup_t buffers;
  memset(&buffers, 0, sizeof(buffers));
  buffers.size[0] = iav_size_t{1920, 1080};
  buffers.type[0] = IAV_SRCBUF_TYPE_ENCODE;
  buffers.size[1] = iav_size_t{640, 360};
  buffers.type[1] = IAV_SRCBUF_TYPE_ENCODE;
  vdev_ioctl(fd, IAV_IOC_SET_SOURCE_BUFFER_SETUP, &buffers);
  Stream(fd, 0, IAV_STREAM_TYPE_H264, 0, 1920, 1080, 30, 4000000);
  Stream(fd, 1, IAV_STREAM_TYPE_H264, 1, 640, 360, 15, 1000000);
  Stream(fd, 2, IAV_STREAM_TYPE_MJPEG, 0, 1920, 1080, 1, 0);
  iav_system_resource_t resource;
  vdev_ioctl(fd, IAV_IOC_GET_SYSTEM_RESOURCE, &resource);
  resource.exposureNum = 1;
  vdev_ioctl(fd, IAV_IOC_SET_SYSTEM_RESOURCE, &resource);
  vdev_ioctl(fd, IAV_IOC_ENABLE_PREVIEW, 0);
  vdev_ioctl(fd, IAV_IOC_START_ENCODE, 0x00070007);
  return fd;
}

// Drains the descriptor queue; pictures per stream.
void Drain(int fd, uint64_t* perStream) {
  iav_querydesc_t query;
  for (;;) {
    memset(&query, 0, sizeof(query));
    query.qid = IAV_DESC_FRAME;
    query.arg.frame.id = IAV_STREAM_ID_ANY;
    if (vdev_ioctl(fd, IAV_IOC_QUERY_DESC, &query) != 0) return;
    if (query.arg.frame.id >= 0 && query.arg.frame.id < 4) ++perStream[query.arg.frame.id];
  }
}

void BM_RealTimeThreeStreams(benchmark::State& state) {
  uint64_t pictures[4] = {0, 0, 0, 0};
  double cores = 0;
  vcam_status_t status;
  for (auto _ : state) {
    vcam_reset();
    vcam_set_scene(static_cast<vcam_scene_t>(state.range(0)));
    int fd = StartThreeStreams();
    double cpu0 = CpuSeconds();
    auto wall0 = std::chrono::steady_clock::now();
    auto end = wall0 + std::chrono::seconds(5);
    while (std::chrono::steady_clock::now() < end) {
      Drain(fd, pictures);
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - wall0).count();
    cores = (CpuSeconds() - cpu0) / wall;
    vcam_get_status(&status);
    vdev_close(fd);
    vcam_reset();
    state.counters["h264_1080p_fps"] = pictures[0] / wall;
    state.counters["h264_360p_fps"] = pictures[1] / wall;
    state.counters["jpeg_fps"] = pictures[2] / wall;
  }
  state.counters["cores"] = cores;
  state.counters["vin_frames_late"] = static_cast<double>(status.vinFramesLate);
  state.counters["pictures_lost"] = static_cast<double>(status.picturesLost);
}
BENCHMARK(BM_RealTimeThreeStreams)
    ->Arg(VCAM_SCENE_MOVING)
    ->Arg(VCAM_SCENE_BUSY)
    ->Iterations(1)
    ->Unit(benchmark::kSecond)
    ->UseRealTime();

// One second of the three streams replayed on the manual clock, read out.
void BM_ReplayOneSecond(benchmark::State& state) {
  vcam_reset();
  vcam_set_clock_mode(VCAM_CLOCK_MANUAL);
  vcam_set_replay(1);
  int fd = StartThreeStreams();
  uint64_t pictures[4] = {0, 0, 0, 0};
  vcam_advance_ms(1000);  // the replay material is encoded here
  Drain(fd, pictures);
  for (auto _ : state) {
    vcam_advance_ms(1000);
    Drain(fd, pictures);
  }
  vdev_close(fd);
  vcam_reset();
}
BENCHMARK(BM_ReplayOneSecond)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
