// Helpers of the TCP transport tests: a test certificate, and a media pump
// that feeds real H.264 and AAC into an output stream the way the encoder's
// pump does.
#pragma once

#include <functional>

#include "log_capture.h"
#include "outstream.h"
#include "stream_test_util.h"
#include "tcp_peer_util.h"
#include "transporttcp.h"

namespace vesk {
namespace test {

// A self-signed certificate (cert.pem, key.pem) made once per program.
struct test_cert_t {
  TempDir dir;
  std::string cert = dir.File("cert.pem"), key = dir.File("key.pem");
  bool ok = false;
};
inline const test_cert_t& TestCert() {
  static test_cert_t* made = nullptr;
  if (made == nullptr) {
    made = new test_cert_t();
    int status = -1;
    RunCommand("openssl req -x509 -newkey rsa:2048 -nodes -keyout '" + made->key + "' -out '" +
                   made->cert + "' -days 2 -subj /CN=localhost 2>&1",
               &status);
    made->ok = status == 0;
  }
  return *made;
}

// openssl s_server on the loopback port, printing what it decrypts to outPath.
inline std::string SslServerCommand(const std::string& options, uint16_t port) {
  return "openssl s_server " + options + " -quiet -accept 127.0.0.1:" + std::to_string(port) +
         " -cert '" + TestCert().cert + "' -key '" + TestCert().key + "'";
}

// Real H.264 (25 fps, a key picture every 25) and AAC (16 kHz mono) made once
// per program, looped with ever-growing timestamps.
struct test_media_t {
  std::vector<h264_picture_t> pictures;
  std::vector<std::vector<uint8_t>> aac;
};
inline test_media_t& SharedMedia() {
  static test_media_t* media = nullptr;
  if (media == nullptr) {
    media = new test_media_t();
    TempDir dir;
    media->pictures = MakeH264(dir, 320, 240, 50, 25);
    media->aac = MakeAac(dir, 16000, 2.0);
  }
  return *media;
}

// Feeds the media into a stream in presentation order, one frame per Step.
class MediaPump {
 public:
  explicit MediaPump(vesk::encoder::internal::OutStream& stream)
      : stream_(stream), media_(SharedMedia()), ring_(1 << 20) {}

  bool Ready() const { return !media_.pictures.empty() && !media_.aac.empty(); }

  // The frame of the track whose next frame is earlier; the stream's result.
  bool Step() {
    if (audio_ * 64 < video_ * 40) {
      audio_frame_t frame =
          MakeAudioFrame(media_.aac[audio_ % media_.aac.size()], (int64_t)audio_ * 1024, 16000);
      audio_++;
      return stream_.FeedAudioFrame(&frame);
    }
    video_frame_t frame;
    ring_.Place(media_.pictures[video_ % media_.pictures.size()], (int64_t)video_ * 3600, frame);
    video_++;
    return stream_.FeedVideoFrame(&frame);
  }

  // Steps every stepMs until done() holds or timeoutMs passed.
  bool RunUntil(const std::function<bool()>& done, int timeoutMs, int stepMs = 5) {
    return WaitUntil([&] { return done() || (Step(), false); }, timeoutMs, stepMs);
  }
  void Run(int frames) {
    for (int i = 0; i < frames; i++, std::this_thread::sleep_for(std::chrono::milliseconds(2))) {
      Step();
    }
  }

  uint32_t videoFrames() const { return video_; }
  uint32_t audioFrames() const { return audio_; }

 private:
  vesk::encoder::internal::OutStream& stream_;
  test_media_t& media_;
  TestRing ring_;
  uint32_t video_ = 0, audio_ = 0;
};

inline vesk::variant::Variant FlvConfig(const std::vector<std::string>& destinations) {
  vesk::variant::Variant config;
  config["type"] = "flv";
  for (size_t i = 0; i < destinations.size(); i++) {
    config["destinations"][(uint32_t)i] = destinations[i];
  }
  return config;
}

// Services the stream without frames until its transport is connected.
inline bool ServiceUntilConnected(vesk::encoder::internal::OutStream& stream, LogCapture& log,
                                  const std::string& uri, int timeoutMs) {
  return WaitUntil([&] { return log.Has("Connected to " + uri) || (stream.ServiceTransports(), false); },
                   timeoutMs);
}

// Services the stream until everything its transport accepted is on the wire.
inline bool PumpUntilFlushed(vesk::encoder::internal::OutStream& stream,
                             vesk::encoder::internal::TransportTCP* transport, int timeoutMs) {
  return WaitUntil(
      [&] {
        stream.ServiceTransports();
        return transport->GetFlushedBytes() == transport->GetAcceptedBytes();
      },
      timeoutMs);
}

}  // namespace test
}  // namespace vesk
