// What the control socket's requests do: each line is one JSON object with one
// key naming the request, applied to the Encoder on the pump thread.
//   {"ChangeVideoSettings": {...}}  Encoder::UpdateSettings
//   {"RestartStreams": {...}}       Encoder::RestartStreams
//   {"ForceIDR": true}              Encoder::ForceIDR
//   {"OSDStats": LEVEL}             Encoder::GetChannelsOSDStats -> "lines"
//   {"Settings": true}              Encoder::GetCurrentSettings -> "settings"
// Every answer is one JSON object: "ok" true or false, "error" when false,
// the data asked for, and "log": the library's lines (info and above) that
// the request caused on the pump thread (caught through the log hook, which
// this class holds while a request runs: the host sets no other).
#pragma once

#include <pthread.h>

#include <string>
#include <vector>

#include "control_socket.h"
#include "vesk/encoder.h"
#include "vesk/host/log.h"

namespace vesk {
namespace camera {

class ControlRequests : public ControlSocket::Handler {
 public:
  // Log lines kept per answer; the rest are only printed.
  static constexpr size_t kMaxLogLines = 64;

  // Must be built on the thread that calls Answer (the pump thread).
  explicit ControlRequests(vesk::encoder::Encoder& encoder);

  std::string Answer(const std::string& line) override;
  std::string Refusal(const std::string& error) override;

 private:
  typedef bool (ControlRequests::*apply_t)(const vesk::variant::Variant& value, vesk::variant::Variant& answer,
                                           std::string& error);
  struct request_t {
    const char* name;
    apply_t apply;
  };
  static const request_t kRequests[];

  bool ChangeVideoSettings(const vesk::variant::Variant& value, vesk::variant::Variant& answer, std::string& error);
  bool RestartStreams(const vesk::variant::Variant& value, vesk::variant::Variant& answer, std::string& error);
  bool ForceIDR(const vesk::variant::Variant& value, vesk::variant::Variant& answer, std::string& error);
  bool OSDStats(const vesk::variant::Variant& value, vesk::variant::Variant& answer, std::string& error);
  bool Settings(const vesk::variant::Variant& value, vesk::variant::Variant& answer, std::string& error);

  // The encoder refused: the error names the call and its last error line.
  std::string Refused(const char* call) const;
  static void Capture(const vesk_log_record_t* record, void* context);

  vesk::encoder::Encoder& encoder_;
  pthread_t pumpThread_;
  struct captured_t {
    int priority;
    std::string message;
  };
  std::vector<captured_t> captured_;
};

}  // namespace camera
}  // namespace vesk
