#ifndef SUPPORT_TEXT_THROWN_BY_H_
#define SUPPORT_TEXT_THROWN_BY_H_

#include <string>

#include "tevra/osa/exception.h"

namespace support {

// What the platform's exception says that `action` throws, or "nothing thrown".
template <typename F>
std::string TextThrownBy(F&& action) {
  try {
    action();
  } catch (const tevra::osa::Exception& e) {
    return e.what();
  }
  return "nothing thrown";
}

}  // namespace support

#endif  // SUPPORT_TEXT_THROWN_BY_H_
