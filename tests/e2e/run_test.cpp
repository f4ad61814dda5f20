// vesk-camera run with audio and video on the virtual camera: an FLV
// recording, a vesk stream over UDP to vesk-camera receive, and a JPEG
// snapshot, each checked by a real consumer.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <sstream>
#include <thread>

#include "e2e_util.h"

namespace vesk {
namespace e2e {
namespace {

constexpr int kSeconds = 4;

// Reads the snapshot over and over while it is being replaced.
struct snapshot_watch_t {
  std::atomic<bool> stop{false};
  int whole = 0;
  int broken = 0;
  void Run(const std::string& path) {
    while (!stop) {
      std::string bytes = ReadFile(path);
      if (bytes.size() >= 4) {
        bool complete = (uint8_t)bytes[0] == 0xFF && (uint8_t)bytes[1] == 0xD8 &&
                        (uint8_t)bytes[bytes.size() - 2] == 0xFF && (uint8_t)bytes[bytes.size() - 1] == 0xD9;
        (complete ? whole : broken)++;
      } else if (!bytes.empty()) {
        broken++;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  }
};

// The largest gap between the last audio and the last video time, walking
// the file's packets in their order, in seconds.
double LargestAvGap(const std::string& path) {
  std::string output;
  Shell("ffprobe -v error -show_entries packet=codec_type,pts_time -of csv=p=0 '" + path + "'", output);
  std::istringstream lines(output);
  std::string line;
  double audio = -1, video = -1, gap = 0;
  while (std::getline(lines, line)) {
    size_t comma = line.find(',');
    if (comma == std::string::npos) continue;
    std::string type = line.substr(0, comma);
    double time = atof(line.c_str() + comma + 1);
    if (type == "audio") audio = time;
    if (type == "video") video = time;
    if (audio >= 0 && video >= 0) gap = std::max(gap, std::fabs(audio - video));
  }
  return gap;
}

TEST(E2eRun, RecordsStreamsAndSnapshotThatRealConsumersRead) {
  ScratchDir dir;
  uint16_t udpPort = FreeUdpPort();
  std::string udp = "udp://127.0.0.1:" + std::to_string(udpPort);
  json settings = {
      {"audio", AudioBlock(16000, 1, 32000)},
      {"video",
       {{"vinFps", 30},
        {"video1", H264Stream(0, 640, 360, 30,
                              Serializer("flv", {"file://" + (dir / "rec.flv") + "?continuous"},
                                         {{"streamName", "rec"}}))},
        {"video2", H264Stream(1, 320, 180, 15,
                              Serializer("vesk", {udp}, {{"streamName", "live"}, {"audioId", 1000}, {"videoId", 1001}}))},
        {"mjpg", MjpgStream(2, 320, 180, 10,
                            Serializer("passThrough", {"file://" + (dir / "snap.jpg")},
                                       {{"streamName", "snap"}, {"suppressAudio", true}}))}}}};
  std::string settingsPath = WriteSettings(dir, settings);

  Child receiver({CameraPath(), "receive", udp, dir / "received"}, dir / "receiver.out", dir / "receiver.err");
  ASSERT_TRUE(WaitForText(dir / "receiver.out", "listening", 5000)) << ReadFile(dir / "receiver.err");
  Child camera({CameraPath(), "run", settingsPath, "--seconds", std::to_string(kSeconds)}, dir / "camera.out",
               dir / "camera.err");
  snapshot_watch_t watch;
  std::thread watcher([&] { watch.Run(dir / "snap.jpg"); });
  int code = camera.Wait(30000);
  watch.stop = true;
  watcher.join();
  receiver.Signal(SIGTERM);
  ASSERT_EQ(receiver.Wait(5000), 0);

  std::string out = ReadFile(dir / "camera.out");
  std::string err = ReadFile(dir / "camera.err");
  ASSERT_EQ(code, 0) << out << err;
  EXPECT_EQ(err.find("warning:"), std::string::npos) << err;
  EXPECT_NE(out.find("IAV state event EventIavStateEnterEncode"), std::string::npos) << out;
  EXPECT_NE(out.find("stream 0 rec: pictures"), std::string::npos) << out;

  // The recording: clean decode, H.264 at the configured size and rate, AAC as configured.
  std::string errors;
  EXPECT_TRUE(DecodesCleanly(dir / "rec.flv", errors)) << errors;
  probe_t probe;
  ASSERT_TRUE(Probe(dir / "rec.flv", probe));
  const auto* video = probe.Stream("video");
  const auto* audio = probe.Stream("audio");
  ASSERT_NE(video, nullptr);
  ASSERT_NE(audio, nullptr);
  EXPECT_EQ(video->at("codec_name"), "h264");
  EXPECT_EQ(video->at("width"), "640");
  EXPECT_EQ(video->at("height"), "360");
  double pictures = atof(video->at("nb_read_frames").c_str());
  double duration = atof(probe.format.at("duration").c_str());
  ASSERT_GT(duration, kSeconds - 1.0);
  EXPECT_NEAR(pictures / duration, 30.0, 3.0);
  EXPECT_EQ(audio->at("codec_name"), "aac");
  EXPECT_EQ(audio->at("sample_rate"), "16000");
  EXPECT_EQ(audio->at("channels"), "1");
  // onMetaData says what the stream info says.
  EXPECT_EQ(probe.format["TAG:streamName"], "rec");
  EXPECT_EQ(probe.format["TAG:videoWidth"], "640");
  EXPECT_EQ(probe.format["TAG:videoHeight"], "360");
  EXPECT_EQ(probe.format["TAG:videoFps"], "30");
  EXPECT_EQ(probe.format["TAG:hasAudio"], "true");
  EXPECT_EQ(probe.format["TAG:audioFrequency"], "16000");
  EXPECT_EQ(probe.format["TAG:audioChannels"], "1");
  // 16 kHz audio with 30 fps video: 8 audio frames of 64 ms are allowed.
  EXPECT_NE(err.find("drift allowed on channel video1: 512 ms"), std::string::npos) << err;
  EXPECT_LE(LargestAvGap(dir / "rec.flv"), 0.512);

  // The vesk stream, put back together by the receiver, decodes.
  std::string received = ReadFile(dir / "receiver.out");
  long long frames = NumberAfter(received, "frames ", "video:");
  EXPECT_GT(frames, (kSeconds - 1) * 15) << received;
  EXPECT_EQ(NumberAfter(received, "lost ", "video:"), 0) << received;
  EXPECT_EQ(NumberAfter(received, "incomplete ", "video:"), 0) << received;
  EXPECT_EQ(NumberAfter(received, "datagrams, "), 0) << received;  // none malformed
  EXPECT_TRUE(DecodesCleanly(dir / "received/video.h264", errors, "h264")) << errors;
  probe_t live;
  ASSERT_TRUE(Probe(dir / "received/video.h264", live, "h264"));
  EXPECT_EQ(live.streams[0]["width"], "320");
  EXPECT_EQ(live.streams[0]["height"], "180");
  EXPECT_EQ(atoll(live.streams[0]["nb_read_frames"].c_str()), frames);
  EXPECT_TRUE(DecodesCleanly(dir / "received/audio.aac", errors, "aac")) << errors;

  // The snapshot was replaced many times and never seen half-written.
  EXPECT_GT(watch.whole, 0);
  EXPECT_EQ(watch.broken, 0);
  probe_t snapshot;
  ASSERT_TRUE(Probe(dir / "snap.jpg", snapshot));
  EXPECT_EQ(snapshot.streams[0]["codec_name"], "mjpeg");
  EXPECT_EQ(snapshot.streams[0]["width"], "320");
}

}  // namespace
}  // namespace e2e
}  // namespace vesk
