#include "tevra/core/json_utils.h"

#include <cmath>
#include <limits>

#include "tevra/osa/exception.h"

namespace tevra::core {
namespace {

template <typename T>
const T& Cast(const json::UnknownElement& element) {
  try {
    return element;
  } catch (const json::Exception& error) {
    throw osa::Exception("wrong JSON type: %s", error.what());
  }
}

// A 32-bit range fits a double exactly, so no comparison here rounds.
template <typename T>
T WholeNumber(const json::UnknownElement& element) {
  const double value = Cast<json::Number>(element).Value();
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
  return Cast<json::String>(element).Value();
}

}  // namespace tevra::core
