// vesk-camera run with audio and video on the virtual camera: an FLV
// recording, a vesk stream over UDP to vesk-camera receive beside a TCP
// destination where nothing listens, and a JPEG snapshot, each checked by a
// real consumer.
#include <gtest/gtest.h>

#include <signal.h>

#include <atomic>
#include <cmath>
#include <sstream>
#include <thread>

#include "e2e_util.h"

namespace vesk {
namespace e2e {
namespace {

constexpr int kSeconds = 4;

// The largest gap between the last audio and the last video time, walking
// the file's packets in their order, in seconds.
double LargestAvGap(const std::string& path) {
  std::string output;
  Shell("ffprobe -v error -show_entries packet=codec_type,pts_time -of csv=p=0 '" + path + "'", output);
  std::istringstream lines(output);
  std::string line;
  double audio = -1, video = -1, gap = 0;
  while (std::getline(lines, line)) {
    if (line.rfind("audio,", 0) == 0) audio = atof(line.c_str() + 6);
    if (line.rfind("video,", 0) == 0) video = atof(line.c_str() + 6);
    if (audio >= 0 && video >= 0) gap = std::max(gap, std::fabs(audio - video));
  }
  return gap;
}

TEST(E2eRun, RecordsStreamsAndSnapshotThatRealConsumersRead) {
  ScratchDir dir;
  std::string udp = "udp://127.0.0.1:" + std::to_string(FreePort());
  std::string deadTcp = "tcp://127.0.0.1:" + std::to_string(FreePort()) + "?retryInterval=1&connectTimeout=1";
  json settings = {
      {"audio", AudioBlock(16000, 1, 32000)},
      {"video",
       {{"vinFps", 30},
        {"video1", H264Stream(0, 640, 360, 30,
                              Serializer("flv", {"file://" + (dir / "rec.flv") + "?continuous"},
                                         {{"streamName", "rec"}}))},
        {"video2", H264Stream(1, 320, 180, 15,
                              Serializer("vesk", {deadTcp, udp},
                                         {{"streamName", "live"}, {"audioId", 1000}, {"videoId", 1001}}))},
        {"mjpg", MjpgStream(2, 320, 180, 10,
                            Serializer("passThrough", {"file://" + (dir / "snap.jpg")},
                                       {{"streamName", "snap"}, {"suppressAudio", true}}))}}}};
  std::string settingsPath = WriteSettings(dir, settings);

  Child receiver({CameraPath(), "receive", udp, dir / "received"}, dir / "receiver.out", dir / "receiver.err");
  ASSERT_TRUE(WaitForText(dir / "receiver.out", "listening", 5000)) << ReadFile(dir / "receiver.err");
  Child camera({CameraPath(), "run", settingsPath, "--seconds", std::to_string(kSeconds)}, dir / "camera.out",
               dir / "camera.err");
  // The snapshot is read over and over while it is being replaced.
  std::atomic<bool> stop{false};
  int whole = 0, broken = 0;
  std::thread watcher([&] {
    while (!stop) {
      std::string bytes = ReadFile(dir / "snap.jpg");
      size_t n = bytes.size();
      if (n >= 4 && bytes.compare(0, 2, "\xFF\xD8") == 0 && bytes.compare(n - 2, 2, "\xFF\xD9") == 0)
        whole++;
      else if (n > 0)
        broken++;
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  });
  int code = camera.Wait(30000);
  stop = true;
  watcher.join();
  receiver.Signal(SIGTERM);
  ASSERT_EQ(receiver.Wait(5000), 0);

  std::string out = ReadFile(dir / "camera.out");
  std::string err = ReadFile(dir / "camera.err");
  ASSERT_EQ(code, 0) << out << err;
  EXPECT_EQ(err.find("warning:"), std::string::npos) << err;
  EXPECT_NE(out.find("IAV state event EventIavStateEnterEncode"), std::string::npos) << out;

  // The recording: clean decode, H.264 at the configured size and rate, AAC
  // as configured, onMetaData as the stream info says.
  std::string errors;
  EXPECT_TRUE(DecodesCleanly(dir / "rec.flv", errors)) << errors;
  probe_t probe;
  ASSERT_TRUE(Probe(dir / "rec.flv", probe));
  const auto* video = probe.Stream("video");
  const auto* audio = probe.Stream("audio");
  ASSERT_TRUE(video != nullptr && audio != nullptr);
  EXPECT_EQ(video->at("codec_name"), "h264");
  EXPECT_EQ(video->at("width") + "x" + video->at("height"), "640x360");
  double duration = atof(probe.format.at("duration").c_str());
  ASSERT_GT(duration, kSeconds - 1.0);
  EXPECT_NEAR(atof(video->at("nb_read_frames").c_str()) / duration, 30.0, 3.0);
  EXPECT_EQ(audio->at("codec_name") + " " + audio->at("sample_rate") + " " + audio->at("channels"), "aac 16000 1");
  const std::map<std::string, std::string> metadata = {
      {"streamName", "rec"}, {"videoWidth", "640"},       {"videoHeight", "360"},  {"videoFps", "30"},
      {"hasAudio", "true"},  {"audioFrequency", "16000"}, {"audioChannels", "1"}};
  for (const auto& tag : metadata) EXPECT_EQ(probe.format["TAG:" + tag.first], tag.second) << tag.first;
  // 16 kHz audio with 30 fps video: 8 audio frames of 64 ms.
  EXPECT_NE(err.find("drift allowed on channel video1: 512 ms"), std::string::npos) << err;
  EXPECT_LE(LargestAvGap(dir / "rec.flv"), 0.512);

  // Every picture and audio frame of video2 arrived whole over UDP although
  // its TCP peer never answered; that destination stayed attached, retrying.
  long long pictures = NumberAfter(out, "pictures ", "total stream 1:");
  std::string received = ReadFile(dir / "receiver.out");
  ASSERT_GT(pictures, (kSeconds - 1) * 15) << out;
  EXPECT_EQ(NumberAfter(received, "frames ", "video:"), pictures) << received;
  EXPECT_EQ(NumberAfter(received, "frames ", "audio:"), NumberAfter(out, "audio frames ", "total stream 1:"));
  EXPECT_EQ(NumberAfter(received, "lost ", "video:"), 0) << received;
  EXPECT_EQ(NumberAfter(received, "incomplete ", "video:"), 0) << received;
  EXPECT_EQ(NumberAfter(received, "datagrams, "), 0) << received;  // none malformed
  std::istringstream lines(out);
  int statusLines = 0;
  for (std::string line; std::getline(lines, line);) {
    if (line.find("stream 1 live:") == std::string::npos) continue;
    statusLines++;
    EXPECT_NE(line.find("destinations 2"), std::string::npos) << line;
  }
  EXPECT_GE(statusLines, kSeconds - 1) << out;
  EXPECT_TRUE(DecodesCleanly(dir / "received/video.h264", errors, "h264")) << errors;
  probe_t live;
  ASSERT_TRUE(Probe(dir / "received/video.h264", live, "h264"));
  EXPECT_EQ(live.streams[0]["width"] + "x" + live.streams[0]["height"], "320x180");
  EXPECT_EQ(atoll(live.streams[0]["nb_read_frames"].c_str()), pictures);
  EXPECT_TRUE(DecodesCleanly(dir / "received/audio.aac", errors, "aac")) << errors;

  // The snapshot was replaced many times and never seen half-written.
  EXPECT_GT(whole, 0);
  EXPECT_EQ(broken, 0);
  probe_t snapshot;
  ASSERT_TRUE(Probe(dir / "snap.jpg", snapshot));
  EXPECT_EQ(snapshot.streams[0]["codec_name"] + " " + snapshot.streams[0]["width"], "mjpeg 320");
}

}  // namespace
}  // namespace e2e
}  // namespace vesk
