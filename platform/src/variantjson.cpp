// JSON text to and from Variant, and the one-line text form for logs.
// Parsing goes through nlohmann-json's SAX interface, which reports syntax
// errors as results (no exception is thrown or caught here).
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "vesk/variant/variant.h"

namespace vesk {
namespace variant {

namespace {

// Deeper documents are refused: the value tree is freed and copied recursively.
constexpr size_t kMaxJsonDepth = 512;

// ---- parsing ------------------------------------------------------------------

class JsonBuilder {
 public:
  using json = nlohmann::json;

  explicit JsonBuilder(Variant& root) : root_(root) {}

  bool null() {
    Put(Variant()).Reset();
    return true;
  }
  bool boolean(bool value) {
    Put(Variant(value));
    return true;
  }
  bool number_integer(json::number_integer_t value) {
    Put(Variant((long long)value));
    return true;
  }
  bool number_unsigned(json::number_unsigned_t value) {
    if (value <= (json::number_unsigned_t)std::numeric_limits<long long>::max()) {
      Put(Variant((long long)value));
    } else {
      Put(Variant((unsigned long long)value));
    }
    return true;
  }
  bool number_float(json::number_float_t value, const json::string_t&) {
    Put(Variant((double)value));
    return true;
  }
  bool string(json::string_t& value) {
    Put(Variant(value));
    return true;
  }
  bool binary(json::binary_t&) { return false; }  // not produced by JSON text

  bool start_object(std::size_t) { return Open(false); }
  bool key(json::string_t& value) {
    key_ = value;
    return true;
  }
  bool end_object() { return Close(); }
  bool start_array(std::size_t) { return Open(true); }
  bool end_array() { return Close(); }

  bool parse_error(std::size_t position, const std::string&, const nlohmann::detail::exception& ex) {
    failed_ = true;
    position_ = position;
    detail_ = ex.what();
    return false;
  }

  bool failed() const { return failed_; }
  bool tooDeep() const { return tooDeep_; }
  std::size_t position() const { return position_; }
  const std::string& detail() const { return detail_; }

 private:
  // Stores a value at the current place: the root, the next array slot or the
  // pending object key. Returns the stored value.
  Variant& Put(Variant&& value) {
    if (stack_.empty()) {
      root_ = std::move(value);
      return root_;
    }
    Variant* parent = stack_.back();
    Variant& slot = parent->IsArray() ? parent->PushToArray(Variant()) : (*parent)[key_];
    slot = std::move(value);
    return slot;
  }

  bool Open(bool isArray) {
    if (stack_.size() >= kMaxJsonDepth) {
      tooDeep_ = true;
      return false;
    }
    Variant& container = Put(Variant());
    container.IsArray(isArray);
    stack_.push_back(&container);
    return true;
  }

  bool Close() {
    if (!stack_.empty()) stack_.pop_back();
    return true;
  }

  Variant& root_;
  std::vector<Variant*> stack_;
  std::string key_;
  bool failed_ = false;
  bool tooDeep_ = false;
  std::size_t position_ = 0;
  std::string detail_;
};

// nlohmann counts the offending character in the position (1 past it), and
// past the end of input at the end. Line and column are both 1-based.
void LineAndColumn(const std::string& text, std::size_t position, unsigned& line,
                   unsigned& column) {
  std::size_t end = position == 0 ? 0 : position - 1;
  if (end > text.size()) end = text.size();
  line = 1;
  std::size_t lineStart = 0;
  for (std::size_t i = 0; i < end; i++) {
    if (text[i] == '\n') {
      line++;
      lineStart = i + 1;
    }
  }
  column = (unsigned)(end - lineStart + 1);
}

// The part of nlohmann's message after its own "... column N: " prefix.
std::string ErrorDetail(const std::string& what) {
  std::size_t column = what.find("column ");
  if (column != std::string::npos) {
    std::size_t colon = what.find(": ", column);
    if (colon != std::string::npos) return what.substr(colon + 2);
  }
  return what;
}

// ---- printing --------------------------------------------------------------------

void AppendCodePointEscape(std::string& out, unsigned code) {
  char hex[8];
  snprintf(hex, sizeof(hex), "\\u%04x", code);
  out += hex;
}

// Length of the valid UTF-8 sequence at s[i], or 0 when it is not valid.
std::size_t Utf8SequenceLength(const std::string& s, std::size_t i) {
  unsigned char c = (unsigned char)s[i];
  std::size_t n;
  uint32_t cp;
  if (c < 0x80) return 1;
  if (c >= 0xC2 && c <= 0xDF) {
    n = 2;
    cp = c & 0x1F;
  } else if (c >= 0xE0 && c <= 0xEF) {
    n = 3;
    cp = c & 0x0F;
  } else if (c >= 0xF0 && c <= 0xF4) {
    n = 4;
    cp = c & 0x07;
  } else {
    return 0;
  }
  if (i + n > s.size()) return 0;
  for (std::size_t k = 1; k < n; k++) {
    unsigned char cc = (unsigned char)s[i + k];
    if ((cc & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (cc & 0x3F);
  }
  if ((n == 3 && cp < 0x800) || (n == 4 && (cp < 0x10000 || cp > 0x10FFFF)) ||
      (cp >= 0xD800 && cp <= 0xDFFF)) {
    return 0;  // overlong, out of range or a surrogate
  }
  return n;
}

// Quoted JSON string. Bytes that are not valid UTF-8 become U+FFFD, so the
// output always parses back.
void AppendJsonString(std::string& out, const std::string& s) {
  out += '"';
  for (std::size_t i = 0; i < s.size();) {
    unsigned char c = (unsigned char)s[i];
    switch (c) {
      case '"': out += "\\\""; i++; continue;
      case '\\': out += "\\\\"; i++; continue;
      case '\b': out += "\\b"; i++; continue;
      case '\f': out += "\\f"; i++; continue;
      case '\n': out += "\\n"; i++; continue;
      case '\r': out += "\\r"; i++; continue;
      case '\t': out += "\\t"; i++; continue;
      default: break;
    }
    if (c < 0x20) {
      AppendCodePointEscape(out, c);
      i++;
      continue;
    }
    std::size_t n = Utf8SequenceLength(s, i);
    if (n == 0) {
      AppendCodePointEscape(out, 0xFFFD);
      i++;
      continue;
    }
    out.append(s, i, n);
    i += n;
  }
  out += '"';
}

// The shortest of %.15g/%.16g/%.17g that reads back as the same double, with
// ".0" added when it would otherwise read back as an integer. JSON has no NaN
// or infinity: those print as null.
void AppendDouble(std::string& out, double d) {
  if (!std::isfinite(d)) {
    out += "null";
    return;
  }
  char text[40];
  for (int precision = 15; precision <= 17; precision++) {
    snprintf(text, sizeof(text), "%.*g", precision, d);
    if (strtod(text, nullptr) == d) break;
  }
  out += text;
  if (strpbrk(text, ".eE") == nullptr) out += ".0";
}

void AppendNewline(std::string& out, bool pretty, int depth) {
  if (!pretty) return;
  out += '\n';
  out.append((std::size_t)depth * 2, ' ');
}

void AppendJson(std::string& out, const Variant& value, bool pretty, int depth);

// An array whose numeric keys run 0..n-1 without string keys prints as a JSON
// array; any other container prints as an object.
bool IsDenseArray(const Variant& value) {
  if (!value.IsArray() || value.str_begin() != value.str_end()) return false;
  uint32_t expected = 0;
  for (auto it = value.num_begin(); it != value.num_end(); ++it, ++expected) {
    if (it->first != expected) return false;
  }
  return true;
}

void AppendJsonContainer(std::string& out, const Variant& value, bool pretty, int depth) {
  if (IsDenseArray(value)) {
    if (value.num_begin() == value.num_end()) {
      out += "[]";
      return;
    }
    out += '[';
    bool first = true;
    for (auto it = value.num_begin(); it != value.num_end(); ++it) {
      if (!first) out += ',';
      first = false;
      AppendNewline(out, pretty, depth + 1);
      AppendJson(out, it->second, pretty, depth + 1);
    }
    AppendNewline(out, pretty, depth);
    out += ']';
    return;
  }

  // Numeric keys take their decimal text and sort with the string keys.
  std::vector<std::pair<std::string, const Variant*>> entries;
  entries.reserve(value.MapSize());
  for (auto it = value.num_begin(); it != value.num_end(); ++it) {
    entries.emplace_back(std::to_string(it->first), &it->second);
  }
  for (auto it = value.str_begin(); it != value.str_end(); ++it) {
    entries.emplace_back(it->first, &it->second);
  }
  std::stable_sort(entries.begin(), entries.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  if (entries.empty()) {
    out += "{}";
    return;
  }
  out += '{';
  bool first = true;
  for (const auto& entry : entries) {
    if (!first) out += ',';
    first = false;
    AppendNewline(out, pretty, depth + 1);
    AppendJsonString(out, entry.first);
    out += pretty ? ": " : ":";
    AppendJson(out, *entry.second, pretty, depth + 1);
  }
  AppendNewline(out, pretty, depth);
  out += '}';
}

void AppendJson(std::string& out, const Variant& value, bool pretty, int depth) {
  switch (value.GetType()) {
    case V_BOOL: out += (bool)value ? "true" : "false"; break;
    case V_INT8:
    case V_INT16:
    case V_INT32:
    case V_INT64: out += std::to_string((long long)value); break;
    case V_UINT8:
    case V_UINT16:
    case V_UINT32:
    case V_UINT64: out += std::to_string((unsigned long long)value); break;
    case V_DOUBLE: AppendDouble(out, (double)value); break;
    case V_STRING: AppendJsonString(out, (std::string)value); break;
    case V_TIMESTAMP: {
      struct timeval tv = value;
      out += std::to_string((long long)tv.tv_sec * 1000 + (long long)tv.tv_usec / 1000);
      break;
    }
    case V_MAP:
    case V_ARRAY: AppendJsonContainer(out, value, pretty, depth); break;
    default: out += "null"; break;  // null, undefined
  }
}

}  // namespace

bool Variant::FromJson(const std::string& text, Variant& result, std::string& error) {
  error.clear();
  Variant parsed;
  JsonBuilder builder(parsed);
  bool ok = nlohmann::json::sax_parse(text, &builder, nlohmann::json::input_format_t::json,
                                      true /* strict: nothing after the value */,
                                      false /* no comments */);
  if (ok) {
    result = std::move(parsed);
    return true;
  }
  result.Free();
  if (builder.tooDeep()) {
    error = "nesting deeper than " + std::to_string(kMaxJsonDepth) + " levels";
    return false;
  }
  unsigned line = 1;
  unsigned column = 1;
  LineAndColumn(text, builder.position(), line, column);
  error = "JSON syntax error at line " + std::to_string(line) + ", column " +
          std::to_string(column) + ": " +
          (builder.failed() ? ErrorDetail(builder.detail()) : std::string("invalid input"));
  return false;
}

std::string Variant::ToJson(bool pretty) const {
  std::string out;
  AppendJson(out, *this, pretty, 0);
  return out;
}

std::string Variant::ToString() const {
  switch (type_) {
    case V_UNDEFINED: return "undefined";
    case V_STRING: return *v_.s;
    default: return ToJson(false);
  }
}

}  // namespace variant
}  // namespace vesk
