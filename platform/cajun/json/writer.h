#ifndef JSON_WRITER_H_
#define JSON_WRITER_H_

#include <ostream>

#include "json/elements.h"

namespace json {

// Writes a document in one line without blanks, members in their order. Bytes that are not UTF-8
// are written as U+FFFD, numbers that are not finite as null: the result is always JSON.
class Writer {
 public:
  static void Write(const UnknownElement& element, std::ostream& stream) {
    stream << element.dump(-1, ' ', false, UnknownElement::error_handler_t::replace);
  }
};

}  // namespace json

#endif  // JSON_WRITER_H_
