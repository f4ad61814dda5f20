// Stream test helpers: scratch dirs, ffmpeg-made H.264/AAC, a driver-like
// bitstream ring, a loopback UDP peer, ffprobe/ffmpeg checks, a vesk parser.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "shell_util.h"
#include "vesk/records.h"
#include "vesk/streaminfo.h"

namespace vesk::test {

using vesk::encoder::audio_frame_t;
using vesk::encoder::timestamp_t;
using vesk::encoder::video_frame_t;

inline std::vector<uint8_t> ReadWholeFile(const std::string& path) {
  std::string bytes = ReadFile(path);
  return std::vector<uint8_t>(bytes.begin(), bytes.end());
}

class TempDir {
 public:
  TempDir() {
    char pattern[] = "/tmp/vesk_streams_XXXXXX";
    path_ = mkdtemp(pattern);
  }
  ~TempDir() { RunCommand("rm -rf '" + path_ + "'"); }
  std::string File(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

inline std::string ProbeStreams(const std::string& path, const std::string& format = "") {
  return RunCommand("ffprobe -v error " + format + " -count_frames -show_entries stream=codec_name,"
                    "width,height,sample_rate,channels,nb_read_frames -of csv=p=0 '" + path + "' 2>&1");
}

inline std::string DecodeErrors(const std::string& path, const std::string& format = "") {
  return RunCommand("ffmpeg -nostdin -v error " + format + " -i '" + path + "' -f null - 2>&1");
}

struct h264_picture_t {
  std::vector<uint8_t> bytes;
  uint32_t nal[9];
  bool key;
};

// Splits Annex B into access units at each delimiter, with 4-byte start codes
// and the driver's NAL map (SPS, PPS, SEI, AUD offset/length; slice offset).
inline std::vector<h264_picture_t> SplitAccessUnits(const std::vector<uint8_t>& es) {
  std::vector<std::pair<size_t, size_t>> units;
  size_t start = SIZE_MAX;
  for (size_t i = 0; i + 3 <= es.size(); i++) {
    if (es[i] != 0 || es[i + 1] != 0 || es[i + 2] != 1) continue;
    if (start != SIZE_MAX) units.push_back({start, (i > 0 && es[i - 1] == 0) ? i - 1 : i});
    start = i + 3;
    i += 2;
  }
  if (start != SIZE_MAX) units.push_back({start, es.size()});
  std::vector<h264_picture_t> pictures;
  for (auto& unit : units) {
    uint8_t type = es[unit.first] & 0x1F;
    if (type == 9 || pictures.empty()) pictures.push_back({{}, {0}, false});
    h264_picture_t& picture = pictures.back();
    uint32_t offset = (uint32_t)picture.bytes.size();
    picture.bytes.insert(picture.bytes.end(), {0, 0, 0, 1});
    picture.bytes.insert(picture.bytes.end(), es.begin() + unit.first, es.begin() + unit.second);
    int slot = type == 7 ? 0 : type == 8 ? 2 : type == 6 ? 4 : type == 9 ? 6 : -1;
    if (slot >= 0 && picture.nal[slot + 1] == 0) {
      picture.nal[slot] = offset;
      picture.nal[slot + 1] = (uint32_t)(4 + unit.second - unit.first);
    } else if ((type == 1 || type == 5) && picture.nal[8] == 0) {
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
  int status = -1;
  RunCommand("ffmpeg -nostdin -v error -y -f lavfi -i testsrc=size=" + std::to_string(width) + "x" +
                 std::to_string(height) + ":rate=25 -frames:v " + std::to_string(frames) +
                 " -c:v libx264 -preset ultrafast -threads 1 -bf 0 -g " + std::to_string(gop) +
                 " -x264-params aud=1:scenecut=0 -f h264 '" + path + "' 2>&1", &status);
  return status != 0 ? std::vector<h264_picture_t>() : SplitAccessUnits(ReadWholeFile(path));
}

// AAC access units, each with its 7-byte ADTS header.
inline std::vector<std::vector<uint8_t>> MakeAac(const TempDir& dir, int sampleRate,
                                                 double seconds) {
  std::string path = dir.File("audio.aac");
  int status = -1;
  RunCommand("ffmpeg -nostdin -v error -y -f lavfi -i sine=f=440:sample_rate=" +
                 std::to_string(sampleRate) + " -t " + std::to_string(seconds) +
                 " -c:a aac -b:a 32k -ac 1 -f adts '" + path + "' 2>&1", &status);
  std::vector<uint8_t> adts = status == 0 ? ReadWholeFile(path) : std::vector<uint8_t>();
  std::vector<std::vector<uint8_t>> frames;
  size_t pos = 0;
  while (pos + 7 <= adts.size() && adts[pos] == 0xFF && (adts[pos + 1] & 0xF0) == 0xF0) {
    size_t length =
        ((size_t)(adts[pos + 3] & 3) << 11) | ((size_t)adts[pos + 4] << 3) | (adts[pos + 5] >> 5);
    if (length < 7 || pos + length > adts.size()) break;
    frames.emplace_back(adts.begin() + pos, adts.begin() + pos + length);
    pos += length;
  }
  return frames;
}

// The video driver's bitstream ring: pictures follow each other and wrap.
class TestRing {
 public:
  explicit TestRing(uint32_t size) : ring_(size, 0) {}

  // Non-key maps go to auxInfo with nalMap poisoned; every fifth unwrapped
  // picture gets an offset beyond the ring's end.
  void Place(const h264_picture_t& picture, int64_t pts, video_frame_t& frame) {
    PlaceBytes(picture.bytes, position_, frame);
    if (!frame.isContiguous) wrapped_++;
    if (frame.isContiguous && placed_ % 5 == 4) {
      frame.offset += (uint32_t)ring_.size();
      frame.isContiguous = 0;
    }
    frame.isKeyFrame = picture.key ? 1 : 0;
    frame.pictureType = picture.key ? 1 : 3;
    memset(frame.nalMap, 0xEE, sizeof(frame.nalMap));
    frame.codecInfo = picture.key ? frame.nalMap : frame.auxInfo;
    memcpy(frame.codecInfo, picture.nal, sizeof(frame.nalMap));
    frame.pts = timestamp_t(pts, 90000);
    frame.dts = frame.pts;
    frame.ptsDtsDelta = timestamp_t(0, 90000);
    frame.duration = 3600;
    position_ = (position_ + frame.length) % (uint32_t)ring_.size();
    placed_++;
  }

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
  uint32_t position_ = 0, placed_ = 0, wrapped_ = 0;
};

inline audio_frame_t MakeAudioFrame(std::vector<uint8_t>& payload, int64_t pts,
                                    uint32_t timescale) {
  audio_frame_t frame = audio_frame_t();
  frame.capacity = frame.payloadLength = (uint32_t)payload.size();
  frame.payload = payload.data();
  frame.pts = timestamp_t(pts, timescale);
  frame.duration = 1024;
  return frame;
}

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

inline vesk::variant::Variant StreamConfig(const std::string& type,
                                          const std::vector<std::string>& destinations) {
  vesk::variant::Variant config;
  config["type"] = type;
  for (size_t i = 0; i < destinations.size(); i++) config["destinations"][(uint32_t)i] = destinations[i];
  config["parameters"].IsArray(false);
  return config;
}

class UdpPeer {
 public:
  UdpPeer() {
    fd_ = socket(AF_INET, SOCK_DGRAM, 0);
    int size = 8 * 1024 * 1024;
    setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
    struct sockaddr_in address = {AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    bind(fd_, (struct sockaddr*)&address, sizeof(address));
    socklen_t length = sizeof(address);
    getsockname(fd_, (struct sockaddr*)&address, &length);
    port_ = ntohs(address.sin_port);
  }
  ~UdpPeer() { close(fd_); }
  std::string Uri() const { return "udp://127.0.0.1:" + std::to_string(port_); }
  uint16_t port() const { return port_; }

  // Waits (up to 5 s) for expected datagrams, plus whatever else is queued.
  std::vector<std::vector<uint8_t>> Receive(size_t expected) {
    std::vector<std::vector<uint8_t>> datagrams;
    std::vector<uint8_t> buffer(70000);
    for (;;) {
      ssize_t n = recv(fd_, buffer.data(), buffer.size(), MSG_DONTWAIT);
      if (n >= 0) {
        datagrams.emplace_back(buffer.begin(), buffer.begin() + n);
        continue;
      }
      struct pollfd p = {fd_, POLLIN, 0};
      if (datagrams.size() >= expected || poll(&p, 1, 5000) <= 0) break;
    }
    return datagrams;
  }

 private:
  int fd_;
  uint16_t port_;
};

struct vesk_packet_t {
  uint16_t channel, flags, sequence;
  uint64_t pts;
  uint32_t total;  // whole frame's length, on a first packet that is not also last
  const uint8_t* chunk;
  uint32_t chunkLength;
};

inline uint32_t Be32(const uint8_t* p) { uint32_t v; memcpy(&v, p, 4); return ntohl(v); }

// The packet's padded size; 0: more bytes needed; -1: bad check byte or chunk length.
inline long ParseVeskPacket(const uint8_t* p, size_t available, vesk_packet_t& packet) {
  packet = vesk_packet_t();
  if (available < 8) return 0;
  if (p[0] != 0xA0 || (p[0] ^ p[1] ^ p[2]) != p[3]) return -1;
  uint16_t f = packet.flags = (uint16_t)((p[4] << 8) | p[5]);
  packet.channel = (uint16_t)((p[1] << 8) | p[2]);
  packet.sequence = (uint16_t)((p[6] << 8) | p[7]);
  size_t at = 8 + ((f & 0xFF) == 1 ? 4 : 0);  // explicit timescale
  size_t need = at + ((f & 0x0800) ? ((f & 0x0400) ? 8 : 4) : 0) + ((f & 0x0200) ? 4 : 0) +
                (((f & 0x8000) && !(f & 0x4000)) ? 4 : 0) + 4;
  if (need > available) return 0;
  if (f & 0x0800) {
    packet.pts = (f & 0x0400) ? ((uint64_t)Be32(p + at) << 32) | Be32(p + at + 4) : Be32(p + at);
    at += (f & 0x0400) ? 8 : 4;
  }
  if (f & 0x0200) at += 4;  // composition offset
  if ((f & 0x8000) && !(f & 0x4000)) {
    packet.total = Be32(p + at);
    at += 4;
  }
  packet.chunkLength = Be32(p + at);
  packet.chunk = p + at + 4;
  if (packet.chunkLength > 1400) return -1;
  size_t end = at + 4 + ((packet.chunkLength + 3) & ~3u);
  return end > available ? 0 : (long)end;
}

}  // namespace vesk::test
