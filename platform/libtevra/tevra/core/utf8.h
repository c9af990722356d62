#ifndef TEVRA_CORE_UTF8_H_
#define TEVRA_CORE_UTF8_H_

#include <cstddef>
#include <string_view>

namespace tevra::core {

// Bytes of the UTF-8 sequence that `text` begins with; 0 when it begins with none. Overlong forms,
// surrogates and what lies beyond U+10FFFF are none.
size_t Utf8SequenceLength(std::string_view text);

}  // namespace tevra::core

#endif  // TEVRA_CORE_UTF8_H_
