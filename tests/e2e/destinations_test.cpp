// Streams pushed to real peers on loopback: ffmpeg listening for FLV over TCP,
// openssl s_server terminating TLS 1.2, vesk-camera receive on UDP; and one
// stream whose TCP peer is absent while its other destination keeps going.
#include <gtest/gtest.h>

#include <signal.h>

#include <chrono>
#include <thread>

#include "e2e_util.h"

namespace vesk {
namespace e2e {
namespace {

json OneStreamSettings(const json& serializer) {
  return {{"audio", AudioBlock(16000, 1, 32000)},
          {"video", {{"vinFps", 30}, {"video1", H264Stream(0, 640, 360, 30, serializer)}}}};
}

void ExpectFlvWithAudioAndVideo(const std::string& path, int minPictures = 30) {
  std::string errors;
  EXPECT_TRUE(DecodesCleanly(path, errors)) << errors;
  probe_t probe;
  ASSERT_TRUE(Probe(path, probe)) << path;
  const auto* video = probe.Stream("video");
  const auto* audio = probe.Stream("audio");
  ASSERT_NE(video, nullptr);
  ASSERT_NE(audio, nullptr);
  EXPECT_EQ(video->at("codec_name"), "h264");
  EXPECT_EQ(video->at("width"), "640");
  EXPECT_GE(atoi(video->at("nb_read_frames").c_str()), minPictures);
  EXPECT_EQ(audio->at("codec_name"), "aac");
  EXPECT_EQ(audio->at("sample_rate"), "16000");
}

TEST(E2eDestinations, AbsentTcpPeerDoesNotStarveTheOtherDestination) {
  ScratchDir dir;
  std::string udp = "udp://127.0.0.1:" + std::to_string(FreeUdpPort());
  std::string deadTcp = "tcp://127.0.0.1:" + std::to_string(FreeTcpPort()) + "?retryInterval=1&connectTimeout=1";
  std::string settings = WriteSettings(
      dir, OneStreamSettings(Serializer("vesk", {deadTcp, udp}, {{"streamName", "both"}})));
  Child receiver({CameraPath(), "receive", udp, dir / "received"}, dir / "receiver.out", dir / "receiver.err");
  ASSERT_TRUE(WaitForText(dir / "receiver.out", "listening", 5000));
  run_result_t run = RunCamera({"run", settings, "--seconds", "3"}, 30000);
  receiver.Signal(SIGTERM);
  ASSERT_EQ(receiver.Wait(5000), 0);
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;

  // Every picture and audio frame the stream was given arrived whole over UDP.
  long long pictures = NumberAfter(run.out, "pictures ", "total stream 0:");
  long long audioFrames = NumberAfter(run.out, "audio frames ", "total stream 0:");
  ASSERT_GT(pictures, 60) << run.out;
  ASSERT_GT(audioFrames, 30) << run.out;
  std::string received = ReadFile(dir / "receiver.out");
  EXPECT_EQ(NumberAfter(received, "frames ", "video:"), pictures) << received;
  EXPECT_EQ(NumberAfter(received, "frames ", "audio:"), audioFrames) << received;
  EXPECT_EQ(NumberAfter(received, "lost ", "video:"), 0) << received;
  // The TCP destination stayed attached, retrying, the whole time.
  EXPECT_NE(run.out.find("stream 0 both: pictures"), std::string::npos);
  EXPECT_EQ(run.out.find("destinations 1\n"), std::string::npos) << run.out;
}

TEST(E2eDestinations, FlvPushedOverTcpToFfmpegDecodes) {
  ScratchDir dir;
  uint16_t port = FreeTcpPort();
  std::string listen = "tcp://127.0.0.1:" + std::to_string(port);
  Child ffmpeg({"ffmpeg", "-nostdin", "-v", "error", "-y", "-f", "flv", "-listen", "1", "-i", listen, "-c", "copy",
                dir / "pushed.flv"},
               dir / "ffmpeg.out", dir / "ffmpeg.err");
  std::string settings =
      WriteSettings(dir, OneStreamSettings(Serializer("flv", {listen + "?retryInterval=1"}, {{"streamName", "push"}})));
  run_result_t run = RunCamera({"run", settings, "--seconds", "3"}, 30000);
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
  // ffmpeg ends when the stream closes its connection.
  ASSERT_EQ(ffmpeg.Wait(10000), 0) << ReadFile(dir / "ffmpeg.err");
  ExpectFlvWithAudioAndVideo(dir / "pushed.flv");
}

TEST(E2eDestinations, FlvPushedOverTlsToOpensslDecodes) {
  ScratchDir dir;
  std::string output;
  ASSERT_EQ(Shell("openssl req -x509 -newkey rsa:2048 -nodes -keyout '" + (dir / "key.pem") + "' -out '" +
                      (dir / "cert.pem") + "' -days 2 -subj /CN=localhost",
                  output),
            0)
      << output;
  uint16_t port = FreeTcpPort();
  Child server({"openssl", "s_server", "-tls1_2", "-naccept", "1", "-quiet", "-accept",
                "127.0.0.1:" + std::to_string(port), "-cert", dir / "cert.pem", "-key", dir / "key.pem"},
               dir / "received.flv", dir / "server.err", {}, true);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));  // s_server opens its port
  std::string settings = WriteSettings(
      dir, OneStreamSettings(Serializer("flv", {"tcp://127.0.0.1:" + std::to_string(port) + "?encrypted=1"},
                                        {{"streamName", "push-tls"}})));
  run_result_t run = RunCamera({"run", settings, "--seconds", "3"}, 30000);
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
  server.Wait(5000);
  ExpectFlvWithAudioAndVideo(dir / "received.flv");
}

// SIGINT while a stream is both recorded and pushed: the run ends at once and
// cleanly, both the file and what the peer received are whole FLV.
TEST(E2eDestinations, SigintDuringRecordingAndPushEndsCleanly) {
  ScratchDir dir;
  uint16_t port = FreeTcpPort();
  std::string listen = "tcp://127.0.0.1:" + std::to_string(port);
  Child ffmpeg({"ffmpeg", "-nostdin", "-v", "error", "-y", "-f", "flv", "-listen", "1", "-i", listen, "-c", "copy",
                dir / "pushed.flv"},
               dir / "ffmpeg.out", dir / "ffmpeg.err");
  std::string settings = WriteSettings(
      dir, OneStreamSettings(Serializer(
               "flv", {"file://" + (dir / "rec.flv") + "?continuous", listen + "?retryInterval=1"},
               {{"streamName", "rec"}})));
  Child camera({CameraPath(), "run", settings}, dir / "camera.out", dir / "camera.err");
  ASSERT_TRUE(WaitForText(dir / "camera.out", "[   2.0s]", 15000)) << ReadFile(dir / "camera.err");
  auto signalled = std::chrono::steady_clock::now();
  camera.Signal(SIGINT);
  int code = camera.Wait(10000);
  auto took = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - signalled);
  std::string out = ReadFile(dir / "camera.out");
  ASSERT_EQ(code, 0) << out << ReadFile(dir / "camera.err");
  EXPECT_NE(out.find("SIGINT received"), std::string::npos) << out;
  EXPECT_NE(out.find("closed in"), std::string::npos) << out;
  // Well under the second a supervisor allows; the bound is loose for busy machines.
  EXPECT_LT(took.count(), 1000) << out;
  ASSERT_EQ(ffmpeg.Wait(10000), 0) << ReadFile(dir / "ffmpeg.err");
  ExpectFlvWithAudioAndVideo(dir / "rec.flv", 50);
  // The push starts when the peer accepts, up to a retry interval late.
  ExpectFlvWithAudioAndVideo(dir / "pushed.flv", 10);
}

}  // namespace
}  // namespace e2e
}  // namespace vesk
