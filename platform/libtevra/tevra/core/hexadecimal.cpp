#include "tevra/core/hexadecimal.h"

namespace tevra::core {

void AppendHexadecimal(char byte, std::string& text, LetterCase letters) {
  const char* const digits =
      letters == LetterCase::kLower ? "0123456789abcdef" : "0123456789ABCDEF";
  const auto value = static_cast<unsigned char>(byte);
  text.push_back(digits[value >> 4]);
  text.push_back(digits[value & 15]);
}

std::string Hexadecimal(std::string_view bytes) {
  std::string text;
  text.reserve(2 * bytes.size());
  for (const char byte : bytes) AppendHexadecimal(byte, text);
  return text;
}

}  // namespace tevra::core
