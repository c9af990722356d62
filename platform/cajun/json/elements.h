#ifndef JSON_ELEMENTS_H_
#define JSON_ELEMENTS_H_

#include <string.h>

#include <cstdint>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

// JSON documents as values, which are nlohmann's. Not synchronised.
namespace json {

// What every failure of this library is, or derives from.
class Exception : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A text, or the name of a member. It may be a password: its memory is overwritten when it goes.
class String : public std::string {
 public:
  using std::string::string;
  String() = default;
  String(const std::string& text) : std::string(text) {}  // NOLINT(google-explicit-constructor)
  String(const String& other) = default;
  String(String&& other) noexcept = default;
  String& operator=(const String& other) = default;
  String& operator=(String&& other) noexcept = default;
  ~String() {
    resize(capacity());  // the bytes behind the end are old ones
    explicit_bzero(data(), size());
  }
};

// An element of any type, Null when new. It converts to a value of the type that it holds, which is
// a copy: get_ptr and get_ref give access to the value itself.
using UnknownElement = nlohmann::basic_json<nlohmann::ordered_map, std::vector, String>;

// Members in the order in which they were added. A look-up compares one name after the other.
using Object = UnknownElement::object_t;
using Array = UnknownElement::array_t;
// What is written is whole. A number that was read may be a fraction, see JsonUtils.
using Number = UnknownElement::number_integer_t;
using Boolean = UnknownElement::boolean_t;
using Null = std::nullptr_t;

// Null when the object has no such member.
inline const UnknownElement* FindMember(const Object& object, std::string_view name) {
  for (const auto& [known, element] : object) {
    if (known == name) return &element;
  }
  return nullptr;
}

// Throws Exception when the object has no such member.
inline const UnknownElement& Member(const Object& object, std::string_view name) {
  if (const UnknownElement* element = FindMember(object, name)) return *element;
  throw Exception("the object has no such member: " + std::string(name));
}

}  // namespace json

#endif  // JSON_ELEMENTS_H_
