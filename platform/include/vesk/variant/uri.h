// URI parsing into a Variant map: "schema", "originalUri", "fullUri",
// "fullDocumentPath", "parameters" and, for network schemas, "host", "ip"
// (dotted IPv4) and "port".
#pragma once

#include <string>

#include "vesk/variant/variant.h"

namespace vesk {
namespace variant {

class URI : public Variant {
 public:
  URI();
  // Parses text into uri. Schemas: "file" (file:// plus an absolute path),
  // "tcp" and "udp" (host:port; with resolve the host is resolved to a dotted
  // IPv4 address with the system resolver). The query a=1&b gives "parameters"
  // {"a": "1", "b": ""}, percent-decoded. False, never a crash, on bad input.
  static bool FromString(const std::string& text, bool resolve, URI& uri);

  std::string schema() const;
  std::string fullDocumentPath() const;
  std::string ip() const;
  uint16_t port() const;
  const Variant& parameters() const;
};

}  // namespace variant
}  // namespace vesk
