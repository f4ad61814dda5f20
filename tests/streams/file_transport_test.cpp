// The file transport: snapshots replaced whole, continuous recordings, its
// failures and its queue bound.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <atomic>
#include <memory>

#include "basetransport.h"
#include "log_capture.h"
#include "outstream.h"
#include "stream_test_util.h"
#include "tcp_peer_util.h"
#include "transportfile.h"
#include "vesk/encoder.h"
#include "vesk/variant/uri.h"

namespace vesk::test {
namespace {

using vesk::encoder::Encoder;
using vesk::encoder::message_part_t;
using vesk::encoder::message_t;
using vesk::encoder::internal::BaseTransport;
using vesk::encoder::internal::OutStream;
using vesk::encoder::internal::TransportFile;
using vesk::variant::URI;
using vesk::variant::Variant;

void WaitWriterIdle(TransportFile* transport) {
  WaitUntil([&] { return transport->GetPendingBytes() == 0; }, 10000, 5);
}

// Self-checking snapshots: a length word, a seed, then bytes derived from it.
std::vector<uint8_t> Snapshot(uint32_t length, uint8_t seed) {
  std::vector<uint8_t> bytes(length);
  for (uint32_t i = 4; i < length; i++) bytes[i] = (uint8_t)(seed + (i - 4) * 7);
  for (int i = 0; i < 4; i++) bytes[i] = (uint8_t)(length >> (24 - 8 * i));
  return bytes;
}

bool SnapshotWhole(const std::vector<uint8_t>& bytes) {
  return bytes.size() >= 5 && Snapshot(Be32(bytes.data()), bytes[4]) == bytes;
}

TEST(FileTransport, OverwriteModeReaderNeverSeesPartialFile) {
  TempDir dir;
  std::string path = dir.File("snapshot.jpg");
  Encoder encoder;
  OutStream stream(&encoder, 0);
  vesk::encoder::StreamInfo info = MakeStreamInfo(true, false);
  ASSERT_TRUE(stream.Configure(StreamConfig("mjpg", {"file://" + path}), info));
  TransportFile* file = dynamic_cast<TransportFile*>(stream.GetTransports().at(0));
  ASSERT_TRUE(file != nullptr && !file->IsContinuous());

  std::atomic<bool> done(false);
  std::atomic<int> whole(0);
  std::atomic<int> partial(0);
  std::thread reader([&]() {
    for (;;) {
      bool last = done;  // one more read after the stream has stopped
      std::vector<uint8_t> bytes = ReadWholeFile(path);
      if (!bytes.empty()) (SnapshotWhole(bytes) ? whole : partial)++;
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

std::unique_ptr<TransportFile> FileTransportFor(const std::string& text) {
  URI uri;
  if (!URI::FromString(text, true, uri)) return nullptr;
  return std::unique_ptr<TransportFile>(
      static_cast<TransportFile*>(BaseTransport::GetInstance(nullptr, uri)));
}

TEST(FileTransport, ModesParametersAndFailures) {
  TempDir dir;
  LogCapture log;
  std::vector<uint8_t> first = {1, 2, 3}, second = {4, 5};
  message_part_t parts[2] = {{first.data(), 3}, {second.data(), 2}};
  message_t one = {parts, 1, 3}, two = {parts + 1, 1, 2}, empty = {nullptr, 0, 0};

  // An empty "continuous" parameter selects continuous mode; the file is
  // truncated when the writer starts; empty messages are ignored.
  std::string recording = dir.File("rec.bin");
  { std::ofstream(recording) << "old content"; }
  auto file = FileTransportFor("file://" + recording + "?continuous=");
  ASSERT_TRUE(file != nullptr && file->IsContinuous());
  EXPECT_TRUE(WaitUntil([&] { return ReadWholeFile(recording).empty(); }, 10000));
  EXPECT_TRUE(file->SendMessage(nullptr));
  EXPECT_TRUE(file->SendMessage(&empty));
  EXPECT_TRUE(file->SendMessage(&one));
  EXPECT_TRUE(file->SendMessage(&two));
  WaitWriterIdle(file.get());
  file.reset();
  EXPECT_EQ(ReadWholeFile(recording), (std::vector<uint8_t>{1, 2, 3, 4, 5}));

  // Continuous mode that cannot open its file: the writer ends, messages
  // are accepted and dropped.
  std::string missing = dir.File("no_such_dir/rec.bin");
  file = FileTransportFor("file://" + missing + "?continuous=0");
  ASSERT_TRUE(WaitUntil([&] { return file->IsFinished(); }, 10000));
  EXPECT_TRUE(log.Has("Unable to open file `" + missing + "`"));
  EXPECT_TRUE(file->SendMessage(&one));
  EXPECT_EQ(file->GetPendingBytes(), 0u);

  // Overwrite mode that cannot open its temporary file warns and goes on.
  log.Clear();
  file = FileTransportFor("file://" + missing);
  EXPECT_TRUE(file->SendMessage(&one));
  std::string expected = "Unable to open file `" + missing + ".tmp`";
  ASSERT_TRUE(WaitUntil([&] { return log.Has(expected); }, 10000));
  for (auto& line : log.Lines()) {
    if (line.message != expected) continue;
    EXPECT_EQ(std::make_pair((int)line.priority, (int)line.errorValue),
              std::make_pair((int)VESK_PRIO_WARNING, (int)ENOENT));
  }
  EXPECT_FALSE(file->IsFinished());
}

TEST(FileTransport, QueueBoundDropsMessagesWithWarning) {
  // A FIFO nobody reads: the writer blocks on its first batch and the queue fills up.
  TempDir dir;
  std::string fifo = dir.File("slow.fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  LogCapture log;
  auto file = FileTransportFor("file://" + fifo + "?continuous");
  std::vector<uint8_t> megabyte(1 << 20, 0x5A);
  message_part_t part = {megabyte.data(), megabyte.size()};
  message_t message = {&part, 1, (uint32_t)megabyte.size()};
  const std::string warning = "Frames are skipped! The current disk I/O throughput is not enough!";
  // The writer blocks on the first; four more fill the queue; the fifth is dropped.
  EXPECT_TRUE(file->SendMessage(&message));
  WaitWriterIdle(file.get());
  ASSERT_EQ(file->GetPendingBytes(), 0u);
  int sent = 0;
  for (; !log.Has(warning) && sent < 64; sent++) EXPECT_TRUE(file->SendMessage(&message));
  EXPECT_EQ(sent, 5);
  EXPECT_EQ(file->GetPendingBytes(), TransportFile::kMaxPendingBytes);
  EXPECT_TRUE(file->SendMessage(&message));
  EXPECT_EQ(log.Count(warning), 2u);
  EXPECT_EQ(file->GetPendingBytes(), TransportFile::kMaxPendingBytes);

  std::thread drain([&]() { RunCommand("cat '" + fifo + "' >/dev/null"); });  // lets the writer stop
  file.reset();
  drain.join();
}

}  // namespace
}  // namespace vesk::test
