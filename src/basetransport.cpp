#include "basetransport.h"

#include <string>

#include "transportfile.h"
#include "transportudp.h"
#include "vlog.h"

// The TCP transport lives in its own source pair; it joins the factory as
// soon as it is part of the library.
#include "transporttcp.h"

namespace vesk {
namespace encoder {
namespace internal {

using vesk::variant::URI;

std::string GetUriString(URI& uri, const char* key) {
  vesk::variant::Variant& value = uri[key];
  if (value.GetType() != vesk::variant::V_STRING) value = "";
  return (std::string)value;
}

uint8_t BaseTransport::GetOutputBufferLevel(uint8_t floor) {
  uint8_t level = GetOutputBufferLevel();
  if (level < floor) level = floor;
  if (level > 100) level = 100;
  return level;
}

BaseTransport* BaseTransport::GetInstance(OutStream* outStream, URI& uri) {
  std::string schema = GetUriString(uri, "schema");
  BaseTransport* transport = nullptr;
  if (schema == "file") {
    transport = new TransportFile(outStream);
  } else if (schema == "tcp") {
    transport = new TransportTCP(outStream);
  } else if (schema == "udp") {
    transport = new TransportUDP(outStream);
  } else {
    VLOG_ERROR("schema not supported: `%s`", schema.c_str());
    return nullptr;
  }
  if (!transport->Initialize(uri)) {
    VLOG_ERROR("unable to initialize transport from URI: `%s`",
               GetUriString(uri, "originalUri").c_str());
    delete transport;
    return nullptr;
  }
  return transport;
}

}  // namespace internal
}  // namespace encoder
}  // namespace vesk
