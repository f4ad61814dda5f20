#include "transportfile.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include "vlog.h"

namespace vesk {
namespace encoder {
namespace internal {

using vesk::utils::IOBuffer;

TransportFile::TransportFile(OutStream* outStream)
    : BaseTransport(outStream), Thread("file_transport"), mustExit_(false), continuous_(false),
      finished_(false) {}

TransportFile::~TransportFile() { StopThread(); }

bool TransportFile::Initialize(vesk::variant::URI& uri) {
  uri_ = uri;
  path_ = GetUriString(uri_, "fullDocumentPath");
  tmpPath_ = path_ + ".tmp";
  // Any "continuous" parameter selects continuous mode, whatever its value.
  const vesk::variant::Variant& parameters = uri_["parameters"];
  continuous_ = parameters.IsContainer() && parameters.HasKey("continuous");
  return StartThread() == 0;
}

uint32_t TransportFile::GetPendingBytes() {
  pthread_mutex_lock(&mutex_);
  uint32_t bytes = pending_.GetAvailable();
  pthread_mutex_unlock(&mutex_);
  return bytes;
}

bool TransportFile::IsFinished() {
  pthread_mutex_lock(&mutex_);
  bool finished = finished_;
  pthread_mutex_unlock(&mutex_);
  return finished;
}

bool TransportFile::SendMessage(const message_t* message) {
  if (message == nullptr || message->IsEmpty()) return true;
  pthread_mutex_lock(&mutex_);
  if (finished_) {
    pthread_mutex_unlock(&mutex_);
    return true;
  }
  // Overwrite mode keeps only the newest message.
  if (!continuous_) pending_.IgnoreAll();
  if (pending_.GetAvailable() < kMaxPendingBytes) {
    pending_.ReadFromBuffer(message->AsIovec(), (int)message->partCount, message->totalLength);
    pthread_mutex_unlock(&mutex_);
    return Notify() == 0;
  }
  VLOG_WARN("Frames are skipped! The current disk I/O throughput is not enough!");
  pthread_mutex_unlock(&mutex_);
  return true;
}

void TransportFile::SetMustExit(bool mustExit) {
  pthread_mutex_lock(&mutex_);
  mustExit_ = mustExit;
  pthread_mutex_unlock(&mutex_);
  if (mustExit) Notify();
}

void TransportFile::Work() {
  pthread_mutex_lock(&mutex_);
  finished_ = false;
  std::string tmpPath = tmpPath_;
  std::string path = path_;
  bool continuous = continuous_;
  pthread_mutex_unlock(&mutex_);

  if (continuous) {
    DoContinuousWrite(path);
  } else {
    DoOverwrite(tmpPath, path);
  }

  pthread_mutex_lock(&mutex_);
  finished_ = true;
  pthread_mutex_unlock(&mutex_);
}

bool TransportFile::TakePending(IOBuffer& batch) {
  batch.IgnoreAll();
  pthread_mutex_lock(&mutex_);
  bool mustExit = mustExit_;
  batch.Swap(pending_);
  pthread_mutex_unlock(&mutex_);
  return !mustExit;
}

bool TransportFile::WriteAll(int fd, IOBuffer& batch) {
  while (batch.GetAvailable() > 0) {
    int amount = 0;
    if (!batch.WriteToFd(fd, batch.GetAvailable(), amount)) {
      errno = amount;
      return false;
    }
    if (amount == 0) {
      errno = EIO;
      return false;
    }
  }
  return true;
}

void TransportFile::DoContinuousWrite(const std::string& path) {
  // A regular file is replaced, not truncated in place: a writer of a stream
  // being rebuilt that still finishes a write into it cannot leave a hole and
  // its old tail in the new recording.
  struct stat existing;
  if (stat(path.c_str(), &existing) == 0 && S_ISREG(existing.st_mode)) unlink(path.c_str());
  int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (fd < 0) {
    VLOG_ERRNO(VESK_PRIO_ERROR, errno, "Unable to open file `%s`", path.c_str());
    return;
  }
  IOBuffer batch;
  for (;;) {
    // What was taken together with the exit request is not written.
    if (!TakePending(batch)) break;
    if (batch.GetAvailable() == 0) {
      Wait(1000);
      continue;
    }
    if (!WriteAll(fd, batch)) break;
  }
  close(fd);
}

void TransportFile::DoOverwrite(const std::string& tmpPath, const std::string& path) {
  IOBuffer batch;
  for (;;) {
    if (!TakePending(batch)) break;
    if (batch.GetAvailable() == 0) {
      Wait(1000);
      continue;
    }
    int fd = open(tmpPath.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0) {
      VLOG_ERRNO(VESK_PRIO_WARNING, errno, "Unable to open file `%s`", tmpPath.c_str());
      continue;
    }
    if (!WriteAll(fd, batch)) {
      VLOG_ERRNO(VESK_PRIO_WARNING, errno, "Unable to write to file `%s`", tmpPath.c_str());
      close(fd);
      continue;
    }
    close(fd);
    if (rename(tmpPath.c_str(), path.c_str()) != 0) {
      VLOG_ERRNO(VESK_PRIO_WARNING, errno, "Unable to move file from `%s` to `%s`",
                 tmpPath.c_str(), path.c_str());
    }
  }
}

}  // namespace internal
}  // namespace encoder
}  // namespace vesk
