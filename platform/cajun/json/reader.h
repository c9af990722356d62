#ifndef JSON_READER_H_
#define JSON_READER_H_

#include <algorithm>
#include <cstdint>
#include <istream>
#include <string>
#include <string_view>
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

 private:
  class Builder;

  template <typename T>
  static void ReadTyped(T& typed, std::istream& stream);
  static UnknownElement Parse(std::istream& stream);
  static String ReadWhole(std::istream& stream);
};

// Takes the parser's events. An object is made when it ends, with all its members at once: its own
// insertion compares each name with every other, and copies them all when it needs more room.
class Reader::Builder {
 public:
  bool null() { return Add(nullptr); }
  bool boolean(bool value) { return Add(value); }
  bool number_integer(int64_t value) { return Add(value); }
  bool number_unsigned(uint64_t value) { return Add(value); }
  bool number_float(double value, const String&) { return Add(value); }
  bool string(const String& value) { return Add(value); }
  bool binary(const UnknownElement::binary_t&) { return false; }
  bool key(const String& name) {
    levels_.back().names.push_back(name);
    return true;
  }
  bool start_object(size_t) { return Open(); }
  bool start_array(size_t) { return Open(); }
  bool end_array() { return Add(Close().values); }
  bool end_object() {
    Level level = Close();
    CheckNames(level.names);
    Object object;
    object.reserve(level.names.size());
    for (size_t i = 0; i < level.names.size(); ++i) {
      object.emplace_back(std::move(level.names[i]), std::move(level.values[i]));
    }
    return Add(std::move(object));
  }
  bool parse_error(size_t, const std::string&, const UnknownElement::exception& error) {
    throw ParseException(error.what());
  }

  UnknownElement TakeRoot() { return std::move(levels_.front().values.front()); }

 private:
  // An object or array that has begun; the first one holds the document.
  struct Level {
    std::vector<String> names;  // of an object's members
    Array values;
  };

  bool Add(UnknownElement&& value) {
    levels_.back().values.push_back(std::move(value));
    return true;
  }
  bool Open() {
    if (levels_.size() > kMaxDepth) throw ParseException("nested too deeply");
    levels_.emplace_back();
    return true;
  }
  Level Close() {
    Level level = std::move(levels_.back());
    levels_.pop_back();
    return level;
  }
  static void CheckNames(const std::vector<String>& names) {
    std::vector<std::string_view> sorted(names.begin(), names.end());
    std::sort(sorted.begin(), sorted.end());
    if (std::adjacent_find(sorted.begin(), sorted.end()) != sorted.end()) {
      throw ParseException("two members of one name");
    }
  }

  std::vector<Level> levels_ = std::vector<Level>(1);
};

inline String Reader::ReadWhole(std::istream& stream) {
  if (!stream) throw ScanException("the stream cannot be read");
  String text;
  while (stream.peek() != std::istream::traits_type::eof()) {
    // All that is there at once: growing leaves copies behind.
    const std::streamsize there = std::max<std::streamsize>(stream.rdbuf()->in_avail(), 1);
    const size_t size = text.size();
    text.resize(size + static_cast<size_t>(there));
    stream.read(text.data() + size, there);
    text.resize(size + static_cast<size_t>(stream.gcount()));
  }
  if (stream.bad()) throw ScanException("the stream failed");
  return text;
}

inline UnknownElement Reader::Parse(std::istream& stream) {
  const String text = ReadWhole(stream);
  // The parser takes a zero byte for the end of the text.
  if (text.find('\0') != std::string::npos) throw ParseException("a zero byte");

  Builder builder;
  if (!UnknownElement::sax_parse(text, &builder)) throw ParseException("not JSON");
  return builder.TakeRoot();
}

template <typename T>
void Reader::ReadTyped(T& typed, std::istream& stream) {
  UnknownElement element = Parse(stream);
  T* const read = element.get_ptr<T*>();
  if (read == nullptr) {
    throw ParseException(std::string("the element is no ") + UnknownElement(T()).type_name());
  }
  typed = std::move(*read);
}

}  // namespace json

#endif  // JSON_READER_H_
