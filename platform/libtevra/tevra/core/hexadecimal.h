#ifndef TEVRA_CORE_HEXADECIMAL_H_
#define TEVRA_CORE_HEXADECIMAL_H_

#include <string>
#include <string_view>

namespace tevra::core {

enum class LetterCase { kLower, kUpper };

// Two hexadecimal digits for a byte, behind `text`.
void AppendHexadecimal(char byte, std::string& text, LetterCase letters = LetterCase::kLower);
// Two hexadecimal digits for each byte, with lower-case letters.
std::string Hexadecimal(std::string_view bytes);

}  // namespace tevra::core

#endif  // TEVRA_CORE_HEXADECIMAL_H_
