// vesk-camera run with audio and video on the virtual camera until SIGINT: an
// FLV stream recorded to a file, pushed over TCP to a listening ffmpeg and
// over TLS 1.2 to openssl s_server; a vesk stream over UDP to vesk-camera
// receive beside a TCP destination where nothing listens; a JPEG snapshot.
// Each output is checked by a real consumer.
#include <gtest/gtest.h>

#include <signal.h>

#include <chrono>
#include <cmath>
#include <map>
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

// An FLV copy of video1: H.264 at 640 wide, AAC at 16 kHz, at least minPictures.
void ExpectFlvCopy(const std::string& path, int minPictures) {
  probe_t probe = Probe(path);
  ASSERT_EQ(probe.errors, "");
  json video = probe.Stream("video"), audio = probe.Stream("audio");
  EXPECT_EQ(Fields(video, {"codec_name", "width"}), "h264 640") << path;
  EXPECT_GE(atoi(Fields(video, {"nb_read_frames"}).c_str()), minPictures) << path;
  EXPECT_EQ(Fields(audio, {"codec_name", "sample_rate"}), "aac 16000") << path;
}

TEST(E2eRun, StreamsThatRealConsumersReadAndACleanStopOnSigint) {
  ScratchDir dir;
  std::string output;
  ASSERT_EQ(Shell("openssl req -x509 -newkey rsa:2048 -nodes -keyout '" + (dir / "key.pem") + "' -out '" +
                      (dir / "cert.pem") + "' -days 2 -subj /CN=localhost",
                  output),
            0)
      << output;
  std::string tcp = "tcp://127.0.0.1:" + std::to_string(FreePort());
  std::string tlsPort = std::to_string(FreePort());
  test::ChildProcess ffmpeg("ffmpeg -nostdin -v error -y -f flv -listen 1 -i " + tcp + " -c copy '" +
                                (dir / "pushed.flv") + "'",
                            dir / "ffmpeg.out", dir / "ffmpeg.err");
  test::ChildProcess tls("openssl s_server -tls1_2 -naccept 1 -quiet -accept 127.0.0.1:" + tlsPort + " -cert '" +
                             (dir / "cert.pem") + "' -key '" + (dir / "key.pem") + "'",
                         dir / "tls.flv", dir / "tls.err");
  std::string udp = "udp://127.0.0.1:" + std::to_string(FreePort());
  std::string deadTcp = "tcp://127.0.0.1:" + std::to_string(FreePort()) + "?retryInterval=1&connectTimeout=1";
  json settings = {
      {"audio", AudioBlock(16000, 1, 32000)},
      {"video",
       {{"vinFps", 30},
        {"video1", H264Stream(0, 640, 360, 30,
                              Serializer("flv",
                                         {"file://" + (dir / "rec.flv") + "?continuous", tcp + "?retryInterval=1",
                                          "tcp://127.0.0.1:" + tlsPort + "?encrypted=1&retryInterval=1"},
                                         {{"streamName", "rec"}}))},
        {"video2", H264Stream(1, 320, 180, 15,
                              Serializer("vesk", {deadTcp, udp},
                                         {{"streamName", "live"}, {"audioId", 1000}, {"videoId", 1001}}))},
        {"mjpg", MjpgStream(2, 320, 180, 10,
                            Serializer("passThrough", {"file://" + (dir / "snap.jpg")},
                                       {{"streamName", "snap"}, {"suppressAudio", true}}))}}}};

  Child receiver({CameraPath(), "receive", udp, dir / "received"}, dir / "receiver.out", dir / "receiver.err");
  ASSERT_TRUE(WaitForText(dir / "receiver.out", "listening", 5000)) << ReadFile(dir / "receiver.err");
  std::this_thread::sleep_for(std::chrono::milliseconds(300));  // ffmpeg and openssl open their ports
  Child camera({CameraPath(), "run", WriteSettings(dir, settings)}, dir / "camera.out", dir / "camera.err");
  ASSERT_TRUE(WaitForText(dir / "camera.out", "[   " + std::to_string(kSeconds) + ".0s]", 30000))
      << ReadFile(dir / "camera.err");
  auto signalled = std::chrono::steady_clock::now();
  camera.Signal(SIGINT);
  int code = camera.Wait(10000);
  uint64_t tookMs = test::MsSince(signalled);
  receiver.Signal(SIGTERM);
  ASSERT_EQ(receiver.Wait(5000), 0);

  std::string out = ReadFile(dir / "camera.out");
  std::string err = ReadFile(dir / "camera.err");
  ASSERT_EQ(code, 0) << out << err;
  EXPECT_EQ(err.find("warning:"), std::string::npos) << err;
  EXPECT_NE(out.find("IAV state event EventIavStateEnterEncode"), std::string::npos) << out;
  EXPECT_NE(out.find("SIGINT received"), std::string::npos) << out;
  EXPECT_NE(out.find("closed in"), std::string::npos) << out;
  EXPECT_LT(tookMs, 1000u) << out;  // a supervisor allows a second

  // The recording: H.264 at the configured size and rate, AAC as configured,
  // onMetaData as the stream info says, audio and video within the allowance.
  probe_t probe = Probe(dir / "rec.flv");
  ASSERT_EQ(probe.errors, "");
  json video = probe.Stream("video"), audio = probe.Stream("audio");
  EXPECT_EQ(Fields(video, {"codec_name", "width", "height"}), "h264 640 360");
  double duration = atof(probe.format.value("duration", "0").c_str());
  ASSERT_GT(duration, kSeconds - 1.0);
  EXPECT_NEAR(atof(Fields(video, {"nb_read_frames"}).c_str()) / duration, 30.0, 3.0);
  EXPECT_EQ(Fields(audio, {"codec_name", "sample_rate", "channels"}), "aac 16000 1");
  const std::map<std::string, std::string> metadata = {
      {"streamName", "rec"}, {"videoWidth", "640"},       {"videoHeight", "360"},  {"videoFps", "30"},
      {"hasAudio", "true"},  {"audioFrequency", "16000"}, {"audioChannels", "1"}};
  for (const auto& tag : metadata) EXPECT_EQ(probe.Tag(tag.first), tag.second) << tag.first;
  // 16 kHz audio with 30 fps video: 8 audio frames of 64 ms.
  EXPECT_NE(err.find("drift allowed on channel video1: 512 ms"), std::string::npos) << err;
  EXPECT_LE(LargestAvGap(dir / "rec.flv"), 0.512);

  // The pushes: ffmpeg ends when the stream closes its connection; both
  // start when the peer accepts, up to a retry interval late.
  ASSERT_EQ(ffmpeg.WaitExit(10000), 0) << ReadFile(dir / "ffmpeg.err");
  tls.WaitExit(5000);
  ExpectFlvCopy(dir / "pushed.flv", 10);
  ExpectFlvCopy(dir / "tls.flv", 10);

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
    EXPECT_NE(line.find("destinations 2 (1 delivering)"), std::string::npos) << line;
  }
  EXPECT_GE(statusLines, kSeconds - 1) << out;
  // By then the recording's two peers had long been connected.
  std::string last = "[   " + std::to_string(kSeconds) + ".0s] stream 0 rec:";
  EXPECT_NE(out.find("destinations 3 (3 delivering)", out.find(last)), std::string::npos) << out;
  probe_t live = Probe(dir / "received/video.h264", "h264");
  ASSERT_EQ(live.errors, "");
  EXPECT_EQ(Fields(live.streams[0], {"width", "height"}), "320 180");
  EXPECT_EQ(atoll(Fields(live.streams[0], {"nb_read_frames"}).c_str()), pictures);
  EXPECT_EQ(Probe(dir / "received/audio.aac", "aac").errors, "");

  // The snapshot, replaced many times (never seen half-written: the file
  // transport's own tests).
  probe_t snapshot = Probe(dir / "snap.jpg");
  ASSERT_EQ(snapshot.errors, "");
  EXPECT_EQ(Fields(snapshot.streams[0], {"codec_name", "width"}), "mjpeg 320");
}

}  // namespace
}  // namespace e2e
}  // namespace vesk
