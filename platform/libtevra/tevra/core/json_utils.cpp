#include "tevra/core/json_utils.h"

#include <cmath>
#include <limits>

#include "tevra/osa/exception.h"

namespace tevra::core {
namespace {

// A 32-bit range fits a double exactly, so no comparison here rounds.
template <typename T>
T WholeNumber(const json::UnknownElement& element) {
  if (!element.is_number()) throw osa::Exception("wrong JSON type: the element is no number");
  const auto value = element.get<double>();
  const bool in_range = value >= static_cast<double>(std::numeric_limits<T>::min()) &&
                        value <= static_cast<double>(std::numeric_limits<T>::max());
  if (!in_range || std::trunc(value) != value) {
    throw osa::Exception("wrong JSON type: %g is no whole number in range", value);
  }
  return static_cast<T>(value);
}

}  // namespace

int32_t JsonUtils::AsInt(const json::UnknownElement& element) {
  return WholeNumber<int32_t>(element);
}

uint32_t JsonUtils::AsUnsigned(const json::UnknownElement& element) {
  return WholeNumber<uint32_t>(element);
}

std::string JsonUtils::AsString(const json::UnknownElement& element) {
  const auto* text = element.get_ptr<const json::String*>();
  if (text == nullptr) throw osa::Exception("wrong JSON type: the element is no string");
  return *text;
}

}  // namespace tevra::core
