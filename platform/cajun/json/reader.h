#ifndef JSON_READER_H_
#define JSON_READER_H_

#include <string.h>

#include <algorithm>
#include <cstdint>
#include <istream>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "json/elements.h"

namespace json {

// Reads one JSON document, strictly: UTF-8 only, nothing behind the document, numbers that a double
// can hold, at most kMaxDepth levels of objects and arrays, no name twice in one object: of two
// passwords for one account no reader can tell which one was meant. A call that throws leaves its
// element untouched.
class Reader {
 public:
  static constexpr size_t kMaxDepth = 128;

  // The stream failed.
  class ScanException : public Exception {
   public:
    using Exception::Exception;
  };
  // The bytes are no such document.
  class ParseException : public Exception {
   public:
    using Exception::Exception;
  };

  static void Read(UnknownElement& element, std::istream& stream) { element = Parse(stream); }
  static void Read(Object& object, std::istream& stream) { ReadTyped(object, stream); }
  static void Read(Array& array, std::istream& stream) { ReadTyped(array, stream); }
  static void Read(String& string, std::istream& stream) { ReadTyped(string, stream); }
  static void Read(Number& number, std::istream& stream) { ReadTyped(number, stream); }
  static void Read(Boolean& boolean, std::istream& stream) { ReadTyped(boolean, stream); }
  static void Read(Null& null, std::istream& stream) { ReadTyped(null, stream); }

 private:
  class Builder;

  template <typename T>
  static void ReadTyped(T& typed, std::istream& stream);
  static UnknownElement Parse(std::istream& stream);
  static String ReadWhole(std::istream& stream);
};

// Takes the parser's events and grows the document under root_.
class Reader::Builder {
 public:
  bool null() { return Add(Null()); }
  bool boolean(bool value) { return Add(Boolean(value)); }
  bool number_integer(int64_t value) { return Add(Number(static_cast<double>(value))); }
  bool number_unsigned(uint64_t value) { return Add(Number(static_cast<double>(value))); }
  bool number_float(double value, const std::string&) { return Add(Number(value)); }
  bool string(std::string& value) {
    Add(String(value));
    explicit_bzero(value.data(), value.size());  // the parser's own memory is not wiped
    return true;
  }
  bool binary(const nlohmann::json::binary_t&) { return false; }
  bool start_object(size_t) { return Open(Object()); }
  bool start_array(size_t) { return Open(Array()); }
  bool end_object() { return Close(); }
  bool end_array() { return Close(); }
  bool key(const std::string& name) {
    Level& level = open_.back();
    Object& object = *level.element;
    if (object.Find(name) != object.End()) throw ParseException("two members of one name");
    level.member = &object[name];
    return true;
  }
  bool parse_error(size_t, const std::string&, const nlohmann::json::exception& error) {
    throw ParseException(error.what());
  }

  UnknownElement TakeRoot() { return std::move(root_); }

 private:
  struct Level {
    UnknownElement* element;
    UnknownElement* member;  // where an object's next value goes; null in an array
  };

  UnknownElement* Place(UnknownElement&& value) {
    if (open_.empty()) {
      root_ = std::move(value);
      return &root_;
    }
    Level& level = open_.back();
    if (level.member == nullptr) return &*static_cast<Array&>(*level.element).Insert(value);
    *level.member = std::move(value);
    return level.member;
  }
  bool Add(UnknownElement&& value) {
    Place(std::move(value));
    return true;
  }
  bool Open(UnknownElement&& value) {
    if (open_.size() == kMaxDepth) throw ParseException("nested too deeply");
    open_.push_back({Place(std::move(value)), nullptr});
    return true;
  }
  bool Close() {
    open_.pop_back();
    return true;
  }

  UnknownElement root_;
  std::vector<Level> open_;
};

inline String Reader::ReadWhole(std::istream& stream) {
  constexpr size_t kBlock = 4096;
  if (!stream) throw ScanException("the stream cannot be read");
  String whole;
  std::string& text = whole.Value();
  // At once where the length is known: growing leaves copies behind.
  const std::streamsize known = std::max<std::streamsize>(stream.rdbuf()->in_avail(), 0);
  text.reserve(static_cast<size_t>(known) + kBlock);
  size_t size = 0;
  do {
    text.resize(size + kBlock);
    stream.read(text.data() + size, kBlock);
    size += static_cast<size_t>(stream.gcount());
  } while (stream);
  text.resize(size);
  if (stream.bad()) throw ScanException("the stream failed");
  return whole;
}

inline UnknownElement Reader::Parse(std::istream& stream) {
  const String whole = ReadWhole(stream);
  const std::string& text = whole.Value();
  // The parser takes a zero byte for the end of the text.
  if (text.find('\0') != std::string::npos) throw ParseException("a zero byte");

  Builder builder;
  if (!nlohmann::json::sax_parse(text, &builder)) throw ParseException("not JSON");
  return builder.TakeRoot();
}

template <typename T>
void Reader::ReadTyped(T& typed, std::istream& stream) {
  const UnknownElement element = Parse(stream);
  try {
    typed = static_cast<const T&>(element);
  } catch (const Exception& error) {
    throw ParseException(error.what());
  }
}

}  // namespace json

#endif  // JSON_READER_H_
