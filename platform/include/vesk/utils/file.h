// A plain file on disk, read or written in whole buffers.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

namespace vesk {
namespace utils {

enum FILE_OPEN_MODE {
  FILE_OPEN_MODE_READ = 0,
  FILE_OPEN_MODE_TRUNCATE = 1,
  FILE_OPEN_MODE_APPEND = 2,
};

class File {
 public:
  File();
  ~File();
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  // Opens path; bufferSize sets the stdio buffer (0 keeps the default).
  bool Initialize(const std::string& path, FILE_OPEN_MODE mode, uint32_t bufferSize = 0);
  // Reads exactly size bytes; false on a short read.
  bool ReadBuffer(uint8_t* buffer, uint64_t size);
  bool WriteBuffer(const uint8_t* buffer, uint64_t size);
  bool Flush();
  // The file's size in bytes (0 when not open).
  uint64_t Size();
  bool IsOpen() const { return file_ != nullptr; }
  void Close();

 private:
  FILE* file_;
  std::string path_;
};

}  // namespace utils
}  // namespace vesk
