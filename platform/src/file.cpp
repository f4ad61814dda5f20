#include "vesk/utils/file.h"

#include <sys/stat.h>

namespace vesk {
namespace utils {

File::File() : file_(nullptr) {}

File::~File() { Close(); }

bool File::Initialize(const std::string& path, FILE_OPEN_MODE mode, uint32_t bufferSize) {
  Close();
  const char* how = mode == FILE_OPEN_MODE_READ ? "rb" : mode == FILE_OPEN_MODE_APPEND ? "ab" : "wb";
  file_ = fopen(path.c_str(), how);
  if (file_ == nullptr) return false;
  if (bufferSize > 0) setvbuf(file_, nullptr, _IOFBF, bufferSize);
  path_ = path;
  return true;
}

bool File::ReadBuffer(uint8_t* buffer, uint64_t size) {
  if (file_ == nullptr) return false;
  return fread(buffer, 1, (size_t)size, file_) == (size_t)size;
}

bool File::WriteBuffer(const uint8_t* buffer, uint64_t size) {
  if (file_ == nullptr) return false;
  return fwrite(buffer, 1, (size_t)size, file_) == (size_t)size;
}

bool File::Flush() { return file_ != nullptr && fflush(file_) == 0; }

uint64_t File::Size() {
  if (file_ == nullptr) return 0;
  fflush(file_);
  struct stat st;
  if (fstat(fileno(file_), &st) != 0) return 0;
  return (uint64_t)st.st_size;
}

void File::Close() {
  if (file_ != nullptr) fclose(file_);
  file_ = nullptr;
  path_.clear();
}

}  // namespace utils
}  // namespace vesk
