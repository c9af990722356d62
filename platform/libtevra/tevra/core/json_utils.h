#ifndef TEVRA_CORE_JSON_UTILS_H_
#define TEVRA_CORE_JSON_UTILS_H_

#include <cstdint>
#include <string>

#include "json/elements.h"

namespace tevra::core {

// Strict readers of JSON values; each throws tevra::osa::Exception on a value of another type. A
// number that is negative (AsUnsigned), fractional or outside the 32-bit range is another type.
class JsonUtils {
 public:
  static int32_t AsInt(const json::UnknownElement& element);
  static uint32_t AsUnsigned(const json::UnknownElement& element);
  static std::string AsString(const json::UnknownElement& element);
};

}  // namespace tevra::core

#endif  // TEVRA_CORE_JSON_UTILS_H_
