// SIGINT while one FLV stream is recorded to a file, pushed over TCP to a
// listening ffmpeg and over TLS 1.2 to openssl s_server: the run ends at once
// and cleanly, and all three copies are whole, decodable FLV.
#include <gtest/gtest.h>

#include <signal.h>

#include <chrono>
#include <thread>

#include "e2e_util.h"

namespace vesk {
namespace e2e {
namespace {

void ExpectFlvWithAudioAndVideo(const std::string& path, int minPictures) {
  std::string errors;
  EXPECT_TRUE(DecodesCleanly(path, errors)) << path << ": " << errors;
  probe_t probe;
  ASSERT_TRUE(Probe(path, probe)) << path;
  const auto* video = probe.Stream("video");
  const auto* audio = probe.Stream("audio");
  ASSERT_TRUE(video != nullptr && audio != nullptr) << path;
  EXPECT_EQ(video->at("codec_name") + " " + video->at("width"), "h264 640") << path;
  EXPECT_GE(atoi(video->at("nb_read_frames").c_str()), minPictures) << path;
  EXPECT_EQ(audio->at("codec_name") + " " + audio->at("sample_rate"), "aac 16000") << path;
}

TEST(E2eDestinations, SigintEndsRecordingAndTcpAndTlsPushesCleanly) {
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
  std::this_thread::sleep_for(std::chrono::milliseconds(300));  // the peers open their ports
  json serializer = Serializer("flv",
                               {"file://" + (dir / "rec.flv") + "?continuous", tcp + "?retryInterval=1",
                                "tcp://127.0.0.1:" + tlsPort + "?encrypted=1&retryInterval=1"},
                               {{"streamName", "rec"}});
  json settings = {{"audio", AudioBlock(16000, 1, 32000)},
                   {"video", {{"vinFps", 30}, {"video1", H264Stream(0, 640, 360, 30, serializer)}}}};
  Child camera({CameraPath(), "run", WriteSettings(dir, settings)}, dir / "camera.out", dir / "camera.err");
  ASSERT_TRUE(WaitForText(dir / "camera.out", "[   2.0s]", 15000)) << ReadFile(dir / "camera.err");
  auto signalled = std::chrono::steady_clock::now();
  camera.Signal(SIGINT);
  int code = camera.Wait(10000);
  uint64_t tookMs = test::MsSince(signalled);
  std::string out = ReadFile(dir / "camera.out");
  ASSERT_EQ(code, 0) << out << ReadFile(dir / "camera.err");
  EXPECT_NE(out.find("SIGINT received"), std::string::npos) << out;
  EXPECT_NE(out.find("closed in"), std::string::npos) << out;
  EXPECT_LT(tookMs, 1000u) << out;  // a supervisor allows a second
  // ffmpeg ends when the stream closes its connection.
  ASSERT_EQ(ffmpeg.WaitExit(10000), 0) << ReadFile(dir / "ffmpeg.err");
  tls.WaitExit(5000);
  ExpectFlvWithAudioAndVideo(dir / "rec.flv", 50);
  // The pushes start when the peer accepts, up to a retry interval late.
  ExpectFlvWithAudioAndVideo(dir / "pushed.flv", 10);
  ExpectFlvWithAudioAndVideo(dir / "tls.flv", 10);
}

}  // namespace
}  // namespace e2e
}  // namespace vesk
