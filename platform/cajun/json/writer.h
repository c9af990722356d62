#ifndef JSON_WRITER_H_
#define JSON_WRITER_H_

#include <charconv>
#include <cmath>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>

#include "json/elements.h"

namespace json {

// Writes a document in one line without blanks, members in their order. Bytes that are not UTF-8
// are written as U+FFFD, numbers that are not finite as null: the result is always JSON. Whole
// numbers are written without a fraction.
class Writer : private ConstVisitor {
 public:
  static void Write(const UnknownElement& element, std::ostream& stream) {
    Writer writer(stream);
    element.Accept(writer);
  }
  static void Write(const Object& object, std::ostream& stream) { Writer(stream).Visit(object); }
  static void Write(const Array& array, std::ostream& stream) { Writer(stream).Visit(array); }
  static void Write(const Number& number, std::ostream& stream) { Writer(stream).Visit(number); }
  static void Write(const String& string, std::ostream& stream) { Writer(stream).Visit(string); }
  static void Write(const Boolean& boolean, std::ostream& stream) { Writer(stream).Visit(boolean); }
  static void Write(const Null& null, std::ostream& stream) { Writer(stream).Visit(null); }

 private:
  explicit Writer(std::ostream& stream) : stream_(stream) {}

  void Visit(const Object& object) override {
    stream_ << '{';
    const char* separator = "";
    for (auto member = object.Begin(); member != object.End(); ++member) {
      stream_ << separator;
      WriteText(member->name);
      stream_ << ':';
      member->element.Accept(*this);
      separator = ",";
    }
    stream_ << '}';
  }

  void Visit(const Array& array) override {
    stream_ << '[';
    const char* separator = "";
    for (auto element = array.Begin(); element != array.End(); ++element) {
      stream_ << separator;
      element->Accept(*this);
      separator = ",";
    }
    stream_ << ']';
  }

  void Visit(const Number& number) override {
    const double value = number.Value();
    if (!std::isfinite(value)) {
      stream_ << "null";
      return;
    }
    // Not through the stream: its locale may group digits or know another decimal sign.
    constexpr double kExactIntegers = 9007199254740992.0;  // 2^53
    char text[32];
    const bool whole = std::trunc(value) == value && std::fabs(value) <= kExactIntegers;
    const auto end = whole ? std::to_chars(text, text + sizeof(text), static_cast<int64_t>(value))
                           : std::to_chars(text, text + sizeof(text), value);
    stream_.write(text, end.ptr - text);
  }

  void Visit(const String& string) override { WriteText(string.Value()); }
  void Visit(const Boolean& boolean) override { stream_ << (boolean.Value() ? "true" : "false"); }
  void Visit(const Null&) override { stream_ << "null"; }

  void WriteText(const std::string& text) {
    stream_ << nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  }

  std::ostream& stream_;
};

}  // namespace json

#endif  // JSON_WRITER_H_
