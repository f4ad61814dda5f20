// URI text into a Variant map. Schemas: "file" (file:// plus an absolute
// path), "tcp" and "udp" (host:port, optional path, query).
#include "vesk/variant/uri.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cctype>
#include <cstring>

namespace vesk {
namespace variant {

namespace {

constexpr size_t kMaxHostLength = 253;

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Decodes %XX escapes (and '+' as a space when plusIsSpace). False on a broken
// escape or a decoded NUL byte.
bool PercentDecode(const std::string& text, bool plusIsSpace, std::string& out) {
  out.clear();
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); i++) {
    char c = text[i];
    if (c == '%') {
      if (i + 2 >= text.size()) return false;
      int high = HexValue(text[i + 1]);
      int low = HexValue(text[i + 2]);
      if (high < 0 || low < 0) return false;
      char decoded = (char)(high * 16 + low);
      if (decoded == '\0') return false;
      out += decoded;
      i += 2;
    } else if (c == '+' && plusIsSpace) {
      out += ' ';
    } else {
      out += c;
    }
  }
  return true;
}

// "a=1&b" gives {"a": "1", "b": ""}; empty pieces are skipped.
bool ParseQuery(const std::string& query, Variant& parameters) {
  parameters.IsArray(false);
  size_t start = 0;
  while (start <= query.size()) {
    size_t amp = query.find('&', start);
    if (amp == std::string::npos) amp = query.size();
    std::string piece = query.substr(start, amp - start);
    start = amp + 1;
    if (piece.empty()) continue;
    size_t eq = piece.find('=');
    std::string key;
    std::string value;
    if (!PercentDecode(piece.substr(0, eq), true, key)) return false;
    if (eq != std::string::npos && !PercentDecode(piece.substr(eq + 1), true, value)) return false;
    if (key.empty()) return false;
    parameters[key] = value;
  }
  return true;
}

bool ValidSchema(const std::string& schema) {
  if (schema.empty() || !isalpha((unsigned char)schema[0])) return false;
  for (char c : schema) {
    if (!isalnum((unsigned char)c) && c != '+' && c != '-' && c != '.') return false;
  }
  return true;
}

bool ValidHostName(const std::string& host) {
  if (host.empty() || host.size() > kMaxHostLength) return false;
  for (char c : host) {
    if (!isalnum((unsigned char)c) && c != '-' && c != '.' && c != '_') return false;
  }
  return true;
}

bool LooksNumeric(const std::string& host) {
  return host.find_first_not_of("0123456789.") == std::string::npos;
}

bool ParsePort(const std::string& text, uint16_t& port) {
  if (text.empty() || text.size() > 5) return false;
  unsigned value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    value = value * 10 + (unsigned)(c - '0');
  }
  if (value == 0 || value > 65535) return false;
  port = (uint16_t)value;
  return true;
}

// A literal dotted IPv4 address is kept; a name is resolved (when asked to)
// to the first IPv4 address the system resolver gives. Without resolving, a
// name leaves ip empty.
bool HostToIp(const std::string& host, bool resolve, std::string& ip) {
  struct in_addr addr;
  if (inet_pton(AF_INET, host.c_str(), &addr) == 1) {
    ip = host;
    return true;
  }
  // Digits and dots that are no address (10.0.0.300) are not names either.
  if (LooksNumeric(host)) return false;
  if (!resolve) {
    ip.clear();
    return true;
  }
  struct addrinfo hints;
  memset(&hints, 0, sizeof(hints));
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  struct addrinfo* result = nullptr;
  if (getaddrinfo(host.c_str(), nullptr, &hints, &result) != 0 || result == nullptr) return false;
  bool ok = false;
  for (struct addrinfo* it = result; it != nullptr; it = it->ai_next) {
    if (it->ai_family != AF_INET || it->ai_addr == nullptr) continue;
    char text[INET_ADDRSTRLEN];
    const struct sockaddr_in* sin = (const struct sockaddr_in*)it->ai_addr;
    if (inet_ntop(AF_INET, &sin->sin_addr, text, sizeof(text)) != nullptr) {
      ip = text;
      ok = true;
      break;
    }
  }
  freeaddrinfo(result);
  return ok;
}

bool ParseFile(const std::string& rest, Variant& uri) {
  std::string path;
  if (rest.empty() || rest[0] != '/') return false;  // only absolute paths
  if (!PercentDecode(rest, false, path)) return false;
  uri["fullDocumentPath"] = path;
  return true;
}

bool ParseNetwork(const std::string& rest, bool resolve, Variant& uri) {
  size_t slash = rest.find('/');
  std::string authority = rest.substr(0, slash);
  std::string path = slash == std::string::npos ? std::string("/") : rest.substr(slash);

  size_t at = authority.rfind('@');
  if (at != std::string::npos) {
    std::string user = authority.substr(0, at);
    authority = authority.substr(at + 1);
    size_t colon = user.find(':');
    std::string name;
    std::string password;
    if (!PercentDecode(user.substr(0, colon), false, name)) return false;
    if (colon != std::string::npos && !PercentDecode(user.substr(colon + 1), false, password)) {
      return false;
    }
    uri["userName"] = name;
    uri["password"] = password;
  }

  size_t colon = authority.rfind(':');
  if (colon == std::string::npos) return false;  // a network schema needs a port
  std::string host = authority.substr(0, colon);
  uint16_t port = 0;
  if (!ValidHostName(host) || !ParsePort(authority.substr(colon + 1), port)) return false;

  std::string ip;
  if (!HostToIp(host, resolve, ip)) return false;

  std::string decodedPath;
  if (!PercentDecode(path, false, decodedPath)) return false;
  uri["host"] = host;
  uri["ip"] = ip;
  uri["port"] = port;
  uri["fullDocumentPath"] = decodedPath;
  return true;
}

}  // namespace

URI::URI() { IsArray(false); }

bool URI::FromString(const std::string& text, bool resolve, URI& uri) {
  uri.Free();
  uri.IsArray(false);

  // Surrounding white space is not part of the URI.
  size_t first = text.find_first_not_of(" \t\r\n");
  size_t last = text.find_last_not_of(" \t\r\n");
  if (first == std::string::npos) return false;
  std::string trimmed = text.substr(first, last - first + 1);

  size_t sep = trimmed.find("://");
  if (sep == std::string::npos) return false;
  std::string schema = trimmed.substr(0, sep);
  if (!ValidSchema(schema)) return false;
  for (char& c : schema) c = (char)tolower((unsigned char)c);

  std::string rest = trimmed.substr(sep + 3);
  size_t hash = rest.find('#');
  if (hash != std::string::npos) rest.resize(hash);
  std::string query;
  size_t question = rest.find('?');
  bool hasQuery = question != std::string::npos;
  if (hasQuery) {
    query = rest.substr(question + 1);
    rest.resize(question);
  }

  URI parsed;
  if (schema == "file") {
    if (!ParseFile(rest, parsed)) return false;
  } else if (schema == "tcp" || schema == "udp") {
    if (!ParseNetwork(rest, resolve, parsed)) return false;
  } else {
    return false;
  }
  if (!ParseQuery(query, parsed["parameters"])) return false;

  parsed["schema"] = schema;
  parsed["originalUri"] = text;
  parsed["fullUri"] = schema + "://" + rest + (hasQuery ? "?" + query : std::string());
  uri = std::move(parsed);
  return true;
}

std::string URI::schema() const { return (*this)["schema"]; }

std::string URI::fullDocumentPath() const { return (*this)["fullDocumentPath"]; }

std::string URI::ip() const { return (*this)["ip"]; }

uint16_t URI::port() const { return (uint16_t)(*this)["port"]; }

const Variant& URI::parameters() const { return (*this)["parameters"]; }

}  // namespace variant
}  // namespace vesk
