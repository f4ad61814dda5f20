// Captures the library's log lines in a test so that exact texts can be asserted.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "vesk/host/log.h"

namespace vesk {
namespace test {

struct captured_line_t {
  int priority;
  int errorValue;
  std::string sourceFile;
  std::string function;
  std::string message;
};

class LogCapture {
 public:
  LogCapture() { logSetHook(&LogCapture::Hook, this); }
  ~LogCapture() { logSetHook(nullptr, nullptr); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<captured_line_t> Lines() {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }
  std::vector<std::string> Messages() {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> out;
    for (auto& l : lines_) out.push_back(l.message);
    return out;
  }
  // True when some line's message equals text exactly.
  bool Has(const std::string& text) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto& l : lines_)
      if (l.message == text) return true;
    return false;
  }
  // True when some line's message contains text.
  bool Contains(const std::string& text) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto& l : lines_)
      if (l.message.find(text) != std::string::npos) return true;
    return false;
  }
  size_t Count(const std::string& text) {
    std::lock_guard<std::mutex> lock(mutex_);
    size_t n = 0;
    for (auto& l : lines_)
      if (l.message == text) n++;
    return n;
  }
  void Clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
  }

 private:
  static void Hook(const vesk_log_record_t* record, void* context) {
    LogCapture* self = static_cast<LogCapture*>(context);
    std::lock_guard<std::mutex> lock(self->mutex_);
    self->lines_.push_back({record->priority, record->errorValue, record->sourceFile,
                            record->function, record->message});
  }
  std::mutex mutex_;
  std::vector<captured_line_t> lines_;
};

}  // namespace test
}  // namespace vesk
