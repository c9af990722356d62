#ifndef TEVRA_CORE_UTF8_H_
#define TEVRA_CORE_UTF8_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace tevra::core {

// Bytes of the UTF-8 sequence that `text` begins with; 0 when it begins with none. Overlong forms,
// surrogates and what lies beyond U+10FFFF are none.
size_t Utf8SequenceLength(std::string_view text);
// Whether the text is nothing but such sequences; the empty text is.
bool IsUtf8(std::string_view text);
// The character of one well-formed sequence.
uint32_t Utf8CodePoint(std::string_view sequence);
// The text with "?" for every byte that is not UTF-8 and for zero bytes.
std::string ValidUtf8(std::string_view text);

}  // namespace tevra::core

#endif  // TEVRA_CORE_UTF8_H_
