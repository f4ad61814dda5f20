#include "warnings.h"

#include <strings.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "vesk/encoder.h"

namespace vesk {
namespace camera {

namespace {

using vesk::variant::Variant;
namespace enc = vesk::encoder;

std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char* format, ...) {
  char text[1024];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof(text), format, args);
  va_end(args);
  return text;
}

// One enabled video stream as the video track will see it.
struct stream_t {
  const char* name;
  enc::BaseVideoEncoderSettings* element;
  bool isH264;
  bool setsUpBuffer;  // video1..3 and mjpg size the source buffer they read
  bool encoded;       // mjpg is not encoded while mjpg1 is enabled
  unsigned sourceId;
  unsigned width;
  unsigned height;
};

unsigned SourceId(const Variant& element) {
  const Variant& value = element["sourceId"];
  return value.IsNumeric() ? (unsigned)value : 0u;
}

// "enabled" given but not as true/false: the library reads it as false.
void CheckEnabledFlag(const Variant& raw, const char* name, std::vector<std::string>& out) {
  if (!raw.IsMap() || !raw.HasKey("enabled")) return;
  const Variant& enabled = raw["enabled"];
  if (enabled.IsBool()) return;
  out.push_back(Format("%s: \"enabled\" is %s, not true or false: it counts as false and %s stays off",
                       name, enabled.ToJson().c_str(), name));
}

bool IsFlvType(const std::string& type) {
  return strcasecmp(type.c_str(), "flv") == 0 || strcasecmp(type.c_str(), "extendedFlv") == 0 ||
         strcasecmp(type.c_str(), "rtmp") == 0;
}

// Whether the query of a URI text holds the parameter key.
bool HasQueryParameter(const std::string& uri, const char* key) {
  size_t query = uri.find('?');
  if (query == std::string::npos) return false;
  size_t start = query + 1;
  while (start <= uri.size()) {
    size_t end = uri.find('&', start);
    if (end == std::string::npos) end = uri.size();
    std::string item = uri.substr(start, end - start);
    std::string name = item.substr(0, item.find('='));
    if (name == key) return true;
    start = end + 1;
  }
  return false;
}

void CheckDestinations(stream_t& stream, bool audioEnabled, std::vector<std::string>& out) {
  Variant& serializer = (*stream.element)["avSerializer"];
  if (!serializer.IsMap()) {
    out.push_back(Format("%s: no \"avSerializer\": the stream is encoded but sent nowhere", stream.name));
    return;
  }
  const Variant& typeValue = serializer["type"];
  std::string type = typeValue.IsString() ? (std::string)typeValue : std::string("unknown");
  const Variant& destinations = serializer["destinations"];
  std::vector<std::string> uris;
  if (destinations.IsContainer()) {
    for (auto it = destinations.num_begin(); it != destinations.num_end(); ++it)
      if (it->second.IsString()) uris.push_back((std::string)it->second);
    for (auto it = destinations.str_begin(); it != destinations.str_end(); ++it)
      if (it->second.IsString()) uris.push_back((std::string)it->second);
  }
  if (uris.empty()) {
    out.push_back(Format("%s: \"avSerializer\" has no destinations: the stream is encoded but sent nowhere",
                         stream.name));
    return;
  }
  if (type == "unknown") {
    out.push_back(Format("%s: \"avSerializer\" type is not one of flv, extendedFlv, rtmp, vesk, mjpg, "
                         "passThrough (spelt so): the stream will not be built",
                         stream.name));
    return;
  }
  for (const std::string& uri : uris) {
    size_t colon = uri.find("://");
    std::string schema = colon == std::string::npos ? std::string() : uri.substr(0, colon);
    if (schema != "file" && schema != "tcp" && schema != "udp") {
      out.push_back(Format("%s: destination \"%s\" is not a file://, tcp:// or udp:// URI (lower case): it "
                           "will be left out",
                           stream.name, uri.c_str()));
      continue;
    }
    if (schema != "file" || HasQueryParameter(uri, "continuous")) continue;
    if (uri == "file:///dev/null") continue;
    if (!stream.isH264 && (type == "passThrough" || type == "mjpg")) {
      const Variant& parameters = serializer["parameters"];
      const Variant* suppress = parameters.IsMap() && parameters.HasKey("suppressAudio")
                                    ? &parameters["suppressAudio"]
                                    : nullptr;
      bool suppressed = suppress != nullptr && suppress->IsBool() && (bool)*suppress;
      if (audioEnabled && !suppressed) {
        out.push_back(Format("%s: snapshot file \"%s\" also receives every audio frame, which replaces the "
                             "picture; add \"suppressAudio\": true to the \"parameters\"",
                             stream.name, uri.c_str()));
      }
      continue;
    }
    if (IsFlvType(type)) {
      out.push_back(Format("%s: FLV file destination \"%s\" has no \"continuous\" parameter: the file will "
                           "hold only the newest message, not a recording; add \"?continuous\"",
                           stream.name, uri.c_str()));
    } else if (stream.isH264) {
      out.push_back(Format("%s: file destination \"%s\" has no \"continuous\" parameter: each message "
                           "replaces the file, so it never holds a playable recording; add \"?continuous\"",
                           stream.name, uri.c_str()));
    }
  }
}

void CheckAudio(enc::EncoderSettings& settings, const Variant& raw, std::vector<std::string>& out) {
  if (raw.IsMap()) CheckEnabledFlag(raw["audio"], "audio", out);
  enc::AudioEncoderSettings& audio = settings.audio();
  if (!audio.enabled()) return;
  unsigned mode = audio.mode();
  unsigned rate = audio.sampleRate();
  unsigned bitRate = audio.bitRate();
  if (IsSupportedAudioTriplet(mode, rate, bitRate)) return;
  out.push_back(Format("audio: mode %u at %u Hz and %u bit/s is not a combination the AAC encoder supports: "
                       "the run will go on without audio (mode 0 takes 8000 to 48000 Hz; modes 1 and 3 only "
                       "32000, 44100 and 48000 Hz)",
                       mode, rate, bitRate));
}

}  // namespace

bool IsSupportedAudioTriplet(unsigned mode, unsigned sampleRate, unsigned bitRate) {
  return enc::Encoder::IsAudioTripletSupported(mode, sampleRate, bitRate);
}

std::vector<std::string> FindSettingsWarnings(const Variant& raw) {
  std::vector<std::string> out;
  enc::EncoderSettings settings(raw.IsMap() ? raw : Variant());
  settings.NormalizeFields();
  CheckAudio(settings, raw, out);

  enc::VideoEncoderSettings& video = settings.video();
  const Variant* rawVideo = raw.IsMap() && raw["video"].IsMap() ? &raw["video"] : nullptr;
  const char* const names[] = {"video1", "video2", "video3", "mjpg", "mjpg1", "mjpg2"};
  enc::BaseVideoEncoderSettings* elements[] = {&video.video1(), &video.video2(), &video.video3(),
                                               &video.mjpg(),   &video.mjpg1(),  &video.mjpg2()};
  bool mjpg1Enabled = video.mjpg1().enabled();
  std::vector<stream_t> streams;
  for (int i = 0; i < 6; i++) {
    if (rawVideo != nullptr) CheckEnabledFlag((*rawVideo)[names[i]], names[i], out);
    if (!elements[i]->enabled()) continue;
    stream_t stream;
    stream.name = names[i];
    stream.element = elements[i];
    stream.isH264 = i < 3;
    stream.setsUpBuffer = i < 4;
    stream.encoded = !(i == 3 && mjpg1Enabled);
    stream.sourceId = SourceId(*elements[i]);
    stream.width = elements[i]->width();
    stream.height = elements[i]->height();
    streams.push_back(stream);
  }

  for (stream_t& stream : streams) {
    if (!stream.isH264) continue;
    auto& h264 = static_cast<enc::H264VideoEncoderSettings&>(*stream.element);
    bool given = rawVideo != nullptr && (*rawVideo)[stream.name].IsMap() &&
                 (*rawVideo)[stream.name].HasKey("M");
    if (h264.M() != 1 && !video.lowDelay()) {
      out.push_back(Format("%s: \"M\" is %u%s: pictures with B frames cannot be time-stamped and the process "
                           "will stop at the first picture; set \"M\": 1",
                           stream.name, h264.M(), given ? "" : " (the default, as it is not set)"));
    }
  }

  for (const stream_t& stream : streams) {
    if (stream.name == std::string("mjpg") && !stream.encoded) {
      out.push_back(Format("mjpg: \"mjpg1\" is enabled too, so \"mjpg\" is not encoded (it still sets up "
                           "source buffer %u at %ux%u)",
                           stream.sourceId, stream.width, stream.height));
    }
  }

  // Two streams reading one source buffer at different sizes.
  for (size_t i = 0; i < streams.size(); i++) {
    for (size_t j = i + 1; j < streams.size(); j++) {
      const stream_t& a = streams[i];
      const stream_t& b = streams[j];
      if (a.sourceId != b.sourceId || (a.width == b.width && a.height == b.height)) continue;
      out.push_back(Format("%s (%ux%u) and %s (%ux%u) both read source buffer %u (\"sourceId\"): the buffer "
                           "has one size, so one of them will not get the pictures it asks for; give each "
                           "stream its own \"sourceId\"",
                           a.name, a.width, a.height, b.name, b.width, b.height, a.sourceId));
    }
  }

  // mjpg1 and mjpg2 read a buffer but never set one up.
  for (const stream_t& stream : streams) {
    if (stream.setsUpBuffer) continue;
    bool setUp = false;
    for (const stream_t& other : streams)
      if (other.setsUpBuffer && other.sourceId == stream.sourceId) setUp = true;
    if (!setUp) {
      out.push_back(Format("%s reads source buffer %u, which no stream sets up (only video1, video2, video3 "
                           "and mjpg size the buffers they read): the encoder will refuse to start it",
                           stream.name, stream.sourceId));
    }
  }

  if (streams.empty()) {
    out.push_back("no video stream is enabled (video1, video2, video3, mjpg, mjpg1, mjpg2): nothing will be "
                  "encoded");
  }
  for (stream_t& stream : streams) {
    if (stream.encoded) CheckDestinations(stream, settings.audio().enabled(), out);
  }
  return out;
}

}  // namespace camera
}  // namespace vesk
