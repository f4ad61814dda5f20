// Helpers of the TCP transport tests: a test certificate and a media pump.
#pragma once

#include <functional>

#include "log_capture.h"
#include "outstream.h"
#include "stream_test_util.h"
#include "tcp_peer_util.h"
#include "transporttcp.h"
#include "vesk/encoder.h"

namespace vesk::test {

// A self-signed certificate (cert.pem, key.pem) made once per program.
struct test_cert_t {
  TempDir dir;
  std::string cert = dir.File("cert.pem"), key = dir.File("key.pem");
  int status = -1;
  bool ok = (RunCommand("openssl req -x509 -newkey rsa:2048 -nodes -keyout '" + key + "' -out '" +
                        cert + "' -days 2 -subj /CN=localhost 2>&1", &status), status == 0);
};
inline const test_cert_t& TestCert() {
  static test_cert_t* made = new test_cert_t();
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
  static TempDir dir;
  static test_media_t* media = new test_media_t{MakeH264(dir, 320, 240, 50, 25), MakeAac(dir, 16000, 2.0)};
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
      audio_frame_t frame = MakeAudioFrame(media_.aac[audio_ % media_.aac.size()], audio_ * 1024LL, 16000);
      return audio_++, stream_.FeedAudioFrame(&frame);
    }
    video_frame_t frame;
    ring_.Place(media_.pictures[video_ % media_.pictures.size()], video_ * 3600LL, frame);
    return video_++, stream_.FeedVideoFrame(&frame);
  }

  bool RunUntil(const std::function<bool()>& done, int timeoutMs, int stepMs = 5) {
    return WaitUntil([&] { return done() || (Step(), false); }, timeoutMs, stepMs);
  }
  void Run(int frames) {
    for (int i = 0; i < frames; i++, std::this_thread::sleep_for(std::chrono::milliseconds(2))) Step();
  }

  uint32_t videoFrames() const { return video_; }
  uint32_t audioFrames() const { return audio_; }

 private:
  vesk::encoder::internal::OutStream& stream_;
  test_media_t& media_;
  TestRing ring_;
  uint32_t video_ = 0, audio_ = 0;
};

// A stream of real media to TCP destinations; info may add a channel id.
struct TcpStream {
  explicit TcpStream(const std::vector<std::string>& uris, const char* type = "flv",
                     uint32_t channelId = 0)
      : stream(&encoder, 0), pump(stream) {
    vesk::encoder::StreamInfo info = MakeStreamInfo(true, true);
    if (channelId != 0) info["channelId"] = channelId;
    if (stream.Configure(StreamConfig(type, uris), info) && !stream.GetTransports().empty()) {
      transport = dynamic_cast<vesk::encoder::internal::TransportTCP*>(stream.GetTransports()[0]);
    }
  }
  bool ok() const { return transport != nullptr && pump.Ready(); }
  vesk::encoder::Encoder encoder;
  vesk::encoder::internal::OutStream stream;
  MediaPump pump;
  vesk::encoder::internal::TransportTCP* transport = nullptr;
};

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

}  // namespace vesk::test
