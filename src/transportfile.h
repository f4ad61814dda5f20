// Writes a stream's messages into a local file from a writer thread of its
// own ("file_transport"). Continuous mode appends everything to one file,
// truncated when the thread starts; overwrite mode (the default) keeps only
// the newest message, written beside the target and renamed over it, so that
// a reader never sees a partial file.
#pragma once

#include <string>

#include "basetransport.h"
#include "thread.h"
#include "vesk/utils/iobuffer.h"

namespace vesk {
namespace encoder {
namespace internal {

class TransportFile : public BaseTransport, public Thread {
 public:
  // The queue bound: past it, messages are dropped with a warning.
  static constexpr uint32_t kMaxPendingBytes = 4194304;

  explicit TransportFile(OutStream* outStream);
  ~TransportFile() override;

  bool Initialize(vesk::variant::URI& uri) override;
  vesk::variant::URI& GetURI() override { return uri_; }
  bool Service() override { return true; }
  bool SendMessage(const message_t* message) override;
  uint8_t GetOutputBufferLevel() override { return 0; }
  using BaseTransport::GetOutputBufferLevel;

  void SetMustExit(bool mustExit) override;
  void Work() override;

  bool IsContinuous() const { return continuous_; }
  // Bytes queued and not yet taken by the writer (mutex taken here).
  uint32_t GetPendingBytes();
  // Whether the writer loop has ended (mutex taken here).
  bool IsFinished();

 private:
  // Both run on the writer thread; the mutex is taken only for the swaps.
  void DoContinuousWrite(const std::string& path);
  void DoOverwrite(const std::string& tmpPath, const std::string& path);
  // Takes the whole pending queue into batch: false when the exit is requested.
  bool TakePending(vesk::utils::IOBuffer& batch);
  // Writes the whole batch to fd: false on the first failed write.
  static bool WriteAll(int fd, vesk::utils::IOBuffer& batch);

  bool mustExit_;             // mutex
  std::string tmpPath_;
  std::string path_;
  bool continuous_;
  vesk::utils::IOBuffer pending_;  // mutex
  bool finished_;             // mutex
  vesk::variant::URI uri_;
};

}  // namespace internal
}  // namespace encoder
}  // namespace vesk
