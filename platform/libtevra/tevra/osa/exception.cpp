#include "tevra/osa/exception.h"

#include <cstdarg>
#include <cstdio>

namespace tevra::osa {
namespace {

std::string Format(const char* format, va_list arguments) {
  va_list again;
  va_copy(again, arguments);
  const int length = vsnprintf(nullptr, 0, format, arguments);
  std::string text;
  if (length < 0) {
    text = format;  // better the bare format than no message
  } else {
    text.resize(static_cast<size_t>(length));
    vsnprintf(text.data(), text.size() + 1, format, again);
  }
  va_end(again);
  return text;
}

}  // namespace

Exception::Exception(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  message_ = Format(format, arguments);
  va_end(arguments);
}

Exception::Exception(Code code)
    : code_(code), message_(code == kUnimplemented ? "unimplemented" : "error") {}

}  // namespace tevra::osa
