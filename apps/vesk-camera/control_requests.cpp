#include "control_requests.h"

#include <cmath>

namespace vesk {
namespace camera {

using vesk::variant::Variant;

const ControlRequests::request_t ControlRequests::kRequests[] = {
    {"ChangeVideoSettings", &ControlRequests::ChangeVideoSettings},
    {"RestartStreams", &ControlRequests::RestartStreams},
    {"ForceIDR", &ControlRequests::ForceIDR},
    {"OSDStats", &ControlRequests::OSDStats},
    {"Settings", &ControlRequests::Settings},
};

namespace {

std::string KnownRequests() {
  return "ChangeVideoSettings, RestartStreams, ForceIDR, OSDStats, Settings";
}

Variant ErrorAnswer(const std::string& error) {
  Variant answer;
  answer["ok"] = false;
  answer["error"] = error;
  return answer;
}

}  // namespace

ControlRequests::ControlRequests(vesk::encoder::Encoder& encoder) : encoder_(encoder), pumpThread_(pthread_self()) {
  captured_.reserve(kMaxLogLines);
}

void ControlRequests::Capture(const vesk_log_record_t* record, void* context) {
  ControlRequests* self = static_cast<ControlRequests*>(context);
  // The worker threads log on their own; only what the request did counts.
  if (!pthread_equal(pthread_self(), self->pumpThread_)) return;
  if (record->priority > VESK_PRIO_INFO || self->captured_.size() >= kMaxLogLines) return;
  self->captured_.push_back({record->priority, record->message != nullptr ? record->message : ""});
}

std::string ControlRequests::Refusal(const std::string& error) { return ErrorAnswer(error).ToJson(); }

std::string ControlRequests::Answer(const std::string& line) {
  Variant request;
  std::string error;
  if (!Variant::FromJson(line, request, error)) return Refusal("malformed JSON: " + error);
  if (!request.IsMap() || request.MapSize() != 1 || request.NumericKeysCount() != 0)
    return Refusal("a request is a JSON object with exactly one key: " + KnownRequests());
  const std::string& name = request.str_begin()->first;
  const Variant& value = request.str_begin()->second;
  for (const request_t& known : kRequests) {
    if (name != known.name) continue;
    Variant answer;
    captured_.clear();
    logSetHook(&ControlRequests::Capture, this);
    bool ok = (this->*known.apply)(value, answer, error);
    logSetHook(nullptr, nullptr);
    answer["ok"] = ok;
    if (!ok) answer["error"] = error;
    if (!captured_.empty()) {
      Variant& log = answer["log"];
      log.IsArray(true);
      for (const captured_t& entry : captured_) log.PushToArray(entry.message);
    }
    return answer.ToJson();
  }
  return Refusal("unknown request \"" + name + "\" (known: " + KnownRequests() + ")");
}

std::string ControlRequests::Refused(const char* call) const {
  std::string error = std::string(call) + " failed";
  for (auto entry = captured_.rbegin(); entry != captured_.rend(); ++entry) {
    if (entry->priority <= VESK_PRIO_ERROR) return error + ": " + entry->message;
  }
  return error;
}

bool ControlRequests::ChangeVideoSettings(const Variant& value, Variant& answer, std::string& error) {
  (void)answer;
  if (!value.IsMap()) {
    error = "ChangeVideoSettings needs an object (\"chip\", \"audio\", \"video\")";
    return false;
  }
  vesk::ipc::messages::ChangeVideoSettings request(value);
  if (encoder_.UpdateSettings(request)) return true;
  error = Refused("UpdateSettings");
  return false;
}

bool ControlRequests::RestartStreams(const Variant& value, Variant& answer, std::string& error) {
  (void)answer;
  if (!value.IsMap()) {
    error = "RestartStreams needs an object naming the streams (\"video2\": true)";
    return false;
  }
  vesk::ipc::messages::RestartStreams request(value);
  if (encoder_.RestartStreams(request)) return true;
  error = Refused("RestartStreams");
  return false;
}

bool ControlRequests::ForceIDR(const Variant& value, Variant& answer, std::string& error) {
  (void)answer;
  if (!value.IsBool() || !(bool)value) {
    error = "ForceIDR needs the value true";
    return false;
  }
  if (encoder_.ForceIDR()) return true;
  error = Refused("ForceIDR");
  return false;
}

bool ControlRequests::OSDStats(const Variant& value, Variant& answer, std::string& error) {
  double level = value.IsNumeric() ? (double)value : -1.0;
  if (level < 0 || level > 127 || std::floor(level) != level) {
    error = "OSDStats needs a level from 0 (off) to 127";
    return false;
  }
  std::vector<std::string> lines;
  encoder_.GetChannelsOSDStats((signed char)level, lines);
  Variant& out = answer["lines"];
  out.IsArray(true);
  for (const std::string& text : lines) out.PushToArray(text);
  return true;
}

bool ControlRequests::Settings(const Variant& value, Variant& answer, std::string& error) {
  if (!value.IsBool() || !(bool)value) {
    error = "Settings needs the value true";
    return false;
  }
  answer["settings"] = encoder_.GetCurrentSettings();
  return true;
}

}  // namespace camera
}  // namespace vesk
