// Real frames through OutStream, ContainerFLV and TransportFile, checked by
// ffprobe and ffmpeg; and the file transport's two modes and failures.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <map>
#include <thread>

#include "basetransport.h"
#include "log_capture.h"
#include "outstream.h"
#include "stream_test_util.h"
#include "transportfile.h"
#include "vesk/encoder.h"
#include "vesk/variant/uri.h"

namespace vesk {
namespace test {
namespace {

using vesk::encoder::Encoder;
using vesk::encoder::message_part_t;
using vesk::encoder::message_t;
using vesk::encoder::internal::BaseTransport;
using vesk::encoder::internal::OutStream;
using vesk::encoder::internal::TransportFile;
using vesk::variant::URI;
using vesk::variant::Variant;

Variant StreamConfig(const std::string& type, const std::string& destination) {
  Variant config;
  config["type"] = type;
  config["destinations"][0u] = destination;
  config["parameters"].IsArray(false);
  return config;
}

// Waits until the writer has taken everything queued.
void WaitWriterIdle(TransportFile* transport) {
  for (int i = 0; i < 2000 && transport->GetPendingBytes() != 0; i++) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

// "key=value" lines of ffprobe, grouped per stream by codec_type.
std::map<std::string, std::map<std::string, std::string>> ProbeStreams(const std::string& path) {
  std::string out;
  RunCommand("ffprobe -v error -count_frames -show_entries "
             "stream=codec_type,codec_name,width,height,sample_rate,channels,nb_read_frames "
             "-of default=nw=1 '" + path + "' 2>&1",
             out);
  std::map<std::string, std::map<std::string, std::string>> streams;
  std::map<std::string, std::string> current;
  size_t start = 0;
  auto flush = [&]() {
    if (current.count("codec_type")) streams[current["codec_type"]] = current;
    current.clear();
  };
  while (start < out.size()) {
    size_t end = out.find('\n', start);
    if (end == std::string::npos) end = out.size();
    std::string line = out.substr(start, end - start);
    start = end + 1;
    size_t eq = line.find('=');
    if (eq == std::string::npos) continue;
    std::string key = line.substr(0, eq);
    if (key == "codec_name" && !current.empty()) flush();
    current[key] = line.substr(eq + 1);
  }
  flush();
  return streams;
}

TEST(FlvFile, RealFramesThroughContinuousFileAreReadByFfmpeg) {
  TempDir dir;
  std::vector<h264_picture_t> pictures = MakeH264(dir, 320, 240, 75, 25);
  std::vector<std::vector<uint8_t>> aac = MakeAac(dir, 16000, 3.0);
  ASSERT_EQ(pictures.size(), 75u);
  ASSERT_GT(aac.size(), 40u);
  // The first picture carries AUD, SPS, PPS, SEI and the IDR slice.
  ASSERT_TRUE(pictures[0].key);
  ASSERT_NE(pictures[0].nal[1], 0u);
  ASSERT_NE(pictures[0].nal[5], 0u);

  std::string path = dir.File("out.flv");
  Encoder encoder;
  OutStream stream(&encoder, 0);
  vesk::encoder::StreamInfo info = MakeStreamInfo(true, true);
  ASSERT_TRUE(stream.Configure(StreamConfig("flv", "file://" + path + "?continuous"), info));
  ASSERT_EQ(stream.GetTransports().size(), 1u);
  TransportFile* file = dynamic_cast<TransportFile*>(stream.GetTransports()[0]);
  ASSERT_NE(file, nullptr);
  ASSERT_TRUE(file->IsContinuous());

  // A ring smaller than a few pictures, so that several wrap around its end.
  TestRing ring(24000);
  size_t v = 0;
  size_t a = 0;
  while (v < pictures.size() || a < aac.size()) {
    // Interleave by presentation time: video at 25 fps, audio 1024 samples at 16 kHz.
    bool videoNext = a >= aac.size() ||
                     (v < pictures.size() && v * 40 * 16000 <= a * 1024 * 1000);
    if (videoNext) {
      video_frame_t frame;
      ring.Place(pictures[v], (int64_t)v * 3600, frame);
      ASSERT_TRUE(stream.FeedVideoFrame(&frame)) << v;
      v++;
    } else {
      audio_frame_t frame = MakeAudioFrame(aac[a], (int64_t)a * 1024, 16000);
      ASSERT_TRUE(stream.FeedAudioFrame(&frame)) << a;
      a++;
    }
  }
  EXPECT_GE(ring.wrapped(), 3u);
  WaitWriterIdle(file);
  stream.Close();

  std::vector<uint8_t> bytes = ReadWholeFile(path);
  ASSERT_GT(bytes.size(), 13u);
  EXPECT_EQ(std::string(bytes.begin(), bytes.begin() + 3), "FLV");
  EXPECT_EQ(bytes[4], 0x05);  // audio and video, plain format

  auto streams = ProbeStreams(path);
  ASSERT_EQ(streams.count("video"), 1u);
  ASSERT_EQ(streams.count("audio"), 1u);
  EXPECT_EQ(streams["video"]["codec_name"], "h264");
  EXPECT_EQ(streams["video"]["width"], "320");
  EXPECT_EQ(streams["video"]["height"], "240");
  EXPECT_EQ(streams["video"]["nb_read_frames"], std::to_string(pictures.size()));
  EXPECT_EQ(streams["audio"]["codec_name"], "aac");
  EXPECT_EQ(streams["audio"]["sample_rate"], "16000");
  EXPECT_EQ(streams["audio"]["channels"], "1");
  EXPECT_EQ(streams["audio"]["nb_read_frames"], std::to_string(aac.size()));

  std::string errors;
  EXPECT_EQ(RunCommand("ffmpeg -nostdin -v error -i '" + path + "' -f null - 2>&1", errors), 0);
  EXPECT_EQ(errors, "");
}

// Self-checking snapshots: a length word, then bytes derived from it.
std::vector<uint8_t> Snapshot(uint32_t length, uint8_t seed) {
  std::vector<uint8_t> bytes(length);
  bytes[0] = (uint8_t)(length >> 24);
  bytes[1] = (uint8_t)(length >> 16);
  bytes[2] = (uint8_t)(length >> 8);
  bytes[3] = (uint8_t)length;
  bytes[4] = seed;
  for (uint32_t i = 5; i < length; i++) bytes[i] = (uint8_t)(seed + i * 7);
  return bytes;
}

bool SnapshotWhole(const std::vector<uint8_t>& bytes) {
  if (bytes.size() < 5) return false;
  uint32_t length = ((uint32_t)bytes[0] << 24) | ((uint32_t)bytes[1] << 16) |
                    ((uint32_t)bytes[2] << 8) | bytes[3];
  if (length != bytes.size()) return false;
  for (uint32_t i = 5; i < length; i++) {
    if (bytes[i] != (uint8_t)(bytes[4] + i * 7)) return false;
  }
  return true;
}

TEST(FileTransport, OverwriteModeReaderNeverSeesPartialFile) {
  TempDir dir;
  std::string path = dir.File("snapshot.jpg");
  Encoder encoder;
  OutStream stream(&encoder, 0);
  vesk::encoder::StreamInfo info = MakeStreamInfo(true, false);
  ASSERT_TRUE(stream.Configure(StreamConfig("mjpg", "file://" + path), info));
  TransportFile* file = dynamic_cast<TransportFile*>(stream.GetTransports()[0]);
  ASSERT_NE(file, nullptr);
  ASSERT_FALSE(file->IsContinuous());

  std::atomic<bool> done(false);
  std::atomic<int> whole(0);
  std::atomic<int> partial(0);
  std::thread reader([&]() {
    for (;;) {
      bool last = done;  // one more read after the stream has stopped
      std::vector<uint8_t> bytes = ReadWholeFile(path);
      if (!bytes.empty()) {  // empty: not written yet
        if (SnapshotWhole(bytes)) {
          whole++;
        } else {
          partial++;
        }
      }
      if (last) break;
    }
  });

  TestRing ring(300000);
  uint32_t at = 0;
  std::vector<uint8_t> last;
  for (int i = 0; i < 300; i++) {
    // Sizes from 1 KiB to about 250 KiB; some snapshots wrap around the ring.
    last = Snapshot(1024 + (uint32_t)((i * 7919) % 250000), (uint8_t)i);
    video_frame_t frame;
    ring.PlaceBytes(last, at, frame);
    frame.isJpeg = 1;
    frame.isKeyFrame = 1;
    frame.pts = timestamp_t(i * 3600, 90000);
    ASSERT_TRUE(stream.FeedVideoFrame(&frame));
    at = (at + (uint32_t)last.size()) % 300000;
  }
  WaitWriterIdle(file);
  stream.Close();  // the writer finishes its batch, then stops
  done = true;
  reader.join();

  EXPECT_EQ(partial.load(), 0);
  EXPECT_GT(whole.load(), 0);
  // The newest snapshot survives.
  EXPECT_EQ(ReadWholeFile(path), last);
  struct stat st;
  EXPECT_NE(stat((path + ".tmp").c_str(), &st), 0);  // renamed over the target
}

message_t OnePartMessage(message_part_t& part, std::vector<uint8_t>& bytes) {
  part.data = bytes.data();
  part.length = bytes.size();
  message_t message;
  message.parts = &part;
  message.partCount = 1;
  message.totalLength = (uint32_t)bytes.size();
  return message;
}

BaseTransport* FileTransportFor(const std::string& text) {
  URI uri;
  if (!URI::FromString(text, true, uri)) return nullptr;
  return BaseTransport::GetInstance(nullptr, uri);
}

TEST(FileTransport, ModesParametersAndFailures) {
  TempDir dir;
  LogCapture log;

  // An empty "continuous" parameter selects continuous mode; the file is
  // truncated when the writer starts, before any message.
  std::string recording = dir.File("rec.bin");
  { std::ofstream(recording) << "old content"; }
  BaseTransport* continuous = FileTransportFor("file://" + recording + "?continuous=");
  ASSERT_NE(continuous, nullptr);
  TransportFile* file = static_cast<TransportFile*>(continuous);
  EXPECT_TRUE(file->IsContinuous());
  EXPECT_TRUE(continuous->Service());
  EXPECT_EQ(continuous->GetOutputBufferLevel(), 0);
  EXPECT_EQ(continuous->GetOutputBufferLevel(30), 30);
  EXPECT_EQ(continuous->GetOutputBufferLevel(250), 100);
  for (int i = 0; i < 2000; i++) {
    struct stat st;
    if (stat(recording.c_str(), &st) == 0 && st.st_size == 0) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  EXPECT_TRUE(ReadWholeFile(recording).empty());
  // Empty messages are ignored; the others are appended in order.
  EXPECT_TRUE(continuous->SendMessage(nullptr));
  message_t empty = {nullptr, 0, 0};
  EXPECT_TRUE(continuous->SendMessage(&empty));
  std::vector<uint8_t> first = {1, 2, 3};
  std::vector<uint8_t> second = {4, 5};
  message_part_t part;
  message_t message = OnePartMessage(part, first);
  EXPECT_TRUE(continuous->SendMessage(&message));
  message = OnePartMessage(part, second);
  EXPECT_TRUE(continuous->SendMessage(&message));
  WaitWriterIdle(file);
  delete continuous;
  EXPECT_EQ(ReadWholeFile(recording), (std::vector<uint8_t>{1, 2, 3, 4, 5}));

  // Continuous mode that cannot open its file: the writer ends, messages
  // are accepted and dropped.
  log.Clear();
  std::string missing = dir.File("no_such_dir/rec.bin");
  BaseTransport* broken = FileTransportFor("file://" + missing + "?continuous=0");
  ASSERT_NE(broken, nullptr);
  TransportFile* brokenFile = static_cast<TransportFile*>(broken);
  for (int i = 0; i < 2000 && !brokenFile->IsFinished(); i++) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  ASSERT_TRUE(brokenFile->IsFinished());
  EXPECT_TRUE(log.Has("Unable to open file `" + missing + "`"));
  message = OnePartMessage(part, first);
  EXPECT_TRUE(broken->SendMessage(&message));
  EXPECT_EQ(brokenFile->GetPendingBytes(), 0u);
  delete broken;

  // Overwrite mode that cannot open its temporary file warns and goes on.
  log.Clear();
  BaseTransport* snapshot = FileTransportFor("file://" + missing);
  ASSERT_NE(snapshot, nullptr);
  message = OnePartMessage(part, first);
  EXPECT_TRUE(snapshot->SendMessage(&message));
  std::string expected = "Unable to open file `" + missing + ".tmp`";
  for (int i = 0; i < 2000 && !log.Has(expected); i++) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  EXPECT_TRUE(log.Has(expected));
  EXPECT_FALSE(static_cast<TransportFile*>(snapshot)->IsFinished());
  for (auto& line : log.Lines()) {
    if (line.message == expected) {
      EXPECT_EQ(line.priority, VESK_PRIO_WARNING);
      EXPECT_EQ(line.errorValue, ENOENT);
    }
  }
  delete snapshot;
}

TEST(FileTransport, QueueBoundDropsMessagesWithWarning) {
  // A FIFO nobody reads: the writer blocks on its first batch and the queue
  // fills up.
  TempDir dir;
  std::string fifo = dir.File("slow.fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  LogCapture log;
  BaseTransport* transport = FileTransportFor("file://" + fifo + "?continuous");
  ASSERT_NE(transport, nullptr);
  TransportFile* file = static_cast<TransportFile*>(transport);

  std::vector<uint8_t> megabyte(1 << 20, 0x5A);
  message_part_t part;
  message_t message = OnePartMessage(part, megabyte);
  const std::string warning = "Frames are skipped! The current disk I/O throughput is not enough!";
  // The writer takes the first message and blocks writing it.
  EXPECT_TRUE(transport->SendMessage(&message));
  WaitWriterIdle(file);
  ASSERT_EQ(file->GetPendingBytes(), 0u);
  // Four more fill the queue to the bound; the fifth is dropped.
  int sent = 0;
  while (!log.Has(warning) && sent < 64) {
    EXPECT_TRUE(transport->SendMessage(&message));
    sent++;
  }
  ASSERT_TRUE(log.Has(warning));
  EXPECT_EQ(sent, 5);
  EXPECT_EQ(file->GetPendingBytes(), TransportFile::kMaxPendingBytes);
  EXPECT_TRUE(transport->SendMessage(&message));
  EXPECT_EQ(log.Count(warning), 2u);
  EXPECT_EQ(file->GetPendingBytes(), TransportFile::kMaxPendingBytes);

  // A reader drains the FIFO so that the writer can stop.
  std::thread drain([&]() {
    int fd = open(fifo.c_str(), O_RDONLY);
    std::vector<uint8_t> chunk(65536);
    while (read(fd, chunk.data(), chunk.size()) > 0) {
    }
    close(fd);
  });
  delete transport;
  drain.join();
}

}  // namespace
}  // namespace test
}  // namespace vesk
