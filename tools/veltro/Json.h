#pragma once
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <iosfwd>
#include <string>

namespace Operator {

/// `bytes` as UTF-8: what is none becomes U+FFFD, a byte at a time.
std::string utf8Of(std::string const& bytes);

/// As the text exposition format of collectors wants help texts, and the values of labels.
std::string metricText(std::string const& bytes);
std::string metricLabel(std::string const& bytes);

/// Builds one JSON document. Each call adds one thing; a name comes before its value.
class Json final {
 public:
  Json() : writer_(buffer_) {}

  Json& object() { return writer_.StartObject(), *this; }
  Json& endObject() { return writer_.EndObject(), *this; }
  Json& array() { return writer_.StartArray(), *this; }
  Json& endArray() { return writer_.EndArray(), *this; }
  Json& name(char const* name) { return writer_.Key(name), *this; }
  Json& string(std::string const& bytes);
  Json& number(std::uint64_t value) { return writer_.Uint64(value), *this; }
  Json& real(double value, int decimals);
  Json& boolean(bool value) { return writer_.Bool(value), *this; }
  Json& null() { return writer_.Null(), *this; }

  /// The document, with a newline.
  friend std::ostream& operator<<(std::ostream& out, Json const& json);

 private:
  rapidjson::StringBuffer buffer_;
  rapidjson::Writer<rapidjson::StringBuffer> writer_;
};

}  // namespace Operator
