// Helpers of the stream tests: real H.264 and AAC made by ffmpeg, pictures
// placed in a bitstream ring the way the video driver leaves them, and a
// loopback UDP peer that receives what a stream sends.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "vesk/records.h"
#include "vesk/streaminfo.h"

namespace vesk {
namespace test {

using vesk::encoder::audio_frame_t;
using vesk::encoder::timestamp_t;
using vesk::encoder::video_frame_t;

inline std::vector<uint8_t> ReadWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Runs a shell command; its standard output (and standard error when asked)
// goes to out. Returns the exit status.
inline int RunCommand(const std::string& command, std::string& out) {
  out.clear();
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return -1;
  char chunk[4096];
  size_t n;
  while ((n = fread(chunk, 1, sizeof(chunk), pipe)) > 0) out.append(chunk, n);
  int status = pclose(pipe);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// A scratch directory removed with the object.
class TempDir {
 public:
  TempDir() {
    char pattern[] = "/tmp/vesk_streams_XXXXXX";
    path_ = mkdtemp(pattern);
  }
  ~TempDir() {
    std::string out;
    RunCommand("rm -rf '" + path_ + "'", out);
  }
  const std::string& path() const { return path_; }
  std::string File(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// One access unit with every NAL behind a 4-byte start code, and its map.
struct h264_picture_t {
  std::vector<uint8_t> bytes;
  uint32_t nal[9];
  bool key;
};

// Splits an Annex B stream into access units at each delimiter, rewriting
// every start code to 4 bytes and filling the NAL map the way the driver does
// (offsets and lengths from start code to next start code).
inline std::vector<h264_picture_t> SplitAccessUnits(const std::vector<uint8_t>& es) {
  // Payload start and end of each NAL unit.
  std::vector<std::pair<size_t, size_t>> units;
  size_t i = 0;
  size_t start = SIZE_MAX;
  while (i + 3 <= es.size()) {
    if (es[i] == 0 && es[i + 1] == 0 && es[i + 2] == 1) {
      size_t codeStart = (i > 0 && es[i - 1] == 0) ? i - 1 : i;
      if (start != SIZE_MAX) units.push_back({start, codeStart});
      start = i + 3;
      i += 3;
    } else {
      i++;
    }
  }
  if (start != SIZE_MAX) units.push_back({start, es.size()});

  std::vector<h264_picture_t> pictures;
  for (auto& unit : units) {
    uint8_t type = es[unit.first] & 0x1F;
    if (type == 9 || pictures.empty()) {
      pictures.emplace_back();
      memset(pictures.back().nal, 0, sizeof(pictures.back().nal));
      pictures.back().key = false;
    }
    h264_picture_t& picture = pictures.back();
    uint32_t offset = (uint32_t)picture.bytes.size();
    uint32_t length = (uint32_t)(4 + unit.second - unit.first);
    picture.bytes.insert(picture.bytes.end(), {0, 0, 0, 1});
    picture.bytes.insert(picture.bytes.end(), es.begin() + unit.first, es.begin() + unit.second);
    bool slice = type == 1 || type == 5;
    if (type == 7 && picture.nal[1] == 0) {
      picture.nal[0] = offset;
      picture.nal[1] = length;
    } else if (type == 8 && picture.nal[3] == 0) {
      picture.nal[2] = offset;
      picture.nal[3] = length;
    } else if (type == 6 && picture.nal[5] == 0) {
      picture.nal[4] = offset;
      picture.nal[5] = length;
    } else if (type == 9) {
      picture.nal[6] = offset;
      picture.nal[7] = length;
    } else if (slice && picture.nal[8] == 0) {
      picture.nal[8] = offset;
    }
    if (type == 5) picture.key = true;
  }
  return pictures;
}

// H.264 of ffmpeg's test source: AUD, SPS, PPS, SEI, IDR every gop pictures.
inline std::vector<h264_picture_t> MakeH264(const TempDir& dir, int width, int height,
                                            int frames, int gop) {
  std::string path = dir.File("video.h264");
  std::string out;
  std::string command = "ffmpeg -nostdin -v error -y -f lavfi -i testsrc=size=" +
                        std::to_string(width) + "x" + std::to_string(height) +
                        ":rate=25 -frames:v " + std::to_string(frames) +
                        " -c:v libx264 -preset ultrafast -threads 1 -bf 0 -g " +
                        std::to_string(gop) + " -x264-params aud=1:scenecut=0 -f h264 '" + path +
                        "' 2>&1";
  if (RunCommand(command, out) != 0) return {};
  return SplitAccessUnits(ReadWholeFile(path));
}

// AAC access units, each with its 7-byte ADTS header.
inline std::vector<std::vector<uint8_t>> MakeAac(const TempDir& dir, int sampleRate,
                                                 double seconds) {
  std::string path = dir.File("audio.aac");
  std::string out;
  std::string command = "ffmpeg -nostdin -v error -y -f lavfi -i sine=f=440:sample_rate=" +
                        std::to_string(sampleRate) + " -t " + std::to_string(seconds) +
                        " -c:a aac -b:a 32k -ac 1 -f adts '" + path + "' 2>&1";
  if (RunCommand(command, out) != 0) return {};
  std::vector<uint8_t> adts = ReadWholeFile(path);
  std::vector<std::vector<uint8_t>> frames;
  size_t pos = 0;
  while (pos + 7 <= adts.size() && adts[pos] == 0xFF && (adts[pos + 1] & 0xF0) == 0xF0) {
    size_t length = ((size_t)(adts[pos + 3] & 3) << 11) | ((size_t)adts[pos + 4] << 3) |
                    (adts[pos + 5] >> 5);
    if (length < 7 || pos + length > adts.size()) break;
    frames.emplace_back(adts.begin() + pos, adts.begin() + pos + length);
    pos += length;
  }
  return frames;
}

// The video driver's bitstream ring: pictures are written one after the
// other and wrap around its end.
class TestRing {
 public:
  explicit TestRing(uint32_t size) : ring_(size, 0), position_(0), placed_(0), wrapped_(0) {}

  // Writes the picture at the ring's write position and describes it in
  // frame. Pictures that are not key pictures carry their map in auxInfo,
  // with nalMap poisoned, as the driver leaves them. Every fifth picture
  // that does not wrap is described by an offset beyond the ring's end.
  void Place(const h264_picture_t& picture, int64_t pts, video_frame_t& frame) {
    frame = video_frame_t();
    uint32_t size = (uint32_t)ring_.size();
    uint32_t length = (uint32_t)picture.bytes.size();
    for (uint32_t i = 0; i < length; i++) ring_[(position_ + i) % size] = picture.bytes[i];
    frame.ringBase = ring_.data();
    frame.ringSize = size;
    frame.offset = position_;
    frame.length = length;
    frame.isContiguous = position_ + length <= size ? 1 : 0;
    if (!frame.isContiguous) wrapped_++;
    if (frame.isContiguous && placed_ % 5 == 4) {
      frame.offset += size;
      frame.isContiguous = 0;
    }
    frame.isKeyFrame = picture.key ? 1 : 0;
    frame.pictureType = picture.key ? 1 : 3;
    if (picture.key) {
      memcpy(frame.nalMap, picture.nal, sizeof(frame.nalMap));
      frame.codecInfo = frame.nalMap;
    } else {
      memset(frame.nalMap, 0xEE, sizeof(frame.nalMap));
      memcpy(frame.auxInfo, picture.nal, sizeof(frame.auxInfo));
      frame.codecInfo = frame.auxInfo;
    }
    frame.pts = timestamp_t(pts, 90000);
    frame.dts = frame.pts;
    frame.ptsDtsDelta = timestamp_t(0, 90000);
    frame.duration = 3600;
    position_ = (position_ + length) % size;
    placed_++;
  }

  // Writes raw bytes as one picture (for the byte-level tests).
  void PlaceBytes(const std::vector<uint8_t>& bytes, uint32_t at, video_frame_t& frame) {
    frame = video_frame_t();
    uint32_t size = (uint32_t)ring_.size();
    for (size_t i = 0; i < bytes.size(); i++) ring_[(at + i) % size] = bytes[i];
    frame.ringBase = ring_.data();
    frame.ringSize = size;
    frame.offset = at;
    frame.length = (uint32_t)bytes.size();
    frame.isContiguous = at + bytes.size() <= size ? 1 : 0;
    frame.codecInfo = frame.auxInfo;
  }

  uint32_t wrapped() const { return wrapped_; }
  uint8_t* data() { return ring_.data(); }

 private:
  std::vector<uint8_t> ring_;
  uint32_t position_;
  uint32_t placed_;
  uint32_t wrapped_;
};

inline audio_frame_t MakeAudioFrame(std::vector<uint8_t>& payload, int64_t pts,
                                    uint32_t timescale) {
  audio_frame_t frame;
  frame = audio_frame_t();
  frame.capacity = (uint32_t)payload.size();
  frame.payload = payload.data();
  frame.payloadLength = (uint32_t)payload.size();
  frame.pts = timestamp_t(pts, timescale);
  frame.duration = 1024;
  return frame;
}

// A stream description with every key present.
inline vesk::encoder::StreamInfo MakeStreamInfo(bool hasVideo, bool hasAudio) {
  vesk::encoder::StreamInfo info;
  info.NormalizeFields();
  info["streamName"] = "test";
  info["hasVideo"] = hasVideo;
  info["hasAudio"] = hasAudio;
  if (hasVideo) {
    info["videoWidth"] = (uint32_t)320;
    info["videoHeight"] = (uint32_t)240;
    info["videoFps"] = (uint8_t)25;
  }
  if (hasAudio) {
    info["audioChannels"] = (uint8_t)1;
    info["audioFrequency"] = (uint32_t)16000;
  }
  return info;
}

// A bound loopback UDP socket that receives what a stream sends.
class UdpPeer {
 public:
  UdpPeer() {
    fd_ = socket(AF_INET, SOCK_DGRAM, 0);
    int size = 8 * 1024 * 1024;
    setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
    struct sockaddr_in address;
    memset(&address, 0, sizeof(address));
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd_, (struct sockaddr*)&address, sizeof(address));
    socklen_t length = sizeof(address);
    getsockname(fd_, (struct sockaddr*)&address, &length);
    port_ = ntohs(address.sin_port);
  }
  ~UdpPeer() { close(fd_); }

  std::string Uri() const { return "udp://127.0.0.1:" + std::to_string(port_); }
  uint16_t port() const { return port_; }

  // The datagrams sent so far: waits (up to 5 s) until at least expected
  // have arrived, then takes whatever else is queued.
  std::vector<std::vector<uint8_t>> Receive(size_t expected) {
    std::vector<std::vector<uint8_t>> datagrams;
    std::vector<uint8_t> buffer(70000);
    for (;;) {
      ssize_t n = recv(fd_, buffer.data(), buffer.size(), MSG_DONTWAIT);
      if (n >= 0) {
        datagrams.emplace_back(buffer.begin(), buffer.begin() + n);
        continue;
      }
      if (datagrams.size() >= expected) break;
      struct pollfd p = {fd_, POLLIN, 0};
      if (poll(&p, 1, 5000) <= 0) break;
    }
    return datagrams;
  }

 private:
  int fd_;
  uint16_t port_;
};

}  // namespace test
}  // namespace vesk
